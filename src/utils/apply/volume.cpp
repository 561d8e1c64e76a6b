#include "utils/apply/volume.h"

#include "support/check.h"
#include "support/storage_handles.h"
#include "support/text_buffer.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/sysinfo.h>

namespace {

// Negative numbers and zero are the kernel's to judge.
int ThreadLimit(const char *szValue)
{
	const int processors = get_nprocs();
	const int requested = std::string_view(szValue) == "auto" ? static_cast<int>(std::ceil(processors * 0.125))
	                                                          : static_cast<int>(strtol(szValue, nullptr, 10));
	return std::min(requested, processors);
}

// 1: SSDs alone, or no disk at all; 0: a rotating disk among them; -1.
int LiesOnSSDs(const ZEVOSPACEINFO *pSpace)
{
	List disks;
	if (!disks) {
		LOG_ERROR("Failed to VUNKCSzListAlloc().");
		return -1;
	}
	if (ZEVOSpaceDiskEnum(pSpace, disks.out()) < 0) {
		LOG_ERROR("Failed to ZEVOSpaceDiskEnum.");
		return -1;
	}
	for (int i = 0; i < disks.Count(); ++i) {
		const int isSSD = ZEVODiskIsSSD(disks.Get(i));
		if (isSSD == -1) {
			LOG_ERROR("Failed to check disk [%s] rotational.", disks.Get(i));
			return -1;
		}
		if (isSSD != 1)
			return 0;
	}
	return 1;
}

} // namespace

int TuneApplyVolumeSection(const SectionPlace &place)
{
	return ApplyEachKey(place, [&place](const char *szKey, const char *szValue) {
		if (std::string_view(szKey) != "zevo_writeback_thread_max") {
			place.writer.OnPassedOver(szKey, "[volume] knows no such key");
			return 0;
		}
		if (TuneApplyProfileVolumeWriteBackThread(szValue, place.writer) != 0) {
			LOG_ERROR("Failed to TuneApplyProfileVolumeWriteBackThread");
			return -1;
		}
		return 0;
	});
}

int TuneApplyProfileVolumeWriteBackThread(const char *szValue, ParameterWriter &writer)
{
	CHECK_ARGUMENT(__null != szValue);

	const int limit = ThreadLimit(szValue);
	const VolumeList volumes(ZEVOMountVolInfoEnum(0, 0));
	// An empty list is no failure; only the error stack tells.
	if (VUNKCErrGet() != 0) {
		LOG_ERROR("Failed to enum volume info");
		return -1;
	}
	SpaceList spaces(nullptr);
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0) {
		LOG_ERROR("Failed to enum volume.");
		return -1;
	}
	for (const ZEVOMOUNTVOL *volume = volumes.get(); volume != nullptr; volume = volume->pNext) {
		if (volume->iFsType != ZEVO_FS_BTRFS) {
			writer.OnPassedOver(volume->szVolPath, "it is not Btrfs");
			continue;
		}
		ZEVOSPACESEARCH search = {};
		search.szVolPath = volume->szVolPath;
		ZEVOSPACEINFO *space = nullptr;
		if (ZEVOSpaceInfoSearch(spaces.get(), &search, &space) <= 0) {
			LOG_ERROR_ONLY("Fail to find volume: [%s]", volume->szVolPath);
			writer.OnPassedOver(volume->szVolPath, "its device cannot be found");
			continue;
		}
		if (TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(space, limit, writer) != 0) {
			LOG_ERROR_ONLY("Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo [%s]",
			               volume->szVolPath);
			return -1;
		}
	}
	return 0;
}

int TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(const ZEVOSPACEINFO *pSpace, int nThreadMax,
                                                     ParameterWriter &writer)
{
	CHECK_ARGUMENT(__null != pSpace);

	const int liesOnSSDs = LiesOnSSDs(pSpace);
	if (liesOnSSDs == 0)
		writer.OnPassedOver(pSpace->szVolPath, "it has a rotating disk");
	if (liesOnSSDs != 1)
		return liesOnSSDs;
	char uuid[40] = {};
	if (ZEVOFSGetBTRFSUuid(pSpace->szVolPath, uuid, sizeof(uuid)) != 0) {
		LOG_ERROR("Failed to get Btrfs UUID with [%s].", pSpace->szVolPath);
		return -1;
	}
	const TextBuffer<4096> path("/sys/fs/btrfs/%s/zevo_writeback_thread_max", uuid);
	return writer.WriteThreadLimit(path.c_str(), nThreadMax);
}
