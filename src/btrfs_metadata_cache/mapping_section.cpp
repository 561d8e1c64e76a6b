#include "btrfs_metadata_cache/mapping_section.h"

#include "support/log.h"

#include <vunkcore/section_file.h>

bool MappingSection::Read(Need need)
{
	if (!pairs) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return false;
	}
	if (VUNKCFileGetSection(path, name, pairs.out()) >= 0)
		return true;
	isMissing = VUNKCErrGet() == VUNKC_ERR_SECTION_MISSING;
	if (isMissing && need == Need::MayBeMissing) {
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0); // later lines must not blame it
		return true;
	}
	LOG_ERROR("Failed to get section [%s] in [%s]", name, path);
	return false;
}

bool MappingSection::Write() const
{
	const int written = isMissing ? VUNKCFileAddSection(path, name, pairs.get())
	                              : VUNKCIFileModifySection(path, name, nullptr, pairs.get(), 1, 0);
	if (written == 1)
		return true;
	LOG_ERROR("Failed to set section [%s] in [%s]", name, path);
	return false;
}
