#ifndef ZEVOTUNED_CHUNK_INFO_H
#define ZEVOTUNED_CHUNK_INFO_H

/** @file Where a piece of a Btrfs volume's metadata lies. */

#include <zevotuned/export.h>

/** One metadata or system chunk, or one copy of the superblock. */
struct chunk_info {
	unsigned long long offset; /**< bytes, in the file system's own addresses; of a superblock copy 1, 2 or 3 */
	unsigned long long size;   /**< bytes; of a superblock copy 4096 */
	unsigned long long
		stripe_count; /**< how many times it lies on the device: 1, or 2 for DUP; 0 before it is known */
	unsigned long long
		stripe_offset[2]; /**< bytes from the start of the device; only the first stripe_count count */
	int status;               /**< 0 recorded, 1 pinned and read */
};

/** @return whether a stands before b: by offset, and by nothing else. */
ZEVOTUNED_API bool ChunkInfoSort(const chunk_info &a, const chunk_info &b);

/** @return whether both lie at the same place: equal offset, size, stripe count and stripes. The status does not matter. */
ZEVOTUNED_API bool ChunkIsEqual(const chunk_info &a, const chunk_info &b);

#endif
