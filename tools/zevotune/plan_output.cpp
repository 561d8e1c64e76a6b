#include "plan_output.h"

#include "catalogue_check.h"
#include "output.h"
#include "table.h"

#include <algorithm>

namespace {

const char *NameOf(ProfileRole role)
{
	switch (role) {
	case ProfileRole::kGlobal:
		return "global";
	case ProfileRole::kInherited:
		return "inherited";
	case ProfileRole::kSelected:
		break;
	}
	return "selected";
}

std::string FileTitle(const PlannedSection &section)
{
	const std::string kind = section.role == ProfileRole::kSelected ? "" : std::string(NameOf(section.role)) + ' ';
	return kind + "profile " + Quoted(section.profile) + ", " + section.path;
}

std::string LineText(int line)
{
	return line == 0 ? "" : std::to_string(line);
}

std::string NoteOf(const PlannedWrite &write)
{
	std::string note = write.note;
	const auto add = [&note](const std::string &text) { note += (note.empty() ? "" : "; ") + text; };
	if (!write.known)
		add("this kernel does not have it");
	else if (write.overwrittenLater)
		add("overwritten below");
	else if (const std::string other = OtherOfPair(write.path); !other.empty() && Changes(write))
		add(IsSysctlPath(other) ? "makes " + SysctlName(other) + " 0"
		                        : "changes " + other.substr(other.rfind('/') + 1) + ", too");
	return note;
}

void AddWrite(Table &table, const PlannedKey &key, const PlannedWrite &write)
{
	const bool stays = write.known && !Changes(write);
	const Style style = !write.known                      ? Style::kWarning
	                    : stays || write.overwrittenLater ? Style::kQuiet
	                                                      : Style::kGood;
	table.Add({LineText(key.line), "  " + write.target, ValueText(write.now),
	           Cell(stays ? "as now" : write.value, style),
	           Cell(NoteOf(write), write.known ? Style::kPlain : Style::kWarning)});
}

// Keys of a section leave the same things alone for the same reason: told once for all of them.
struct PassedOverByKeys {
	PassedOver what;
	std::vector<std::string> keys;
};

std::vector<PassedOverByKeys> PassedOverOf(const PlannedSection &section)
{
	std::vector<PassedOverByKeys> all;
	const auto add = [&all](const PassedOver &one, const std::string &key) {
		const auto found = std::find_if(all.begin(), all.end(), [&one](const PassedOverByKeys &entry) {
			return entry.what.what == one.what && entry.what.why == one.why;
		});
		if (found == all.end())
			all.push_back({one, {key}});
		else if (found->keys.back() != key)
			found->keys.push_back(key);
	};
	for (const PassedOver &one : section.passedOver)
		add(one, "");
	for (const PlannedKey &key : section.keys)
		for (const PassedOver &one : key.passedOver)
			add(one, key.key);
	return all;
}

std::string Joined(const std::vector<std::string> &words)
{
	std::string text;
	for (const std::string &word : words)
		text += (text.empty() ? "" : ", ") + word;
	return text;
}

void AddSection(Table &table, const PlannedSection &section)
{
	table.AddLine(" [" + section.section + "]");
	for (const PlannedKey &key : section.keys)
		for (const PlannedWrite &write : key.writes)
			AddWrite(table, key, write);
	const std::vector<PassedOverByKeys> passedOver = PassedOverOf(section);
	const bool writes = std::any_of(section.keys.begin(), section.keys.end(),
	                                [](const PlannedKey &key) { return !key.writes.empty(); });
	if (!writes && passedOver.empty())
		table.AddLine("       nothing on this machine", Style::kQuiet);
	for (const PassedOverByKeys &one : passedOver) {
		const bool all = one.keys.front().empty() || one.keys.size() == section.keys.size() ||
		                 one.keys.front() == one.what.what;
		table.AddLine("       not " + (all ? "" : Joined(one.keys) + " of ") + one.what.what + ": " +
		                      one.what.why,
		              Style::kQuiet);
	}
}

std::string Count(size_t count, const char *one, const char *many)
{
	return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

std::string Summary(const Plan &plan)
{
	size_t change = 0;
	size_t stay = 0;
	size_t later = 0;
	size_t unknown = 0;
	for (const PlaceOfWrite &place : WritesOf(plan))
		++(!place.write->known             ? unknown
		   : place.write->overwrittenLater ? later
		   : Changes(*place.write)         ? change
		                                   : stay);
	std::string text = Count(change, "value", "values") + " would change";
	if (stay > 0)
		text += ", " + std::to_string(stay) + " would stay as " + (stay == 1 ? "it is" : "they are");
	if (later > 0)
		text += ", " + std::to_string(later) + " would be overwritten on the way";
	if (unknown > 0)
		text += ", " + std::to_string(unknown) + (unknown == 1 ? " is" : " are") + " not known to this kernel";
	return text;
}

Json::Value ToJson(const PlannedWrite &write)
{
	Json::Value entry;
	entry["target"] = write.target;
	entry["path"] = write.path;
	entry["now"] = write.now.text ? Json::Value(*write.now.text) : Json::Value();
	entry["now_unknown"] = TextOrNull(write.now.why);
	entry["value"] = write.value;
	entry["changes"] = Changes(write);
	entry["known"] = write.known;
	entry["overwritten_later"] = write.overwrittenLater;
	entry["note"] = TextOrNull(write.note);
	return entry;
}

Json::Value ToJson(const std::vector<PassedOver> &passedOver)
{
	Json::Value entries(Json::arrayValue);
	for (const PassedOver &one : passedOver) {
		Json::Value entry;
		entry["what"] = one.what;
		entry["why"] = one.why;
		entries.append(entry);
	}
	return entries;
}

Json::Value ToJson(const PlannedKey &key)
{
	Json::Value entry;
	entry["key"] = key.key;
	entry["value"] = key.value;
	entry["line"] = key.line;
	entry["writes"] = Json::Value(Json::arrayValue);
	for (const PlannedWrite &write : key.writes)
		entry["writes"].append(ToJson(write));
	entry["passed_over"] = ToJson(key.passedOver);
	return entry;
}

} // namespace

std::string ValueText(const KernelValue &value)
{
	return value.text ? *value.text : '(' + value.why + ')';
}

std::string PlanText(const Plan &plan, const Look &look)
{
	Table table({"LINE", "  TARGET", "NOW", "TO COME", "NOTE"});
	const PlannedSection *before = nullptr;
	for (const PlannedSection &section : plan.sections) {
		const bool isOfMain = section.section == "main" && section.passedOver.empty();
		if (before == nullptr || before->path != section.path || before->role != section.role)
			table.AddLine(FileTitle(section));
		before = &section;
		if (!isOfMain)
			AddSection(table, section);
	}
	return table.Text(look) + Summary(plan) + '\n';
}

Json::Value PlanJson(const Plan &plan)
{
	Json::Value result;
	result["profile"] = plan.profile;
	result["failure"] = TextOrNull(plan.failure);
	result["sections"] = Json::Value(Json::arrayValue);
	for (const PlannedSection &section : plan.sections) {
		Json::Value entry;
		entry["role"] = NameOf(section.role);
		entry["profile"] = section.profile;
		entry["path"] = section.path;
		entry["section"] = section.section;
		entry["line"] = section.line;
		entry["keys"] = Json::Value(Json::arrayValue);
		for (const PlannedKey &key : section.keys)
			entry["keys"].append(ToJson(key));
		entry["passed_over"] = ToJson(section.passedOver);
		result["sections"].append(entry);
	}
	return result;
}
