#ifndef BTRFS_METADATA_CACHE_ENGINE_LOCK_H
#define BTRFS_METADATA_CACHE_ENGINE_LOCK_H

#include "btrfs_metadata_cache/context.h"

enum class EngineLock {
	Held,
	Busy,     // another engine works on the volume; error 0x6400
	NotBtrfs, // error 0xD900
	Failed,
};

// Takes a volume's engine lock without waiting, and fills the context's UUID and lock path. The descriptor holds the
// lock when it is Held, and is to be given back by EngineLockRelease; it is untouched otherwise.
EngineLock EngineLockTake(MetadataCacheContext &ctx, const char *szVolPath, int &fd);

// Whether the volume that the lock is for is still the one at the path: another one may have been mounted there. If
// not, errno is ESTALE.
bool EngineLockCovers(const MetadataCacheContext &ctx, const char *szVolPath);

// Closes the descriptor in any case. 0 or -1.
int EngineLockRelease(const MetadataCacheContext &ctx, int fd);

#endif
