#ifndef ZEVOTUNE_CONFIG_ACCESS_H
#define ZEVOTUNE_CONFIG_ACCESS_H

// The configuration. Everything here throws Failure.

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Pairs in the order of the file.
using Config = std::vector<std::pair<std::string, std::string>>;

/// Null when there is no such key.
const std::string *FindValue(const Config &config, const std::string &key);

/// The complete configuration. For root the library makes and completes the file; for others, who need no lock, it has to
/// be there, and keys that it lacks have their defaults.
Config ReadConfig();

/// The pairs that the file has, none where it is missing. Makes and completes nothing but, as root, the lock file.
Config ReadConfigAsItIs();

/// The selected profile, read in the same way.
std::string SelectedProfile();

/// Nothing where that fails.
std::optional<std::string> SelectedProfileIfReadable();

bool IsRoot();

#endif
