#include "utils/apply/volume.h"

#include "support/check.h"
#include "support/storage_handles.h"
#include "support/text_buffer.h"

#include <vunkcore/file.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <fcntl.h>
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

int WriteThreadLimit(const char *szPath, int nThreadMax)
{
	const TextBuffer<1024> value("%d", nThreadMax);
	const FileDescriptor file(open(szPath, O_WRONLY | O_CLOEXEC));
	if (!file) {
		LOG_ERROR("Can't open file %s", szPath);
		return -1;
	}
	if (VUNKCWrite(file.get(), value.c_str(), strlen(value.c_str())) < 0) {
		LOG_ERROR("Failed to set writeback thread max errno %s.", strerror(errno));
		return -1;
	}
	return 0;
}

} // namespace

int TuneApplyVolumeSection(const SectionPlace &place)
{
	Section section;
	if (section.Read(place) != 0)
		return -1;
	for (int i = 0; i < section.Count(); ++i) {
		if (std::string_view(section.Key(i)) != "zevo_writeback_thread_max")
			continue;
		if (TuneApplyProfileVolumeWriteBackThread(section.Value(i)) != 0) {
			LOG_ERROR("Failed to TuneApplyProfileVolumeWriteBackThread");
			return -1;
		}
	}
	return 0;
}

int TuneApplyProfileVolumeWriteBackThread(const char *szValue)
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
		if (volume->iFsType != ZEVO_FS_BTRFS)
			continue;
		ZEVOSPACESEARCH search = {};
		search.szVolPath = volume->szVolPath;
		ZEVOSPACEINFO *space = nullptr;
		if (ZEVOSpaceInfoSearch(spaces.get(), &search, &space) <= 0) {
			LOG_ERROR_ONLY("Fail to find volume: [%s]", volume->szVolPath);
			continue;
		}
		if (TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(space, limit) != 0) {
			LOG_ERROR_ONLY("Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo [%s]",
			               volume->szVolPath);
			return -1;
		}
	}
	return 0;
}

int TuneApplyProfileVolumeWriteBackThreadBySpaceInfo(const ZEVOSPACEINFO *pSpace, int nThreadMax)
{
	CHECK_ARGUMENT(__null != pSpace);

	const int liesOnSSDs = LiesOnSSDs(pSpace);
	if (liesOnSSDs != 1)
		return liesOnSSDs;
	char uuid[40] = {};
	if (ZEVOFSGetBTRFSUuid(pSpace->szVolPath, uuid, sizeof(uuid)) != 0) {
		LOG_ERROR("Failed to get Btrfs UUID with [%s].", pSpace->szVolPath);
		return -1;
	}
	const TextBuffer<4096> path("/sys/fs/btrfs/%s/zevo_writeback_thread_max", uuid);
	return WriteThreadLimit(path.c_str(), nThreadMax);
}
