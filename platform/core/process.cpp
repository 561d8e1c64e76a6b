#include "process.h"

#include <vunkcore/process.h>

#include "common/internal.h"
#include "pidfd.h"
#include "uninterrupted.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

// sigaction() by the name that sanitizers leave alone. They keep a handler waiting for the end of what it interrupts,
// which here may never end.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): it is the C library's
extern "C" int __sigaction(int number, const struct sigaction *action, struct sigaction *before);

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// What the caller learns about its child, through a pipe: the exit status of the intermediate may go to another
/// thread of the host.
struct Report {
	pid_t child; // -1: there is none
	int error;

	bool IsMissing() const { return child < 0 && error == EDEADLK; }
};

constexpr Report kNoReport = {-1, EDEADLK}; // there is no child, and nobody left who could say why
constexpr Clock::duration kPersistence = 10s;
constexpr int kMinAttempts = 8; // however long each of them takes
constexpr int kReportDescriptor = STDERR_FILENO + 1;

void Send(int fd, Report report)
{
	// The pipe takes so few bytes at once. The caller has no use for them when it has been killed, and then the child goes
	// on all the same.
	signal(SIGPIPE, SIG_IGN);
	[[maybe_unused]] const ssize_t written = write(fd, &report, sizeof(report));
	signal(SIGPIPE, SIG_DFL);
}

void SetDefaultDispositions()
{
	for (int number = 1; number <= SIGRTMAX; ++number)
		signal(number, SIG_DFL);
}

void UnblockSignals()
{
	sigset_t none;
	sigemptyset(&none);
	pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/// Ends this process, with a report, where it sleeps on a lock. fork() looks after few of the C library's locks: when
/// another thread of the host held one of the others, nobody will ever open it in this copy.
///
/// It looks again and again, and takes for asleep who has let go of the processor before each of so many looks in a row:
/// who waits for a lock has, who waits for a processor on a loaded machine has not, and who waits for a disk is not looked
/// at until the disk has answered.
class LockWatch {
public:
	explicit LockWatch(int reportTo)
	{
		state = {reportTo, Sleeps(), 0, 0};
		SetHandler(Look);
		SetInterval(kInterval);
		SetBlocked(false);
	}
	~LockWatch()
	{
		SetInterval({});
		SetBlocked(true);
		SetHandler(SIG_DFL);
	}
	LockWatch(const LockWatch &) = delete;
	LockWatch &operator=(const LockWatch &) = delete;

private:
	static constexpr timeval kInterval = {0, 1'000};
	static constexpr int kSleepsOfALock = 4;
	static constexpr int kMaxLooks = 1'000; // also ends who spins, or runs where the kernel counts no sleeps

	struct State {
		int reportTo;
		long sleeps;
		int inARow;
		int looks;
	};

	static long Sleeps()
	{
		rusage usage;
		return getrusage(RUSAGE_SELF, &usage) == 0 ? usage.ru_nvcsw : 0;
	}

	/// The handler. POSIX does not name getrusage() among what a handler may call; here it is the bare system call.
	static void Look(int)
	{
		const int before = errno;
		const long sleeps = Sleeps();
		state.inARow = sleeps > state.sleeps ? state.inARow + 1 : 0;
		state.sleeps = sleeps;
		if (state.inARow == kSleepsOfALock || ++state.looks == kMaxLooks) {
			// That the pipe ends would not do: another child of the host may hold a copy of this end.
			Send(state.reportTo, kNoReport);
			_exit(0);
		}
		errno = before;
	}

	static void SetHandler(void (*handler)(int))
	{
		struct sigaction action = {};
		action.sa_handler = handler;
		action.sa_flags = SA_RESTART;
		__sigaction(SIGALRM, &action, nullptr);
	}

	static void SetInterval(timeval interval)
	{
		const itimerval timer = {interval, interval};
		setitimer(ITIMER_REAL, &timer, nullptr);
	}

	static void SetBlocked(bool blocked)
	{
		sigset_t alarm;
		sigemptyset(&alarm);
		sigaddset(&alarm, SIGALRM);
		pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &alarm, nullptr);
	}

	static State state; // only ever written in a child
};

LockWatch::State LockWatch::state;

/// Takes and opens every lock of the C library's that the child may come to need: those of the time zone and of syslog(),
/// whose connection it closes, and those of translated messages.
void CloseSyslogOrEnd(int reportTo)
{
	const LockWatch watch(reportTo);
	tzset();
	closelog();
	[[maybe_unused]] const char *const message = strerror(EDEADLK);
}

/// Leaves /dev/null on the three standard descriptors, and the report on the next one as the only other.
bool LeaveDescriptors()
{
	const int null = open("/dev/null", O_RDWR); // not close-on-exec: it may be one of the three itself
	if (null < 0)
		return false;
	for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
		if (dup2(null, fd) < 0)
			return false;
	closefrom(kReportDescriptor + 1);
	return true;
}

/// The first child: makes everything ready that the second one inherits, so that it returns from here in the latter
/// only.
void BecomeDetached(int report)
{
	SetDefaultDispositions();
	CloseSyslogOrEnd(report);
	// First of all, as it may be on one of the standard descriptors where the host has closed those.
	if (dup2(report, kReportDescriptor) < 0) {
		Send(report, {-1, errno});
		_exit(0);
	}
	if (!LeaveDescriptors() || chdir("/") != 0) {
		Send(kReportDescriptor, {-1, errno});
		_exit(0);
	}
	const pid_t child = fork();
	if (child < 0)
		Send(kReportDescriptor, {-1, errno});
	if (child != 0)
		_exit(0);
	setsid();
	// From the child itself: had the intermediate to say it, and were it killed before, there would be a child that the
	// caller does not know of.
	Send(kReportDescriptor, {getpid(), 0});
	close(kReportDescriptor);
}

Report Receive(int fd)
{
	Report report;
	ssize_t got;
	do
		got = read(fd, &report, sizeof(report));
	while (got < 0 && errno == EINTR);
	return got == sizeof(report) ? report : kNoReport;
}

/// Waits for the lock of syslog(), so that it was open a moment before the fork. Where many threads log it hardly ever is,
/// and nearly every fork at a moment of its own choosing would copy a closed one.
void MeetAnOpenLog()
{
	setlogmask(0); // sets nothing
}

/// Forks once and, in the child, once more. The intermediate is a child that the host sees: only fork() runs the
/// handlers that put the allocator and others in order, and fork() makes no child that ends without SIGCHLD. A host
/// that collects every child may therefore collect this one, with status 0.
Report ForkDetached()
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0)
		return {-1, errno};
	vunkc::Descriptor reading(ends[0]);
	vunkc::Descriptor writing(ends[1]);
	MeetAnOpenLog();
	const pid_t intermediate = fork();
	if (intermediate < 0)
		return {-1, errno};
	if (intermediate == 0) {
		reading.Release(); // closed together with all others
		BecomeDetached(writing.Release());
		return {0, 0};
	}
	writing.Close();
	const Report report = Receive(reading.Get());
	while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR)
		continue;
	return report;
}

/// Where many threads log, one of them holds the lock at most moments; the pauses spread the attempts over other moments.
Report ForkDetachedPersistently()
{
	const vunkc::Uninterrupted uninterrupted;
	const Clock::time_point deadline = Clock::now() + kPersistence;
	Clock::duration pause = 500us;
	for (int attempt = 1;; ++attempt) {
		const Report report = ForkDetached();
		if (!report.IsMissing() || (attempt >= kMinAttempts && Clock::now() >= deadline))
			return report;
		std::this_thread::sleep_for(pause);
		pause = std::min<Clock::duration>(2 * pause, 4ms);
	}
}

/// Without pidfd_open(), which Linux 5.3 brought, which a sandbox can forbid, and which needs a free descriptor.
bool IsAliveByStat(pid_t pid)
{
	if (kill(pid, 0) != 0 && errno == ESRCH)
		return false;
	const auto stat = vunkc::ReadProcessStat(vunkc::StatPath(pid).text);
	return !stat || !stat->HasEnded();
}

} // namespace

namespace vunkc {

ssize_t ReadUpTo(int fd, char *buffer, size_t size)
{
	size_t length = 0;
	while (length < size) {
		const ssize_t got = read(fd, buffer + length, size - length);
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			return -1;
		if (got == 0)
			break;
		length += static_cast<size_t>(got);
	}
	return static_cast<ssize_t>(length);
}

StatPath::StatPath(pid_t pid)
{
	snprintf(text, sizeof(text), "/proc/%d/stat", pid);
}

std::optional<ProcessStat> ReadProcessStat(const char *path)
{
	const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
	char text[4096];
	const ssize_t length = file ? ReadUpTo(file.Get(), text, sizeof(text) - 1) : -1;
	if (length < 0)
		return std::nullopt;
	text[length] = '\0';
	// The second field is the program's name in parentheses, which can hold blanks and parentheses itself.
	const char *const name = strrchr(text, ')');
	ProcessStat stat;
	if (name == nullptr ||
	    // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
	    sscanf(name + 1, " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld %*s %llu",
	           &stat.state, &stat.threads, &stat.startTime) != 3)
		return std::nullopt;
	return stat;
}

bool MeansNoProcess(int error)
{
	return error == ESRCH || error == EINVAL ||
	       error == ENOENT; // for a thread one of the latter two, as the kernel is
}

bool HasEnded(const Descriptor &process)
{
	pollfd ended = {process.Get(), POLLIN, 0};
	int ready;
	do
		ready = poll(&ended, 1, 0);
	while (ready < 0 && errno == EINTR);
	return ready > 0;
}

} // namespace vunkc

pid_t VUNKCProcForkChildNoWait(void)
{
	int cancelState;
	pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
	const Report report = ForkDetachedPersistently();
	if (report.child == 0) { // and is never cancelled: its only thread would end with the host's exit handlers
		UnblockSignals();
		return 0;
	}
	pthread_setcancelstate(cancelState, nullptr);
	if (report.child < 0) {
		errno = report.error;
		return VUNKC_FAIL(-1, VUNKC_ERR_FORK);
	}
	return report.child;
}

int VUNKCProcAlive(pid_t pid)
{
	if (pid < 1)
		return 0;
	if (const vunkc::Descriptor process(pidfd_open(pid, 0)); process)
		return !vunkc::HasEnded(process);
	return !vunkc::MeansNoProcess(errno) && IsAliveByStat(pid);
}
