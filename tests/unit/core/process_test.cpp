#include "kit/files.h"
#include "process_kit.h"

#include <vunkcore/error.h>
#include <vunkcore/process.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

std::atomic<int> clockAdvance = 0; // by how many seconds the clock goes on whenever it is read

} // namespace

extern "C" int clock_gettime(clockid_t id, timespec *now) noexcept
{
	static std::atomic<int> ahead = 0;
	const int result = static_cast<int>(syscall(SYS_clock_gettime, id, now));
	now->tv_sec += ahead += clockAdvance;
	return result;
}

namespace {

/// A line of /proc/self/status.
std::string StatusLine(const std::string &key)
{
	std::istringstream text(kit::ReadFile("/proc/self/status"));
	for (std::string line; std::getline(text, line);)
		if (line.rfind(key + ":\t", 0) == 0)
			return line.substr(key.size() + 2);
	return "missing";
}

class ForkChild : public ProcessTest {
protected:
	ForkChild() { VUNKCErrSetEx(0x1234, "before", 5); }

	/// What the child says. Its process id is kept in `child`.
	template <class Text>
	std::string Said(Text &&text)
	{
		child = VUNKCProcForkChildNoWait();
		if (child == 0) {
			std::string line = "an exception";
			try {
				line = text();
			} catch (...) {
			}
			Meeting::Say(meeting.Path(), line);
			_exit(0);
		}
		return child < 0 ? "no child" : meeting.Line();
	}

	kit::TempDir dir;
	Meeting meeting{dir.Path("meeting")};
	pid_t child = -1;
};

TEST_F(ForkChild, GivesTheCallerTheProcessIdAndLeavesTheErrorAsItWas)
{
	const std::string said = Said([] { return std::to_string(getpid()); });
	EXPECT_EQ(said, std::to_string(child));
	EXPECT_NE(child, getpid());
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
	EXPECT_TRUE(Ends(child));
}

TEST_F(ForkChild, IsASessionOfItsOwnWithoutATerminal)
{
	EXPECT_EQ(Said([] {
			  const bool leads = getsid(0) == getpid() && getpgrp() == getpid();
			  return leads && open("/dev/tty", O_RDWR) < 0 ? std::string("leads") : "does not lead";
		  }),
	          "leads");
}

TEST_F(ForkChild, HasDevNullAndNoOtherDescriptor)
{
	const int extra = fcntl(STDERR_FILENO, F_DUPFD, 700);
	EXPECT_EQ(
		Said([] {
			std::string text;
			for (int fd : kit::OpenDescriptors())
				text += std::to_string(fd) + " " +
			                std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string() +
			                ", ";
			return text;
		}),
		"0 /dev/null, 1 /dev/null, 2 /dev/null, ");
	close(extra);
}

TEST_F(ForkChild, CanReadAndWriteItsStandardDescriptors)
{
	EXPECT_EQ(Said([] {
			  char c;
			  const bool good = read(0, &c, 1) == 0 && write(1, "x", 1) == 1 && write(2, "x", 1) == 1;
			  return good && (fcntl(0, F_GETFD) | fcntl(1, F_GETFD) | fcntl(2, F_GETFD)) == 0
		                         ? std::string("good")
		                         : "bad";
		  }),
	          "good");
}

TEST_F(ForkChild, WorksWhereTheHostHasClosedItsDescriptors)
{
	EXPECT_EQ(StatusOfChild([&] {
			  for (int fd : {0, 1, 2})
				  close(fd);
			  const std::string said = Said([] {
				  std::string text;
				  for (int fd : kit::OpenDescriptors())
					  text += std::to_string(fd);
				  return text;
			  });
			  return said == "012" && fcntl(0, F_GETFD) < 0 && fcntl(1, F_GETFD) < 0 &&
		                 fcntl(2, F_GETFD) < 0;
		  }),
	          0);
}

TEST_F(ForkChild, HasDefaultDispositionsAndNoBlockedSignals)
{
	EXPECT_EQ(StatusOfChild([&] {
			  for (int signal = 1; signal <= SIGRTMAX; ++signal)
				  ::signal(
					  signal, signal % 2 == 0 ? SIG_IGN : [](int) {});
			  sigset_t mask;
			  sigfillset(&mask);
			  sigdelset(&mask, SIGUSR2);
			  sigprocmask(SIG_SETMASK, &mask, nullptr);
			  const std::string said = Said([] {
				  // The two signals of the C library's own are not the program's to look at.
				  const unsigned long long caught =
					  std::stoull(StatusLine("SigCgt"), nullptr, 16) & ~0x180000000ULL;
				  return StatusLine("SigBlk") + " " + StatusLine("SigIgn") + " " +
			                 std::to_string(caught);
			  });
			  sigset_t now;
			  sigprocmask(SIG_SETMASK, nullptr, &now);
			  return said == "0000000000000000 0000000000000000 0" && sigismember(&now, SIGTERM) == 1 &&
		                 sigismember(&now, SIGUSR2) == 0 && ::signal(SIGUSR2, SIG_DFL) == SIG_IGN;
		  }),
	          0);
}

TEST_F(ForkChild, HasTheRootAsItsWorkingDirectory)
{
	const auto before = std::filesystem::current_path();
	EXPECT_EQ(StatusOfChild([&] {
			  std::filesystem::current_path(dir.Path());
			  return Said([] { return std::filesystem::current_path().string(); }) == "/" &&
		                 std::filesystem::current_path() == dir.Path();
		  }),
	          0);
	EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST_F(ForkChild, IsACopyOfTheCallingThread)
{
	const std::string text = "text on the stack";
	std::thread([&] {
		EXPECT_EQ(Said([&] { return text + " and " + std::string(1000, 'x'); }),
		          text + " and " + std::string(1000, 'x'));
	}).join();
}

TEST_F(ForkChild, IsNoChildOfTheCallerAndLeavesNothingBehind)
{
	EXPECT_EQ(StatusOfChild([&] {
			  const auto before = kit::OpenDescriptors();
			  const std::string host = std::to_string(getpid());
			  const std::string said = Said(
				  [&] { return getppid() == std::stoi(host) ? std::string("child") : "not a child"; });
			  return said == "not a child" && kit::OpenDescriptors() == before &&
		                 waitpid(-1, nullptr, __WALL) == -1 && errno == ECHILD;
		  }),
	          0);
}

TEST_F(ForkChild, WorksHoweverTheHostTreatsSigchld)
{
	const auto works = [&] {
		for (int i = 0; i < 20; ++i) {
			const std::string said = Said([] { return std::to_string(getpid()); });
			if (said != std::to_string(child))
				return false;
		}
		return true;
	};
	EXPECT_EQ(StatusOfChild([&] {
			  signal(SIGCHLD, SIG_IGN);
			  return works();
		  }),
	          0);
	EXPECT_EQ(StatusOfChild([&] {
			  struct sigaction action = {};
			  action.sa_handler = SIG_DFL;
			  action.sa_flags = SA_NOCLDWAIT;
			  sigaction(SIGCHLD, &action, nullptr);
			  return works();
		  }),
	          0);
	EXPECT_EQ(StatusOfChild([&] {
			  std::thread([] {
				  for (;;) {
					  waitpid(-1, nullptr, 0);
					  std::this_thread::yield();
				  }
			  }).detach();
			  return works();
		  }),
	          0);
}

TEST_F(ForkChild, FailsWhenThereCanBeNoMoreProcesses)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "takes root, to become a user who has no other processes";
	for (rlim_t processes : {1, 2}) // with two, the one that makes the child can be made, but not the child
		EXPECT_EQ(StatusOfChild([&] {
				  const rlimit limit = {processes, processes};
				  if (setrlimit(RLIMIT_NPROC, &limit) != 0 || setgid(54321) != 0 || setuid(54321) != 0)
					  return false;
				  const auto before = kit::OpenDescriptors();
				  const pid_t pid = VUNKCProcForkChildNoWait();
				  if (pid == 0)
					  _exit(1);
				  return pid == -1 && errno == EAGAIN && VUNKCErrGet() == VUNKC_ERR_FORK &&
			                 kit::OpenDescriptors() == before && waitpid(-1, nullptr, __WALL) == -1 &&
			                 errno == ECHILD;
			  }),
		          0)
			<< processes;
}

TEST_F(ForkChild, FailsWhenThereCanBeNoMoreDescriptors)
{
	for (const rlim_t descriptors :
	     {0, 3}) // with three, the caller has its two, but the one for the report is too high
		EXPECT_EQ(StatusOfChild([&] {
				  for (int fd : {0, 1, 2})
					  close(fd);
				  const rlimit limit = {descriptors, descriptors};
				  setrlimit(RLIMIT_NOFILE, &limit);
				  const pid_t pid = VUNKCProcForkChildNoWait();
				  if (pid == 0)
					  _exit(1);
				  return pid == -1 && errno == (descriptors == 0 ? EMFILE : EBADF) &&
			                 VUNKCErrGet() == VUNKC_ERR_FORK;
			  }),
		          0)
			<< descriptors;
}

TEST_F(ForkChild, CannotBeCancelled)
{
	EXPECT_EQ(Said([] {
			  pthread_cancel(pthread_self());
			  pthread_testcancel();
			  int before;
			  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &before);
			  return std::string("goes on");
		  }),
	          "goes on");
}

TEST_F(ForkChild, IsMadeByAThreadThatIsAboutToBeCancelled)
{
	for (const int type : {PTHREAD_CANCEL_DEFERRED, PTHREAD_CANCEL_ASYNCHRONOUS})
		EXPECT_EQ(StatusOfChild([&] {
				  const auto before = kit::OpenDescriptors();
				  int stateAfter = -1;
				  std::thread([&] {
					  int unused;
					  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &unused);
					  pthread_setcanceltype(type, &unused);
					  pthread_cancel(pthread_self());
					  if (type == PTHREAD_CANCEL_DEFERRED) // the other one would end it at once
						  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &unused);
					  child = VUNKCProcForkChildNoWait();
					  if (child == 0)
						  _exit(Meeting::Say(meeting.Path(), "lives") ? 0 : 1);
					  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &stateAfter);
				  }).join();
				  return child > 0 && meeting.Line() == "lives" && kit::OpenDescriptors() == before &&
			                 stateAfter == (type == PTHREAD_CANCEL_DEFERRED ? PTHREAD_CANCEL_ENABLE
			                                                                : PTHREAD_CANCEL_DISABLE);
			  }),
		          0)
			<< type;
}

/// Keeps the lock of the time zone closed by a thread that waits for a time zone file, which is a pipe without a writer.
/// For good: a process of its own does this.
class TimeZoneLock {
public:
	explicit TimeZoneLock(const std::string &path) : pipe(path)
	{
		if (mkfifo(path.c_str(), 0600) != 0 || setenv("TZ", (":" + path).c_str(), 1) != 0)
			abort();
		std::atomic<pid_t> holder = 0;
		std::thread([&holder] {
			holder = gettid();
			tzset();
		}).detach();
		while (holder == 0)
			std::this_thread::yield();
		const std::string stat = "/proc/self/task/" + std::to_string(holder) + "/stat";
		while (kit::ReadFile(stat).find(") S ") == std::string::npos) // it sleeps nowhere but at the pipe
			std::this_thread::yield();
	}

	/// As soon as the pipe has had a writer, the thread goes on.
	void Open() const { close(open(pipe.c_str(), O_WRONLY)); }

private:
	const std::string pipe;
};

int forks = 0;
std::function<void()> *atFork = nullptr;

/// Counts the forks of the calling process from now on, and calls the function after each of them.
void CountForks(std::function<void()> &function)
{
	atFork = &function;
	pthread_atfork(
		nullptr,
		[] {
			++forks;
			(*atFork)();
		},
		nullptr);
}

TEST_F(ForkChild, IsTriedForAgainWhileAnotherThreadHoldsALock)
{
	EXPECT_EQ(StatusOfChild([&] {
			  const TimeZoneLock lock(dir.Path("zone"));
			  std::function<void()> openAtThird = [&] {
				  if (forks == 3)
					  lock.Open();
			  };
			  CountForks(openAtThird);
			  const std::string said = Said([] {
				  const time_t now = 0;
				  tm local;
				  return localtime_r(&now, &local) != nullptr ? std::string("told the time")
			                                                      : "did not";
			  });
			  return said == "told the time" && forks >= 3 && waitpid(-1, nullptr, __WALL) == -1 &&
		                 errno == ECHILD;
		  }),
	          0);
}

TEST_F(ForkChild, IsGivenUpAfterSomeTimeAndSeveralAttempts)
{
	EXPECT_EQ(StatusOfChild([&] {
			  const TimeZoneLock lock(dir.Path("zone"));
			  std::function<void()> nothing = [] {};
			  CountForks(nothing);
			  clockAdvance = 6; // so that ten seconds pass at once
			  const auto before = kit::OpenDescriptors();
			  const pid_t pid = VUNKCProcForkChildNoWait();
			  if (pid == 0)
				  _exit(1);
			  return pid == -1 && errno == EDEADLK && VUNKCErrGet() == VUNKC_ERR_FORK && forks > 3 &&
		                 forks < 100 && kit::OpenDescriptors() == before &&
		                 waitpid(-1, nullptr, __WALL) == -1 && errno == ECHILD;
		  }),
	          0);
}

TEST_F(ForkChild, LogsEvenWhenItsHostWasLoggingAtThatMoment)
{
	EXPECT_EQ(StatusOfChild([&] {
			  std::atomic<int> logging = 0;
			  for (int i = 0; i < 2; ++i)
				  std::thread([&] {
					  syslog(LOG_DEBUG, "a line of a host");
					  for (++logging;;) {
						  syslog(LOG_DEBUG, "a line of a host");
						  std::this_thread::sleep_for(std::chrono::microseconds(
							  200)); // busy, but not with logging alone
					  }
				  }).detach();
			  while (logging < 2)
				  std::this_thread::yield();
			  for (int i = 0; i < 60; ++i)
				  if (Said([] {
					      syslog(LOG_DEBUG, "a line of a child");
					      return std::string("logged");
				      }) != "logged")
					  return false;
			  return true;
		  }),
	          0);
}

/// Gives the calling process a /dev of its own, in which there is a null device and nothing else.
bool EnterPrivateDev()
{
	return unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
	       mount("core-tests", "/dev", "tmpfs", 0, "mode=0755") == 0 &&
	       mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)) == 0;
}

TEST_F(ForkChild, OpensItsSyslogConnectionAfresh)
{
	if (StatusOfChild(EnterPrivateDev) != 0)
		GTEST_SKIP() << "takes root and mount namespaces, to stand in for the receiver of log lines";
	EXPECT_EQ(StatusOfChild([&] {
			  const sockaddr_un address = {AF_UNIX, "/dev/log"};
			  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
			  if (!EnterPrivateDev() ||
		              bind(journal, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
				  return false;
			  openlog("core_tests", LOG_NDELAY, LOG_USER);
			  const std::string said = Said([] {
				  // Get the numbers that the connection could have had.
				  std::vector<int> files;
				  for (int i = 0; i < 100; ++i)
					  files.push_back(open("/dev/null", O_WRONLY));
				  syslog(LOG_INFO, "of the child");
				  syslog(LOG_INFO, "once more");
				  return std::all_of(files.begin(), files.end(),
			                             [](int fd) { return fcntl(fd, F_GETFD) >= 0; })
			                         ? std::string("logged")
			                         : "closed a file of its own";
			  });
			  const auto received = [&](const char *text) {
				  char line[256] = "";
				  return recv(journal, line, sizeof(line) - 1, MSG_DONTWAIT) > 0 &&
			                 strstr(line, text) != nullptr;
			  };
			  return said == "logged" && received("of the child") && received("once more");
		  }),
	          0);
}

class Alive : public ProcessTest, public testing::WithParamInterface<bool> {
protected:
	/// Asks in a process that has pidfd_open() or has it not.
	static int Asked(pid_t pid)
	{
		const int status = StatusOfChild([&] {
			if (!GetParam() && !(Forbid(SYS_pidfd_open, ENOSYS) &&
			                     syscall(SYS_pidfd_open, getpid(), 0) < 0 && errno == ENOSYS))
				_exit(99);
			_exit(VUNKCProcAlive(pid) + 10);
			return true;
		});
		return WIFEXITED(status) ? WEXITSTATUS(status) - 10 : -1000;
	}
};

TEST_P(Alive, AProcessThatRuns)
{
	Bystander other;
	EXPECT_EQ(Asked(other.Pid()), 1);
	EXPECT_EQ(Asked(getpid()), 1);
	EXPECT_EQ(Asked(1), 1);
}

TEST_P(Alive, AZombieHasEnded)
{
	Bystander other;
	ASSERT_TRUE(other.BecomeZombie());
	EXPECT_EQ(Asked(other.Pid()), 0);
}

TEST_P(Alive, AnIdThatNobodyHas)
{
	Bystander other;
	const pid_t pid = other.Pid();
	other.Kill();
	EXPECT_EQ(Asked(pid), 0);
	EXPECT_EQ(Asked(0), 0);
	EXPECT_EQ(Asked(-1), 0);
	EXPECT_EQ(Asked(-getpgrp()), 0);
	EXPECT_EQ(Asked(0x7FFFFFFF), 0);
}

TEST_P(Alive, AProcessWhoseFirstThreadHasEnded)
{
	const kit::TempDir dir;
	Meeting ended(dir.Path("ended"));
	const pid_t process = fork();
	if (process == 0) {
		std::thread([&] {
			while (StatusLine("State")[0] != 'Z') // of the first thread
				std::this_thread::yield();
			Meeting::Say(ended.Path(), "yes");
			for (;;)
				pause();
		}).detach();
		syscall(SYS_exit, 0); // of this thread alone
	}
	EXPECT_EQ(ended.Line(), "yes");
	EXPECT_EQ(Asked(process), 1);
	kill(process, SIGKILL);
	waitpid(process, nullptr, 0);
}

TEST_P(Alive, AProcessOfSomebodyElse)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "takes root, to become somebody else";
	Bystander other;
	EXPECT_EQ(StatusOfChild(
			  [&] { return setuid(65534) == 0 && kill(other.Pid(), 0) != 0 && Asked(other.Pid()) == 1; }),
	          0);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutPidfd, Alive, testing::Bool());

TEST(AliveError, IsNeverSet)
{
	VUNKCErrSetEx(0x1234, "before", 5);
	EXPECT_EQ(VUNKCProcAlive(-1), 0);
	EXPECT_EQ(VUNKCProcAlive(getpid()), 1);
	EXPECT_EQ(VUNKCProcAlive(0x7FFFFFFF), 0);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
}

TEST(AliveThread, TheIdOfAThreadIsNotAProcess)
{
	int alive = -1;
	std::thread([&] { alive = VUNKCProcAlive(gettid()); }).join();
	EXPECT_EQ(alive, 0);
}

} // namespace
