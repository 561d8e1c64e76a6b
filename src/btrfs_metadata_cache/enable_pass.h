#ifndef BTRFS_METADATA_CACHE_ENABLE_PASS_H
#define BTRFS_METADATA_CACHE_ENABLE_PASS_H

#include "btrfs_metadata_cache/context.h"

// Pins all metadata of a volume, as far as it fits into what may be used, and unpins what is metadata no more. The
// context holds what the checks found. 0, or -1 after "Failed to pin btrfs metadata", when what has been pinned so far
// stays so and is recorded.
//
// The first pass over a volume reports progress. Every later one lowers the calling thread's I/O priority, to
// best-effort 7, and leaves it so.
int BtrfsMetadataCacheEnablePass(MetadataCacheContext &ctx, const char *szVolPath);

#endif
