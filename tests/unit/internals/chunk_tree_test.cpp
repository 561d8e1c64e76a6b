#include "btrfs_metadata_cache/chunk_tree.h"

#include "kit/fake_btrfs.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using Bytes = std::vector<uint8_t>;

const kit::FakeChunk kDup = {1ULL << 40, 1 << 30, 0x24, {{1, 38797312}, {1, 1112539136}}};

Bytes Item(const kit::FakeChunk &chunk)
{
	Bytes bytes;
	kit::AppendItem(bytes, chunk);
	return bytes;
}

/// Whether the bytes, in memory that ends with them, are refused and stay where they are.
bool IsRefused(const Bytes &bytes)
{
	const auto exact = std::make_unique<uint8_t[]>(bytes.size());
	std::copy(bytes.begin(), bytes.end(), exact.get());
	std::span<const uint8_t> answer(exact.get(), bytes.size());
	return !TakeChunk(answer) && answer.size() == bytes.size() && answer.data() == exact.get();
}

/// The item with other bytes at a place behind the search's header of 32 bytes.
Bytes With(Bytes bytes, size_t at, const Bytes &others)
{
	std::copy(others.begin(), others.end(), bytes.begin() + static_cast<ptrdiff_t>(at));
	return bytes;
}

TEST(ChunkTree, AnItemIsTakenOffTheAnswer)
{
	Bytes bytes = Item(kDup);
	EXPECT_EQ(bytes.size(), 32u + 48 + 2 * 32);
	const size_t first = bytes.size();
	kit::AppendItem(bytes, {5, 6, 7, {{8, 9}}});
	std::span<const uint8_t> answer = bytes;

	const auto dup = TakeChunk(answer);
	ASSERT_TRUE(dup);
	EXPECT_EQ(dup->logical, 1ULL << 40);
	EXPECT_EQ(dup->length, 1ULL << 30);
	EXPECT_EQ(dup->type, 0x24u);
	EXPECT_EQ(dup->stripe_count, 2u);
	EXPECT_EQ(dup->stripe[0].devid, 1u);
	EXPECT_EQ(dup->stripe[0].offset, 38797312u);
	EXPECT_EQ(dup->stripe[1].offset, 1112539136u);
	EXPECT_EQ(answer.data(), bytes.data() + first);

	const auto single = TakeChunk(answer);
	ASSERT_TRUE(single);
	EXPECT_EQ(single->logical, 5u);
	EXPECT_EQ(single->length, 6u);
	EXPECT_EQ(single->type, 7u);
	EXPECT_EQ(single->stripe_count, 1u);
	EXPECT_EQ(single->stripe[0].devid, 8u);
	EXPECT_EQ(single->stripe[0].offset, 9u);
	EXPECT_TRUE(answer.empty());
	EXPECT_FALSE(TakeChunk(answer));
}

TEST(ChunkTree, AnItemMayLieAtAnyAddress)
{
	for (size_t shift = 1; shift < 8; ++shift) {
		Bytes bytes(shift);
		kit::AppendItem(bytes, kDup);
		std::span<const uint8_t> answer = std::span(bytes).subspan(shift);
		const auto chunk = TakeChunk(answer);
		ASSERT_TRUE(chunk);
		EXPECT_EQ(chunk->stripe[1].offset, 1112539136u);
	}
}

TEST(ChunkTree, NumbersOfAChunkAreLittleEndian)
{
	const Bytes bytes = With(With(Item(kDup), 32, {1, 2, 3, 0, 0, 0, 0, 0}), 32 + 48 + 8, {4, 5, 0, 0, 0, 0, 0, 0});
	std::span<const uint8_t> answer = bytes;
	const auto chunk = TakeChunk(answer);
	ASSERT_TRUE(chunk);
	EXPECT_EQ(chunk->length, 0x030201u);
	EXPECT_EQ(chunk->stripe[0].offset, 0x0504u);
}

TEST(ChunkTree, OfMoreThanTwoStripesTheNumberIsKeptAndTheFirstTwo)
{
	const Bytes bytes = Item({1, 2, 4, {{1, 10}, {2, 20}, {3, 30}}});
	std::span<const uint8_t> answer = bytes;
	const auto chunk = TakeChunk(answer);
	ASSERT_TRUE(chunk);
	EXPECT_EQ(chunk->stripe_count, 3u);
	EXPECT_EQ(chunk->stripe[1].devid, 2u);
	EXPECT_EQ(chunk->stripe[1].offset, 20u);
	EXPECT_TRUE(answer.empty());
}

TEST(ChunkTree, AnItemThatIsCutAnywhereIsRefused)
{
	const Bytes whole = Item(kDup);
	for (size_t size = 0; size < whole.size(); ++size)
		EXPECT_TRUE(IsRefused({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)})) << size;
}

TEST(ChunkTree, AnItemThatIsShorterThanItsStripesIsRefused)
{
	const size_t kLength = 28; // the header's last field
	for (uint8_t length = 0; length < 48 + 2 * 32; ++length)
		EXPECT_TRUE(IsRefused(With(Item(kDup), kLength, {length, 0, 0, 0}))) << int{length};
	EXPECT_FALSE(IsRefused(With(Item(kDup), kLength, {48 + 2 * 32, 0, 0, 0})));
	EXPECT_TRUE(IsRefused(With(Item(kDup), kLength, {0xff, 0xff, 0xff, 0xff})));
	const size_t kStripes = 32 + 44;
	EXPECT_TRUE(IsRefused(With(Item(kDup), kStripes, {3, 0})));
	EXPECT_TRUE(IsRefused(With(Item(kDup), kStripes, {0xff, 0xff})));
	EXPECT_TRUE(IsRefused(With(Item(kDup), kStripes, {0, 0})));
}

TEST(ChunkTree, AnItemOfAnotherKindIsRefused)
{
	EXPECT_TRUE(IsRefused(With(Item(kDup), 8, {1})));    // objectid: that of devices
	EXPECT_TRUE(IsRefused(With(Item(kDup), 24, {216}))); // type
}

TEST(ChunkTree, AChunkThatEndsBehindTheLastAddressIsRefused)
{
	EXPECT_FALSE(IsRefused(Item({UINT64_MAX - 10, 10, 4, {{1, 0}}})));
	EXPECT_TRUE(IsRefused(Item({UINT64_MAX - 10, 11, 4, {{1, 0}}})));
	EXPECT_FALSE(IsRefused(Item({0, 10, 4, {{1, 0}, {1, UINT64_MAX - 10}}})));
	EXPECT_TRUE(IsRefused(Item({0, 11, 4, {{1, UINT64_MAX - 10}, {1, 0}}})));
	EXPECT_TRUE(IsRefused(Item({0, 11, 4, {{1, 0}, {1, UINT64_MAX - 10}}})));
}

} // namespace
