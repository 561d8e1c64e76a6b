// A table as the device mapper's ioctl hands it out, of any bytes.

#include "fuzz.h"
#include "storage/device_mapper_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	// Exactly as long as it is, so that the first byte behind it is out of bounds.
	const std::string answer(reinterpret_cast<const char *>(data), size);
	const std::string_view bytes = answer;
	const auto caches = zevos::CacheDevicesInTable(bytes);
	if (!caches)
		return 0;
	for (const std::string &device : *caches) {
		REQUIRE(!device.empty() && device.find_first_of(" \t\n") == std::string::npos);
		REQUIRE(bytes.find(device) != std::string_view::npos);
	}
	return 0;
}
