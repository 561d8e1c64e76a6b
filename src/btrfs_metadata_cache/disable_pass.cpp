#include "btrfs_metadata_cache/disable_pass.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/engine_lock.h"
#include "btrfs_metadata_cache/kernel_switch.h"
#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/pin_sections.h"
#include "btrfs_metadata_cache/policy.h"
#include "btrfs_metadata_cache/recorded_chunks.h"
#include "support/boundary.h"
#include "support/handles.h"
#include "support/log.h"

#include <vunkcore/section_file.h>
#include <zevostorage/flash_cache.h>

#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

// 1 when the switch has been turned on since it was last looked at, 0, -1. One that has been on all along must not make
// the pass start over: it unpins because the configuration or the cache says no.
int HasTurnedOn(MetadataCacheContext &ctx, const char *szVolPath)
{
	uint8_t isOn = 0;
	if (BtrfsMetadataCacheVolumeConfGet(szVolPath, &isOn) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheVolumeConfGet with [%s].", szVolPath);
		return -1;
	}
	const VolumeSwitch before = std::exchange(ctx.lastSwitch, isOn != 0 ? VolumeSwitch::On : VolumeSwitch::Off);
	return isOn != 0 && before == VolumeSwitch::Off ? 1 : 0;
}

// Asked before each section: 1; 0 when the pass is to start over; -1.
int MayGoOn(MetadataCacheContext &ctx, const char *szVolPath)
{
	const int hasTurnedOn = HasTurnedOn(ctx, szVolPath);
	if (hasTurnedOn < 0)
		return -1;
	if (hasTurnedOn == 1) {
		ctx.fRestart = 1;
		return 0;
	}
	return EngineLockCovers(ctx, szVolPath) ? 1 : -1;
}

int RemoveSection(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath, const char *szSection)
{
	chunk_info chunk;
	if (ReadRecord(szConfigPath, szSection, chunk) &&
	    PinBtrfsMetadataSectionRemove(ctx, szVolPath, szConfigPath, &chunk) == 0)
		return 0;
	LOG_ERROR("Failed to PinBtrfsMetadataSectionRemove offset:[%s] with config:[%s].", szSection, szConfigPath);
	return -1;
}

int Unpin(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath, List &sections)
{
	if (VUNKCFileEnumSection(szConfigPath, sections.out()) < 0) {
		LOG_ERROR("Fail to enumerate sections with config [%s].", szConfigPath);
		return -1;
	}
	const std::vector<const char *> names = NamesOnce(sections);
	CountRecordedChunks(ctx, szConfigPath, names);
	for (auto name = names.rbegin(); name != names.rend(); ++name) {
		const int mayGoOn = MayGoOn(ctx, szVolPath);
		if (mayGoOn != 1)
			return mayGoOn;
		if (!IsConfigSection(*name) && RemoveSection(ctx, szVolPath, szConfigPath, *name) != 0)
			return -1;
	}
	return 0;
}

int SwitchOff(const char *szVolPath, const char *szConfigPath)
{
	const int hasConfig = BtrfsMetadataCacheHasConfig(szConfigPath);
	if (hasConfig < 0 || (hasConfig == 1 && BtrfsMetadataCacheSetStatus(szConfigPath, kMappingDisabled) != 0)) {
		LOG_ERROR("Failed to BtrfsMetadataCacheSetStatus with [%s]", szConfigPath);
		return -1;
	}
	if (TuneBtrfsVolumeMetadataCacheEnable(szVolPath, false) != 0) {
		LOG_ERROR("Failed to TuneBtrfsVolumeMetadataCacheEnable false with [%s]", szVolPath);
		return -1;
	}
	return 0;
}

int Remove(MetadataCacheContext &ctx, const char *szVolPath)
{
	List sections;
	if (!sections) {
		LOG_ERROR("VUNKCSzListAlloc failed. ");
		return -1;
	}
	VolumePath config;
	const int hasFile = BtrfsMetadataCacheConfigPathGet(szVolPath, config.data(), false);
	if (hasFile < 0) {
		LOG_ERROR("Failed to get btrfs metadata pin config.");
		return -1;
	}
	if (hasFile == 0)
		return 0;
	if (SwitchOff(szVolPath, config.c_str()) != 0)
		return -1;
	if (ZEVOFlashCachePinIsVolumeSupport(szVolPath) != 0 && Unpin(ctx, szVolPath, config.c_str(), sections) != 0)
		return -1;
	if (ctx.fRestart != 0)
		return 0;
	if (unlink(config.c_str()) != 0) {
		LOG_ERROR_ONLY("Failed to delete pin btrfs metadata file (%s) errno[%d]", config.c_str(), errno);
		return -1;
	}
	return 0;
}

int RemoveOrFail(MetadataCacheContext &ctx, const char *szVolPath)
{
	try {
		return Remove(ctx, szVolPath);
	} catch (const std::exception &) {
		return FAIL_ON_EXCEPTION;
	}
}

} // namespace

int BtrfsMetadataCacheDisablePass(MetadataCacheContext &ctx, const char *szVolPath)
{
	if (RemoveOrFail(ctx, szVolPath) == 0)
		return 0;
	LOG_ERROR("Failed to remove btrfs metadata pin file for %s", szVolPath);
	return -1;
}
