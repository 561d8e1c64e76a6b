#include "undo.h"

#include "table.h"

#include "utils/system_access.h"

#include <algorithm>

namespace {

bool IsAsBefore(const KernelValue &value, const KeptValue &kept)
{
	return value.text && IsSameValue(kept.path, *value.text, kept.before);
}

bool IsAsBeforeNow(const KeptValue &kept)
{
	return IsAsBefore(ReadKernelValue(kept.path), kept);
}

// Of a ratio and its bytes one is 0, and comes to be so by writing the other; 0 itself is refused as a number of bytes.
bool IsClearedByOther(const KeptValues &kept, const KeptValue &value)
{
	const KeptValue *other = FindKept(kept, OtherOfPair(value.path));
	return other != nullptr && value.before == "0" && other->before != "0";
}

// Through the same doors as an application. Whether it has worked is seen by reading it.
void WriteBack(const KeptValue &value)
{
	if (!IsSysctlPath(value.path)) {
		TuneParameterWrite(value.path.c_str(), value.before.c_str(), value.before.size());
		return;
	}
	const std::string name =
		value.path.substr(sizeof("/proc/sys/") - 1); // with slashes, which sysctl takes as they are
	TuneSysctlRun((name + '=' + value.before).c_str());
}

std::string StateOf(const RestoredValue &value)
{
	if (IsRestored(value))
		return IsAsBefore(value.found, *value.kept) ? "as before already" : "restored";
	return value.now.text ? "not restored: the kernel keeps " + *value.now.text : "not restored: " + value.now.why;
}

} // namespace

std::vector<RestoredValue> Restore(const KeptValues &kept)
{
	std::vector<RestoredValue> values;
	for (const KeptValue &value : kept.values)
		values.push_back({&value, {}, {}});
	std::stable_partition(values.begin(), values.end(),
	                      [](const RestoredValue &value) { return IsSchedulerPath(value.kept->path); });
	for (RestoredValue &value : values)
		value.found = ReadKernelValue(value.kept->path);
	// Twice, as a value may be refused for as long as another one is not restored.
	for (const RestoredValue &value : values)
		if (!IsAsBeforeNow(*value.kept) && !IsClearedByOther(kept, *value.kept))
			WriteBack(*value.kept);
	for (const RestoredValue &value : values)
		if (!IsAsBeforeNow(*value.kept))
			WriteBack(*value.kept);
	for (RestoredValue &value : values)
		value.now = ReadKernelValue(value.kept->path);
	return values;
}

bool IsRestored(const RestoredValue &value)
{
	return IsAsBefore(value.now, *value.kept);
}

std::string RestorationText(const std::vector<RestoredValue> &values, const Look &look)
{
	Table table({"TARGET", "FROM", "TO", "STATE"});
	for (const RestoredValue &value : values)
		table.Add({value.kept->target, value.found.text ? *value.found.text : "-", value.kept->before,
		           Cell(StateOf(value), IsRestored(value) ? Style::kPlain : Style::kBad)});
	return table.Text(look);
}

Json::Value RestorationJson(const std::vector<RestoredValue> &values)
{
	Json::Value entries(Json::arrayValue);
	for (const RestoredValue &value : values) {
		Json::Value entry;
		entry["target"] = value.kept->target;
		entry["path"] = value.kept->path;
		entry["before"] = value.kept->before;
		entry["found"] = value.found.text ? Json::Value(*value.found.text) : Json::Value();
		entry["now"] = value.now.text ? Json::Value(*value.now.text) : Json::Value();
		entry["restored"] = IsRestored(value);
		entries.append(entry);
	}
	return entries;
}
