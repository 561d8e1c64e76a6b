#include "btrfs_metadata_cache/progress.h"

#include "btrfs_metadata_cache/paths.h"
#include "support/handles.h"
#include "support/log.h"

#include <vunkcore/pair_file.h>

#include <cerrno>

namespace {

bool SetKey(Hash &pairs, const char *szKey, const TextBuffer<32> &value)
{
	if (VUNKCSzHashSetValue(pairs.out(), szKey, value.c_str()) == 0)
		return true;
	LOG_ERROR("Failed to set hash key [%s] value [%s]", szKey, value.c_str());
	return false;
}

bool SetNumber(Hash &pairs, const char *szKey, uint64_t ullValue)
{
	return SetKey(pairs, szKey, TextBuffer<32>("%llu", static_cast<unsigned long long>(ullValue)));
}

} // namespace

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
	if (!SetKey(pairs, "pid", TextBuffer<32>("%ld", static_cast<long>(ctx.pid))) ||
	    !SetNumber(pairs, "total", ctx.ullProgressTotal) || !SetNumber(pairs, "current", ctx.ullProgressCurrent))
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
