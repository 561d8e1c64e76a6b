#ifndef BTRFS_METADATA_CACHE_MAX_USED_SIZE_H
#define BTRFS_METADATA_CACHE_MAX_USED_SIZE_H

#include "btrfs_metadata_cache/context.h"

// Records that more is pinned than ever before, and warns when that reaches a new threshold of the cache's size. 0; -1
// when either failed.
int BtrfsMetadataCacheSetMaxUsedSize(MetadataCacheContext &ctx, const char *szConfigPath);

// Tells people that the SSD cache fills up with metadata, by an event and a notification. All texts are numbers. 0 or
// -1.
int SendMetadataCacheSpaceFullWarningEmail(const char *szSsdId, const char *szPercent, const char *szSizeGB);

#endif
