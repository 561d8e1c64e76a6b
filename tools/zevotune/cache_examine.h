#ifndef ZEVOTUNE_CACHE_EXAMINE_H
#define ZEVOTUNE_CACHE_EXAMINE_H

// What the library, the machine and the volume itself say of a volume's metadata cache. All throw Failure.

#include "btrfs_volume.h"
#include "cache_status.h"
#include "cache_support.h"

CacheFacts ExamineCache(const BtrfsVolume &volume);

/// As root.
CacheSupport ExamineCacheSupport(const BtrfsVolume &volume);

/// The process in which an engine works on the volume; 0 when there is none.
int EngineOf(const BtrfsVolume &volume);

#endif
