#ifndef ZEVOSTORAGE_DISK_H
#define ZEVOSTORAGE_DISK_H

/** @file Disks. A disk's device name is "/dev/" and its kernel name, in which the kernel writes "!" for "/". */

#include <vunkcore/types.h>

/** Types of disks; a filter is made of any of them. */
enum {
	DISK_TYPE_SATA = 0x01,
	DISK_TYPE_SAS = 0x02, /**< SCSI over anything but USB: SAS, Fibre Channel, iSCSI, hardware RAID, virtio-scsi */
	DISK_TYPE_NVME = 0x04,
	DISK_TYPE_VIRTUAL = 0x08,  /**< virtio-blk, Xen */
	DISK_TYPE_EXTERNAL = 0x10, /**< USB disks, SD cards */
	DISK_TYPE_EMMC = 0x20
};

/** Which disks to list. */
typedef struct DISKFILTER {
	unsigned int uTypeMask; /**< DISK_TYPE_... */
} DISKFILTER;

/** A disk. All texts belong to the record. */
typedef struct DISKINFO {
	const char *szKernelName; /**< as under /sys/block: "sda", "cciss!c0d0" */
	const char *szDevice;     /**< device name, what ZEVODiskIsSSD takes: "/dev/sda", "/dev/cciss/c0d0" */
	unsigned int uType;       /**< one of DISK_TYPE_... */
	struct DISKINFO *pNext;   /**< null for the last one */
} DISKINFO;

VUNKC_BEGIN_DECLS

/**
 * Lists the whole physical disks of some types, in ascending byte order of their kernel names: no partitions, no optical
 * drives, no drives without a medium, no boot partitions of eMMC, and none that is made of other devices or of memory.
 * A disk that vanishes meanwhile is left out.
 *
 * @param ppList  out: the list, to be released with DiskInfoEnumFree; null when there is no such disk. Left as it was on
 *                failure.
 * @return the number of disks, or -1 on failure: VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int DiskInfoEnum(const DISKFILTER *pFilter, DISKINFO **ppList);

/** Releases a list. Null is accepted. */
VUNKC_API void DiskInfoEnumFree(DISKINFO *pList);

/**
 * Tells SSDs from rotating disks, by what the kernel says of the device. Disks of virtual machines count as what the
 * kernel takes them for, which for virtio-blk is often a rotating disk.
 *
 * @param szDisk  device name or kernel name of a block device; of a partition, its disk is looked at.
 * @return 1 for an SSD, 0 for a rotating disk, -1 on failure: ZEVO_ERR_NO_DEVICE, ZEVO_ERR_BAD_ANSWER,
 *         VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int ZEVODiskIsSSD(const char *szDisk);

/**
 * Writes the name of the disk that a partition lies on; the name of a device that is no partition stays as it is. The
 * kernel is asked where it knows the device. Otherwise the names decide: "sda5" is a partition of "sda", "nvme0n1p2" of
 * "nvme0n1", "mmcblk0p1", "md0p1" and "cciss!c0d0p1" likewise, while "nvme0n1", "dm-3", "loop7" and "md127" end in
 * a digit and are none.
 *
 * @param szDev  device name or kernel name. The disk's name is written in the same form.
 * @param szOut  out; what does not fit is cut. Left as it was on failure.
 * @param cbOut  size of szOut, at least 1.
 * @return 0, or -1 on failure: VUNKC_ERR_BAD_ARGUMENT, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int DiskPartitionNumRemove(const char *szDev, char *szOut, size_t cbOut);

VUNKC_END_DECLS

#endif
