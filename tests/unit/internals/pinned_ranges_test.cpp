#include "btrfs_metadata_cache/pinned_ranges.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Offsets = std::set<PinnedRanges::Offset>;

chunk_info Chunk(unsigned long long offset, unsigned long long begin, unsigned long long size)
{
	return {offset, size, 1, {begin, 0}, 1};
}

TEST(PinnedRanges, OverlapWhereTheyShareAByte)
{
	PinnedRanges ranges;
	ranges.Add(Chunk(1, 10, 10));
	ranges.Add(Chunk(2, 19, 1));
	ranges.Add(Chunk(3, 20, 10));
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 15, 5)), (Offsets{1, 2}));
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 0, 10)), Offsets{});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 0, 11)), Offsets{1});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 29, 1)), Offsets{3});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 30, 1)), Offsets{});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 0, 100)), (Offsets{1, 2, 3}));
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 15, 0)), Offsets{});
}

TEST(PinnedRanges, DoNotOverlapThemselves)
{
	PinnedRanges ranges;
	const chunk_info both = {7, 10, 2, {0, 5}, 1};
	ranges.Add(both);
	EXPECT_EQ(ranges.Overlapping(both), Offsets{});
}

TEST(PinnedRanges, OverlapWithEitherStripe)
{
	PinnedRanges ranges;
	ranges.Add({1, 5, 2, {10, 30}, 1});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 12, 1)), Offsets{1});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 34, 1)), Offsets{1});
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 15, 15)), Offsets{});
	EXPECT_EQ(ranges.Overlapping({9, 1, 2, {0, 33}, 1}), Offsets{1});
}

TEST(PinnedRanges, AreThereUntilTheirChunkIsRemoved)
{
	PinnedRanges ranges;
	ranges.Add(Chunk(1, 10, 5));
	ranges.Add(Chunk(2, 10, 5));
	ranges.Remove(Chunk(1, 10, 5));
	ranges.Remove(Chunk(1, 10, 5)); // which was not there any more
	EXPECT_EQ(ranges.Overlapping(Chunk(9, 10, 5)), Offsets{2});
}

TEST(PinnedRanges, ReachTheLargestNumber)
{
	PinnedRanges ranges;
	ranges.Add(Chunk(1, 0, UINT64_MAX));
	EXPECT_EQ(ranges.Overlapping(Chunk(9, UINT64_MAX - 1, 1)), Offsets{1});
}

// Comparing each with each says the same.
TEST(PinnedRanges, AgreeWithComparingThemOneByOne)
{
	std::mt19937 random(20261121);
	for (int round = 0; round < 2000; ++round) {
		SCOPED_TRACE(round);
		PinnedRanges ranges;
		std::vector<chunk_info> chunks;
		for (unsigned i = random() % 6; i > 0; --i) {
			chunks.push_back(Chunk(100 + i, random() % 40, 1 + random() % 12));
			ranges.Add(chunks.back());
		}
		if (!chunks.empty() && random() % 2 == 0) {
			ranges.Remove(chunks.back());
			chunks.pop_back();
		}
		const chunk_info wanted = Chunk(9, random() % 40, random() % 12);
		Offsets expected;
		for (const chunk_info &chunk : chunks)
			for (uint64_t byte = wanted.stripe_offset[0]; byte < wanted.stripe_offset[0] + wanted.size;
			     ++byte)
				if (byte >= chunk.stripe_offset[0] && byte < chunk.stripe_offset[0] + chunk.size)
					expected.insert(chunk.offset);
		EXPECT_EQ(ranges.Overlapping(wanted), expected);
	}
}

} // namespace
