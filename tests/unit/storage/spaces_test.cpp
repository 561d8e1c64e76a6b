#include "answers.h"

#include "kit/faults.h"
#include "kit/files.h"

#include <vunkcore/vunkcore.h>

#include <filesystem>

#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

const std::string kUuid = "0b7d9a3e-5f12-4c8a-9d3b-6a1e2f3c4d5e";
const std::string kOtherUuid = "5c1f20d4-7a3b-4e6d-8f90-12ab34cd56ef";

class Spaces : public StorageTest {
protected:
	/// Disks with one partition each.
	void PartitionedDisks(const Strings &names)
	{
		for (const std::string &name : names) {
			machine.Disk(name);
			machine.Partition(name, 1);
		}
	}

	/// A device of a single linear target for each device that it is made of.
	void Linear(const std::string &name, const std::string &dmName, const Strings &slaves)
	{
		Strings targets;
		for (const std::string &slave : slaves)
			targets.push_back(std::to_string(2048 * targets.size()) + " 2048 linear " +
			                  machine.Number(slave) + " 2048");
		machine.Dm(name, dmName, "LVM-" + dmName, slaves, targets);
	}

	/// The disks of an ext4 on a device.
	Strings DisksBelow(const std::string &device)
	{
		machine.Mount("/dev/" + device, "/volume1", "ext4");
		return DisksUnder("/volume1");
	}
};

std::string ClassBlock(const std::string &path)
{
	return "/sys/class/block/" + path;
}

} // namespace

TEST_F(Spaces, AreNoneWhereNothingIsMounted)
{
	SetOldCode();
	ZEVOSPACEINFO untouched = {};
	ZEVOSPACEINFO *list = &untouched;
	EXPECT_EQ(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &list), 0);
	EXPECT_EQ(list, nullptr);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	ZEVOSpaceInfoFree(nullptr);
}

TEST_F(Spaces, AreInTheOrderOfTheMountedVolumes)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Mount("/dev/sdb1", "/volume2", "ext4");
	machine.Mount("/dev/sda", "/volume10", "ext4");
	machine.Mount("/dev/sda1", "/volume1", "xfs");
	EXPECT_EQ(SpaceLines(),
	          (Strings{"/volume1 /dev/sda1 - -", "/volume10 /dev/sda - -", "/volume2 /dev/sdb1 - -"}));
}

TEST_F(Spaces, OfDeviceMapperDevicesHaveTwoNames)
{
	PartitionedDisks({"sda"});
	Linear("dm-3", "vg1-volume1", {"sda1"});
	machine.Mount("/dev/mapper/vg1-volume1", "/volume1", "ext4");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/dm-3 /dev/mapper/vg1-volume1 -"}));
}

// Btrfs shows the name by which it was told of the device, which may be the kernel's.
TEST_F(Spaces, OfABtrfsAreFoundByEitherNameOfTheDevice)
{
	PartitionedDisks({"sda"});
	Linear("dm-3", "vg1-volume1", {"sda1"});
	machine.Btrfs(kUuid, {"dm-3"});
	for (const char *source : {"/dev/mapper/vg1-volume1", "/dev/dm-3"}) {
		machine.SetMountLines({});
		machine.Mount(source, "/volume1", "btrfs");
		EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/dm-3 /dev/mapper/vg1-volume1 " + kUuid})) << source;
		EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda"})) << source;
	}
}

TEST_F(Spaces, OfABtrfsAreFoundByANodeOfAnyName)
{
	PartitionedDisks({"sda"});
	machine.Btrfs(kUuid, {"sda1"});
	const kit::TempDir dir;
	ASSERT_EQ(mknod(dir.Path("node").c_str(), S_IFBLK | 0600, makedev(8, 1)), 0);
	fs::create_symlink("node", dir.Path("by-label"));
	machine.Mount(dir.Path("by-label"), "/volume1", "btrfs");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/sda1 - " + kUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, OfABtrfsHaveItsUuid)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Btrfs(kUuid, {"sda1"});
	machine.Btrfs("11111111-2222-3333-4444-555555555555", {"sdb1"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs");
	machine.Mount("/dev/sdb1", "/volume2", "btrfs");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/sda1 - " + kUuid,
	                                 "/volume2 /dev/sdb1 - 11111111-2222-3333-4444-555555555555"}));
}

// One device of it would not tell what the others are.
TEST_F(Spaces, OfABtrfsThatSysfsDoesNotKnowAreNotListed)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs");
	EXPECT_EQ(SpaceLines(), Strings());
	machine.Mount("/dev/sdb1", "/volume2", "btrfs");
	machine.btrfsPaths = {{"/volume2", kUuid}};
	EXPECT_EQ(SpaceLines(), Strings());
}

// The kernel shows the name under which it found a device, and a name can become another device's.
TEST_F(Spaces, OfABtrfsWhoseSourceNamesAnotherDeviceNowAreThoseThatItSaysItself)
{
	PartitionedDisks({"sda", "sdb"});
	Linear("dm-0", "renamed", {"sda1"});
	Linear("dm-1", "data", {"sdb1"});
	machine.Btrfs(kUuid, {"dm-0"});
	machine.Btrfs(kOtherUuid, {"dm-1"});
	machine.Mount("/dev/mapper/data", "/volume1", "btrfs", {.devno = "0:40"});
	machine.Mount("/dev/mapper/renamed", "/volume2", "btrfs", {.devno = "0:41"});
	machine.btrfsPaths = {{"/volume1", kUuid}, {"/volume2", kOtherUuid}};
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/dm-0 /dev/mapper/renamed " + kUuid,
	                                 "/volume2 /dev/dm-1 /dev/mapper/data " + kOtherUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda"}));
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, OfABtrfsWhoseSourceHasLeftItLieOnTheDevicesThatAreIts)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	machine.Btrfs(kUuid, {"sdb1", "sdc1"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs", {.devno = "0:40"});
	machine.btrfsPaths = {{"/volume1", kUuid}};
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/sdb1 - " + kUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb", "/dev/sdc"}));
}

TEST_F(Spaces, OfOtherFileSystemsAreFoundByTheNumberOfTheDevice)
{
	PartitionedDisks({"sda"});
	machine.Mount("/dev/root", "/", "ext4", {.devno = machine.Number("sda1")});
	EXPECT_EQ(SpaceLines(), (Strings{"/ /dev/sda1 - -"}));
	EXPECT_EQ(DisksUnder("/"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, OfDevicesWithSlashesInTheirNames)
{
	machine.Disk("cciss!c0d0", {.bus = kit::Bus::Sas});
	machine.Partition("cciss!c0d0", 1);
	machine.Partition("cciss!c0d0", 2);
	machine.Btrfs(kUuid, {"cciss!c0d0p2"});
	machine.Mount("/dev/cciss/c0d0p1", "/volume1", "ext4");
	machine.Mount("/dev/cciss/c0d0p2", "/volume2", "btrfs");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/cciss/c0d0p1 - -", "/volume2 /dev/cciss/c0d0p2 - " + kUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/cciss/c0d0"}));
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/cciss/c0d0"}));
}

TEST_F(Spaces, AreFoundByTheirVolume)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Mount("/dev/sda1", "/volume1", "ext4");
	machine.Mount("/dev/sdb1", "/volume2", "ext4");
	const SpaceList list;
	ASSERT_NE(list.Find("/volume2"), nullptr);
	EXPECT_EQ(list.Find("/volume2"), list.First()->pNext);
	EXPECT_STREQ(list.Find("/volume2")->szDevice, "/dev/sdb1");
	for (const char *other : {"/volume3", "/volume", "/volume1/", "/volume11", ""})
		EXPECT_EQ(list.Find(other), nullptr) << other;
}

TEST_F(Spaces, AreNotFoundInAnEmptyList)
{
	const ZEVOSPACESEARCH search = {"/volume1"};
	ZEVOSPACEINFO untouched = {};
	ZEVOSPACEINFO *space = &untouched;
	SetOldCode();
	EXPECT_EQ(ZEVOSpaceInfoSearch(nullptr, &search, &space), 0);
	EXPECT_EQ(space, &untouched);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
}

TEST_F(Spaces, RefuseArgumentsThatAreNullOrOutOfRange)
{
	PartitionedDisks({"sda"});
	machine.Mount("/dev/sda1", "/volume1", "ext4");
	SpaceList list;
	TextList disks;
	VUNKSZLIST *none = nullptr;
	const ZEVOSPACESEARCH search = {"/volume1"};
	const ZEVOSPACESEARCH empty = {};
	ZEVOSPACEINFO untouched = {};
	ZEVOSPACEINFO *space = &untouched;
	const std::vector<std::function<int()>> calls = {
		[&] { return ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, nullptr); },
		[&] { return ZEVOSpaceInfoEnum(0, &space); },
		[&] { return ZEVOSpaceInfoEnum(2, &space); },
		[&] { return ZEVOSpaceInfoSearch(list.First(), nullptr, &space); },
		[&] { return ZEVOSpaceInfoSearch(list.First(), &search, nullptr); },
		[&] { return ZEVOSpaceInfoSearch(list.First(), &empty, &space); },
		[&] { return ZEVOSpaceInfoSearch(nullptr, &empty, &space); },
		[&] { return ZEVOSpaceDiskEnum(nullptr, &disks.list); },
		[&] { return ZEVOSpaceDiskEnum(list.First(), nullptr); },
		[&] { return ZEVOSpaceDiskEnum(list.First(), &none); },
	};
	for (size_t i = 0; i < calls.size(); ++i) {
		SetOldCode();
		EXPECT_EQ(calls[i](), -1) << i;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << i;
		EXPECT_EQ(space, &untouched) << i;
		EXPECT_EQ(disks.Content(), Strings()) << i;
	}
}

TEST_F(Spaces, OnAPartitionLieOnItsDisk)
{
	PartitionedDisks({"sda", "sdb"});
	EXPECT_EQ(DisksBelow("sdb1"), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, OnAnNvmePartitionLieOnItsNamespace)
{
	machine.Disk("nvme0n1", {.bus = kit::Bus::Nvme});
	machine.Partition("nvme0n1", 3);
	EXPECT_EQ(DisksBelow("nvme0n1p3"), (Strings{"/dev/nvme0n1"}));
}

TEST_F(Spaces, OnAWholeDiskLieOnIt)
{
	PartitionedDisks({"sda"});
	EXPECT_EQ(DisksBelow("sda"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, OnALoopDeviceLieOnIt)
{
	machine.Loop("loop3");
	machine.Partition("loop3", 1);
	EXPECT_EQ(DisksBelow("loop3p1"), (Strings{"/dev/loop3"}));
}

TEST_F(Spaces, OnLuksOnLvmOnRaidLieOnEachDiskOnce)
{
	for (const char *disk : {"sda", "sdb", "sdc"}) {
		machine.Disk(disk);
		machine.Partition(disk, 5);
		machine.Partition(disk, 6);
	}
	machine.Md("md0", "raid5", {"sda5", "sdb5", "sdc5"});
	machine.Md("md1", "raid5", {"sda6", "sdb6", "sdc6"});
	Linear("dm-0", "vg1-volume1", {"md0", "md1"});
	machine.Dm("dm-1", "luks-volume1", "CRYPT-LUKS2-volume1", {"dm-0"},
	           {"0 2048 crypt aes-xts-plain64 0 0 253:0 32768"});
	machine.Btrfs(kUuid, {"dm-1"});
	machine.Mount("/dev/mapper/luks-volume1", "/volume1", "btrfs");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/dm-1 /dev/mapper/luks-volume1 " + kUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sda", "/dev/sdb", "/dev/sdc"}));
}

TEST_F(Spaces, OnALogicalVolumeOverTwoDisksLieOnBoth)
{
	machine.Disk("sda");
	PartitionedDisks({"sdb", "sdc"});
	Linear("dm-0", "vg1-data", {"sda", "sdb1"});
	EXPECT_EQ(DisksBelow("dm-0"), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, OnADegradedArrayLieOnTheMembersThatAreThere)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sdb1"}, {.raidDisks = 2});
	EXPECT_EQ(DisksBelow("md0"), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, OnAPartitionOfAnArrayLieOnTheMembersOfTheArray)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md127", "raid1", {"sda1", "sdb1"});
	machine.Partition("md127", 1);
	EXPECT_EQ(DisksBelow("md127p1"), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, OfABtrfsOnSeveralDevicesLieOnAllOfThem)
{
	machine.Disk("nvme0n1", {.bus = kit::Bus::Nvme});
	PartitionedDisks({"sda", "sdb", "sdc"});
	machine.Btrfs(kUuid, {"nvme0n1", "sda1", "sdb1"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume1 /dev/sda1 - " + kUuid}));
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/nvme0n1", "/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, OfABtrfsWithAMissingDeviceLieOnTheOthers)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Btrfs(kUuid, {"sdb1"}, {.missing = {1}});
	machine.Mount("/dev/sdb1", "/volume1", "btrfs");
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, OfABtrfsOfWhichADeviceVanishesLieOnTheOthers)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Btrfs(kUuid, {"sda1", "sdb1"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs");
	const SpaceList list;
	machine.Remove("sda");
	EXPECT_EQ(DisksOf(list.Find("/volume1")), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, BehindADmCacheLieOnTheOriginAlone)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	Linear("dm-0", "vg1-cache_cmeta", {"sdc1"});
	Linear("dm-1", "vg1-cache_cdata", {"sdb1"});
	Linear("dm-2", "vg1-data_corig", {"sda1"});
	machine.Dm("dm-3", "vg1-data", "LVM-data", {"dm-0", "dm-1", "dm-2"},
	           {"0 2048 cache 253:0 253:1 253:2 128 1 writethrough smq 0"});
	EXPECT_EQ(DisksBelow("dm-3"), (Strings{"/dev/sda"}));
	EXPECT_EQ(machine.deviceMapper.answers, 1);
}

TEST_F(Spaces, BehindADmCacheWhoseOriginSharesADiskWithItLieOnThatDisk)
{
	machine.Disk("sda");
	for (const int number : {1, 2, 3})
		machine.Partition("sda", number);
	machine.Dm("dm-0", "data", "", {"sda1", "sda2", "sda3"}, {"0 2048 cache 8:1 8:2 8:3 128 1 writethrough smq 0"});
	EXPECT_EQ(DisksBelow("dm-0"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, BehindADmWritecacheLieOnTheOriginAlone)
{
	PartitionedDisks({"sda", "sdb"});
	for (const char *kind : {"s", "p"}) {
		machine.SetMountLines({});
		const std::string name = *kind == 's' ? "dm-0" : "dm-1";
		machine.Dm(name, kind, "", {"sda1", "sdb1"},
		           {std::string("0 2048 writecache ") + kind + " 8:17 8:1 4096 0"});
		EXPECT_EQ(DisksBelow(name), (Strings{"/dev/sdb"})) << kind;
	}
}

TEST_F(Spaces, OnAThinVolumeLieOnDataAndMetadataOfThePool)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	Linear("dm-0", "vg1-pool_tmeta", {"sda1"});
	Linear("dm-1", "vg1-pool_tdata", {"sdb1", "sdc1"});
	machine.Dm("dm-2", "vg1-pool-tpool", "", {"dm-0", "dm-1"}, {"0 2048 thin-pool 253:0 253:1 128 0 0"});
	machine.Dm("dm-3", "vg1-thin", "", {"dm-2"}, {"0 4096 thin 253:2 1"});
	EXPECT_EQ(DisksBelow("dm-3"), (Strings{"/dev/sda", "/dev/sdb", "/dev/sdc"}));
}

TEST_F(Spaces, OnAMultipathDeviceLieOnAllPaths)
{
	machine.Disk("sda", {.bus = kit::Bus::Sas});
	machine.Disk("sdb", {.bus = kit::Bus::Sas});
	machine.Dm("dm-0", "mpatha", "mpath-1", {"sda", "sdb"},
	           {"0 2048 multipath 0 0 1 1 service-time 0 2 2 8:0 1 1 8:16 1 1"});
	EXPECT_EQ(DisksBelow("dm-0"), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, BehindABcacheLieOnTheBackingDeviceAlone)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Bcache("bcache0", "sda1", "sdb1");
	ASSERT_EQ(kit::Names("/sys/block/bcache0/slaves"), (std::set<std::string>{"sda1", "sdb1"}));
	EXPECT_EQ(DisksBelow("bcache0"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, BehindABcacheOfAnArrayLieOnItsMembers)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	machine.Bcache("bcache0", "md0", "sdc1");
	machine.Partition("bcache0", 1);
	EXPECT_EQ(DisksBelow("bcache0p1"), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, BehindABcacheWithoutACacheLieOnTheBackingDevice)
{
	PartitionedDisks({"sda"});
	machine.Bcache("bcache0", "sda", "");
	EXPECT_EQ(DisksBelow("bcache0"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, OnAVolumeInABcacheLieOnTheCache)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Bcache("bcache0", "sda1", "sdb1");
	machine.Bcache("bcache1", "", "sdb1");
	EXPECT_EQ(DisksBelow("bcache1"), (Strings{"/dev/sdb"}));
}

TEST_F(Spaces, WhoseDeviceIsGoneFail)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Btrfs(kUuid, {"sdb1"});
	machine.Mount("/dev/sda1", "/volume1", "ext4");
	machine.Mount("/dev/sdb1", "/volume2", "btrfs");
	const SpaceList list;
	machine.Remove("sda");
	machine.Remove("sdb");
	EXPECT_EQ(DisksOf(list.Find("/volume1")).front().substr(0, 13), "failed 0x2100");
	EXPECT_EQ(DisksOf(list.Find("/volume2")).front().substr(0, 13), "failed 0x2100");
}

// Pulled while it was mounted, say; what else is mounted is not to suffer from it.
TEST_F(Spaces, OnADeviceThatIsGoneAreNotListed)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Btrfs(kUuid, {"sda1"});
	machine.Mount("/dev/sda1", "/volume1", "btrfs");
	machine.btrfsPaths = {{"/volume1", kUuid}};
	machine.Mount("/dev/sdb1", "/volume2", "ext4");
	machine.Mount("/dev/sdx1", "/volume3", "ext4", {.devno = "8:240"});
	machine.Remove("sda");
	EXPECT_EQ(SpaceLines(), (Strings{"/volume2 /dev/sdb1 - -"}));
}

// What is left of a device that is unplugged: the link in "slaves", which leads nowhere.
TEST_F(Spaces, WhoseMemberIsGoneLieOnTheOthers)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	machine.Md("md0", "raid5", {"sda1", "sdb1", "sdc1"});
	machine.Remove("sdb");
	ASSERT_TRUE(fs::is_symlink("/sys/block/md0/slaves/sdb1"));
	EXPECT_EQ(DisksBelow("md0"), (Strings{"/dev/sda", "/dev/sdc"}));
}

TEST_F(Spaces, WhoseMemberVanishesMeanwhileLieOnTheOthers)
{
	PartitionedDisks({"sda", "sdb"});
	Linear("dm-0", "vg1-data", {"sda1", "sdb1"});
	machine.Mount("/dev/mapper/vg1-data", "/volume1", "ext4");
	machine.deviceMapper.before = [&] { machine.Remove("sda"); };
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb"}));
	EXPECT_EQ(machine.deviceMapper.answers, 1);
}

// No disk at all would pass for a space without a rotating one.
TEST_F(Spaces, OfWhichEveryMemberIsGoneFail)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	machine.Remove("sda");
	machine.Remove("sdb");
	EXPECT_EQ(DisksBelow("md0"), (Strings{"failed 0x2100 /dev/md0"}));
}

TEST_F(Spaces, WhoseCachedDeviceVanishesMeanwhileFail)
{
	PartitionedDisks({"sda", "sdb", "sdc"});
	machine.Dm("dm-0", "data", "", {"sda1", "sdb1", "sdc1"},
	           {"0 2048 cache 8:1 8:17 8:33 128 1 writethrough smq 0"});
	machine.Mount("/dev/mapper/data", "/volume1", "ext4");
	machine.deviceMapper.before = [&] {
		machine.deviceMapper.tables.clear();
		machine.Remove("dm-0");
	};
	EXPECT_EQ(DisksUnder("/volume1").front().substr(0, 13), "failed 0x2100");
}

TEST_F(Spaces, OverACachedDeviceThatVanishesMeanwhileLieOnTheOthers)
{
	PartitionedDisks({"sda", "sdb", "sdc", "sdd"});
	machine.Dm("dm-0", "cached", "", {"sda1", "sdb1", "sdc1"},
	           {"0 2048 cache 8:1 8:17 8:33 128 1 writethrough smq 0"});
	machine.Md("md0", "raid1", {"dm-0", "sdd1"});
	machine.Mount("/dev/md0", "/volume1", "ext4");
	machine.deviceMapper.before = [&] {
		machine.deviceMapper.tables.clear();
		machine.Remove("dm-0");
	};
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdd"}));
}

TEST_F(Spaces, OnDevicesThatAreMadeOfEachOtherEnd)
{
	PartitionedDisks({"sda"});
	Linear("dm-0", "first", {"sda1"});
	Linear("dm-1", "second", {"dm-0"});
	fs::create_symlink("../../dm-1", ClassBlock("dm-0/slaves/dm-1"));
	fs::create_symlink("../../dm-0", ClassBlock("dm-0/slaves/dm-0"));
	EXPECT_EQ(DisksBelow("dm-1"), (Strings{"/dev/sda"}));
}

TEST_F(Spaces, OnSixtyFourLevelsLieOnTheDiskBelow)
{
	PartitionedDisks({"sda"});
	std::string below = "sda1";
	for (int level = 0; level < 64; ++level) {
		const std::string name = "dm-" + std::to_string(level);
		Linear(name, "level" + std::to_string(level), {below});
		below = name;
	}
	EXPECT_EQ(DisksBelow(below), (Strings{"/dev/sda"}));
}

// Every level doubles the ways down: only a walk that remembers where it was ends in time.
TEST_F(Spaces, OnDevicesWithAMillionWaysDownLieOnEachDiskOnce)
{
	PartitionedDisks({"sda", "sdb"});
	Strings below = {"sda1", "sdb1"};
	for (int level = 0; level < 40; ++level) {
		const std::string left = "md" + std::to_string(2 * level);
		const std::string right = "md" + std::to_string(2 * level + 1);
		machine.Md(left, "raid1", below);
		machine.Md(right, "raid1", below);
		below = {left, right};
	}
	EXPECT_EQ(DisksBelow(below.front()), (Strings{"/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, AppendTheirDisksToWhatTheListHolds)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	machine.Mount("/dev/md0", "/volume1", "ext4");
	const SpaceList list;
	TextList disks({"/dev/sda", "x"});
	EXPECT_EQ(ZEVOSpaceDiskEnum(list.First(), &disks.list), 2);
	EXPECT_EQ(ZEVOSpaceDiskEnum(list.First(), &disks.list), 2);
	EXPECT_EQ(disks.Content(), (Strings{"/dev/sda", "x", "/dev/sda", "/dev/sdb", "/dev/sda", "/dev/sdb"}));
}

TEST_F(Spaces, LeaveTheListAloneWhereItCannotGrow)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	machine.Mount("/dev/md0", "/volume1", "ext4");
	const SpaceList list;
	TextList disks({"x", "y"});
	for (int nth = 1;; ++nth) {
		const kit::Fault fault("VUNKCSzListPush", nth);
		const int result = ZEVOSpaceDiskEnum(list.First(), &disks.list);
		if (!fault.Struck()) {
			EXPECT_EQ(result, 2);
			EXPECT_GT(nth, 2);
			break;
		}
		EXPECT_EQ(result, -1);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(disks.Content(), (Strings{"x", "y"}));
	}
}

TEST_F(Spaces, FailWhereSysfsCannotBeRead)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	const kit::PathFault fault("open", "/sys/class/block/sda1/partition", EMFILE);
	EXPECT_EQ(DisksBelow("md0"), (Strings{"failed 0x0900 /sys/class/block/sda1/partition"}));
}

TEST_F(Spaces, FailWhereSysfsIsNotWhatItShouldBe)
{
	PartitionedDisks({"sda", "sdb"});
	machine.Md("md0", "raid1", {"sda1", "sdb1"});
	fs::remove(ClassBlock("sda1/partition"));
	fs::create_directory(ClassBlock("sda1/partition"));
	EXPECT_EQ(DisksBelow("md0"), (Strings{"failed 0x0A00 /sys/class/block/sda1/partition"}));
}

// Btrfs keeps a device that was pulled among its own, and does not call it missing.
TEST(RecordedSpaces, OfABtrfsOfWhichADiskWasPulledLieOnTheOthers)
{
	kit::FreshMachine();
	kit::Machine machine = kit::Machine::Recorded("btrfs-pulled");
	const std::string folder = "/sys/fs/btrfs/af9ad533-94fe-4ef6-9bd0-b24ad3aca94f";
	ASSERT_EQ(kit::Names(folder + "/devices"), (std::set<std::string>{"sda", "sdb", "sde"}));
	ASSERT_FALSE(fs::exists(folder + "/devices/sda"));
	for (const char *id : {"1", "2", "3"})
		ASSERT_EQ(kit::ReadFile(folder + "/devinfo/" + id + "/missing"), "0\n") << id;
	EXPECT_EQ(DisksUnder("/volume1"), (Strings{"/dev/sdb", "/dev/sde"}));
	EXPECT_EQ(IsSsd("/dev/sda"), "failed 0x2100 /dev/sda");
}

// The mount table goes on naming the half that was pulled, a rotating one; the other lies on an SSD.
TEST(RecordedSpaces, OfABtrfsWhoseSourceWasPulledAreFoundByTheirPath)
{
	kit::FreshMachine();
	kit::Machine machine = kit::Machine::Recorded("btrfs-pulled");
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"no such space"}));
	machine.btrfsPaths = {{"/volume2", "76a92cfe-db89-4162-9e1e-6e2d4a58ff2b"}};
	EXPECT_EQ(DisksUnder("/volume2"), (Strings{"/dev/sdc"}));
	EXPECT_EQ(IsSsd("/dev/sdc"), "1");
}

// Still mounted, and without a single device.
TEST(RecordedSpaces, OnAPulledDiskAloneAreNotListedAndLieNowhere)
{
	kit::FreshMachine();
	kit::Machine machine = kit::Machine::Recorded("btrfs-pulled");
	const std::string uuid = "1bdb0110-a28b-40e3-a7e8-340e264cb849";
	machine.btrfsPaths = {{"/volume3", uuid}};
	const Strings volumes = VolumeLines();
	EXPECT_NE(std::find(volumes.begin(), volumes.end(), "/volume3 btrfs 3 /dev/sdd2"), volumes.end());
	for (const char *volume : {"/volume3", "/volume4"})
		EXPECT_EQ(DisksUnder(volume), (Strings{"no such space"})) << volume;
	// As it was listed before.
	ZEVOSPACEINFO space = {"/dev/sdd2", "", "/volume3", uuid.c_str(), nullptr};
	EXPECT_EQ(DisksOf(&space), (Strings{"failed 0x2100 /dev/sdd2"}));
	space = {"/dev/sdd3", "", "/volume4", "", nullptr};
	EXPECT_EQ(DisksOf(&space), (Strings{"failed 0x2100 /dev/sdd3"}));
	EXPECT_EQ(IsSsd("/dev/sdd"), "failed 0x2100 /dev/sdd");
}
