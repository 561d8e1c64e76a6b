#include "kit/fake_btrfs.h"
#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <zevotuned/zevotuned.h>

#include <gtest/gtest.h>

namespace {

using Lines = std::vector<std::string>;

constexpr uint64_t kData = 1, kSystem = 2, kMetadata = 4, kDup = 32;
constexpr uint64_t kGlobalReserve = 1ULL << 49;
constexpr uint64_t kMiB = 1 << 20;

class MetadataSizeTest : public kit::LabTest {
protected:
	MetadataSizeTest() { VUNKCErrSetEx(0, "", 0); }

	unsigned long long Size(unsigned long long before = 0)
	{
		EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume.c_str(), &before), 0);
		EXPECT_EQ(journal.Lines(), Lines());
		return before;
	}

	void ExpectFailure(const std::string &line)
	{
		unsigned long long size = 17;
		EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume.c_str(), &size), -1);
		EXPECT_EQ(size, 17u);
		EXPECT_EQ(journal.Lines(), Lines({"btrfs_metadata_cache.cpp " + line}));
	}

	/// Something happens before the request with slots.
	void BeforeSlots(const std::function<void(uint64_t *words)> &what)
	{
		btrfs.before = [what](unsigned long request, void *argument) {
			auto *const words = static_cast<uint64_t *>(argument);
			if (request == BTRFS_IOC_SPACE_INFO && words[0] != 0)
				what(words);
		};
	}

	kit::TempDir folder;
	kit::FakeBtrfs btrfs;
	std::string volume = folder.Path();
	kit::Journal journal;
};

TEST_F(MetadataSizeTest, DupCountsTwice)
{
	btrfs.spaces = {{kData, 5000 * kMiB, 1}, {kSystem, 32 * kMiB, 1}, {kMetadata | kDup, 1024 * kMiB, 1}};
	EXPECT_EQ(Size(), 2080 * kMiB);
}

TEST_F(MetadataSizeTest, MixedChunksCountAndTheReserveDoesNot)
{
	btrfs.spaces = {{kData | kMetadata, 8 * kMiB, 1}, {kGlobalReserve, 16 * kMiB, 1}, {kData | kDup, kMiB, 1}};
	EXPECT_EQ(Size(), 8 * kMiB);
	btrfs.spaces = {{kData | kMetadata | kDup, 8 * kMiB, 1}, {kSystem | kDup, kMiB, 1}};
	EXPECT_EQ(Size(), 18 * kMiB);
}

TEST_F(MetadataSizeTest, TheSizeIsAddedToWhatStoodThere)
{
	btrfs.spaces = {{kMetadata, 8 * kMiB, 1}};
	EXPECT_EQ(Size(5), 8 * kMiB + 5);
}

TEST_F(MetadataSizeTest, NoMetadataIsNoFailure)
{
	btrfs.spaces = {{kData, kMiB, 1}};
	EXPECT_EQ(Size(5), 5u);
}

TEST_F(MetadataSizeTest, SpacesThatCameInBetweenAreNotReadAndThoseThatWentDoNotCount)
{
	btrfs.spaces = {{kMetadata, kMiB, 1}, {kSystem, kMiB, 1}};
	const auto two = btrfs.spaces;
	BeforeSlots([&](uint64_t *words) {
		EXPECT_EQ(words[0], 2u);
		btrfs.spaces.push_back({kMetadata, kMiB, 1});
	});
	// The kernel itself may tell how many there are now.
	btrfs.afterwards = [&](unsigned long, void *argument) {
		static_cast<uint64_t *>(argument)[1] = btrfs.spaces.size();
	};
	EXPECT_EQ(Size(), 2 * kMiB);
	btrfs.spaces = two;
	BeforeSlots([&](uint64_t *) { btrfs.spaces.pop_back(); });
	EXPECT_EQ(Size(), kMiB);
}

TEST_F(MetadataSizeTest, ManySpacesAreCounted)
{
	btrfs.spaces.assign(1000, {kMetadata, kMiB, 1});
	EXPECT_EQ(Size(), 1000 * kMiB);
}

TEST_F(MetadataSizeTest, NullArgumentsAreRefused)
{
	unsigned long long size = 17;
	EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(nullptr, nullptr), -1);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(nullptr, &size), -1);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet("/", nullptr), -1);
	const std::string line = "btrfs_metadata_cache.cpp Invaild Argument (";
	EXPECT_EQ(journal.Lines(), (Lines{line + "__null != szVolPath)=[0]\n", line + "__null != szVolPath)=[0]\n",
	                                  line + "NULL != pullMetadataSizeByte)=[0]\n"}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(size, 17u);
}

TEST_F(MetadataSizeTest, AVolumeThatIsNotThereFails)
{
	volume = "/nowhere";
	ExpectFailure("Failed to open path [/nowhere]. errno[2]");
}

TEST_F(MetadataSizeTest, WhatIsNoBtrfsFails)
{
	btrfs.errors[BTRFS_IOC_SPACE_INFO] = ENOTTY;
	ExpectFailure("Failed to get space info with [" + volume + "], errno[25]");
}

TEST_F(MetadataSizeTest, AVolumeWithoutSpacesFails)
{
	ExpectFailure("Failed to total space with [" + volume + "]");
}

TEST_F(MetadataSizeTest, SpacesThatCannotBeReadFail)
{
	btrfs.spaces = {{kMetadata, kMiB, 1}, {kData, kMiB, 1}};
	const kit::Fault fault("ioctl", 2, EIO);
	ExpectFailure("Failed to get space info with [" + volume + "] slots [2], errno[5]");
}

TEST_F(MetadataSizeTest, AFileOnTheVolumeNamesItAsWell)
{
	btrfs.spaces = {{kMetadata, kMiB, 1}};
	volume = folder.Path("file");
	kit::WriteFile(volume, "");
	EXPECT_EQ(Size(), kMiB);
}

TEST(ChunkOrder, TheShippedLibraryOrdersAndComparesChunks)
{
	const chunk_info low = {1, 2, 1, {3, 4}, 0};
	chunk_info high = {2, 2, 1, {3, 4}, 0};
	EXPECT_TRUE(ChunkInfoSort(low, high));
	EXPECT_FALSE(ChunkInfoSort(high, low));
	EXPECT_FALSE(ChunkIsEqual(low, high));
	high = {1, 2, 1, {3, 5}, 1};
	EXPECT_TRUE(ChunkIsEqual(low, high));
}

} // namespace
