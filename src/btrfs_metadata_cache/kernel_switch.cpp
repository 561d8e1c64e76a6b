#include "btrfs_metadata_cache/kernel_switch.h"

#include "btrfs_metadata_cache/paths.h"

#include <zevotuned/system_access.h>

#include <cstring>

int TuneBtrfsVolumeMetadataCacheEnable(const char *szVolPath, bool fEnable)
{
	UuidText uuid;
	if (BtrfsMetadataCacheUuidGet(szVolPath, uuid) != 0)
		return -1;
	const VolumePath attribute("/sys/fs/btrfs/%s/metadata_cache_enable", uuid.c_str());
	const TextBuffer<16> value("%d", fEnable ? 1 : 0);
	return TuneParameterWrite(attribute.c_str(), value.c_str(), strlen(value.c_str()));
}
