#ifndef PLATFORM_STORAGE_DEVICE_MAPPER_TABLE_H
#define PLATFORM_STORAGE_DEVICE_MAPPER_TABLE_H

#include "storage/sysfs.h"

#include <optional>
#include <string_view>

namespace zevos {

/// The devices ("253:1") that only cache others, or hold a cache's bookkeeping, in a kernel's answer to DM_TABLE_STATUS:
/// a struct dm_ioctl and its targets. Nothing when the answer is cut off, contradicts itself or lacks a device.
std::optional<Names> CacheDevicesInTable(std::string_view answer);

} // namespace zevos

#endif
