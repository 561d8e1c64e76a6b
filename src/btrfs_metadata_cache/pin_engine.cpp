#include "btrfs_metadata_cache/pin_engine.h"

#include "btrfs_metadata_cache/disable_pass.h"
#include "btrfs_metadata_cache/enable_pass.h"
#include "btrfs_metadata_cache/engine_lock.h"
#include "btrfs_metadata_cache/pid_file.h"
#include "btrfs_metadata_cache/policy.h"
#include "btrfs_metadata_cache/progress.h"
#include "support/error_kept.h"
#include "support/log.h"
#include "support/not_cancelled.h"

namespace {

int RunLocked(MetadataCacheContext &ctx, const char *szVolPath, bool isWanted)
{
	VolumePath pidFile;
	if (BtrfsMetadataCachePidFileWrite(szVolPath, pidFile) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCachePidFileWrite with [%s]", szVolPath);
		return -1;
	}
	BtrfsMetadataCacheProgressEnd(ctx.szUuid); // of a pass that was killed
	const int result =
		isWanted ? BtrfsMetadataCacheEnablePass(ctx, szVolPath) : BtrfsMetadataCacheDisablePass(ctx, szVolPath);
	const ErrorKept error;
	if (BtrfsMetadataCachePidFileRemove(szVolPath, pidFile) != 0)
		LOG_ERROR("Failed to BtrfsMetadataCachePidFileRemove with [%s]", szVolPath);
	if (result != 0)
		error.Restore();
	return result;
}

int RunPass(MetadataCacheContext &ctx, const char *szVolPath)
{
	const int isWanted = BtrfsMetadataCacheCheck(ctx, szVolPath);
	if (isWanted < 0)
		return -1;
	int lock = -1;
	switch (EngineLockTake(ctx, szVolPath, lock)) {
	case EngineLock::Busy:
	case EngineLock::NotBtrfs:
		return 0;
	case EngineLock::Failed:
		return -1;
	case EngineLock::Held:
		break;
	}
	const int result = RunLocked(ctx, szVolPath, isWanted == 1);
	return EngineLockRelease(ctx, lock) == 0 ? result : -1;
}

} // namespace

int __BtrfsMetadataCacheSet(const char *szVolPath) // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
{
	const NotCancelled notCancelled; // with the lock held, and its files there
	MetadataCacheContext ctx;
	int result;
	do {
		ctx = {};
		result = RunPass(ctx, szVolPath);
	} while (result == 0 && ctx.fRestart != 0);
	if (result != 0)
		LOG_ERROR("Failed to __BtrfsMetadataCacheSet with [%s]", szVolPath);
	return result;
}
