#include <zevotuned/system_access.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

mode_t ModeOf(const std::string &path)
{
	struct stat status = {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0);
	return status.st_mode & 07777;
}

void MakeSocket(const std::string &path)
{
	sockaddr_un address = {AF_UNIX, ""};
	path.copy(address.sun_path, sizeof(address.sun_path) - 1);
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	close(fd);
}

class SystemAccess : public kit::LabTest {
protected:
	SystemAccess() { VUNKCErrSetEx(0, "", 0); }

	int Write(const std::string &path, const std::string &value) const
	{
		return TuneParameterWrite(path.c_str(), value.c_str(), value.size());
	}

	int CheckFile(const std::string &path) const { return CheckFileExist(path.c_str()); }

	int CheckDir(const std::string &path, bool create) const { return CheckOrCreateDir(path.c_str(), create); }

	void ExpectNoLines() const { EXPECT_EQ(journal.Lines(), Lines{}); }

	void ExpectNeitherLinesNorError() const
	{
		ExpectNoLines();
		EXPECT_EQ(VUNKCErrGet(), 0);
	}

	kit::Journal journal;
	kit::TempDir dir;
};

TEST_F(SystemAccess, RefusesMissingArguments)
{
	const std::string file = dir.Path("parameter");
	kit::WriteFile(file, "as it was");
	const struct {
		const char *condition;
		std::function<int()> call;
	} cases[] = {
		{"__null != szPath", [] { return TuneParameterWrite(nullptr, nullptr, 0); }},
		{"__null != szValue", [&] { return TuneParameterWrite(file.c_str(), nullptr, 0); }},
		{"0 < cbValue", [&] { return TuneParameterWrite(file.c_str(), "1", 0); }},
		{"__null != szPath", [] { return CheckFileExist(nullptr); }},
		{"__null != szPath", [] { return CheckOrCreateDir(nullptr, false); }},
		{"__null != szPath", [] { return CheckOrCreateDir(nullptr, true); }},
	};
	for (const auto &[condition, call] : cases) {
		SCOPED_TRACE(condition);
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		EXPECT_EQ(call(), -1);
		EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (" + std::string(condition) + ")=[0]\n"});
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
		EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
		EXPECT_GT(VUNKCErrorGetLine(), 0);
	}
	EXPECT_EQ(kit::ReadFile(file), "as it was");
}

// TuneParameterWrite

TEST_F(SystemAccess, WritesAValueAndNothingElse)
{
	const std::string file = dir.Path("parameter");
	kit::WriteFile(file, "old");
	EXPECT_EQ(Write(file, "1024"), 0);
	EXPECT_EQ(kit::ReadFile(file), "1024");
	EXPECT_EQ(Write(file, "7"), 0);
	EXPECT_EQ(kit::ReadFile(file), "7024") << "written at the start, nothing cut, no newline";
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, WritesAsManyBytesOfTheValueAsItIsTold)
{
	const std::string file = dir.Path("parameter");
	kit::WriteFile(file, "");
	EXPECT_EQ(TuneParameterWrite(file.c_str(), "1024", 3), 0);
	EXPECT_EQ(kit::ReadFile(file), "102");
	EXPECT_EQ(TuneParameterWrite(file.c_str(), "a\0b\n", 4), 0);
	EXPECT_EQ(kit::ReadFile(file), std::string("a\0b\n", 4));
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, WritesAnAttributeOfTheKernel)
{
	const std::string before = kit::ReadFile("/proc/self/comm");
	EXPECT_EQ(Write("/proc/self/comm", "written"), 0);
	EXPECT_EQ(kit::ReadFile("/proc/self/comm"), "written\n");
	EXPECT_EQ(Write("/proc/self/comm", before), 0);
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, MakesNoFileThatIsMissing)
{
	const std::string file = dir.Path("missing");
	EXPECT_EQ(Write(file, "1"), -1);
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{});
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp TuneParameterWrite Can't open file " + file +
	                                 ", errno:No such file or directory[0x0000 :0]"});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(SystemAccess, LogsAFileThatCannotBeOpenedWithTheErrorThatStoodBefore)
{
	VUNKCErrSetEx(0x1234, "before.cpp", 7);
	EXPECT_EQ(Write(dir.Path(), "1"), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp TuneParameterWrite Can't open file " + dir.Path() +
	                                 ", errno:Is a directory[0x1234 before.cpp]"});
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
}

TEST_F(SystemAccess, LogsAValueThatCannotBeWritten)
{
	const struct {
		std::string path;
		std::string value;
		std::string reason;
	} cases[] = {
		{"/dev/full", "5", "No space left on device"},
		{"/proc/self/oom_score_adj", "5000", "Invalid argument"}, // out of the kernel's range
	};
	for (const auto &[path, value, reason] : cases) {
		SCOPED_TRACE(path);
		journal.Clear();
		EXPECT_EQ(Write(path, value), -1);
		EXPECT_EQ(journal.Lines(), Lines{"utils.cpp TuneParameterWrite Failed to set parameter [" + path + " " +
		                                 value + "], errno:" + reason + "[0x0B00 directory.cpp]"});
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
	}
}

TEST_F(SystemAccess, NamesItsPositionTwiceInALine)
{
	EXPECT_EQ(Write(dir.Path("missing"), "1"), -1);
	EXPECT_EQ(Write("/dev/full", "1"), -1);
	const Lines raw = journal.Raw();
	ASSERT_EQ(raw.size(), 2u);
	for (const std::string &line : raw)
		EXPECT_TRUE(std::regex_search(line, std::regex(R"(^utils\.cpp:(\d+) TuneParameterWrite:\1 )"))) << line;
}

// CheckFileExist

TEST_F(SystemAccess, TellsRegularFilesFromAnythingElse)
{
	kit::WriteFile(dir.Path("file"), "");
	fs::create_directory(dir.Path("folder"));
	ASSERT_EQ(mkfifo(dir.Path("pipe").c_str(), 0600), 0);
	MakeSocket(dir.Path("socket"));
	for (const char *target : {"file", "folder", "missing", "loop"})
		fs::create_symlink(target, dir.Path(std::string("to ") + target));
	fs::create_symlink("to loop", dir.Path("loop"));

	const std::pair<std::string, int> cases[] = {
		{dir.Path("file"), 1},
		{dir.Path("to file"), 1},
		{dir.Path("missing"), 0},
		{dir.Path("to missing"), 0},
		{dir.Path("to loop"), 0},
		{dir.Path("missing/file"), 0},
		{dir.Path("file/below"), 0},
		{dir.Path(std::string(300, 'x')), 0},
		{"", 0},
		{dir.Path("folder"), -1},
		{dir.Path("to folder"), -1},
		{dir.Path("pipe"), -1},
		{dir.Path("socket"), -1},
		{"/dev/null", -1},
	};
	for (const auto &[path, expected] : cases)
		EXPECT_EQ(CheckFile(path), expected) << path;
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, CountsAFileThatCannotBeLookedAtAsMissing)
{
	kit::WriteFile(dir.Path("file"), "");
	for (const int error : {EACCES, EIO, ENOTCONN}) {
		const kit::PathFault fault("stat", dir.Path("file"), error);
		EXPECT_EQ(CheckFile(dir.Path("file")), 0) << error;
		EXPECT_EQ(fault.Calls(), 1);
	}
	ExpectNeitherLinesNorError();
}

// CheckOrCreateDir

TEST_F(SystemAccess, FindsAFolder)
{
	fs::create_directory(dir.Path("folder"));
	fs::create_symlink("folder", dir.Path("link"));
	const kit::Fault making("mkdir");
	for (const bool create : {false, true}) {
		EXPECT_EQ(CheckDir(dir.Path("folder"), create), 1);
		EXPECT_EQ(CheckDir(dir.Path("link"), create), 1);
	}
	EXPECT_FALSE(making.Struck());
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, RefusesAFileInPlaceOfAFolder)
{
	const std::string file = dir.Path("file");
	kit::WriteFile(file, "as it was");
	for (const bool create : {false, true}) {
		VUNKCErrSetEx(0, "", 0);
		EXPECT_EQ(CheckDir(file, create), -1);
		EXPECT_EQ(VUNKCErrGet(), 0xA000);
		EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
	}
	EXPECT_EQ(kit::ReadFile(file), "as it was");
	ExpectNoLines();
}

TEST_F(SystemAccess, MakesAFolderOnRequestOnly)
{
	EXPECT_EQ(CheckDir(dir.Path("folder"), false), 0);
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{});
	EXPECT_EQ(CheckDir(dir.Path("folder"), true), 1);
	EXPECT_EQ(ModeOf(dir.Path("folder")), 0755u);
	umask(0);
	EXPECT_EQ(CheckDir(dir.Path("open"), true), 1);
	EXPECT_EQ(ModeOf(dir.Path("open")), 0777u);
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, MakesNoFolderAboveTheLastOne)
{
	EXPECT_EQ(CheckDir(dir.Path("missing/folder"), true), 0);
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{});
	ExpectNoLines();
}

TEST_F(SystemAccess, FailsToMakeAFolderInPlaceOfADanglingLink)
{
	fs::create_symlink("missing", dir.Path("link"));
	EXPECT_EQ(CheckDir(dir.Path("link"), true), 0);
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{"link"});
	ExpectNoLines();
}

// For the library the folder is missing when it looks for it and there when it makes it.
TEST_F(SystemAccess, FailsWhenAnotherProcessMakesTheFolderBetweenTheLookAndTheCreation)
{
	const std::string folder = dir.Path("folder");
	fs::create_directory(folder);
	const kit::PathFault notYetThere("stat", folder, ENOENT);
	EXPECT_EQ(CheckDir(folder, true), 0);
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	ExpectNoLines();
}

TEST_F(SystemAccess, CountsAFolderThatCannotBeLookedAtAsMissing)
{
	const std::string folder = dir.Path("folder");
	fs::create_directory(folder);
	const kit::PathFault fault("stat", folder, EACCES);
	EXPECT_EQ(CheckDir(folder, false), 0);
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, CountsAFolderThatHasLostItsConnectionAsPresent)
{
	const kit::PathFault lost("stat", dir.Path("mount"), ENOTCONN);
	const kit::Fault making("mkdir");
	for (const bool create : {false, true})
		EXPECT_EQ(CheckDir(dir.Path("mount"), create), 1);
	EXPECT_EQ(lost.Calls(), 2);
	EXPECT_FALSE(making.Struck());
	ExpectNeitherLinesNorError();
}

TEST_F(SystemAccess, CountsTheMountPointOfADeadFileServerAsPresent)
{
	const std::string mountPoint = dir.Path("mount");
	fs::create_directory(mountPoint);
	const int server = open("/dev/fuse", O_RDWR | O_CLOEXEC);
	if (server < 0)
		GTEST_SKIP() << "there is no /dev/fuse to make such a mount with";
	const std::string options = "fd=" + std::to_string(server) + ",rootmode=40000,user_id=0,group_id=0";
	const int mounted = mount("lab-fuse", mountPoint.c_str(), "fuse", 0, options.c_str());
	close(server); // nobody will ever answer
	ASSERT_EQ(mounted, 0);

	struct stat status;
	EXPECT_EQ(stat(mountPoint.c_str(), &status), -1);
	EXPECT_EQ(errno, ENOTCONN);
	const kit::Fault making("mkdir");
	for (const bool create : {false, true})
		EXPECT_EQ(CheckDir(mountPoint, create), 1);
	EXPECT_FALSE(making.Struck());
	ExpectNeitherLinesNorError();
	EXPECT_EQ(umount2(mountPoint.c_str(), MNT_DETACH), 0);
}

// CreateRunLockTunedDir and CreateRunTunedDir

struct RunDir {
	const char *name;
	std::string path;
	int (*create)();
};

class RunDirs : public SystemAccess, public testing::WithParamInterface<RunDir> {
protected:
	const std::string path = GetParam().path;
};

TEST_P(RunDirs, IsMade)
{
	ASSERT_FALSE(fs::exists(path));
	EXPECT_EQ(GetParam().create(), 0);
	EXPECT_EQ(ModeOf(path), 0755u);
	umask(077);
	fs::remove(path);
	EXPECT_EQ(GetParam().create(), 0);
	EXPECT_EQ(ModeOf(path), 0700u);
	ExpectNeitherLinesNorError();
}

TEST_P(RunDirs, IsLeftAsItIsWhateverItsMode)
{
	for (const mode_t mode : {0u, 0500u, 01777u}) {
		fs::remove_all(path);
		kit::WriteFile(path + "/file", "kept");
		ASSERT_EQ(chmod(path.c_str(), mode), 0);
		struct stat before = {}, after = {};
		ASSERT_EQ(stat(path.c_str(), &before), 0);
		EXPECT_EQ(GetParam().create(), 0);
		ASSERT_EQ(stat(path.c_str(), &after), 0);
		EXPECT_EQ(after.st_mode, before.st_mode);
		EXPECT_EQ(after.st_ino, before.st_ino);
		EXPECT_EQ(kit::ReadFile(path + "/file"), "kept");
	}
	ExpectNeitherLinesNorError();
}

TEST_P(RunDirs, IsNotPutInPlaceOfAFile)
{
	kit::WriteFile(path, "as it was");
	EXPECT_EQ(GetParam().create(), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
	EXPECT_EQ(kit::ReadFile(path), "as it was");
	fs::remove(path);
	ExpectNoLines();
}

TEST_P(RunDirs, FailsWhenItCannotBeMade)
{
	const kit::PathFault fault("mkdir", path, ENOENT);
	EXPECT_EQ(GetParam().create(), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_EQ(fault.Calls(), 1);
	ExpectNoLines();
}

INSTANTIATE_TEST_SUITE_P(Each, RunDirs,
                         testing::Values(RunDir{"Lock", "/run/lock/zevotuned", CreateRunLockTunedDir},
                                         RunDir{"State", "/run/zevotuned", CreateRunTunedDir}),
                         [](const auto &instance) { return instance.param.name; });

// The folder above is missing as well, as it is early after the start of a machine.
TEST_F(SystemAccess, DoesNotMakeTheFolderAboveThatOfTheLocks)
{
	fs::rename("/run/lock", "/run/lock.away");
	EXPECT_EQ(CreateRunLockTunedDir(), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
	EXPECT_FALSE(fs::exists("/run/lock"));
	fs::rename("/run/lock.away", "/run/lock");
	ExpectNoLines();
}

} // namespace
