#ifndef ZEVOSTORAGE_FLASH_CACHE_H
#define ZEVOSTORAGE_FLASH_CACHE_H

/**
 * @file
 * SSD caches in front of volumes.
 *
 * A cache is found in two ways. Declared: a section of the section file ZEVO_FLASH_CACHE_FILE for each cache that is
 * driven by a pin tool of the integrator's own,
 *
 *     [any name]
 *     volume = /volume1            or: device = /dev/mapper/vg1-volume1, the space's primary or alternative device
 *     id = ssd_1                   "ssd_" and a number from 0 to 2147483647
 *     mode = 4                     ZEVO_FLASH_CACHE_MODE_..., in decimal
 *     flags = 0x6                  ZEVO_FLASH_CACHE_SUPPORT_..., in decimal or hexadecimal
 *     size = 256000000000          bytes, in decimal, at least 1
 *     reference = vg1-cache        1 to 256 characters
 *
 * with all of these keys (one of volume and device), no key twice, no others, no two sections of one name and no two for
 * one space. Paths are written as the kernel writes them: absolute, without "." and "..", without further slashes.
 * Whatever is wrong with any section of the file is a failure for every volume, which names the file and the first line
 * that is wrong (VUNKC_ERR_SYNTAX; of a section without all of its keys that is its header), never "no cache": a cache
 * that is overlooked keeps its pins without anyone to take them back. Only that two sections give one space different
 * names cannot be told from the file, and is a failure for that space. A missing file declares none.
 *
 * Real: dm-cache, dm-writecache or bcache below the volume's devices, of several the first one on the way down. None of
 * these can pin. What is declared for a space counts in place of what is found there.
 */

#include <vunkcore/types.h>
#include <zevostorage/space.h>

#define ZEVO_FLASH_CACHE_FILE "/usr/zevo/etc/flash_cache.conf"

/** What a cache is doing. Found on stock Linux are 1, 4 and 5; the others stand in declarations. */
enum {
	ZEVO_FLASH_CACHE_MODE_ASSEMBLING = 0, /**< not in service yet */
	ZEVO_FLASH_CACHE_MODE_WRITE_THROUGH = 1,
	ZEVO_FLASH_CACHE_MODE_FAULTY = 2, /**< out of service until it is repaired */
	ZEVO_FLASH_CACHE_MODE_UNKNOWN = 3,
	ZEVO_FLASH_CACHE_MODE_WRITE_BACK = 4, /**< dm-writecache as well */
	ZEVO_FLASH_CACHE_MODE_READ_ONLY =
		5, /**< writes go past it: bcache's writearound and none, dm-cache's passthrough */
	ZEVO_FLASH_CACHE_MODE_REMOVED = 6 /**< being taken away: as though there were none */
};

/** What a cache can do. */
enum {
	ZEVO_FLASH_CACHE_SUPPORT_PIN_RANGE = 0x2, /**< pin ranges of sectors, which it needs SUPPORT_PIN for */
	ZEVO_FLASH_CACHE_SUPPORT_PIN = 0x4        /**< keep pinned what is pinned */
};

/** What a cache is asked for. */
enum {
	ZEVO_FLASH_CACHE_OF_SPACE = 2 /**< the cache in front of a space */
};

/** A cache. All texts belong to the record. */
typedef struct ZEVOFLASHCACHECONFIG {
	int iMode;               /**< ZEVO_FLASH_CACHE_MODE_... */
	const char *szId;        /**< "ssd_1"; of a real cache, a number made of its UUID, which stays the same */
	const char *szReference; /**< its name: as declared, dm's name of the cached device, UUID of bcache's set */
	unsigned long long
		ullSizeByte; /**< how much it holds; of a real cache its device's size, bookkeeping included */
} ZEVOFLASHCACHECONFIG;

/** What tells that a cache is being filled, for other programs to see. */
typedef struct ZEVOSPACEBUILD {
	int iPid;    /**< the process that fills it */
	int iKind;   /**< 8 */
	int iStage;  /**< 31 */
	int iReason; /**< 14 */
	char szReference
		[257]; /**< the cache's, of which the first 200 bytes name the marker's file, "/", and "." at its start,
		            written as "!" */
} ZEVOSPACEBUILD;

/** Where the markers are: pair files ZEVO_SPACE_BUILD_DIR/<reference> with the numbers: pid, kind, stage, reason. */
#define ZEVO_SPACE_BUILD_DIR "/run/zevo/space_build"

VUNKC_BEGIN_DECLS

/**
 * Finds the cache in front of a space.
 *
 * @param pSpace    a record of ZEVOSpaceInfoEnum.
 * @param iKind     ZEVO_FLASH_CACHE_OF_SPACE. Other values are refused.
 * @param ppConfig  out: the cache, to be released with ZEVOFlashCacheConfigFree. Left as it was when there is none.
 * @return 1 when there is one; 0 when there is none; -1 on failure: VUNKC_ERR_SYNTAX (with file and line),
 *         ZEVO_ERR_BAD_ANSWER, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int ZEVOFlashCacheConfigTmpGet(const ZEVOSPACEINFO *pSpace, int iKind, ZEVOFLASHCACHECONFIG **ppConfig);

/** Releases a cache. Null is accepted. */
VUNKC_API void ZEVOFlashCacheConfigFree(ZEVOFLASHCACHECONFIG *pConfig);

/**
 * @param pConfig  a cache of ZEVOFlashCacheConfigTmpGet.
 * @param puFlags  out: ZEVO_FLASH_CACHE_SUPPORT_...; 0 for a real cache.
 * @return 0, or -1 on failure (VUNKC_ERR_BAD_ARGUMENT).
 */
VUNKC_API int ZEVOFlashCacheSupportFlagsGet(const ZEVOFLASHCACHECONFIG *pConfig, unsigned int *puFlags);

/**
 * @param szVolPath  the path of a volume, as a space record has it.
 * @return 1 when a cache stands in front of the volume that can pin ranges; 0 when not; -1 when that cannot be found out:
 *         as ZEVOSpaceInfoEnum and ZEVOFlashCacheConfigTmpGet, and ZEVO_ERR_NO_DEVICE when no volume is there. Who takes back
 *         pins does so unless it is 0, lest they be forgotten over a mistake in a file. Mode 6 counts as no cache.
 */
VUNKC_API int ZEVOFlashCachePinIsVolumeSupport(const char *szVolPath);

/**
 * @return 0 when the model file's (vunkcore/model.h) key "support_pin" is "no", otherwise 1: a pin tool that is missing is a
 *         failure of whoever runs it, never a model without pins. Sets no error.
 */
VUNKC_API int ModelSupportPin(void);

/**
 * Writes the name by which a volume's own layer of virtual devices is known.
 *
 * @param iKind      1: the device-mapper, md or bcache device that is mounted, by its kernel name: "/dev/dm-3". Other values
 *                   are refused.
 * @param szVolPath  the path of a volume, as a space record has it.
 * @param szOut      out; left as it was on failure.
 * @param cbOut      size of szOut; a name that does not fit is a failure (VUNKC_ERR_BAD_ARGUMENT).
 * @return 0, or -1 on failure: ZEVO_ERR_NO_LAYER when the volume lies on a disk or a partition, or no volume is there; as
 *         ZEVOSpaceInfoEnum.
 */
VUNKC_API int ZEVOVSpaceLayerPathGet(int iKind, const char *szVolPath, char *szOut, size_t cbOut);

/**
 * Sets, and removes, the marker that a cache is being filled. A marker whose process is gone is left over; setting replaces
 * it. A marker that is not there is removed successfully.
 *
 * @return 0, or -1 on failure: VUNKC_ERR_BAD_ARGUMENT (an empty reference included), as VUNKCFileSetPair.
 */
VUNKC_API int ZEVOSpaceBuildFileSet(const ZEVOSPACEBUILD *pBuild);
VUNKC_API int ZEVOSpaceBuildFileRemove(const ZEVOSPACEBUILD *pBuild);

VUNKC_END_DECLS

#endif
