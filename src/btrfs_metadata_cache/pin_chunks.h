#ifndef BTRFS_METADATA_CACHE_PIN_CHUNKS_H
#define BTRFS_METADATA_CACHE_PIN_CHUNKS_H

#include "btrfs_metadata_cache/chunk_discovery.h"
#include "btrfs_metadata_cache/context.h"

#include <vector>

// Brings what is pinned and recorded into line with what an enumerator finds; vecRecorded is in the order of
// ChunkInfoSort. 0, also when it was ended early because a check does not allow the cache any more, which sets
// fRestart; -1, also when the enumerator finds a chunk of no length, or none behind the last one, which would never
// end.
int PinChunks(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath, const char *szConfigPath,
              GetNextMapping fnGetNextMapping, const std::vector<chunk_info> &vecRecorded);

#endif
