#ifndef BTRFS_METADATA_CACHE_PIN_SECTIONS_H
#define BTRFS_METADATA_CACHE_PIN_SECTIONS_H

#include "btrfs_metadata_cache/context.h"

#include <zevotuned/chunk_info.h>

// What is pinned is recorded, at every moment: a record is on disk before its chunk is pinned, and stays until it is
// unpinned.

// Records, pins and reads a chunk if it still fits into the part of the SSD cache that may be used; if not, only counts
// it for progress. Warns once when it fills the cache up to a new threshold. 0 or -1; a warning that fails is no
// failure.
int PinBtrfsMetadataSectionAdd(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath,
                               const char *szConfigPath, const chunk_info *pChunk);

// Unpins a chunk, as its record has it, and removes the record. Other chunks that lie on the same bytes lose these: they are
// recorded as unread, and are the caller's to pin again if they are wanted. 0 or -1.
int PinBtrfsMetadataSectionRemove(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath,
                                  const chunk_info *pChunk);

#endif
