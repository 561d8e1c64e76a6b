// The sections for the storage, through the library as it is shipped.

#include <zevotuned/apply.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/machine.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kFault = "[0xFA17 fault:1]";
const std::string kNoError = "[0x0000 :0]";

const std::string kThreads = "/sys/fs/btrfs/uuid-1/zevo_writeback_thread_max";
const std::string kTunable = "/sys/block/sda/queue/iosched/slice_idle";
const std::string kScheduler = "/sys/block/sda/queue/scheduler";

const std::string kAllSections = "[volume]\nzevo_writeback_thread_max=auto\n"
				 "[raid_cfq_1]\nslice_idle=0\n"
				 "[disk]\nssd_scheduler=none\n";

// A machine with one volume on an array of one SSD and another.
class ApplySections : public kit::LabTest {
protected:
	ApplySections()
	{
		storage.volumes = {{"/volume1", "uuid-1", {"/dev/sda"}}};
		storage.disks = {{"sda", "/dev/sda"}};
		storage.isSSD["/dev/sda"] = 1;
		storage.arrays = {{0x02, {"/dev/sda5"}}};
		Reset();
	}

	void Reset()
	{
		kit::WriteFile(kThreads, "");
		kit::WriteFile(kTunable, "");
		kit::WriteFile(kScheduler, "[mq-deadline] none\n");
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
	}

	// Applies a profile of this text.
	int Apply(const std::string &sections)
	{
		path = kit::Install(kit::kShippedDir, "a", "[main]\nname=a\n" + sections);
		return TuneApplyProfile("a");
	}

	// The lines from a section that fails up to the caller.
	Lines LinesOf(Lines lines, const std::string &section, const std::string &code) const
	{
		lines.push_back("utils.cpp Failed to Apply Profile [" + path + "] " + section + code);
		lines.push_back("utils.cpp Failed to TuneApplyProfileByPath [" + path + "]." + code);
		return lines;
	}

	kit::MountPoint sys{"sys", "/sys", "tmpfs", 0, "mode=0755"};
	std::string path;
	kit::Journal journal;
	kit::Programs programs;
	kit::FakeStorage storage;
	kit::Writes writes;
};

TEST_F(ApplySections, WritesTheSectionsInFileOrder)
{
	EXPECT_EQ(Apply(kAllSections), 0);
	EXPECT_EQ(Apply("[disk]\nssd_scheduler=none\n[raid_cfq_default]\nslice_idle=8\n"
	                "[volume]\nzevo_writeback_thread_max=2\n"),
	          0);
	EXPECT_EQ(writes.Lines(), (Lines{kThreads + ": 1", kTunable + ": 0", kScheduler + ": none",
	                                 kScheduler + ": none", kTunable + ": 8", kThreads + ": 2"}));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(ApplySections, WritesTheGlobalAndTheInheritedProfilesFirst)
{
	const auto profile = [](const std::string &head, const char *value) {
		return "[main]\n" + head + "[raid_cfq_1]\nslice_idle=" + value + "\n";
	};
	kit::Install(kit::kShippedGlobalDir, "g", profile("", "1"));
	kit::Install(kit::kShippedDir, "b", profile("name=b\n", "2"));
	kit::Install(kit::kShippedDir, "a", profile("name=a\ninherit=b\n", "3"));
	EXPECT_EQ(TuneApplyProfile("a"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{kTunable + ": 1", kTunable + ": 1", kTunable + ": 2", kTunable + ": 3"}));
}

TEST_F(ApplySections, TakesTheNamesOfSectionsExactlyButForRaid)
{
	EXPECT_EQ(Apply("[Volume]\nzevo_writeback_thread_max=1\n[volume2]\nzevo_writeback_thread_max=1\n"
	                "[volum]\nzevo_writeback_thread_max=1\n[DISK]\nssd_scheduler=none\n"
	                "[disks]\nssd_scheduler=none\n[raid]\nslice_idle=0\n[RAID_CFQ_1]\nslice_idle=0\n"
	                "[raid_cf]\nslice_idle=0\n[my_raid_cfq_1]\nslice_idle=0\n"),
	          0);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(Apply("[raid_cfq]\na=1\n[raid_cfqX]\nslice_idle=0\n[raid_cfq_6]\nslice_idle=0\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"RAIDInfoEnum", "RAIDInfoEnum", "RAIDInfoEnum"}));
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplySections, TouchesNothingWithoutTheirKeys)
{
	EXPECT_EQ(Apply("[volume]\n[raid_cfq_1]\n[disk]\n"), 0);
	EXPECT_EQ(Apply("[volume]\nother=1\n"), 0);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(Apply("[raid_cfq_1]\nother=1\n[disk]\nother=1\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"RAIDInfoEnum", "DiskPartitionNumRemove /dev/sda5 64", "DiskInfoEnum 0x2f"}));
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplySections, PassesOverAVolumeWhoseSpaceCannotBeFound)
{
	storage.volumes.insert(storage.volumes.begin(), {"/volume0", "uuid-0", {}, 3, false});
	EXPECT_EQ(Apply(kAllSections), 0);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Fail to find volume: [/volume0]"});
	EXPECT_EQ(writes.Lines(), (Lines{kThreads + ": 1", kTunable + ": 0", kScheduler + ": none"}));
}

TEST_F(ApplySections, LogsAFailureUpToTheCallerAndStops)
{
	const auto volume = [](const std::string &line, const std::string &code) {
		return Lines{"utils.cpp " + line,
		             "utils.cpp Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo [/volume1]",
		             "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + code};
	};
	const auto listing = [](const std::string &line) {
		return Lines{"utils.cpp " + line + kFault,
		             "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + kFault};
	};
	const auto raid = [](const std::string &line, const std::string &code) {
		return Lines{"utils.cpp " + line, "utils.cpp Failed to Tune RAID_CFQ [slice_idle 0]" + code};
	};
	const auto disk = [](const std::string &line, const std::string &code) {
		return Lines{"utils.cpp " + line, "utils.cpp Failed to TuneApplyIOSchedulerByDevice [sda none]" + code,
		             "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler none]." + code};
	};
	const struct {
		const char *section;
		const char *function; // that fails
		int nth;
		std::string path; // that cannot be opened for writing, in place of that
		Lines lines;
		std::string code;
	} rows[] = {
		{"Volume", "ZEVOMountVolInfoEnum", 1, "", listing("Failed to enum volume info"), kFault},
		{"Volume", "ZEVOSpaceInfoEnum", 1, "", listing("Failed to enum volume."), kFault},
		{"Volume", "ZEVOSpaceDiskEnum", 1, "", volume("Failed to ZEVOSpaceDiskEnum." + kFault, kFault), kFault},
		{"Volume", "ZEVODiskIsSSD", 1, "",
	         volume("Failed to check disk [/dev/sda] rotational." + kFault, kFault), kFault},
		{"Volume", "ZEVOFSGetBTRFSUuid", 1, "",
	         volume("Failed to get Btrfs UUID with [/volume1]." + kFault, kFault), kFault},
		{"Volume", "", 1, kThreads, volume("Can't open file " + kThreads + kNoError, kNoError), kNoError},
		{"Volume", "VUNKCWrite", 1, "",
	         volume("Failed to set writeback thread max errno Invalid argument." + kFault, kFault), kFault},
		{"Raid", "RAIDInfoEnum", 1, "", raid("Failed to enumerate RAID info" + kFault, kFault), kFault},
		{"Raid", "", 1, kTunable,
	         raid("TuneParameterWrite Can't open file " + kTunable + ", errno:Permission denied" + kNoError,
	              kNoError),
	         kNoError},
		{"Raid", "VUNKCWrite", 2, "",
	         raid("TuneParameterWrite Failed to set parameter [" + kTunable + " 0], errno:Invalid argument" +
	                      kFault,
	              kFault),
	         kFault},
		{"Disk",
	         "DiskInfoEnum",
	         1,
	         "",
	         {"utils.cpp Failed to enum disks" + kFault,
	          "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler none]." + kFault},
	         kFault},
		{"Disk", "VUNKCStrTok", 1, "",
	         disk("Failed to VUNKCStrTok with [[mq-deadline] none\n]" + kFault, kFault), kFault},
		{"Disk", "", 1, kScheduler,
	         disk("TuneParameterWrite Can't open file " + kScheduler + ", errno:Permission denied" + kNoError,
	              kNoError),
	         kNoError},
		{"Disk", "VUNKCWrite", 3, "",
	         disk("TuneParameterWrite Failed to set parameter [" + kScheduler + " none], errno:Invalid argument" +
	                      kFault,
	              kFault),
	         kFault},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.section << ' ' << row.function << ' ' << row.path);
		Reset();
		const kit::PathFault open("open", row.path, EACCES);
		const kit::Fault fault(row.function, row.nth, EINVAL);
		EXPECT_EQ(Apply(kAllSections + "[sysctl]\nvm.swappiness=1\n"), -1);
		EXPECT_EQ(journal.Lines(), LinesOf(row.lines, row.section, row.code));
		EXPECT_EQ(VUNKCErrGet(), row.code == kFault ? kit::kFaultCode : 0);

		// The sections before stay applied, those behind are not.
		const std::string section = row.section;
		EXPECT_EQ(kit::ReadFile(kThreads), section == "Volume" ? "" : "1");
		EXPECT_EQ(kit::ReadFile(kTunable), section == "Disk" ? "0" : "");
		EXPECT_EQ(kit::ReadFile(kScheduler), "[mq-deadline] none\n");
	}
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(ApplySections, FailForWhatTheMachineLacks)
{
	const struct {
		const char *what;
		std::function<void()> remove;
		const char *section;
		Lines lines;
		std::string code;
	} rows[] = {
		{"the scheduler file",
	         [] { fs::remove(kScheduler); },
	         "Disk",
	         {"utils.cpp TuneCheckSchedulerSupport Can't open file " + kScheduler +
	                  ", errno:No such file or directory" + kNoError,
	          "utils.cpp Failed to TuneApplyIOSchedulerByDevice [sda none]" + kNoError,
	          "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler none]." + kNoError},
	         kNoError},
		{"an SSD's kernel name",
	         [&] { storage.disks[0].kernelName.reset(); },
	         "Disk",
	         {"utils.cpp Invaild Argument (__null != szDevName)=[0]\n",
	          "utils.cpp Failed to TuneApplyIOSchedulerByDevice [(null) none][0x0D00 utils.cpp]",
	          "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler none].[0x0D00 utils.cpp]"},
	         "[0x0D00 utils.cpp]"},
		{"arrays",
	         [&] { storage.arrays.clear(), storage.supportsRaid = true; },
	         "Raid",
	         {"utils.cpp Failed to Tune RAID_CFQ [slice_idle 0]" + kNoError},
	         kNoError},
		{"the attribute",
	         [] { fs::remove(kThreads); },
	         "Volume",
	         {"utils.cpp Can't open file " + kThreads + kNoError,
	          "utils.cpp Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo [/volume1]",
	          "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + kNoError},
	         kNoError},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		Reset();
		row.remove();
		EXPECT_EQ(Apply(kAllSections), -1);
		EXPECT_EQ(journal.Lines(), LinesOf(row.lines, row.section, row.code));
	}
}

TEST_F(ApplySections, FailForAnEmptyTunableAndTakeAnEmptySchedulerForNone)
{
	EXPECT_EQ(Apply("[disk]\nssd_scheduler=\n[raid_cfq_1]\nslice_idle=\n"), -1);
	EXPECT_EQ(journal.Lines(), LinesOf({"utils.cpp Invaild Argument (0 < cbValue)=[0]\n",
	                                    "utils.cpp Failed to Tune RAID_CFQ [slice_idle ][0x0D00 utils.cpp]"},
	                                   "Raid", "[0x0D00 utils.cpp]"));
	EXPECT_EQ(writes.Lines(), Lines{});
}

// Whoever called before may have left a code; volumes that could be listed clear it.
TEST_F(ApplySections, GoByTheErrorStackAfterListingTheVolumes)
{
	VUNKCErrSetEx(0x1234, "before", 7);
	EXPECT_EQ(Apply(kAllSections), 0);
	EXPECT_EQ(VUNKCErrGet(), 0);

	storage.codeOfVolumes.reset();
	VUNKCErrSetEx(0x1234, "before", 7);
	EXPECT_EQ(Apply(kAllSections), -1);
	const std::string code = "[0x1234 before:7]";
	EXPECT_EQ(journal.Lines(), LinesOf({"utils.cpp Failed to enum volume info" + code,
	                                    "utils.cpp Failed to TuneApplyProfileVolumeWriteBackThread" + code},
	                                   "Volume", code));
}

// The driver's own reading, the catalogue's included, comes before that of the sections.
TEST_F(ApplySections, FailWhenASectionCannotBeRead)
{
	const struct {
		const char *section;
		std::string name;
		int nth; // reading of a section: the catalogue, the profile, [main], and then these
	} rows[] = {{"Volume", "volume", 4}, {"Raid", "raid_cfq_1", 5}, {"Disk", "disk", 6}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		Reset();
		const kit::Fault fault("VUNKCFileGetSection", row.nth);
		EXPECT_EQ(Apply(kAllSections), -1);
		EXPECT_EQ(journal.Lines(), LinesOf({"utils.cpp Failed to get section [" + row.name + "] from path [" +
		                                    path + "]. " + kFault},
		                                   row.section, kFault));
	}
}

} // namespace
