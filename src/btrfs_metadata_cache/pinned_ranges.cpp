#include "btrfs_metadata_cache/pinned_ranges.h"

#include <algorithm>

PinnedRanges::Range PinnedRanges::RangeOf(const chunk_info &chunk, unsigned stripe)
{
	return {chunk.stripe_offset[stripe], chunk.stripe_offset[stripe] + chunk.size};
}

void PinnedRanges::Add(const chunk_info &chunk)
{
	for (unsigned i = 0; i < chunk.stripe_count; ++i)
		chunks.emplace(RangeOf(chunk, i), chunk.offset);
	longest = std::max<uint64_t>(longest, chunk.size);
}

void PinnedRanges::Remove(const chunk_info &chunk)
{
	for (unsigned i = 0; i < chunk.stripe_count; ++i) {
		const auto [first, last] = chunks.equal_range(RangeOf(chunk, i));
		const auto own =
			std::find_if(first, last, [&](const auto &entry) { return entry.second == chunk.offset; });
		if (own != last)
			chunks.erase(own);
	}
}

std::set<PinnedRanges::Offset> PinnedRanges::Overlapping(const chunk_info &chunk) const
{
	std::set<Offset> found;
	for (unsigned i = 0; i < chunk.stripe_count && chunk.size != 0; ++i) {
		const auto [begin, end] = RangeOf(chunk, i);
		// None that begins earlier reaches into the range.
		auto it = chunks.lower_bound({begin - std::min(begin, longest), 0});
		for (; it != chunks.end() && it->first.first < end; ++it)
			if (it->first.second > begin && it->second != chunk.offset)
				found.insert(it->second);
	}
	return found;
}
