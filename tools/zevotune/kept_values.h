#ifndef ZEVOTUNE_KEPT_VALUES_H
#define ZEVOTUNE_KEPT_VALUES_H

// What "set" and "apply" keep of the values that they overwrite, for "undo" and "verify". It is one file below /run, so a
// boot, which undoes everything anyway, takes it away.

#include "plan.h"

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

struct KeptValue {
	std::string target;
	std::string path;
	std::string before;
	std::optional<std::string> wanted; // nothing: it was only changed along with another one
	std::optional<std::string> after;  // what was read back; nothing when the application has not ended

	bool operator==(const KeptValue &) const = default;
};

struct KeptValues {
	std::string profile;
	std::string selectedBefore; // the profile that was selected then
	std::vector<KeptValue> values;
	bool applied = false; // the application has come to its end, having written all that it wanted to

	bool operator==(const KeptValues &) const = default;
};

/// What a plan is about to overwrite, as it is now. Along with a scheduler go its queue's length and the tunables of the one
/// before it, along with a tunable the others of its scheduler, and along with a ratio its bytes.
KeptValues ValuesToKeep(const Plan &plan, const std::string &selectedNow);

/// Of a profile that is applied again, what was there before it was applied for the first time: unless somebody else has
/// changed a value since.
void KeepOlderValues(KeptValues &kept, const KeptValues &older);

/// Fills in what was read back, and whether the application came to its end.
void ReadBack(KeptValues &kept, bool applied);

const KeptValue *FindKept(const KeptValues &kept, const std::string &path);

Json::Value ToJson(const KeptValues &kept);

/// Nothing when the value is none that ToJson made.
std::optional<KeptValues> KeptFromJson(const Json::Value &value);

#endif
