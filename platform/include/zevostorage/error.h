#ifndef ZEVOSTORAGE_ERROR_H
#define ZEVOSTORAGE_ERROR_H

/**
 * @file
 * Codes that the storage library sets on the error stack, besides those of the core library (vunkcore/error.h).
 *
 * What the kernel could not be asked, or answered with nonsense, names the file in question instead of a source file:
 * "/sys/class/block/sda/queue/rotational", "/proc/thread-self/mountinfo".
 */

#include <vunkcore/error.h>

enum {
	ZEVO_ERR_NO_DEVICE = 0x2100,      /**< there is no such block device, or none any more */
	ZEVO_ERR_BAD_ANSWER = 0x2200,     /**< the kernel's answer could not be understood */
	ZEVO_ERR_NO_LAYER = 0x0600,       /**< the volume lies on no virtual device */
	ZEVO_ERR_NO_VOLUME_CONF = 0xC200, /**< the volume has no settings of its own */
	ZEVO_ERR_NOT_BTRFS = 0xD900       /**< the path does not lie on a Btrfs file system */
};

#endif
