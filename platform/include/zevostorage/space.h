#ifndef ZEVOSTORAGE_SPACE_H
#define ZEVOSTORAGE_SPACE_H

/** @file Storage spaces: the devices that a volume lies on, from the mounted one down to the disks. */

#include <vunkcore/list.h>
#include <vunkcore/types.h>
#include <zevostorage/file_system.h>

/** Kinds of spaces that can be listed. */
enum {
	ZEVO_SPACE_MOUNTED = 1 /**< the spaces of mounted volumes */
};

/** A storage space. All texts belong to the record, and none is null. */
typedef struct ZEVOSPACEINFO {
	const char *
		szDevice; /**< the primary device, by its kernel name: "/dev/dm-3"; of a Btrfs on several devices, one */
	const char *szAltDevice; /**< the name that people know the device by: "/dev/mapper/vg1-volume1"; "" if none */
	const char *szVolPath;   /**< where the volume is mounted, as in the list of mounted volumes */
	const char *szUuid;      /**< UUID of a Btrfs file system, in lower case; "" for others */
	struct ZEVOSPACEINFO *pNext; /**< null for the last one */
} ZEVOSPACEINFO;

/** What a space is looked for by. Members that are zero do not matter. */
typedef struct ZEVOSPACESEARCH {
	const char *szVolPath; /**< the path of the volume that it holds */
} ZEVOSPACESEARCH;

VUNKC_BEGIN_DECLS

/**
 * Lists storage spaces, in the order of ZEVOMountVolInfoEnum. A volume whose devices are gone, or cannot be told, has none.
 *
 * @param iKind   ZEVO_SPACE_MOUNTED. Other values are refused.
 * @param ppList  out: the list, to be released with ZEVOSpaceInfoFree; null when there is no space. Left as it was on
 *                failure.
 * @return 0, or -1 on failure: VUNKC_ERR_FILE_READ.
 */
VUNKC_API int ZEVOSpaceInfoEnum(int iKind, ZEVOSPACEINFO **ppList);

/**
 * Finds the space that holds a volume.
 *
 * @param pList    a list, or null for an empty one.
 * @param pSearch  with at least one member set.
 * @param ppSpace  out: the first space that matches, which stays part of the list. Left as it was when there is none.
 * @return 1 when found, 0 when not, -1 on failure (VUNKC_ERR_BAD_ARGUMENT).
 */
VUNKC_API int ZEVOSpaceInfoSearch(ZEVOSPACEINFO *pList, const ZEVOSPACESEARCH *pSearch, ZEVOSPACEINFO **ppSpace);

/** Releases a list. Null is accepted. */
VUNKC_API void ZEVOSpaceInfoFree(ZEVOSPACEINFO *pList);

/**
 * Appends the disks of a space to a list, by their device names ("/dev/sda"), each once: what is left of the space's
 * devices when every partition, device-mapper device, md array and bcache device is replaced by the devices that it is
 * made of. A device that is made of no other, such as a loop device, counts as a disk. Of a Btrfs file system, the
 * devices of all its members count. The side that only caches (dm-cache, dm-writecache, bcache) is not part of the space,
 * nor is a member that is missing or vanishes meanwhile.
 *
 * Telling a cache from what it caches takes /dev/mapper/control, and so root, for device-mapper devices that are made of
 * more than one device.
 *
 * @param pSpace    a record of ZEVOSpaceInfoEnum.
 * @param ppslDisks address of a list; may be moved. Left as it was on failure.
 * @return the number of disks, or -1 on failure: ZEVO_ERR_NO_DEVICE when the space's own device or every disk
 *         below it is gone, or its Btrfs is not mounted any more; ZEVO_ERR_BAD_ANSWER, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int ZEVOSpaceDiskEnum(const ZEVOSPACEINFO *pSpace, VUNKSZLIST **ppslDisks);

VUNKC_END_DECLS

#endif
