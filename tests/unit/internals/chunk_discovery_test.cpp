#include "btrfs_metadata_cache/chunk_discovery.h"

#include "kit/fake_btrfs.h"
#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using Lines = std::vector<std::string>;
using kit::FakeChunk;

constexpr uint64_t kData = 1, kSystem = 2, kMetadata = 4, kRaid1 = 16, kDup = 32;
constexpr uint64_t kMiB = 1 << 20;

std::string BadArgument(const std::string &condition)
{
	return "btrfs_metadata_cache.cpp Invaild Argument (" + condition + ")=[0]\n";
}

bool operator==(const chunk_info &a, const chunk_info &b)
{
	return ChunkIsEqual(a, b) && a.stripe_offset[0] == b.stripe_offset[0] &&
	       a.stripe_offset[1] == b.stripe_offset[1] && a.status == b.status;
}

class DiscoveryTest : public kit::LabTest {
protected:
	DiscoveryTest()
	{
		device = Node("device", 200);
		VUNKCErrSetEx(0, "", 0);
	}

	/// A name of a block device that nobody opens.
	std::string Node(const std::string &name, unsigned minor) const
	{
		const std::string path = folder.Path(name);
		EXPECT_EQ(mknod(path.c_str(), S_IFBLK | 0600, makedev(259, minor)), 0);
		return path;
	}

	kit::TempDir folder;
	kit::FakeBtrfs btrfs;
	std::string volume = folder.Path();
	std::string device;
	kit::Journal journal;
};

// Superblocks. The device is a file, whose size the test says.

class SuperblockTest : public DiscoveryTest {
protected:
	SuperblockTest() : image(folder.Path("image")) { kit::WriteFile(image, ""); }

	int Next(chunk_info &chunk)
	{
		return BtrfsMetadataCacheSuperblockNext(volume.c_str(), image.c_str(), &chunk, 0);
	}

	/// Offsets of the copies on a device of a size.
	std::vector<uint64_t> Copies(uint64_t size)
	{
		btrfs.deviceSize = size;
		std::vector<uint64_t> offsets;
		chunk_info chunk = {};
		int result;
		while ((result = Next(chunk)) == 0) {
			offsets.push_back(chunk.stripe_offset[0]);
			EXPECT_TRUE(chunk == (chunk_info{offsets.size(), 4096, 1, {offsets.back(), 0}, 0}));
			if (offsets.size() > 3)
				break;
		}
		EXPECT_EQ(result, 1);
		EXPECT_EQ(journal.Lines(), Lines());
		return offsets;
	}

	std::string image;
};

TEST_F(SuperblockTest, ADeviceHasTheCopiesThatItIsLargerThan)
{
	using Offsets = std::vector<uint64_t>;
	constexpr uint64_t kSecond = 64 * kMiB, kThird = uint64_t{256} << 30;
	EXPECT_EQ(Copies(0), Offsets());
	EXPECT_EQ(Copies(0x11000), Offsets());
	EXPECT_EQ(Copies(0x11001), Offsets({0x10000}));
	EXPECT_EQ(Copies(kSecond + 4096), Offsets({0x10000}));
	EXPECT_EQ(Copies(kSecond + 4097), Offsets({0x10000, kSecond}));
	EXPECT_EQ(Copies(100 * kMiB), Offsets({0x10000, kSecond}));
	EXPECT_EQ(Copies(kThird + 4096), Offsets({0x10000, kSecond}));
	EXPECT_EQ(Copies(kThird + 4097), Offsets({0x10000, kSecond, kThird}));
	EXPECT_EQ(Copies(UINT64_MAX), Offsets({0x10000, kSecond, kThird}));
}

TEST_F(SuperblockTest, TheFourthCallEndsTheWalkWithoutLookingAtTheDevice)
{
	btrfs.errors[BLKGETSIZE64] = EIO;
	chunk_info chunk = {3, 4096, 1, {1, 2}, 5};
	EXPECT_EQ(Next(chunk), 1);
	chunk.offset = 0x7fffffff;
	EXPECT_EQ(Next(chunk), 1);
	EXPECT_EQ(btrfs.requests, std::vector<unsigned long>());
	EXPECT_EQ(journal.Lines(), Lines());
}

TEST_F(SuperblockTest, TheIndexIsTheLowerHalfOfTheOffset)
{
	btrfs.deviceSize = 100 * kMiB;
	chunk_info chunk = {(1ULL << 32) + 1, 0, 0, {}, 0};
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_TRUE(chunk == (chunk_info{2, 4096, 1, {64 * kMiB, 0}, 0}));
}

TEST_F(SuperblockTest, ANegativeIndexFailsWithoutALine)
{
	for (const uint64_t offset : {uint64_t{0x80000000}, uint64_t{0xffffffff}, UINT64_MAX}) {
		VUNKCErrSetEx(0, "", 0);
		chunk_info chunk = {offset, 7, 8, {9, 10}, 11};
		const chunk_info before = chunk;
		EXPECT_EQ(Next(chunk), -1);
		EXPECT_TRUE(chunk == before);
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
	}
	EXPECT_EQ(journal.Lines(), Lines());
}

TEST_F(SuperblockTest, WhatACopyDoesNotHaveStaysInTheRecord)
{
	btrfs.deviceSize = 100 * kMiB;
	chunk_info chunk = {0, 7, 8, {9, 10}, 11};
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_TRUE(chunk == (chunk_info{1, 4096, 1, {0x10000, 10}, 11}));
}

TEST_F(SuperblockTest, NullPathsAreRefused)
{
	chunk_info chunk = {};
	EXPECT_EQ(BtrfsMetadataCacheSuperblockNext(nullptr, nullptr, &chunk, 0), -1);
	EXPECT_EQ(BtrfsMetadataCacheSuperblockNext("/", nullptr, &chunk, 0), -1);
	EXPECT_EQ(journal.Lines(), (Lines{BadArgument("__null != szVolPath"), BadArgument("NULL != szDevPath")}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
}

TEST_F(SuperblockTest, ADeviceThatIsNotThereFails)
{
	chunk_info chunk = {1, 7, 8, {9, 10}, 11};
	const chunk_info before = chunk;
	EXPECT_EQ(BtrfsMetadataCacheSuperblockNext(volume.c_str(), "/nowhere", &chunk, 0), -1);
	EXPECT_EQ(journal.Lines(), Lines({"btrfs_metadata_cache.cpp Failed to open path [/nowhere]. errno[2]"}));
	EXPECT_TRUE(chunk == before);
}

TEST_F(SuperblockTest, WhatHasNoDeviceSizeFails)
{
	btrfs.errors[BLKGETSIZE64] = ENOTTY;
	chunk_info chunk = {1, 7, 8, {9, 10}, 11};
	const chunk_info before = chunk;
	EXPECT_EQ(Next(chunk), -1);
	EXPECT_EQ(journal.Lines(),
	          Lines({"btrfs_metadata_cache.cpp Failed to get device size on [" + image + "]\n errno[25]"}));
	EXPECT_TRUE(chunk == before);
}

// Chunks, asked of the appliance's kernel or taken from the tree: both ways have the same contract.

const char *const kLookupWay = "lookup";

class ChunkTest : public DiscoveryTest, public testing::WithParamInterface<const char *> {
protected:
	ChunkTest()
	{
		btrfs.hasLookup = GetParam() == kLookupWay;
		btrfs.devices = {{1, device}};
		if (GetParam() == std::string("old search"))
			btrfs.errors[BTRFS_IOC_TREE_SEARCH_V2] = ENOTTY;
		if (GetParam() == std::string("old search, EINVAL"))
			btrfs.errors[BTRFS_IOC_TREE_SEARCH_V2] = EINVAL;
	}

	int Next(chunk_info &chunk) { return BtrfsMetadataCacheChunkNext(volume.c_str(), device.c_str(), &chunk, 0); }

	/// All chunks; the walk must end with 1.
	std::vector<chunk_info> Walk()
	{
		std::vector<chunk_info> chunks;
		chunk_info chunk = {};
		int result;
		while ((result = Next(chunk)) == 0 && chunks.size() < 10000)
			chunks.push_back(chunk);
		EXPECT_EQ(result, 1);
		return chunks;
	}

	/// The next chunk fails with one line and leaves the record as it was.
	void ExpectFailure(const std::string &line)
	{
		journal.Clear();
		chunk_info chunk = {7, 0, 9, {10, 11}, 12};
		const chunk_info before = chunk;
		EXPECT_EQ(Next(chunk), -1);
		EXPECT_EQ(journal.Lines(), Lines({"btrfs_metadata_cache.cpp " + line}));
		EXPECT_TRUE(chunk == before);
	}

	void ExpectNotFound(int error)
	{
		ExpectFailure("Failed to find metadata chunk info on [" + volume + "] errno[" + std::to_string(error) +
		              "]");
	}

	bool TakesTheTree() const { return GetParam() != kLookupWay; }
};

TEST_P(ChunkTest, MetadataAndSystemChunksAreFoundInOrder)
{
	btrfs.chunks = {{1 * kMiB, 4 * kMiB, kSystem, {{1, 1 * kMiB}}},
	                {5 * kMiB, 8 * kMiB, kMetadata | kDup, {{1, 5 * kMiB}, {1, 13 * kMiB}}},
	                {13 * kMiB, 8 * kMiB, kData, {{1, 21 * kMiB}}},
	                {21 * kMiB, 8 * kMiB, kData | kMetadata, {{1, 29 * kMiB}}},
	                {1000 * kMiB, 8 * kMiB, kMetadata, {{1, 37 * kMiB}}}};
	const auto found = Walk();
	ASSERT_EQ(found.size(), 4u);
	EXPECT_TRUE(found[0] == (chunk_info{1 * kMiB, 4 * kMiB, 1, {1 * kMiB, 0}, 0}));
	EXPECT_TRUE(found[1] == (chunk_info{5 * kMiB, 8 * kMiB, 2, {5 * kMiB, 13 * kMiB}, 0}));
	// With one stripe the second place keeps what stood there.
	EXPECT_TRUE(found[2] == (chunk_info{21 * kMiB, 8 * kMiB, 1, {29 * kMiB, 13 * kMiB}, 0}));
	EXPECT_TRUE(found[3] == (chunk_info{1000 * kMiB, 8 * kMiB, 1, {37 * kMiB, 13 * kMiB}, 0}));
	EXPECT_EQ(journal.Lines(), Lines());
}

TEST_P(ChunkTest, AVolumeWithoutMetadataHasNone)
{
	EXPECT_TRUE(Walk().empty());
	btrfs.chunks = {{kMiB, kMiB, kData, {{1, kMiB}}}};
	EXPECT_TRUE(Walk().empty());
	EXPECT_EQ(journal.Lines(), Lines());
}

TEST_P(ChunkTest, AnyNumberOfDataChunksMayLieBetween)
{
	for (const uint64_t data : {1, 2, 3, 17, 18, 19, 145, 146, 147, 500}) {
		btrfs.chunks.clear();
		for (uint64_t i = 0; i < data; ++i)
			btrfs.chunks.push_back({i * kMiB, kMiB, kData, {{1, i * kMiB}}});
		btrfs.chunks.push_back({data * kMiB, kMiB, kMetadata, {{1, data * kMiB}}});
		btrfs.chunks.push_back({(data + 1) * kMiB, kMiB, kData, {{1, 5}}});
		const auto found = Walk();
		ASSERT_EQ(found.size(), 1u) << data;
		EXPECT_EQ(found[0].offset, data * kMiB);
	}
}

TEST_P(ChunkTest, TheWalkGoesOnBehindTheEndOfTheLastChunk)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}, {15, 5, kMetadata, {{1, 5}}}, {20, 10, kMetadata, {{1, 20}}}};
	chunk_info chunk = {};
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 10u);
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 20u);
}

TEST_P(ChunkTest, AChunkOfNoLengthIsFoundAgain)
{
	btrfs.chunks = {{10, 0, kMetadata, {{1, 10}}}, {20, 10, kMetadata, {{1, 20}}}};
	chunk_info chunk = {};
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 10u);
}

TEST_P(ChunkTest, ChunksComeAndGoDuringTheWalk)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}, {20, 10, kMetadata, {{1, 20}}}, {30, 10, kMetadata, {{1, 30}}}};
	chunk_info chunk = {};
	EXPECT_EQ(Next(chunk), 0);
	btrfs.chunks.erase(btrfs.chunks.begin(), btrfs.chunks.begin() + 2); // the one that was found, and the next
	btrfs.chunks.push_back({50, 10, kMetadata, {{1, 10}}});
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 30u);
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 50u);
	EXPECT_EQ(Next(chunk), 1);
	EXPECT_EQ(chunk.offset, 50u);
}

TEST_P(ChunkTest, MoreThanTwoStripesEndTheWalk)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}, {2, 10}, {3, 10}}}};
	ExpectFailure("Failed to stripe count overflow [3]");
}

TEST_P(ChunkTest, StripesOnTwoDevicesFail)
{
	btrfs.devices[2] = Node("second", 201);
	btrfs.chunks = {{10, 10, kMetadata | kRaid1, {{1, 10}, {2, 10}}}};
	ExpectNotFound(EXDEV);
}

TEST_P(ChunkTest, TheOnlyDeviceIsKnownByTheKernelsNameWhenItHasBeenRenamed)
{
	const std::string uuid = "33333333-0000-4000-8000-0000000000aa";
	const std::string members = "/sys/fs/btrfs/" + uuid + "/devices";
	const std::string number = "/sys/dev/block/259:202";
	const std::string disk = "/sys/devices/virtual/block/renamed-7";
	kit::FakeStorage storage;
	storage.volumes = {{.path = volume, .uuid = uuid, .device = device}};
	std::filesystem::create_directories(members);
	std::filesystem::create_directories(disk);
	std::filesystem::create_symlink("../../devices/virtual/block/renamed-7", number);
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	device = Node("new name", 202);

	ExpectNotFound(EXDEV);
	std::filesystem::create_symlink(disk, members + "/renamed-7");
	EXPECT_EQ(Walk().size(), 1u); // of the old name there is another device
	btrfs.devices[1] = folder.Path("old name");
	EXPECT_EQ(Walk().size(), 1u);

	storage.volumes[0].uuid = "44444444-0000-4000-8000-0000000000aa";
	ExpectNotFound(EXDEV);
	storage.volumes[0].uuid = uuid;
	btrfs.devices[2] = Node("second", 201);
	ExpectNotFound(EXDEV);
	btrfs.devices.erase(2);
	std::filesystem::remove(disk); // the device is gone, and Btrfs keeps its link
	ExpectNotFound(EXDEV);
	std::filesystem::create_directories(disk);
	std::filesystem::remove(number);
	ExpectNotFound(EXDEV);

	std::filesystem::remove(disk);
	std::filesystem::remove_all("/sys/fs/btrfs/" + uuid);
}

TEST_P(ChunkTest, NullPathsAreRefused)
{
	chunk_info chunk = {};
	EXPECT_EQ(BtrfsMetadataCacheChunkNext(nullptr, nullptr, &chunk, 0), -1);
	EXPECT_EQ(BtrfsMetadataCacheChunkNext("/", nullptr, &chunk, 0), -1);
	EXPECT_EQ(journal.Lines(), (Lines{BadArgument("__null != szVolPath"), BadArgument("NULL != szDevPath")}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
}

TEST_P(ChunkTest, AVolumeThatIsNotThereFails)
{
	volume = "/nowhere";
	ExpectFailure("Failed to open path [/nowhere]. errno[2]");
}

TEST_P(ChunkTest, ALookupThatFailsFails)
{
	for (const int error : {EIO, EPERM, EINVAL}) {
		btrfs.errors[kit::kAppliancesLookup] = error;
		ExpectNotFound(error);
	}
}

TEST_P(ChunkTest, WhatIsNoBtrfsFails)
{
	for (const unsigned long request : {kit::kAppliancesLookup, static_cast<unsigned long>(BTRFS_IOC_TREE_SEARCH),
	                                    static_cast<unsigned long>(BTRFS_IOC_TREE_SEARCH_V2)})
		btrfs.errors[request] = ENOTTY;
	ExpectNotFound(ENOTTY);
}

INSTANTIATE_TEST_SUITE_P(Ways, ChunkTest, testing::Values(kLookupWay, "search", "old search", "old search, EINVAL"),
                         [](const auto &way) {
				 std::string name = way.param;
				 std::erase_if(name, [](char c) { return c == ' ' || c == ','; });
				 return name;
			 });

// What only one of the ways can meet.

class LookupTest : public ChunkTest {};
class TreeTest : public ChunkTest {};

INSTANTIATE_TEST_SUITE_P(Way, LookupTest, testing::Values(kLookupWay));
INSTANTIATE_TEST_SUITE_P(Way, TreeTest, testing::Values("search"));

TEST_P(LookupTest, TheAppliancesKernelIsAskedForMetadataAndSystemChunksAndNothingElse)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	std::vector<std::pair<uint64_t, uint64_t>> asked;
	btrfs.before = [&](unsigned long request, void *argument) {
		if (request == kit::kAppliancesLookup)
			asked.emplace_back(static_cast<uint64_t *>(argument)[0], static_cast<uint64_t *>(argument)[1]);
	};
	EXPECT_EQ(Walk().size(), 1u);
	EXPECT_EQ(asked, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 6}, {20, 6}}));
	EXPECT_EQ(std::count(btrfs.requests.begin(), btrfs.requests.end(), BTRFS_IOC_TREE_SEARCH_V2), 0);
}

TEST_P(LookupTest, EveryCallAsksTheAppliancesKernelFirst)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}, {20, 10, kMetadata, {{1, 20}}}};
	chunk_info chunk = {};
	btrfs.errors[kit::kAppliancesLookup] = EOPNOTSUPP;
	EXPECT_EQ(Next(chunk), 0);
	btrfs.errors.clear();
	btrfs.errors[BTRFS_IOC_TREE_SEARCH_V2] = EIO;
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 20u);
	EXPECT_EQ(journal.Lines(), Lines());
}

TEST_P(LookupTest, AnyNumberOfStripesAboveTwoIsRefused)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	btrfs.afterwards = [](unsigned long request, void *argument) {
		if (request == kit::kAppliancesLookup)
			static_cast<uint64_t *>(argument)[3] = UINT64_MAX;
	};
	ExpectFailure("Failed to stripe count overflow [18446744073709551615]");
}

TEST_P(LookupTest, OffsetsOnAVolumeOfSeveralDevicesAreNotBelieved)
{
	btrfs.devices[2] = Node("second", 201);
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	ExpectNotFound(EXDEV);
}

TEST_P(LookupTest, AKernelThatDoesNotKnowItsDevicesIsBelieved)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	btrfs.errors[BTRFS_IOC_FS_INFO] = ENOTTY;
	EXPECT_EQ(Walk().size(), 1u);
	btrfs.errors[BTRFS_IOC_FS_INFO] = EIO;
	ExpectNotFound(EIO);
}

TEST_P(TreeTest, StripesOnAnotherDeviceFail)
{
	btrfs.devices[2] = Node("second", 201);
	btrfs.chunks = {{10, 10, kMetadata | kDup, {{2, 10}, {2, 20}}}};
	ExpectNotFound(EXDEV);
	device = folder.Path("second");
	EXPECT_EQ(Walk().size(), 1u);
}

TEST_P(TreeTest, ADeviceIsKnownByItsNumberNotByItsName)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	device = Node("the same device", 200);
	EXPECT_EQ(Walk().size(), 1u);
	device = Node("another device", 202);
	ExpectNotFound(EXDEV);
}

TEST_P(TreeTest, WhatIsNoBlockDeviceIsNotTheVolumesDevice)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	device = folder.Path("file");
	kit::WriteFile(device, "");
	ExpectNotFound(EXDEV);
	btrfs.devices[1] = folder.Path("./file");
	ExpectNotFound(EXDEV);
}

TEST_P(TreeTest, ADeviceThatCannotBeFoundFails)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	btrfs.devices[1] = "";
	ExpectNotFound(EXDEV);
	btrfs.devices.clear();
	ExpectNotFound(ENODEV);
	btrfs.devices[1] = device;
	device = "/nowhere";
	ExpectNotFound(ENOENT);
	device = "";
	btrfs.devices[1] = "";
	ExpectNotFound(ENOENT);
}

TEST_P(TreeTest, DataMayLieOnAnyDevices)
{
	btrfs.chunks = {{10, 10, kData, {{1, 10}, {2, 10}, {3, 10}}}, {20, 10, kMetadata, {{1, 20}}}};
	EXPECT_EQ(Walk().size(), 1u);
}

TEST_P(TreeTest, AnAnswerThatCannotBeFails)
{
	btrfs.chunks = {{10, 10, kData, {{1, 10}}}, {20, 10, kMetadata, {{1, 20}}}};
	void (*const kDefects[])(btrfs_ioctl_search_args_v2 *) = {
		[](btrfs_ioctl_search_args_v2 *args) { args->key.nr_items = 3; },
		[](btrfs_ioctl_search_args_v2 *args) { args->key.nr_items = UINT32_MAX; },
		[](btrfs_ioctl_search_args_v2 *args) {
			++reinterpret_cast<uint8_t *>(args + 1)[8];
		}, // another objectid
		[](btrfs_ioctl_search_args_v2 *args) {
			reinterpret_cast<uint8_t *>(args + 1)[16] = 21;
		}, // runs backwards
		[](btrfs_ioctl_search_args_v2 *args) { memset(reinterpret_cast<uint8_t *>(args + 1) + 16, 0xff, 8); },
		[](btrfs_ioctl_search_args_v2 *args) { args->buf_size = 100; },
	};
	for (auto *const defect : kDefects) {
		btrfs.afterwards = [defect](unsigned long request, void *argument) {
			if (request == BTRFS_IOC_TREE_SEARCH_V2)
				defect(static_cast<btrfs_ioctl_search_args_v2 *>(argument));
		};
		if (defect == kDefects[0] || defect == kDefects[1]) // these lie behind the chunk that is looked for
			btrfs.chunks[1].type = kData;
		ExpectNotFound(EUCLEAN);
		btrfs.chunks[1].type = kMetadata;
	}
}

TEST_P(TreeTest, AnAnswerThatGoesBackFails)
{
	btrfs.chunks = {{10, 10, kMetadata, {{1, 10}}}};
	btrfs.before = [](unsigned long request, void *argument) {
		if (request == BTRFS_IOC_TREE_SEARCH_V2)
			static_cast<btrfs_ioctl_search_args_v2 *>(argument)->key.min_offset = 0;
	};
	chunk_info chunk = {10, 10, 1, {10, 0}, 0};
	EXPECT_EQ(Next(chunk), -1);
	EXPECT_EQ(journal.Lines(), Lines({"btrfs_metadata_cache.cpp Failed to find metadata chunk info on [" + volume +
	                                  "] errno[117]"}));
}

TEST_P(TreeTest, AnItemThatIsTooLargeForTheAnswerFails)
{
	btrfs.chunks = {{10, 10, kData, std::vector<FakeChunk::Stripe>(600, {1, 10})}};
	ExpectNotFound(EOVERFLOW);
	btrfs.errors[BTRFS_IOC_TREE_SEARCH_V2] = ENOTTY;
	ExpectNotFound(EUCLEAN);
}

TEST_P(TreeTest, FewItemsAreAskedForUntilDataChunksFollowEachOther)
{
	std::vector<uint32_t> asked;
	btrfs.before = [&](unsigned long request, void *argument) {
		if (request == BTRFS_IOC_TREE_SEARCH_V2)
			asked.push_back(static_cast<btrfs_ioctl_search_args_v2 *>(argument)->key.nr_items);
	};
	for (uint64_t i = 0; i < 1000; ++i)
		btrfs.chunks.push_back({i * kMiB, kMiB, i == 3 || i == 999 ? kMetadata : kData, {{1, i * kMiB}}});
	chunk_info chunk = {};
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(asked, std::vector<uint32_t>({2, 16}));
	asked.clear();
	EXPECT_EQ(Next(chunk), 0);
	EXPECT_EQ(chunk.offset, 999 * kMiB);
	EXPECT_EQ(asked, std::vector<uint32_t>({2, 16, 128, 128, 128, 128, 128, 128, 128, 128}));
}

} // namespace
