#include "metadata.h"

#include "catalogue_check.h"
#include "config_access.h"
#include "error_text.h"
#include "failure.h"
#include "metadata_walk.h"

#include "btrfs_metadata_cache/chunk_tree_search.h"
#include "support/storage_handles.h"

#include <vunkcore/error.h>
#include <zevostorage/error.h>
#include <zevotuned/metadata_cache.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace {

constexpr const char *kSeeVolumes = " (\"zevotune devices\" lists the volumes)";

[[noreturn]] void Refuse(const std::string &volume, const std::string &reason)
{
	throw Failure("cannot show the metadata of " + Quoted(volume) + ": " + reason);
}

// All names of a device lead to one number; the kernel's own name of it does not change while it is mounted.
bool IsDevice(const ZEVOSPACEINFO &space, const struct stat &device)
{
	struct stat status;
	return stat(space.szDevice, &status) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == device.st_rdev;
}

template <class Matches>
const ZEVOSPACEINFO *FindSpace(const SpaceList &spaces, Matches matches)
{
	const ZEVOSPACEINFO *space = spaces.get();
	while (space != nullptr && !matches(*space))
		space = space->pNext;
	return space;
}

const ZEVOSPACEINFO &SpaceByUuid(const SpaceList &spaces, const std::string &volume)
{
	char uuid[ZEVO_UUID_SIZE] = "";
	ForgetErrors();
	if (ZEVOFSGetBTRFSUuid(volume.c_str(), uuid, sizeof(uuid)) != 0) {
		if (VUNKCErrGet() == ZEVO_ERR_NOT_BTRFS)
			Refuse(volume, std::string("it does not lie on a Btrfs volume") + kSeeVolumes);
		Refuse(volume, ErrorText());
	}
	const auto has = [&](const ZEVOSPACEINFO &space) { return strcmp(space.szUuid, uuid) == 0; };
	const ZEVOSPACEINFO *space = FindSpace(spaces, has);
	if (space == nullptr)
		Refuse(volume, "the device of its file system is gone, or it has just been unmounted");
	return *space;
}

const ZEVOSPACEINFO &RequireSpace(const SpaceList &spaces, const std::string &volume)
{
	const auto isNamed = [&](const ZEVOSPACEINFO &space) {
		return volume == DeviceOf(&space) || volume == space.szDevice || volume == space.szVolPath;
	};
	if (const ZEVOSPACEINFO *space = FindSpace(spaces, isNamed))
		return *space;
	struct stat status;
	if (stat(volume.c_str(), &status) != 0)
		Refuse(volume, std::string(strerror(errno)) + "; name a path on a volume, or its device" + kSeeVolumes);
	if (!S_ISBLK(status.st_mode))
		return SpaceByUuid(spaces, volume);
	const auto lies = [&](const ZEVOSPACEINFO &space) { return IsDevice(space, status); };
	const ZEVOSPACEINFO *space = FindSpace(spaces, lies);
	if (space == nullptr)
		Refuse(volume,
		       std::string("it is the device of no mounted volume; mount it, or name the volume's path") +
		               kSeeVolumes);
	return *space;
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
	btrfs_ioctl_fs_info_args info{};
	if (ioctl(file.get(), BTRFS_IOC_FS_INFO, &info) == 0 && info.num_devices > 1)
		Refuse(volume, "it lies on " + std::to_string(info.num_devices) +
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
	SpaceList spaces(nullptr);
	ForgetErrors();
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0)
		throw Failure("cannot list the volumes' devices: " + ErrorText());
	const ZEVOSPACEINFO &space = RequireSpace(spaces, volume);
	if (*space.szUuid == '\0')
		Refuse(volume, std::string("it is not a Btrfs volume") + kSeeVolumes);
	if (!IsRoot())
		Refuse(volume, "the kernel tells root alone where it lies; run zevotune as root (sudo)");

	MetadataLayout layout;
	layout.path = space.szVolPath;
	layout.uuid = space.szUuid;
	layout.device = DeviceOf(&space);
	layout.deviceSize = SizeOf(layout.device);
	layout.chunks = Walk(BtrfsMetadataCacheChunkNext, layout, volume);
	layout.superblocks = Walk(BtrfsMetadataCacheSuperblockNext, layout, volume);
	layout.types = TypesOf(layout.path);
	layout.allocated = AllocatedOn(layout, volume);
	return layout;
}
