#include "devices.h"

#include "error_text.h"
#include "failure.h"

#include "support/storage_handles.h"

#include <vunkcore/error.h>

#include <algorithm>
#include <new>

namespace {

constexpr unsigned kAllTypes =
	DISK_TYPE_SATA | DISK_TYPE_SAS | DISK_TYPE_NVME | DISK_TYPE_VIRTUAL | DISK_TYPE_EXTERNAL | DISK_TYPE_EMMC;

void RequireListed(bool listed, const char *what)
{
	if (!listed)
		throw Failure(std::string("cannot list the ") + what + ": " + ErrorText());
}

std::vector<std::string> TextsOf(const List &list)
{
	std::vector<std::string> texts;
	texts.reserve(static_cast<size_t>(list.Count()));
	for (int i = 0; i < list.Count(); ++i)
		texts.emplace_back(list.Get(i));
	return texts;
}

List NewList()
{
	List list;
	if (!list)
		throw std::bad_alloc();
	return list;
}

std::optional<bool> IsSsd(const std::string &disk, std::string &error)
{
	ForgetErrors();
	const int ssd = ZEVODiskIsSSD(disk.c_str());
	if (ssd >= 0)
		return ssd == 1;
	error = ReasonInPlace();
	return std::nullopt;
}

// Members are named by their kernel names, in which "!" stands for the "/" of the device's name.
std::string DeviceName(std::string name)
{
	std::replace(name.begin(), name.end(), '!', '/');
	return name;
}

std::optional<std::vector<VolumeDisk>> DisksOf(const ZEVOSPACEINFO &space, std::string &error)
{
	List names = NewList();
	ForgetErrors();
	if (ZEVOSpaceDiskEnum(&space, names.out()) < 0) {
		error = ReasonInPlace();
		return std::nullopt;
	}
	std::vector<VolumeDisk> disks;
	for (const std::string &name : TextsOf(names)) {
		VolumeDisk &disk = disks.emplace_back();
		disk.device = name;
		disk.ssd = IsSsd(name, disk.error);
	}
	return disks;
}

Volume Examine(const ZEVOMOUNTVOL &mounted, const SpaceList &spaces)
{
	Volume volume;
	volume.path = mounted.szVolPath;
	volume.fileSystem = mounted.szFsName;
	volume.btrfs = mounted.iFsType == ZEVO_FS_BTRFS;
	volume.device = mounted.szSource;

	ZEVOSPACESEARCH search{};
	search.szVolPath = mounted.szVolPath;
	ZEVOSPACEINFO *space = nullptr;
	ForgetErrors();
	const int found = ZEVOSpaceInfoSearch(spaces.get(), &search, &space);
	if (found <= 0) {
		volume.error = found < 0 ? ReasonInPlace() : "its disk is gone, or it has just been unmounted";
		return volume;
	}
	volume.device = space->szDevice;
	volume.alternativeDevice = space->szAltDevice;
	volume.uuid = space->szUuid;
	volume.disks = DisksOf(*space, volume.error);
	return volume;
}

ArrayMember Examine(const RAIDMEMBER &record)
{
	ArrayMember member;
	member.device = DeviceName(record.szDevice);
	char disk[256];
	ForgetErrors();
	if (DiskPartitionNumRemove(record.szDevice, disk, sizeof(disk)) == 0)
		member.disk = DeviceName(disk);
	else
		member.error = ReasonInPlace();
	return member;
}

Array Examine(const RAIDINFO &record)
{
	Array array;
	array.device = record.szDevice;
	array.level = record.szLevel;
	array.levelFlag = record.fLevel;
	array.diskCount = record.nDisk;
	for (const RAIDMEMBER *member = record.pMembers; member != nullptr; member = member->pNext)
		array.members.push_back(Examine(*member));
	ReadArrayState(array);
	return array;
}

Disk Examine(const DISKINFO &record)
{
	Disk disk;
	disk.device = record.szDevice;
	disk.kernelName = record.szKernelName;
	disk.type = record.uType;
	disk.ssd = IsSsd(disk.device, disk.ssdError);
	disk.queue = ReadQueue(disk.kernelName);
	return disk;
}

std::vector<Volume> CollectVolumes()
{
	ForgetErrors();
	const VolumeList mounted(ZEVOMountVolInfoEnum(0, 0));
	RequireListed(VUNKCErrGet() == VUNKC_ERR_NONE, "volumes");
	SpaceList spaces(nullptr);
	RequireListed(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) >= 0, "volumes' devices");

	std::vector<Volume> volumes;
	for (const ZEVOMOUNTVOL *record = mounted.get(); record != nullptr; record = record->pNext)
		volumes.push_back(Examine(*record, spaces));
	return volumes;
}

std::vector<Array> CollectArrays()
{
	ArrayList records(nullptr);
	ForgetErrors();
	RequireListed(RAIDInfoEnum(records.out()) >= 0, "RAID arrays");

	std::vector<Array> arrays;
	for (const RAIDLIST *node = records.get(); node != nullptr; node = node->pNext)
		arrays.push_back(Examine(*node->pRaid));
	return arrays;
}

std::vector<Disk> CollectDisks()
{
	const DISKFILTER filter{kAllTypes};
	DiskList records(nullptr);
	ForgetErrors();
	RequireListed(DiskInfoEnum(&filter, records.out()) >= 0, "disks");

	std::vector<Disk> disks;
	for (const DISKINFO *record = records.get(); record != nullptr; record = record->pNext)
		disks.push_back(Examine(*record));
	return disks;
}

} // namespace

Machine ExamineMachine()
{
	return {CollectVolumes(), CollectArrays(), CollectDisks()};
}
