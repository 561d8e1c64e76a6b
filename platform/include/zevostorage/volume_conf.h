#ifndef ZEVOSTORAGE_VOLUME_CONF_H
#define ZEVOSTORAGE_VOLUME_CONF_H

/**
 * @file
 * Settings of single volumes.
 *
 * They are kept by the identity of the file system, not by where it is mounted: the pair file
 * ZEVO_VOLUME_CONF_DIR/<uuid>, in which 0 is off and any other number that an unsigned int holds, in decimal, is on.
 * Files and folders are made with mode 0644 and 0755, less the process's umask. Only Btrfs volumes have settings.
 */

#include <vunkcore/types.h>

#define ZEVO_VOLUME_CONF_DIR "/usr/zevo/etc/volumes"

/** The settings of a volume. */
typedef struct ZEVOVOLUMECONF {
	unsigned int uMetadataCache; /**< key "metadata_cache": 0: its metadata is not to be cached; else it is */
} ZEVOVOLUMECONF;

/** Which settings to write; the others stay as they are. */
enum { ZEVO_VOLUME_CONF_METADATA_CACHE = 0x10 };

VUNKC_BEGIN_DECLS

/**
 * Reads the settings of a volume. One that its file does not name is 0.
 *
 * @param szVolPath  any path on the volume.
 * @param pConf      out; left as it was on failure.
 * @return 0, or -1 on failure: ZEVO_ERR_NO_VOLUME_CONF when the volume has no settings, as no volume but a Btrfs ever
 *         has; ZEVO_ERR_BAD_ANSWER with the file when a setting is no number; as ZEVOFSGetBTRFSUuid and VUNKCFileGetPair.
 */
VUNKC_API int ZEVOVolumeConfGet(const char *szVolPath, ZEVOVOLUMECONF *pConf);

/**
 * Writes settings of a volume, durably. The file and its folder are made when they are missing; what else the file says
 * stays, also when several programs write at once: they take turns by the lock file ZEVO_VOLUME_CONF_DIR/.lock.
 *
 * @param iFields  ZEVO_VOLUME_CONF_...; other bits, and none, are refused.
 * @return 0, or -1 on failure, when the file is as it was: ZEVO_ERR_NOT_BTRFS; as ZEVOFSGetBTRFSUuid, VUNKCFileGetPair and
 *         VUNKCFileSetPair; VUNKC_ERR_FILE_WRITE with the folder; as VUNKCFileLockTimeByFile with 5 seconds.
 */
VUNKC_API int ZEVOVolumeConfSet(const char *szVolPath, const ZEVOVOLUMECONF *pConf, int iFields);

VUNKC_END_DECLS

#endif
