#ifndef ZEVOTUNE_CACHE_RECORDS_H
#define ZEVOTUNE_CACHE_RECORDS_H

// What a volume's mapping file records of what is pinned.

#include <zevotuned/chunk_info.h>

#include <optional>
#include <string>
#include <vector>

struct PinRecords {
	bool isThere = false; // the file
	std::string file;
	std::vector<chunk_info> chunks; // metadata and superblock copies, in no order
};

/// Throws Failure when the file cannot be read. One that an engine is changing is read again for a while.
PinRecords ReadPinRecords(const std::string &volume);

/// Those that are pinned and read, by offset; nothing when that cannot be told.
std::optional<std::vector<chunk_info>> ReadPinnedChunks(const std::string &volume);

#endif
