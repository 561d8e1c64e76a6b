// Declarations of caches, of any bytes: they are either all right, or one line is named that is not.

#include "fuzz.h"
#include "storage/flash_cache_file.h"

#include <vunkcore/vunkcore.h>

#include <algorithm>
#include <set>

namespace {

/// How many sections the core library finds in the same text; -1 when it cannot be understood.
int Sections(const std::string &path)
{
	VUNKSZLIST *list = VUNKCSzListAlloc(64);
	const int count = VUNKCFileEnumSection(path.c_str(), &list);
	VUNKCSzListFree(list);
	return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	// Exactly as long as it is, so that the first byte behind it is out of bounds.
	const std::string text(reinterpret_cast<const char *>(data), size);
	const zevos::FlashCacheFile file = zevos::ParseFlashCacheFile(std::string_view(text));
	if (file.wrongLine != 0) {
		REQUIRE(file.caches.empty());
		REQUIRE(file.wrongLine > 0 && file.wrongLine <= std::count(text.begin(), text.end(), '\n') + 1);
		return 0;
	}
	REQUIRE(Sections(FuzzFile(data, size)) == static_cast<int>(file.caches.size()));
	std::set<std::string> spaces;
	for (const zevos::DeclaredCache &cache : file.caches) {
		REQUIRE(cache.volume.empty() != cache.device.empty());
		REQUIRE(cache.volume.empty() || cache.volume.front() == '/');
		REQUIRE(cache.device.empty() || cache.device.starts_with("/dev/"));
		REQUIRE(spaces.insert(cache.volume.empty() ? "device " + cache.device : "volume " + cache.volume)
		                .second);
		REQUIRE(cache.spaceLine > 0);
		REQUIRE(cache.id.size() > 4 && cache.id.starts_with("ssd_"));
		REQUIRE(cache.id.find_first_not_of("0123456789", 4) == std::string::npos);
		REQUIRE(cache.mode >= 0 && cache.mode <= 6);
		REQUIRE((cache.flags & ~0x6U) == 0);
		REQUIRE(cache.size > 0);
		REQUIRE(!cache.reference.empty() && cache.reference.size() <= 256);
	}
	return 0;
}
