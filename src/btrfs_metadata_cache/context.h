#ifndef BTRFS_METADATA_CACHE_CONTEXT_H
#define BTRFS_METADATA_CACHE_CONTEXT_H

#include "btrfs_metadata_cache/pinned_ranges.h"

#include <cstdint>

#include <time.h>

enum class VolumeSwitch : uint8_t { NotLookedAt, Off, On };

// What one pass over one volume works with. A pass starts with all of it zero; the checks (policy.h), the mapping file
// (mapping.h) and the engine fill it.
struct MetadataCacheContext {
	uint8_t fRestart;                // the pass must be repeated from its start
	uint8_t fCachePinSupport;        // the volume sits behind an SSD cache that can pin
	uint8_t fPolicyOn;               // configuration, and the volume's own switch where it is looked at
	uint32_t uReadThrottleWaitMult;  // how many times as long as reading took to wait; 0: not at all
	uint64_t ullSpaceUsageLimit;     // up to 100 a percentage of the cache, otherwise bytes
	uint64_t ullCacheSize;           // bytes
	uint64_t ullMaxUsedSizeLimit;    // the most bytes that may be pinned
	uint64_t totalMetadataCacheSize; // bytes recorded as pinned, every stripe counted
	uint64_t ullMaxUsedSize;         // the most that totalMetadataCacheSize has been, as the mapping file has it
	int32_t pid;                     // of the engine
	int32_t status;                  // of the mapping file when the pass started
	uint8_t fProgress;               // progress is reported
	uint64_t ullProgressCurrent;     // bytes
	uint64_t ullProgressTotal;       // bytes
	char szUuid[40];                 // of the volume
	timespec tsLastProgressWrite;    // CLOCK_MONOTONIC
	char szLockPath[4096];
	char szVolPath[4096];    // as the storage library has it
	char szDevPath[4096];    // the block device that carries the volume
	char szCacheRef[257];    // the SSD cache's name
	char szSsdId[32];        // the number in the SSD cache's id, in decimal
	VolumeSwitch lastSwitch; // the volume's own, when this pass last looked at it
	PinnedRanges pinned;     // what totalMetadataCacheSize is the size of
};

#endif
