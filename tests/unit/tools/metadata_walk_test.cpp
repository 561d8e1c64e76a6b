#include "failure.h"
#include "metadata_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr unsigned long long kNoLength = 5000;

// What the enumerators below were given and give.
std::vector<std::string> asked;
std::vector<chunk_info> there;

int Next(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int)
{
	asked = {szVolPath, szDevPath};
	for (const chunk_info &chunk : there) {
		if (chunk.offset < pChunk->offset + pChunk->size)
			continue;
		*pChunk = chunk;
		return 0;
	}
	return 1;
}

int FailAfterTwo(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int flags)
{
	return pChunk->offset == there[1].offset ? -1 : Next(szVolPath, szDevPath, pChunk, flags);
}

class MetadataWalk : public testing::Test {
protected:
	void SetUp() override
	{
		there = {{0, 100, 1, {7, 0}, 0}, {100, 50, 2, {8, 9}, 0}, {500, 1, 1, {10, 0}, 0}};
		asked.clear();
	}
};

TEST_F(MetadataWalk, NamesEveryPieceInTheEnumeratorsOrder)
{
	const auto found = WalkMetadata(Next, "/volume1", "/dev/sda");
	ASSERT_TRUE(found);
	ASSERT_EQ(found->size(), 3U);
	for (size_t i = 0; i < 3; ++i) {
		EXPECT_EQ((*found)[i].offset, there[i].offset);
		EXPECT_EQ((*found)[i].size, there[i].size);
		EXPECT_EQ((*found)[i].stripe_count, there[i].stripe_count);
		EXPECT_EQ((*found)[i].stripe_offset[0], there[i].stripe_offset[0]);
	}
	EXPECT_EQ((*found)[1].stripe_offset[1], 9U);
	EXPECT_EQ(asked, (std::vector<std::string>{"/volume1", "/dev/sda"}));
}

TEST_F(MetadataWalk, FindsNothingWhereThereIsNothing)
{
	there.clear();
	const auto found = WalkMetadata(Next, "/volume1", "/dev/sda");
	ASSERT_TRUE(found);
	EXPECT_TRUE(found->empty());
}

TEST_F(MetadataWalk, GivesNothingWhenTheEnumeratorFailsHalfWay)
{
	EXPECT_FALSE(WalkMetadata(FailAfterTwo, "/volume1", "/dev/sda"));
}

TEST_F(MetadataWalk, EndsAtAChunkWithoutLengthWhichWouldBeFoundForEver)
{
	there[2] = {kNoLength, 0, 1, {10, 0}, 0};
	try {
		WalkMetadata(Next, "/volume1", "/dev/sda");
		ADD_FAILURE() << "it ended";
	} catch (const Failure &failure) {
		EXPECT_STREQ(failure.what(),
		             "cannot tell where the metadata of /volume1 lies: the kernel names the chunk at "
		             "5000 twice; see its log (dmesg), and check the file system");
	}
}

} // namespace
