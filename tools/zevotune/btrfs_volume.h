#ifndef ZEVOTUNE_BTRFS_VOLUME_H
#define ZEVOTUNE_BTRFS_VOLUME_H

// Which volume a user means.

#include <string>

struct BtrfsVolume {
	std::string path; // as the storage library lists it
	std::string uuid;
	std::string device; // by the name that people know it by
};

/// @param name    any path on a mounted Btrfs volume, or its device.
/// @param action  what is to be done, in the words of a refusal: "show the metadata of".
/// Throws Failure where it is no such thing.
BtrfsVolume FindBtrfsVolume(const std::string &name, const std::string &action);

/// How many devices the volume lies on; 0 when that cannot be told.
unsigned long long CountDevices(const BtrfsVolume &volume);

[[noreturn]] void RefuseVolume(const std::string &name, const std::string &action, const std::string &reason);

#endif
