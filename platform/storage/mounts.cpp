#include "storage/mounts.h"

#include "storage/failure.h"
#include "storage/mount_table.h"
#include "storage/records.h"

#include <zevostorage/mount.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <tuple>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace zevos {

namespace {

constexpr std::string_view kBtrfs = "btrfs";

int TypeCode(std::string_view fsName)
{
	if (fsName == kBtrfs)
		return ZEVO_FS_BTRFS;
	if (fsName == "ext4" || fsName == "ext3" || fsName == "ext2")
		return ZEVO_FS_EXT;
	return fsName == "xfs" ? ZEVO_FS_XFS : ZEVO_FS_OTHER;
}

/// Of Btrfs, whose file systems may have several devices, the kernel shows no device's number. Other file systems that it
/// gives such numbers to (major 0) lie on no device of this machine.
bool IsOnBlockDevice(const Mount &mount)
{
	return major(mount.device) != 0 || mount.fsName == kBtrfs;
}

bool IsFolder(const std::string &path)
{
	struct stat status;
	return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// The mount that a file system is known by.
const Mount &BestOf(const std::vector<const Mount *> &mounts)
{
	const bool hasRoot =
		std::any_of(mounts.begin(), mounts.end(), [](const Mount *mount) { return mount->root == "/"; });
	using Rank = std::tuple<bool, size_t, std::string_view>; // the smallest is the best
	std::map<Rank, const Mount *> ranked;
	for (const Mount *mount : mounts) {
		const bool isLess = hasRoot ? mount->root != "/" : !IsFolder(mount->path);
		ranked.emplace(Rank(isLess, mount->path.size(), mount->path), mount);
	}
	return *ranked.begin()->second;
}

struct VolumeRecord : ZEVOMOUNTVOL {
	explicit VolumeRecord(Volume &&mounted) : ZEVOMOUNTVOL(), volume(std::move(mounted))
	{
		iFsType = TypeCode(volume.fsName);
		szFsName = volume.fsName.c_str();
		szVolPath = volume.path.c_str();
		szSource = volume.source.c_str();
	}
	const Volume volume;
};
using VolumeList = RecordList<ZEVOMOUNTVOL, VolumeRecord>;

} // namespace

bool IsBtrfs(const Volume &volume)
{
	return volume.fsName == kBtrfs;
}

std::vector<Volume> MountedVolumes()
{
	const std::vector<Mount> mounts = ReadReachableMounts();
	std::map<dev_t, std::vector<const Mount *>> fileSystems;
	for (const Mount &mount : mounts)
		if (IsOnBlockDevice(mount))
			fileSystems[mount.device].push_back(&mount);
	std::vector<Volume> volumes;
	volumes.reserve(fileSystems.size());
	for (const auto &[device, itsMounts] : fileSystems) {
		const Mount &best = BestOf(itsMounts);
		volumes.push_back({best.path, best.fsName, best.source, device});
	}
	std::sort(volumes.begin(), volumes.end(),
	          [](const Volume &first, const Volume &second) { return first.path < second.path; });
	return volumes;
}

} // namespace zevos

ZEVOMOUNTVOL *ZEVOMountVolInfoEnum(int iFsType, int iFlags)
{
	if (iFsType < ZEVO_FS_OTHER || iFsType > ZEVO_FS_BTRFS || iFlags != 0)
		return VUNKC_FAIL(nullptr, VUNKC_ERR_BAD_ARGUMENT);
	ZEVOMOUNTVOL *const failed = nullptr;
	return ZEVOS_GUARD(failed, [&]() -> ZEVOMOUNTVOL * {
		zevos::VolumeList list;
		for (zevos::Volume &volume : zevos::MountedVolumes()) {
			auto record = std::make_unique<zevos::VolumeRecord>(std::move(volume));
			if (iFsType == 0 || record->iFsType == iFsType)
				list.Append(std::move(record));
		}
		VUNKCErrSetEx(VUNKC_ERR_NONE, nullptr, 0);
		return list.Release();
	});
}

void ZEVOMountVolInfoFree(ZEVOMOUNTVOL *pList)
{
	zevos::VolumeList::Free(pList);
}
