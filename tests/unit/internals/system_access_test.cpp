#include "utils/system_access.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Something mounted over a path of the lab for as long as the object lives.
class Mounted {
public:
	Mounted(const std::string &source, const std::string &target, const char *type = nullptr) : path(target)
	{
		if (mount(source.c_str(), path.c_str(), type, type == nullptr ? MS_BIND : 0, nullptr) != 0)
			throw std::runtime_error("cannot mount " + source + " over " + path);
	}
	~Mounted() { EXPECT_EQ(umount2(path.c_str(), MNT_DETACH), 0); }
	Mounted(const Mounted &) = delete;
	Mounted &operator=(const Mounted &) = delete;

private:
	std::string path;
};

class Internals : public kit::LabTest {
protected:
	Internals() { VUNKCErrSetEx(0, "", 0); }

	int CheckDir(const std::string &path) const { return CheckDirExist(path.c_str()); }

	void ExpectNeitherLinesNorError() const
	{
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_EQ(VUNKCErrGet(), 0);
	}

	kit::Journal journal;
	kit::TempDir dir;
};

using DirectoryTest = Internals;

TEST_F(DirectoryTest, RefusesNull)
{
	EXPECT_EQ(CheckDirExist(nullptr), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (__null != szPath)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_STREQ(VUNKCErrorGetFile(), "utils.cpp");
}

TEST_F(DirectoryTest, TellsFoldersFromAnythingElse)
{
	kit::WriteFile(dir.Path("file"), "");
	fs::create_directory(dir.Path("folder"));
	ASSERT_EQ(mkfifo(dir.Path("pipe").c_str(), 0600), 0);
	for (const char *target : {"file", "folder", "missing", "loop"})
		fs::create_symlink(target, dir.Path(std::string("to ") + target));
	fs::create_symlink("to loop", dir.Path("loop"));

	const std::pair<std::string, int> cases[] = {
		{dir.Path("folder"), 1},
		{dir.Path("to folder"), 1},
		{dir.Path("missing"), 0},
		{dir.Path("to missing"), 0},
		{dir.Path("to loop"), 0},
		{dir.Path("missing/folder"), 0},
		{dir.Path("file/below"), 0},
		{dir.Path(std::string(300, 'x')), 0},
		{"", 0},
		{dir.Path("file"), -1},
		{dir.Path("to file"), -1},
		{dir.Path("pipe"), -1},
		{"/dev/null", -1},
	};
	for (const auto &[path, expected] : cases)
		EXPECT_EQ(CheckDir(path), expected) << path;
	ExpectNeitherLinesNorError();
}

TEST_F(DirectoryTest, CountsALostConnectionAsAFolderAndEveryOtherErrorAsMissing)
{
	for (const auto &[error, expected] :
	     {std::pair{ENOTCONN, 1}, {EACCES, 0}, {EIO, 0}, {ESTALE, 0}, {ENOTDIR, 0}}) {
		const kit::PathFault fault("stat", dir.Path(), error);
		EXPECT_EQ(CheckDir(dir.Path()), expected) << error;
		EXPECT_EQ(fault.Calls(), 1);
	}
	ExpectNeitherLinesNorError();
}

const std::string kProgram = "/sbin/sysctl";

class SysctlRun : public Internals {
protected:
	// Puts a script in the program's place. `dir` is where it can leave things.
	std::unique_ptr<Mounted> Replace(const std::string &script, mode_t mode = 0755)
	{
		const std::string file = dir.Path("sysctl");
		kit::WriteFile(file, "#!/bin/sh\n" + script);
		EXPECT_EQ(chmod(file.c_str(), mode), 0);
		return std::make_unique<Mounted>(file, fs::canonical(kProgram));
	}

	void ExpectFailure(const std::string &text, const std::string &place)
	{
		EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to sysctl [" + text + "]." + place});
		journal.Clear();
	}
};

const std::string kStatus = "[0x1900 program.cpp]";
const std::string kNotStarted = "[0x1800 program.cpp]";

TEST_F(SysctlRun, WritesAParameter)
{
	EXPECT_EQ(TuneSysctlRun("vm.swappiness=37"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "37");
	ExpectNeitherLinesNorError();
}

TEST_F(SysctlRun, PassesOverAnUnknownKey)
{
	EXPECT_EQ(TuneSysctlRun("vm.no_such_parameter=1"), 0);
	ExpectNeitherLinesNorError();
}

TEST_F(SysctlRun, LogsAValueThatTheKernelRefuses)
{
	// The lab's parameters take any text, so one is covered by an attribute of the kernel's that has a range.
	const Mounted ranged("/proc/self/oom_score_adj", "/proc/sys/vm/swappiness");
	EXPECT_EQ(TuneSysctlRun("vm.swappiness=5000"), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
	ExpectFailure("vm.swappiness=5000", kStatus);
}

TEST_F(SysctlRun, LogsATextThatIsNoAssignment)
{
	for (const char *text : {"", "vm.swappiness", "="}) {
		EXPECT_EQ(TuneSysctlRun(text), -1);
		ExpectFailure(text, kStatus);
	}
}

TEST_F(SysctlRun, HandsNullOnAsNoText)
{
	EXPECT_EQ(TuneSysctlRun(nullptr), -1);
	ExpectFailure("(null)", kStatus);
}

TEST_F(SysctlRun, GivesTheProgramTwoArgumentsAndNoShell)
{
	const auto replaced = Replace("printf '<%s>' \"$@\" >" + dir.Path("arguments") + "\n");
	const std::string text = "vm.x=1 2; touch " + dir.Path("shell") + " $HOME `id`\n";
	EXPECT_EQ(TuneSysctlRun(text.c_str()), 0);
	EXPECT_EQ(kit::ReadFile(dir.Path("arguments")), "<-we><" + text + ">");
	EXPECT_FALSE(fs::exists(dir.Path("shell")));
	ExpectNeitherLinesNorError();
}

TEST_F(SysctlRun, FollowsTheExitStatusAlone)
{
	{
		const auto replaced = Replace("echo 'sysctl: told, but not failed' >&2; exit 0\n");
		EXPECT_EQ(TuneSysctlRun("vm.swappiness=1"), 0);
		ExpectNeitherLinesNorError();
	}
	for (const char *script : {"exit 1", "exit 255", "kill -KILL $$", "kill -TERM $$"}) {
		SCOPED_TRACE(script);
		const auto replaced = Replace(script + std::string("\n"));
		EXPECT_EQ(TuneSysctlRun("vm.swappiness=1"), -1);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
		ExpectFailure("vm.swappiness=1", kStatus);
	}
}

TEST_F(SysctlRun, LogsAProgramThatCannotBeRun)
{
	const auto replaced = Replace("exit 0\n", 0644);
	EXPECT_EQ(TuneSysctlRun("vm.swappiness=1"), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXEC);
	ExpectFailure("vm.swappiness=1", kNotStarted);
}

TEST_F(SysctlRun, LogsAMissingProgram)
{
	const Mounted empty("lab-sbin", fs::canonical(kProgram).parent_path(), "tmpfs");
	EXPECT_EQ(TuneSysctlRun("vm.swappiness=1"), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXEC);
	ExpectFailure("vm.swappiness=1", kNotStarted);
}

} // namespace
