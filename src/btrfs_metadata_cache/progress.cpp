#include "btrfs_metadata_cache/progress.h"

#include "btrfs_metadata_cache/hash_key.h"
#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/handles.h"
#include "support/log.h"

#include <vunkcore/pair_file.h>

#include <algorithm>
#include <cerrno>

namespace {

bool SetNumber(Hash &pairs, const char *szKey, uint64_t ullValue)
{
	const TextBuffer<32> value("%llu", static_cast<unsigned long long>(ullValue));
	return SetHashKey(pairs, szKey, value.c_str());
}

bool IsDue(const timespec &last, const timespec &now)
{
	constexpr time_t kSeconds = 4;
	if (last.tv_sec == 0 && last.tv_nsec == 0) // never written, also within the first seconds after a start
		return true;
	const time_t passed = now.tv_sec - last.tv_sec - (now.tv_nsec < last.tv_nsec ? 1 : 0);
	return passed >= kSeconds;
}

} // namespace

int BtrfsMetadataCacheProgressUpdate(MetadataCacheContext &ctx, uint64_t ullDelta)
{
	if (ctx.fProgress == 0)
		return 0;
	ctx.ullProgressCurrent = std::min(SumOf(ctx.ullProgressCurrent, ullDelta), ctx.ullProgressTotal);
	timespec now = {};
	clock_gettime(CLOCK_MONOTONIC, &now);
	if (!IsDue(ctx.tsLastProgressWrite, now))
		return 0;
	if (BtrfsMetadataCacheProgressWriteFile(ctx) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheProgressWriteFile with UUID[%s]", ctx.szUuid);
		return -1;
	}
	ctx.tsLastProgressWrite = now;
	return 0;
}

int BtrfsMetadataCacheProgressWriteFile(const MetadataCacheContext &ctx)
{
	VolumePath path;
	if (BtrfsMetadataCacheProgressPathGet(ctx.szUuid, path.data(), true) != 1) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Progress file path with UUID[%s].", ctx.szUuid);
		return -1;
	}
	Hash pairs;
	if (!pairs) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	const TextBuffer<32> pid("%ld", static_cast<long>(ctx.pid));
	if (!SetHashKey(pairs, "pid", pid.c_str()) || !SetNumber(pairs, "total", ctx.ullProgressTotal) ||
	    !SetNumber(pairs, "current", ctx.ullProgressCurrent))
		return -1;
	if (VUNKCFileSetPair(path.c_str(), pairs.get(), 0) != 0) {
		LOG_ERROR("Failed to set hash to file [%s]", path.c_str());
		return -1;
	}
	return 0;
}

int BtrfsMetadataCacheProgressEnd(const char *szUuid)
{
	VolumePath path;
	const int present = BtrfsMetadataCacheProgressPathGet(szUuid, path.data(), false);
	if (present < 0) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Progress file path with UUID[%s].", szUuid);
		return -1;
	}
	// The engine and who stops it by force may both remove it.
	if (present == 1 && unlink(path.c_str()) != 0 && errno != ENOENT) {
		LOG_ERROR_ONLY("Failed to delete btrfs metadata cache progress file (%s) ", path.c_str());
		return -1;
	}
	return 0;
}
