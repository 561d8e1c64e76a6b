#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/pair_file.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// How files are written, seen through the function that writes the simplest one.

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr uid_t kUser = 12345;
constexpr gid_t kGroup = 54321;

int Write(const std::string &path, const std::string &value)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1);
	VUNKCSzHashSetValue(&hash, "k", value.c_str());
	const int result = VUNKCFileSetPair(path.c_str(), hash, 0);
	const int error = errno;
	VUNKCSzHashFree(hash);
	errno = error;
	return result;
}

std::string TextOf(const std::string &value)
{
	return "k=\"" + value + "\"\n";
}

struct stat Status(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
	return status;
}

mode_t ModeOf(const std::string &path)
{
	return Status(path).st_mode & 07777;
}

/// Runs a function in a child. Returns what it returned, or 1000 and the signal that killed it.
int InChild(const std::function<int()> &run)
{
	const pid_t child = fork();
	if (child == 0)
		_exit(run());
	int status = 0;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void BecomeNobody()
{
	if (setgid(65534) != 0 || setuid(65534) != 0)
		_exit(99);
}

class Umask {
public:
	explicit Umask(mode_t mask) : before(umask(mask)) {}
	~Umask() { umask(before); }
	Umask(const Umask &) = delete;
	Umask &operator=(const Umask &) = delete;

private:
	const mode_t before;
};

class FileReplace : public testing::Test {
protected:
	FileReplace() { VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0); }

	/// Expects a write to fail and to change nothing at all in the folder.
	void ExpectRefused(const std::string &target)
	{
		struct stat before = {};
		struct stat after = {};
		const int found = lstat(target.c_str(), &before);
		const std::set<std::string> names = kit::Names(dir.Path());
		const std::set<int> descriptors = kit::OpenDescriptors();

		errno = 0;
		EXPECT_EQ(Write(target, "new"), -1);
		EXPECT_NE(errno, 0);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
		const size_t kept = std::min(target.size(), size_t{1023});
		EXPECT_EQ(VUNKCErrorGetFile(), target.substr(target.size() - kept));
		EXPECT_EQ(VUNKCErrorGetLine(), 0);

		EXPECT_EQ(lstat(target.c_str(), &after), found);
		EXPECT_EQ(after.st_ino, before.st_ino);
		EXPECT_EQ(after.st_mode, before.st_mode);
		EXPECT_EQ(after.st_uid, before.st_uid);
		EXPECT_EQ(after.st_size, before.st_size);
		EXPECT_EQ(kit::Names(dir.Path()), names);
		EXPECT_EQ(kit::OpenDescriptors(), descriptors);
	}

	void ExpectWritten(const std::string &value)
	{
		EXPECT_EQ(kit::ReadFile(path), TextOf(value));
		EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"file"}));
	}

	const kit::TempDir dir;
	const std::string path = dir.Path("file");
	const std::string temp = dir.Path(".file.new");
};

TEST_F(FileReplace, MakesAMissingFileWithMode0644LessTheUmask)
{
	for (const mode_t mask : {0000, 0022, 0027, 0077, 0777}) {
		const Umask set(mask);
		fs::remove(path);
		EXPECT_EQ(Write(path, "x"), 0);
		EXPECT_EQ(ModeOf(path), 0644 & ~mask);
	}
	ExpectWritten("x");
}

TEST_F(FileReplace, KeepsTheModeOfTheFileItReplacesWhateverTheUmask)
{
	for (const mode_t mask : {0000, 0077, 0777}) {
		const Umask set(mask);
		for (const mode_t mode : {0000, 0200, 0400, 0600, 0640, 0644, 0666, 0777, 02755, 04755, 01644}) {
			fs::remove(path);
			kit::WriteFile(path, "old");
			ASSERT_EQ(chmod(path.c_str(), mode), 0);
			EXPECT_EQ(Write(path, "x"), 0);
			EXPECT_EQ(ModeOf(path), mode);
		}
	}
}

TEST_F(FileReplace, KeepsTheOwnerOfTheFileItReplaces)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "only root can give files away";
	for (const mode_t mode : {0600, 06755}) {
		kit::WriteFile(path, "old");
		ASSERT_EQ(chown(path.c_str(), kUser, kGroup), 0);
		ASSERT_EQ(chmod(path.c_str(), mode), 0);
		EXPECT_EQ(Write(path, "x"), 0);
		EXPECT_EQ(Status(path).st_uid, kUser);
		EXPECT_EQ(Status(path).st_gid, kGroup);
		EXPECT_EQ(ModeOf(path), mode);
	}
	ExpectWritten("x");
}

TEST_F(FileReplace, NeverWritesIntoTheOldFile)
{
	kit::WriteFile(path, "old");
	fs::create_hard_link(path, dir.Path("other name"));
	EXPECT_EQ(Write(path, "x"), 0);
	EXPECT_EQ(kit::ReadFile(dir.Path("other name")), "old");
	EXPECT_EQ(kit::ReadFile(path), TextOf("x"));
}

TEST_F(FileReplace, TakesPathsWithoutAFolder)
{
	const fs::path before = fs::current_path();
	fs::current_path(dir.Path());
	EXPECT_EQ(Write("file", "x"), 0);
	fs::current_path(before);
	ExpectWritten("x");
}

TEST_F(FileReplace, ReplacesASymbolicLinkByAFile)
{
	const Umask set(0022);
	kit::WriteFile(dir.Path("real"), "old");
	ASSERT_EQ(chmod(dir.Path("real").c_str(), 0600), 0);
	for (const char *to : {"real", "nowhere", "file"}) {
		fs::remove(path);
		fs::create_symlink(to, path);
		EXPECT_EQ(Write(path, to), 0);
		EXPECT_TRUE(S_ISREG(Status(path).st_mode));
		EXPECT_EQ(ModeOf(path), 0644u);
		EXPECT_EQ(kit::ReadFile(path), TextOf(to));
	}
	EXPECT_EQ(kit::ReadFile(dir.Path("real")), "old");
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"file", "real"}));
}

TEST_F(FileReplace, FollowsSymbolicLinksToTheFolder)
{
	fs::create_directory(dir.Path("folder"));
	fs::create_symlink("folder", dir.Path("link"));
	EXPECT_EQ(Write(dir.Path("link/file"), "x"), 0);
	EXPECT_EQ(kit::ReadFile(dir.Path("folder/file")), TextOf("x"));
}

TEST_F(FileReplace, ReplacesNeitherFoldersNorDevices)
{
	fs::create_directory(path);
	ExpectRefused(path);
	ExpectRefused(path + "/");
	ExpectRefused(path + "/.");
	ExpectRefused(path + "/..");
	ExpectRefused("/");
	ExpectRefused("");
	fs::remove(path);
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	ExpectRefused(path);
}

TEST_F(FileReplace, NeedsTheFolder)
{
	ExpectRefused(dir.Path("no/file"));
	kit::WriteFile(path, "old");
	ExpectRefused(path + "/file");
}

TEST_F(FileReplace, RefusesNamesThatHaveNoRoomForTheTemporaryOne)
{
	const std::string longest = dir.Path(std::string(NAME_MAX - 5, 'n'));
	EXPECT_EQ(Write(longest, "x"), 0);
	EXPECT_EQ(kit::ReadFile(longest), TextOf("x"));
	const std::string longer = dir.Path(std::string(NAME_MAX - 4, 'n'));
	ExpectRefused(longer);
	kit::WriteFile(longer, "old");
	ExpectRefused(longer);
	ExpectRefused(dir.Path(std::string(NAME_MAX + 1, 'n')));
	ExpectRefused(dir.Path(std::string(PATH_MAX, 'n') + "/x"));
}

TEST_F(FileReplace, WritesNothingThatIsTooLargeToBeRead)
{
	constexpr size_t kLimit = size_t{256} << 20;
	const std::string start = "[a]\n#";
	kit::WriteFile(path, start + std::string(kLimit - start.size(), 'x'));
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1);
	EXPECT_EQ(VUNKCFileGetSection(path.c_str(), "a", &hash), 0);
	EXPECT_EQ(VUNKCFileAddSection(path.c_str(), "b", hash), -1);
	VUNKCSzHashFree(hash);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
	EXPECT_EQ(fs::file_size(path), kLimit);
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"file"}));
}

TEST_F(FileReplace, RemovesWhatAKilledWriterLeft)
{
	for (const char *text : {"", "half a te"}) {
		kit::WriteFile(path, "old");
		kit::WriteFile(temp, text);
		EXPECT_EQ(Write(path, "x"), 0);
		ExpectWritten("x");
	}
	kit::WriteFile(temp, "half a te");
	fs::remove(path);
	EXPECT_EQ(Write(path, "y"), 0);
	ExpectWritten("y");
}

TEST_F(FileReplace, RemovesWhatAWriterLeftThatWasKilledAfterGivingTheFileAway)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "only root can give files away";
	kit::WriteFile(path, "old");
	ASSERT_EQ(chown(path.c_str(), kUser, kGroup), 0);
	for (const mode_t mode : {0000, 0600, 0444, 0666}) {
		kit::WriteFile(temp, "other text");
		ASSERT_EQ(chown(temp.c_str(), kUser, kGroup), 0);
		ASSERT_EQ(chmod(temp.c_str(), mode), 0);
		EXPECT_EQ(Write(path, "x"), 0);
		ExpectWritten("x");
		EXPECT_EQ(Status(path).st_uid, kUser);
	}
}

TEST_F(FileReplace, SomebodyWhoOpenedALeftOverDoesNotSeeTheNewText)
{
	kit::WriteFile(path, "old");
	ASSERT_EQ(chmod(path.c_str(), 0600), 0);
	kit::WriteFile(temp, "left");
	ASSERT_EQ(chmod(temp.c_str(), 0666), 0);
	const int fd = open(temp.c_str(), O_RDWR | O_CLOEXEC);
	ASSERT_GE(fd, 0);
	EXPECT_EQ(Write(path, "secret"), 0);
	char text[16] = "";
	EXPECT_EQ(pread(fd, text, sizeof(text), 0), 4);
	EXPECT_STREQ(text, "left");
	EXPECT_EQ(pwrite(fd, "other", 5, 0), 5);
	close(fd);
	ExpectWritten("secret");
}

TEST_F(FileReplace, RefusesALinkAtTheTemporaryName)
{
	kit::WriteFile(path, "old");
	kit::WriteFile(dir.Path("victim"), "victim");
	fs::create_symlink("victim", temp);
	ExpectRefused(path);
	fs::remove(temp);
	fs::create_symlink("nowhere", temp);
	ExpectRefused(path);
	fs::remove(temp);
	fs::create_hard_link(dir.Path("victim"), temp);
	ExpectRefused(path);
	EXPECT_EQ(kit::ReadFile(dir.Path("victim")), "victim");
	EXPECT_EQ(kit::ReadFile(path), "old");
}

TEST_F(FileReplace, RefusesAnythingButAFileAtTheTemporaryName)
{
	kit::WriteFile(path, "old");
	fs::create_directory(temp);
	ExpectRefused(path);
	fs::remove(temp);
	ASSERT_EQ(mkfifo(temp.c_str(), 0600), 0);
	ExpectRefused(path);
	fs::remove(path);
	ExpectRefused(path);
}

TEST_F(FileReplace, RefusesAFileOfAnotherUserAtTheTemporaryName)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "only root can give files away";
	kit::WriteFile(temp, "foreign");
	ASSERT_EQ(chown(temp.c_str(), kUser, kGroup), 0);
	ExpectRefused(path);
	kit::WriteFile(path, "old");
	ExpectRefused(path);
	EXPECT_EQ(kit::ReadFile(path), "old");
	EXPECT_EQ(kit::ReadFile(temp), "foreign");
}

/// Limits the size of files to 5 bytes, so that a longer write first writes these.
void LimitFileSize(void (*onExcess)(int))
{
	const rlimit size{5, 5};
	const rlimit noCore{0, 0};
	if (setrlimit(RLIMIT_FSIZE, &size) != 0 || setrlimit(RLIMIT_CORE, &noCore) != 0 ||
	    signal(SIGXFSZ, onExcess) == SIG_ERR)
		_exit(98);
}

TEST_F(FileReplace, AFailedWriteLeavesTheOldFileAndNothingElse)
{
	for (const bool there : {false, true}) {
		if (there)
			kit::WriteFile(path, "old");
		EXPECT_EQ(InChild([&] {
				  LimitFileSize(SIG_IGN);
				  ExpectRefused(path);
				  return testing::Test::HasFailure() || errno == 0 ? 1 : 0;
			  }),
		          0);
	}
	EXPECT_EQ(kit::ReadFile(path), "old");
}

TEST_F(FileReplace, SaysWithErrnoWhyAWriteFailed)
{
	EXPECT_EQ(InChild([&] {
			  LimitFileSize(SIG_IGN);
			  return Write(path, "new") == -1 && errno == EFBIG ? 0 : 1;
		  }),
	          0);
	EXPECT_EQ(Write(dir.Path("no/file"), "new"), -1);
	EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileReplace, AWriterKilledWhileWritingLeavesTheOldFileAndNoWiderOne)
{
	for (const mode_t mode : {0000, 0200, 0400, 0600, 0640, 0644}) {
		kit::WriteFile(path, "old");
		ASSERT_EQ(chmod(path.c_str(), mode), 0);
		EXPECT_EQ(InChild([&] {
				  LimitFileSize(SIG_DFL);
				  return Write(path, "new");
			  }),
		          1000 + SIGXFSZ);
		EXPECT_EQ(kit::ReadFile(path), "old");
		EXPECT_EQ(Status(temp).st_size, 5);
		EXPECT_EQ(ModeOf(temp) & ~(mode & 0600), 0u);

		EXPECT_EQ(Write(path, "next"), 0);
		EXPECT_EQ(ModeOf(path), mode);
		ExpectWritten("next");
	}
}

class FileReplaceByOthers : public FileReplace {
protected:
	void SetUp() override
	{
		if (geteuid() != 0)
			GTEST_SKIP() << "only root can become somebody else";
		ASSERT_EQ(chown(dir.Path().c_str(), 65534, 65534), 0);
	}

	void ExpectRefusedToNobody()
	{
		EXPECT_EQ(InChild([&] {
				  BecomeNobody();
				  if (Write(path, "new") != -1 || VUNKCErrGet() != VUNKC_ERR_FILE_WRITE ||
			              VUNKCErrorGetFile() != path)
					  return 1;
				  return 0;
			  }),
		          0);
		EXPECT_EQ(kit::ReadFile(path), "old");
		EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"file"}));
	}
};

TEST_F(FileReplaceByOthers, WorksInAFolderOfTheirOwn)
{
	EXPECT_EQ(InChild([&] {
			  BecomeNobody();
			  return Write(path, "x") == 0 && Write(path, "y") == 0 ? 0 : 1;
		  }),
	          0);
	EXPECT_EQ(Status(path).st_uid, 65534u);
	ExpectWritten("y");
}

TEST_F(FileReplaceByOthers, ClearsTheirLeftOverOfAReadOnlyFile)
{
	EXPECT_EQ(InChild([&] {
			  BecomeNobody();
			  kit::WriteFile(path, "old");
			  kit::WriteFile(temp, "left");
			  chmod(path.c_str(), 0444);
			  chmod(temp.c_str(), 0444);
			  return Write(path, "x");
		  }),
	          0);
	EXPECT_EQ(ModeOf(path), 0444u);
	ExpectWritten("x");
}

TEST_F(FileReplaceByOthers, FailsInAFolderThatTheyCannotWriteOrRead)
{
	kit::WriteFile(path, "old");
	ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
	for (const mode_t mode : {0500, 0300}) {
		ASSERT_EQ(chmod(dir.Path().c_str(), mode), 0);
		ExpectRefusedToNobody();
	}
}

TEST_F(FileReplaceByOthers, FailsWhenTheOwnerCannotBeKept)
{
	kit::WriteFile(path, "old");
	ASSERT_EQ(chmod(path.c_str(), 0666), 0);
	ExpectRefusedToNobody();
}

TEST_F(FileReplaceByOthers, ReadsNothingThatTheyMayNotRead)
{
	kit::WriteFile(path, "k=old\n");
	ASSERT_EQ(chmod(path.c_str(), 0600), 0);
	EXPECT_EQ(InChild([&] {
			  BecomeNobody();
			  VUNKSZHASH *hash = VUNKCSzHashAlloc(1);
			  const bool refused = VUNKCFileGetPair(path.c_str(), &hash) == -1 &&
		                               VUNKCErrGet() == VUNKC_ERR_FILE_OPEN && VUNKCErrorGetFile() == path &&
		                               VUNKCErrorGetLine() == 0;
			  VUNKCSzHashFree(hash);
			  return refused ? 0 : 1;
		  }),
	          0);
}

/// Waits until somebody waits for the lock of a file.
void AwaitWaiter(ino_t file)
{
	const std::string inode = ":" + std::to_string(file) + " ";
	const auto deadline = steady_clock::now() + std::chrono::seconds(30);
	while (steady_clock::now() < deadline) {
		std::ifstream locks("/proc/locks");
		for (std::string line; std::getline(locks, line);)
			if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos)
				return;
		sched_yield();
	}
	ADD_FAILURE() << "nobody waits";
}

/// A writer at work: the locked file under the temporary name.
class OtherWriter {
public:
	explicit OtherWriter(const std::string &temp)
		: fd(open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600))
	{
		EXPECT_GE(fd, 0);
		EXPECT_EQ(flock(fd, LOCK_EX), 0);
		EXPECT_EQ(write(fd, "other", 5), 5);
	}
	~OtherWriter() { close(fd); }
	OtherWriter(const OtherWriter &) = delete;
	OtherWriter &operator=(const OtherWriter &) = delete;

	ino_t Inode() const
	{
		struct stat status = {};
		EXPECT_EQ(fstat(fd, &status), 0);
		return status.st_ino;
	}

private:
	const int fd;
};

TEST_F(FileReplace, WaitsForALivingWriter)
{
	kit::WriteFile(path, "old");
	int result = 1;
	std::thread waiter;
	{
		OtherWriter other(temp);
		waiter = std::thread([&] { result = Write(path, "x"); });
		AwaitWaiter(other.Inode());
		EXPECT_EQ(kit::ReadFile(path), "old");
		fs::rename(temp, path);
		EXPECT_EQ(kit::ReadFile(path), "other");
	}
	waiter.join();
	EXPECT_EQ(result, 0);
	ExpectWritten("x");
}

TEST_F(FileReplace, GoesOnWhenTheLivingWriterIsKilled)
{
	int result = 1;
	std::thread waiter;
	{
		OtherWriter other(temp);
		waiter = std::thread([&] { result = Write(path, "x"); });
		AwaitWaiter(other.Inode());
	}
	waiter.join();
	EXPECT_EQ(result, 0);
	ExpectWritten("x");
}

TEST_F(FileReplace, ManyMayWaitForALivingWriter)
{
	std::vector<std::thread> waiters;
	std::vector<int> results(4, 1);
	{
		OtherWriter other(temp);
		for (int &result : results)
			waiters.emplace_back([&] { result = Write(path, "x"); });
		AwaitWaiter(other.Inode());
	}
	for (std::thread &waiter : waiters)
		waiter.join();
	EXPECT_EQ(results, std::vector<int>(4, 0));
	ExpectWritten("x");
}

TEST_F(FileReplace, AForkedChildDoesNotKeepTheLock)
{
	// Forked again and again while the file is written, children hold copies of what is open at that moment.
	// Without an unlock of its own, a writer that waits for another one would go on to wait for a child, and the
	// child for the end of the test.
	std::atomic<int> writing = 2;
	std::vector<std::thread> writers;
	for (int writer = 0; writer < 2; ++writer)
		writers.emplace_back([&] {
			for (int i = 0; i < 100; ++i)
				EXPECT_EQ(Write(path, "x"), 0);
			--writing;
		});
	std::vector<pid_t> children;
	while (writing > 0 && children.size() < 100) {
		const pid_t child = fork();
		if (child == 0) {
			pause();
			_exit(0);
		}
		children.push_back(child);
	}
	for (std::thread &writer : writers)
		writer.join();
	for (const pid_t child : children) {
		kill(child, SIGKILL);
		waitpid(child, nullptr, 0);
	}
	ExpectWritten("x");
}

class FileReplaceAtOnce : public FileReplace, public testing::WithParamInterface<bool> {};

TEST_P(FileReplaceAtOnce, EightWritersAndAReaderNeverMeetATornFile)
{
	constexpr int kWriters = 8;
	const auto value = [](int writer) {
		return std::string(1000 + 3000 * static_cast<size_t>(writer), static_cast<char>('a' + writer));
	};
	std::set<std::string> whole;
	for (int writer = 0; writer < kWriters; ++writer)
		whole.insert(TextOf(value(writer)));
	if (GetParam()) {
		ASSERT_EQ(Write(path, value(0)), 0);
	}

	const auto end = steady_clock::now() + std::chrono::milliseconds(400);
	for (int writer = 0; writer < kWriters; ++writer) {
		const pid_t child = fork();
		ASSERT_GE(child, 0);
		if (child == 0) {
			const std::string mine = value(writer);
			do
				if (Write(path, mine) != 0)
					_exit(1);
			while (steady_clock::now() < end);
			_exit(0);
		}
	}
	int reads = 0;
	for (int ended = 0; ended < kWriters;) {
		int status = 0;
		const pid_t child = waitpid(-1, &status, WNOHANG);
		ASSERT_GE(child, 0);
		if (child > 0) {
			++ended;
			EXPECT_EQ(status, 0);
		}
		if (GetParam() || fs::exists(path)) {
			++reads;
			EXPECT_EQ(whole.count(kit::ReadFile(path)), 1u);
		}
	}
	EXPECT_GT(reads, 0);
	EXPECT_EQ(whole.count(kit::ReadFile(path)), 1u);
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"file"}));
}

INSTANTIATE_TEST_SUITE_P(OldFile, FileReplaceAtOnce, testing::Bool(),
                         [](const auto &run) { return run.param ? "There" : "Missing"; });

TEST_F(FileReplace, LeaksNoDescriptor)
{
	const std::set<int> before = kit::OpenDescriptors();
	EXPECT_EQ(Write(path, "x"), 0);
	kit::WriteFile(temp, "left");
	EXPECT_EQ(Write(path, "y"), 0);
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

} // namespace
