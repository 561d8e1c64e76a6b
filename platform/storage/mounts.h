#ifndef PLATFORM_STORAGE_MOUNTS_H
#define PLATFORM_STORAGE_MOUNTS_H

#include <string>
#include <vector>

#include <sys/types.h>

namespace zevos {

/// A mounted file system on a block device (mount.h says what counts, and by which of its mounts it is known).
struct Volume {
	std::string path;
	std::string fsName;
	std::string source;
	dev_t device = 0; // the file system's; of a Btrfs it is no block device's
};

bool IsBtrfs(const Volume &volume);

/// All of them, in ascending byte order of their paths. Throws KernelFailure.
std::vector<Volume> MountedVolumes();

} // namespace zevos

#endif
