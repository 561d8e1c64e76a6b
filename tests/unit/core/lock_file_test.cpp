#include "kit/files.h"
#include "process_kit.h"

#include <vunkcore/error.h>
#include <vunkcore/lock_file.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class LockFile : public testing::Test {
protected:
	LockFile() { VUNKCErrSetEx(0, nullptr, 0); }

	/// The descriptor, or -1.
	int Lock(bool exclusive, int timeout = 0) const
	{
		int fd = -1;
		return VUNKCFileLockTimeByFile(path.c_str(), exclusive, timeout, &fd) == 1 ? fd : -1;
	}

	/// Whether the call fails with this code and leaves its output as it was.
	static testing::AssertionResult Refuses(const char *path, int timeout, int code)
	{
		int fd = -77;
		if (VUNKCFileLockTimeByFile(path, 1, timeout, &fd) != 0)
			return testing::AssertionFailure() << "it was locked";
		if (fd != -77 || VUNKCErrGet() != code)
			return testing::AssertionFailure()
			       << "descriptor " << fd << ", error " << std::hex << VUNKCErrGet();
		return testing::AssertionSuccess();
	}

	kit::TempDir dir;
	std::string path = dir.Path("lock");
};

TEST_F(LockFile, IsMadeEmptyWithModeAndUmaskAndStays)
{
	const mode_t before = umask(022);
	int fd = Lock(true);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
	umask(077);
	int other = -1;
	EXPECT_EQ(VUNKCFileLockTimeByFile(dir.Path("private").c_str(), 0, 0, &other), 1);
	EXPECT_EQ(VUNKCFileUnlockByFile(other), 1);
	umask(before);
	struct stat status;
	ASSERT_EQ(stat(path.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
	EXPECT_EQ(status.st_size, 0);
	ASSERT_EQ(stat(dir.Path("private").c_str(), &status), 0);
	EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
}

TEST_F(LockFile, KeepsTheContentOfAFileThatIsThere)
{
	kit::WriteFile(path, "text");
	EXPECT_EQ(VUNKCFileUnlockByFile(Lock(true)), 1);
	EXPECT_EQ(kit::ReadFile(path), "text");
}

TEST_F(LockFile, DescriptorIsCloseOnExec)
{
	const int fd = Lock(true);
	EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
}

TEST_F(LockFile, SharedHoldersShareAndKeepAnExclusiveOneOut)
{
	const int first = Lock(false);
	const int second = Lock(false);
	ASSERT_GE(first, 0);
	ASSERT_GE(second, 0);
	EXPECT_TRUE(Refuses(path.c_str(), 0, VUNKC_ERR_TIMEOUT));
	EXPECT_EQ(VUNKCFileUnlockByFile(first), 1);
	EXPECT_TRUE(Refuses(path.c_str(), 0, VUNKC_ERR_TIMEOUT));
	EXPECT_EQ(VUNKCFileUnlockByFile(second), 1);
	const int exclusive = Lock(true);
	EXPECT_GE(exclusive, 0);
	EXPECT_EQ(Lock(false), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_TIMEOUT);
	EXPECT_EQ(VUNKCFileUnlockByFile(exclusive), 1);
}

TEST_F(LockFile, AnyTruthValueButZeroIsExclusive)
{
	int fd = -1;
	ASSERT_EQ(VUNKCFileLockTimeByFile(path.c_str(), -5, 0, &fd), 1);
	EXPECT_EQ(Lock(false), -1);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
}

TEST_F(LockFile, ThreadsOfOneProcessExcludeEachOther)
{
	std::atomic<int> inside = 0;
	std::atomic<int> failures = 0;
	std::atomic<int> rounds = 0;
	auto work = [&] {
		for (int i = 0; i < 50; ++i) {
			const int fd = Lock(true, 60);
			if (fd < 0 || inside.fetch_add(1) != 0)
				++failures;
			++rounds;
			inside.fetch_sub(1);
			if (VUNKCFileUnlockByFile(fd) != 1)
				++failures;
		}
	};
	std::thread first(work);
	std::thread second(work);
	first.join();
	second.join();
	EXPECT_EQ(failures, 0);
	EXPECT_EQ(rounds, 100);
}

TEST_F(LockFile, GivesUpAfterTheTimeOutAndNotBefore)
{
	const int holder = Lock(true);
	const auto start = Clock::now();
	EXPECT_TRUE(Refuses(path.c_str(), 1, VUNKC_ERR_TIMEOUT));
	const auto took = Clock::now() - start;
	EXPECT_GE(took, 1s);
	EXPECT_LT(took, 10s);
	EXPECT_EQ(VUNKCFileUnlockByFile(holder), 1);
}

TEST_F(LockFile, SignalsNeitherShortenNorProlongTheWait)
{
	struct sigaction action = {};
	struct sigaction before;
	action.sa_handler = [](int) {};
	sigaction(SIGALRM, &action, &before);
	const itimerval often = {{0, 3000}, {0, 3000}};
	const itimerval off = {};
	const int holder = Lock(true);
	setitimer(ITIMER_REAL, &often, nullptr);
	const auto start = Clock::now();
	EXPECT_TRUE(Refuses(path.c_str(), 1, VUNKC_ERR_TIMEOUT));
	const auto took = Clock::now() - start;
	setitimer(ITIMER_REAL, &off, nullptr);
	sigaction(SIGALRM, &before, nullptr);
	EXPECT_GE(took, 1s);
	EXPECT_LT(took, 10s);
	EXPECT_EQ(VUNKCFileUnlockByFile(holder), 1);
}

TEST_F(LockFile, WaitsForAHolderToUnlock)
{
	const int holder = Lock(true);
	std::thread waiter([&] {
		const int fd = Lock(true, 60);
		EXPECT_GE(fd, 0);
		EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
	});
	std::this_thread::sleep_for(30ms); // most likely the other thread waits by now; the result is the same if not
	EXPECT_EQ(VUNKCFileUnlockByFile(holder), 1);
	waiter.join();
}

TEST_F(LockFile, IsFreeWhenItsHolderIsKilled)
{
	Meeting locked(dir.Path("locked"));
	const pid_t holder = fork();
	if (holder == 0) {
		if (Lock(true) >= 0)
			Meeting::Say(locked.Path(), "yes");
		for (;;)
			pause();
	}
	ASSERT_EQ(locked.Line(), "yes");
	EXPECT_EQ(Lock(true), -1);
	kill(holder, SIGKILL);
	waitpid(holder, nullptr, 0);
	const int fd = Lock(true);
	EXPECT_GE(fd, 0);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
}

TEST_F(LockFile, UnlockingTakesTheLockFromAForkedCopyToo)
{
	const int holder = Lock(true);
	const Bystander copy; // has the descriptor
	EXPECT_EQ(VUNKCFileUnlockByFile(holder), 1);
	const int fd = Lock(true);
	EXPECT_GE(fd, 0);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 1);
}

TEST_F(LockFile, RefusesASymbolicLink)
{
	kit::WriteFile(dir.Path("target"), "");
	ASSERT_EQ(symlink("target", path.c_str()), 0);
	EXPECT_TRUE(Refuses(path.c_str(), 0, VUNKC_ERR_FILE_OPEN));
	EXPECT_EQ(VUNKCErrorGetFile(), path);
	EXPECT_EQ(VUNKCErrorGetLine(), 0);
}

TEST_F(LockFile, RefusesWhatIsNoRegularFile)
{
	const auto before = kit::OpenDescriptors();
	EXPECT_TRUE(Refuses(dir.Path().c_str(), 0, VUNKC_ERR_FILE_OPEN));
	ASSERT_EQ(mkfifo(dir.Path("pipe").c_str(), 0644), 0);
	EXPECT_TRUE(Refuses(dir.Path("pipe").c_str(), 0, VUNKC_ERR_FILE_OPEN));
	EXPECT_TRUE(Refuses("/dev/null", 0, VUNKC_ERR_FILE_OPEN));
	EXPECT_TRUE(Refuses(dir.Path("missing/lock").c_str(), 0, VUNKC_ERR_FILE_OPEN));
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

TEST_F(LockFile, RefusesWrongArguments)
{
	EXPECT_TRUE(Refuses(nullptr, 0, VUNKC_ERR_BAD_ARGUMENT));
	EXPECT_TRUE(Refuses(path.c_str(), -1, VUNKC_ERR_BAD_ARGUMENT));
	EXPECT_EQ(VUNKCFileLockTimeByFile(path.c_str(), 1, 0, nullptr), 0);
	EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(LockFile, UnlockingFailsForWhatIsNotOpen)
{
	const int fd = Lock(true);
	close(fd);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 0);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_LOCK);
	EXPECT_EQ(VUNKCFileUnlockByFile(-1), 0);
}

TEST_F(LockFile, UnlockingClosesEvenWhatCannotBeUnlocked)
{
	const int fd = open(dir.Path().c_str(), O_PATH | O_CLOEXEC);
	ASSERT_GE(fd, 0);
	EXPECT_EQ(VUNKCFileUnlockByFile(fd), 0);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_LOCK);
	EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(LockFile, LeavesNoDescriptorOpen)
{
	const auto before = kit::OpenDescriptors();
	const int holder = Lock(true);
	EXPECT_EQ(Lock(true), -1);
	EXPECT_EQ(VUNKCFileUnlockByFile(holder), 1);
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

TEST_F(LockFile, SuccessLeavesTheErrorAsItWas)
{
	VUNKCErrSetEx(0x1234, "before", 5);
	EXPECT_EQ(VUNKCFileUnlockByFile(Lock(true)), 1);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
	EXPECT_STREQ(VUNKCErrorGetFile(), "before");
}

TEST_F(LockFile, ReadingPermissionIsEnoughForBothModes)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "takes root, to make a file of somebody else's";
	const mode_t before = umask(022);
	ASSERT_EQ(chmod(dir.Path().c_str(), 0755), 0);
	ASSERT_EQ(VUNKCFileUnlockByFile(Lock(true)), 1);
	umask(before);
	EXPECT_EQ(StatusOfChild([&] {
			  if (setgid(65534) != 0 || setuid(65534) != 0 || access(path.c_str(), W_OK) == 0)
				  return false;
			  const int shared = Lock(false);
			  if (shared < 0 || VUNKCFileUnlockByFile(shared) != 1)
				  return false;
			  const int exclusive = Lock(true);
			  return exclusive >= 0 && VUNKCFileUnlockByFile(exclusive) == 1;
		  }),
	          0);
}

} // namespace
