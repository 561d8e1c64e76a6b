#ifndef BTRFS_METADATA_CACHE_CHUNK_TREE_SEARCH_H
#define BTRFS_METADATA_CACHE_CHUNK_TREE_SEARCH_H

#include "btrfs_metadata_cache/chunk_tree.h"

#include <linux/btrfs_tree.h>

// What counts as metadata.
inline constexpr uint64_t kMetadataTypes = BTRFS_BLOCK_GROUP_SYSTEM | BTRFS_BLOCK_GROUP_METADATA;

// Finds the first chunk of one of some types at or after an address, in the chunk tree of the file system that the
// descriptor lies on. 0; 1 when there is none; -1 with errno, which is EUCLEAN for an answer that cannot be.
//
// The tree may change between two calls, and between two questions of one call. Each question goes on behind the last
// address that has been seen, and new chunks get addresses behind all others, so that no chunk that is there all the
// time is missed, and none is found twice by a caller who goes on behind the last one.
int FindChunk(int volume, uint64_t types, uint64_t start, TreeChunk &found);

#endif
