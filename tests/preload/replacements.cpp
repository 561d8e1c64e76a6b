#include "kit/real.h"

#include "replacements.h"

#include <zevotuned/zevotuned.h>

#include <cstdlib>

extern "C" {
__attribute__((visibility("default"))) Replacements zevotuned_test_replacements = {};
}

#define REPLACE(member, function, symbol, ...)                                     \
	do {                                                                       \
		static const auto real = kit::Real<decltype(function)>(symbol);    \
		const auto replacement = zevotuned_test_replacements.member;       \
		return (replacement != nullptr ? replacement : real)(__VA_ARGS__); \
	} while (false)

int TuneGetProfileConfig(const char *szProfile, char *szConfig, unsigned long cbConfig)
{
	REPLACE(getProfileConfig, TuneGetProfileConfig, "_Z20TuneGetProfileConfigPKcPcm", szProfile, szConfig,
	        cbConfig);
}

int TuneProfileListWithVector(std::vector<Profile> &vecProfile)
{
	REPLACE(profileListWithVector, TuneProfileListWithVector,
	        "_Z25TuneProfileListWithVectorRSt6vectorI7ProfileSaIS0_EE", vecProfile);
}

int TuneProfileList(VUNKSZLIST **ppslList)
{
	REPLACE(profileList, TuneProfileList, "_Z15TuneProfileListPP10VUNKSZLIST", ppslList);
}

int TuneApplyGlobalProfile()
{
	REPLACE(applyGlobalProfile, TuneApplyGlobalProfile, "_Z22TuneApplyGlobalProfilev");
}

int TuneApplyProfile(const char *szProfile)
{
	REPLACE(applyProfile, TuneApplyProfile, "_Z16TuneApplyProfilePKc", szProfile);
}

int TunedConfigGet(VUNKSZHASH **ppshHash)
{
	REPLACE(configGet, TunedConfigGet, "_Z14TunedConfigGetPP10VUNKSZHASH", ppshHash);
}

int TuneSetConfigProfile(const char *szProfile)
{
	REPLACE(setConfigProfile, TuneSetConfigProfile, "_Z20TuneSetConfigProfilePKc", szProfile);
}

int ZEVOGetCurrentProfile(char *szBuf, size_t cbBuf)
{
	REPLACE(getCurrentProfile, ZEVOGetCurrentProfile, "ZEVOGetCurrentProfile", szBuf, cbBuf);
}

int ZEVOSetCustomProfile(const char *szProfile)
{
	REPLACE(setCustomProfile, ZEVOSetCustomProfile, "ZEVOSetCustomProfile", szProfile);
}
