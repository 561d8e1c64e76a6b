#ifndef PLATFORM_STORAGE_FLASH_CACHE_FILE_H
#define PLATFORM_STORAGE_FLASH_CACHE_FILE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevos {

/// A cache that ZEVO_FLASH_CACHE_FILE declares (flash_cache.h says how).
struct DeclaredCache {
	std::string volume; // or "", and
	std::string device;
	int spaceLine = 0; // where the file says one of the two
	std::string id;
	int mode = 0;
	unsigned flags = 0;
	unsigned long long size = 0;
	std::string reference;
};

struct FlashCacheFile {
	std::vector<DeclaredCache> caches;
	int wrongLine = 0; // the first that is wrong, which leaves no caches; 0 for none
};

FlashCacheFile ParseFlashCacheFile(std::string_view text);

/// What the file declares for the space with this volume and these devices, of which the second may be "". Throws
/// KernelFailure.
std::optional<DeclaredCache> FindDeclaredCache(std::string_view volume, std::string_view device,
                                               std::string_view altDevice);

} // namespace zevos

#endif
