#include <zevotuned/chunk_info.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace {

const chunk_info kDup = {1048576, 8388608, 2, {22020096, 30408704}, 1};

TEST(ChunkInfo, ChunksAreOrderedByTheirOffsetAlone)
{
	chunk_info other = {1048577, 1, 1, {1, 1}, 0};
	EXPECT_TRUE(ChunkInfoSort(kDup, other));
	EXPECT_FALSE(ChunkInfoSort(other, kDup));
	other.offset = kDup.offset;
	EXPECT_FALSE(ChunkInfoSort(kDup, other));
	EXPECT_FALSE(ChunkInfoSort(other, kDup));
}

TEST(ChunkInfo, OffsetsInTheUpperHalfStandBehindThoseInTheLower)
{
	std::vector<chunk_info> chunks = {{1ULL << 63, 0, 0, {}, 0}, {~0ULL, 0, 0, {}, 0}, {5, 0, 0, {}, 0}};
	std::sort(chunks.begin(), chunks.end(), ChunkInfoSort);
	EXPECT_EQ(chunks[0].offset, 5u);
	EXPECT_EQ(chunks[1].offset, 1ULL << 63);
	EXPECT_EQ(chunks[2].offset, ~0ULL);
}

TEST(ChunkInfo, ChunksAreEqualThatDifferInTheirStatusOnly)
{
	chunk_info other = kDup;
	other.status = 0;
	EXPECT_TRUE(ChunkIsEqual(kDup, other));
}

TEST(ChunkInfo, ChunksDifferByOffsetSizeStripeCountAndEachStripe)
{
	for (unsigned long long chunk_info::*field :
	     {&chunk_info::offset, &chunk_info::size, &chunk_info::stripe_count}) {
		chunk_info other = kDup;
		--(other.*field);
		EXPECT_FALSE(ChunkIsEqual(kDup, other));
		EXPECT_FALSE(ChunkIsEqual(other, kDup));
	}
	for (const int stripe : {0, 1}) {
		chunk_info other = kDup;
		++other.stripe_offset[stripe];
		EXPECT_FALSE(ChunkIsEqual(kDup, other)) << stripe;
	}
}

TEST(ChunkInfo, OnlyTheStripesThatThereAreCount)
{
	chunk_info one = kDup;
	one.stripe_count = 1;
	chunk_info other = one;
	other.stripe_offset[1] = 7;
	EXPECT_TRUE(ChunkIsEqual(one, other));
	other.stripe_offset[0] = 7;
	EXPECT_FALSE(ChunkIsEqual(one, other));
	one.stripe_count = other.stripe_count = 0;
	EXPECT_TRUE(ChunkIsEqual(one, other));
}

} // namespace
