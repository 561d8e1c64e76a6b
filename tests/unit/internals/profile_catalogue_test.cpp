#include "utils/profile_catalogue.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

std::string Main(const std::string &name)
{
	return "[main]\nname=" + name + "\n";
}

Lines ProfileNames(const std::vector<Profile> &profiles)
{
	Lines names;
	for (const Profile &profile : profiles)
		names.push_back(profile.name);
	return names;
}

class ProfileFolder : public kit::LabTest {
protected:
	ProfileFolder() { VUNKCErrSetEx(0, "", 0); }

	kit::TempDir dir;
	kit::Journal journal;
	std::vector<Profile> profiles;
};

TEST_F(ProfileFolder, AddsNothingWhereThereIsNoFolder)
{
	kit::WriteFile(dir.Path("file"), Main("a"));
	std::filesystem::create_directory(dir.Path("empty"));
	VUNKCErrSetEx(0x77, "elsewhere", 3);
	for (const std::string &path :
	     {dir.Path("missing"), dir.Path("file"), dir.Path("empty"), std::string(5000, 'x')})
		EXPECT_EQ(TuneProfileListByDir(path.c_str(), profiles), 0) << path;
	EXPECT_EQ(profiles.size(), 0u);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0x77);
}

TEST_F(ProfileFolder, AppendsItsFilesInOrderOfTheirNamesWhateverTheirIndex)
{
	kit::WriteFile(dir.Path("b.conf"), Main("second") + "index=1\n");
	kit::WriteFile(dir.Path("c"), Main("third") + "index=0\n");
	kit::WriteFile(dir.Path("B.bak"), Main("first") + "index=2\n");
	profiles.emplace_back().name = "held before";
	ASSERT_EQ(TuneProfileListByDir(dir.Path().c_str(), profiles), 0);
	EXPECT_EQ(ProfileNames(profiles), (Lines{"held before", "first", "second", "third"}));
	EXPECT_EQ(profiles[1].path, dir.Path("B.bak"));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProfileFolder, PassesOverWhatIsNoVisibleRegularFile)
{
	kit::WriteFile(dir.Path("a"), Main("file"));
	kit::WriteFile(dir.Path(".hidden"), Main("hidden"));
	kit::WriteFile(dir.Path("sub/a"), Main("deeper"));
	std::filesystem::create_symlink("sub/a", dir.Path("link"));
	std::filesystem::create_symlink("nowhere", dir.Path("dangling"));
	ASSERT_EQ(TuneProfileListByDir(dir.Path().c_str(), profiles), 0);
	EXPECT_EQ(ProfileNames(profiles), (Lines{"file", "deeper"}));
}

TEST_F(ProfileFolder, IsReadAlsoWhenItsFileSystemHasLostItsConnection)
{
	kit::WriteFile(dir.Path("a"), Main("a"));
	const kit::PathFault fault("stat", dir.Path(), ENOTCONN);
	ASSERT_EQ(TuneProfileListByDir(dir.Path().c_str(), profiles), 0);
	EXPECT_GE(fault.Calls(), 1);
	EXPECT_EQ(ProfileNames(profiles), Lines{"a"});
}

TEST_F(ProfileFolder, StopsAtTheFirstFileThatIsNoProfileAndKeepsThoseBefore)
{
	kit::WriteFile(dir.Path("a"), Main("a"));
	kit::WriteFile(dir.Path("b"), "[disk]\n");
	kit::WriteFile(dir.Path("c"), "[main]\ngarbage\n");
	const std::string b = dir.Path("b");
	EXPECT_EQ(TuneProfileListByDir(dir.Path().c_str(), profiles), -1);
	EXPECT_EQ(ProfileNames(profiles), Lines{"a"});
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Failed to get section [main] from path [" + b + "]. [0x1600 " + b + ":0]",
	                 "utils.cpp Failed to TuneLoadProfileByPath [" + b + "].[0x1600 " + b + ":0]",
	                 "utils.cpp Failed to TuneLoadOneProfile [" + b + "][0x1600 " + b + ":0]"}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SECTION_MISSING);
}

TEST_F(ProfileFolder, FailsWhereTheCoreLibraryFails)
{
	kit::WriteFile(dir.Path("a"), Main("a"));
	const std::string a = dir.Path("a");
	const std::string code = "[0xFA17 fault:1]";
	const Lines outer = {"utils.cpp Failed to TuneLoadProfileByPath [" + a + "]." + code,
	                     "utils.cpp Failed to TuneLoadOneProfile [" + a + "]" + code};
	const struct {
		const char *function;
		int nth;
		Lines lines;
	} rows[] = {
		{"VUNKCSzListAlloc", 1, {"utils.cpp Failed to VUNKCSzListAlloc" + code}},
		{"VUNKCFileEnumDir", 1, {"utils.cpp Failed to VUNKCFileEnumDir [" + dir.Path() + "]" + code}},
		{"VUNKCSzHashAlloc", 1, {"utils.cpp Failed to VUNKCSzHashAlloc()." + code, outer[0], outer[1]}},
		{"VUNKCSzListAlloc", 2, {"utils.cpp VUNKCSzListAlloc failed", outer[0], outer[1]}},
		{"VUNKCSzHashEnumKey",
	         1,
	         {"utils.cpp Failed to get hash enum key from hash." + code, outer[0], outer[1]}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(TuneProfileListByDir(dir.Path().c_str(), profiles), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), row.lines);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(profiles.size(), 0u);
	}
}

// Paths of 1023 bytes and more: a folder that leaves four bytes for the names of its files.
class DeepProfileFolder : public ProfileFolder {
protected:
	DeepProfileFolder() : deep(dir.Path())
	{
		while (deep.size() + 1 + 200 < kLength)
			deep += "/" + std::string(199, 'd');
		deep += "/" + std::string(kLength - deep.size() - 1, 'e');
	}

	static constexpr size_t kLength = 1018;
	std::string deep;
};

TEST_F(DeepProfileFolder, ReadsAPathOf1023BytesInFull)
{
	kit::WriteFile(deep + "/name", Main("fits"));
	ASSERT_EQ(TuneProfileListByDir(deep.c_str(), profiles), 0);
	ASSERT_EQ(ProfileNames(profiles), Lines{"fits"});
	EXPECT_EQ(profiles[0].path, deep + "/name");
	EXPECT_EQ(profiles[0].path.size(), 1023u);
}

TEST_F(DeepProfileFolder, UsesALongerPathCut)
{
	kit::WriteFile(deep + "/name", Main("short"));
	kit::WriteFile(deep + "/named", Main("long"));
	ASSERT_EQ(TuneProfileListByDir(deep.c_str(), profiles), 0);
	EXPECT_EQ(ProfileNames(profiles), (Lines{"short", "short"}));
	EXPECT_EQ(profiles[1].path, deep + "/name");
}

TEST_F(DeepProfileFolder, FailsWhereNothingHasTheCutPath)
{
	kit::WriteFile(deep + "/named", Main("long"));
	const std::string cut = deep + "/name";
	EXPECT_EQ(TuneProfileListByDir(deep.c_str(), profiles), -1);
	const std::string tail = "[0x0800 " + cut + ":0]";
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get section [main] from path [" + cut + "]. " + tail,
	                                  "utils.cpp Failed to TuneLoadProfileByPath [" + cut + "]." + tail,
	                                  "utils.cpp Failed to TuneLoadOneProfile [" + cut + "]" + tail}));
}

} // namespace
