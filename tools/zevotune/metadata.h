#ifndef ZEVOTUNE_METADATA_H
#define ZEVOTUNE_METADATA_H

// Where a Btrfs volume's metadata lies on its device.

#include <zevotuned/chunk_info.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct MetadataLayout {
	std::string path;
	std::string uuid;
	std::string device;
	uint64_t deviceSize = 0;
	std::vector<chunk_info> superblocks; // by offset
	std::vector<chunk_info> chunks;      // metadata and system chunks, by offset
	std::map<uint64_t, uint64_t> types;  // BTRFS_BLOCK_GROUP_... of the chunks, by offset; none where it is unknown
	uint64_t allocated = 0;              // what the kernel counts of these chunks, twice for DUP
	// What is pinned and recorded so, by offset; nothing where that cannot be told.
	std::optional<std::vector<chunk_info>> pinned{std::in_place};
};

/// @param volume  any path on a mounted Btrfs volume, or its device.
/// Throws Failure where that is no such thing, or cannot be looked into.
MetadataLayout ExamineMetadata(const std::string &volume);

#endif
