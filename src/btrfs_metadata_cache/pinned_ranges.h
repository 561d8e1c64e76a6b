#ifndef BTRFS_METADATA_CACHE_PINNED_RANGES_H
#define BTRFS_METADATA_CACHE_PINNED_RANGES_H

#include <zevotuned/chunk_info.h>

#include <cstdint>
#include <map>
#include <set>
#include <utility>

// Where the recorded chunks lie on the device. They can lie on one another: Btrfs puts chunks around copies of the superblock, and new
// chunks where others were that are recorded still.
class PinnedRanges {
public:
	using Offset = unsigned long long;

	// A chunk whose ranges end within 64 bits.
	void Add(const chunk_info &chunk);
	void Remove(const chunk_info &chunk);

	// The offsets of the other chunks that share a byte with one.
	std::set<Offset> Overlapping(const chunk_info &chunk) const;

private:
	using Range = std::pair<uint64_t, uint64_t>; // its begin, and the byte behind its end

	static Range RangeOf(const chunk_info &chunk, unsigned stripe);

	std::multimap<Range, Offset> chunks;
	uint64_t longest = 0; // range that there ever was
};

#endif
