#include "btrfs_metadata_cache/paths.h"

#include "support/check.h"
#include "support/handles.h"
#include "utils/system_access.h"

#include <zevostorage/error.h>
#include <zevostorage/file_system.h>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kMappingFolder[] = "@eaDir";
constexpr char kMappingFile[] = "zevo_btrfs_metadata_mapping_config";
constexpr char kRunFolderAbove[] = "/run/zevotuned";
constexpr char kRunFolder[] = "/run/zevotuned/metadata_cache";
constexpr char kLockFolderAbove[] = "/run/lock/zevotuned";
constexpr char kLockFolder[] = "/run/lock/zevotuned/metadata_cache";
constexpr mode_t kMode = 0644;

bool CreateFile(const char *szPath)
{
	// As creat(), but neither through a link that leads nowhere, nor emptying a file that has come into being
	// meanwhile.
	const FileDescriptor file(open(szPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode));
	if (!file) {
		LOG_ERROR_ONLY("Failed to create [%s]\n", szPath);
		SET_ERROR(kErrNotCreated);
		return false;
	}
	fchmod(file.get(), kMode); // whatever the caller's umask has left of it
	return true;
}

// 1: there, or made; 0: not there, or not to be made; -1: something else than a file is, or it cannot be told.
int FindOrCreateFile(const char *szPath, bool fCreate)
{
	errno = ENOENT;
	const int present = CheckFileExist(szPath);
	// To CheckFileExist a file that cannot be looked at is none. Here that would mean that nothing is pinned.
	const bool isUnknown = present == 0 && errno != ENOENT && errno != ENOTDIR;
	if (present < 0 || isUnknown) {
		SET_ERROR(kErrNotRegularFile);
		return -1;
	}
	if (present == 1 || !fCreate)
		return present;
	return CreateFile(szPath) ? 1 : 0;
}

// A folder that two callers make at the same moment is there for both, although one of them has failed to make it.
bool HasFolder(int (*create)(), const char *szAbove, const char *szFolder)
{
	const bool hasAbove = create() == 0 || CheckOrCreateDir(szAbove, false) == 1;
	return hasAbove && (CheckOrCreateDir(szFolder, true) == 1 || CheckOrCreateDir(szFolder, false) == 1);
}

// Of the files that are gone after a restart.
int RunPathGet(const char *szUuid, const char *szSuffix, char *szPathOut, bool fCreate)
{
	if (!HasFolder(CreateRunTunedDir, kRunFolderAbove, kRunFolder))
		return -1;
	snprintf(szPathOut, VolumePath::capacity(), "%s/%s.%s", kRunFolder, szUuid, szSuffix);
	return FindOrCreateFile(szPathOut, fCreate);
}

// A volume is its users' data. What one of them has put where the mapping file belongs must not lead elsewhere, nor say
// which ranges are to be unpinned.
bool IsFolderItself(const char *szPath)
{
	struct stat status;
	return lstat(szPath, &status) == 0 && S_ISDIR(status.st_mode);
}

bool IsOwnFile(const char *szPath)
{
	struct stat status;
	return lstat(szPath, &status) == 0 && S_ISREG(status.st_mode) &&
	       (status.st_uid == 0 || status.st_uid == geteuid());
}

} // namespace

int BtrfsMetadataCacheUuidGet(const char *szVolPath, UuidText &uuid)
{
	// Callers take 0xD900 for "nothing to do", so one that an earlier call has left must not be seen as this one's.
	VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	const int type = ZEVOGetFSType(szVolPath, 0);
	if (type >= 0 && type != ZEVO_FS_BTRFS) {
		SET_ERROR(ZEVO_ERR_NOT_BTRFS);
		return -1;
	}
	if (type < 0 || ZEVOFSGetBTRFSUuid(szVolPath, uuid.data(), UuidText::capacity()) != 0) {
		LOG_ERROR("Failed to get UUID from [%s]\n", szVolPath);
		return -1;
	}
	return 0;
}

int BtrfsMetadataCacheConfigPathGet(const char *szVolPath, char *szPathOut, bool fCreate)
{
	const VolumePath folder("%s/%s", szVolPath, kMappingFolder);
	int hasFolder = CheckOrCreateDir(folder.c_str(), fCreate);
	if (hasFolder == 1 && !IsFolderItself(folder.c_str())) {
		SET_ERROR(kErrNotDirectory);
		hasFolder = -1;
	}
	if (fCreate && hasFolder != 1) {
		LOG_ERROR("Failed to create pin btrfs metadata directory [%s] ", folder.c_str());
		return -1;
	}
	if (hasFolder < 0) {
		LOG_ERROR("Failed to get zevotuned config directory ");
		return -1;
	}
	snprintf(szPathOut, VolumePath::capacity(), "%s/%s/%s", szVolPath, kMappingFolder, kMappingFile);
	const int hasFile = FindOrCreateFile(szPathOut, fCreate);
	if (hasFile == 1 && !IsOwnFile(szPathOut)) {
		SET_ERROR(kErrNotRegularFile);
		return -1;
	}
	return fCreate && hasFile != 1 ? -1 : hasFile;
}

int BtrfsMetadataCacheProgressPathGet(const char *szUuid, char *szPathOut, bool fCreate)
{
	if (*szUuid == '\0') {
		LOG_ERROR("Failed to get or create progress file with un-initialized uuid.");
		return -1;
	}
	return RunPathGet(szUuid, "progress", szPathOut, fCreate);
}

int BtrfsMetadataCachePidPathGet(const char *szVolPath, char *szPathOut, bool fCreate)
{
	UuidText uuid;
	if (BtrfsMetadataCacheUuidGet(szVolPath, uuid) != 0)
		return -1;
	return RunPathGet(uuid.c_str(), "pid", szPathOut, fCreate);
}

int BtrfsMetadataCacheLockPathGet(const char *szUuid, char *szPathOut)
{
	if (!HasFolder(CreateRunLockTunedDir, kLockFolderAbove, kLockFolder))
		return -1;
	snprintf(szPathOut, VolumePath::capacity(), "%s/%s.lock", kLockFolder, szUuid);
	return 0;
}
