#include <zevotuned/apply.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

const std::string kRun = "/sbin/sysctl -we ";

class Apply : public kit::LabTest {
protected:
	Apply() { VUNKCErrSetEx(0, "", 0); }

	// Installs a profile that inherits from another one, unless that is null, and then sets one kernel parameter.
	static std::string InstallChild(const std::string &name, const char *inherit, const std::string &sysctl)
	{
		return kit::Install(kit::kShippedDir, name,
		                    "[main]\nname=" + name + "\n" +
		                            (inherit == nullptr ? "" : "inherit=" + std::string(inherit)) +
		                            "\n[sysctl]\n" + sysctl + "\n");
	}

	// Installs a global profile that sets one kernel parameter.
	static std::string InstallGlobal(const std::string &dir, const std::string &file, const std::string &sysctl)
	{
		return kit::Install(dir, file, "[main]\n[sysctl]\n" + sysctl + "\n");
	}

	kit::Journal journal;
};

// The programs run are written down in place of being run.
class ApplyRecorded : public Apply {
protected:
	kit::Programs programs;
};

TEST_F(Apply, WritesAProfileAfterTheGlobalProfilesToTheKernel)
{
	InstallGlobal(kit::kShippedGlobalDir, "g", "vm.swappiness=1\nvm.vfs_cache_pressure=51");
	InstallChild("a", nullptr, "vm.swappiness=2");
	EXPECT_EQ(TuneApplyProfile("a"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "2");
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "51");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Apply, LetsTheSectionThatComesLastWin)
{
	InstallChild("b", nullptr, "vm.swappiness=2\nvm.vfs_cache_pressure=52");
	kit::Install(kit::kShippedDir, "main first", "[main]\nname=main first\ninherit=b\n[sysctl]\nvm.swappiness=1\n");
	kit::Install(kit::kShippedDir, "main last",
	             "[sysctl]\nvm.swappiness=1\nvm.stat_interval=3\n"
	             "[main]\nname=main last\ninherit=b\n");
	EXPECT_EQ(TuneApplyProfile("main first"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "1");
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "52");
	EXPECT_EQ(TuneApplyProfile("main last"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "2");
	EXPECT_EQ(kit::Sysctl("vm.stat_interval"), "3");
}

TEST_F(ApplyRecorded, RefusesNull)
{
	EXPECT_EQ(TuneApplyProfile(nullptr), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (__null != szProfile)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(ApplyRecorded, HasOnlyTheGlobalProfilesToApplyForMainAlone)
{
	kit::Install(kit::kShippedDir, "a", "[main]\nname=a\n");
	EXPECT_EQ(TuneApplyProfile("a"), 0);
	EXPECT_EQ(programs.Lines(), Lines{});
	InstallGlobal(kit::kLocalGlobalDir, "g", "vm.g=1");
	EXPECT_EQ(TuneApplyProfile("a"), 0);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.g=1"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplyRecorded, AppliesNothingWithoutAProfileOfThatName)
{
	InstallGlobal(kit::kShippedGlobalDir, "g", "vm.g=1");
	EXPECT_EQ(TuneApplyProfile("missing"), -1);
	EXPECT_EQ(programs.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to find the profile [missing].[0x0000 :0]"});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(ApplyRecorded, AppliesNothingWhenTheCatalogueCannotBeRead)
{
	InstallChild("a", nullptr, "vm.a=1");
	InstallGlobal(kit::kShippedGlobalDir, "g", "vm.g=1");
	const std::string broken = kit::Install(kit::kLocalDir, "broken", "[main\n");
	const std::string tail = "[0x1500 " + broken + ":1]";
	EXPECT_EQ(TuneApplyProfile("a"), -1);
	EXPECT_EQ(programs.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get section [main] from path [" + broken + "]. " + tail,
	                                  "utils.cpp Failed to TuneLoadProfileByPath [" + broken + "]." + tail,
	                                  "utils.cpp Failed to TuneLoadOneProfile [" + broken + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListByDir [" + kit::kLocalDir + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListWithVector" + tail,
	                                  "utils.cpp Failed to find the profile [a]." + tail}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SYNTAX);
}

TEST_F(ApplyRecorded, AppliesGlobalProfilesAgainBeforeEveryInheritedOne)
{
	InstallGlobal(kit::kShippedGlobalDir, "g", "vm.g=1");
	InstallChild("a", nullptr, "vm.a=1");
	InstallChild("b", "a", "vm.b=1");
	InstallChild("c", "b", "vm.c=1");
	EXPECT_EQ(TuneApplyProfile("c"), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.g=1", kRun + "vm.g=1", kRun + "vm.g=1", kRun + "vm.a=1",
	                                   kRun + "vm.b=1", kRun + "vm.c=1"}));
}

TEST_F(ApplyRecorded, FollowsALongChain)
{
	constexpr int kLength = 40;
	Lines expected;
	InstallChild("0", nullptr, "vm.x=0");
	for (int i = 1; i <= kLength; ++i)
		InstallChild(std::to_string(i), std::to_string(i - 1).c_str(), "vm.x=" + std::to_string(i));
	for (int i = 0; i <= kLength; ++i)
		expected.push_back(kRun + "vm.x=" + std::to_string(i));
	EXPECT_EQ(TuneApplyProfile(std::to_string(kLength).c_str()), 0);
	EXPECT_EQ(programs.Lines(), expected);
}

TEST_F(ApplyRecorded, LogsAMissingInheritedProfileAtEveryLevel)
{
	const std::string a =
		kit::Install(kit::kShippedDir, "a", "[sysctl]\nvm.a=1\n[main]\nname=a\ninherit=missing\n[sysctl]\n");
	const std::string b = InstallChild("b", "a", "vm.b=1");
	EXPECT_EQ(TuneApplyProfile("b"), -1);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.a=1"}) << "only what stands before the failing section";
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + a + "] Main[0x0000 :0]",
	                                  "utils.cpp Failed to TuneApplyProfileByPath [" + a + "].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [a].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + b + "] Main[0x0000 :0]",
	                                  "utils.cpp Failed to TuneApplyProfileByPath [" + b + "].[0x0000 :0]"}));
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(ApplyRecorded, LogsAFailingSectionUpToTheCaller)
{
	const std::string a = InstallChild("a", nullptr, "vm.a=1");
	const std::string code = "[0xFA17 fault:1]";
	const kit::Fault fault("VUNKCFileGetSection", 4); // after the catalogue, the loading and [main]
	EXPECT_EQ(TuneApplyProfile("a"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get section [sysctl] from path [" + a + "]. " + code,
	                                  "utils.cpp Failed to Apply Profile [" + a + "] Sysctl" + code,
	                                  "utils.cpp Failed to TuneApplyProfileByPath [" + a + "]." + code}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(ApplyRecorded, TakesAnEmptyInheritForAName)
{
	const std::string a = kit::Install(kit::kShippedDir, "a", "[main]\nname=a\ninherit=\n");
	EXPECT_EQ(TuneApplyProfile("a"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + a + "] Main[0x0000 :0]",
	                                  "utils.cpp Failed to TuneApplyProfileByPath [" + a + "].[0x0000 :0]"}));
}

TEST_F(ApplyRecorded, TakesTheFirstInTheCatalogueOfProfilesOfOneName)
{
	kit::Install(kit::kShippedDir, "a", "[main]\nname=a\nindex=2\n[sysctl]\nvm.shipped=1\n");
	kit::Install(kit::kLocalDir, "a", "[main]\nname=a\nindex=1\n[sysctl]\nvm.local=1\n");
	InstallChild("b", "a", "vm.b=1");
	EXPECT_EQ(TuneApplyProfile("b"), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.local=1", kRun + "vm.b=1"}));
}

TEST_F(ApplyRecorded, UsesTheMemoryMaximumOfEachFileForThatFileAlone)
{
	const kit::Memory memory(1000);
	InstallGlobal(kit::kShippedGlobalDir, "g", "vm.dirty_ratio=1");
	kit::Install(kit::kShippedDir, "with", "[main]\nname=with\nvm_memory_max=500\n[sysctl]\nvm.dirty_ratio=20\n");
	kit::Install(kit::kShippedDir, "child", "[main]\nname=child\ninherit=with\n[sysctl]\nvm.dirty_ratio=30\n");
	kit::Install(kit::kShippedDir, "without", "[main]\nname=without\n[sysctl]\nvm.dirty_ratio=40\n");
	kit::Install(kit::kShippedDir, "child with",
	             "[main]\nname=child with\ninherit=without\nvm_memory_max=500\n[sysctl]\nvm.dirty_ratio=50\n");
	EXPECT_EQ(TuneApplyProfile("child"), 0);
	EXPECT_EQ(TuneApplyProfile("child with"), 0);
	EXPECT_EQ(programs.Lines(),
	          (Lines{kRun + "vm.dirty_ratio=1", kRun + "vm.dirty_ratio=1", kRun + "vm.dirty_bytes=100",
	                 kRun + "vm.dirty_ratio=30", kRun + "vm.dirty_ratio=1", kRun + "vm.dirty_ratio=1",
	                 kRun + "vm.dirty_ratio=40", kRun + "vm.dirty_bytes=250"}));
}

class GlobalProfiles : public ApplyRecorded {};

TEST_F(GlobalProfiles, AreNoneWithoutTheirFolders)
{
	EXPECT_EQ(TuneApplyGlobalProfile(), 0);
	std::filesystem::create_directories(kit::kShippedGlobalDir);
	kit::WriteFile(kit::kLocalGlobalDir, "a file");
	EXPECT_EQ(TuneApplyGlobalProfile(), 0);
	EXPECT_EQ(programs.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(GlobalProfiles, AreAppliedInOrderOfFoldersAndFileNames)
{
	kit::Install(kit::kLocalGlobalDir, "a", "[main]\nindex=1\n[sysctl]\nvm.x=3\n");
	kit::Install(kit::kShippedGlobalDir, "c", "[main]\nindex=2\n[sysctl]\nvm.x=2\n");
	kit::Install(kit::kShippedGlobalDir, "b", "[main]\nindex=3\n[sysctl]\nvm.x=1\n");
	EXPECT_EQ(TuneApplyGlobalProfile(), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.x=1", kRun + "vm.x=2", kRun + "vm.x=3"}));
}

TEST_F(GlobalProfiles, AreNoProfilesToBeFound)
{
	kit::Install(kit::kShippedGlobalDir, "a", "[main]\nname=a\n");
	EXPECT_EQ(TuneApplyProfile("a"), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to find the profile [a].[0x0000 :0]"});
}

TEST_F(GlobalProfiles, FollowTheirOwnInherit)
{
	InstallChild("a", nullptr, "vm.a=1");
	const std::string first = InstallGlobal(kit::kShippedGlobalDir, "1", "vm.g=1");
	const std::string second =
		kit::Install(kit::kShippedGlobalDir, "2", "[main]\ninherit=missing\n[sysctl]\nvm.g=2\n");
	InstallGlobal(kit::kShippedGlobalDir, "3", "vm.g=3");
	Lines lines = {"utils.cpp Failed to find the profile [missing].[0x0000 :0]",
	               "utils.cpp Failed to apply inherit profile [missing].[0x0000 :0]",
	               "utils.cpp Failed to Apply Profile [" + second + "] Main[0x0000 :0]",
	               "utils.cpp Failed to TuneApplyProfileByPath [" + second + "].[0x0000 :0]"};
	EXPECT_EQ(TuneApplyGlobalProfile(), -1);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.g=1"});
	EXPECT_EQ(journal.Lines(), lines);
}

TEST_F(GlobalProfiles, StopAtTheFirstThatFailsAndWithItTheNamedProfile)
{
	InstallChild("a", nullptr, "vm.a=1");
	InstallGlobal(kit::kShippedGlobalDir, "1", "vm.g=1");
	const std::string second =
		kit::Install(kit::kShippedGlobalDir, "2", "[sysctl]\nvm.g=2\n[main]\ninherit=missing\n");
	InstallGlobal(kit::kLocalGlobalDir, "3", "vm.g=3");
	EXPECT_EQ(TuneApplyProfile("a"), -1);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.g=1", kRun + "vm.g=2"}));
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + second + "] Main[0x0000 :0]",
	                                  "utils.cpp Failed to TuneApplyProfileByPath [" + second + "].[0x0000 :0]",
	                                  "utils.cpp Failed to TuneApplyGlobalProfile.[0x0000 :0]"}));
}

TEST_F(GlobalProfiles, AreNotAppliedAtAllWhenOneIsNoProfile)
{
	InstallChild("a", nullptr, "vm.a=1");
	InstallGlobal(kit::kShippedGlobalDir, "a", "vm.g=1");
	for (const std::string &dir : {kit::kLocalGlobalDir, kit::kShippedGlobalDir}) {
		SCOPED_TRACE(dir);
		const std::string broken = kit::Install(dir, "b", "[sysctl]\nvm.g=2\n");
		const std::string tail = "[0x1600 " + broken + ":0]";
		journal.Clear();
		EXPECT_EQ(TuneApplyProfile("a"), -1);
		EXPECT_EQ(programs.Lines(), Lines{});
		EXPECT_EQ(journal.Lines(),
		          (Lines{"utils.cpp Failed to get section [main] from path [" + broken + "]. " + tail,
		                 "utils.cpp Failed to TuneLoadProfileByPath [" + broken + "]." + tail,
		                 "utils.cpp Failed to TuneLoadOneProfile [" + broken + "]" + tail,
		                 "utils.cpp Failed to TuneProfileListByDir [" + dir + "]" + tail,
		                 "utils.cpp Failed to TuneGlobalProfileListWithVector" + tail,
		                 "utils.cpp Failed to TuneApplyGlobalProfile." + tail}));
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SECTION_MISSING);
	}
}

TEST_F(GlobalProfiles, FailWhereAFolderCannotBeRead)
{
	InstallGlobal(kit::kShippedGlobalDir, "a", "vm.g=1");
	InstallGlobal(kit::kLocalGlobalDir, "b", "vm.g=2");
	const std::string code = "[0xFA17 fault:1]";
	for (const auto &[nth, dir] : {std::pair(1, kit::kShippedGlobalDir), std::pair(2, kit::kLocalGlobalDir)}) {
		journal.Clear();
		const kit::Fault fault("VUNKCFileEnumDir", nth);
		EXPECT_EQ(TuneApplyGlobalProfile(), -1);
		EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to VUNKCFileEnumDir [" + dir + "]" + code,
		                                  "utils.cpp Failed to TuneProfileListByDir [" + dir + "]" + code,
		                                  "utils.cpp Failed to TuneGlobalProfileListWithVector" + code}));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_EQ(programs.Lines(), Lines{});
}

} // namespace
