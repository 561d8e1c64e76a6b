#include "btrfs_metadata_cache/volume_lookup.h"

#include "btrfs_metadata_cache/paths.h"
#include "support/check.h"
#include "support/storage_handles.h"

#include <zevostorage/error.h>
#include <zevostorage/flash_cache.h>

#include <cstdio>
#include <string_view>

namespace {

constexpr int kLayerOfVolume = 1;

// Whether the path is the volume's layer: 1, 0, or -1 when the layer cannot be told.
int IsLayerOf(const char *szVolPath, std::string_view path)
{
	TextBuffer<128> layer;
	if (ZEVOVSpaceLayerPathGet(kLayerOfVolume, szVolPath, layer.data(), layer.capacity()) == 0)
		return path == layer.c_str() ? 1 : 0;
	if (VUNKCErrGet() == ZEVO_ERR_NO_LAYER)
		return 0;
	LOG_ERROR("Failed to ZEVOVSpaceLayerPathGet with [%s] errno=0x%X\n", szVolPath,
	          static_cast<unsigned>(VUNKCErrGet()));
	return -1;
}

int IsNameOf(const ZEVOSPACEINFO &space, std::string_view path)
{
	return path == DeviceOf(&space) || path == space.szVolPath ? 1 : IsLayerOf(space.szVolPath, path);
}

} // namespace

int BtrfsMetadataCacheSpaceFind(const char *szPath, char *szVolPathOut)
{
	CHECK_ARGUMENT(__null != szPath);

	SpaceList spaces(nullptr);
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0) {
		LOG_ERROR("Failed to enumerate volumes");
		return -1;
	}
	int found = 0;
	for (const ZEVOSPACEINFO *space = spaces.get(); space != nullptr && found == 0; space = space->pNext) {
		found = IsNameOf(*space, szPath);
		if (found == 1)
			snprintf(szVolPathOut, VolumePath::capacity(), "%s", space->szVolPath);
	}
	if (found == 1) {
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0); // later lines must not blame the layer that another volume lacks
		return 0;
	}
	LOG_ERROR("Couldn't find volume info for device [%s]\n", szPath);
	return -1;
}
