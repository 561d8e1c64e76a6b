#include "btrfs_metadata_cache/preload.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/pin_tool.h"
#include "btrfs_metadata_cache/progress.h"
#include "support/error_codes.h"
#include "support/handles.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t kReadSize = 65536;
constexpr size_t kReadAlignment = 512;
constexpr uint64_t kStepSize = 16 << 20;

using ReadBuffer = std::unique_ptr<char, void (*)(void *)>;

uint64_t MonotonicMicroseconds()
{
	timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

ssize_t ReadAt(int fd, void *buffer, size_t count, uint64_t offset)
{
	ssize_t result;
	do
		result = pread(fd, buffer, count, static_cast<off_t>(offset));
	while (result < 0 && errno == EINTR);
	return result;
}

// Leaves the device to others for a multiple of the time that a step of reading took.
void Throttle(const MetadataCacheContext &ctx, uint64_t began)
{
	const uint64_t now = MonotonicMicroseconds();
	if (now > began && ctx.uReadThrottleWaitMult != 0)
		usleep(ctx.uReadThrottleWaitMult *
		       static_cast<uint32_t>(now - began)); // a product that is too large wraps
}

int ReadThrough(MetadataCacheContext &ctx, int device, const char *szDevPath, char *buffer, uint64_t offset,
                uint64_t size)
{
	uint64_t done = 0;
	uint64_t mark = 0;
	uint64_t began = MonotonicMicroseconds();
	while (done < size) {
		const size_t count = std::min<uint64_t>(size - done, kReadSize);
		const ssize_t got = ReadAt(device, buffer, count, offset + done);
		if (got < 0) {
			LOG_ERROR_ONLY("Failed to read start:%llu, count:%zu with device [%s]. errno[%d]",
			               static_cast<unsigned long long>(offset + done), count, szDevPath, errno);
			return -1;
		}
		if (got == 0)
			return 0;
		done += static_cast<uint64_t>(got);
		if (done - mark <= kStepSize)
			continue;
		Throttle(ctx, began);
		if (BtrfsMetadataCacheProgressUpdate(ctx, done - mark) != 0)
			return -1;
		mark = done;
		began = MonotonicMicroseconds();
	}
	return 0;
}

int ReadRange(MetadataCacheContext &ctx, const char *szDevPath, uint64_t offset, uint64_t size)
{
	const ReadBuffer buffer(static_cast<char *>(aligned_alloc(kReadAlignment, kReadSize)), free);
	if (!buffer) {
		SET_ERROR(VUNKC_ERR_NO_MEMORY);
		LOG_ERROR_ONLY("Failed to alloc read buffer\n");
		return -1;
	}
	const FileDescriptor device(open(szDevPath, O_RDONLY | O_CLOEXEC));
	if (!device) {
		LOG_ERROR_ONLY("Failed to open path [%s]. errno[%d]", szDevPath, errno);
		return -1;
	}
	return ReadThrough(ctx, device.get(), szDevPath, buffer.get(), offset, size);
}

int PinAndRead(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath, unsigned long long offset,
               unsigned long long size)
{
	if (PinRange(szVolPath, offset >> kSectorShift, size >> kSectorShift, true) != 0) {
		LOG_ERROR("Failed to flash cache pin range start:[%llu] size:[%llu] with [%s]", offset, size,
		          szVolPath);
		return -1;
	}
	if (ReadRange(ctx, szDevPath, offset, size) != 0) {
		LOG_ERROR("Failed to read pin range start:[%llu] size:[%llu] with [%s]", offset, size, szDevPath);
		return -1;
	}
	return 0;
}

} // namespace

int BtrfsMetadataCacheClearDevBuffer(const char *szDevPath)
{
	const FileDescriptor device(open(szDevPath, O_RDONLY | O_CLOEXEC));
	if (!device) {
		LOG_ERROR_ONLY("Failed to open path [%s]. errno[%d]", szDevPath, errno);
		return -1;
	}
	const int error = posix_fadvise(device.get(), 0, 0, POSIX_FADV_DONTNEED);
	if (error != 0) {
		errno = error;
		LOG_ERROR_ONLY("Failed to POSIX_FADV_DONTNEED with path [%s]. errno[%d]", szDevPath, error);
		return -1;
	}
	return 0;
}

int PinBtrfsMetadataPreload(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath,
                            const char *szConfigPath, const chunk_info *pChunk)
{
	for (unsigned i = 0; i < pChunk->stripe_count; ++i)
		if (PinAndRead(ctx, szVolPath, szDevPath, pChunk->stripe_offset[i], pChunk->size) != 0)
			return -1;
	if (PinBtrfsMetadataSectionUpdateChunkDone(szConfigPath, pChunk) != 0) {
		LOG_ERROR("Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[%llu] in [%s]", pChunk->offset,
		          szConfigPath);
		return -1;
	}
	return 0;
}
