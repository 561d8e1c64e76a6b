#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/pin_engine.h"
#include "btrfs_metadata_cache/volume_lookup.h"
#include "support/check.h"

#include <vunkcore/process.h>
#include <zevostorage/file_system.h>
#include <zevostorage/volume_conf.h>
#include <zevotuned/metadata_cache.h>

#include <unistd.h>

namespace {

enum class Switch { AsItIs, Off, On };

int WriteSwitch(const char *szVolPath, Switch value)
{
	ZEVOVOLUMECONF settings = {};
	settings.uMetadataCache = value == Switch::On ? 1 : 0;
	if (ZEVOVolumeConfSet(szVolPath, &settings, ZEVO_VOLUME_CONF_METADATA_CACHE) == 0)
		return 0;
	LOG_ERROR("Failed to set volume conf with [%s].", szVolPath);
	return -1;
}

int RunEngine(const char *szVolPath)
{
	if (__BtrfsMetadataCacheSet(szVolPath) == 0)
		return 0;
	LOG_ERROR("Failed to BtrfsMetadataCacheSet with [%s]", szVolPath);
	return -1;
}

int RunEngineNoWait(const char *szVolPath)
{
	const pid_t child = VUNKCProcForkChildNoWait();
	if (child == 0) {
		RunEngine(szVolPath);
		_exit(0); // neither the exit handlers nor the streams of the program that this is a copy of
	}
	if (child > 0)
		return 0;
	SET_ERROR(kErrNotForked);
	LOG_ERROR("Failed to BtrfsMetadataCacheSetNoWait with [%s]", szVolPath);
	return -1;
}

int SwitchAndRun(const char *szPath, Switch value, bool fNoWait)
{
	CHECK_ARGUMENT(__null != szPath);

	VolumePath volume;
	if (BtrfsMetadataCacheSpaceFind(szPath, volume.data()) != 0) {
		LOG_ERROR("Failed to find space with [%s]", szPath);
		return -1;
	}
	if (ZEVOGetFSType(volume.c_str(), 0) != ZEVO_FS_BTRFS)
		return 0; // programs switch the cache of all volumes alike
	// Written before the engine runs, so that one that runs already sees it at its next check.
	if (value != Switch::AsItIs && WriteSwitch(volume.c_str(), value) != 0) {
		LOG_ERROR("Failed to set volume conf with [%s]", volume.c_str());
		return -1;
	}
	return fNoWait ? RunEngineNoWait(volume.c_str()) : RunEngine(volume.c_str());
}

} // namespace

int ZEVOBtrfsMetadataCacheSet(char *szPath, int fEnable, int fNoWait)
{
	return SwitchAndRun(szPath, fEnable != 0 ? Switch::On : Switch::Off, fNoWait != 0);
}

int ZEVOBtrfsMetadataCacheRescan(char *szPath, int fNoWait)
{
	return SwitchAndRun(szPath, Switch::AsItIs, fNoWait != 0);
}
