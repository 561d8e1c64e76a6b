#include "btrfs_metadata_cache/progress_report.h"

#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/process_age.h"
#include "btrfs_metadata_cache/progress.h"
#include "support/handles.h"
#include "support/log.h"

#include <vunkcore/pair_file.h>
#include <vunkcore/process.h>

#include <climits>
#include <cstdlib>

#include <unistd.h>

namespace {

// Reads the pairs: how many there are, or -1. The engine makes the file empty and fills it a moment later.
int ReadPairs(const char *szPath, Hash &pairs)
{
	constexpr int kReads = 10;
	constexpr useconds_t kPause = 10'000;
	int count = VUNKCFileGetPair(szPath, pairs.out());
	for (int read = 1; count == 0 && read < kReads; ++read) {
		usleep(kPause);
		count = VUNKCFileGetPair(szPath, pairs.out());
	}
	return count;
}

unsigned long long AsNumber(const char *szValue)
{
	return strtoull(szValue, nullptr, 10);
}

bool IsUnderWay(unsigned long long pid, const char *szPath)
{
	return pid <= INT_MAX && VUNKCProcAlive(static_cast<pid_t>(pid)) == 1 &&
	       MayHaveWritten(static_cast<pid_t>(pid), szPath);
}

} // namespace

int BtrfsMetadataCacheProgressRead(const char *szUuid, ProgressReport &report)
{
	Hash pairs;
	if (!pairs) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	VolumePath path;
	const int present = BtrfsMetadataCacheProgressPathGet(szUuid, path.data(), false);
	if (present < 0) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Progress file path with UUID[%s].", szUuid);
		return -1;
	}
	if (present == 0)
		return 0;
	if (ReadPairs(path.c_str(), pairs) < 0) {
		if (VUNKCErrGet() == VUNKC_ERR_FILE_MISSING)
			return 0; // the pass has ended meanwhile
		LOG_ERROR("Failed to get file [%s] to hash", path.c_str());
		return -1;
	}
	const char *const pid = pairs.Get("pid");
	if (pid == nullptr) {
		LOG_ERROR("Failed to get progress pid in [%s]", path.c_str());
		return -1;
	}
	const char *const total = pairs.Get("total");
	if (total == nullptr) {
		LOG_ERROR("Failed to get progress total size in [%s]", path.c_str());
		return -1;
	}
	const char *const current = pairs.Get("current");
	if (current == nullptr) {
		LOG_ERROR("Failed to get progress current size in [%s]", path.c_str());
		return -1;
	}
	if (!IsUnderWay(AsNumber(pid), path.c_str())) {
		BtrfsMetadataCacheProgressEnd(szUuid);
		return 0;
	}
	report = {AsNumber(total), AsNumber(current)};
	return 1;
}
