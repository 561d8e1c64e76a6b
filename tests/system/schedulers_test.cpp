// [disk] and [raid_cfq_...] on I/O schedulers of the real kernel: the disks of a machine that is made up, with the queues of
// real loop devices.

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/loop_device.h"
#include "kit/machine.h"

#include <zevotuned/zevotuned.h>

#include <memory>

#include <gtest/gtest.h>
#include <sys/mount.h>

namespace {

class SchedulersTest : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		machine = std::make_unique<kit::Machine>();
		for (const char *name : {"sda", "sdb"}) {
			machine->Disk(name);
			machine->Partition(name, 1);
			queues.push_back(std::make_unique<Queue>(name));
		}
		machine->Md("md0", "raid1", {"sda1", "sdb1"});
	}

	void TearDown() override
	{
		queues.clear();
		machine.reset();
		kit::LabTest::TearDown();
	}

	/// The queue of a disk of the machine, which is a real one.
	struct Queue {
		explicit Queue(const std::string &disk)
			: device(1 << 20), seenAs(device.Queue(), "/sys/block/" + disk + "/queue", "", MS_BIND)
		{
			kit::WriteFile(device.Queue() + "/rotational", "0");
		}

		std::string Offered() const { return kit::ReadFile(device.Queue() + "/scheduler"); }
		bool IsActive(const std::string &name) const
		{
			return Offered().find("[" + name + "]") != std::string::npos;
		}
		int Tunable(const std::string &name) const
		{
			return std::stoi(kit::ReadFile(device.Queue() + "/iosched/" + name));
		}
		void Select(const std::string &name) const { kit::WriteFile(device.Queue() + "/scheduler", name); }

		const kit::LoopDevice device;
		const kit::MountPoint seenAs;
	};

	static void Apply(const std::string &sections)
	{
		kit::Install(kit::kShippedDir, "s", "[main]\nname=s\n" + sections);
		const kit::Journal journal;
		EXPECT_EQ(TuneApplyProfile("s"), 0);
		EXPECT_EQ(journal.Lines(), std::vector<std::string>());
	}

	std::unique_ptr<kit::Machine> machine;
	std::vector<std::unique_ptr<Queue>> queues; // their mounts go before the machine
};

TEST_F(SchedulersTest, EverySchedulerThatTheKernelOffersCanBeSelected)
{
	for (const std::string name : {"bfq", "kyber", "mq-deadline", "none", "mq-deadline"}) {
		ASSERT_NE(queues[0]->Offered().find(name), std::string::npos) << queues[0]->Offered();
		Apply("[disk]\nssd_scheduler=" + name + "\n");
		EXPECT_TRUE(queues[0]->IsActive(name)) << queues[0]->Offered();
		EXPECT_TRUE(queues[1]->IsActive(name)) << queues[1]->Offered();
	}
}

TEST_F(SchedulersTest, ASchedulerThatTheKernelDoesNotOfferIsNotWritten)
{
	queues[0]->Select("kyber");
	for (const std::string name : {"cfq", "[kyber]", "KYBER", "mq", "none mq-deadline", ""})
		Apply("[disk]\nssd_scheduler=" + name + "\n");
	EXPECT_TRUE(queues[0]->IsActive("kyber"));
}

TEST_F(SchedulersTest, ARotatingDiskKeepsItsScheduler)
{
	queues[0]->Select("none");
	queues[1]->Select("none");
	kit::WriteFile(queues[0]->device.Queue() + "/rotational", "1");
	Apply("[disk]\nssd_scheduler=bfq\n");
	EXPECT_TRUE(queues[0]->IsActive("none"));
	EXPECT_TRUE(queues[1]->IsActive("bfq"));
}

TEST_F(SchedulersTest, OneSectionServesWhicheverSchedulerIsActive)
{
	const std::string section = "[raid_cfq_1]\nslice_idle=3\nfifo_batch=7\nread_lat_nsec=1234567\n";
	queues[0]->Select("bfq");
	queues[1]->Select("mq-deadline");
	Apply(section);
	EXPECT_EQ(queues[0]->Tunable("slice_idle"), 3);
	EXPECT_EQ(queues[1]->Tunable("fifo_batch"), 7);

	queues[0]->Select("kyber");
	queues[1]->Select("none"); // which has no tunables
	Apply(section);
	EXPECT_EQ(queues[0]->Tunable("read_lat_nsec"), 1234567);
}

TEST_F(SchedulersTest, AValueThatTheSchedulerRefusesFailsTheApplication)
{
	queues[0]->Select("mq-deadline");
	queues[1]->Select("mq-deadline");
	kit::Install(kit::kShippedDir, "s", "[main]\nname=s\n[raid_cfq_1]\nfifo_batch=nonsense\n");
	const kit::Journal journal;
	EXPECT_EQ(TuneApplyProfile("s"), -1);
	const std::vector<std::string> lines = journal.Lines();
	ASSERT_FALSE(lines.empty());
	EXPECT_NE(lines[0].find("/sys/block/sda/queue/iosched/fifo_batch"), std::string::npos) << lines[0];
}

} // namespace
