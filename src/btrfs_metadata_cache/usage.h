#ifndef BTRFS_METADATA_CACHE_USAGE_H
#define BTRFS_METADATA_CACHE_USAGE_H

#include "btrfs_metadata_cache/context.h"

#include <zevotuned/chunk_info.h>

// How much of the SSD cache is taken. All sums stop at the largest number instead of starting again at 0.

// What pinning a chunk takes: every stripe of it.
uint64_t PinnedSize(const chunk_info &chunk);

uint64_t SumOf(uint64_t a, uint64_t b);

// How many bytes may be pinned: up to 100 the limit is a percentage of the cache, otherwise bytes, of which the cache
// has no more than its size.
uint64_t UsedSizeLimit(uint64_t ullSpaceUsageLimit, uint64_t ullCacheSize);

int PercentOfCache(uint64_t ullSize, uint64_t ullCacheSize);

// The percentage to warn of, the highest one that is reached now and was not before; 0 when there is none.
int ThresholdCrossed(int iOldPercent, int iNewPercent);

// Counts a chunk as pinned; false when it does not fit, and nothing is counted.
bool ChargeChunk(MetadataCacheContext &ctx, const chunk_info &chunk);

void DischargeChunk(MetadataCacheContext &ctx, const chunk_info &chunk);

#endif
