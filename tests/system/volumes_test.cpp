// [volume] on file systems and block devices of the real kernel. The attribute that only an appliance's kernel has stands
// beside the real ones, in the lab's /sys.

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/loop_device.h"
#include "kit/machine.h"

#include <vunkcore/error.h>
#include <vunkcore/list.h>
#include <zevostorage/zevostorage.h>
#include <zevotuned/zevotuned.h>

#include <memory>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>

namespace fs = std::filesystem;

namespace {

constexpr long long kSize = 256 << 20;

class VolumesTest : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		// One of the test's own: an overlay takes a device that has gone and come back for a stale one.
		fs::create_directory(folder.Path("upper"));
		fs::create_directory(folder.Path("work"));
		sys = std::make_unique<kit::MountPoint>("overlay", "/sys", "overlay", 0,
		                                        ("lowerdir=/run/lab/kernel-sys,upperdir=" +
		                                         folder.Path("upper") + ",workdir=" + folder.Path("work"))
		                                                .c_str());
	}

	void TearDown() override
	{
		sys.reset();
		mounts.clear();
		devices.clear();
		kit::LabTest::TearDown();
	}

	/// A loop device of which the kernel says that it is an SSD, or not.
	kit::LoopDevice &Device(bool rotating)
	{
		devices.push_back(std::make_unique<kit::LoopDevice>(kSize));
		kit::WriteFile(devices.back()->Queue() + "/rotational", rotating ? "1" : "0");
		return *devices.back();
	}

	std::string Mount(const std::string &device, const std::string &name, const std::string &fsType,
	                  const std::string &options = "")
	{
		const std::string path = folder.Path(name);
		fs::create_directory(path);
		mounts.push_back(std::make_unique<kit::MountPoint>(device, path, fsType.c_str(), 0, options.c_str()));
		return path;
	}

	std::string MakeBtrfs(const std::string &name, const std::vector<bool> &rotating)
	{
		std::vector<std::string> command = {"mkfs.btrfs", "-q", "-f"};
		for (const bool disk : rotating)
			command.push_back(Device(disk).Path());
		if (rotating.size() > 1)
			command.insert(command.begin() + 1, {"-d", "raid1", "-m", "raid1"});
		kit::RunProgram(command);
		return Mount(command.back(), name, "btrfs", OtherDevices(rotating.size()));
	}

	/// Without udev nobody tells the kernel which devices belong together; naming them does.
	std::string OtherDevices(size_t count) const
	{
		std::string options;
		for (size_t i = devices.size() - count; i < devices.size(); ++i)
			options += (options.empty() ? "device=" : ",device=") + devices[i]->Path();
		return options;
	}

	static std::string Attribute(const std::string &volume)
	{
		char uuid[ZEVO_UUID_SIZE] = "";
		EXPECT_EQ(ZEVOFSGetBTRFSUuid(volume.c_str(), uuid, sizeof(uuid)), 0);
		return "/sys/fs/btrfs/" + std::string(uuid) + "/zevo_writeback_thread_max";
	}

	/// The disks of the space that holds a volume.
	static std::set<std::string> DisksOf(const std::string &volume)
	{
		ZEVOSPACEINFO *spaces = nullptr;
		ZEVOSPACEINFO *space = nullptr;
		ZEVOSPACESEARCH search = {};
		search.szVolPath = volume.c_str();
		VUNKSZLIST *disks = VUNKCSzListAlloc(1024);
		std::set<std::string> names;
		EXPECT_EQ(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &spaces), 0);
		EXPECT_EQ(ZEVOSpaceInfoSearch(spaces, &search, &space), 1);
		if (space != nullptr && ZEVOSpaceDiskEnum(space, &disks) > 0)
			for (int i = 0; i < disks->nItem; ++i)
				names.insert(VUNKCSzListGet(disks, i));
		VUNKCSzListFree(disks);
		ZEVOSpaceInfoFree(spaces);
		return names;
	}

	/// Gives every mounted Btrfs, also those of the machine that this runs on, the attribute.
	static void AddAttributes()
	{
		for (const auto &entry : fs::directory_iterator("/sys/fs/btrfs"))
			if (fs::exists(entry.path() / "devices"))
				kit::WriteFile(entry.path() / "zevo_writeback_thread_max", "untouched");
	}

	kit::TempDir folder;
	std::unique_ptr<kit::MountPoint> sys;
	std::vector<std::unique_ptr<kit::LoopDevice>> devices;
	std::vector<std::unique_ptr<kit::MountPoint>> mounts; // unmounted before their devices go
};

void Apply(const std::string &value)
{
	kit::Install(kit::kShippedDir, "v", "[main]\nname=v\n[volume]\nzevo_writeback_thread_max=" + value + "\n");
	const kit::Journal journal;
	EXPECT_EQ(TuneApplyProfile("v"), 0);
	EXPECT_EQ(journal.Lines(), std::vector<std::string>());
}

TEST_F(VolumesTest, TheLimitIsSetOnBtrfsOnSSDsAlone)
{
	const std::string ssd = MakeBtrfs("ssd", {false});
	const std::string rotating = MakeBtrfs("rotating", {true});
	const std::string mixed = MakeBtrfs("mixed", {false, true});
	const std::string both = MakeBtrfs("both", {false, false});
	kit::LoopDevice &plain = Device(false);
	kit::RunProgram({"mkfs.ext4", "-q", plain.Path()});
	Mount(plain.Path(), "ext4", "ext4");
	AddAttributes();

	Apply("1");
	EXPECT_EQ(kit::ReadFile(Attribute(ssd)).substr(0, 1), "1");
	EXPECT_EQ(kit::ReadFile(Attribute(both)).substr(0, 1), "1");
	EXPECT_EQ(kit::ReadFile(Attribute(rotating)), "untouched");
	EXPECT_EQ(kit::ReadFile(Attribute(mixed)), "untouched");

	AddAttributes();
	Apply("1000000");
	const std::string processors = std::to_string(get_nprocs());
	EXPECT_EQ(kit::ReadFile(Attribute(ssd)).substr(0, processors.size()), processors);
	EXPECT_EQ(kit::ReadFile(Attribute(rotating)), "untouched");
}

TEST_F(VolumesTest, AVolumeThatIsMountedManyTimesIsOneVolumeAtItsTopLevel)
{
	const std::string top = MakeBtrfs("the top", {false});
	kit::RunProgram({"btrfs", "-q", "subvolume", "create", top + "/sub"});
	Mount(devices.back()->Path(), "s", "btrfs", "subvol=/sub");
	kit::WriteFile(top + "/folder/file", "text");

	ZEVOMOUNTVOL *const volumes = ZEVOMountVolInfoEnum(ZEVO_FS_BTRFS, 0);
	int found = 0;
	for (const ZEVOMOUNTVOL *volume = volumes; volume != nullptr; volume = volume->pNext) {
		if (volume->szSource != devices.back()->Path())
			continue;
		++found;
		EXPECT_EQ(volume->szVolPath, top);
		EXPECT_EQ(volume->iFsType, 3);
	}
	EXPECT_EQ(found, 1);
	EXPECT_EQ(VUNKCErrGet(), 0);
	ZEVOMountVolInfoFree(volumes);

	for (const std::string &path : {top, top + "/folder", top + "/folder/file", folder.Path("s")}) {
		EXPECT_EQ(ZEVOGetFSType(path.c_str(), 0), ZEVO_FS_BTRFS) << path;
		EXPECT_EQ(Attribute(path), Attribute(top)) << path;
	}
}

TEST_F(VolumesTest, ASpaceLiesOnTheDisksOfAllItsDevices)
{
	const std::string path = MakeBtrfs("two", {false, true});
	EXPECT_EQ(DisksOf(path), (std::set<std::string>{devices[0]->Path(), devices[1]->Path()}));
	EXPECT_EQ(ZEVODiskIsSSD(devices[0]->Path().c_str()), 1);
	EXPECT_EQ(ZEVODiskIsSSD(devices[1]->Path().c_str()), 0);
}

// The kernel goes on showing the name that a device was mounted by, whatever that name stands for by now.
TEST_F(VolumesTest, ANameThatHasBecomeAnotherDevicesDoesNotMakeASpaceLieOnThat)
{
	const std::string node = folder.Path("node");
	kit::LoopDevice &rotating = Device(true);
	kit::LoopDevice &ssd = Device(false);
	kit::RunProgram({"mkfs.btrfs", "-q", "-f", rotating.Path()});
	struct stat status;
	ASSERT_EQ(stat(rotating.Path().c_str(), &status), 0);
	ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, status.st_rdev), 0);
	const std::string volume = Mount(node, "volume", "btrfs");
	fs::remove(node);
	ASSERT_EQ(stat(ssd.Path().c_str(), &status), 0);
	ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, status.st_rdev), 0);
	AddAttributes();

	Apply("1");
	EXPECT_EQ(kit::ReadFile(Attribute(volume)), "untouched");
	EXPECT_EQ(DisksOf(volume), (std::set<std::string>{rotating.Path()}));
}

} // namespace
