// A table as the device mapper's ioctl hands it out, of any bytes.

#include "fuzz.h"
#include "storage/device_mapper_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	// Exactly as long as it is, so that the first byte behind it is out of bounds.
	const std::string answer(reinterpret_cast<const char *>(data), size);
	const std::string_view bytes = answer;
	const auto targets = zevos::CacheTargetsInTable(bytes);
	if (!targets)
		return 0;
	for (const zevos::CacheTarget &target : *targets) {
		REQUIRE(!target.origin.empty() && !target.cache.empty());
		REQUIRE(!target.mode || *target.mode == 1 || *target.mode == 4 || *target.mode == 5);
		for (const std::string &device : {target.origin, target.cache, target.metadata}) {
			REQUIRE(device.find_first_of(" \t\n") == std::string::npos);
			REQUIRE(bytes.find(device) != std::string_view::npos);
		}
	}
	return 0;
}
