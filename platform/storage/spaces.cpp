#include "storage/block_device.h"
#include "storage/devices.h"
#include "storage/failure.h"
#include "storage/list_owner.h"
#include "storage/mounts.h"
#include "storage/records.h"

#include <zevostorage/space.h>

#include <cstring>

namespace {

struct SpaceRecord : ZEVOSPACEINFO {
	SpaceRecord(const std::string &volumePath, const zevos::VolumeDevices &devices)
		: ZEVOSPACEINFO(), path(volumePath), device(zevos::DeviceName(devices.device)),
		  altDevice(zevos::MapperPath(devices.device).value_or("")), uuid(devices.uuid)
	{
		szDevice = device.c_str();
		szAltDevice = altDevice.c_str();
		szVolPath = path.c_str();
		szUuid = uuid.c_str();
	}

	const std::string path;
	const std::string device;
	const std::string altDevice;
	const std::string uuid;
};
using SpaceList = zevos::RecordList<ZEVOSPACEINFO, SpaceRecord>;

/// Appends the strings or, on failure, none. False on failure, with the error set.
bool PushAll(VUNKSZLIST **ppsl, const zevos::Names &strings)
{
	zevos::ListOwner extended(VUNKCSzListAlloc(1024));
	const auto push = [&extended](const char *string) {
		VUNKSZLIST *list = extended.release();
		const bool pushed = VUNKCSzListPush(&list, string) >= 0;
		extended.reset(list);
		return pushed;
	};
	if (extended == nullptr)
		return false;
	for (int i = 0; i < (*ppsl)->nItem; ++i)
		if (!push(VUNKCSzListGet(*ppsl, i)))
			return false;
	for (const std::string &string : strings)
		if (!push(string.c_str()))
			return false;
	extended.reset(std::exchange(*ppsl, extended.release()));
	return true;
}

} // namespace

int ZEVOSpaceInfoEnum(int iKind, ZEVOSPACEINFO **ppList)
{
	if (iKind != ZEVO_SPACE_MOUNTED || ppList == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		SpaceList list;
		zevos::DeviceFinder finder;
		for (const zevos::Volume &volume : zevos::MountedVolumes())
			if (const std::optional<zevos::VolumeDevices> devices = finder.DevicesOf(volume))
				list.Append(std::make_unique<SpaceRecord>(volume.path, *devices));
		*ppList = list.Release();
		return 0;
	});
}

int ZEVOSpaceInfoSearch(ZEVOSPACEINFO *pList, const ZEVOSPACESEARCH *pSearch, ZEVOSPACEINFO **ppSpace)
{
	if (pSearch == nullptr || pSearch->szVolPath == nullptr || ppSpace == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	for (ZEVOSPACEINFO *space = pList; space != nullptr; space = space->pNext) {
		if (strcmp(space->szVolPath, pSearch->szVolPath) == 0) {
			*ppSpace = space;
			return 1;
		}
	}
	return 0;
}

void ZEVOSpaceInfoFree(ZEVOSPACEINFO *pList)
{
	SpaceList::Free(pList);
}

int ZEVOSpaceDiskEnum(const ZEVOSPACEINFO *pSpace, VUNKSZLIST **ppslDisks)
{
	if (pSpace == nullptr || ppslDisks == nullptr || *ppslDisks == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		zevos::Names disks = zevos::DisksBelow(zevos::DevicesOfSpace(*pSpace));
		if (disks.empty())
			return vunkc::FailAt(-1, ZEVO_ERR_NO_DEVICE, pSpace->szDevice, 0);
		for (std::string &disk : disks)
			disk = zevos::DeviceName(disk);
		return PushAll(ppslDisks, disks) ? static_cast<int>(disks.size()) : -1;
	});
}
