#include "utils/apply/section.h"

#include "support/log.h"
#include "utils/profile_file.h"

int Section::Read(const SectionPlace &place)
{
	if (!values) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (!keys) {
		LOG_ERROR("Failed to VUNKCSzListAlloc");
		return -1;
	}
	if (ReadProfileSection(place.szPath, place.szSection, values) != 0)
		return -1;
	if (VUNKCSzHashEnumKey(values.get(), keys.out()) < 0) {
		LOG_ERROR_ONLY("Failed to enum hash key");
		return -1;
	}
	return 0;
}
