#ifndef PLATFORM_STORAGE_DEVICES_H
#define PLATFORM_STORAGE_DEVICES_H

#include "storage/mounts.h"
#include "storage/sysfs.h"

#include <zevostorage/space.h>

#include <optional>
#include <string>
#include <unordered_map>

namespace zevos {

/// What a volume lies on, by kernel names.
struct VolumeDevices {
	std::string uuid;   // of a Btrfs file system
	std::string device; // that is mounted; of a Btrfs on several devices, one
};

/// Finds the devices of volumes. What takes a look at the whole machine is looked at once, so that many volumes cost no more
/// than each of them; make a new one for every call of the library.
class DeviceFinder {
public:
	/// Nothing for a volume whose devices are gone, or cannot be told.
	std::optional<VolumeDevices> DevicesOf(const Volume &volume);

private:
	using Lookup = std::unordered_map<std::string, std::string>;

	std::optional<VolumeDevices> DevicesOfBtrfs(const Volume &volume);
	std::optional<std::string> UuidOf(const Volume &volume);
	std::optional<std::string> ByName(const std::string &source);

	std::optional<Lookup> mappedDevices; // kernel names by paths below /dev/mapper
	std::optional<Lookup> btrfsDevices;  // UUIDs by kernel names
};

/// The path below /dev/mapper of a device-mapper device; nothing for other devices.
std::optional<std::string> MapperPath(const std::string &kernelName);

/// The kernel names of the devices that the file system of a space lies on.
Names DevicesOfSpace(const ZEVOSPACEINFO &space);

/// The kernel names of the devices of a Btrfs file system that are there; none when it is not mounted any more.
Names BtrfsDevices(const std::string &uuid);

} // namespace zevos

#endif
