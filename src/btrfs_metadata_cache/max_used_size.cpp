#include "btrfs_metadata_cache/max_used_size.h"

#include "btrfs_metadata_cache/hash_key.h"
#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/check.h"
#include "support/text_buffer.h"

#include <zevostorage/notify.h>

#include <utility>

namespace {

constexpr int kGiBShift = 30;

int Warn(const MetadataCacheContext &ctx, int iPercent)
{
	const unsigned long long size = ctx.totalMetadataCacheSize;
	const TextBuffer<32> sizeGB("%llu", size >> kGiBShift);
	const TextBuffer<16> percent("%d", iPercent);
	if (SendMetadataCacheSpaceFullWarningEmail(ctx.szSsdId, percent.c_str(), sizeGB.c_str()) == 0)
		return 0;
	LOG_ERROR("Failed to SendMetadataCacheSpaceFullWarningEmail with SSDID[%s] Percent[%d] Size[%llu]", ctx.szSsdId,
	          iPercent, size);
	return -1;
}

} // namespace

int SendMetadataCacheSpaceFullWarningEmail(const char *szSsdId, const char *szPercent, const char *szSizeGB)
{
	CHECK_ARGUMENT(NULL != szSizeGB);
	CHECK_ARGUMENT(__null != szPercent);

	ZEVOLogSet1(ZEVO_LOG_SYSTEM, ZEVO_LOG_WARNING, ZEVO_EVENT_METADATA_CACHE, szSizeGB, szPercent, szSsdId,
	            nullptr);
	Hash values;
	if (!values) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (!SetHashKey(values, "%SSD_ID%", szSsdId) || !SetHashKey(values, "%USAGE%", szPercent) ||
	    !SetHashKey(values, "%USED_SIZE%", szSizeGB))
		return -1;
	if (ZEVOSysNotifySendNotifiction(ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL, values.get()) != 0) {
		LOG_ERROR("Failed to SEND notification [%s] ", ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL);
		return -1;
	}
	return 0;
}

int BtrfsMetadataCacheSetMaxUsedSize(MetadataCacheContext &ctx, const char *szConfigPath)
{
	constexpr char kKey[] = "max_used_size";
	const unsigned long long size = ctx.totalMetadataCacheSize;
	if (BtrfsMetadataCacheSetValueByKey(szConfigPath, kKey, TextBuffer<32>("%llu", size).c_str()) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheSetValueByKey with key[%s] value[%llu]", kKey, size);
		return -1;
	}
	const int oldPercent = PercentOfCache(std::exchange(ctx.ullMaxUsedSize, size), ctx.ullCacheSize);
	const int newPercent = PercentOfCache(size, ctx.ullCacheSize);
	return ThresholdCrossed(oldPercent, newPercent) == 0 ? 0 : Warn(ctx, newPercent);
}
