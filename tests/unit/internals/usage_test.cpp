#include "btrfs_metadata_cache/usage.h"

#include "kit/journal.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr uint64_t kGiB = 1ULL << 30;

chunk_info Chunk(unsigned long long size, unsigned long long stripes)
{
	return {1048576, size, stripes, {65536, 131072}, 0};
}

TEST(Usage, CountsEveryStripeOfAChunk)
{
	EXPECT_EQ(PinnedSize(Chunk(4096, 0)), 0u);
	EXPECT_EQ(PinnedSize(Chunk(4096, 1)), 4096u);
	EXPECT_EQ(PinnedSize(Chunk(4096, 2)), 8192u);
	EXPECT_EQ(PinnedSize(Chunk(0, 2)), 0u);
	EXPECT_EQ(PinnedSize(Chunk(1ULL << 62, 2)), 1ULL << 63);
	EXPECT_EQ(PinnedSize(Chunk(UINT64_MAX, 1)), UINT64_MAX);
}

TEST(Usage, StopsAtTheLargestNumber)
{
	EXPECT_EQ(PinnedSize(Chunk(UINT64_MAX, 2)), UINT64_MAX);
	EXPECT_EQ(PinnedSize(Chunk(1ULL << 63, 2)), UINT64_MAX);
	EXPECT_EQ(PinnedSize(Chunk(UINT64_MAX, UINT64_MAX)), UINT64_MAX);
	EXPECT_EQ(SumOf(UINT64_MAX - 1, 1), UINT64_MAX);
	EXPECT_EQ(SumOf(UINT64_MAX, 1), UINT64_MAX);
	EXPECT_EQ(SumOf(UINT64_MAX, UINT64_MAX), UINT64_MAX);
	EXPECT_EQ(SumOf(1, 2), 3u);
	EXPECT_EQ(SumOf(0, 0), 0u);
}

TEST(Usage, IsLimitedByAPercentageUpToAHundredAndByBytesFromThereOn)
{
	const struct {
		uint64_t limit;
		uint64_t cache;
		uint64_t expected;
	} rows[] = {
		{100, 1000, 1000},
		{150, 1000, 150},
		{101, 1000, 101},
		{101, 50, 50},
		{999, 1000, 999},
		{1000, 1000, 1000},
		{1001, 1000, 1000},
		{UINT64_MAX, 1000, 1000},
		{0, 1000, 0},
		{1, 1000, 10},
		{1, 99, 0}, // what is less than a byte does not count
		{99, 1001, 990},
		{80, kGiB, 858993459},
		{100, 0, 0},
		{150, 0, 0},
		{100, UINT64_MAX, UINT64_MAX},
		{50, UINT64_MAX, UINT64_MAX / 2},
		{100, UINT64_MAX / 99, UINT64_MAX / 99},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::to_string(row.limit) + " of " + std::to_string(row.cache));
		EXPECT_EQ(UsedSizeLimit(row.limit, row.cache), row.expected);
	}
}

TEST(Usage, IsAPercentageOfTheCacheRoundedDown)
{
	const struct {
		uint64_t size;
		uint64_t cache;
		int expected;
	} rows[] = {
		{0, 1000, 0},
		{9, 1000, 0},
		{10, 1000, 1},
		{799, 1000, 79},
		{800, 1000, 80},
		{999, 1000, 99},
		{1000, 1000, 100},
		{2000, 1000, 200}, // pinned before the cache was made smaller
		{0, 0, 0},
		{1000, 0, 0}, // of a cache of nothing
		{UINT64_MAX, UINT64_MAX, 100},
		{UINT64_MAX / 100 * 80 + 80, UINT64_MAX, 80}, // a product beyond 64 bits
		{UINT64_MAX, 1, INT_MAX},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::to_string(row.size) + " of " + std::to_string(row.cache));
		EXPECT_EQ(PercentOfCache(row.size, row.cache), row.expected);
	}
}

TEST(Usage, WarnsOfTheHighestThresholdThatIsNew)
{
	for (int before = 0; before <= 120; ++before)
		for (int now = 0; now <= 120; ++now) {
			int expected = 0;
			for (const int threshold : {80, 90, 95, 99, 100})
				if (before < threshold && threshold <= now)
					expected = threshold;
			EXPECT_EQ(ThresholdCrossed(before, now), expected) << before << " to " << now;
		}
}

TEST(Usage, WarnsOnceOfWhatIsCrossedAtOnce)
{
	EXPECT_EQ(ThresholdCrossed(50, 92), 90);
	EXPECT_EQ(ThresholdCrossed(92, 93), 0);
	EXPECT_EQ(ThresholdCrossed(93, 95), 95);
	EXPECT_EQ(ThresholdCrossed(0, INT_MAX), 100);
	EXPECT_EQ(ThresholdCrossed(INT_MAX, INT_MAX), 0);
}

TEST(Usage, GrowsByAChunkThatFits)
{
	MetadataCacheContext context = {};
	context.ullMaxUsedSizeLimit = 10000;
	EXPECT_TRUE(ChargeChunk(context, Chunk(4096, 2)));
	EXPECT_EQ(context.totalMetadataCacheSize, 8192u);
	EXPECT_FALSE(ChargeChunk(context, Chunk(1809, 1)));
	EXPECT_EQ(context.totalMetadataCacheSize, 8192u);
	EXPECT_TRUE(ChargeChunk(context, Chunk(1808, 1))); // to the last byte
	EXPECT_EQ(context.totalMetadataCacheSize, 10000u);
	EXPECT_TRUE(ChargeChunk(context, Chunk(4096, 0)));
	EXPECT_FALSE(ChargeChunk(context, Chunk(1, 1)));
	EXPECT_EQ(context.totalMetadataCacheSize, 10000u);
}

TEST(Usage, DoesNotGrowPastTheLargestNumber)
{
	MetadataCacheContext context = {};
	context.ullMaxUsedSizeLimit = 1ULL << 40;
	context.totalMetadataCacheSize = 4096;
	EXPECT_FALSE(ChargeChunk(context, Chunk(UINT64_MAX - 4095, 1))); // would come to 0 again
	EXPECT_FALSE(ChargeChunk(context, Chunk(1ULL << 63, 2)));
	EXPECT_EQ(context.totalMetadataCacheSize, 4096u);
}

TEST(Usage, DoesNotGrowWhereMoreIsTakenThanTheLimit)
{
	MetadataCacheContext context = {};
	context.ullMaxUsedSizeLimit = 1000;
	context.totalMetadataCacheSize = 1001;
	EXPECT_FALSE(ChargeChunk(context, Chunk(4096, 0)));
	EXPECT_EQ(context.totalMetadataCacheSize, 1001u);
}

TEST(Usage, ShrinksByAChunk)
{
	const kit::Journal journal;
	MetadataCacheContext context = {};
	context.totalMetadataCacheSize = 12288;
	DischargeChunk(context, Chunk(4096, 1));
	EXPECT_EQ(context.totalMetadataCacheSize, 8192u);
	DischargeChunk(context, Chunk(4096, 2));
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	DischargeChunk(context, Chunk(4096, 0));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST(Usage, ShrinksToNothingWithALineWhereTheChunkIsLarger)
{
	const kit::Journal journal;
	MetadataCacheContext context = {};
	context.totalMetadataCacheSize = 8191;
	DischargeChunk(context, Chunk(4096, 2));
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	DischargeChunk(context, Chunk(UINT64_MAX, 2));
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to totalMetadataCacheSize underflow [8191] "
	                                  "< [8192], with chunk "
	                                  "[1048576]",
	                                  "btrfs_metadata_cache.cpp Failed to totalMetadataCacheSize underflow [0] < "
	                                  "[18446744073709551615], with chunk [1048576]"}));
}

} // namespace
