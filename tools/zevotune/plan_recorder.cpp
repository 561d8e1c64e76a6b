#include "plan_recorder.h"

#include "error_text.h"
#include "metadata_size.h"
#include "scheduler_tunables.h"

#include "utils/apply/driver.h"
#include "utils/apply/section.h"

#include <vunkcore/error.h>
#include <vunkcore/file.h>
#include <vunkcore/model.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>

#include <sys/sysinfo.h>
#include <syslog.h>

namespace {

// The only failure of an application that leaves no error.
constexpr const char *kNoArray = "there is no RAID array, although " VUNKC_MODEL_FILE
				 " says \"support_raid = yes\"; assemble one, or correct that file";

std::string Text(const char *szText)
{
	return szText == nullptr ? "" : szText;
}

// The tunables of a scheduler that no disk need have yet: as this kernel has them, if a disk shows them, or as known.
std::optional<std::set<std::string>> FindTunables(const std::string &scheduler)
{
	namespace fs = std::filesystem;
	std::error_code error;
	for (const fs::directory_entry &disk : fs::directory_iterator("/sys/block", error)) {
		if (ReadKernelValue(disk.path() / "queue/scheduler").text != scheduler)
			continue;
		std::set<std::string> tunables;
		for (const fs::directory_entry &file : fs::directory_iterator(disk.path() / "queue/iosched", error))
			tunables.insert(file.path().filename());
		return tunables;
	}
	if (KnownSchedulers().contains(scheduler))
		return TunablesOf(scheduler);
	return std::nullopt;
}

// While it lives, nothing goes to the log: what a plan meets has not happened.
class Unlogged {
public:
	Unlogged() : mask(setlogmask(LOG_UPTO(LOG_EMERG))) {}
	~Unlogged() { setlogmask(mask); }
	Unlogged(const Unlogged &) = delete;
	Unlogged &operator=(const Unlogged &) = delete;

private:
	int mask;
};

} // namespace

int PlanRecorder::ApplyProfile(const char *szProfile)
{
	++inherited;
	const int result = ::ApplyProfile(szProfile, *this);
	--inherited;
	return result;
}

int PlanRecorder::ApplyGlobalProfiles()
{
	inGlobal = true;
	const int result = ::ApplyGlobalProfiles(*this);
	inGlobal = false;
	return result;
}

int PlanRecorder::RunSysctl(const char *szSysctl)
{
	const std::string_view argument = szSysctl;
	const size_t sign = argument.find('=');
	const std::string parameter(argument.substr(0, sign));
	const std::string value(sign == std::string_view::npos ? "" : argument.substr(sign + 1));
	const std::string note = parameter == Key().key ? "" : NoteOnRatio();
	PlannedWrite &write = Add(parameter, SysctlPath(parameter), value);
	write.note = note;
	write.known = VUNKCFileExist(write.path.c_str()) != 0;
	return 0; // what the kernel refuses is passed over
}

int PlanRecorder::WriteParameter(const char *szPath, const char *szValue, unsigned long cbValue)
{
	const std::string path = szPath;
	const std::string value(szValue, cbValue);
	if (IsSchedulerPath(path)) {
		if (Add(path, path, value).now.text != value) {
			MarkTunablesOverwritten(path);
			selected[path] = value;
		} else {
			selected.erase(path);
		}
		return RequireAttribute(path);
	}
	const auto scheduler = selected.find(SchedulerPathOf(path));
	if (scheduler == selected.end()) {
		Add(path, path, value);
		return RequireAttribute(path);
	}
	Add(path, path, value).now = {std::nullopt, "it comes with " + scheduler->second};
	return 0;
}

int PlanRecorder::WriteThreadLimit(const char *szPath, int nThreadMax)
{
	const std::string value = std::to_string(nThreadMax);
	const std::string processors =
		std::to_string(get_nprocs()) + (get_nprocs() == 1 ? " processor" : " processors");
	PlannedWrite &write = Add(szPath, szPath, value);
	if (Key().value == "auto")
		write.note = "one thread for eight of " + processors;
	else if (!IsSameValue(szPath, Key().value, value))
		write.note = Key().value + ", but not more than the " + processors;
	return RequireAttribute(szPath);
}

bool PlanRecorder::HasTunable(const char *szPath)
{
	const auto scheduler = selected.find(SchedulerPathOf(szPath));
	if (scheduler == selected.end())
		return VUNKCFileExist(szPath) != 0;
	const auto tunables = FindTunables(scheduler->second);
	if (!tunables)
		unknownTunables = scheduler->second;
	return tunables && tunables->contains(std::filesystem::path(szPath).filename());
}

void PlanRecorder::OnSection(const SectionPlace &place)
{
	const ProfileRole role = inGlobal         ? ProfileRole::kGlobal
	                         : inherited == 0 ? ProfileRole::kSelected
	                                          : ProfileRole::kInherited;
	const auto found = place.profile.main_section.find("vm_memory_max");
	memoryMax = found == place.profile.main_section.end() ? "" : found->second;
	plan.sections.push_back({role,
	                         place.profile.name,
	                         place.szPath,
	                         place.szSection,
	                         LineOf(TextOf(place.szPath), place.szSection),
	                         {},
	                         {}});
}

void PlanRecorder::OnKey(const char *szKey, const char *szValue)
{
	PlannedSection &section = plan.sections.back();
	const std::string key = Text(szKey);
	section.keys.push_back({key, Text(szValue), LineOf(TextOf(section.path), section.section, key), {}, {}});
}

void PlanRecorder::OnPassedOver(const char *szWhat, const char *szWhy)
{
	PlannedSection &section = plan.sections.back();
	PassedOver passedOver = {Text(szWhat), szWhy};
	if (!unknownTunables.empty())
		passedOver.why = "its disk gets " + unknownTunables + ", whose tunables are only known then";
	unknownTunables.clear();
	(section.keys.empty() ? section.passedOver : section.keys.back().passedOver).push_back(passedOver);
}

PlannedWrite &PlanRecorder::Add(const std::string &target, const std::string &path, const std::string &value)
{
	MarkOverwritten(path);
	MarkOverwritten(OtherOfPair(path));
	PlannedWrite write;
	write.target = target;
	write.path = path;
	write.value = value;
	write.now = ReadKernelValue(path);
	return Key().writes.emplace_back(std::move(write));
}

int PlanRecorder::RequireAttribute(const std::string &path)
{
	if (VUNKCFileExist(path.c_str()))
		return 0;
	Key().writes.back().known = false;
	plan.failure = "this kernel has no " + path;
	return -1;
}

void PlanRecorder::MarkOverwritten(const std::string &path)
{
	for (PlannedSection &section : plan.sections)
		for (PlannedKey &key : section.keys)
			for (PlannedWrite &write : key.writes)
				if (write.path == path)
					write.overwrittenLater = true;
}

void PlanRecorder::MarkTunablesOverwritten(const std::string &schedulerPath)
{
	for (PlannedSection &section : plan.sections)
		for (PlannedKey &key : section.keys)
			for (PlannedWrite &write : key.writes)
				if (SchedulerPathOf(write.path) == schedulerPath)
					write.overwrittenLater = true;
}

std::string PlanRecorder::NoteOnRatio() const
{
	struct sysinfo info {};
	sysinfo(&info);
	const std::string maximum = SizeText(strtoull(memoryMax.c_str(), nullptr, 10));
	return std::to_string(strtol(Key().value.c_str(), nullptr, 10)) + "% of vm_memory_max (" + maximum +
	       "), as there are " + SizeText(info.totalram) + " of memory";
}

const ProfileText &PlanRecorder::TextOf(const std::string &path)
{
	const auto found = texts.find(path);
	return found != texts.end() ? found->second : texts.emplace(path, ReadProfileText(path)).first->second;
}

Plan MakePlan(const std::string &profile)
{
	const Unlogged unlogged;
	Plan plan;
	plan.profile = profile;
	PlanRecorder recorder(plan);
	ForgetErrors();
	if (recorder.ApplyProfile(profile.c_str()) != 0 && plan.failure.empty())
		plan.failure = VUNKCErrGet() == VUNKC_ERR_NONE && VUNKCSupportRAID() != 0 ? kNoArray : ErrorText();
	return plan;
}
