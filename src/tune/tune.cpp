#include <zevotuned/tune.h>

#include "support/builtin_profiles.h"
#include "support/check.h"
#include "support/handles.h"
#include "support/text_buffer.h"

#include <zevotuned/apply.h>
#include <zevotuned/config.h>
#include <zevotuned/profile.h>

#include <cstdio>
#include <iterator>

int ZEVOSetCustomProfile(const char *szProfile)
{
	CHECK_ARGUMENT(__null != szProfile);

	ConfigPath path; // only asked for to find out whether there is such a profile
	if (TuneGetProfileConfig(szProfile, path.data(), path.capacity()) != 0) {
		LOG_ERROR("Failed to find the profile [%s].", szProfile);
		return -1;
	}
	// Recorded first: when the application fails half-way, the next ZEVORunCurrentProfile has this one to finish.
	if (TuneSetConfigProfile(szProfile) != 0) {
		LOG_ERROR("Failed to set profile [%s].", szProfile);
		return -1;
	}
	if (TuneApplyProfile(szProfile) != 0) {
		LOG_ERROR("Failed to apply profile [%s].", szProfile);
		return -1;
	}
	return 0;
}

int ZEVOSetProfile(int iProfile)
{
	CHECK_ARGUMENT(0 <= iProfile && iProfile < static_cast<int>(std::size(kBuiltinProfiles)));

	return ZEVOSetCustomProfile(kBuiltinProfiles[iProfile]);
}

int ZEVOGetCurrentProfile(char *szBuf, size_t cbBuf)
{
	CHECK_ARGUMENT(__null != szBuf);
	CHECK_ARGUMENT(0 < cbBuf);

	Hash hash;
	if (!hash) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	// The key is missing when another process has taken it out of the file that was just completed.
	const char *szProfile = TunedConfigGet(hash.out()) == 0 ? hash.Get("profile") : nullptr;
	if (szProfile == nullptr) {
		LOG_ERROR("Failed to TunedConfigGet.");
		return -1;
	}
	snprintf(szBuf, cbBuf, "%s", szProfile);
	return 0;
}

int ZEVORunCurrentProfile(void)
{
	ConfigPath profile;
	if (ZEVOGetCurrentProfile(profile.data(), profile.capacity()) != 0) {
		LOG_ERROR("Failed to get current profile.");
		return -1;
	}
	if (TuneApplyProfile(profile.c_str()) != 0) {
		LOG_ERROR("Failed to apply profile [%s].", profile.c_str());
		return -1;
	}
	return 0;
}

int ZEVOProfileList(VUNKSZLIST **ppslList)
{
	CHECK_ARGUMENT(__null != ppslList);
	CHECK_ARGUMENT(NULL != *ppslList);

	if (TuneProfileList(ppslList) != 0) {
		LOG_ERROR("Failed to TuneProfileList.");
		return -1;
	}
	return 0;
}
