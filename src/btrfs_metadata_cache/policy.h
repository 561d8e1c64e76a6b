#ifndef BTRFS_METADATA_CACHE_POLICY_H
#define BTRFS_METADATA_CACHE_POLICY_H

#include "btrfs_metadata_cache/context.h"

// The checks of a pass, and of those who ask whether one would pin. Reasons are those of <zevotuned/metadata_cache.h>.

// The volume's own switch. 0, or -1: without a line of its own and with error 0xC200 when it has none.
int BtrfsMetadataCacheVolumeConfGet(const char *szVolPath, uint8_t *pfOn);

// Whether the configuration, and with fCheckVolume the volume's own switch, want the cache: 1, 0 or -1.
int BtrfsMetadataCachePolicyCheck(MetadataCacheContext &ctx, const char *szVolPath, bool fCheckVolume);

// Whether the configuration and the file system allow the cache: 1; 0 with the reason, 6 or 7; -1. A file system whose
// type cannot be found out is not Btrfs.
int BtrfsMetadataCacheSupportCheck(const char *szVolPath, MetadataCacheContext &ctx, int *piResult);

// Whether an SSD cache that can pin stands in front of the volume that szPath names, by its device or its path: 1; 0
// with the reason, 1 to 5, where piResult is not null; -1, also for a cache that could pin but whose id holds no
// number.
int BtrfsMetadataCacheCheckSSDCache(MetadataCacheContext &ctx, const char *szPath, int *piResult);

// Both checks that a pass makes, into the context: whether the cache can be had, and whether it is wanted, by the
// volume's own switch as well. 1 when both say yes, 0, -1.
int BtrfsMetadataCacheCheck(MetadataCacheContext &ctx, const char *szVolPath);

#endif
