#ifndef PLATFORM_STORAGE_SYSFS_H
#define PLATFORM_STORAGE_SYSFS_H

#include <optional>
#include <string>
#include <vector>

/// Reading /sys. Devices come and go while it is read: what is not there, or no more, is nothing; every other failure
/// is thrown as KernelFailure.
namespace zevos {

using Names = std::vector<std::string>;

/// The first line of an attribute.
std::optional<std::string> ReadAttribute(const std::string &path);

/// Where a symbolic link leads, as it is written there.
std::optional<std::string> ReadLink(const std::string &path);

/// The names in a folder, in ascending byte order.
std::optional<Names> ReadNames(const std::string &path);

/// What stands behind the last slash of a path.
std::string LastComponent(const std::string &path);

} // namespace zevos

#endif
