#include <vunkcore/process.h>

#include "common/internal.h"
#include "uninterrupted.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

// A program is the child of an intermediate, not of the caller: the kernel throws the status of a child away when its
// parent ignores SIGCHLD, and any thread of the parent can take it. The intermediate shares the caller's memory, so it
// costs no copy, and it ends without a signal, so waitpid(-1) passes it over.

// clone() by the name that sanitizers leave alone. They take a clone for a fork and reset their state in the child,
// which here is the state of the host.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): it is the C library's
extern "C" int __clone(int (*fn)(void *), void *stack, int flags, void *argument, ...);

namespace {

constexpr int kRunToCompletion = 0xBB;

struct Outcome {
	enum { Lost, NotStarted, Ended } kind; // lost: whoever killed the intermediate knows how the program ended
	int value;                             // NotStarted: an errno; Ended: a wait status
};

void Check(int error)
{
	if (error != 0)
		throw std::bad_alloc();
}

class Attributes {
public:
	Attributes()
	{
		sigset_t none;
		sigemptyset(&none);
		// Every bit: sigfillset() leaves out the two signals of the C library's own, which would start as ignored.
		sigset_t all;
		memset(&all, 0xFF, sizeof(all));
		Check(posix_spawnattr_init(&attributes));
		posix_spawnattr_setsigmask(&attributes, &none);
		posix_spawnattr_setsigdefault(&attributes, &all);
		posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
	}
	~Attributes() { posix_spawnattr_destroy(&attributes); }
	Attributes(const Attributes &) = delete;
	Attributes &operator=(const Attributes &) = delete;

	const posix_spawnattr_t *Get() const { return &attributes; }

private:
	posix_spawnattr_t attributes;
};

class FileActions {
public:
	FileActions()
	{
		Check(posix_spawn_file_actions_init(&actions));
		try {
			AddAll();
		} catch (...) {
			posix_spawn_file_actions_destroy(&actions);
			throw;
		}
	}
	~FileActions() { posix_spawn_file_actions_destroy(&actions); }
	FileActions(const FileActions &) = delete;
	FileActions &operator=(const FileActions &) = delete;

	const posix_spawn_file_actions_t *Get() const { return &actions; }

private:
	void AddAll()
	{
		Check(posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
		Check(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
		if (fcntl(STDERR_FILENO, F_GETFD) >=
		    0) // onto itself: it is handed on even when it is close-on-exec here
			Check(posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDERR_FILENO));
		else
			Check(posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0));
		Check(posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1));
	}

	posix_spawn_file_actions_t actions;
};

/// What the intermediate runs on, above a page that stops an overflow; at its top the outcome. It is shared memory so
/// that the outcome arrives even where clone() is emulated by fork(), as valgrind and user mode emulators do.
class Stack {
public:
	Stack() : guard(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
	{
		base = mmap(nullptr, guard + kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		if (base == MAP_FAILED)
			throw std::bad_alloc();
		mprotect(base, guard, PROT_NONE);
	}
	~Stack() { munmap(base, guard + kSize); }
	Stack(const Stack &) = delete;
	Stack &operator=(const Stack &) = delete;

	void *Top() const { return static_cast<char *>(base) + guard + kSize - kForOutcome; }
	Outcome *Result() const { return static_cast<Outcome *>(Top()); }

private:
	static constexpr size_t kSize = size_t{64} * 1024;
	static constexpr size_t kForOutcome = 64; // keeps the top aligned for every architecture
	static_assert(sizeof(Outcome) <= kForOutcome);

	size_t guard;
	void *base;
};

struct Job {
	const char *program;
	char *const *arguments;
	const posix_spawnattr_t *attributes;
	const posix_spawn_file_actions_t *actions;
	Outcome *outcome;
};

/// The intermediate. Its memory is the host's, so it enters the kernel directly where a library on top of the C library
/// could take what happens here for the host's doing and note it down.
int RunAndWait(void *argument)
{
	const Job &job = *static_cast<const Job *>(argument);
	// When the host dies, its memory is not to live on for the sake of a status that nobody reads.
	syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
	// All zero is SIG_DFL without flags. Dispositions are not shared with the host.
	const unsigned long byDefault[8] = {};
	syscall(SYS_rt_sigaction, SIGCHLD, byDefault, nullptr, size_t{_NSIG / 8});

	pid_t pid;
	const int error = posix_spawn(&pid, job.program, job.actions, job.attributes, job.arguments, environ);
	if (error != 0) {
		*job.outcome = {Outcome::NotStarted, error};
		return 0;
	}
	// The copies of the host's descriptors: the other end of a pipe shall see the host close its end.
	syscall(SYS_close_range, 0, ~0U, 0);
	int status;
	long waited;
	do
		waited = syscall(SYS_wait4, pid, &status, 0, nullptr);
	while (waited < 0 && errno == EINTR);
	if (waited == pid)
		*job.outcome = {Outcome::Ended, status};
	return 0;
}

Outcome Run(const char *program, char *const *arguments)
{
	const Attributes attributes;
	const FileActions actions;
	const Stack stack;
	Job job{program, arguments, attributes.Get(), actions.Get(), stack.Result()};

	const int errnoBefore = errno; // which the intermediate shares
	{
		const vunkc::Uninterrupted uninterrupted;
		// No signal in the lowest byte of the flags.
		const pid_t intermediate = __clone(RunAndWait, stack.Top(), CLONE_VM | CLONE_VFORK, &job);
		if (intermediate < 0)
			return {Outcome::NotStarted, errno};
		// A host that waits for clones as well (__WALL) may have been faster; the outcome is there all the same.
		while (waitpid(intermediate, nullptr, __WALL) < 0 && errno == EINTR)
			continue;
	}
	errno = errnoBefore;
	return *stack.Result();
}

/// 0, or what VUNKCExecl returns, with the error set.
int RunForStatus(const char *program, char *const *arguments)
{
	const Outcome outcome = Run(program, arguments);
	if (outcome.kind != Outcome::Ended) {
		if (outcome.kind == Outcome::NotStarted)
			errno = outcome.value;
		return VUNKC_FAIL(-1, VUNKC_ERR_EXEC);
	}
	const int status = outcome.value;
	if (status == 0)
		return 0;
	return VUNKC_FAIL(WIFEXITED(status) ? -WEXITSTATUS(status) : -(128 + WTERMSIG(status)), VUNKC_ERR_EXIT_STATUS);
}

/// The program's name and the strings of a list up to the null that ends it, which is the last element.
std::vector<const char *> Arguments(const char *program, va_list list)
{
	std::vector<const char *> arguments{program};
	do
		arguments.push_back(va_arg(list, const char *)); // NOLINT(clang-analyzer-valist.Uninitialized)
	while (arguments.back() != nullptr);
	return arguments;
}

} // namespace

int VUNKCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3, const char *szArg4)
{
	if (szProgram == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	const char *const arguments[] = {szProgram, szArg1, szArg2, szArg3, szArg4, nullptr};
	const int status =
		VUNKC_GUARD(-1, [&] { return RunForStatus(szProgram, const_cast<char *const *>(arguments)); });
	return status == 0 ? 0 : -1;
}

int VUNKCExecl(const char *szProgram, int iFlags, ...)
{
	if (szProgram == nullptr || iFlags != kRunToCompletion)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	va_list list;
	va_start(list, iFlags);
	const int result = VUNKC_GUARD(-1, [&] {
		const std::vector<const char *> arguments = Arguments(szProgram, list);
		return RunForStatus(szProgram, const_cast<char *const *>(arguments.data()));
	});
	va_end(list);
	return result;
}
