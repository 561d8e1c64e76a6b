#include "application_test.h"

#include "plan_recorder.h"
#include "undo.h"
#include "verification.h"

#include <zevotuned/apply.h>
#include <zevotuned/system_access.h>

#include <algorithm>

namespace {

class UndoTest : public kit::LabTest {
protected:
	UndoTest() { InstallShipped("stock"); }

	static KeptValues Apply(const std::string &profile, int status = 0)
	{
		KeptValues kept = ValuesToKeep(MakePlan(profile), "before");
		EXPECT_EQ(TuneApplyProfile(profile.c_str()), status);
		ReadBack(kept, status == 0);
		return kept;
	}

	static bool RestoresAll(const KeptValues &kept)
	{
		const std::vector<RestoredValue> values = Restore(kept);
		return std::all_of(values.begin(), values.end(), IsRestored);
	}

	static void SetSliceIdle(const std::string &disk, const std::string &microseconds)
	{
		const std::string path = "/sys/block/" + disk + "/queue/iosched/slice_idle_us";
		TuneParameterWrite(path.c_str(), microseconds.c_str(), microseconds.size());
	}

	StorageBox box;
	kit::KernelReactions kernel;
};

TEST_F(UndoTest, RestoresSchedulersWithTheirTunablesAndRatios)
{
	SetSliceIdle("sda", "3000");
	const Files before = KernelFiles();
	const KeptValues kept = Apply("performance_latency");
	EXPECT_NE(KernelFiles(), before);
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/scheduler"), "none bfq [mq-deadline] deadline kyber\n");
	EXPECT_FALSE(std::filesystem::exists("/sys/block/sda/queue/iosched/slice_idle"));
	EXPECT_TRUE(RestoresAll(kept));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, RestoresWhatASchedulerAndATunableChangeAlong)
{
	kit::WriteFile("/sys/block/sda/queue/nr_requests", "64\n");
	SetSliceIdle("sdd", "0");
	kit::Install(kit::kLocalDir, "x",
	             "[main]\nname = x\n[disk]\nssd_scheduler = kyber\n[raid_cfq_5]\nstrict_guarantees = 1\n");
	const Files before = KernelFiles();
	const KeptValues kept = Apply("x");
	EXPECT_EQ(kit::ReadFile("/sys/block/sda/queue/nr_requests"), "256\n");
	EXPECT_EQ(kit::ReadFile("/sys/block/sdd/queue/iosched/slice_idle"), "8\n");
	// The others of that scheduler have not changed, and are none of undo's business.
	EXPECT_EQ(FindKept(kept, "/sys/block/sdd/queue/iosched/max_budget"), nullptr);
	EXPECT_TRUE(RestoresAll(kept));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, RestoresBytesThatARatioHasCleared)
{
	kit::WriteFile("/proc/sys/vm/dirty_bytes", "100000000\n");
	kit::WriteFile("/proc/sys/vm/dirty_ratio", "0\n");
	const Files before = KernelFiles();
	const kit::Memory memory(1UL << 30);
	const KeptValues kept = Apply("performance_throughput");
	EXPECT_EQ(kit::Sysctl("vm.dirty_bytes"), "0");
	EXPECT_EQ(kit::Sysctl("vm.dirty_ratio"), "30");
	EXPECT_TRUE(RestoresAll(kept));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, ATunableInTwoUnitsIsOneValue)
{
	using State = VerifiedValue::State;
	for (const char *before : {"0", "500", "8500"}) {
		for (const char *keys :
		     {"slice_idle = 2\nslice_idle_us = 700\n", "slice_idle_us = 700\nslice_idle = 2\n",
		      "slice_idle = 3\n", "slice_idle_us = 4000\n", "slice_idle = 008\n"}) {
			SCOPED_TRACE(std::string(before) + " us, " + keys);
			SetSliceIdle("sdd", before);
			kit::Install(kit::kLocalDir, "x", std::string("[main]\nname = x\n[raid_cfq_5]\n") + keys);
			const Files found = KernelFiles();
			const KeptValues kept = Apply("x");
			const Plan plan = MakePlan("x");
			for (const VerifiedValue &value : Verify(plan, &kept))
				EXPECT_EQ(value.state, State::kHolds) << value.place.write->target;
			EXPECT_TRUE(RestoresAll(kept));
			EXPECT_EQ(KernelFiles(), found);
		}
	}
}

TEST_F(UndoTest, WritesNothingThatIsAsBefore)
{
	const KeptValues kept = Apply("performance_latency");
	EXPECT_TRUE(RestoresAll(kept));
	kernel.Clear();
	EXPECT_TRUE(RestoresAll(kept));
	EXPECT_EQ(kernel.Lines(), Lines());
}

TEST_F(UndoTest, RestoresAnApplicationThatHasFailedHalfWay)
{
	kit::Install(kit::kLocalDir, "x",
	             "[main]\nname = x\n[sysctl]\nvm.swappiness = 1\n[disk]\nssd_scheduler = none\n"
	             "[volume]\nzevo_writeback_thread_max = 1\n");
	std::filesystem::remove("/sys/fs/btrfs/" + std::string(StorageBox::kOnSsds) + "/zevo_writeback_thread_max");
	const Files before = KernelFiles();
	const KeptValues kept = Apply("x", -1);
	EXPECT_NE(KernelFiles(), before);
	EXPECT_TRUE(RestoresAll(kept));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, RestoresWhateverPartOfTheApplicationWasMade)
{
	const Files before = KernelFiles();
	Apply("performance_latency");
	const auto all = static_cast<int>(kernel.Lines().size());
	ASSERT_GT(all, 10);
	// The nth program or write fails, and with a write all that comes after it.
	for (int n = 1; n <= all; ++n) {
		for (const char *function : {"VUNKCExec", "VUNKCWrite"}) {
			for (const auto &file : KernelFiles())
				if (!before.contains(file.first))
					std::filesystem::remove(file.first);
			for (const auto &[path, text] : before)
				kit::WriteFile(path, text);
			const KeptValues kept = ValuesToKeep(MakePlan("performance_latency"), "before");
			{
				const kit::Fault fault(function, n);
				TuneApplyProfile("performance_latency");
			}
			EXPECT_TRUE(RestoresAll(kept)) << function << ' ' << n;
			EXPECT_EQ(KernelFiles(), before) << function << ' ' << n;
		}
	}
}

TEST_F(UndoTest, SaysWhatItCouldNotRestore)
{
	const KeptValues kept = Apply("performance_latency");
	std::filesystem::remove("/proc/sys/vm/swappiness");
	const std::vector<RestoredValue> values = Restore(kept);
	for (const RestoredValue &value : values)
		EXPECT_EQ(IsRestored(value), value.kept->target != "vm.swappiness") << value.kept->target;
	EXPECT_NE(RestorationText(values, {}).find("\nvm.swappiness                                   -   "),
	          std::string::npos)
		<< RestorationText(values, {});
	EXPECT_NE(RestorationText(values, {}).find("not restored: this kernel does not have it\n"), std::string::npos);
}

TEST_F(UndoTest, AProfileThatIsAppliedAgainKeepsWhatWasThereBeforeTheFirstTime)
{
	const Files before = KernelFiles();
	const KeptValues first = Apply("performance_latency");
	KeptValues second = Apply("performance_latency");
	KeepOlderValues(second, first);
	EXPECT_TRUE(RestoresAll(second));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, AnotherProfileKeepsWhatTheOneBeforeItHasSet)
{
	const KeptValues first = Apply("performance_latency");
	const Files before = KernelFiles();
	KeptValues second = Apply("performance_throughput");
	KeepOlderValues(second, first);
	EXPECT_TRUE(RestoresAll(second));
	EXPECT_EQ(KernelFiles(), before);
}

TEST_F(UndoTest, WhatSomebodyElseHasChangedBetweenTwoApplicationsIsWhatIsKept)
{
	const KeptValues first = Apply("performance_latency");
	kit::WriteFile("/proc/sys/vm/swappiness", "77\n");
	KeptValues second = ValuesToKeep(MakePlan("performance_latency"), "before");
	KeepOlderValues(second, first);
	EXPECT_EQ(FindKept(second, "/proc/sys/vm/swappiness")->before, "77");
	EXPECT_EQ(FindKept(second, "/proc/sys/vm/vfs_cache_pressure")->before,
	          FindKept(first, "/proc/sys/vm/vfs_cache_pressure")->before);
}

TEST_F(UndoTest, VerificationTellsWhatWasChangedSinceFromWhatWasRefused)
{
	KeptValues kept = ValuesToKeep(MakePlan("performance_latency"), "before");
	{
		const kit::Fault refused("VUNKCExec", 1); // vm.swappiness of the global profile
		EXPECT_EQ(TuneApplyProfile("performance_latency"), 0);
		kit::WriteFile("/proc/sys/vm/swappiness", "60\n");
	}
	ReadBack(kept, true);
	kit::WriteFile("/proc/sys/vm/vfs_cache_pressure", "99\n");
	KeptValues endedEarly = kept;
	endedEarly.applied = false;
	using State = VerifiedValue::State;
	const Plan plan = MakePlan("performance_latency");
	for (const auto &[against, refused, changed] :
	     {std::tuple<const KeptValues *, State, State>(&kept, State::kRefused, State::kChanged),
	      {&endedEarly, State::kDiffers, State::kChanged}, // what did not even then may not have been reached
	      {nullptr, State::kDiffers, State::kDiffers}}) {
		const std::vector<VerifiedValue> values = Verify(plan, against);
		EXPECT_FALSE(Holds(values));
		for (const VerifiedValue &value : values) {
			const std::string &target = value.place.write->target;
			EXPECT_EQ(value.state, target == "vm.swappiness"           ? refused
			                       : target == "vm.vfs_cache_pressure" ? changed
			                                                           : State::kHolds)
				<< target;
		}
	}
}

TEST(KeptValuesFile, IsReadAsItWasWritten)
{
	const KeptValues kept = {"a \"profile\"",
	                         "before",
	                         {{"vm.swappiness", "/proc/sys/vm/swappiness", "60", "10", std::nullopt},
	                          {"/sys/x", "/sys/x", "1 2", std::nullopt, "3"}},
	                         true};
	EXPECT_EQ(KeptFromJson(ToJson(kept)), kept);
}

TEST(KeptValuesFile, ThatSaysAnythingElseIsRefused)
{
	const KeptValues kept = {
		"p", "before", {{"vm.swappiness", "/proc/sys/vm/swappiness", "60", "10", "10"}}, false};
	const Json::Value good = ToJson(kept);
	ASSERT_TRUE(KeptFromJson(good));
	for (const char *name : {"version", "profile", "selected_before", "applied", "values"}) {
		Json::Value bad = good;
		bad[name] = Json::Value(Json::objectValue);
		EXPECT_EQ(KeptFromJson(bad), std::nullopt) << name;
		bad.removeMember(name);
		EXPECT_EQ(KeptFromJson(bad), std::nullopt) << name;
	}
	for (const char *name : {"target", "path", "before", "wanted", "after"}) {
		Json::Value bad = good;
		bad["values"][0][name] = 1;
		EXPECT_EQ(KeptFromJson(bad), std::nullopt) << name;
	}
	for (const char *path : {"/etc/passwd", "/proc/sys/../../etc/passwd", "proc/sys/vm/swappiness", ""}) {
		Json::Value bad = good;
		bad["values"][0]["path"] = path;
		EXPECT_EQ(KeptFromJson(bad), std::nullopt) << path;
	}
	EXPECT_EQ(KeptFromJson(Json::Value("text")), std::nullopt);
	EXPECT_EQ(KeptFromJson(Json::Value()), std::nullopt);
}

} // namespace
