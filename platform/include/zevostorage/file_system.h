#ifndef ZEVOSTORAGE_FILE_SYSTEM_H
#define ZEVOSTORAGE_FILE_SYSTEM_H

/** @file What kind of file system a path lies on, and its identity. */

#include <vunkcore/types.h>

/** Type codes of file systems. */
enum {
	ZEVO_FS_OTHER = 0, /**< any that has no code of its own */
	ZEVO_FS_EXT = 1,   /**< ext2, ext3, ext4 */
	ZEVO_FS_XFS = 2,
	ZEVO_FS_BTRFS = 3
};

/** Room for a UUID in text, with its terminating zero. */
#define ZEVO_UUID_SIZE 37

VUNKC_BEGIN_DECLS

/**
 * @param szPath  any path on the file system; links are followed.
 * @param iFlags  0. Other values are refused.
 * @return a type code (ZEVO_FS_...), or -1 on failure: VUNKC_ERR_FILE_MISSING, VUNKC_ERR_FILE_OPEN.
 */
VUNKC_API int ZEVOGetFSType(const char *szPath, int iFlags);

/**
 * Writes the UUID of a Btrfs file system in lower case, as it names the file system's folder in /sys/fs/btrfs.
 *
 * @param szPath  a folder or regular file on the file system, to be opened for reading; links are followed.
 * @param szUuid  out; left as it was on failure.
 * @param cbUuid  size of szUuid, at least ZEVO_UUID_SIZE.
 * @return 0, or -1 on failure: ZEVO_ERR_NOT_BTRFS, VUNKC_ERR_FILE_MISSING, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int ZEVOFSGetBTRFSUuid(const char *szPath, char *szUuid, size_t cbUuid);

VUNKC_END_DECLS

#endif
