#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/progress_report.h"
#include "support/check.h"

#include <zevotuned/metadata_cache.h>

namespace {

// Reads the mapping file: 1; 0 when it has gone meanwhile, or is so new that it is empty; -1.
int ReadMapping(MetadataCacheContext &ctx, const char *szConfigPath)
{
	const int hasConfig = BtrfsMetadataCacheHasConfig(szConfigPath);
	if (hasConfig == 0)
		return 0;
	if (hasConfig == 1 && BtrfsMetadataCacheConfigGet(ctx, szConfigPath) == 0)
		return 1;
	const int error = VUNKCErrGet();
	return error == VUNKC_ERR_FILE_MISSING || error == VUNKC_ERR_SECTION_MISSING ? 0 : -1;
}

} // namespace

int ZEVOBtrfsMetadataCacheStatus(const char *szVolPath, int *status, unsigned long long *totalSize,
                                 unsigned long long *processedSize)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(__null != status);
	CHECK_ARGUMENT(__null != totalSize);
	CHECK_ARGUMENT(NULL != processedSize);

	VolumePath config;
	const int present = BtrfsMetadataCacheConfigPathGet(szVolPath, config.data(), false);
	if (present < 0) {
		LOG_ERROR("Failed to get btrfs metadata pin config.");
		return -1;
	}
	if (present == 0) {
		*status = ZEVO_METADATA_CACHE_IDLE;
		return 0;
	}
	MetadataCacheContext ctx = {};
	const int isRead = ReadMapping(ctx, config.c_str());
	if (isRead < 0) {
		LOG_ERROR("Failed to load metadata cache config [%s].", config.c_str());
		return -1;
	}
	if (isRead == 0) {
		*status = ZEVO_METADATA_CACHE_IDLE;
		return 0;
	}
	if (ctx.status == kMappingComplete) {
		*status = ZEVO_METADATA_CACHE_PINNED;
		return 0;
	}
	UuidText uuid;
	ProgressReport report = {};
	if (ctx.status == kMappingBuilding && BtrfsMetadataCacheUuidGet(szVolPath, uuid) == 0) {
		const int isUnderWay = BtrfsMetadataCacheProgressRead(uuid.c_str(), report);
		if (isUnderWay < 0)
			return -1;
		if (isUnderWay == 0) {
			*status = ZEVO_METADATA_CACHE_IDLE;
			return 0;
		}
	}
	*totalSize = report.total;
	*processedSize = report.current;
	*status = ZEVO_METADATA_CACHE_WORKING;
	return 0;
}
