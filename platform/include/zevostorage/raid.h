#ifndef ZEVOSTORAGE_RAID_H
#define ZEVOSTORAGE_RAID_H

/** @file RAID arrays of md. */

#include <vunkcore/types.h>

/** Level flags, one for each level. */
enum {
	RAID_LEVEL_0 = 0x01,
	RAID_LEVEL_1 = 0x02,
	RAID_LEVEL_5 = 0x04,
	RAID_LEVEL_6 = 0x08,
	RAID_LEVEL_10 = 0x10,
	RAID_LEVEL_LINEAR = 0x20,
	RAID_LEVEL_4 = 0x40
};

/** The levels without parity, those with it, and all. */
#define RAID_LEVELS_WITHOUT_PARITY (RAID_LEVEL_0 | RAID_LEVEL_1 | RAID_LEVEL_10 | RAID_LEVEL_LINEAR) /* 0x33 */
#define RAID_LEVELS_WITH_PARITY (RAID_LEVEL_4 | RAID_LEVEL_5 | RAID_LEVEL_6)                         /* 0x4C */

/** A device that an array is made of. */
typedef struct RAIDMEMBER {
	const char *
		szDevice; /**< "/dev/" and the kernel name as under /sys/class/block: "/dev/sda5", "/dev/cciss!c0d0p5" */
	struct RAIDMEMBER *pNext; /**< null for the last one */
} RAIDMEMBER;

/** An array. All texts belong to the record. */
typedef struct RAIDINFO {
	unsigned int nDisk;  /**< members that the array is made for, missing ones included; 0 when it is not active */
	unsigned int fLevel; /**< one of RAID_LEVEL_..., 0 for a level without a flag */
	RAIDMEMBER *
		pMembers; /**< the members that are there, spares included, in ascending byte order; null when none is */
	const char *szDevice; /**< "/dev/md0" */
	const char *szLevel;  /**< the level as the kernel calls it: "raid5"; "" when it does not say */
} RAIDINFO;

/** A node of the list of arrays. */
typedef struct RAIDLIST {
	RAIDINFO *pRaid;        /**< the array */
	struct RAIDLIST *pNext; /**< null for the last one */
} RAIDLIST;

VUNKC_BEGIN_DECLS

/**
 * Lists the RAID arrays, in ascending byte order of their kernel names. An md device without an array is left out, and so
 * is an array that is stopped meanwhile.
 *
 * @param ppList  out: the list, to be released with RAIDListFree; null when there is no array. Left as it was on failure.
 * @return the number of arrays, or -1 on failure: ZEVO_ERR_BAD_ANSWER, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int RAIDInfoEnum(RAIDLIST **ppList);

/** Releases a list with its arrays and members. Null is accepted. */
VUNKC_API void RAIDListFree(RAIDLIST *pList);

VUNKC_END_DECLS

#endif
