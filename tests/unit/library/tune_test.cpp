#include <zevotuned/tune.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <vunkcore/pair_file.h>

#include <gmock/gmock.h>

#include <climits>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using testing::ElementsAre;
using testing::StartsWith;

const std::string kRun = "/sbin/sysctl -we ";

// The pairs of the configuration file.
std::map<std::string, std::string> Configuration()
{
	std::map<std::string, std::string> pairs;
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	VUNKSZLIST *keys = VUNKCSzListAlloc(1024);
	EXPECT_GE(VUNKCFileGetPair(kit::kConfigFile.c_str(), &hash), 0);
	VUNKCSzHashEnumKey(hash, &keys);
	for (int i = 0; i < keys->nItem; ++i)
		pairs[VUNKCSzListGet(keys, i)] = VUNKCSzHashGetValue(hash, VUNKCSzListGet(keys, i));
	VUNKCSzListFree(keys);
	VUNKCSzHashFree(hash);
	return pairs;
}

class Tune : public kit::LabTest {
protected:
	Tune() { VUNKCErrSetEx(0, "", 0); }

	// Installs a profile that sets one kernel parameter.
	static std::string InstallProfile(const std::string &name, const std::string &sysctl)
	{
		return kit::Install(kit::kShippedDir, "file of " + name,
		                    "[main]\nname=" + name + "\n[sysctl]\n" + sysctl + "\n");
	}

	// Installs a profile whose application fails after its kernel parameter has been set.
	static std::string InstallFailing(const std::string &name, const std::string &sysctl)
	{
		return kit::Install(kit::kShippedDir, "file of " + name,
		                    "[sysctl]\n" + sysctl + "\n[main]\nname=" + name + "\ninherit=missing\n");
	}

	// The lines of applying such a profile, without those of the entry point.
	static Lines FailingLines(const std::string &path)
	{
		return {"utils.cpp Failed to find the profile [missing].[0x0000 :0]",
		        "utils.cpp Failed to apply inherit profile [missing].[0x0000 :0]",
		        "utils.cpp Failed to Apply Profile [" + path + "] Main[0x0000 :0]",
		        "utils.cpp Failed to TuneApplyProfileByPath [" + path + "].[0x0000 :0]"};
	}

	static std::string Current()
	{
		char name[1024];
		return ZEVOGetCurrentProfile(name, sizeof(name)) == 0 ? name : "-1";
	}

	kit::Journal journal;
};

// The programs run are written down in place of being run.
class TuneRecorded : public Tune {
protected:
	kit::Programs programs;
};

TEST_F(Tune, SelectsAProfileByItsName)
{
	InstallProfile("quiet", "vm.swappiness=13");
	EXPECT_EQ(ZEVOSetCustomProfile("quiet"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "13");
	EXPECT_EQ(Configuration()["profile"], "quiet");
	EXPECT_EQ(Current(), "quiet");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Tune, AppliesTheSelectedProfileAgainAndLeavesTheConfigurationAlone)
{
	InstallProfile("quiet", "vm.swappiness=13");
	ASSERT_EQ(ZEVOSetCustomProfile("quiet"), 0);
	ASSERT_EQ(Current(), "quiet"); // the first reading completes the configuration
	const std::string configuration = kit::ReadFile(kit::kConfigFile);
	InstallProfile("quiet", "vm.swappiness=14");
	const kit::Fault fault("VUNKCFileSetPair");
	EXPECT_EQ(ZEVORunCurrentProfile(), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "14");
	EXPECT_EQ(kit::ReadFile(kit::kConfigFile), configuration);
	EXPECT_FALSE(fault.Struck());
}

TEST_F(TuneRecorded, AppliesTheDefaultProfileOnAFreshSystem)
{
	InstallProfile("performance_throughput", "vm.x=0");
	EXPECT_EQ(ZEVORunCurrentProfile(), 0);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.x=0"});
}

TEST_F(TuneRecorded, ChangesNothingForANameThatNoProfileHas)
{
	InstallProfile("quiet", "vm.x=1");
	ASSERT_EQ(ZEVOSetCustomProfile("quiet"), 0);
	const std::string configuration = kit::ReadFile(kit::kConfigFile);
	EXPECT_EQ(ZEVOSetCustomProfile("Quiet"), -1);
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Failed to find the profile [Quiet].[0x0000 :0]"});
	EXPECT_EQ(kit::ReadFile(kit::kConfigFile), configuration);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.x=1"});
}

TEST_F(TuneRecorded, DoesNotEvenMakeAConfigurationForANameThatNoProfileHas)
{
	EXPECT_EQ(ZEVOSetCustomProfile("quiet"), -1);
	EXPECT_FALSE(std::filesystem::exists("/usr/zevo/etc/zevotuned"));
}

TEST_F(TuneRecorded, ChangesNothingWhenTheCatalogueCannotBeRead)
{
	InstallProfile("quiet", "vm.x=1");
	const std::string broken = kit::Install(kit::kShippedDir, "broken", "text\n");
	const std::string tail = "[0x1500 " + broken + ":1]";
	EXPECT_EQ(ZEVOSetCustomProfile("quiet"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get section [main] from path [" + broken + "]. " + tail,
	                                  "utils.cpp Failed to TuneLoadProfileByPath [" + broken + "]." + tail,
	                                  "utils.cpp Failed to TuneLoadOneProfile [" + broken + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListByDir [" + kit::kShippedDir + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListWithVector" + tail,
	                                  "tune.cpp Failed to find the profile [quiet]." + tail}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SYNTAX);
	EXPECT_FALSE(std::filesystem::exists(kit::kConfigFile));
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(TuneRecorded, SelectsTheBuiltInProfilesByNumber)
{
	InstallProfile("performance_throughput", "vm.x=0");
	InstallProfile("performance_latency", "vm.x=1");
	for (const auto &[number, name] :
	     {std::pair(1, "performance_latency"), std::pair(0, "performance_throughput")}) {
		EXPECT_EQ(ZEVOSetProfile(number), 0);
		EXPECT_EQ(Current(), name);
	}
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.x=1", kRun + "vm.x=0"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(TuneRecorded, FailsForABuiltInProfileAsForItsName)
{
	for (const auto &[number, name] :
	     {std::pair(0, "performance_throughput"), std::pair(1, "performance_latency")}) {
		// Not installed.
		std::filesystem::remove_all(kit::kShippedDir);
		journal.Clear();
		EXPECT_EQ(ZEVOSetProfile(number), -1);
		const Lines byNumber = journal.Lines();
		EXPECT_EQ(byNumber,
		          Lines{"tune.cpp Failed to find the profile [" + std::string(name) + "].[0x0000 :0]"});
		journal.Clear();
		EXPECT_EQ(ZEVOSetCustomProfile(name), -1);
		EXPECT_EQ(journal.Lines(), byNumber);
		// Cannot be applied.
		Lines lines = FailingLines(InstallFailing(name, "vm.x=1"));
		lines.push_back("tune.cpp Failed to apply profile [" + std::string(name) + "].[0x0000 :0]");
		journal.Clear();
		EXPECT_EQ(ZEVOSetProfile(number), -1);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(Current(), name);
	}
}

TEST_F(TuneRecorded, RefusesOtherNumbers)
{
	InstallProfile("performance_throughput", "vm.x=0");
	InstallProfile("performance_latency", "vm.x=1");
	InstallProfile("", "vm.x=2");
	for (const int number : {-1, 2, INT_MIN, INT_MAX}) {
		journal.Clear();
		VUNKCErrSetEx(0, "", 0);
		EXPECT_EQ(ZEVOSetProfile(number), -1) << number;
		EXPECT_THAT(journal.Lines(), ElementsAre(StartsWith("tune.cpp Invaild Argument (")));
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
	}
	EXPECT_FALSE(std::filesystem::exists(kit::kConfigFile));
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(TuneRecorded, RecordsAProfileAlsoWhenItsApplicationFails)
{
	InstallProfile("quiet", "vm.x=1");
	ASSERT_EQ(ZEVOSetCustomProfile("quiet"), 0);
	Lines lines = FailingLines(InstallFailing("loud", "vm.x=2"));
	lines.push_back("tune.cpp Failed to apply profile [loud].[0x0000 :0]");
	EXPECT_EQ(ZEVOSetCustomProfile("loud"), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(Current(), "loud");
	// The next run tries again, from the start.
	journal.Clear();
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.x=1", kRun + "vm.x=2", kRun + "vm.x=2"}));
}

TEST_F(TuneRecorded, AppliesNothingWhenTheNameCannotBeRecorded)
{
	InstallProfile("quiet", "vm.x=1");
	{
		const kit::Fault fault("VUNKCFileSetPair");
		EXPECT_EQ(ZEVOSetCustomProfile("quiet"), -1);
		EXPECT_TRUE(fault.Struck());
	}
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Failed to set hash to file [" + kit::kConfigFile + "][0xFA17 fault:1]",
	                 "tune.cpp Failed to set profile [quiet].[0xFA17 fault:1]"}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(Tune, GivesTheDefaultProfileOnAFreshSystemAndMakesItsConfiguration)
{
	char name[64] = "";
	EXPECT_EQ(ZEVOGetCurrentProfile(name, sizeof(name)), 0);
	EXPECT_STREQ(name, "performance_throughput");
	EXPECT_EQ(Configuration(),
	          (std::map<std::string, std::string>{{"btrfs_metadata_cache_on", "true"},
	                                              {"btrfs_metadata_cache_read_throttle_wait_mult", "0"},
	                                              {"btrfs_metadata_cache_space_usage_limit", "100"},
	                                              {"lock", "false"},
	                                              {"profile", "performance_throughput"}}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Tune, CutsTheNameToTheCallersBuffer)
{
	const std::string name = "performance_throughput";
	for (const size_t size : {size_t{1}, size_t{8}, name.size(), name.size() + 1}) {
		std::string buffer(64, '#');
		EXPECT_EQ(ZEVOGetCurrentProfile(buffer.data(), size), 0);
		EXPECT_EQ(buffer.c_str(), name.substr(0, size - 1));
		EXPECT_EQ(buffer.find_first_not_of('#', size), std::string::npos) << "written past the buffer's end";
	}
	char eight[8];
	EXPECT_EQ(ZEVOGetCurrentProfile(eight, sizeof(eight)), 0);
	EXPECT_STREQ(eight, "perform");
}

TEST_F(Tune, RefusesABufferThatCannotHoldAnything)
{
	char buffer[16] = "untouched";
	EXPECT_EQ(ZEVOGetCurrentProfile(nullptr, 0), -1);
	EXPECT_EQ(ZEVOGetCurrentProfile(nullptr, 16), -1);
	EXPECT_EQ(ZEVOGetCurrentProfile(buffer, 0), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"tune.cpp Invaild Argument (__null != szBuf)=[0]\n",
	                                  "tune.cpp Invaild Argument (__null != szBuf)=[0]\n",
	                                  "tune.cpp Invaild Argument (0 < cbBuf)=[0]\n"}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_STREQ(buffer, "untouched");
	EXPECT_FALSE(std::filesystem::exists(kit::kConfigFile));
}

TEST_F(Tune, RefusesANullName)
{
	EXPECT_EQ(ZEVOSetCustomProfile(nullptr), -1);
	EXPECT_EQ(journal.Lines(), Lines{"tune.cpp Invaild Argument (__null != szProfile)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_FALSE(std::filesystem::exists(kit::kConfigFile));
}

TEST_F(TuneRecorded, ReportsAConfigurationThatCannotBeRead)
{
	InstallProfile("performance_throughput", "vm.x=1");
	std::filesystem::create_directories(kit::kConfigFile);
	const Lines lines = {"utils.cpp Failed to get zevotuned config.[0xC000 utils.cpp]",
	                     "tune.cpp Failed to TunedConfigGet.[0xC000 utils.cpp]"};
	char buffer[16] = "untouched";
	EXPECT_EQ(ZEVOGetCurrentProfile(buffer, sizeof(buffer)), -1);
	EXPECT_STREQ(buffer, "untouched");
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(VUNKCErrGet(), 0xC000);

	journal.Clear();
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{lines[0], lines[1], "tune.cpp Failed to get current profile.[0xC000 utils.cpp]"}));
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(TuneRecorded, ReportsThatNoHashIsToBeHad)
{
	const Lines lines = {"tune.cpp Failed to VUNKCSzHashAlloc().[0xFA17 fault:1]"};
	{
		char buffer[16] = "untouched";
		const kit::Fault fault("VUNKCSzHashAlloc");
		EXPECT_EQ(ZEVOGetCurrentProfile(buffer, sizeof(buffer)), -1);
		EXPECT_STREQ(buffer, "untouched");
		EXPECT_EQ(journal.Lines(), lines);
	}
	journal.Clear();
	const kit::Fault fault("VUNKCSzHashAlloc");
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{lines[0], "tune.cpp Failed to get current profile.[0xFA17 fault:1]"}));
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(TuneRecorded, GivesBackANameWhoseProfileIsGoneButCannotApplyIt)
{
	const std::string path = InstallProfile("quiet", "vm.x=1");
	ASSERT_EQ(ZEVOSetCustomProfile("quiet"), 0);
	std::filesystem::remove(path);
	EXPECT_EQ(Current(), "quiet");
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [quiet].[0x0000 :0]",
	                                  "tune.cpp Failed to apply profile [quiet].[0x0000 :0]"}));
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.x=1"});
}

TEST_F(TuneRecorded, AppliesARecordedNameCutAfter1023Bytes)
{
	const std::string name(1100, 'n');
	kit::Install(kit::kShippedDir, "long", "[main]\nname=" + name + "\n[sysctl]\nvm.x=1\n");
	EXPECT_EQ(ZEVOSetCustomProfile(name.c_str()), 0);
	EXPECT_EQ(Configuration()["profile"], name);
	EXPECT_EQ(ZEVORunCurrentProfile(), -1);
	const std::string cut = name.substr(0, 1023);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [" + cut + "].[0x0000 :0]",
	                                  "tune.cpp Failed to apply profile [" + cut + "].[0x0000 :0]"}));
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.x=1"});
}

TEST_F(Tune, ListsTheNamesOfAllProfiles)
{
	kit::Install(kit::kShippedDir, "a", "[main]\nname=second\nindex=2\n");
	kit::Install(kit::kLocalDir, "b", "[main]\nname=first\nindex=1\n");
	VUNKSZLIST *list = VUNKCSzListAlloc(16);
	VUNKCSzListPush(&list, "held before");
	EXPECT_EQ(ZEVOProfileList(&list), 0);
	ASSERT_EQ(list->nItem, 3);
	EXPECT_STREQ(VUNKCSzListGet(list, 0), "held before");
	EXPECT_STREQ(VUNKCSzListGet(list, 1), "first");
	EXPECT_STREQ(VUNKCSzListGet(list, 2), "second");
	EXPECT_EQ(journal.Lines(), Lines{});

	const std::string broken = kit::Install(kit::kLocalDir, "c", "");
	const std::string tail = "[0x1600 " + broken + ":0]";
	EXPECT_EQ(ZEVOProfileList(&list), -1);
	EXPECT_EQ(list->nItem, 3);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to get section [main] from path [" + broken + "]. " + tail,
	                                  "utils.cpp Failed to TuneLoadProfileByPath [" + broken + "]." + tail,
	                                  "utils.cpp Failed to TuneLoadOneProfile [" + broken + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListByDir [" + kit::kLocalDir + "]" + tail,
	                                  "utils.cpp Failed to TuneProfileListWithVector" + tail,
	                                  "tune.cpp Failed to TuneProfileList." + tail}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SECTION_MISSING);
	VUNKCSzListFree(list);
}

TEST_F(Tune, RefusesToListWithoutAList)
{
	VUNKSZLIST *none = nullptr;
	EXPECT_EQ(ZEVOProfileList(nullptr), -1);
	EXPECT_EQ(ZEVOProfileList(&none), -1);
	EXPECT_EQ(none, nullptr);
	EXPECT_EQ(journal.Lines(), (Lines{"tune.cpp Invaild Argument (__null != ppslList)=[0]\n",
	                                  "tune.cpp Invaild Argument (NULL != *ppslList)=[0]\n"}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
}

} // namespace
