#include "support/check.h"
#include "support/handles.h"

#include <zevotuned/metadata_cache.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>

static_assert(BTRFS_IOC_SPACE_INFO == 0xC0109414);
static_assert(sizeof(btrfs_ioctl_space_args) == 16 && sizeof(btrfs_ioctl_space_info) == 24);

namespace {

// The part of btrfs_ioctl_space_args in front of the spaces: all there is of a request for none.
struct SpaceCount {
	uint64_t space_slots;
	uint64_t total_spaces;
};

static_assert(sizeof(SpaceCount) == sizeof(btrfs_ioctl_space_args));

// Btrfs has a handful; what claims to have more than this is not Btrfs.
constexpr uint64_t kMostSpaces = 4096;

// A request for so many spaces. Null for want of memory, or when there cannot be so many.
std::unique_ptr<char[]> AllocRequest(uint64_t slots)
{
	if (slots > kMostSpaces)
		return nullptr;
	const size_t size = sizeof(btrfs_ioctl_space_args) + slots * sizeof(btrfs_ioctl_space_info);
	return std::unique_ptr<char[]>(new (std::nothrow) char[size]());
}

// Adds what metadata takes; false, and errno, when there are no such numbers.
bool AddMetadata(const btrfs_ioctl_space_args &spaces, uint64_t slots, unsigned long long &sum)
{
	// There may be more by now than were asked for.
	const uint64_t count = std::min<uint64_t>(spaces.total_spaces, slots);
	for (uint64_t i = 0; i < count; ++i) {
		const btrfs_ioctl_space_info &space = spaces.spaces[i];
		if ((space.flags & (BTRFS_BLOCK_GROUP_SYSTEM | BTRFS_BLOCK_GROUP_METADATA)) == 0)
			continue;
		const unsigned copies = (space.flags & BTRFS_BLOCK_GROUP_DUP) != 0 ? 2 : 1;
		unsigned long long bytes;
		if (__builtin_mul_overflow(space.total_bytes, copies, &bytes) ||
		    __builtin_add_overflow(sum, bytes, &sum)) {
			errno = EOVERFLOW;
			return false;
		}
	}
	return true;
}

} // namespace

int ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(const char *szVolPath, unsigned long long *pullMetadataSizeByte)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != pullMetadataSizeByte);

	const FileDescriptor volume(open(szVolPath, O_RDONLY | O_CLOEXEC));
	if (!volume) {
		LOG_ERROR_ONLY("Failed to open path [%s]. errno[%d]", szVolPath, errno);
		return -1;
	}
	SpaceCount found = {};
	if (ioctl(volume.get(), BTRFS_IOC_SPACE_INFO, &found) != 0) {
		LOG_ERROR_ONLY("Failed to get space info with [%s], errno[%d]", szVolPath, errno);
		return -1;
	}
	if (found.total_spaces == 0) {
		LOG_ERROR_ONLY("Failed to total space with [%s]", szVolPath);
		return -1;
	}
	const unsigned long long slots = found.total_spaces;
	const auto request = AllocRequest(slots);
	if (!request) {
		SET_ERROR(VUNKC_ERR_NO_MEMORY);
		return -1;
	}
	auto *const spaces = reinterpret_cast<btrfs_ioctl_space_args *>(request.get());
	spaces->space_slots = slots;
	unsigned long long sum = *pullMetadataSizeByte;
	if (ioctl(volume.get(), BTRFS_IOC_SPACE_INFO, spaces) != 0 || !AddMetadata(*spaces, slots, sum)) {
		LOG_ERROR_ONLY("Failed to get space info with [%s] slots [%llu], errno[%d]", szVolPath, slots, errno);
		return -1;
	}
	*pullMetadataSizeByte = sum;
	return 0;
}
