#ifndef BTRFS_METADATA_CACHE_MAPPING_H
#define BTRFS_METADATA_CACHE_MAPPING_H

#include "btrfs_metadata_cache/context.h"

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

enum MappingStatus {
	kMappingBuilding = 1, // pinned for the first time, not all yet
	kMappingComplete = 2,
	kMappingDisabled = 3, // being unpinned
};

// Sets one key of [config]. 0 or -1.
int BtrfsMetadataCacheSetValueByKey(const char *szConfigPath, const char *szKey, const char *szValue);
int BtrfsMetadataCacheSetStatus(const char *szConfigPath, int iStatus);

// Gives a mapping file that is new, or whose volume was switched off, the [config] that it starts with. 0 or -1.
int BtrfsMetadataCacheConfigInit(const char *szConfigPath);

// Whether there is a [config]: 1; 0, as when the engine was killed right after it had made the file; -1.
int BtrfsMetadataCacheHasConfig(const char *szConfigPath);

// Reads [config] into the context, and the calling process' id. 0, or -1; also without a "status".
int BtrfsMetadataCacheConfigGet(MetadataCacheContext &ctx, const char *szConfigPath);

#endif
