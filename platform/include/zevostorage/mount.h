#ifndef ZEVOSTORAGE_MOUNT_H
#define ZEVOSTORAGE_MOUNT_H

/** @file Mounted volumes. */

#include <vunkcore/types.h>
#include <zevostorage/file_system.h>

/** A mounted volume. All texts belong to the record. */
typedef struct ZEVOMOUNTVOL {
	int iFsType;                /**< ZEVO_FS_... */
	const char *szFsName;       /**< the kernel's name of the file system: "ext4" */
	const char *szVolPath;      /**< where it is mounted, for example "/volume1"; nothing in it is escaped */
	const char *szSource;       /**< what is mounted, as the kernel says it: "/dev/mapper/vg1-volume1" */
	struct ZEVOMOUNTVOL *pNext; /**< null for the last one */
} ZEVOMOUNTVOL;

VUNKC_BEGIN_DECLS

/**
 * Lists the file systems on block devices that the calling thread sees mounted, one record for each file system however
 * often it is mounted, in ascending byte order of their paths. Network and virtual file systems are no volumes.
 *
 * A file system that is mounted more than once is named by the mount of its root (of Btrfs: of the top-level subvolume),
 * else by the shortest path of a folder, and between paths of one length by the first in byte order: the name does not
 * depend on the order of mounting. Only where nothing but single files of it are mounted is it named by one. Mounts that others hide are not looked at, for their paths lead elsewhere; a file system of which
 * no mount can be reached is left out.
 *
 * @param iFsType  lists file systems of this type code alone; 0: all.
 * @param iFlags   0. Other values are refused.
 * @return the list, to be released with ZEVOMountVolInfoFree; null when nothing is mounted, and on failure. Only the error
 *         stack tells these apart: a call that succeeds leaves 0 on it, whatever stood there before. On failure
 *         it holds VUNKC_ERR_BAD_ARGUMENT, VUNKC_ERR_NO_MEMORY or VUNKC_ERR_FILE_READ.
 */
VUNKC_API ZEVOMOUNTVOL *ZEVOMountVolInfoEnum(int iFsType, int iFlags);

/** Releases a list. Null is accepted. */
VUNKC_API void ZEVOMountVolInfoFree(ZEVOMOUNTVOL *pList);

VUNKC_END_DECLS

#endif
