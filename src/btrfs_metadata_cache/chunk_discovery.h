#ifndef BTRFS_METADATA_CACHE_CHUNK_DISCOVERY_H
#define BTRFS_METADATA_CACHE_CHUNK_DISCOVERY_H

#include <zevotuned/chunk_info.h>

// Walk what is to be pinned of a volume, by ascending offset: each call goes on from what the last one wrote to
// *pChunk, which is all zero before the first one. 0 with the next one, 1 when there is none, -1 on failure. The flags
// are not used.
using GetNextMapping = int (*)(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int flags);

// The copies of the superblock that the device is large enough for.
int BtrfsMetadataCacheSuperblockNext(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int flags);

// The metadata and system chunks. Only of a volume on the one device szDevPath. The answer of an appliance's kernel is
// passed on as it is: who walks ends when the offset does not rise.
int BtrfsMetadataCacheChunkNext(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int flags);

#endif
