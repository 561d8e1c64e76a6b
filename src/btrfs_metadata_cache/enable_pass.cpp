#include "btrfs_metadata_cache/enable_pass.h"

#include "btrfs_metadata_cache/kernel_switch.h"
#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/pin_chunks.h"
#include "btrfs_metadata_cache/preload.h"
#include "btrfs_metadata_cache/progress.h"
#include "btrfs_metadata_cache/recorded_chunks.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/boundary.h"
#include "support/error_kept.h"
#include "support/log.h"

#include <vunkcore/section_file.h>
#include <zevostorage/flash_cache.h>
#include <zevotuned/metadata_cache.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include <sys/syscall.h>

namespace {

// Tells the storage library, while a volume's metadata is pinned for the first time, that its cache is being filled.
class BuildMarker {
public:
	void Set(const MetadataCacheContext &ctx)
	{
		build.iPid = ctx.pid;
		snprintf(build.szReference, sizeof(build.szReference), "%s", ctx.szCacheRef);
		isSet = ZEVOSpaceBuildFileSet(&build) == 0;
		if (!isSet)
			LOG_ERROR("Failed to set building file for [%s] ", ctx.szCacheRef);
	}

	void Remove() const
	{
		if (isSet)
			ZEVOSpaceBuildFileRemove(&build);
	}

private:
	ZEVOSPACEBUILD build = {0, 8, 31, 14, ""}; // kind, stage and reason are the storage library's
	bool isSet = false;
};

bool MakeMappingFile(MetadataCacheContext &ctx, const char *szVolPath, VolumePath &config)
{
	if (BtrfsMetadataCacheConfigPathGet(szVolPath, config.data(), true) != 1) {
		LOG_ERROR("Failed to get btrfs metadata pin config with [%s].", szVolPath);
		return false;
	}
	if (BtrfsMetadataCacheConfigInit(config.c_str()) != 0) {
		LOG_ERROR("Failed to check & initial metadata cache config [%s].", config.c_str());
		return false;
	}
	if (BtrfsMetadataCacheConfigGet(ctx, config.c_str()) != 0) {
		LOG_ERROR("Failed to load metadata cache config [%s].", config.c_str());
		return false;
	}
	return true;
}

bool ReadMappingFile(MetadataCacheContext &ctx, const char *szConfigPath, List &sections, RecordedChunks &recorded)
{
	if (VUNKCFileEnumSection(szConfigPath, sections.out()) < 0) {
		LOG_ERROR("Failed to enumerate sections with config [%s].", szConfigPath);
		return false;
	}
	return LoadRecordedChunks(ctx, szConfigPath, sections, recorded);
}

int PinSuperblocks(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath,
                   const std::vector<chunk_info> &recorded)
{
	if (PinChunks(ctx, szVolPath, ctx.szDevPath, szConfigPath, BtrfsMetadataCacheSuperblockNext, recorded) == 0)
		return 0;
	LOG_ERROR("Failed to PinChunks for SB with [%s]", szVolPath);
	LOG_ERROR("Failed to PinBtrfsMetadataSB with [%s].", szVolPath);
	return -1;
}

int StartProgress(MetadataCacheContext &ctx, const char *szVolPath)
{
	unsigned long long total = 0;
	if (ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(szVolPath, &total) != 0) {
		LOG_ERROR("Failed to ZEVOBtrfsMetadataCacheTotalMetadataSizeGet with [%s]", szVolPath);
		LOG_ERROR("Failed to BtrfsMetadataCacheProgressStart with [%s]", szVolPath);
		return -1;
	}
	ctx.ullProgressTotal = total;
	ctx.fProgress = 1;
	return 0;
}

// Of the calling thread: pinning that goes on behind a volume's users must not get in their way.
void LowerIoPriority()
{
	// The kernel's numbers for it, whose header some versions have in a form that is no C++.
	constexpr int kOfProcess = 1;
	constexpr int kLowestBestEffort = 2 << 13 | 7;
	if (syscall(SYS_ioprio_set, kOfProcess, 0, kLowestBestEffort) != 0)
		LOG_ERROR_ONLY("Failed to setting ioprio errno [%d]", errno);
}

int PinMetadata(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath,
                const std::vector<chunk_info> &recorded)
{
	if (ctx.status != kMappingBuilding)
		LowerIoPriority();
	else if (StartProgress(ctx, szVolPath) != 0)
		return -1;
	if (PinChunks(ctx, szVolPath, ctx.szDevPath, szConfigPath, BtrfsMetadataCacheChunkNext, recorded) != 0) {
		LOG_ERROR("Failed to PinChunks for Metadata with [%s]", szVolPath);
		return -1;
	}
	return 0;
}

int Complete(const MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath)
{
	if (TuneBtrfsVolumeMetadataCacheEnable(szVolPath, true) != 0) {
		LOG_ERROR("Failed to TuneBtrfsVolumeMetadataCacheEnable true with [%s]", szVolPath);
		return -1;
	}
	// Of a file that says so already it is only seen that it is still there, without which the pins would be
	// forgotten.
	const bool isRecorded = ctx.status == kMappingComplete
	                                ? BtrfsMetadataCacheHasConfig(szConfigPath) == 1
	                                : BtrfsMetadataCacheSetStatus(szConfigPath, kMappingComplete) == 0;
	if (!isRecorded) {
		LOG_ERROR("Failed to BtrfsMetadataCacheSetStatus with [%s]", szConfigPath);
		return -1;
	}
	return 0;
}

int Pin(MetadataCacheContext &ctx, const char *szVolPath, BuildMarker &marker)
{
	List sections;
	if (!sections) {
		LOG_ERROR("VUNKCSzListAlloc failed. ");
		return -1;
	}
	VolumePath config;
	if (!MakeMappingFile(ctx, szVolPath, config))
		return -1;
	if (ctx.status == kMappingBuilding)
		marker.Set(ctx);
	RecordedChunks recorded;
	if (!ReadMappingFile(ctx, config.c_str(), sections, recorded))
		return -1;
	if (BtrfsMetadataCacheClearDevBuffer(ctx.szDevPath) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheClearDevBuffer with [%s].", ctx.szDevPath);
		return -1;
	}
	if (PinSuperblocks(ctx, szVolPath, config.c_str(), recorded.superblocks) != 0)
		return -1;
	if (PinMetadata(ctx, szVolPath, config.c_str(), recorded.metadata) != 0) {
		LOG_ERROR("Failed to PinBtrfsMetadataChunk with [%s].", szVolPath);
		return -1;
	}
	// A check that does not allow the cache any more has ended the walk.
	return ctx.fCachePinSupport != 0 && ctx.fPolicyOn != 0 ? Complete(ctx, szVolPath, config.c_str()) : 0;
}

void EndProgress(MetadataCacheContext &ctx, const char *szVolPath)
{
	if (ctx.fProgress == 0)
		return;
	ctx.fProgress = 0;
	if (BtrfsMetadataCacheProgressEnd(ctx.szUuid) != 0)
		LOG_ERROR("Failed to BtrfsMetadataCacheProgressEnd with volume [%s]", szVolPath);
}

int PinOrFail(MetadataCacheContext &ctx, const char *szVolPath, BuildMarker &marker)
{
	try {
		return Pin(ctx, szVolPath, marker);
	} catch (const std::exception &) {
		return FAIL_ON_EXCEPTION;
	}
}

} // namespace

int BtrfsMetadataCacheEnablePass(MetadataCacheContext &ctx, const char *szVolPath)
{
	ctx.ullMaxUsedSizeLimit = UsedSizeLimit(ctx.ullSpaceUsageLimit, ctx.ullCacheSize);
	BuildMarker marker;
	const int result = PinOrFail(ctx, szVolPath, marker);
	const ErrorKept error;
	EndProgress(ctx, szVolPath);
	BtrfsMetadataCacheClearDevBuffer(ctx.szDevPath);
	marker.Remove();
	if (result != 0) {
		error.Restore();
		LOG_ERROR("Failed to pin btrfs metadata on [%s] errno[%d]", szVolPath, errno);
	}
	return result;
}
