#ifndef ZEVOTUNE_CACHE_SUPPORT_H
#define ZEVOTUNE_CACHE_SUPPORT_H

// Whether a volume's metadata can be pinned, and why not.

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

struct CacheSupport {
	std::string path;
	std::string device;
	bool isSwitchedOn = false; // and so has to be called supported, or could not be switched off
	int reason = 0;         // ZEVO_METADATA_CACHE_MODE_UNKNOWN to _NOT_BTRFS: why not now; 0: nothing is in the way
	std::string cache;      // name of the SSD cache; "" without one
	int cacheMode = 0;      // ZEVO_FLASH_CACHE_MODE_...
	uint64_t cacheSize = 0; // bytes
	unsigned long long devices = 1; // that the volume lies on
	std::string attribute;          // the file by which the kernel is told
	bool hasAttribute = true;
};

/// Why nothing can be pinned now, what that means, and what to do; "" when it can.
std::string WhyNot(const CacheSupport &support);

/// Whether "zevotune cache check" says yes.
bool IsSupported(const CacheSupport &support);

std::string CacheSupportText(const CacheSupport &support);
Json::Value CacheSupportJson(const CacheSupport &support);

#endif
