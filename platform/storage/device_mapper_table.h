#ifndef PLATFORM_STORAGE_DEVICE_MAPPER_TABLE_H
#define PLATFORM_STORAGE_DEVICE_MAPPER_TABLE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevos {

/// A target of a device-mapper device that caches. Devices are numbers: "253:1".
struct CacheTarget {
	std::string origin;      // what is cached
	std::string cache;       // where
	std::string metadata;    // holds the cache's bookkeeping; "" when it has no device of its own
	std::optional<int> mode; // ZEVO_FLASH_CACHE_MODE_...; nothing when the target does not say it
};

/// Those in a kernel's answer to DM_TABLE_STATUS: a struct dm_ioctl and its targets. Nothing when the answer is cut off,
/// contradicts itself or lacks a device.
std::optional<std::vector<CacheTarget>> CacheTargetsInTable(std::string_view answer);

} // namespace zevos

#endif
