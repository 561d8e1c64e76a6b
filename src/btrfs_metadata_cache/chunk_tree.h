#ifndef BTRFS_METADATA_CACHE_CHUNK_TREE_H
#define BTRFS_METADATA_CACHE_CHUNK_TREE_H

#include <cstdint>
#include <optional>
#include <span>

// A chunk as the chunk tree has it.
struct TreeChunk {
	struct Stripe {
		uint64_t devid;
		uint64_t offset; // bytes, on that device
	};

	uint64_t logical;
	uint64_t length;
	uint64_t type;
	unsigned stripe_count; // at least 1, and as many as there are
	Stripe stripe[2];      // the first two of them
};

// Takes the first item off what the kernel answered to a search in the chunk tree. Nothing, and the answer as it was,
// when that is no whole chunk item, or one that cannot be: without stripes, or with an end beyond the last address.
std::optional<TreeChunk> TakeChunk(std::span<const uint8_t> &answer);

#endif
