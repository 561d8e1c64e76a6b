#include "utils/profile_catalogue.h"

#include "support/boundary.h"
#include "support/check.h"
#include "support/handles.h"
#include "support/text_buffer.h"
#include "utils/profile_file.h"
#include "utils/system_access.h"

#include <vunkcore/file.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kProfileDirs[] = {
	"/usr/zevo/share/zevotuned/profiles",
	"/usr/local/share/zevotuned/profiles",
};

int TuneLoadOneProfile(const char *szPath, std::vector<Profile> &vecProfile)
{
	Profile profile;
	if (TuneLoadProfileByPath(szPath, profile) != 0) {
		LOG_ERROR("Failed to TuneLoadProfileByPath [%s].", szPath);
		return -1;
	}
	vecProfile.push_back(std::move(profile));
	return 0;
}

int ListAll(std::vector<Profile> &vecProfile)
{
	if (TuneProfileListWithVector(vecProfile) != 0) {
		LOG_ERROR("Failed to TuneProfileListWithVector");
		return -1;
	}
	return 0;
}

} // namespace

int TuneProfileListByDir(const char *szDir, std::vector<Profile> &vecProfile)
{
	if (CheckDirExist(szDir) != 1)
		return 0;
	List names;
	if (!names) {
		LOG_ERROR("Failed to VUNKCSzListAlloc");
		return -1;
	}
	if (VUNKCFileEnumDir(szDir, nullptr, names.out(), VUNKC_ENUM_REGULAR) < 0) {
		LOG_ERROR("Failed to VUNKCFileEnumDir [%s]", szDir);
		return -1;
	}
	for (int i = 0; i < names.Count(); ++i) {
		const ConfigPath path("%s/%s", szDir, names.Get(i));
		if (TuneLoadOneProfile(path.c_str(), vecProfile) != 0) {
			LOG_ERROR("Failed to TuneLoadOneProfile [%s]", path.c_str());
			return -1;
		}
	}
	return 0;
}

int TuneProfileListWithVector(std::vector<Profile> &vecProfile)
try {
	for (const char *szDir : kProfileDirs) {
		if (TuneProfileListByDir(szDir, vecProfile) != 0) {
			LOG_ERROR("Failed to TuneProfileListByDir [%s]", szDir);
			return -1;
		}
	}
	std::sort(vecProfile.begin(), vecProfile.end(), SortProfile());
	return 0;
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}

int TuneGetProfileConfig(const char *szProfile, char *szConfig, unsigned long cbConfig)
try {
	CHECK_ARGUMENT(__null != szProfile);
	CHECK_ARGUMENT(__null != szConfig);
	CHECK_ARGUMENT(0 < cbConfig);

	std::vector<Profile> profiles;
	if (ListAll(profiles) != 0)
		return -1;
	const auto found = std::find_if(profiles.begin(), profiles.end(), [szProfile](const Profile &profile) {
		return strcmp(profile.name.c_str(), szProfile) == 0;
	});
	if (found == profiles.end())
		return -1;
	snprintf(szConfig, cbConfig, "%s", found->path.c_str());
	return 0;
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}

int TuneProfileList(VUNKSZLIST **ppslList)
try {
	CHECK_ARGUMENT(__null != ppslList);
	CHECK_ARGUMENT(NULL != *ppslList);

	std::vector<Profile> profiles;
	if (ListAll(profiles) != 0)
		return -1;
	for (const Profile &profile : profiles)
		VUNKCSzListPush(ppslList, profile.name.c_str());
	return 0;
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}
