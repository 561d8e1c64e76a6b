// The profiles that ship, applied to machines of many kinds.

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/machine.h"

#include <vunkcore/vunkcore.h>
#include <zevotuned/zevotuned.h>

namespace fs = std::filesystem;

namespace {

const std::set<std::string> kProfiles = {"performance_throughput", "performance_latency"};

using Keys = std::map<std::string, std::set<std::string>>; // by section

Keys KeysOf(const std::string &path)
{
	Keys keys;
	VUNKSZLIST *sections = VUNKCSzListAlloc(1024);
	EXPECT_GE(VUNKCFileEnumSection(path.c_str(), &sections), 0);
	for (int i = 0; i < sections->nItem; ++i) {
		const std::string section = VUNKCSzListGet(sections, i);
		VUNKSZHASH *values = VUNKCSzHashAlloc(1024);
		VUNKSZLIST *names = VUNKCSzListAlloc(1024);
		EXPECT_GE(VUNKCFileGetSection(path.c_str(), section.c_str(), &values), 0);
		EXPECT_GE(VUNKCSzHashEnumKey(values, &names), 0);
		for (int k = 0; k < names->nItem; ++k)
			keys[section].insert(VUNKCSzListGet(names, k));
		VUNKCSzListFree(names);
		VUNKCSzHashFree(values);
	}
	VUNKCSzListFree(sections);
	return keys;
}

class ShippedProfilesTest : public kit::LabTest, public testing::WithParamInterface<std::string> {
protected:
	ShippedProfilesTest()
	{
		fs::create_directories("/usr/zevo/share");
		fs::copy(std::string(SHIPPED_PROFILES) + "/" + GetParam(), "/usr/zevo/share/zevotuned",
		         fs::copy_options::recursive);
	}

	static void ApplyAll()
	{
		for (const std::string &profile : kProfiles) {
			const kit::Programs programs;
			const kit::Journal journal;
			EXPECT_EQ(TuneApplyProfile(profile.c_str()), 0) << profile;
			EXPECT_EQ(journal.Lines(), std::vector<std::string>()) << profile;
			EXPECT_FALSE(programs.Lines().empty());
		}
	}
};

INSTANTIATE_TEST_SUITE_P(Sets, ShippedProfilesTest, testing::Values("stock", "appliance"),
                         [](const auto &set) { return set.param; });

TEST_P(ShippedProfilesTest, WhatOneProfileChangesEveryOtherChangesOrTheBaselineReturnsToItsValue)
{
	const Keys baseline = KeysOf(kit::kShippedGlobalDir + "/10-storage-baseline");
	Keys all;
	for (const std::string &profile : kProfiles)
		for (const auto &[section, keys] : KeysOf(kit::kShippedDir + "/" + profile))
			all[section].insert(keys.begin(), keys.end());
	all.erase("main");
	ASSERT_FALSE(all.empty());
	for (const std::string &profile : kProfiles) {
		Keys given = KeysOf(kit::kShippedDir + "/" + profile);
		for (const auto &[section, keys] : baseline)
			given[section].insert(keys.begin(), keys.end());
		for (const auto &[section, keys] : all)
			for (const std::string &key : keys)
				EXPECT_TRUE(given[section].contains(key)) << profile << " [" << section << "] " << key;
	}
}

TEST_P(ShippedProfilesTest, ApplyWhereThereIsNoDisk)
{
	const kit::Machine machine;
	ApplyAll();
}

TEST_P(ShippedProfilesTest, ApplyWhereThereIsNoArrayNoSSDAndNoBtrfs)
{
	kit::Machine machine;
	machine.Disk("sda", {.rotating = true});
	machine.Partition("sda", 1);
	machine.Mount("/dev/sda1", "/", "ext4");
	ApplyAll();
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/scheduler"), "[none] mq-deadline\n");
}

class StockProfilesTest : public ShippedProfilesTest {};

INSTANTIATE_TEST_SUITE_P(Sets, StockProfilesTest, testing::Values("stock"), [](const auto &set) { return set.param; });

TEST_P(StockProfilesTest, TuneTheMembersOfEveryArrayAndTheSchedulerOfEverySSD)
{
	kit::Machine machine;
	machine.Disk("sda", {.rotating = true,
	                     .schedulers = "none mq-deadline [bfq]",
	                     .tunables = {{"slice_idle", "8"}, {"low_latency", "1"}, {"strict_guarantees", "0"}}});
	machine.Disk("sdb", {.rotating = true, .schedulers = "none [mq-deadline]", .tunables = {{"fifo_batch", "16"}}});
	machine.Disk("sdc", {.schedulers = "[none] mq-deadline"});
	machine.Md("md0", "raid1", {"sda", "sdb"});
	const kit::Programs programs;
	ASSERT_EQ(TuneApplyProfile("performance_throughput"), 0);
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/iosched/slice_idle").substr(0, 1), "0");
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/iosched/low_latency").substr(0, 1), "0");
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/iosched/strict_guarantees"), "0\n");
	EXPECT_EQ(kit::ReadFile("/sys/block/sdb/queue/iosched/fifo_batch").substr(0, 2), "32");

	ASSERT_EQ(TuneApplyProfile("performance_latency"), 0);
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/iosched/low_latency").substr(0, 1), "1");
	EXPECT_EQ(kit::ReadFile("/sys/block/sdb/queue/iosched/fifo_batch").substr(0, 1), "4");
	EXPECT_TRUE(kit::ReadFile("/sys/block/sdc/queue/scheduler").starts_with("mq-deadline"));
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/scheduler"), "none mq-deadline [bfq]\n");
}

} // namespace
