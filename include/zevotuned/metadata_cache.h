#ifndef ZEVOTUNED_METADATA_CACHE_H
#define ZEVOTUNED_METADATA_CACHE_H

/**
 * @file
 * Pinning the metadata of Btrfs volumes in the SSD cache in front of them.
 *
 * Every volume has a switch, which is kept with the storage library's settings of the volume. An engine brings what is pinned
 * into line with it: switched on, it pins the volume's metadata chunks and superblock copies and reads each once, so that
 * it is in the cache; switched off, it unpins all that it has recorded. It records what it pins in a file on the volume.
 * At most one engine works on a volume; it runs in the process that calls, or in a child of it.
 *
 * The functions may be called by any thread of any process, also for the same volume at the same moment. They keep
 * nothing in memory and take root. How they fail and log is said in <zevotuned/zevotuned.h>.
 */

#include <zevotuned/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What ZEVOBtrfsMetadataCacheStatus says. */
enum {
	ZEVO_METADATA_CACHE_IDLE = 0,    /**< nothing is pinned, or not all, and nobody is at it */
	ZEVO_METADATA_CACHE_WORKING = 1, /**< being pinned for the first time, or being unpinned */
	ZEVO_METADATA_CACHE_PINNED = 2   /**< all that the volume had when it was last looked through is pinned */
};

/** Why the cache cannot be had. */
enum {
	ZEVO_METADATA_CACHE_MODE_UNKNOWN = 1,      /**< the SSD cache is in a mode that is not known */
	ZEVO_METADATA_CACHE_NO_SSD_CACHE = 2,      /**< no SSD cache stands in front of the volume */
	ZEVO_METADATA_CACHE_NOT_READY = 3,         /**< the SSD cache is being assembled, or is faulty */
	ZEVO_METADATA_CACHE_CANNOT_PIN = 4,        /**< the SSD cache cannot pin */
	ZEVO_METADATA_CACHE_CANNOT_PIN_RANGES = 5, /**< the SSD cache pins files, but no ranges of a device */
	ZEVO_METADATA_CACHE_SWITCHED_OFF = 6,      /**< btrfs_metadata_cache_on in the configuration is not "true" */
	ZEVO_METADATA_CACHE_NOT_BTRFS = 7          /**< no Btrfs volume, or one that has no settings yet */
};

/**
 * Switches the cache of a volume on or off, and runs the engine. The switch is on disk before the engine starts and stays
 * whatever becomes of it. An engine that works on the volume already sees it at its next check and starts over, so the call
 * then has nothing more to do and returns 0 at once; to be sure of the outcome, call ZEVOBtrfsMetadataCacheStatus, or
 * Rescan.
 *
 * Pinning takes as long as reading all of the metadata once. The engine uses the calling thread, whose I/O priority it
 * may lower for good, and which cannot be cancelled meanwhile; nor can it be stopped but by a change of the switch, or by
 * ZEVOBtrfsMetadataCacheForceStop, which ends the whole process. Programs with other things to do use fNoWait.
 *
 * With fNoWait a child of the ordinary kind, which nobody needs to wait for, becomes the engine: a session of its own,
 * working in "/", with /dev/null as its standard streams and no other descriptor. It runs neither exit handlers nor
 * destructors of the calling program and flushes none of its streams. What it meets is in the log, and otherwise
 * only in the status. Forking may take some seconds in a program whose threads log without pause
 * (VUNKCProcForkChildNoWait).
 *
 * @param szPath   names a mounted volume: its path as the storage library lists it, its device, or the device-mapper, md
 *                 or bcache device that it lies on. Not changed.
 * @param fEnable  0 switches off, anything else on.
 * @param fNoWait  0 waits for the engine, anything else does not.
 * @return 0; also for a volume that is not Btrfs, or whose type cannot be found out, where nothing is done, and when
 *         another engine works on the volume. -1
 *         when there is no such volume, the switch cannot be written (nothing has changed), the child cannot be made (error
 *         0x9700; the switch is written), or the engine fails (what it has recorded is pinned, or being unpinned, and the
 *         next run goes on from there).
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheSet(char *szPath, int fEnable, int fNoWait);

/**
 * Runs the engine for a volume as its switch stands: pins chunks that are new, and unpins what has vanished. Otherwise as
 * ZEVOBtrfsMetadataCacheSet. A volume whose switch has never been set is a failure (error 0xC200).
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheRescan(char *szPath, int fNoWait);

/**
 * Ends the process in which the engine of a volume runs, whichever that is; it may be the caller's. It gets SIGTERM six
 * times, one second apart, and then SIGKILL. A process id that has been given to another process is never signalled.
 *
 * Takes one second, or somewhat more than five for a process that ignores SIGTERM, or waits for a pin tool that hangs. Switch and recorded chunks stay as they
 * are, so that the next run of an engine goes on from there; until then the status is ZEVO_METADATA_CACHE_IDLE if the
 * volume was being pinned for the first time. How it went is logged: a success at priority LOG_WARNING, the use of SIGKILL at
 * LOG_ERR.
 *
 * @param szPath  as for ZEVOBtrfsMetadataCacheSet.
 * @return 0, also when no engine runs, SIGKILL had to be used, or the volume is not Btrfs; -1 when there is no such volume, or
 *         it cannot be told whether an engine runs.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheForceStop(const char *szPath);

/**
 * Tells what has become of a volume's metadata.
 *
 * The report of a pass is at most some five seconds old, and there is none, but ZEVO_METADATA_CACHE_IDLE, before the first
 * chunk of some size is being read. A pass that only looks through a volume which is pinned
 * already reports nothing: the volume stays ZEVO_METADATA_CACHE_PINNED. The report of a pass whose process has ended is
 * removed.
 *
 * @param szVolPath      path of the volume.
 * @param status         out: ZEVO_METADATA_CACHE_IDLE, _WORKING or _PINNED.
 * @param totalSize      out: with ZEVO_METADATA_CACHE_WORKING the bytes to go through; 0 where that is not known, as while
 *                       it is being unpinned. Otherwise left as it was.
 * @param processedSize  out: likewise the bytes done, at most those.
 * @return 0, also for a path where nothing is recorded as there is none; -1 with the outputs as they were when what is
 *         recorded cannot be read.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheStatus(const char *szVolPath, int *status, unsigned long long *totalSize,
                                               unsigned long long *processedSize);

/**
 * Tells whether the configuration and the file system allow a volume the cache, whatever stands in front of it.
 *
 * @param szVolPath  a path on the volume.
 * @param piResult   out: the reason with result 0 (ZEVO_METADATA_CACHE_SWITCHED_OFF or _NOT_BTRFS), otherwise 0.
 * @return 1 when they do, 0 when not, -1 on failure.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheSupportCheckForVolume(const char *szVolPath, int *piResult);

/**
 * Tells whether a volume can have the cache. One whose switch is on always can, even when its SSD cache is gone, so
 * that it can be switched off. One whose switch has never been set is reported as ZEVO_METADATA_CACHE_NOT_BTRFS.
 *
 * @param szVolPath  the path of a mounted volume, as the storage library lists it.
 * @param piResult   out: the reason (ZEVO_METADATA_CACHE_MODE_UNKNOWN to _NOT_BTRFS) with result 0, otherwise 0.
 * @return 1 when it can, 0 when not, -1 on failure.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheSupportCheckForCache(const char *szVolPath, int *piResult);

/**
 * Adds to a number the bytes that a Btrfs volume's metadata and system chunks take on its device: what is allocated, twice
 * for DUP.
 *
 * @param szVolPath             a folder or regular file on the volume.
 * @param pullMetadataSizeByte  in and out: what is found is added to what stands here, and nothing sets it to 0; do so
 *                              before the call. Left as it was on failure.
 * @return 0, or -1 on failure: the path cannot be opened, or does not lie on a Btrfs volume.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(const char *szVolPath,
                                                             unsigned long long *pullMetadataSizeByte);

#ifdef __cplusplus
}
#endif

#endif
