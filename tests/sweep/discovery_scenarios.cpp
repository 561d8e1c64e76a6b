// Finding metadata: a walk that ends early for a failure must say so, and give no chunk that is not one.

#include "sweep/scenario.h"

#include "btrfs_metadata_cache/chunk_discovery.h"

#include "kit/fake_btrfs.h"
#include "kit/files.h"
#include "kit/system_calls.h"

#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

namespace fs = std::filesystem;

constexpr const char *kVolume = "/run/volume";
constexpr const char *kDevice = "/run/volume-device"; // which is looked at, not opened
constexpr const char *kName = "/run/volume-name";     // another name of the device
constexpr const char *kImage = "/run/volume-image";   // what has a size

// What sysfs has of the device. Any folder will do for it.
constexpr const char *kNumber = "/sys/dev/block/259:200";
constexpr const char *kMembers = "/sys/fs/btrfs/00000000-0000-0000-0000-000000000000/devices";

std::unique_ptr<kit::FakeBtrfs> btrfs;

void Finish()
{
	btrfs.reset();
	kit::btrfsFolders.clear();
	for (const char *path : {kVolume, kName, kDevice, kImage, kNumber})
		fs::remove(path);
	fs::remove_all(fs::path(kMembers).parent_path());
}

void Prepare()
{
	Finish();
	fs::create_directory(kVolume);
	kit::WriteFile(kImage, "");
	EXPECT_EQ(mknod(kDevice, S_IFBLK | 0600, makedev(259, 200)), 0);
	fs::create_symlink(kDevice, kName);
	btrfs = std::make_unique<kit::FakeBtrfs>();
	btrfs->devices = {{1, kDevice}};
	btrfs->deviceSize = uint64_t{1} << 40;
	btrfs->spaces = {{1, 1000, 0}, {2, 10, 0}, {4 | 32, 100, 0}};
	for (uint64_t i = 0; i < 12; ++i) // data, but for the second and the last one
		btrfs->chunks.push_back(
			{i * 1000, 1000, i % 10 == 1 ? 4 | 32U : 1U, {{1, i * 2000}, {1, i * 2000 + 1000}}});
}

void PrepareAppliance()
{
	Prepare();
	btrfs->hasLookup = true;
}

// As Btrfs was told another name, and sysfs has the device below the kernel's own.
void PrepareRenamed()
{
	Prepare();
	btrfs->devices = {{1, "/run/volume-old-name"}};
	kit::btrfsFolders = {{kVolume, "00000000-0000-0000-0000-000000000000"}};
	fs::create_directories(kMembers);
	fs::create_directory_symlink("../../bus", kNumber);
	fs::create_directory_symlink("/sys/bus", std::string(kMembers) + "/bus");
}

void PrepareOldKernel()
{
	Prepare();
	btrfs->errors[BTRFS_IOC_TREE_SEARCH_V2] = ENOTTY;
}

/// Number of chunks, or -1.
int CountChunks()
{
	int count = 0;
	chunk_info chunk = {};
	int result;
	while ((result = BtrfsMetadataCacheChunkNext(kVolume, kName, &chunk, 0)) == 0) {
		++count;
		const unsigned long long number = chunk.offset / 1000;
		EXPECT_EQ(number % 10, 1u);
		EXPECT_EQ(chunk.stripe_offset[1], number * 2000 + 1000);
	}
	return result < 0 ? -1 : count;
}

int CountSuperblocks()
{
	chunk_info chunk = {};
	int result;
	do
		result = BtrfsMetadataCacheSuperblockNext(kVolume, kImage, &chunk, 0);
	while (result == 0);
	return result < 0 ? -1 : static_cast<int>(chunk.offset);
}

int TotalSize()
{
	unsigned long long size = 1;
	const int result = ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(kVolume, &size);
	EXPECT_EQ(size, result == 0 ? 211u : 1u);
	return result;
}

Scenario Row(const std::string &name, const std::function<void()> &prepare, const std::function<int()> &call,
             int result)
{
	return {name, prepare, call, result, false, {}, {}, Finish};
}

} // namespace

std::vector<Scenario> DiscoveryScenarios()
{
	return {
		Row("discovery_chunks", Prepare, CountChunks, 2),
		Row("discovery_chunks_of_appliance", PrepareAppliance, CountChunks, 2),
		Row("discovery_chunks_of_old_kernel", PrepareOldKernel, CountChunks, 2),
		Row("discovery_chunks_of_renamed_device", PrepareRenamed, CountChunks, 2),
		Row("discovery_superblocks", Prepare, CountSuperblocks, 3),
		Row("discovery_total_size", Prepare, TotalSize, 0),
	};
}
