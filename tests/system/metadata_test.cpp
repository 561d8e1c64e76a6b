// Where the metadata of real file systems lies, against what the file system's own tools say of it.

#include "btrfs_metadata_cache/chunk_discovery.h"

#include "system/btrfs_chunks.h"

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/loop_device.h"
#include "kit/machine_ioctl.h"

#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr long long kGiB = 1LL << 30;

using Lines = std::vector<std::string>;
using Strings = std::vector<std::string>;

/// "12582912 8388608 12582912 20971520": where it begins, its size, and its stripes.
std::string Text(const chunk_info &chunk)
{
	std::string text = std::to_string(chunk.offset) + ' ' + std::to_string(chunk.size);
	for (unsigned i = 0; i < chunk.stripe_count; ++i)
		text += ' ' + std::to_string(chunk.stripe_offset[i]);
	return text;
}

class MetadataTest : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		// An overlay takes a device that has gone and come back for a stale one.
		sys = std::make_unique<kit::MountPoint>("/run/lab/kernel-sys", "/sys", "", MS_BIND);
	}

	void TearDown() override
	{
		mount.reset();
		devices.clear();
		sys.reset();
		kit::LabTest::TearDown();
	}

	std::string Device(long long bytes)
	{
		devices.push_back(std::make_unique<kit::LoopDevice>(bytes));
		return devices.back()->Path();
	}

	/// Makes and mounts a file system on one device.
	void Make(long long bytes, const Strings &options, const std::string &mountOptions = "")
	{
		device = Device(bytes);
		Strings command = {"mkfs.btrfs", "-q", "-f", "-K"};
		command.insert(command.end(), options.begin(), options.end());
		command.push_back(device);
		kit::RunProgram(command);
		Mount(mountOptions);
	}

	void Mount(const std::string &options)
	{
		volume = folder.Path("volume");
		fs::create_directory(volume);
		mount = std::make_unique<kit::MountPoint>(device, volume, "btrfs", 0, options.c_str());
	}

	/// Goes through all chunks, or superblock copies.
	Strings Walk(GetNextMapping next, const std::function<void()> &between = {})
	{
		const kit::Journal journal;
		Strings found;
		chunk_info chunk = {};
		int result;
		while ((result = next(volume.c_str(), device.c_str(), &chunk, 0)) == 0 && found.size() < 100000) {
			found.push_back(Text(chunk));
			if (between)
				between();
		}
		EXPECT_EQ(result, 1);
		EXPECT_EQ(journal.Lines(), Lines());
		return found;
	}

	Strings ChunksOnDevice() const { return ::ChunksOnDevice(volume, device); }
	Strings SuperblocksOnDevice() const { return ::SuperblocksOnDevice(device); }

	/// The sum of what `btrfs filesystem df` says of metadata and system, DUP twice.
	unsigned long long AllocatedSize() const
	{
		std::istringstream lines(kit::RunProgram({"btrfs", "filesystem", "df", "-b", volume}));
		static const std::regex kSpace(R"((System|Metadata|Data\+Metadata), (\S+): total=(\d+), .*)");
		unsigned long long sum = 0;
		std::smatch match;
		for (std::string line; std::getline(lines, line);)
			if (std::regex_match(line, match, kSpace))
				sum += std::stoull(match[3]) * (match[2] == "DUP" ? 2 : 1);
		return sum;
	}

	unsigned long long TotalSize() const
	{
		unsigned long long size = 0;
		EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume.c_str(), &size), 0);
		return size;
	}

	void WhileChunksStay(const std::function<void(const Strings &)> &look) const
	{
		::WhileChunksStay(volume, device, look);
	}

	void ExpectAsOnDevice()
	{
		WhileChunksStay([&](const Strings &chunks) {
			EXPECT_GE(chunks.size(), 2u);
			EXPECT_EQ(Walk(BtrfsMetadataCacheChunkNext), chunks);
			EXPECT_EQ(Walk(BtrfsMetadataCacheSuperblockNext), SuperblocksOnDevice());
			EXPECT_EQ(TotalSize(), AllocatedSize());
		});
	}

	/// Lets the file system, mounted with metadata_ratio=1, make chunks for metadata, with as many for data, until it
	/// has so many.
	void MakeChunks(size_t count)
	{
		for (size_t has = 0; has < count; has = Walk(BtrfsMetadataCacheChunkNext).size())
			for (size_t i = has; i < count; ++i)
				ASSERT_NO_FATAL_FAILURE(MakeChunk());
	}

	void MakeChunk()
	{
		const std::string name = volume + "/d" + std::to_string(chunksMade++);
		const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
		ASSERT_GE(fd, 0);
		ASSERT_EQ(fallocate(fd, 0, 0, kGiB), 0) << strerror(errno);
		kit::WriteFile(name + ".tree", "");
		ASSERT_EQ(syncfs(fd), 0);
		close(fd);
	}

	kit::TempDir folder;
	std::unique_ptr<kit::MountPoint> sys;
	std::vector<std::unique_ptr<kit::LoopDevice>> devices;
	std::unique_ptr<kit::MountPoint> mount;
	std::string volume;
	std::string device;
	int chunksMade = 0;
};

TEST_F(MetadataTest, DupAndSingleAndMixedVolumes)
{
	const Strings kLayouts[] = {{"-m", "dup"},
	                            {"-m", "single"},
	                            {"-M", "-m", "single", "-d", "single"},
	                            {"-M", "-m", "dup", "-d", "dup"}};
	for (const Strings &options : kLayouts) {
		SCOPED_TRACE(testing::PrintToString(options));
		Make(kGiB, options);
		ExpectAsOnDevice();
		mount.reset();
	}
}

TEST_F(MetadataTest, AVolumeWithOneMetadataChunk)
{
	Make(kGiB, {"-m", "dup"});
	const Strings chunks = Walk(BtrfsMetadataCacheChunkNext);
	EXPECT_EQ(chunks.size(), 2u); // and one for the system
}

TEST_F(MetadataTest, AVolumeWithSixtyMetadataChunks)
{
	Make(300 * kGiB, {"-m", "dup"}, "metadata_ratio=1");
	MakeChunks(62);
	ExpectAsOnDevice();
}

TEST_F(MetadataTest, AVolumeWithAThousandMetadataChunks)
{
	Make(2100 * kGiB, {"-m", "single"}, "metadata_ratio=1");
	MakeChunks(1002);
	ExpectAsOnDevice();
}

TEST_F(MetadataTest, ALargeDeviceHasThreeSuperblockCopies)
{
	Make(300 * kGiB, {});
	EXPECT_EQ(Walk(BtrfsMetadataCacheSuperblockNext),
	          (Strings{"1 4096 65536", "2 4096 67108864", "3 4096 274877906944"}));
	ExpectAsOnDevice();
}

// As kernels before 3.16 are, which have the smaller answer only.
TEST_F(MetadataTest, TheOldSearchFindsTheSameChunks)
{
	Make(300 * kGiB, {"-m", "dup"}, "metadata_ratio=1");
	MakeChunks(20);
	static size_t refused;
	kit::ioctlOnVolume = [](int, unsigned long request, void *) -> std::optional<int> {
		if (request != BTRFS_IOC_TREE_SEARCH_V2)
			return std::nullopt;
		++refused;
		errno = ENOTTY;
		return -1;
	};
	WhileChunksStay([&](const Strings &chunks) {
		refused = 0;
		EXPECT_EQ(Walk(BtrfsMetadataCacheChunkNext), chunks);
		EXPECT_GT(refused, chunks.size());
	});
	kit::ioctlOnVolume = nullptr;
}

TEST_F(MetadataTest, AnyPathOnTheVolumeAndAnyNameOfItsDeviceWillDo)
{
	Make(kGiB, {});
	const Strings chunks = Walk(BtrfsMetadataCacheChunkNext);
	const unsigned long long size = TotalSize();
	fs::create_symlink(device, folder.Path("name"));
	device = folder.Path("name");
	kit::WriteFile(volume + "/folder/file", "");
	for (const std::string path : {"/folder", "/folder/file"}) {
		volume = folder.Path("volume" + path);
		EXPECT_EQ(Walk(BtrfsMetadataCacheChunkNext), chunks);
		EXPECT_EQ(TotalSize(), size);
	}
}

// What a balance moves gets a new address behind all others: the walk may meet it there again, as another chunk.
TEST_F(MetadataTest, ABalanceMakesNoChunkAppearTwiceAndNoLastingOneMissing)
{
	Make(300 * kGiB, {"-m", "single"}, "metadata_ratio=1");
	MakeChunks(60);
	for (int i = 0; i < 2000; ++i) // something to move
		kit::WriteFile(volume + "/many/" + std::to_string(i), std::string(1500, 'x'));
	const Strings before = ChunksOnDevice();

	std::string words[] = {"btrfs", "-q", "balance", "start", "-mlimit=30", volume};
	char *arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
	                     words[4].data(), words[5].data(), nullptr};
	posix_spawn_file_actions_t quiet;
	posix_spawn_file_actions_init(&quiet);
	posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
	pid_t balance;
	ASSERT_EQ(posix_spawnp(&balance, "btrfs", &quiet, nullptr, arguments, environ), 0);
	posix_spawn_file_actions_destroy(&quiet);
	int status = -1;
	std::vector<Strings> walks;
	do
		walks.push_back(Walk(BtrfsMetadataCacheChunkNext));
	while (waitpid(balance, &status, WNOHANG) == 0);
	EXPECT_EQ(status, 0);
	const Strings after = ChunksOnDevice();
	Strings lasting;
	for (const std::string &chunk : before)
		if (std::find(after.begin(), after.end(), chunk) != after.end())
			lasting.push_back(chunk);
	EXPECT_GT(lasting.size(), 0u);
	EXPECT_LT(lasting.size(), before.size()) << "the balance has moved nothing";

	for (const Strings &walk : walks) {
		const std::set<std::string> found(walk.begin(), walk.end());
		EXPECT_EQ(found.size(), walk.size());
		for (const std::string &chunk : lasting)
			EXPECT_TRUE(found.contains(chunk)) << chunk;
	}
	EXPECT_GT(walks.size(), 1u);
	ExpectAsOnDevice();
}

TEST_F(MetadataTest, ABalanceBetweenTwoStepsOfAWalkLeavesItWhole)
{
	Make(100 * kGiB, {"-m", "single"}, "metadata_ratio=1");
	MakeChunks(8);
	const Strings before = ChunksOnDevice();
	bool isBalanced = false;
	const Strings walk = Walk(BtrfsMetadataCacheChunkNext, [&] {
		if (!isBalanced)
			kit::RunProgram({"btrfs", "-q", "balance", "start", "-m", volume});
		isBalanced = true;
	});
	const Strings after = ChunksOnDevice();
	EXPECT_NE(before, after);
	EXPECT_EQ(walk.front(), before.front()); // which was found before it went
	const std::set<std::string> found(walk.begin(), walk.end());
	EXPECT_EQ(found.size(), walk.size());
	for (const std::string &chunk : after)
		EXPECT_TRUE(found.contains(chunk)) << chunk;
}

TEST_F(MetadataTest, MetadataOnTwoDevicesIsRefused)
{
	const std::string first = Device(kGiB);
	device = Device(kGiB);
	kit::RunProgram({"mkfs.btrfs", "-q", "-f", "-K", "-m", "raid1", "-d", "single", first, device});
	Mount("device=" + first + ",device=" + device);
	const kit::Journal journal;
	chunk_info chunk = {};
	EXPECT_EQ(BtrfsMetadataCacheChunkNext(volume.c_str(), device.c_str(), &chunk, 0), -1);
	EXPECT_EQ(journal.Lines(),
	          Lines({"btrfs_metadata_cache.cpp Failed to find metadata chunk info on [" + volume + "] errno[18]"}));
	EXPECT_EQ(chunk.stripe_count, 0u);
}

TEST_F(MetadataTest, AnotherDeviceThanTheVolumesIsRefused)
{
	Make(kGiB, {});
	const kit::Journal journal;
	chunk_info chunk = {};
	EXPECT_EQ(BtrfsMetadataCacheChunkNext(volume.c_str(), Device(kGiB).c_str(), &chunk, 0), -1);
	EXPECT_EQ(BtrfsMetadataCacheChunkNext(volume.c_str(), volume.c_str(), &chunk, 0), -1);
	const std::string line =
		"btrfs_metadata_cache.cpp Failed to find metadata chunk info on [" + volume + "] errno[18]";
	EXPECT_EQ(journal.Lines(), Lines({line, line}));
}

TEST_F(MetadataTest, WhatIsNoBtrfsAndNoDeviceFails)
{
	const kit::Journal journal;
	const std::string path = folder.Path();
	chunk_info chunk = {};
	unsigned long long size = 17;
	EXPECT_EQ(BtrfsMetadataCacheChunkNext(path.c_str(), path.c_str(), &chunk, 0), -1);
	EXPECT_EQ(BtrfsMetadataCacheSuperblockNext(path.c_str(), path.c_str(), &chunk, 0), -1);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(path.c_str(), &size), -1);
	EXPECT_EQ(size, 17u);
	const std::string file = "btrfs_metadata_cache.cpp ";
	EXPECT_EQ(journal.Lines(), Lines({file + "Failed to find metadata chunk info on [" + path + "] errno[25]",
	                                  file + "Failed to get device size on [" + path + "]\n errno[25]",
	                                  file + "Failed to get space info with [" + path + "], errno[25]"}));
}

} // namespace
