#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <cerrno>
#include <filesystem>

using namespace answers;

namespace fs = std::filesystem;

namespace {

struct Row {
	const char *device;
	const char *disk;
};

constexpr Row kNames[] = {
	{"sda5", "sda"},
	{"sda", "sda"},
	{"sdaa12", "sdaa"},
	{"sdp1", "sdp"},
	{"hda1", "hda"},
	{"vda1", "vda"},
	{"xvdb12", "xvdb"},
	{"nvme0n1p2", "nvme0n1"},
	{"nvme0n1", "nvme0n1"},
	{"nvme12n34p56", "nvme12n34"},
	{"mmcblk0p1", "mmcblk0"},
	{"mmcblk0", "mmcblk0"},
	{"md0p1", "md0"},
	{"md127", "md127"},
	{"md127p15", "md127"},
	{"dm-3", "dm-3"},
	{"loop7", "loop7"},
	{"loop7p1", "loop7"},
	{"zram0", "zram0"},
	{"ram15", "ram15"},
	{"sr0", "sr0"},
	{"nbd0p1", "nbd0"},
	{"nbd0", "nbd0"},
	{"bcache0", "bcache0"},
	{"bcache0p1", "bcache0"},
	{"cciss!c0d0p1", "cciss!c0d0"},
	{"cciss!c0d0", "cciss!c0d0"},
	{"cciss/c0d0p1", "cciss/c0d0"},
	{"cciss/c0d0", "cciss/c0d0"},
};

class Partitions : public StorageTest {
protected:
	/// The devices of the table, as partitions and disks of this machine.
	void MachineOfTheTable()
	{
		machine.Disk("sda");
		machine.Disk("sdaa");
		machine.Disk("sdp");
		machine.Disk("hda");
		machine.Disk("vda", {.bus = kit::Bus::Virtio});
		machine.Disk("xvdb", {.bus = kit::Bus::Xen});
		machine.Disk("nvme0n1", {.bus = kit::Bus::Nvme});
		machine.Disk("nvme12n34", {.bus = kit::Bus::Nvme});
		machine.Disk("mmcblk0", {.bus = kit::Bus::Emmc});
		machine.Disk("cciss!c0d0", {.bus = kit::Bus::Sas});
		machine.Disk("sr0", {.bus = kit::Bus::Optical});
		machine.Md("md0", "raid1", {"sdaa"});
		machine.Md("md127", "raid1", {"sdp"});
		machine.Dm("dm-3", "vg1-volume1", "", {"md0"}, {});
		machine.Bcache("bcache0", "hda", "");
		machine.Loop("loop7");
		for (const char *name : {"zram0", "ram15", "nbd0"})
			machine.Virtual(name);
		for (const auto &[disk, number] : {std::pair("sda", 5),
		                                   {"sdaa", 12},
		                                   {"sdp", 1},
		                                   {"hda", 1},
		                                   {"vda", 1},
		                                   {"xvdb", 12},
		                                   {"nvme0n1", 2},
		                                   {"nvme12n34", 56},
		                                   {"mmcblk0", 1},
		                                   {"md0", 1},
		                                   {"md127", 15},
		                                   {"loop7", 1},
		                                   {"nbd0", 1},
		                                   {"bcache0", 1},
		                                   {"cciss!c0d0", 1}})
			machine.Partition(disk, number);
	}

	static void ExpectNames()
	{
		for (const auto &[device, disk] : kNames) {
			EXPECT_EQ(WithoutPartition(device), disk);
			EXPECT_EQ(WithoutPartition(std::string("/dev/") + device), std::string("/dev/") + disk);
		}
	}
};

} // namespace

TEST_F(Partitions, ThatTheKernelDoesNotKnowAreToldByTheirNames)
{
	ExpectNames();
}

TEST_F(Partitions, ThatTheKernelKnowsAreToldByIt)
{
	MachineOfTheTable();
	ExpectNames();
}

TEST_F(Partitions, AreToldByTheirNamesWithoutSysfsToo)
{
	const kit::MountPoint empty("none", "/sys", "tmpfs");
	ExpectNames();
}

TEST_F(Partitions, AreWhatTheKernelSaysWhateverTheirNames)
{
	// A whole disk that is named like a partition, and a partition that is named like a disk.
	machine.Disk("sda1");
	machine.Disk("backup");
	machine.Partition("backup", 1);
	machine.Disk("vdb", {.bus = kit::Bus::Virtio});
	machine.Partition("sda1", 3);
	EXPECT_EQ(WithoutPartition("sda1"), "sda1");
	EXPECT_EQ(WithoutPartition("/dev/sda1p3"), "/dev/sda1");
	EXPECT_EQ(WithoutPartition("backup1"), "backup");
	EXPECT_EQ(WithoutPartition("/dev/backup1"), "/dev/backup");
	EXPECT_EQ(WithoutPartition("backup2"), "backup2"); // not known, and of no kind whose partitions are numbered so
}

TEST_F(Partitions, ThatVanishAreToldByTheirNames)
{
	machine.Disk("sda");
	machine.Partition("sda", 5);
	machine.Remove("sda");
	EXPECT_EQ(WithoutPartition("/dev/sda5"), "/dev/sda");
	machine.Disk("sdb");
	machine.Partition("sdb", 5);
	fs::remove_all(fs::canonical("/sys/block/sdb")); // the links are still there
	EXPECT_EQ(WithoutPartition("/dev/sdb"), "/dev/sdb");
}

TEST_F(Partitions, KeepNamesThatAreNoDevices)
{
	for (const char *name : {"", "/dev", "/dev/", "/", "5", "p1", "p", "sd", "sd5", "1p1x",
	                         "/dev/mapper/vg1-volume1", "/volume1", ".", ".."})
		EXPECT_EQ(WithoutPartition(name), name);
}

TEST_F(Partitions, AreCutToTheRoomThereIs)
{
	for (const bool isKnown : {false, true}) {
		if (isKnown)
			MachineOfTheTable();
		for (const auto &[size, cut] :
		     {std::pair(1, ""), {2, "/"}, {8, "/dev/sd"}, {9, "/dev/sda"}, {64, "/dev/sda"}})
			EXPECT_EQ(WithoutPartition("/dev/sda5", static_cast<size_t>(size)), cut) << size;
		EXPECT_EQ(WithoutPartition("nvme0n1p2", 2), "n");
	}
}

TEST_F(Partitions, RefuseArgumentsThatLeaveNothingToWrite)
{
	char out[8] = "before";
	SetOldCode();
	EXPECT_EQ(DiskPartitionNumRemove(nullptr, out, sizeof(out)), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	SetOldCode();
	EXPECT_EQ(DiskPartitionNumRemove("sda5", nullptr, sizeof(out)), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	SetOldCode();
	EXPECT_EQ(DiskPartitionNumRemove("sda5", out, 0), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_STREQ(out, "before");
}

TEST_F(Partitions, FailWhereTheKernelCannotBeAsked)
{
	machine.Disk("sda");
	machine.Partition("sda", 5);
	fs::remove("/sys/class/block/sda5/partition");
	fs::create_directory("/sys/class/block/sda5/partition");
	EXPECT_EQ(WithoutPartition("sda5"), "failed 0x0A00 /sys/class/block/sda5/partition");
}
