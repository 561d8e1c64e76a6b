// What a plan says is what an application then writes.

#include "application_test.h"

#include "kit/journal.h"

#include "plan_output.h"
#include "plan_recorder.h"
#include "scheduler_tunables.h"
#include "verification.h"

#include <zevotuned/apply.h>

#include <algorithm>
#include <memory>

#include <sys/sysinfo.h>

namespace {

constexpr unsigned long kGiB = 1UL << 30;

// The plan's writes as an application shows them.
Lines LinesOf(const Plan &plan)
{
	Lines lines;
	for (const PlaceOfWrite &place : WritesOf(plan)) {
		const PlannedWrite &write = *place.write;
		if (IsSysctlPath(write.path))
			lines.push_back("/sbin/sysctl -we " + write.target + "=" + write.value);
		else if (write.known)
			lines.push_back(std::filesystem::canonical(write.path).string() + ": " + write.value);
	}
	return lines;
}

std::vector<std::string> MachineNames()
{
	std::vector<std::string> names = {"storage_box", "no_disk"};
	for (const std::string &name : kit::Machine::Recordings())
		names.push_back(name);
	return names;
}

struct Case {
	std::string set;
	std::string profile;
	std::string machine;
	unsigned long memory;
};

void PrintTo(const Case &one, std::ostream *out)
{
	*out << one.set << ' ' << one.profile << " on " << one.machine << " with " << one.memory / kGiB << " GiB";
}

std::vector<Case> Cases()
{
	std::vector<Case> cases;
	for (const char *set : {"stock", "appliance"})
		for (const char *profile : {"performance_throughput", "performance_latency"})
			for (const std::string &machine : MachineNames())
				for (const unsigned long memory : {4 * kGiB, 64 * kGiB})
					cases.push_back({set, profile, machine, memory});
	return cases;
}

class ShippedPlan : public kit::LabTest, public testing::WithParamInterface<Case> {
protected:
	ShippedPlan() : memory(GetParam().memory)
	{
		InstallShipped(GetParam().set);
		if (GetParam().machine == "storage_box")
			box.emplace();
		else if (GetParam().machine == "no_disk")
			machine = std::make_unique<kit::Machine>();
		else
			machine.reset(new kit::Machine(kit::Machine::Recorded(GetParam().machine)));
	}

	std::optional<StorageBox> box;
	std::unique_ptr<kit::Machine> machine;
	kit::Memory memory;
	kit::Journal journal;
};

TEST_P(ShippedPlan, WritesNothingAndTellsWhatAnApplicationThenWrites)
{
	const std::string &profile = GetParam().profile;
	kit::KernelReactions kernel;
	const Files before = KernelFiles();
	const Plan plan = MakePlan(profile);
	EXPECT_EQ(kernel.Lines(), Lines());
	EXPECT_EQ(journal.Lines(), Lines());
	EXPECT_EQ(KernelFiles(), before);

	EXPECT_EQ(TuneApplyProfile(profile.c_str()), plan.failure.empty() ? 0 : -1) << plan.failure;
	EXPECT_EQ(kernel.Lines(), LinesOf(plan));
	EXPECT_FALSE(kernel.Lines().empty());
}

TEST_P(ShippedPlan, HoldsAfterItsApplication)
{
	const std::string &profile = GetParam().profile;
	kit::KernelReactions kernel;
	const Plan plan = MakePlan(profile);
	EXPECT_FALSE(Holds(Verify(plan, nullptr)));
	// One that fails half-way leaves the values that its plan has.
	ASSERT_EQ(TuneApplyProfile(profile.c_str()), plan.failure.empty() ? 0 : -1);
	const Plan after = MakePlan(profile);
	EXPECT_TRUE(Holds(Verify(after, nullptr))) << VerificationText(after, Verify(after, nullptr), {});
}

INSTANTIATE_TEST_SUITE_P(Each, ShippedPlan, testing::ValuesIn(Cases()), [](const auto &one) {
	const Case &values = one.param;
	std::string name = values.set + '_' + values.profile + "_on_" + values.machine + "_with_" +
	                   std::to_string(values.memory / kGiB) + "_GiB";
	std::replace(name.begin(), name.end(), '-', '_');
	return name;
});

// A plan foresees the tunables of schedulers that no disk has yet by this table.
TEST(SchedulerTunables, AreThoseOfTheRecordedKernel)
{
	kit::RequireLab();
	int compared = 0;
	for (const std::string &name : kit::Machine::Recordings()) {
		const kit::Machine machine = kit::Machine::Recorded(name);
		for (const auto &disk : std::filesystem::directory_iterator("/sys/block")) {
			const std::filesystem::path folder = disk.path() / "queue/iosched";
			const auto scheduler = ReadKernelValue(disk.path() / "queue/scheduler").text;
			if (!scheduler || !std::filesystem::exists(folder))
				continue;
			EXPECT_EQ(kit::Names(folder), TunablesOf(*scheduler)) << name << ' ' << disk.path();
			++compared;
		}
	}
	EXPECT_GT(compared, 20);
}

class PlanTest : public kit::LabTest {
protected:
	static Plan PlanOf(const std::string &text)
	{
		kit::Install(kit::kLocalDir, "x", "[main]\nname = x\n" + text);
		return MakePlan("x");
	}

	static const PlannedKey &OnlyKey(const Plan &plan)
	{
		EXPECT_EQ(plan.sections.back().keys.size(), 1U);
		return plan.sections.back().keys.back();
	}

	StorageBox box;
};

TEST_F(PlanTest, TellsTheLineThatCountsAndTheValueNow)
{
	const std::string now = kit::Sysctl("vm.swappiness");
	const Plan plan = PlanOf("[sysctl]\nvm.swappiness = 1\n[other]\n[sysctl]\nvm.swappiness = 2\n");
	ASSERT_EQ(plan.sections.size(), 4U);
	EXPECT_EQ(plan.sections[0].section, "main");
	EXPECT_EQ(plan.sections[1].line, 3);
	const PlannedKey &key = plan.sections[1].keys.at(0);
	EXPECT_EQ(key.line, 7);
	EXPECT_EQ(key.value, "2");
	EXPECT_EQ(key.writes.at(0).target, "vm.swappiness");
	EXPECT_EQ(key.writes.at(0).path, "/proc/sys/vm/swappiness");
	EXPECT_EQ(key.writes.at(0).now.text, now);
	EXPECT_TRUE(key.writes.at(0).overwrittenLater); // the section is applied twice
	EXPECT_EQ(plan.sections[2].passedOver.at(0).what, "other");
	EXPECT_EQ(plan.sections[2].passedOver.at(0).why, "no section of this name is known");
	EXPECT_FALSE(plan.sections[3].keys.at(0).writes.at(0).overwrittenLater);
}

TEST_F(PlanTest, TellsOfParametersThatTheKernelDoesNotHave)
{
	const Plan plan = PlanOf("[sysctl]\nvm.no_such = 1\n");
	EXPECT_FALSE(OnlyKey(plan).writes.at(0).known);
	EXPECT_EQ(OnlyKey(plan).writes.at(0).now.why, "this kernel does not have it");
	EXPECT_EQ(plan.failure, "");
}

TEST_F(PlanTest, TellsHowARatioBecomesBytes)
{
	const kit::Memory memory(16 * kGiB);
	const Plan plan = PlanOf("vm_memory_max = 8589934592\n[sysctl]\nvm.dirty_ratio = 10\n");
	const PlannedWrite &write = OnlyKey(plan).writes.at(0);
	EXPECT_EQ(write.target, "vm.dirty_bytes");
	EXPECT_EQ(write.value, "858993459");
	EXPECT_EQ(write.note, "10% of vm_memory_max (8 GiB), as there are 16 GiB of memory");
}

TEST_F(PlanTest, TellsThatBytesAreClearedByALaterRatio)
{
	const Plan plan = PlanOf("[sysctl]\nvm.dirty_bytes = 100000000\nvm.dirty_ratio = 10\n");
	const auto writes = WritesOf(plan);
	EXPECT_TRUE(writes.at(0).write->overwrittenLater);
	EXPECT_FALSE(writes.at(1).write->overwrittenLater);
}

TEST_F(PlanTest, TellsWhichDevicesAreLeftAloneAndWhy)
{
	const Plan plan =
		PlanOf("[disk]\nssd_scheduler = kyber\nother = 1\n[raid_cfq_1]\nslice_idle = 0\nread_lat_nsec = 5\n"
	               "[volume]\nother = 1\nzevo_writeback_thread_max = auto\n");
	const PlannedSection &disk = plan.sections.at(1);
	std::vector<std::string> texts;
	for (const PlannedSection &section : plan.sections)
		for (const PlannedKey &key : section.keys) {
			for (const PlannedWrite &write : key.writes)
				texts.push_back(key.key + " " + write.path + "=" + write.value);
			for (const PassedOver &one : key.passedOver)
				texts.push_back(key.key + " not " + one.what + ": " + one.why);
		}
	EXPECT_EQ(disk.keys.size(), 2U);
	const std::string limit = "/zevo_writeback_thread_max=";
	std::string threads = std::to_string((get_nprocs() + 7) / 8);
	EXPECT_EQ(texts, (Lines{
				 "ssd_scheduler /sys/block/sda/queue/scheduler=kyber",
				 "ssd_scheduler /sys/block/sdb/queue/scheduler=kyber",
				 "ssd_scheduler /sys/block/sdc/queue/scheduler=kyber",
				 "ssd_scheduler not /dev/sdd: it is no SSD",
				 "ssd_scheduler not /dev/sde: it is no SSD",
				 "ssd_scheduler not /dev/sdf: it is no SSD",
				 "ssd_scheduler not /dev/sdg: it is no SSD",
				 "other not other: [disk] knows no such key",
				 "slice_idle not /dev/sda: its disk's scheduler has no such tunable",
				 "slice_idle not /dev/sdb: its disk's scheduler has no such tunable",
				 "slice_idle not /dev/md1: its level is none of this section's",
				 "read_lat_nsec /sys/block/sda/queue/iosched/read_lat_nsec=5",
				 "read_lat_nsec /sys/block/sdb/queue/iosched/read_lat_nsec=5",
				 "read_lat_nsec not /dev/md1: its level is none of this section's",
				 "other not other: [volume] knows no such key",
				 "zevo_writeback_thread_max /sys/fs/btrfs/" + std::string(StorageBox::kOnSsds) + limit +
					 threads,
				 "zevo_writeback_thread_max not /run/volume2: it has a rotating disk",
			 }));
}

TEST_F(PlanTest, DoesNotForetellTheTunablesOfASchedulerThatItDoesNotKnow)
{
	kit::WriteFile("/sys/block/sda/queue/scheduler", "none [bfq] novel\n");
	const Plan plan = PlanOf("[disk]\nssd_scheduler = novel\n[raid_cfq_1]\nslice_idle = 0\n");
	const PlannedKey &key = OnlyKey(plan);
	ASSERT_EQ(key.writes.size(), 1U);
	EXPECT_EQ(key.writes.at(0).path, "/sys/block/sdb/queue/iosched/slice_idle");
	ASSERT_FALSE(key.passedOver.empty());
	EXPECT_EQ(key.passedOver.at(0).why, "its disk gets novel, whose tunables are only known then");
}

TEST_F(PlanTest, EndsWhereTheApplicationWould)
{
	std::filesystem::remove("/sys/fs/btrfs/" + std::string(StorageBox::kOnSsds) + "/zevo_writeback_thread_max");
	const Plan plan = PlanOf("[volume]\nzevo_writeback_thread_max = 1\n[sysctl]\nvm.swappiness = 1\n");
	EXPECT_EQ(plan.failure, "this kernel has no /sys/fs/btrfs/" + std::string(StorageBox::kOnSsds) +
	                                "/zevo_writeback_thread_max");
	EXPECT_EQ(plan.sections.back().section, "volume");
}

TEST_F(PlanTest, EndsAtASectionForArraysOnAModelThatIsToHaveThemAndHasNone)
{
	for (const char *name : {"md0", "md1"})
		box.machine.Remove(name);
	const std::string sections = "[raid_cfq_1]\nslice_idle = 0\n[sysctl]\nvm.swappiness = 1\n";
	EXPECT_EQ(PlanOf(sections).failure, "");
	kit::WriteFile("/usr/zevo/etc/model.conf", "support_raid = yes\n");
	const Plan plan = PlanOf(sections);
	EXPECT_EQ(
		plan.failure,
		"there is no RAID array, although /usr/zevo/etc/model.conf says \"support_raid = yes\"; assemble one, "
		"or correct that file");
	EXPECT_EQ(plan.sections.back().section, "raid_cfq_1");
}

TEST_F(PlanTest, ShowsInheritedAndGlobalProfilesWhereTheyAreApplied)
{
	kit::Install(kit::kLocalGlobalDir, "g", "[main]\nname = g\n[sysctl]\nvm.swappiness = 1\n");
	kit::Install(kit::kLocalDir, "base", "[main]\nname = base\n[sysctl]\nvm.swappiness = 2\n");
	const Plan plan = PlanOf("inherit = base\n[sysctl]\nvm.swappiness = 3\n");
	std::vector<std::pair<ProfileRole, std::string>> order;
	for (const PlannedSection &section : plan.sections)
		if (section.section == "sysctl")
			order.emplace_back(section.role, section.profile);
	EXPECT_EQ(order, (std::vector<std::pair<ProfileRole, std::string>>{{ProfileRole::kGlobal, "g"},
	                                                                   {ProfileRole::kGlobal, "g"},
	                                                                   {ProfileRole::kInherited, "base"},
	                                                                   {ProfileRole::kSelected, "x"}}));
	EXPECT_EQ(PlanText(plan, {}), "LINE    TARGET         NOW  TO COME  NOTE\n"
	                              "global profile \"g\", /usr/local/share/zevotuned/global/g\n"
	                              " [sysctl]\n"
	                              "4       vm.swappiness  60   1        overwritten below\n"
	                              "profile \"x\", /usr/local/share/zevotuned/profiles/x\n"
	                              "global profile \"g\", /usr/local/share/zevotuned/global/g\n"
	                              " [sysctl]\n"
	                              "4       vm.swappiness  60   1        overwritten below\n"
	                              "inherited profile \"base\", /usr/local/share/zevotuned/profiles/base\n"
	                              " [sysctl]\n"
	                              "4       vm.swappiness  60   2        overwritten below\n"
	                              "profile \"x\", /usr/local/share/zevotuned/profiles/x\n"
	                              " [sysctl]\n"
	                              "5       vm.swappiness  60   3\n"
	                              "1 value would change, 3 would be overwritten on the way\n");
}

} // namespace
