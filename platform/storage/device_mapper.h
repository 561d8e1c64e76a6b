#ifndef PLATFORM_STORAGE_DEVICE_MAPPER_H
#define PLATFORM_STORAGE_DEVICE_MAPPER_H

#include "storage/sysfs.h"

#include <optional>
#include <string>

namespace zevos {

/// The devices ("253:1") of a device-mapper device that only cache another of its devices, or hold the cache's
/// bookkeeping. Nothing where the device is gone. Takes root; throws KernelFailure.
std::optional<Names> CacheDevicesOf(const std::string &kernelName);

} // namespace zevos

#endif
