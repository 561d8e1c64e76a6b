#ifndef PLATFORM_STORAGE_BLOCK_DEVICE_H
#define PLATFORM_STORAGE_BLOCK_DEVICE_H

#include "storage/device_mapper.h"
#include "storage/sysfs.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Block devices, by their kernel names: the names below /sys/class/block, in which "!" stands for "/".
namespace zevos {

inline constexpr std::string_view kDevDir = "/dev/";

/// The path of a block device in sysfs, or of something in its folder.
std::string BlockPath(const std::string &kernelName, std::string_view inside = {});

/// "/dev/cciss/c0d0" for "cciss!c0d0", and the other way round. A name without "/dev/" counts as a kernel name already.
std::string DeviceName(const std::string &kernelName);
std::string KernelName(std::string_view deviceName);

/// All but partitions, in ascending byte order.
Names BlockDevices();

bool Exists(const std::string &kernelName);

/// The disk that a partition lies on, by the kernel; nothing for what is no partition.
std::optional<std::string> DiskOfPartition(const std::string &kernelName);

/// A block device and what it is directly made of, without the side that only caches.
struct Layer {
	std::string device;
	Names components = {};                // none for a disk
	std::vector<CacheTarget> caches = {}; // of a device-mapper device
	std::string backing = {};             // of a bcache device in front of another device: that one
};

/// Visits some devices and, right behind each, all that it is made of, every device once. A device that is gone is not
/// visited. Ends when the visitor returns false.
void Descend(const Names &kernelNames, const std::function<bool(const Layer &)> &visit);

/// The whole disks that some devices are made of, each once (space.h says what counts). A device that is gone is made
/// of nothing.
Names DisksBelow(const Names &kernelNames);

} // namespace zevos

#endif
