#include "answers.h"

#include "kit/faults.h"

#include <vunkcore/vunkcore.h>

#include <algorithm>

#include <sys/mount.h>

using namespace answers;
using kit::MountPoint;

namespace {

class Mounts : public StorageTest {
protected:
	Mounts()
	{
		for (const char *disk : {"sda", "sdb"}) {
			machine.Disk(disk);
			machine.Partition(disk, 1);
			machine.Partition(disk, 2);
		}
	}

	void Mount(const std::string &source, const std::string &path, const std::string &fsType,
	           const kit::MountOptions &options = {})
	{
		machine.Mount(source, path, fsType, options);
	}

	/// One Btrfs file system.
	void Subvolume(const std::string &root, const std::string &path)
	{
		Mount("/dev/sda1", path, "btrfs", {.root = root});
	}

	/// The volumes are the expected ones in whatever order the table has its lines.
	void ExpectInAnyOrder(const Strings &expected)
	{
		Strings lines = machine.MountLines();
		std::sort(lines.begin(), lines.end());
		do {
			machine.SetMountLines(lines);
			ASSERT_EQ(VolumeLines(), expected) << testing::PrintToString(lines);
		} while (std::next_permutation(lines.begin(), lines.end()));
	}
};

} // namespace

TEST_F(Mounts, AreNoneWhereNothingIsMounted)
{
	EXPECT_EQ(VolumeLines(), Strings());
	ZEVOMountVolInfoFree(nullptr);
}

TEST_F(Mounts, AreNoneWhereNoBlockDeviceIsMounted)
{
	Mount("rootfs", "/", "tmpfs");
	Mount("proc", "/proc", "proc");
	Mount("sysfs", "/sys", "sysfs");
	Mount("server:/export", "/nfs", "nfs4");
	Mount("//server/share", "/smb", "cifs");
	Mount("overlay", "/merged", "overlay");
	Mount("/dev/sda1", "/named", "tmpfs", {.devno = "0:99"}); // a source is what whoever mounts calls it
	EXPECT_EQ(VolumeLines(), Strings());
}

TEST_F(Mounts, HaveTypeCodesAndTheNamesOfTheKernel)
{
	Mount("/dev/sda1", "/a", "btrfs");
	Mount("/dev/sda2", "/b", "ext4");
	Mount("/dev/sdb1", "/c", "xfs");
	Mount("/dev/sdb2", "/d", "vfat");
	machine.Disk("sdc");
	Mount("/dev/sdc", "/e", "ext3");
	machine.Disk("sdd");
	Mount("/dev/sdd", "/f", "ext2");
	machine.Disk("sde");
	Mount("/dev/sde", "/g", "fuseblk");
	machine.Disk("sr0", {.bus = kit::Bus::Optical});
	Mount("/dev/sr0", "/h", "iso9660");
	EXPECT_EQ(VolumeLines(), (Strings{"/a btrfs 3 /dev/sda1", "/b ext4 1 /dev/sda2", "/c xfs 2 /dev/sdb1",
	                                  "/d vfat 0 /dev/sdb2", "/e ext3 1 /dev/sdc", "/f ext2 1 /dev/sdd",
	                                  "/g fuseblk 0 /dev/sde", "/h iso9660 0 /dev/sr0"}));
}

TEST_F(Mounts, AreFilteredByTypeCode)
{
	Mount("/dev/sda1", "/a", "btrfs");
	Mount("/dev/sda2", "/b", "ext4");
	Mount("/dev/sdb1", "/c", "vfat");
	EXPECT_EQ(VolumeLines(ZEVO_FS_BTRFS), (Strings{"/a btrfs 3 /dev/sda1"}));
	EXPECT_EQ(VolumeLines(ZEVO_FS_EXT), (Strings{"/b ext4 1 /dev/sda2"}));
	EXPECT_EQ(VolumeLines(ZEVO_FS_XFS), Strings());
}

TEST_F(Mounts, AreInByteOrderOfTheirPaths)
{
	Mount("/dev/sdb2", "/", "ext4");
	Mount("/dev/sda1", "/volume2", "ext4");
	Mount("/dev/sda2", "/volume10", "ext4");
	Mount("/dev/sdb1", "/Volume", "ext4");
	ExpectInAnyOrder({"/ ext4 1 /dev/sdb2", "/Volume ext4 1 /dev/sdb1", "/volume10 ext4 1 /dev/sda2",
	                  "/volume2 ext4 1 /dev/sda1"});
}

TEST_F(Mounts, AreNotEscaped)
{
	Mount("/dev/sda1", "/with blank\tand\nlines\\040", "ext4");
	machine.Dm("dm-0", "odd name#1", "", {"sda2"}, {});
	Mount("/dev/mapper/odd name#1", "/z\xC3\xA9", "ext4");
	EXPECT_EQ(VolumeLines(), (Strings{"/with blank\tand\nlines\\040 ext4 1 /dev/sda1",
	                                  "/z\xC3\xA9 ext4 1 /dev/mapper/odd name#1"}));
	EXPECT_NE(machine.MountLines().front().find("/with\\040blank\\011and\\012lines\\134040"), std::string::npos);
}

TEST_F(Mounts, OfOneFileSystemAreOneRecordNamedByItsRoot)
{
	Mount("/dev/sda1", "/a", "ext4", {.root = "/home"});
	Mount("/dev/sda1", "/volume1/deep/down", "ext4");
	Mount("/dev/sda1", "/volume1/deep/down/below", "ext4", {.root = "/srv"});
	ExpectInAnyOrder({"/volume1/deep/down ext4 1 /dev/sda1"});
}

TEST_F(Mounts, OfABtrfsAreNamedByTheTopLevelSubvolume)
{
	Subvolume("/@", "/");
	Subvolume("/@home", "/a");
	Subvolume("/", "/volume1/with a long name");
	Subvolume("/folder", "/b");
	ExpectInAnyOrder({"/volume1/with a long name btrfs 3 /dev/sda1"});
}

TEST_F(Mounts, OfABtrfsWithoutItsTopLevelAreNamedByTheShortestPath)
{
	Subvolume("/@data", "/a/deep");
	Subvolume("/@logs", "/z");
	Subvolume("/@home", "/y");
	Subvolume("/@", "/longer");
	ExpectInAnyOrder({"/y btrfs 3 /dev/sda1"});
}

TEST_F(Mounts, OfATopLevelMountedTwiceAreNamedByTheShortestPathToo)
{
	Subvolume("/", "/a/very/deep");
	Subvolume("/", "/volume2");
	Subvolume("/", "/volume1");
	Subvolume("/@", "/v");
	ExpectInAnyOrder({"/volume1 btrfs 3 /dev/sda1"});
}

TEST_F(Mounts, OfTwoFileSystemsAreTwoRecords)
{
	Subvolume("/", "/volume1");
	Mount("/dev/sdb1", "/volume2", "btrfs");
	Mount("/dev/sdb1", "/volume1/archive", "btrfs", {.root = "/@archive"});
	ExpectInAnyOrder({"/volume1 btrfs 3 /dev/sda1", "/volume2 btrfs 3 /dev/sdb1"});
}

TEST_F(Mounts, ThatAreMountedOverAreLeftOut)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/volume1", "ext4");
	Mount("/dev/sda2", "/volume1", "ext4");
	Mount("/dev/sdb1", "/volume1", "ext4");
	ExpectInAnyOrder({"/volume1 ext4 1 /dev/sdb1"});
}

TEST_F(Mounts, HiddenByWhatIsNoVolumeAreLeftOut)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/volume1", "ext4");
	Mount("none", "/volume1", "tmpfs");
	Mount("/dev/sda2", "/mnt/a", "ext4");
	Mount("none", "/mnt", "tmpfs");
	ExpectInAnyOrder({});
}

TEST_F(Mounts, BelowAFolderThatIsMountedOverAreLeftOut)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/mnt/far/below", "ext4");
	Mount("/dev/sda2", "/mnt", "ext4");
	Mount("/dev/sdb1", "/mnt/far", "ext4");
	ExpectInAnyOrder({"/mnt ext4 1 /dev/sda2", "/mnt/far ext4 1 /dev/sdb1"});
}

TEST_F(Mounts, OnAHiddenMountAreLeftOut)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/volume1", "ext4");
	Mount("/dev/sda2", "/volume1/a", "ext4");
	Mount("/dev/sdb1", "/volume1/a/b", "ext4");
	Mount("/dev/sdb2", "/volume1", "ext4");
	ExpectInAnyOrder({"/volume1 ext4 1 /dev/sdb2"});
}

TEST_F(Mounts, OnTheMountThatHidesStay)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/volume1", "ext4");
	Mount("/dev/sda2", "/volume1", "ext4");
	Mount("/dev/sdb1", "/volume1/a", "ext4");
	ExpectInAnyOrder({"/volume1 ext4 1 /dev/sda2", "/volume1/a ext4 1 /dev/sdb1"});
}

TEST_F(Mounts, BesideAMountOfALongerNameAreNotHiddenByIt)
{
	Mount("none", "/", "tmpfs");
	Mount("/dev/sda1", "/volume10", "ext4");
	Mount("/dev/sda2", "/volume1", "ext4");
	Mount("/dev/sdb1", "/volume1/x", "ext4");
	Mount("/dev/sdb2", "/volume", "ext4");
	ExpectInAnyOrder({"/volume ext4 1 /dev/sdb2", "/volume1 ext4 1 /dev/sda2", "/volume1/x ext4 1 /dev/sdb1",
	                  "/volume10 ext4 1 /dev/sda1"});
}

TEST_F(Mounts, ThatAreHiddenDoNotNameAFileSystem)
{
	Mount("none", "/", "tmpfs");
	Subvolume("/", "/volume1");
	Subvolume("/@data", "/srv/data");
	Mount("/dev/sda2", "/volume1", "ext4");
	ExpectInAnyOrder({"/srv/data btrfs 3 /dev/sda1", "/volume1 ext4 1 /dev/sda2"});
}

// The first root file system of a kernel that runs from an initial RAM disk stands on itself.
TEST_F(Mounts, OnARootThatStandsOnItselfAreThere)
{
	Mount("rootfs", "/", "rootfs", {.id = 1, .parent = 1});
	Mount("/dev/sda1", "/volume1", "ext4", {.id = 30, .parent = 1});
	EXPECT_EQ(VolumeLines(), (Strings{"/volume1 ext4 1 /dev/sda1"}));
}

// A process stays on the root that it has: nothing that is mounted at "/" later is looked up.
TEST_F(Mounts, OnARootThatIsMountedOverAreThereAndTheMountOverItIsNot)
{
	Mount("/dev/sda1", "/", "ext4", {.id = 20, .parent = 1});
	Mount("/dev/sda2", "/volume1", "ext4", {.id = 21, .parent = 20});
	Mount("/dev/sdb1", "/", "ext4", {.id = 22, .parent = 20});
	Mount("/dev/sdb2", "/volume2", "ext4", {.id = 23, .parent = 22});
	EXPECT_EQ(VolumeLines(), (Strings{"/ ext4 1 /dev/sda1", "/volume1 ext4 1 /dev/sda2"}));
}

TEST_F(Mounts, StandingOnWhatTheProcessDoesNotSeeAreThere)
{
	Mount("/dev/sda1", "/", "ext4", {.id = 700, .parent = 650});
	Mount("/dev/sda2", "/volume1", "ext4", {.id = 701, .parent = 700});
	Mount("/dev/sdb1", "/inside", "ext4", {.id = 702, .parent = 99});
	EXPECT_EQ(VolumeLines(),
	          (Strings{"/ ext4 1 /dev/sda1", "/inside ext4 1 /dev/sdb1", "/volume1 ext4 1 /dev/sda2"}));
}

TEST_F(Mounts, WithoutOptionalFieldsOrWithManyAreUnderstood)
{
	machine.SetMountLines({"30 1 8:1 / /a ro - ext4 /dev/sda1 ro",
	                       "31 1 8:2 / /b rw shared:1 master:7 propagate_from:2 unbindable - ext4 /dev/sda2 rw",
	                       "32 1 0:40 / /c rw,relatime shared:3 - btrfs /dev/sdb1 rw,subvolid=5,subvol=/"});
	EXPECT_EQ(VolumeLines(), (Strings{"/a ext4 1 /dev/sda1", "/b ext4 1 /dev/sda2", "/c btrfs 3 /dev/sdb1"}));
}

TEST_F(Mounts, ByTheThousandAreListed)
{
	Mount("none", "/", "tmpfs");
	Strings lines = machine.MountLines();
	for (int i = 0; i < 3000; ++i) {
		const std::string id = std::to_string(1000 + i);
		lines.push_back(id + " 20 8:1 /" + id + " /jail/" + id + " rw - ext4 /dev/sda1 rw");
	}
	machine.SetMountLines(lines);
	EXPECT_EQ(VolumeLines(), (Strings{"/jail/1000 ext4 1 /dev/sda1"}));
}

TEST_F(Mounts, ClearTheErrorWhereTheySucceed)
{
	for (const bool hasVolume : {false, true}) {
		if (hasVolume)
			Mount("/dev/sda1", "/volume1", "ext4");
		VUNKCErrSetEx(VUNKC_ERR_FILE_READ, "old", 1);
		ZEVOMOUNTVOL *const list = ZEVOMountVolInfoEnum(0, 0);
		EXPECT_EQ(list != nullptr, hasVolume);
		EXPECT_EQ(VUNKCErrGet(), 0);
		ZEVOMountVolInfoFree(list);
	}
}

TEST_F(Mounts, RefuseArgumentsOutOfRange)
{
	Mount("/dev/sda1", "/volume1", "ext4");
	for (const auto &[type, flags] : {std::pair(-1, 0), {4, 0}, {0, 1}, {0, -1}, {ZEVO_FS_EXT, 0x80}}) {
		SetOldCode();
		EXPECT_EQ(ZEVOMountVolInfoEnum(type, flags), nullptr);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << type << " " << flags;
	}
}

TEST_F(Mounts, FailWhereThereIsNoTable)
{
	Strings volumes;
	Strings spaces;
	{
		const MountPoint noProcesses("none", "/proc", "tmpfs");
		volumes = VolumeLines();
		spaces = SpaceLines();
	}
	EXPECT_EQ(volumes, (Strings{"failed 0x0A00 /proc/thread-self/mountinfo"}));
	EXPECT_EQ(spaces, (Strings{"failed 0x0A00 /proc/thread-self/mountinfo"}));
}

TEST_F(Mounts, FailWhereTheTableCannotBeRead)
{
	// A file that can be opened, and whose first page nobody has.
	const MountPoint unreadable("/proc/self/mem",
	                            "/proc/" + std::to_string(getpid()) + "/task/" + std::to_string(gettid()) +
	                                    "/mountinfo",
	                            nullptr, MS_BIND);
	EXPECT_EQ(VolumeLines(), (Strings{"failed 0x0A00 /proc/thread-self/mountinfo"}));
	EXPECT_EQ(SpaceLines(), (Strings{"failed 0x0A00 /proc/thread-self/mountinfo"}));
}
