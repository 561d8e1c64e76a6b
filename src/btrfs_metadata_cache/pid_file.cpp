#include "btrfs_metadata_cache/pid_file.h"

#include "support/log.h"

#include <vunkcore/pid_file.h>

#include <cerrno>

#include <unistd.h>

int BtrfsMetadataCachePidFileWrite(const char *szVolPath, VolumePath &written)
{
	if (BtrfsMetadataCachePidPathGet(szVolPath, written.data(), true) != 1) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Pid file path with vol path [%s].", szVolPath);
		return -1;
	}
	if (VUNKCProcPidFileCreate(written.c_str()) != 0) {
		LOG_ERROR("Failed to VUNKCProcPidFileCreate with [%s]", written.c_str());
		unlink(written.c_str());
		return -1;
	}
	return 0;
}

int BtrfsMetadataCachePidFileRemove(const char *szVolPath, const VolumePath &written)
{
	// The path is found anew only to tell what has become of the volume. If another one is there by now, the file
	// of that one is not ours.
	VolumePath now;
	const int present = BtrfsMetadataCachePidPathGet(szVolPath, now.data(), false);
	// Who stops the engine by force removes it as well.
	const bool isGone = unlink(written.c_str()) == 0 || errno == ENOENT;
	if (present < 0) {
		LOG_ERROR("Failed to get Btrfs Metadata Cache Pid file path with vol path [%s].", szVolPath);
		return -1;
	}
	if (!isGone) {
		LOG_ERROR_ONLY("Failed to delete btrfs metadata cache pid file (%s) ", written.c_str());
		return -1;
	}
	return 0;
}
