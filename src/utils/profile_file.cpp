#include "utils/profile_file.h"

#include "support/check.h"

#include <vunkcore/section_file.h>

#include <cstdlib>
#include <cstring>

namespace {

void Reset(Profile &profile)
{
	profile.name.clear();
	profile.inherit.clear();
	profile.profile_title_i18n.clear();
	profile.profile_desc_i18n.clear();
	profile.path.clear();
	profile.ui = false;
	profile.index = -1;
}

void Assign(std::string &field, const char *szValue)
{
	if (szValue != nullptr)
		field = szValue;
}

void FillFields(Profile &profile, const Hash &section)
{
	Assign(profile.name, section.Get("name"));
	Assign(profile.inherit, section.Get("inherit"));
	Assign(profile.profile_title_i18n, section.Get("profile_title_i18n"));
	Assign(profile.profile_desc_i18n, section.Get("profile_desc_i18n"));
	if (const char *szUi = section.Get("ui"))
		profile.ui = strcmp(szUi, "true") == 0;
	// A number out of range keeps the low half of what strtol saturates to: 99999999999999999999 sorts as -1.
	if (const char *szIndex = section.Get("index"))
		profile.index = static_cast<int>(strtol(szIndex, nullptr, 10));
}

} // namespace

int ReadProfileSection(const char *szPath, const char *szSection, Hash &values)
{
	if (VUNKCFileGetSection(szPath, szSection, values.out()) < 0) {
		LOG_ERROR("Failed to get section [%s] from path [%s]. ", szSection, szPath);
		return -1;
	}
	return 0;
}

int TuneLoadProfileByPath(const char *szPath, Profile &profile)
{
	CHECK_ARGUMENT(__null != szPath);

	Reset(profile);
	Hash section;
	if (!section) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	List keys;
	if (!keys) {
		LOG_ERROR_ONLY("VUNKCSzListAlloc failed");
		return -1;
	}
	if (ReadProfileSection(szPath, "main", section) != 0)
		return -1;
	FillFields(profile, section);
	if (VUNKCSzHashEnumKey(section.get(), keys.out()) < 0) {
		LOG_ERROR("Failed to get hash enum key from hash.");
		return -1;
	}
	for (int i = 0; i < keys.Count(); ++i)
		if (const char *szValue = section.Get(keys.Get(i)))
			profile.main_section[keys.Get(i)] = szValue;
	profile.path = szPath;
	return 0;
}
