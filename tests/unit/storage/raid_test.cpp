#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <cerrno>
#include <filesystem>

using namespace answers;

namespace fs = std::filesystem;

namespace {

class Arrays : public StorageTest {
protected:
	Arrays()
	{
		for (const char *disk : {"sda", "sdb", "sdc", "sdd"}) {
			machine.Disk(disk);
			machine.Partition(disk, 5);
		}
	}

	static void SetAttribute(const std::string &array, const std::string &attribute, const std::string &text)
	{
		kit::WriteFile("/sys/block/" + array + "/md/" + attribute, text);
	}
};

} // namespace

TEST_F(Arrays, AreNoneOnAMachineWithoutAny)
{
	EXPECT_EQ(ArrayLines(), Strings());
	RAIDListFree(nullptr);
}

TEST_F(Arrays, HaveAFlagForEachLevel)
{
	machine.Md("md0", "raid0", {"sda5"});
	machine.Md("md1", "raid1", {"sda5"});
	machine.Md("md2", "linear", {"sda5"});
	machine.Md("md3", "raid10", {"sda5"});
	machine.Md("md4", "raid4", {"sda5"});
	machine.Md("md5", "raid5", {"sda5"});
	machine.Md("md6", "raid6", {"sda5"});
	machine.Md("md7", "faulty", {"sda5"});
	machine.Md("md8", "container", {"sda5"});
	machine.Md("md9", "raid55", {"sda5"});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid0 0x01 1: /dev/sda5", "/dev/md1 raid1 0x02 1: /dev/sda5",
	                                 "/dev/md2 linear 0x20 1: /dev/sda5", "/dev/md3 raid10 0x10 1: /dev/sda5",
	                                 "/dev/md4 raid4 0x40 1: /dev/sda5", "/dev/md5 raid5 0x04 1: /dev/sda5",
	                                 "/dev/md6 raid6 0x08 1: /dev/sda5", "/dev/md7 faulty 0x00 1: /dev/sda5",
	                                 "/dev/md8 container 0x00 1: /dev/sda5", "/dev/md9 raid55 0x00 1: /dev/sda5"}));
}

TEST_F(Arrays, HaveLevelsWithParityOrWithout)
{
	EXPECT_EQ(RAID_LEVELS_WITHOUT_PARITY, 0x33);
	EXPECT_EQ(RAID_LEVELS_WITH_PARITY, 0x4C);
	EXPECT_EQ(RAID_LEVELS_WITHOUT_PARITY & RAID_LEVELS_WITH_PARITY, 0);
}

TEST_F(Arrays, AreInByteOrderOfTheirNamesWithTheirMembersInByteOrder)
{
	machine.Md("md2", "raid1", {"sdc5", "sdb5"});
	machine.Md("md_home", "raid0", {"sdd", "sda5"});
	machine.Md("md127", "raid5", {"sdc", "sdb", "sda"});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md127 raid5 0x04 3: /dev/sda /dev/sdb /dev/sdc",
	                                 "/dev/md2 raid1 0x02 2: /dev/sdb5 /dev/sdc5",
	                                 "/dev/md_home raid0 0x01 2: /dev/sda5 /dev/sdd"}));
}

TEST_F(Arrays, ThatAreDegradedCountTheMissingMembers)
{
	machine.Md("md0", "raid6", {"sda5", "sdb5"}, {.raidDisks = 4});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid6 0x08 4: /dev/sda5 /dev/sdb5"}));
}

TEST_F(Arrays, ListSparesAndDoNotCountThem)
{
	machine.Md("md0", "raid1", {"sdb5", "sdc5", "sda5"}, {.raidDisks = 2});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid1 0x02 2: /dev/sda5 /dev/sdb5 /dev/sdc5"}));
}

TEST_F(Arrays, InEveryStateOfActivityCount)
{
	for (const char *state :
	     {"clean", "active", "active-idle", "readonly", "read-auto", "write-pending", "broken"}) {
		const std::string name = std::string("md_") + state;
		machine.Md(name, "raid1", {"sda5", "sdb5"}, {.state = state});
		EXPECT_EQ(ArrayLines(), (Strings{"/dev/" + name + " raid1 0x02 2: /dev/sda5 /dev/sdb5"}));
		machine.Remove(name);
	}
}

TEST_F(Arrays, ThatAreInactiveAreMadeForNoMembers)
{
	machine.Md("md0", "raid5", {"sda5", "sdb5"}, {.state = "inactive", .raidDisks = 3});
	machine.Md("md1", "", {"sdc5"}, {.state = "inactive", .raidDisks = 0});
	SetAttribute("md1", "level", ""); // the kernel says nothing, not even a newline
	EXPECT_EQ(ArrayLines(),
	          (Strings{"/dev/md0 raid5 0x04 0: /dev/sda5 /dev/sdb5", "/dev/md1 - 0x00 0: /dev/sdc5"}));
}

TEST_F(Arrays, WithoutAnyMemberAreListed)
{
	machine.Md("md0", "raid1", {}, {.state = "inactive"});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid1 0x02 0:"}));
}

TEST_F(Arrays, AreNotWhatIsLeftOfAStoppedOne)
{
	machine.Md("md0", "", {}, {.state = "clear"});
	machine.Md("md1", "raid1", {"sda5"});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md1 raid1 0x02 1: /dev/sda5"}));
}

TEST_F(Arrays, AreNotDevicesThatAreNotOfMd)
{
	machine.Virtual("md9");   // without a folder of md
	machine.Virtual("mdev0"); // of somebody else
	machine.Dm("dm-0", "md0", "", {"sda5"}, {});
	machine.Partition("md9", 1);
	EXPECT_EQ(ArrayLines(), Strings());
}

TEST_F(Arrays, ThatAreStoppedMeanwhileAreLeftOut)
{
	machine.Md("md0", "raid1", {"sda5"});
	machine.Md("md1", "raid1", {"sdb5"});
	machine.Md("md2", "raid1", {"sdc5"});
	machine.Md("md3", "raid1", {"sdd5"});
	// At several points of its going.
	fs::remove_all(fs::canonical("/sys/block/md0"));
	fs::remove("/sys/block/md1/md/level");
	fs::remove("/sys/block/md2/md/raid_disks");
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md3 raid1 0x02 1: /dev/sdd5"}));
}

TEST_F(Arrays, OfWhichAMemberVanishesListTheOthers)
{
	machine.Md("md0", "raid1", {"sda5", "sdb5"});
	fs::remove("/sys/block/md0/slaves/sda5");
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid1 0x02 2: /dev/sdb5"}));
}

TEST_F(Arrays, WhileTheyAreReshapedAreMadeForTheNewNumber)
{
	machine.Md("md0", "raid5", {"sda5", "sdb5", "sdc5", "sdd5"});
	SetAttribute("md0", "raid_disks", "4 (3)\n");
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid5 0x04 4: /dev/sda5 /dev/sdb5 /dev/sdc5 /dev/sdd5"}));
}

TEST_F(Arrays, OnDevicesWithSlashesInTheirNamesKeepTheKernelsNames)
{
	machine.Disk("cciss!c0d0", {.bus = kit::Bus::Sas});
	machine.Partition("cciss!c0d0", 5);
	machine.Md("md0", "raid1", {"sda5", "cciss!c0d0p5"});
	EXPECT_EQ(ArrayLines(), (Strings{"/dev/md0 raid1 0x02 2: /dev/cciss!c0d0p5 /dev/sda5"}));
}

TEST_F(Arrays, OfWhichTheKernelTalksNonsenseFail)
{
	machine.Md("md0", "raid1", {"sda5"});
	machine.Md("md1", "raid1", {"sdb5"});
	for (const char *nonsense : {"", "\n", "many\n", "-1\n", "99999999999999999999\n"}) {
		SetAttribute("md1", "raid_disks", nonsense);
		EXPECT_EQ(ArrayLines(), (Strings{"failed 0x2200 /sys/class/block/md1/md/raid_disks"})) << nonsense;
	}
}

TEST_F(Arrays, FailWithoutSysfs)
{
	const kit::MountPoint empty("none", "/sys", "tmpfs");
	EXPECT_EQ(ArrayLines(), (Strings{"failed 0x0900 /sys/block"}));
}

TEST_F(Arrays, FailWhereAnAttributeCannotBeRead)
{
	machine.Md("md0", "raid1", {"sda5"});
	{
		const kit::PathFault fault("open", "/sys/class/block/md0/md/array_state", EMFILE);
		EXPECT_EQ(ArrayLines(), (Strings{"failed 0x0900 /sys/class/block/md0/md/array_state"}));
	}
	fs::remove("/sys/block/md0/md/array_state");
	fs::create_directory("/sys/block/md0/md/array_state");
	EXPECT_EQ(ArrayLines(), (Strings{"failed 0x0A00 /sys/class/block/md0/md/array_state"}));
}

TEST_F(Arrays, RefuseANullArgument)
{
	SetOldCode();
	EXPECT_EQ(RAIDInfoEnum(nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
}
