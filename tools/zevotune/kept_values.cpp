#include "kept_values.h"

#include <algorithm>
#include <filesystem>

namespace {

constexpr int kVersion = 1;

bool Has(const KeptValues &kept, const std::string &path)
{
	return FindKept(kept, path) != nullptr;
}

// Nothing but the kernel's files is ever written to, whatever a file says.
bool IsOfKernel(const std::string &path)
{
	const bool known = path.starts_with("/proc/sys/") || path.starts_with("/sys/");
	return known && path.find("/../") == std::string::npos;
}

void Keep(KeptValues &kept, const std::string &target, const std::string &path, std::optional<std::string> wanted)
{
	if (!IsOfKernel(path))
		return;
	const KernelValue now = ReadKernelValue(path);
	if (now.text && !Has(kept, path))
		kept.values.push_back({target, path, *now.text, std::move(wanted), std::nullopt});
}

// All tunables of a disk's scheduler: one of them may change others, and a scheduler takes its own with it.
void KeepTunables(KeptValues &kept, const std::string &schedulerPath)
{
	namespace fs = std::filesystem;
	std::vector<std::string> paths;
	std::error_code error;
	for (const fs::directory_entry &file :
	     fs::directory_iterator(fs::path(schedulerPath).parent_path() / "iosched", error))
		paths.push_back(file.path());
	std::sort(paths.begin(), paths.end());
	for (const std::string &path : paths)
		Keep(kept, path, path, std::nullopt);
}

// Every scheduler begins with its own length of the queue, from which some derive tunables.
void KeepQueueLength(KeptValues &kept, const std::string &schedulerPath)
{
	const std::string path = std::filesystem::path(schedulerPath).parent_path() / "nr_requests";
	Keep(kept, path, path, std::nullopt);
}

std::optional<std::string> TextOf(const Json::Value &value)
{
	return value.isString() ? std::optional(value.asString()) : std::nullopt;
}

Json::Value ToJson(const std::optional<std::string> &text)
{
	return text ? Json::Value(*text) : Json::Value();
}

bool IsTextOrNull(const Json::Value &value)
{
	return value.isString() || value.isNull();
}

} // namespace

KeptValues ValuesToKeep(const Plan &plan, const std::string &selectedNow)
{
	KeptValues kept{plan.profile, selectedNow, {}, false};
	for (const PlaceOfWrite &place : WritesOf(plan)) {
		const PlannedWrite &write = *place.write;
		if (!write.known)
			continue;
		Keep(kept, write.target, write.path, std::nullopt);
		if (const std::string other = OtherOfPair(write.path); IsSysctlPath(other))
			Keep(kept, SysctlName(other), other, std::nullopt);
		if (IsSchedulerPath(write.path) && Changes(write)) {
			KeepQueueLength(kept, write.path);
			KeepTunables(kept, write.path);
		}
		if (const std::string scheduler = SchedulerPathOf(write.path); !scheduler.empty())
			KeepTunables(kept, scheduler);
		if (write.overwrittenLater)
			continue;
		for (KeptValue &value : kept.values)
			if (value.path == write.path)
				value.wanted = write.value;
	}
	return kept;
}

void KeepOlderValues(KeptValues &kept, const KeptValues &older)
{
	if (kept.profile != older.profile)
		return;
	kept.selectedBefore = older.selectedBefore;
	for (KeptValue &value : kept.values) {
		const KeptValue *old = FindKept(older, value.path);
		if (old != nullptr && (!old->after || IsSameValue(value.path, *old->after, value.before)))
			value.before = old->before;
	}
	// Tunables that came with a scheduler will go with it.
	std::erase_if(kept.values, [&](const KeptValue &value) {
		const KeptValue *scheduler = FindKept(older, SchedulerPathOf(value.path));
		return scheduler != nullptr && scheduler->before != scheduler->after && !Has(older, value.path);
	});
	// What is gone from the profile, or went with a scheduler, is still to be restored.
	for (const KeptValue &old : older.values)
		if (!Has(kept, old.path))
			kept.values.push_back({old.target, old.path, old.before, std::nullopt, old.after});
}

void ReadBack(KeptValues &kept, bool applied)
{
	kept.applied = applied;
	for (KeptValue &value : kept.values)
		value.after = ReadKernelValue(value.path).text;
	// Tunables that were kept because another one of their scheduler might have changed them, and has not.
	std::erase_if(kept.values, [&kept](const KeptValue &value) {
		const std::string scheduler = SchedulerPathOf(value.path);
		return !scheduler.empty() && !Has(kept, scheduler) && !value.wanted && value.after == value.before;
	});
}

const KeptValue *FindKept(const KeptValues &kept, const std::string &path)
{
	const auto found = std::find_if(kept.values.begin(), kept.values.end(),
	                                [&path](const KeptValue &value) { return value.path == path; });
	return found == kept.values.end() ? nullptr : &*found;
}

Json::Value ToJson(const KeptValues &kept)
{
	Json::Value result;
	result["version"] = kVersion;
	result["profile"] = kept.profile;
	result["selected_before"] = kept.selectedBefore;
	result["applied"] = kept.applied;
	result["values"] = Json::Value(Json::arrayValue);
	for (const KeptValue &value : kept.values) {
		Json::Value entry;
		entry["target"] = value.target;
		entry["path"] = value.path;
		entry["before"] = value.before;
		entry["wanted"] = ToJson(value.wanted);
		entry["after"] = ToJson(value.after);
		result["values"].append(entry);
	}
	return result;
}

std::optional<KeptValues> KeptFromJson(const Json::Value &value)
{
	if (!value.isObject() || value["version"] != kVersion || !value["profile"].isString() ||
	    !value["selected_before"].isString() || !value["applied"].isBool() || !value["values"].isArray())
		return std::nullopt;
	KeptValues kept{
		value["profile"].asString(), value["selected_before"].asString(), {}, value["applied"].asBool()};
	for (const Json::Value &entry : value["values"]) {
		if (!entry.isObject() || !entry["target"].isString() || !entry["path"].isString() ||
		    !entry["before"].isString() || !IsTextOrNull(entry["wanted"]) || !IsTextOrNull(entry["after"]) ||
		    !IsOfKernel(entry["path"].asString()))
			return std::nullopt;
		kept.values.push_back({entry["target"].asString(), entry["path"].asString(), entry["before"].asString(),
		                       TextOf(entry["wanted"]), TextOf(entry["after"])});
	}
	return kept;
}
