#ifndef PLATFORM_STORAGE_DEVICE_MAPPER_H
#define PLATFORM_STORAGE_DEVICE_MAPPER_H

#include "storage/device_mapper_table.h"

#include <optional>
#include <string>
#include <vector>

namespace zevos {

/// The targets of a device-mapper device that cache, in their order. Nothing where the device is gone. Takes root;
/// throws KernelFailure.
std::optional<std::vector<CacheTarget>> CacheTargetsOf(const std::string &kernelName);

} // namespace zevos

#endif
