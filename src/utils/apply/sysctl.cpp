#include "utils/apply/sysctl.h"

#include "support/check.h"
#include "support/text_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/sysinfo.h>

namespace {

constexpr std::string_view kDirtyRatio = "vm.dirty_ratio";
constexpr std::string_view kDirtyBackgroundRatio = "vm.dirty_background_ratio";

using SysctlArgument = TextBuffer<1024>;

void ApplyKey(const char *szKey, const char *szValue, const SectionPlace &place)
{
	if (szKey == kDirtyRatio || szKey == kDirtyBackgroundRatio) {
		if (TuneApplySysctlVMDirty(szKey, szValue, place.profile, place.writer) != 0)
			LOG_ERROR("Failed to TuneApplySysctlVMDirty.");
	} else {
		if (TuneApplyOneSysctl(szKey, szValue, place.writer) != 0)
			LOG_ERROR("Failed to TuneApplyOneSysctl.");
	}
}

} // namespace

int TuneApplySysctlSection(const SectionPlace &place)
{
	return ApplyEachKey(place, [&place](const char *szKey, const char *szValue) {
		ApplyKey(szKey, szValue, place);
		return 0; // whether it could be set or not
	});
}

int TuneApplyOneSysctl(const char *szKey, const char *szValue, ParameterWriter &writer)
{
	CHECK_ARGUMENT(NULL != szValue);

	return writer.RunSysctl(SysctlArgument("%s=%s", szKey, szValue).c_str());
}

int TuneApplySysctlVMDirty(const char *szKey, const char *szValue, const Profile &profile, ParameterWriter &writer)
{
	CHECK_ARGUMENT(NULL != szValue);

	const auto memoryMax = profile.main_section.find("vm_memory_max");
	if (memoryMax == profile.main_section.end())
		return TuneApplyOneSysctl(szKey, szValue, writer);

	struct sysinfo info;
	if (sysinfo(&info) != 0) {
		LOG_ERROR("Failed to get system information, errno=%s", strerror(errno));
		return -1;
	}
	const unsigned long long maxBytes = strtoull(memoryMax->second.c_str(), nullptr, 10);
	// totalram counts in units of mem_unit, which is 1 on every 64-bit kernel.
	if (maxBytes >= info.totalram)
		return TuneApplyOneSysctl(szKey, szValue, writer);

	const auto ratio = static_cast<unsigned long long>(strtol(szValue, nullptr, 10));
	const unsigned long long dirtyBytes = maxBytes * ratio / 100; // wraps for sizes that no machine has
	const char *szBytesKey = szKey == kDirtyRatio ? "vm.dirty_bytes" : "vm.dirty_background_bytes";
	return writer.RunSysctl(SysctlArgument("%s=%llu", szBytesKey, dirtyBytes).c_str());
}
