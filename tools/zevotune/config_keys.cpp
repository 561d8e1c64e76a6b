#include "config_keys.h"

#include "numbers.h"

#include "support/builtin_profiles.h"

#include <algorithm>

namespace {

bool IsAnything(const std::string &)
{
	return true;
}

bool IsTruthValue(const std::string &value)
{
	return value == "true" || value == "false";
}

} // namespace

const std::vector<ConfigKey> &ConfigKeys()
{
	static const std::vector<ConfigKey> keys = {
		{"profile", kBuiltinProfiles[0], "the name of an installed profile", IsAnything},
		{"lock", "false", "true or false", IsTruthValue},
		{"btrfs_metadata_cache_on", "true", "true or false", IsTruthValue},
		{"btrfs_metadata_cache_space_usage_limit", "100",
	         "a whole number: percent of the SSD cache up to 100, bytes above", IsWholeNumber},
		{"btrfs_metadata_cache_read_throttle_wait_mult", "0",
	         "a whole number: pause after reading, in multiples of the reading's time", IsWholeNumber},
	};
	return keys;
}

const ConfigKey *FindConfigKey(const std::string &name)
{
	const std::vector<ConfigKey> &keys = ConfigKeys();
	const auto found =
		std::find_if(keys.begin(), keys.end(), [&](const ConfigKey &key) { return name == key.name; });
	return found == keys.end() ? nullptr : &*found;
}
