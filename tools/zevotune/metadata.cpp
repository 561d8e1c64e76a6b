#include "metadata.h"

#include "btrfs_volume.h"
#include "cache_records.h"
#include "config_access.h"
#include "failure.h"
#include "metadata_walk.h"

#include "btrfs_metadata_cache/chunk_tree_search.h"
#include "support/handles.h"

#include <zevotuned/metadata_cache.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace {

constexpr const char *kAction = "show the metadata of";

[[noreturn]] void Refuse(const std::string &volume, const std::string &reason)
{
	RefuseVolume(volume, kAction, reason);
}

uint64_t SizeOf(const std::string &device)
{
	const FileDescriptor file(open(device.c_str(), O_RDONLY | O_CLOEXEC));
	uint64_t size = 0;
	if (!file || ioctl(file.get(), BLKGETSIZE64, &size) != 0)
		throw Failure("cannot tell the size of " + device + " (" + strerror(errno) +
		              "); see whether it is there");
	return size;
}

// The library's answer is only that it failed, and the lines that it logged meanwhile have changed errno.
[[noreturn]] void RefuseAfterFailure(const MetadataLayout &layout, const std::string &volume)
{
	const FileDescriptor file(open(layout.path.c_str(), O_RDONLY | O_CLOEXEC));
	if (!file)
		Refuse(volume, layout.path + " cannot be opened (" + strerror(errno) + ")");
	const unsigned long long devices = CountDevices({layout.path, layout.uuid, layout.device});
	if (devices > 1)
		Refuse(volume, "it lies on " + std::to_string(devices) +
		                       " devices, and only of volumes on one device can be told what lies where");
	Refuse(volume, "the kernel does not say where on " + layout.device +
	                       " it lies; the system's log says why (journalctl -t zevotune)");
}

std::vector<chunk_info> Walk(GetNextMapping next, const MetadataLayout &layout, const std::string &volume)
{
	std::optional<std::vector<chunk_info>> found = WalkMetadata(next, layout.path, layout.device);
	if (!found)
		RefuseAfterFailure(layout, volume);
	return std::move(*found);
}

// What a chunk holds is no part of the enumerator's answer.
std::map<uint64_t, uint64_t> TypesOf(const std::string &path)
{
	std::map<uint64_t, uint64_t> types;
	const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	TreeChunk chunk{};
	for (uint64_t start = 0; file && FindChunk(file.get(), kMetadataTypes, start, chunk) == 0;) {
		types[chunk.logical] = chunk.type;
		if (chunk.logical + chunk.length <= start)
			break;
		start = chunk.logical + chunk.length;
	}
	return types;
}

uint64_t AllocatedOn(const MetadataLayout &layout, const std::string &volume)
{
	unsigned long long bytes = 0;
	if (ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(layout.path.c_str(), &bytes) != 0)
		RefuseAfterFailure(layout, volume);
	return bytes;
}

} // namespace

MetadataLayout ExamineMetadata(const std::string &volume)
{
	const BtrfsVolume found = FindBtrfsVolume(volume, kAction);
	if (!IsRoot())
		Refuse(volume, "the kernel tells root alone where it lies; run zevotune as root (sudo)");

	MetadataLayout layout;
	layout.path = found.path;
	layout.uuid = found.uuid;
	layout.device = found.device;
	layout.deviceSize = SizeOf(layout.device);
	layout.chunks = Walk(BtrfsMetadataCacheChunkNext, layout, volume);
	layout.superblocks = Walk(BtrfsMetadataCacheSuperblockNext, layout, volume);
	layout.types = TypesOf(layout.path);
	layout.allocated = AllocatedOn(layout, volume);
	layout.pinned = ReadPinnedChunks(layout.path);
	return layout;
}
