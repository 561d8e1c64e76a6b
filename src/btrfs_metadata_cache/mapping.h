#ifndef BTRFS_METADATA_CACHE_MAPPING_H
#define BTRFS_METADATA_CACHE_MAPPING_H

#include "btrfs_metadata_cache/context.h"

#include <zevotuned/chunk_info.h>

// The mapping file: what is pinned of a volume. A section file with one section for each chunk, named by its offset,
//
//     [1048576]
//     status = 1                 0 recorded, 1 pinned and read
//     size = 8388608
//     stripe_count = 2
//     stripe_offset_0 = 38797312
//     stripe_offset_1 = 1112539136
//
// and [config] with the "status" of the whole and the most bytes that were ever pinned, "max_used_size".

enum class MappingStatus { Building = 1, Complete = 2, Disabled = 3 };

// Sets one key of [config]. 0 or -1.
int BtrfsMetadataCacheSetValueByKey(const char *szConfigPath, const char *szKey, const char *szValue);
int BtrfsMetadataCacheSetStatus(const char *szConfigPath, int iStatus);

// Reads [config] into the context, and the calling process' id. 0, or -1; also without a "status".
int BtrfsMetadataCacheConfigGet(MetadataCacheContext &ctx, const char *szConfigPath);

// Records that a chunk has been read. 0 or -1.
int PinBtrfsMetadataSectionUpdateChunkDone(const char *szConfigPath, const chunk_info *pChunk);

#endif
