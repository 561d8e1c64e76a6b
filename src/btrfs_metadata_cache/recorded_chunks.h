#ifndef BTRFS_METADATA_CACHE_RECORDED_CHUNKS_H
#define BTRFS_METADATA_CACHE_RECORDED_CHUNKS_H

#include "btrfs_metadata_cache/context.h"
#include "support/handles.h"

#include <zevotuned/chunk_info.h>

#include <vector>

// What a mapping file says is pinned, each in the order of ChunkInfoSort.
struct RecordedChunks {
	std::vector<chunk_info> superblocks;
	std::vector<chunk_info> metadata;
};

// Reads the sections of a mapping file, and counts them in the context as pinned. False, with a line, when one of them
// cannot be read.
bool LoadRecordedChunks(MetadataCacheContext &ctx, const char *szConfigPath, const List &sections,
                        RecordedChunks &chunks);

// Only counts them. One that cannot be read counts for nothing.
void CountRecordedChunks(MetadataCacheContext &ctx, const char *szConfigPath, const std::vector<const char *> &names);

#endif
