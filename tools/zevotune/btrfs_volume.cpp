#include "btrfs_volume.h"

#include "catalogue_check.h"
#include "error_text.h"
#include "failure.h"

#include "support/storage_handles.h"

#include <vunkcore/error.h>
#include <zevostorage/error.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace {

constexpr const char *kSeeVolumes = " (\"zevotune devices\" lists the volumes)";

// All names of a device lead to one number; the kernel's own name of it does not change while it is mounted.
bool IsDevice(const ZEVOSPACEINFO &space, const struct stat &device)
{
	struct stat status;
	return stat(space.szDevice, &status) == 0 && S_ISBLK(status.st_mode) && status.st_rdev == device.st_rdev;
}

template <class Matches>
const ZEVOSPACEINFO *FindSpace(const SpaceList &spaces, Matches matches)
{
	const ZEVOSPACEINFO *space = spaces.get();
	while (space != nullptr && !matches(*space))
		space = space->pNext;
	return space;
}

/// What a user has named, and what for.
struct Wish {
	const std::string &name;
	const std::string &action;

	[[noreturn]] void Refuse(const std::string &reason) const { RefuseVolume(name, action, reason); }
};

const ZEVOSPACEINFO &SpaceByUuid(const SpaceList &spaces, const Wish &wish)
{
	char uuid[ZEVO_UUID_SIZE] = "";
	ForgetErrors();
	if (ZEVOFSGetBTRFSUuid(wish.name.c_str(), uuid, sizeof(uuid)) != 0) {
		if (VUNKCErrGet() == ZEVO_ERR_NOT_BTRFS)
			wish.Refuse(std::string("it does not lie on a Btrfs volume") + kSeeVolumes);
		wish.Refuse(ErrorText());
	}
	const auto has = [&](const ZEVOSPACEINFO &space) { return strcmp(space.szUuid, uuid) == 0; };
	const ZEVOSPACEINFO *space = FindSpace(spaces, has);
	if (space == nullptr)
		wish.Refuse("the device of its file system is gone, or it has just been unmounted");
	return *space;
}

const ZEVOSPACEINFO &RequireSpace(const SpaceList &spaces, const Wish &wish)
{
	const std::string &name = wish.name;
	const auto isNamed = [&](const ZEVOSPACEINFO &space) {
		return name == DeviceOf(&space) || name == space.szDevice || name == space.szVolPath;
	};
	if (const ZEVOSPACEINFO *space = FindSpace(spaces, isNamed))
		return *space;
	struct stat status;
	if (stat(name.c_str(), &status) != 0)
		wish.Refuse(std::string(strerror(errno)) + "; name a path on a volume, or its device" + kSeeVolumes);
	if (!S_ISBLK(status.st_mode))
		return SpaceByUuid(spaces, wish);
	const auto lies = [&](const ZEVOSPACEINFO &space) { return IsDevice(space, status); };
	const ZEVOSPACEINFO *space = FindSpace(spaces, lies);
	if (space == nullptr)
		wish.Refuse(std::string("it is the device of no mounted volume; mount it, or name the volume's path") +
		            kSeeVolumes);
	return *space;
}

} // namespace

BtrfsVolume FindBtrfsVolume(const std::string &name, const std::string &action)
{
	SpaceList spaces(nullptr);
	ForgetErrors();
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0)
		throw Failure("cannot list the volumes' devices: " + ErrorText());
	const Wish wish{name, action};
	const ZEVOSPACEINFO &space = RequireSpace(spaces, wish);
	if (*space.szUuid == '\0')
		wish.Refuse(std::string("it is not a Btrfs volume") + kSeeVolumes);
	return {space.szVolPath, space.szUuid, DeviceOf(&space)};
}

unsigned long long CountDevices(const BtrfsVolume &volume)
{
	const FileDescriptor file(open(volume.path.c_str(), O_RDONLY | O_CLOEXEC));
	btrfs_ioctl_fs_info_args info{};
	return file && ioctl(file.get(), BTRFS_IOC_FS_INFO, &info) == 0 ? info.num_devices : 0;
}

void RefuseVolume(const std::string &name, const std::string &action, const std::string &reason)
{
	throw Failure("cannot " + action + ' ' + Quoted(name) + ": " + reason);
}
