#include "kit/files.h"
#include "process_kit.h"

#include <vunkcore/error.h>
#include <vunkcore/process.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kFlags = 0xBB;

class Program : public ProcessTest {
protected:
	Program() { VUNKCErrSetEx(0x1234, "before", 5); }

	/// Makes a program that runs these lines of shell, in which $dir is the test's folder.
	std::string Script(const std::string &name, const std::string &lines) const
	{
		kit::WriteFile(dir.Path(name), "#!/bin/sh\ndir='" + dir.Path() + "'\n" + lines + "\n");
		std::filesystem::permissions(dir.Path(name), std::filesystem::perms(0755));
		return dir.Path(name);
	}
	static int Shell(const std::string &lines)
	{
		return VUNKCExecl("/bin/sh", kFlags, "-c", lines.c_str(), static_cast<char *>(nullptr));
	}
	int ShellListsItsDescriptors() const
	{
		// In a subshell, so that where the list goes is no descriptor of the shell that is looked at.
		return Shell("(ls /proc/$$/fd; for i in 0 1 2; do readlink /proc/$$/fd/$i; done) >" +
		             dir.Path("descriptors") + "; :");
	}
	std::string Read(const std::string &name) const { return kit::ReadFile(dir.Path(name)); }
	/// A line of a copy of /proc/<pid>/status.
	std::string StatusLine(const std::string &key) const
	{
		std::istringstream text(Read("status"));
		for (std::string line; std::getline(text, line);)
			if (line.rfind(key + ":\t", 0) == 0)
				return line.substr(key.size() + 2);
		return "missing";
	}

	kit::TempDir dir;
};

/// Treats a signal in some way until the end of the scope.
class Disposition {
public:
	Disposition(int signalNumber, void (*handler)(int), int flags = 0) : number(signalNumber)
	{
		struct sigaction action = {};
		action.sa_handler = handler;
		action.sa_flags = flags;
		sigaction(number, &action, &before);
	}
	~Disposition() { sigaction(number, &before, nullptr); }
	Disposition(const Disposition &) = delete;
	Disposition &operator=(const Disposition &) = delete;

private:
	int number;
	struct sigaction before;
};

TEST_F(Program, StatusZeroIsSuccessAndLeavesErrorAndErrnoAsTheyWere)
{
	errno = ENOTTY;
	EXPECT_EQ(VUNKCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
	EXPECT_EQ(Shell("exit 0"), 0);
	EXPECT_EQ(errno, ENOTTY);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
	EXPECT_STREQ(VUNKCErrorGetFile(), "before");
}

TEST_F(Program, ExecGivesMinusOneForAnyOtherEnd)
{
	EXPECT_EQ(VUNKCExec("/bin/sh", "-c", "exit 3", nullptr, nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
	VUNKCErrSetEx(0, nullptr, 0);
	EXPECT_EQ(VUNKCExec("/bin/sh", "-c", "kill -TERM $$", nullptr, nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
}

TEST_F(Program, ExeclGivesTheStatus)
{
	for (int status : {1, 2, 127, 128, 255}) {
		VUNKCErrSetEx(0, nullptr, 0);
		EXPECT_EQ(Shell("exit " + std::to_string(status)), -status);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
	}
}

TEST_F(Program, ExeclGivesTheSignalThatKilledIt)
{
	for (int signal : {SIGHUP, SIGKILL, SIGTERM, SIGUSR1}) {
		VUNKCErrSetEx(0, nullptr, 0);
		EXPECT_EQ(Shell("kill -" + std::to_string(signal) + " $$; exit 0"), -(128 + signal));
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
	}
}

TEST_F(Program, WhatCannotBeRunIsAFailureWithItsReason)
{
	kit::WriteFile(dir.Path("plain"), "#!/bin/sh\n");
	kit::WriteFile(dir.Path("no-format"), "exit 0\n");
	ASSERT_EQ(chmod(dir.Path("no-format").c_str(), 0755), 0);
	const std::pair<std::string, int> cases[] = {
		{dir.Path("missing"), ENOENT},
		{dir.Path("plain"), EACCES},
		{dir.Path(), EACCES},
		{dir.Path("no-format"), ENOEXEC},
		{"", ENOENT},
		{"true", ENOENT},
	};
	for (const auto &[path, reason] : cases) {
		VUNKCErrSetEx(0, nullptr, 0);
		EXPECT_EQ(VUNKCExec(path.c_str(), nullptr, nullptr, nullptr, nullptr), -1) << path;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXEC) << path;
		EXPECT_EQ(errno, reason) << path;
		EXPECT_EQ(VUNKCExecl(path.c_str(), kFlags, static_cast<char *>(nullptr)), -1) << path;
	}
}

TEST_F(Program, ArgumentsArriveAsTheyAre)
{
	const std::string echo = Script("echo", "for a; do printf '<%s>' \"$a\"; done >\"$dir/out\"");
	EXPECT_EQ(VUNKCExec(echo.c_str(), "a b", "", "$HOME;*`ls`", "'\"\n\\"), 0);
	EXPECT_EQ(Read("out"), "<a b><><$HOME;*`ls`><'\"\n\\>");
	EXPECT_EQ(VUNKCExecl(echo.c_str(), kFlags, "1", "2", "3", "4", "5", "6", "7", "8 8", "", "10",
	                     static_cast<char *>(nullptr)),
	          0);
	EXPECT_EQ(Read("out"), "<1><2><3><4><5><6><7><8 8><><10>");
	EXPECT_EQ(VUNKCExecl(echo.c_str(), kFlags, static_cast<char *>(nullptr)), 0);
	EXPECT_EQ(Read("out"), "");
}

TEST_F(Program, ArgumentsEndAtTheFirstNull)
{
	const std::string count = Script("count", "echo $# >\"$dir/out\"");
	EXPECT_EQ(VUNKCExec(count.c_str(), "a", nullptr, "b", "c"), 0);
	EXPECT_EQ(Read("out"), "1\n");
	EXPECT_EQ(VUNKCExec(count.c_str(), nullptr, "a", nullptr, nullptr), 0);
	EXPECT_EQ(Read("out"), "0\n");
}

TEST_F(Program, IsNamedByItsPath)
{
	EXPECT_EQ(Shell("cat /proc/$$/cmdline >" + dir.Path("out")), 0);
	EXPECT_STREQ(Read("out").c_str(), "/bin/sh");
}

TEST_F(Program, RefusesOtherOptionsAndNullAndRunsNothing)
{
	const std::string mark = Script("mark", "touch \"$dir/ran\"");
	for (int flags : {0, 1, 0xBA, 0xBC, 0x1BB, -1}) {
		VUNKCErrSetEx(0, nullptr, 0);
		EXPECT_EQ(VUNKCExecl(mark.c_str(), flags, static_cast<char *>(nullptr)), -1);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	}
	EXPECT_FALSE(std::filesystem::exists(dir.Path("ran")));
	VUNKCErrSetEx(0, nullptr, 0);
	EXPECT_EQ(VUNKCExec(nullptr, "a", nullptr, nullptr, nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_EQ(VUNKCExecl(nullptr, kFlags, static_cast<char *>(nullptr)), -1);
}

TEST_F(Program, HasTheStandardDescriptorsAndNoOther)
{
	const int low = fcntl(STDERR_FILENO, F_DUPFD, 3);
	const int high = fcntl(STDERR_FILENO, F_DUPFD, 500);
	EXPECT_EQ(ShellListsItsDescriptors(), 0);
	close(low);
	close(high);
	const std::string standardError = std::filesystem::read_symlink("/proc/self/fd/2");
	EXPECT_EQ(Read("descriptors"), "0\n1\n2\n/dev/null\n/dev/null\n" + standardError + "\n");
}

TEST_F(Program, WritesToTheCallersStandardError)
{
	EXPECT_EQ(StatusOfChild([&] {
			  const int file = open(dir.Path("err").c_str(), O_WRONLY | O_CREAT, 0600);
			  return dup3(file, STDERR_FILENO, O_CLOEXEC) >= 0 && Shell("echo text >&2") == 0;
		  }),
	          0);
	EXPECT_EQ(Read("err"), "text\n");
}

TEST_F(Program, HasDevNullWhereTheCallerHasClosedItsDescriptors)
{
	EXPECT_EQ(StatusOfChild([&] {
			  for (int fd : {0, 1, 2})
				  close(fd);
			  return ShellListsItsDescriptors() == 0 && fcntl(2, F_GETFD) < 0;
		  }),
	          0);
	EXPECT_EQ(Read("descriptors"), "0\n1\n2\n/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(Program, HasTheCallersEnvironmentAndFolder)
{
	EXPECT_EQ(StatusOfChild([&] {
			  return setenv("CORE_TEST", "a value", 1) == 0 && chdir(dir.Path().c_str()) == 0 &&
		                 Shell("echo \"$CORE_TEST\" >env; pwd >folder") == 0;
		  }),
	          0);
	EXPECT_EQ(Read("env"), "a value\n");
	EXPECT_EQ(Read("folder"), dir.Path() + "\n");
}

TEST_F(Program, StartsWithoutBlockedOrIgnoredSignals)
{
	EXPECT_EQ(StatusOfChild([&] {
			  for (int signal = 1; signal <= SIGRTMAX; ++signal)
				  ::signal(signal, signal % 2 == 0 ? SIG_IGN : SIG_DFL);
			  sigset_t all;
			  sigfillset(&all);
			  sigprocmask(SIG_SETMASK, &all, nullptr);
			  if (VUNKCExec("/bin/cp", "/proc/self/status", dir.Path("status").c_str(), nullptr, nullptr) !=
		              0)
				  return false;
			  sigset_t now;
			  sigprocmask(SIG_SETMASK, nullptr, &now);
			  return sigismember(&now, SIGTERM) == 1 && ::signal(SIGUSR2, SIG_DFL) == SIG_IGN;
		  }),
	          0);
	EXPECT_EQ(StatusLine("SigBlk"), "0000000000000000");
	EXPECT_EQ(StatusLine("SigIgn"), "0000000000000000");
	EXPECT_EQ(StatusLine("SigCgt"), "0000000000000000");
}

TEST_F(Program, RunsHoweverTheHostTreatsSigchld)
{
	const auto runs = [] {
		for (int status : {0, 7, 127})
			if (Shell("exit " + std::to_string(status)) != -status)
				return false;
		return Shell("kill -KILL $$") == -(128 + SIGKILL);
	};
	{
		const Disposition ignored(SIGCHLD, SIG_IGN);
		EXPECT_TRUE(runs());
	}
	{
		const Disposition noZombies(SIGCHLD, SIG_DFL, SA_NOCLDWAIT);
		EXPECT_TRUE(runs());
	}
	{
		const Disposition collecting(SIGCHLD, [](int) {
			while (waitpid(-1, nullptr, WNOHANG) > 0)
				continue;
		});
		EXPECT_TRUE(runs());
	}
}

TEST_F(Program, IsNotSeenByAThreadThatCollectsEveryChild)
{
	std::atomic<bool> done = false;
	std::atomic<int> collected = 0;
	std::thread collector([&] {
		while (!done) {
			if (waitpid(-1, nullptr, 0) > 0)
				++collected;
			std::this_thread::yield();
		}
	});
	for (int i = 0; i < 60; ++i)
		EXPECT_EQ(Shell("exit " + std::to_string(i % 5)), -(i % 5));
	done = true;
	collector.join();
	EXPECT_EQ(collected, 0);
}

TEST_F(Program, RunsEvenWhenAThreadCollectsClonesToo)
{
	std::atomic<bool> done = false;
	std::thread collector([&] {
		while (!done) {
			waitpid(-1, nullptr, __WALL);
			std::this_thread::yield();
		}
	});
	for (int i = 0; i < 60; ++i)
		EXPECT_EQ(Shell("exit " + std::to_string(i % 5)), -(i % 5));
	done = true;
	collector.join();
}

std::atomic<int> gHandled = 0;
std::atomic<int> gHandledEarly = 0;
char gEndedMark[512];

TEST_F(Program, SignalsOfTheHostAreHandledOnceAndAfterwards)
{
	gHandled = gHandledEarly = 0;
	dir.Path("ended").copy(gEndedMark, sizeof(gEndedMark) - 1);
	const Disposition handled(SIGUSR1, [](int) {
		++gHandled;
		if (access(gEndedMark, F_OK) != 0)
			++gHandledEarly;
	});
	EXPECT_EQ(Shell("kill -USR1 " + std::to_string(getpid()) + " && touch " + dir.Path("ended")), 0);
	EXPECT_EQ(gHandled, 1);
	EXPECT_EQ(gHandledEarly, 0);
}

TEST_F(Program, NoSigchldReachesTheHost)
{
	gHandled = 0;
	const Disposition handled(SIGCHLD, [](int) { ++gHandled; });
	EXPECT_EQ(Shell("exit 0"), 0);
	EXPECT_EQ(gHandled, 0);
}

TEST_F(Program, ManyThreadsRunProgramsAtOnce)
{
	std::atomic<int> wrong = 0;
	std::vector<std::thread> threads;
	for (int t = 0; t < 8; ++t)
		threads.emplace_back([&wrong, t] {
			for (int i = 0; i < 15; ++i)
				if (Shell("exit " + std::to_string(t * 15 + i)) != -(t * 15 + i))
					++wrong;
		});
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(wrong, 0);
}

TEST_F(Program, LeavesNeitherChildNorDescriptor)
{
	EXPECT_EQ(StatusOfChild([&] {
			  const auto before = kit::OpenDescriptors();
			  for (int i = 0; i < 5; ++i)
				  if (Shell("exit 0") != 0 || Shell("exit 1") != -1 ||
			              VUNKCExec(dir.Path("missing").c_str(), nullptr, nullptr, nullptr, nullptr) != -1)
					  return false;
			  return kit::OpenDescriptors() == before && waitpid(-1, nullptr, __WALL) == -1 &&
		                 errno == ECHILD;
		  }),
	          0);
}

TEST_F(Program, DoesNotCopyTheCallersMemory)
{
	constexpr size_t kSize = 16 << 20;
	const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	void *const memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	ASSERT_NE(memory, MAP_FAILED);
	madvise(memory, kSize, MADV_NOHUGEPAGE);
	volatile char *const bytes = static_cast<char *>(memory);
	for (size_t i = 0; i < kSize; i += page)
		bytes[i] = 1;
	EXPECT_EQ(Shell("exit 0"), 0);
	// Pages that had been shared with a copy of the process would fault one by one.
	rusage before;
	rusage after;
	getrusage(RUSAGE_THREAD, &before);
	for (size_t i = 0; i < kSize; i += page)
		bytes[i] = 2;
	getrusage(RUSAGE_THREAD, &after);
	munmap(memory, kSize);
	EXPECT_LT(after.ru_minflt - before.ru_minflt, static_cast<long>(kSize / page / 4));
}

TEST_F(Program, HoldsNoDescriptorOfTheHostsWhileItRuns)
{
	int ends[2];
	ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
	Meeting started(dir.Path("started"));
	Meeting go(dir.Path("go"));
	std::thread runner([&] { EXPECT_EQ(Shell("echo yes >" + started.Path() + "; read line <" + go.Path()), 0); });
	EXPECT_EQ(started.Line(), "yes");
	close(ends[1]);
	pollfd closed = {ends[0], POLLIN, 0};
	EXPECT_EQ(poll(&closed, 1, 30'000), 1) << "somebody has the other end of the pipe still";
	EXPECT_TRUE(Meeting::Say(go.Path(), "go"));
	runner.join();
	close(ends[0]);
}

TEST_F(Program, AnUnknownEndIsAFailure)
{
	EXPECT_EQ(VUNKCExec("/bin/sh", "-c", "kill -KILL $PPID", nullptr, nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXEC);
}

TEST_F(Program, NothingOfAKilledHostLivesOn)
{
	Meeting intermediate(dir.Path("intermediate"));
	Meeting go(dir.Path("go"));
	Meeting done(dir.Path("done"));
	const pid_t host = fork();
	if (host == 0)
		_exit(Shell("echo $PPID >" + intermediate.Path() + "; read line <" + go.Path() + "; echo $line >" +
		            done.Path()) == 0
		              ? 0
		              : 1);
	const pid_t pid = std::atoi(intermediate.Line().c_str());
	ASSERT_GT(pid, 1);
	EXPECT_NE(pid, host);
	kill(host, SIGKILL);
	waitpid(host, nullptr, 0);
	EXPECT_TRUE(Ends(pid));
	EXPECT_TRUE(Meeting::Say(go.Path(), "go"));
	// The program itself lives on, and has to have met us before the pipe goes.
	EXPECT_EQ(done.Line(), "go");
}

} // namespace
