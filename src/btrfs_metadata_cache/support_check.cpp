#include "btrfs_metadata_cache/policy.h"
#include "support/check.h"

#include <zevostorage/error.h>
#include <zevotuned/metadata_cache.h>

namespace {

int CheckVolume(const char *szVolPath, MetadataCacheContext &ctx, int *piResult)
{
	const int isSupported = BtrfsMetadataCacheSupportCheck(szVolPath, ctx, piResult);
	if (isSupported < 0) {
		LOG_ERROR_ONLY("Failed to check support metadata cache feature and volume type on %s", szVolPath);
		return -1;
	}
	return isSupported;
}

} // namespace

int ZEVOBtrfsMetadataCacheSupportCheckForVolume(const char *szVolPath, int *piResult)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != piResult);

	*piResult = 0;
	MetadataCacheContext ctx = {};
	return CheckVolume(szVolPath, ctx, piResult);
}

int ZEVOBtrfsMetadataCacheSupportCheckForCache(const char *szVolPath, int *piResult)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != piResult);

	*piResult = 0;
	MetadataCacheContext ctx = {};
	uint8_t isOn = 0;
	if (BtrfsMetadataCacheVolumeConfGet(szVolPath, &isOn) != 0) {
		if (VUNKCErrGet() == ZEVO_ERR_NO_VOLUME_CONF) {
			*piResult = ZEVO_METADATA_CACHE_NOT_BTRFS;
			return 0;
		}
		LOG_ERROR("Failed to BtrfsMetadataCacheVolumeConfGet with [%s].", szVolPath);
		return -1;
	}
	// Whoever has switched it on must find it supported, or could not switch it off again.
	if (isOn != 0)
		return 1;
	if (const int isSupported = CheckVolume(szVolPath, ctx, piResult); isSupported != 1)
		return isSupported;
	const int canPin = BtrfsMetadataCacheCheckSSDCache(ctx, szVolPath, piResult);
	if (canPin < 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheCheckSSDCache path [%s].", szVolPath);
		return -1;
	}
	return canPin > 0 ? 1 : 0;
}
