#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <zevostorage/flash_cache.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

const std::string kDir = ZEVO_SPACE_BUILD_DIR;

class SpaceBuild : public kit::LabTest {
protected:
	SpaceBuild() { fs::remove_all("/run/zevo"); }
	~SpaceBuild() { fs::remove_all("/run/zevo"); }
};

ZEVOSPACEBUILD Build(const std::string &reference, int pid = 4711)
{
	ZEVOSPACEBUILD build = {pid, 8, 31, 14, ""};
	memcpy(build.szReference, reference.data(), std::min(reference.size(), sizeof(build.szReference)));
	return build;
}

std::string Result(int result)
{
	if (result != 0) {
		EXPECT_EQ(result, -1);
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return "done";
}

std::string Set(const ZEVOSPACEBUILD &build)
{
	SetOldCode();
	return Result(ZEVOSpaceBuildFileSet(&build));
}

std::string Remove(const ZEVOSPACEBUILD &build)
{
	SetOldCode();
	return Result(ZEVOSpaceBuildFileRemove(&build));
}

} // namespace

TEST_F(SpaceBuild, LeavesAMarkerWithTheNumbers)
{
	EXPECT_EQ(Set(Build("vg1-cache")), "done");
	EXPECT_EQ(kit::ReadFile(kDir + "/vg1-cache"), "pid=\"4711\"\nkind=\"8\"\nstage=\"31\"\nreason=\"14\"\n");
	struct stat status = {};
	ASSERT_EQ(stat(kDir.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(SpaceBuild, ReplacesAMarkerThatIsLeftOver)
{
	EXPECT_EQ(Set(Build("vg1-cache")), "done");
	EXPECT_EQ(Set(Build("vg1-cache", 4712)), "done");
	EXPECT_EQ(kit::ReadFile(kDir + "/vg1-cache"), "pid=\"4712\"\nkind=\"8\"\nstage=\"31\"\nreason=\"14\"\n");
	kit::WriteFile(kDir + "/vg1-cache", "nonsense");
	EXPECT_EQ(Set(Build("vg1-cache")), "done");
	EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{"vg1-cache"}));
}

TEST_F(SpaceBuild, RemovesItsMarkerOnly)
{
	EXPECT_EQ(Set(Build("a")), "done");
	EXPECT_EQ(Set(Build("b")), "done");
	EXPECT_EQ(Remove(Build("a", 1)), "done");
	EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{"b"}));
}

TEST_F(SpaceBuild, RemovesAMarkerThatIsNotThere)
{
	EXPECT_EQ(Remove(Build("a")), "done");
	EXPECT_FALSE(fs::exists("/run/zevo"));
	kit::WriteFile(kDir, "");
	EXPECT_EQ(Remove(Build("a")), "done");
}

TEST_F(SpaceBuild, NamesItsFileSafely)
{
	const std::vector<std::pair<std::string, std::string>> names = {
		{"../../etc/passwd", "!.!..!etc!passwd"},
		{"..", "!."},
		{".", "!"},
		{"/dev/mapper/x", "!dev!mapper!x"},
		{".a.new", "!a.new"},
		{std::string(256, 'r'), std::string(200, 'r')},
		{"a b\nc", "a b\nc"},
	};
	for (const auto &[reference, name] : names) {
		EXPECT_EQ(Set(Build(reference)), "done") << reference;
		EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{name})) << reference;
		EXPECT_EQ(Remove(Build(reference)), "done") << reference;
		EXPECT_EQ(kit::Names(kDir), (std::set<std::string>{})) << reference;
	}
}

TEST_F(SpaceBuild, RefusesArgumentsThatAreNullOrOutOfRange)
{
	const ZEVOSPACEBUILD endless = Build(std::string(257, 'r'));
	const ZEVOSPACEBUILD nameless = Build("");
	for (const ZEVOSPACEBUILD *build : {&endless, &nameless, static_cast<const ZEVOSPACEBUILD *>(nullptr)}) {
		SetOldCode();
		EXPECT_EQ(Result(ZEVOSpaceBuildFileSet(build)), "failed 0x0D00");
		SetOldCode();
		EXPECT_EQ(Result(ZEVOSpaceBuildFileRemove(build)), "failed 0x0D00");
	}
	EXPECT_FALSE(fs::exists("/run/zevo"));
}

TEST_F(SpaceBuild, IsAFailureWhenTheFileOrItsFoldersCannotBeMade)
{
	for (const std::string folder : {"/run/zevo", "/run/zevo/space_build"}) {
		const kit::PathFault fault("mkdir", folder, EACCES);
		EXPECT_EQ(Set(Build("a")), "failed 0x0B00 " + folder);
	}
	fs::create_directories(kDir + "/a/b");
	EXPECT_EQ(Set(Build("a")), "failed 0x0B00 " + kDir + "/a");
	EXPECT_EQ(Remove(Build("a")), "failed 0x0B00 " + kDir + "/a");
}
