#include "btrfs_metadata_cache/engine_lock.h"

#include "btrfs_metadata_cache/paths.h"
#include "support/error_codes.h"
#include "support/handles.h"
#include "support/log.h"

#include <vunkcore/lock_file.h>
#include <zevostorage/error.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>

EngineLock EngineLockTake(MetadataCacheContext &ctx, const char *szVolPath, int &fd)
{
	UuidText uuid;
	if (BtrfsMetadataCacheUuidGet(szVolPath, uuid) != 0)
		return VUNKCErrGet() == ZEVO_ERR_NOT_BTRFS ? EngineLock::NotBtrfs : EngineLock::Failed;
	snprintf(ctx.szUuid, sizeof(ctx.szUuid), "%s", uuid.c_str());
	if (BtrfsMetadataCacheLockPathGet(ctx.szUuid, ctx.szLockPath) != 0)
		return EngineLock::Failed;
	FileDescriptor file(open(ctx.szLockPath, O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0644));
	if (!file) {
		SET_ERROR(kErrLockNotTaken);
		return EngineLock::Failed;
	}
	if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
		const bool isBusy = errno == EAGAIN;
		SET_ERROR(isBusy ? kErrEngineBusy : kErrLockNotTaken);
		return isBusy ? EngineLock::Busy : EngineLock::Failed;
	}
	fd = file.release();
	return EngineLock::Held;
}

bool EngineLockCovers(const MetadataCacheContext &ctx, const char *szVolPath)
{
	UuidText uuid;
	if (BtrfsMetadataCacheUuidGet(szVolPath, uuid) != 0)
		return false;
	if (strcmp(uuid.c_str(), ctx.szUuid) == 0)
		return true;
	errno = ESTALE;
	SET_ERROR(kErrLockNotTaken);
	return false;
}

int EngineLockRelease(const MetadataCacheContext &ctx, int fd)
{
	if (VUNKCFileUnlockByFile(fd) != 0)
		return 0;
	LOG_ERROR("fail to VUNKCFileUnlockByFile of [%s] config", ctx.szLockPath);
	return -1;
}
