#ifndef ZEVOTUNE_CONFIG_KEYS_H
#define ZEVOTUNE_CONFIG_KEYS_H

// The keys that zevotuned/config.h documents.

#include <string>
#include <vector>

struct ConfigKey {
	const char *name;
	const char *defaultValue;
	const char *values; // what the value has to be, as in "it has to be ..."
	bool (*isSensible)(const std::string &value);
};

/// In the order in which the library adds them to a configuration.
const std::vector<ConfigKey> &ConfigKeys();

/// Null when the key is none of them.
const ConfigKey *FindConfigKey(const std::string &name);

#endif
