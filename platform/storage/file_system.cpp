#include "common/descriptor.h"
#include "common/internal.h"

#include <zevostorage/error.h>
#include <zevostorage/file_system.h>

#include <cerrno>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>
#include <uuid.h>

namespace {

constexpr decltype(statfs::f_type) kXfsMagic = 0x58465342; // <linux/magic.h> lacks it

int FailToOpen(const char *szPath)
{
	if (errno == ENOMEM)
		return VUNKC_FAIL(-1, VUNKC_ERR_NO_MEMORY);
	const bool isMissing = errno == ENOENT || errno == ENOTDIR;
	return vunkc::FailAt(-1, isMissing ? VUNKC_ERR_FILE_MISSING : VUNKC_ERR_FILE_OPEN, szPath, 0);
}

} // namespace

int ZEVOGetFSType(const char *szPath, int iFlags)
{
	if (szPath == nullptr || iFlags != 0)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	struct statfs status;
	if (statfs(szPath, &status) != 0)
		return FailToOpen(szPath);
	switch (status.f_type) {
	case BTRFS_SUPER_MAGIC:
		return ZEVO_FS_BTRFS;
	case EXT4_SUPER_MAGIC: // and that of its predecessors
		return ZEVO_FS_EXT;
	case kXfsMagic:
		return ZEVO_FS_XFS;
	default:
		return ZEVO_FS_OTHER;
	}
}

int ZEVOFSGetBTRFSUuid(const char *szPath, char *szUuid, size_t cbUuid)
{
	if (szPath == nullptr || szUuid == nullptr || cbUuid < ZEVO_UUID_SIZE)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	// Of a pipe or a device the open file is something else than its file system; and opening must not wait for anyone.
	const vunkc::Descriptor fd(open(szPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
	if (!fd)
		return FailToOpen(szPath);
	struct statfs status;
	if (fstatfs(fd.Get(), &status) != 0)
		return vunkc::FailAt(-1, VUNKC_ERR_FILE_READ, szPath, 0);
	if (status.f_type != BTRFS_SUPER_MAGIC)
		return vunkc::FailAt(-1, ZEVO_ERR_NOT_BTRFS, szPath, 0);
	btrfs_ioctl_fs_info_args info = {};
	if (ioctl(fd.Get(), BTRFS_IOC_FS_INFO, &info) != 0)
		return vunkc::FailAt(-1, VUNKC_ERR_FILE_READ, szPath, 0);
	uuid_unparse_lower(info.fsid, szUuid);
	return 0;
}
