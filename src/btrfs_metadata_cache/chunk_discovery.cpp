#include "btrfs_metadata_cache/chunk_discovery.h"

#include "btrfs_metadata_cache/chunk_lookup.h"
#include "btrfs_metadata_cache/chunk_tree_search.h"
#include "btrfs_metadata_cache/paths.h"
#include "support/check.h"
#include "support/handles.h"

#include <zevostorage/file_system.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static_assert(BLKGETSIZE64 == 0x80081272);
static_assert(BTRFS_IOC_FS_INFO == 0x8400941F && BTRFS_IOC_DEV_INFO == 0xD000941E);

namespace {

constexpr int kSuperblockCopies = 3;
constexpr uint64_t kSuperblockSize = 4096;

constexpr uint64_t SuperblockOffset(int iCopy)
{
	return iCopy == 0 ? 0x10000 : uint64_t{16384} << (12 * iCopy);
}

static_assert(SuperblockOffset(1) == 0x4000000 && SuperblockOffset(2) == 0x4000000000);

struct Volume {
	int fd;
	const char *szPath;
	const char *szDevPath;
};

// Btrfs goes on calling a device by the name that it was mounted by, which may be another device's by now. The kernel's own
// name of it, which sysfs has, stays.
bool IsOnlyDevice(const Volume &volume, dev_t device)
{
	btrfs_ioctl_fs_info_args info = {};
	char uuid[ZEVO_UUID_SIZE];
	if (ioctl(volume.fd, BTRFS_IOC_FS_INFO, &info) != 0 || info.num_devices != 1 ||
	    ZEVOFSGetBTRFSUuid(volume.szPath, uuid, sizeof(uuid)) != 0)
		return false;
	char folder[PATH_MAX] = "";
	const TextBuffer<64> number("/sys/dev/block/%u:%u", major(device), minor(device));
	if (readlink(number.c_str(), folder, sizeof(folder) - 1) < 0)
		return false;
	const VolumePath member("/sys/fs/btrfs/%s/devices/%s", uuid, basename(folder));
	return access(member.c_str(), F_OK) == 0;
}

// 0 when the file system's device of that id is the volume's block device; otherwise -1 with errno, which is EXDEV
// when it is another one.
int CheckDevice(const Volume &volume, uint64_t devid)
{
	btrfs_ioctl_dev_info_args info = {};
	info.devid = devid;
	if (ioctl(volume.fd, BTRFS_IOC_DEV_INFO, &info) != 0)
		return -1;
	info.path[sizeof(info.path) - 1] = '\0';
	const char *const szPath = reinterpret_cast<const char *>(info.path);
	// One name is one device; of a device that is missing the kernel has none.
	if (szPath[0] != '\0' && strcmp(szPath, volume.szDevPath) == 0)
		return 0;
	struct stat wanted;
	if (stat(volume.szDevPath, &wanted) != 0)
		return -1;
	struct stat device;
	const bool isBlock = S_ISBLK(wanted.st_mode);
	if (isBlock && stat(szPath, &device) == 0 && S_ISBLK(device.st_mode) && device.st_rdev == wanted.st_rdev)
		return 0;
	if (isBlock && IsOnlyDevice(volume, wanted.st_rdev))
		return 0;
	errno = EXDEV;
	return -1;
}

// What the appliance's kernel would answer, from the chunk tree.
int LookUpInTree(const Volume &volume, btrfs_ioctl_chunk_lookup_args &request)
{
	TreeChunk chunk;
	const int result = FindChunk(volume.fd, request.type, request.logical, chunk);
	if (result != 0)
		return result == 1 ? 0 : -1; // no chunk has no stripes
	request.logical = chunk.logical;
	request.length = chunk.length;
	request.num_stripes = chunk.stripe_count;
	if (chunk.stripe_count > 2)
		return 0; // for the caller to refuse
	for (unsigned i = 0; i < chunk.stripe_count; ++i) {
		if (chunk.stripe[i].devid != chunk.stripe[0].devid) {
			errno = EXDEV;
			return -1;
		}
		request.stripe_offset[i] = chunk.stripe[i].offset;
	}
	return CheckDevice(volume, chunk.stripe[0].devid);
}

// The kernel's answer to a lookup does not say which device an offset lies on, so it can be understood only where there
// is one device, and that is the volume's. What does not know how many it has cannot be asked further.
int CheckSingleDevice(const Volume &volume)
{
	btrfs_ioctl_fs_info_args info = {};
	if (ioctl(volume.fd, BTRFS_IOC_FS_INFO, &info) != 0)
		return errno == ENOTTY ? 0 : -1;
	if (info.num_devices <= 1)
		return CheckDevice(volume, info.max_id);
	errno = EXDEV;
	return -1;
}

// ENOTTY is what Btrfs says to a number that it does not know, and EOPNOTSUPP to one that it was built without. EINVAL
// is not among them: it comes from a kernel that has the request and does not like it, which must be seen.
int LookUp(const Volume &volume, btrfs_ioctl_chunk_lookup_args &request)
{
	if (ioctl(volume.fd, kChunkLookup, &request) != 0)
		return errno == ENOTTY || errno == EOPNOTSUPP ? LookUpInTree(volume, request) : -1;
	return request.num_stripes == 1 || request.num_stripes == 2 ? CheckSingleDevice(volume) : 0;
}

int DeviceSize(const char *szDevPath, uint64_t &size)
{
	const FileDescriptor device(open(szDevPath, O_RDONLY | O_CLOEXEC));
	if (!device) {
		LOG_ERROR_ONLY("Failed to open path [%s]. errno[%d]", szDevPath, errno);
		return -1;
	}
	if (ioctl(device.get(), BLKGETSIZE64, &size) != 0) {
		LOG_ERROR_ONLY("Failed to get device size on [%s]\n errno[%d]", szDevPath, errno);
		return -1;
	}
	return 0;
}

} // namespace

int BtrfsMetadataCacheSuperblockNext(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != szDevPath);

	const int copy = static_cast<int32_t>(pChunk->offset);
	if (copy >= kSuperblockCopies)
		return 1;
	if (copy < 0) {
		SET_ERROR(kErrBadArgument);
		return -1;
	}
	uint64_t size = 0;
	if (DeviceSize(szDevPath, size) != 0)
		return -1;
	const uint64_t offset = SuperblockOffset(copy);
	if (size <= offset + kSuperblockSize)
		return 1;
	pChunk->offset = static_cast<unsigned long long>(copy) + 1;
	pChunk->size = kSuperblockSize;
	pChunk->stripe_count = 1;
	pChunk->stripe_offset[0] = offset;
	return 0;
}

int BtrfsMetadataCacheChunkNext(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != szDevPath);

	const FileDescriptor volume(open(szVolPath, O_RDONLY | O_CLOEXEC));
	if (!volume) {
		LOG_ERROR_ONLY("Failed to open path [%s]. errno[%d]", szVolPath, errno);
		return -1;
	}
	btrfs_ioctl_chunk_lookup_args request = {};
	request.logical = pChunk->offset + pChunk->size;
	request.type = kMetadataTypes;
	if (LookUp({volume.get(), szVolPath, szDevPath}, request) != 0) {
		LOG_ERROR_ONLY("Failed to find metadata chunk info on [%s] errno[%d]", szVolPath, errno);
		return -1;
	}
	if (request.num_stripes == 0)
		return 1;
	if (request.num_stripes > 2) {
		const unsigned long long stripes = request.num_stripes;
		LOG_ERROR_ONLY("Failed to stripe count overflow [%llu]", stripes);
		return -1;
	}
	pChunk->offset = request.logical;
	pChunk->size = request.length;
	pChunk->stripe_count = request.num_stripes;
	pChunk->stripe_offset[0] = request.stripe_offset[0];
	if (request.num_stripes == 2)
		pChunk->stripe_offset[1] = request.stripe_offset[1];
	return 0;
}
