#include "verification.h"

#include "catalogue_check.h"
#include "output.h"
#include "plan_output.h"
#include "table.h"

#include <algorithm>

namespace {

using State = VerifiedValue::State;

struct StateText {
	const char *forPrograms;
	const char *forPeople;
	Style style;
};

StateText TextOf(State state)
{
	switch (state) {
	case State::kHolds:
		return {"holds", "holds", Style::kGood};
	case State::kChanged:
		return {"changed", "changed since it was applied", Style::kBad};
	case State::kRefused:
		return {"refused", "refused by the kernel", Style::kBad};
	case State::kDiffers:
		return {"differs", "differs", Style::kBad};
	case State::kUnread:
		return {"unread", "cannot be read", Style::kWarning};
	case State::kUnknown:
		break;
	}
	return {"unknown", "this kernel does not have it", Style::kWarning};
}

State StateOf(const PlannedWrite &write, const KeptValues *kept)
{
	if (!write.known)
		return State::kUnknown;
	if (!write.now.text)
		return State::kUnread;
	if (!Changes(write))
		return State::kHolds;
	const KeptValue *value = kept == nullptr ? nullptr : FindKept(*kept, write.path);
	if (value == nullptr || !value->after || !value->wanted ||
	    !IsSameValue(write.path, *value->wanted, write.value))
		return State::kDiffers;
	if (IsSameValue(write.path, *value->after, *value->wanted))
		return State::kChanged;
	// What stands behind the place where an application ended was never written.
	return kept->applied ? State::kRefused : State::kDiffers;
}

size_t CountOf(const std::vector<VerifiedValue> &values, bool (*counts)(State))
{
	return static_cast<size_t>(std::count_if(values.begin(), values.end(),
	                                         [counts](const VerifiedValue &value) { return counts(value.state); }));
}

std::string Summary(const Plan &plan, const std::vector<VerifiedValue> &values)
{
	const size_t hold = CountOf(values, [](State state) { return state == State::kHolds; });
	const size_t known = CountOf(values, [](State state) { return state != State::kUnknown; });
	std::string text = Quoted(plan.profile) + ": " + std::to_string(hold) + " of " + std::to_string(known) +
	                   (known == 1 ? " value holds" : " values hold");
	if (known < values.size())
		text += ", " + std::to_string(values.size() - known) + " not known to this kernel";
	return text;
}

} // namespace

std::vector<VerifiedValue> Verify(const Plan &plan, const KeptValues *kept)
{
	if (kept != nullptr && kept->profile != plan.profile)
		kept = nullptr;
	std::vector<VerifiedValue> values;
	for (const PlaceOfWrite &place : WritesOf(plan))
		if (!place.write->overwrittenLater)
			values.push_back({StateOf(*place.write, kept), place});
	return values;
}

bool Holds(const std::vector<VerifiedValue> &values)
{
	return std::all_of(values.begin(), values.end(), [](const VerifiedValue &value) {
		return value.state == State::kHolds || value.state == State::kUnknown;
	});
}

std::string VerificationText(const Plan &plan, const std::vector<VerifiedValue> &values, const Look &look)
{
	Table table({"TARGET", "NOW", "PROFILE", "STATE", "FROM"});
	for (const VerifiedValue &value : values) {
		const PlannedWrite &write = *value.place.write;
		const StateText state = TextOf(value.state);
		table.Add({write.target, ValueText(write.now), write.value, Cell(state.forPeople, state.style),
		           value.place.section->path + ':' + std::to_string(value.place.key->line)});
	}
	return (values.empty() ? "" : table.Text(look)) + Printable(Summary(plan, values)) + '\n';
}

Json::Value VerificationJson(const Plan &plan, const std::vector<VerifiedValue> &values)
{
	Json::Value result;
	result["profile"] = plan.profile;
	result["holds"] = Holds(values);
	result["values"] = Json::Value(Json::arrayValue);
	for (const VerifiedValue &value : values) {
		const PlannedWrite &write = *value.place.write;
		Json::Value entry;
		entry["target"] = write.target;
		entry["path"] = write.path;
		entry["now"] = write.now.text ? Json::Value(*write.now.text) : Json::Value();
		entry["value"] = write.value;
		entry["state"] = TextOf(value.state).forPrograms;
		entry["file"] = value.place.section->path;
		entry["line"] = value.place.key->line;
		result["values"].append(entry);
	}
	return result;
}
