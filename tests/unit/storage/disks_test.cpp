#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <cerrno>
#include <filesystem>

using namespace answers;
using kit::Bus;

namespace fs = std::filesystem;

namespace {

constexpr unsigned kAll = 0x3F;

class Disks : public StorageTest {
protected:
	void OneOfEachBus()
	{
		machine.Disk("sda", {.bus = Bus::Sata});
		machine.Disk("sdb", {.bus = Bus::Sas});
		machine.Disk("sdc", {.bus = Bus::Usb});
		machine.Disk("nvme0n1", {.bus = Bus::Nvme});
		machine.Disk("vda", {.bus = Bus::Virtio});
		machine.Disk("xvda", {.bus = Bus::Xen});
		machine.Disk("mmcblk0", {.bus = Bus::Emmc});
		machine.Disk("mmcblk1", {.bus = Bus::Sd});
	}
};

} // namespace

TEST_F(Disks, AreNoneOnAMachineWithoutAny)
{
	EXPECT_EQ(DiskLines(kAll), Strings());
	DiskInfoEnumFree(nullptr);
}

TEST_F(Disks, HaveATypeByTheWayTheyAreAttached)
{
	OneOfEachBus();
	EXPECT_EQ(DiskLines(kAll), (Strings{"mmcblk0 /dev/mmcblk0 0x20", "mmcblk1 /dev/mmcblk1 0x10",
	                                    "nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01", "sdb /dev/sdb 0x02",
	                                    "sdc /dev/sdc 0x10", "vda /dev/vda 0x08", "xvda /dev/xvda 0x08"}));
}

TEST_F(Disks, AreFilteredByAnyMaskOfTypes)
{
	OneOfEachBus();
	EXPECT_EQ(DiskLines(DISK_TYPE_SATA), (Strings{"sda /dev/sda 0x01"}));
	EXPECT_EQ(DiskLines(DISK_TYPE_SAS), (Strings{"sdb /dev/sdb 0x02"}));
	EXPECT_EQ(DiskLines(DISK_TYPE_NVME), (Strings{"nvme0n1 /dev/nvme0n1 0x04"}));
	EXPECT_EQ(DiskLines(DISK_TYPE_VIRTUAL), (Strings{"vda /dev/vda 0x08", "xvda /dev/xvda 0x08"}));
	EXPECT_EQ(DiskLines(DISK_TYPE_EXTERNAL), (Strings{"mmcblk1 /dev/mmcblk1 0x10", "sdc /dev/sdc 0x10"}));
	EXPECT_EQ(DiskLines(DISK_TYPE_EMMC), (Strings{"mmcblk0 /dev/mmcblk0 0x20"}));
	EXPECT_EQ(DiskLines(0x2F),
	          (Strings{"mmcblk0 /dev/mmcblk0 0x20", "nvme0n1 /dev/nvme0n1 0x04", "sda /dev/sda 0x01",
	                   "sdb /dev/sdb 0x02", "vda /dev/vda 0x08", "xvda /dev/xvda 0x08"}));
	EXPECT_EQ(DiskLines(0), Strings());
	EXPECT_EQ(DiskLines(~kAll), Strings());
}

TEST_F(Disks, AreWholeOnes)
{
	OneOfEachBus();
	const Strings without = DiskLines(kAll);
	for (const char *disk : {"sda", "sdb", "sdc", "nvme0n1", "vda", "xvda", "mmcblk0", "mmcblk1"})
		machine.Partition(disk, 1);
	EXPECT_EQ(DiskLines(kAll), without);
}

TEST_F(Disks, AreNotMadeOfOtherDevicesOrOfMemory)
{
	machine.Disk("sda");
	machine.Disk("sdb");
	machine.Md("md0", "raid1", {"sda", "sdb"});
	machine.Dm("dm-0", "vg1-volume1", "LVM-1", {"md0"}, {"0 2048 linear 9:0 0"});
	machine.Bcache("bcache0", "dm-0", "");
	machine.Loop("loop0");
	for (const char *name : {"ram0", "zram0", "nbd0"})
		machine.Virtual(name);
	EXPECT_EQ(DiskLines(kAll), (Strings{"sda /dev/sda 0x01", "sdb /dev/sdb 0x01"}));
}

TEST_F(Disks, AreNoOpticalDrives)
{
	machine.Disk("sr0", {.bus = Bus::Optical});
	EXPECT_EQ(DiskLines(kAll), Strings());
}

TEST_F(Disks, AreNoDrivesWithoutAMedium)
{
	machine.Disk("sda", {.bus = Bus::Usb, .sectors = 0});
	machine.Disk("sdb", {.bus = Bus::Usb, .sectors = 1});
	EXPECT_EQ(DiskLines(kAll), (Strings{"sdb /dev/sdb 0x10"}));
}

TEST_F(Disks, AreNoBootPartitionsOfEmmc)
{
	machine.Disk("mmcblk0", {.bus = Bus::Emmc});
	machine.Disk("mmcblk0boot0", {.bus = Bus::Emmc});
	machine.Disk("mmcblk0boot1", {.bus = Bus::Emmc});
	EXPECT_EQ(DiskLines(kAll), (Strings{"mmcblk0 /dev/mmcblk0 0x20"}));
}

TEST_F(Disks, AreNoSinglePathsToAnNvmeNamespace)
{
	machine.Disk("nvme0c0n1", {.bus = Bus::Nvme, .hidden = true});
	machine.Disk("nvme0c1n1", {.bus = Bus::Nvme, .hidden = true});
	machine.Disk("nvme1n1", {.bus = Bus::Nvme});
	EXPECT_EQ(DiskLines(kAll), (Strings{"nvme1n1 /dev/nvme1n1 0x04"}));
}

// With several paths, the disk itself is a device of the NVMe subsystem and of no controller.
TEST_F(Disks, OfAnNvmeSubsystemAreNvme)
{
	machine.Disk("nvme0c0n1", {.bus = Bus::Nvme, .hidden = true});
	machine.Virtual("nvme0n1");
	const std::string subsystem = "/sys/devices/virtual/nvme-subsystem/nvme-subsys0";
	fs::create_directories(subsystem);
	fs::create_directories("/sys/class/nvme-subsystem");
	fs::create_symlink("../../../../class/nvme-subsystem", subsystem + "/subsystem");
	fs::rename("/sys/devices/virtual/block/nvme0n1", subsystem + "/nvme0n1");
	fs::create_symlink("../../nvme-subsys0", subsystem + "/nvme0n1/device");
	for (const auto &[link, up] :
	     {std::pair("/sys/block/nvme0n1", "../"), {"/sys/class/block/nvme0n1", "../../"}}) {
		fs::remove(link);
		fs::create_symlink(std::string(up) + "devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1", link);
	}
	EXPECT_EQ(DiskLines(kAll), (Strings{"nvme0n1 /dev/nvme0n1 0x04"}));
	EXPECT_EQ(IsSsd("/dev/nvme0n1"), "1");
}

TEST_F(Disks, OfAKernelThatHidesNoneAreListed)
{
	machine.Disk("sda");
	fs::remove("/sys/block/sda/hidden");
	EXPECT_EQ(DiskLines(kAll), (Strings{"sda /dev/sda 0x01"}));
}

TEST_F(Disks, HaveSlashesInTheirDeviceNames)
{
	machine.Disk("cciss!c0d0", {.bus = Bus::Sas});
	EXPECT_EQ(DiskLines(kAll), (Strings{"cciss!c0d0 /dev/cciss/c0d0 0x02"}));
}

TEST_F(Disks, AreInByteOrderOfTheirNames)
{
	Strings expected;
	for (const char *name : {"sdb", "sdaa", "vda", "sda", "nvme10n1", "nvme2n1", "cciss!c0d0"}) {
		const std::string kernelName = name;
		machine.Disk(kernelName, {.bus = kernelName.starts_with("nvme") ? Bus::Nvme : Bus::Sas});
	}
	for (const std::string &line : DiskLines(kAll))
		expected.push_back(line.substr(0, line.find(' ')));
	EXPECT_EQ(expected, (Strings{"cciss!c0d0", "nvme10n1", "nvme2n1", "sda", "sdaa", "sdb", "vda"}));
}

TEST_F(Disks, ThatVanishAreLeftOut)
{
	machine.Disk("sda");
	machine.Disk("sdb");
	machine.Disk("sdc");
	// At three points of its going: the link is still there, the folder is empty, the bus has let go of it.
	fs::remove_all(fs::canonical("/sys/block/sda"));
	for (const auto &entry : fs::directory_iterator(fs::canonical("/sys/block/sdb")))
		fs::remove_all(entry.path());
	fs::remove("/sys/block/sdc/device");
	EXPECT_EQ(DiskLines(kAll), Strings());
}

TEST_F(Disks, ByTheHundredAreListed)
{
	for (char first = 'a'; first <= 'i'; ++first)
		for (char second = 'a'; second <= 'z'; ++second)
			machine.Disk(std::string("sd") + first + second, {.bus = Bus::Sas});
	EXPECT_EQ(DiskLines(DISK_TYPE_SAS).size(), 9U * 26U);
}

TEST_F(Disks, FailWithoutSysfs)
{
	const kit::MountPoint empty("none", "/sys", "tmpfs");
	EXPECT_EQ(DiskLines(kAll), (Strings{"failed 0x0900 /sys/block"}));
}

TEST_F(Disks, FailWhereAnAttributeCannotBeRead)
{
	machine.Disk("sda");
	machine.Disk("sdb");
	fs::remove("/sys/block/sdb/size");
	fs::create_directory("/sys/block/sdb/size");
	EXPECT_EQ(DiskLines(kAll), (Strings{"failed 0x0A00 /sys/class/block/sdb/size"}));
}

TEST_F(Disks, FailWhereAnAttributeCannotBeOpened)
{
	machine.Disk("sda");
	const kit::PathFault fault("open", "/sys/class/block/sda/size", EMFILE);
	EXPECT_EQ(DiskLines(kAll), (Strings{"failed 0x0900 /sys/class/block/sda/size"}));
}

TEST_F(Disks, RefuseNullArguments)
{
	machine.Disk("sda");
	const DISKFILTER filter = {kAll};
	DISKINFO untouched = {};
	DISKINFO *list = &untouched;
	SetOldCode();
	EXPECT_EQ(DiskInfoEnum(nullptr, &list), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_EQ(list, &untouched);
	SetOldCode();
	EXPECT_EQ(DiskInfoEnum(&filter, nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	SetOldCode();
	EXPECT_EQ(ZEVODiskIsSSD(nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
}

TEST_F(Disks, AreSsdsOrRotateByWhatTheKernelSays)
{
	machine.Disk("sda", {.rotating = false});
	machine.Disk("sdb", {.rotating = true});
	machine.Disk("vda", {.bus = Bus::Virtio, .rotating = true});
	machine.Disk("cciss!c0d0", {.bus = Bus::Sas, .rotating = true});
	machine.Loop("loop3", true);
	for (const auto &[disk, expected] : {std::pair("sda", "1"), {"sdb", "0"}, {"vda", "0"}, {"loop3", "0"}}) {
		EXPECT_EQ(IsSsd(disk), expected) << disk;
		EXPECT_EQ(IsSsd(std::string("/dev/") + disk), expected) << disk;
	}
	EXPECT_EQ(IsSsd("/dev/cciss/c0d0"), "0");
	EXPECT_EQ(IsSsd("cciss!c0d0"), "0");
}

TEST_F(Disks, TellOfTheirPartitionsWhatTheyAre)
{
	machine.Disk("sda", {.rotating = true});
	machine.Partition("sda", 15);
	machine.Disk("nvme0n1", {.bus = Bus::Nvme});
	machine.Partition("nvme0n1", 2);
	machine.Disk("cciss!c0d0", {.bus = Bus::Sas, .rotating = true});
	machine.Partition("cciss!c0d0", 1);
	EXPECT_EQ(IsSsd("/dev/sda15"), "0");
	EXPECT_EQ(IsSsd("nvme0n1p2"), "1");
	EXPECT_EQ(IsSsd("/dev/cciss/c0d0p1"), "0");
}

TEST_F(Disks, ThatAreNotThereAreNeither)
{
	machine.Disk("sda");
	for (const char *disk :
	     {"/dev/sdb", "sdb1", "/dev/mapper/vg1-volume1", "", "/dev/", "/dev", ".", "..", "/dev/sda/"})
		EXPECT_EQ(IsSsd(disk).substr(0, 13), "failed 0x2100") << disk;
	machine.Remove("sda");
	EXPECT_EQ(IsSsd("/dev/sda").substr(0, 13), "failed 0x2100");
}

TEST_F(Disks, OfWhichTheKernelTalksNonsenseAreNeither)
{
	machine.Disk("sda");
	for (const char *nonsense : {"2", "", "yes", "-1", "01", "1 0", " 1"}) {
		kit::WriteFile("/sys/block/sda/queue/rotational", std::string(nonsense) + "\n");
		EXPECT_EQ(IsSsd("sda"), "failed 0x2200 /sys/class/block/sda/queue/rotational") << nonsense;
	}
	kit::WriteFile("/sys/block/sda/queue/rotational", "");
	EXPECT_EQ(IsSsd("sda"), "failed 0x2200 /sys/class/block/sda/queue/rotational");
}

TEST_F(Disks, OfWhichTheKernelCannotBeAskedAreNeither)
{
	machine.Disk("sda");
	{
		const kit::PathFault fault("open", "/sys/class/block/sda/queue/rotational", EMFILE);
		EXPECT_EQ(IsSsd("sda"), "failed 0x0900 /sys/class/block/sda/queue/rotational");
	}
	fs::remove("/sys/block/sda/queue/rotational");
	fs::create_directory("/sys/block/sda/queue/rotational");
	EXPECT_EQ(IsSsd("sda"), "failed 0x0A00 /sys/class/block/sda/queue/rotational");
}
