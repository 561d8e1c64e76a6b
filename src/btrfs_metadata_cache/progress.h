#ifndef BTRFS_METADATA_CACHE_PROGRESS_H
#define BTRFS_METADATA_CACHE_PROGRESS_H

#include "btrfs_metadata_cache/context.h"

// The progress file: a pair file with the engine's "pid" and the bytes "total" and "current", there while a volume's
// metadata is pinned for the first time.

// Counts bytes as gone through, at most the total, and writes the file unless that was done less than 4 seconds ago.
// Does nothing while no progress is reported. 0, or -1 when the file cannot be written.
int BtrfsMetadataCacheProgressUpdate(MetadataCacheContext &ctx, uint64_t ullDelta);

// Writes it anew. 0 or -1.
int BtrfsMetadataCacheProgressWriteFile(const MetadataCacheContext &ctx);

// Removes it. 0, also when it is not there, or -1.
int BtrfsMetadataCacheProgressEnd(const char *szUuid);

#endif
