#ifndef SUPPORT_STORAGE_HANDLES_H
#define SUPPORT_STORAGE_HANDLES_H

// Owners of the storage library's lists, and what its records mean.

#include "support/handles.h"

#include <zevostorage/disk.h>
#include <zevostorage/mount.h>
#include <zevostorage/raid.h>
#include <zevostorage/space.h>

using VolumeList = Handle<ZEVOMOUNTVOL, ZEVOMountVolInfoFree>;
using SpaceList = Handle<ZEVOSPACEINFO, ZEVOSpaceInfoFree>;
using ArrayList = Handle<RAIDLIST, RAIDListFree>;
using DiskList = Handle<DISKINFO, DiskInfoEnumFree>;

// The name by which people know the device of a space.
inline const char *DeviceOf(const ZEVOSPACEINFO *pSpace)
{
	return *pSpace->szAltDevice != '\0' ? pSpace->szAltDevice : pSpace->szDevice;
}

#endif
