#include "utils/apply/driver.h"

#include "support/boundary.h"
#include "support/check.h"
#include "support/text_buffer.h"
#include "utils/apply/disk.h"
#include "utils/apply/raid.h"
#include "utils/apply/section.h"
#include "utils/apply/sysctl.h"
#include "utils/apply/volume.h"
#include "utils/profile_catalogue.h"
#include "utils/profile_file.h"

#include <vunkcore/section_file.h>

#include <string_view>

namespace {

constexpr const char *kGlobalDirs[] = {
	"/usr/zevo/share/zevotuned/global",
	"/usr/local/share/zevotuned/global",
};

// [main]: applies the profile that this one inherits from. Its globals are applied again, and nothing keeps profiles
// from inheriting in a circle; apply.h tells callers so.
int ApplyMain(const SectionPlace &place)
{
	Hash values;
	if (!values) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (ReadProfileSection(place.szPath, place.szSection, values) != 0)
		return -1;
	const char *szInherit = values.Get("inherit");
	if (szInherit != nullptr && place.writer.ApplyProfile(szInherit) != 0) {
		LOG_ERROR("Failed to apply inherit profile [%s].", szInherit);
		return -1;
	}
	return 0;
}

enum class Match { Exact, Prefix };

struct SectionHandler {
	std::string_view name;
	Match match;
	int (*apply)(const SectionPlace &place);
	void (*logFailure)(const char *szPath);
};

constexpr SectionHandler kHandlers[] = {
	{"main", Match::Exact, ApplyMain,
         [](const char *szPath) { LOG_ERROR("Failed to Apply Profile [%s] Main", szPath); }},
	{"volume", Match::Exact, TuneApplyVolumeSection,
         [](const char *szPath) { LOG_ERROR("Failed to Apply Profile [%s] Volume", szPath); }},
	{"sysctl", Match::Exact, TuneApplySysctlSection,
         [](const char *szPath) { LOG_ERROR("Failed to Apply Profile [%s] Sysctl", szPath); }},
	// The handler knows which of these names stand for levels.
	{"raid_cfq", Match::Prefix, TuneApplyRaidSection,
         [](const char *szPath) { LOG_ERROR("Failed to Apply Profile [%s] Raid", szPath); }},
	{"disk", Match::Exact, TuneApplyDiskSection,
         [](const char *szPath) { LOG_ERROR("Failed to Apply Profile [%s] Disk", szPath); }},
};

bool IsFor(const SectionHandler &handler, std::string_view section)
{
	return handler.match == Match::Prefix ? section.starts_with(handler.name) : section == handler.name;
}

int ApplySection(const SectionPlace &place)
{
	place.writer.OnSection(place);
	for (const SectionHandler &handler : kHandlers) {
		if (!IsFor(handler, place.szSection))
			continue;
		if (handler.apply(place) != 0) {
			handler.logFailure(place.szPath);
			return -1;
		}
		return 0;
	}
	place.writer.OnPassedOver(place.szSection, "no section of this name is known");
	return 0;
}

int ListGlobalProfiles(std::vector<Profile> &vecProfile)
{
	for (const char *szDir : kGlobalDirs) {
		if (TuneProfileListByDir(szDir, vecProfile) != 0) {
			LOG_ERROR("Failed to TuneProfileListByDir [%s]", szDir);
			return -1;
		}
	}
	return 0;
}

} // namespace

int TuneApplyProfile(const char *szProfile)
try {
	KernelWriter kernel;
	return ApplyProfile(szProfile, kernel);
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}

int TuneApplyGlobalProfile()
try {
	KernelWriter kernel;
	return ApplyGlobalProfiles(kernel);
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}

int ApplyProfile(const char *szProfile, ParameterWriter &writer)
{
	CHECK_ARGUMENT(__null != szProfile);

	ConfigPath path;
	if (TuneGetProfileConfig(szProfile, path.data(), path.capacity()) != 0) {
		LOG_ERROR("Failed to find the profile [%s].", szProfile);
		return -1;
	}
	if (writer.ApplyGlobalProfiles() != 0) {
		LOG_ERROR("Failed to TuneApplyGlobalProfile.");
		return -1;
	}
	if (TuneApplyProfileByPath(path.c_str(), writer) != 0) {
		LOG_ERROR("Failed to TuneApplyProfileByPath [%s].", path.c_str());
		return -1;
	}
	return 0;
}

int ApplyGlobalProfiles(ParameterWriter &writer)
{
	std::vector<Profile> profiles;
	if (ListGlobalProfiles(profiles) != 0) {
		LOG_ERROR("Failed to TuneGlobalProfileListWithVector");
		return -1;
	}
	for (const Profile &profile : profiles) {
		if (TuneApplyProfileByPath(profile.path.c_str(), writer) != 0) {
			LOG_ERROR("Failed to TuneApplyProfileByPath [%s].", profile.path.c_str());
			return -1;
		}
	}
	return 0;
}

int TuneApplyProfileByPath(const char *szProfilePath, ParameterWriter &writer)
{
	CHECK_ARGUMENT(__null != szProfilePath);

	List sections;
	if (!sections) {
		LOG_ERROR("Failed to VUNKCSzListAlloc");
		return -1;
	}
	Profile profile;
	if (TuneLoadProfileByPath(szProfilePath, profile) != 0) {
		LOG_ERROR("Failed to TuneLoadProfileByPath [%s].", szProfilePath);
		return -1;
	}
	if (VUNKCFileEnumSection(szProfilePath, sections.out()) < 0) {
		LOG_ERROR("Failed to VUNKCFileEnumSection");
		return -1;
	}
	for (int i = 0; i < sections.Count(); ++i)
		if (ApplySection({szProfilePath, sections.Get(i), profile, writer}) != 0)
			return -1;
	return 0;
}
