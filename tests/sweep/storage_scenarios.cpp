// The storage library's own functions, and a profile whose sections need them, on a machine whose volumes cannot be told
// apart by a glance: wherever a read fails, a rotating disk must not be overlooked.

#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/lab.h"
#include "kit/machine.h"
#include "kit/system_calls.h"

#include <vunkcore/list.h>
#include <zevostorage/zevostorage.h>
#include <zevotuned/apply.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>

namespace {

namespace fs = std::filesystem;

/// A mounted Btrfs file system.
struct Volume {
	const char *path;
	const char *uuid;
	const char *source;
	std::vector<std::string> devices;
	std::vector<std::string> disks; // that it lies on
	bool isOnSSDs;
};

const std::vector<Volume> &Volumes()
{
	static const std::vector<Volume> volumes = {
		{"/run/volume1",
	         "11111111-0000-4000-8000-0000000000aa",
	         "/dev/mapper/vg1-mixed",
	         {"dm-1"},
	         {"/dev/sda", "/dev/sdc"},
	         false}, // two physical volumes, the second of which rotates
		{"/run/volume2",
	         "22222222-0000-4000-8000-0000000000bb",
	         "/dev/mapper/vg1-fast",
	         {"dm-0"},
	         {"/dev/sda", "/dev/sdb", "/dev/sdd"},
	         true}, // an array and a disk
		{"/run/volume3",
	         "33333333-0000-4000-8000-0000000000cc",
	         "/dev/sda6",
	         {"sda6", "sdc2"},
	         {"/dev/sda", "/dev/sdc"},
	         false}, // two devices, one of which is named by the mount
		{"/run/volume4",
	         "44444444-0000-4000-8000-0000000000dd",
	         "/dev/mapper/vg1-cached",
	         {"dm-2"},
	         {"/dev/sdc"},
	         false}, // cached on SSDs
	};
	return volumes;
}

std::string Attribute(const Volume &volume)
{
	return std::string("/sys/fs/btrfs/") + volume.uuid + "/zevo_writeback_thread_max";
}

std::string Queue(const std::string &disk, const std::string &file)
{
	return "/sys/block/" + disk + "/queue/" + file;
}

constexpr char kSchedulers[] = "[mq-deadline] none";

std::unique_ptr<kit::Machine> machine;
std::unique_ptr<VUNKSZLIST, decltype(&VUNKCSzListFree)> disks(nullptr, VUNKCSzListFree);

void AddDisks()
{
	const std::map<std::string, std::vector<int>> partitions = {
		{"sda", {1, 5, 6}}, {"sdb", {1, 2, 5, 6}}, {"sdc", {1, 2, 5}}, {"sdd", {1}}};
	for (const auto &[disk, numbers] : partitions) {
		kit::DiskOptions options;
		options.rotating = disk == "sdc";
		options.schedulers = kSchedulers;
		options.tunables = {{"slice_idle", "8"}};
		machine->Disk(disk, options);
		for (const int number : numbers)
			machine->Partition(disk, number);
	}
	machine->Md("md2", "raid1", {"sda5", "sdb5"});
	machine->Dm("dm-0", "vg1-fast", "LVM-fast", {"md2", "sdd1"},
	            {"0 2048 linear 9:2 0", "2048 2048 linear 8:49 0"});
	machine->Dm("dm-1", "vg1-mixed", "LVM-mixed", {"sda1", "sdc1"},
	            {"0 2048 linear 8:1 0", "2048 2048 linear 8:33 0"});
	machine->Dm("dm-2", "vg1-cached", "LVM-cached", {"sdb1", "sdb2", "sdc5"},
	            {"0 2048 cache " + machine->Number("sdb1") + " " + machine->Number("sdb2") + " " +
	             machine->Number("sdc5") + " 128 1 writethrough smq 0"});
}

void Finish()
{
	machine.reset();
	disks.reset();
	kit::btrfsFolders.clear();
	for (const Volume &volume : Volumes())
		fs::remove(volume.path);
}

void Prepare()
{
	Finish();
	machine = std::make_unique<kit::Machine>();
	kit::btrfsPaths = nullptr; // the library's own look at a file system is among what fails
	AddDisks();
	machine->Mount("/dev/sdb6", "/", "ext4");
	for (const Volume &volume : Volumes()) {
		machine->Btrfs(volume.uuid, volume.devices, {{}, {{"zevo_writeback_thread_max", "0"}}});
		machine->Mount(volume.source, volume.path, "btrfs");
		fs::create_directories(volume.path);
		kit::btrfsFolders.push_back({volume.path, volume.uuid});
	}
	kit::Install(kit::kShippedDir, "p",
	             "[main]\nname=p\n[volume]\nzevo_writeback_thread_max=1\n[raid_cfq_default]\nslice_idle=0\n"
	             "[disk]\nssd_scheduler=none\n");
	disks.reset(VUNKCSzListAlloc(1024));
}

/// A file in /sys is what it was or what the profile makes it.
void ExpectOldOrNew(const std::string &path, const std::string &before, bool mayChange, const std::string &written)
{
	std::string after = before;
	after.replace(0, written.size(), written); // the file keeps what the kernel would not
	const std::string now = kit::ReadFile(path);
	EXPECT_TRUE(now == before || (mayChange && now == after)) << path << ": " << now;
}

/// Right values in the right places, or none.
void CheckWritten()
{
	for (const Volume &volume : Volumes())
		ExpectOldOrNew(Attribute(volume), "0\n", volume.isOnSSDs, "1");
	for (const std::string disk : {"sda", "sdb", "sdc", "sdd"}) {
		const bool isMember = disk == "sda" || disk == "sdb";
		ExpectOldOrNew(Queue(disk, "iosched/slice_idle"), "8\n", isMember, "0");
		ExpectOldOrNew(Queue(disk, "scheduler"), std::string(kSchedulers) + "\n", disk != "sdc", "none");
	}
}

int CountVolumes()
{
	VUNKCErrSetEx(0, "", 0);
	ZEVOMOUNTVOL *const list = ZEVOMountVolInfoEnum(0, 0);
	int count = VUNKCErrGet() == 0 ? 0 : -1;
	if (count < 0) {
		EXPECT_EQ(list, nullptr);
	}
	for (const ZEVOMOUNTVOL *volume = list; volume != nullptr; volume = volume->pNext)
		++count;
	ZEVOMountVolInfoFree(list);
	return count;
}

/// Appends the disks of a volume to the list. -1, and the list as it was, or the number of disks, which are the right ones.
int AppendDisksOf(ZEVOSPACEINFO *spaces, const Volume &volume)
{
	ZEVOSPACESEARCH search = {};
	search.szVolPath = volume.path;
	ZEVOSPACEINFO *space = nullptr;
	const int result = ZEVOSpaceInfoSearch(spaces, &search, &space);
	if (result <= 0) // 0: its file system could not be told
		return result;
	VUNKSZLIST *list = disks.release();
	const int before = list->nItem;
	const int count = ZEVOSpaceDiskEnum(space, &list);
	disks.reset(list);
	EXPECT_EQ(list->nItem, before + std::max(count, 0));
	std::vector<std::string> found;
	for (int i = before; i < list->nItem; ++i)
		found.emplace_back(VUNKCSzListGet(list, i));
	if (count >= 0) {
		EXPECT_EQ(found, volume.disks) << volume.path;
	}
	return count;
}

int CountDisksOfVolumes()
{
	ZEVOSPACEINFO *spaces = nullptr;
	int sum = ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &spaces);
	if (sum != 0) {
		EXPECT_EQ(spaces, nullptr);
	}
	for (const Volume &volume : Volumes()) {
		if (sum < 0)
			break;
		const int count = AppendDisksOf(spaces, volume);
		sum = count < 0 ? -1 : sum + count;
	}
	ZEVOSpaceInfoFree(spaces);
	return sum;
}

int CountDisks()
{
	const DISKFILTER filter = {0x2F};
	DISKINFO *list = nullptr;
	const int result = DiskInfoEnum(&filter, &list);
	int count = 0;
	for (const DISKINFO *disk = list; disk != nullptr; disk = disk->pNext)
		++count;
	EXPECT_EQ(count, std::max(result, 0));
	DiskInfoEnumFree(list);
	return result;
}

int CountMembers()
{
	RAIDLIST *list = nullptr;
	int result = RAIDInfoEnum(&list);
	if (result < 0) {
		EXPECT_EQ(list, nullptr);
	}
	for (const RAIDLIST *node = list; node != nullptr; node = node->pNext)
		for (const RAIDMEMBER *member = node->pRaid->pMembers; member != nullptr; member = member->pNext)
			++result;
	RAIDListFree(list);
	return result;
}

int NameDisk()
{
	char name[64] = "as it was";
	const int result = DiskPartitionNumRemove("/dev/sda5", name, sizeof(name));
	EXPECT_STREQ(name, result == 0 ? "/dev/sda" : "as it was");
	return result;
}

int NameFileSystem()
{
	const Volume &volume = Volumes().front();
	char uuid[40] = "as it was";
	const int result = ZEVOFSGetBTRFSUuid(volume.path, uuid, sizeof(uuid));
	EXPECT_STREQ(uuid, result == 0 ? volume.uuid : "as it was");
	return result;
}

int TellRotatingDisk()
{
	const int result = ZEVODiskIsSSD("/dev/sdc5");
	EXPECT_NE(result, 1);
	return result;
}

Scenario Unchanging(const std::string &name, const std::function<int()> &call, int result)
{
	return {name, Prepare, call, result, false, {"/sys/fs", "/sys/devices"}, {}, Finish};
}

} // namespace

std::vector<Scenario> StorageScenarios()
{
	return {
		{"apply_storage",
	         Prepare,
	         [] { return TuneApplyProfile("p"); },
	         0,
	         false,
	         {"/sys/fs", "/sys/devices"},
	         CheckWritten,
	         Finish},
		Unchanging("storage_volumes", CountVolumes, 5),
		Unchanging("storage_disks_of_volumes", CountDisksOfVolumes, 8),
		Unchanging("storage_disks", CountDisks, 4),
		Unchanging(
			"storage_is_ssd", [] { return ZEVODiskIsSSD("/dev/sda5"); }, 1),
		Unchanging("storage_is_rotating", TellRotatingDisk, 0),
		Unchanging("storage_disk_of_partition", NameDisk, 0),
		Unchanging("storage_arrays", CountMembers, 3),
		Unchanging("storage_btrfs_uuid", NameFileSystem, 0),
		Unchanging(
			"storage_type_of_file_system", [] { return ZEVOGetFSType("/run/volume1", 0); }, ZEVO_FS_BTRFS),
	};
}
