#include "commands.h"

#include "application.h"
#include "catalogue.h"
#include "config_access.h"
#include "error_text.h"
#include "failure.h"
#include "kept_file.h"
#include "output.h"
#include "paths.h"
#include "plan_output.h"
#include "plan_recorder.h"
#include "terminal.h"
#include "undo.h"
#include "verification.h"

#include <zevotuned/config.h>
#include <zevotuned/tune.h>

#include <algorithm>

namespace {

constexpr const char *kSeeLog = " (the whole chain is in the system's log: journalctl -t zevotune)";
constexpr const char *kInPart = "perhaps applied in part; \"sudo zevotune undo\" restores what was";

void PrintApplied(const Profile &profile, const char *what, bool json)
{
	if (json) {
		Json::Value result;
		result["profile"] = profile.name;
		result["path"] = profile.path;
		PrintJson(result);
	} else {
		PrintLine(std::string(what) + ' ' + Printable(profile.name) + " (" + Printable(profile.path) + ")");
	}
}

const Profile &RequireSelected(const Catalogue &catalogue, const std::string &name)
{
	if (const Profile *profile = FindProfile(catalogue, name))
		return *profile;
	throw Failure("the selected profile " + Quoted(name) + " (in " + kConfigFile + ") is not installed" +
	              DidYouMean(name, NamesOf(catalogue), "") + " (\"sudo zevotune set NAME\" selects another one)");
}

// Nothing when others have selected another one since.
bool SelectAgain(const KeptValues &kept)
{
	if (kept.selectedBefore == kept.profile || SelectedProfile() != kept.profile)
		return false;
	ForgetErrors();
	if (TuneSetConfigProfile(kept.selectedBefore.c_str()) != 0)
		throw Failure("cannot select " + Quoted(kept.selectedBefore) + " again: " + ErrorText());
	return true;
}

std::string UndoneText(const KeptValues &kept, bool selectedAgain, size_t faults)
{
	const std::string text =
		(faults == 0 ? "undone: " : "undone in part: ") + ("the application of " + Quoted(kept.profile));
	return selectedAgain ? text + "; " + Quoted(kept.selectedBefore) + " is selected again" : text;
}

// Others than root cannot look at it, and it only says why a value does not hold.
std::optional<KeptValues> KeptIfReadable()
{
	if (!IsRoot())
		return std::nullopt;
	try {
		return LoadKept();
	} catch (const Failure &failure) {
		Complain(failure.what());
		return std::nullopt;
	}
}

} // namespace

void Set(const std::string &name, bool json)
{
	RequireRoot("set");
	const Catalogue catalogue = ReadCatalogue();
	const Profile &profile = RequireProfile(catalogue, name);
	RequireSoundInheritance(catalogue, profile);

	const std::string reason = ApplyKeeping(
		name, [](const std::string &profileName) { return ZEVOSetCustomProfile(profileName.c_str()); });
	if (!reason.empty()) {
		const bool recorded = SelectedProfileIfReadable() == name;
		const std::string state =
			recorded ? std::string("; it is selected, but ") + kInPart : "; it is not selected";
		throw Failure("cannot set " + Quoted(name) + ": " + reason + state + kSeeLog);
	}
	PrintApplied(profile, "selected and applied", json);
}

void Apply(bool json)
{
	RequireRoot("apply");
	const std::string name = *FindValue(ReadConfig(), "profile");
	const Catalogue catalogue = ReadCatalogue();
	const Profile &profile = RequireSelected(catalogue, name);
	RequireSoundInheritance(catalogue, profile);

	const std::string reason = ApplyKeeping(name, [](const std::string &) { return ZEVORunCurrentProfile(); });
	if (!reason.empty())
		throw Failure("cannot apply " + Quoted(name) + ": " + reason + "; it is " + kInPart + kSeeLog);
	PrintApplied(profile, "applied", json);
}

void ShowPlan(const std::string &name, bool json)
{
	const Catalogue catalogue = ReadCatalogue();
	RequireSoundInheritance(catalogue, RequireProfile(catalogue, name));
	const Plan plan = MakePlan(name);
	if (json)
		PrintJson(PlanJson(plan));
	else
		Print(PlanText(plan, OutputLook()));
	FlushOutput();
	if (!plan.failure.empty())
		throw Failure("applying " + Quoted(name) + " would fail there: " + plan.failure);
}

void VerifyProfile(const std::optional<std::string> &name, bool json)
{
	const Catalogue catalogue = ReadCatalogue();
	const Profile &profile =
		name ? RequireProfile(catalogue, *name) : RequireSelected(catalogue, SelectedProfile());
	RequireSoundInheritance(catalogue, profile);
	const Plan plan = MakePlan(profile.name);
	const std::optional<KeptValues> kept = KeptIfReadable();
	const std::vector<VerifiedValue> values = Verify(plan, kept ? &*kept : nullptr);
	if (json)
		PrintJson(VerificationJson(plan, values));
	else
		Print(VerificationText(plan, values, OutputLook()));
	FlushOutput();
	if (!plan.failure.empty())
		throw Failure("what comes behind cannot be verified, as applying " + Quoted(profile.name) +
		              " would fail there: " + plan.failure);
	if (!Holds(values))
		throw AnswerIsNo();
}

void Undo(bool json)
{
	RequireRoot("undo");
	const ApplicationLock lock;
	const std::optional<KeptValues> kept = LoadKept();
	if (!kept)
		throw Failure(
			std::string("there is nothing to undo: ") + kKeptFile +
			" is missing, which \"zevotune set\" and \"apply\" make and \"undo\" and every boot remove");

	const std::vector<RestoredValue> values = Restore(*kept);
	const auto failed = static_cast<size_t>(std::count_if(
		values.begin(), values.end(), [](const RestoredValue &value) { return !IsRestored(value); }));
	// What has become of the values is shown whatever fails now.
	bool selectedAgain = false;
	std::string problem;
	try {
		selectedAgain = SelectAgain(*kept);
		if (failed == 0)
			RemoveKept();
	} catch (const Failure &failure) {
		problem = failure.what();
	}
	const size_t faults = failed + (problem.empty() ? 0 : 1);
	if (json) {
		Json::Value result;
		result["profile"] = kept->profile;
		result["selected_again"] = selectedAgain ? Json::Value(kept->selectedBefore) : Json::Value();
		result["values"] = RestorationJson(values);
		PrintJson(result);
	} else {
		Print(RestorationText(values, OutputLook()));
		PrintLine(Printable(UndoneText(*kept, selectedAgain, faults)));
	}
	FlushOutput();
	if (!problem.empty())
		throw Failure(problem);
	if (failed > 0)
		throw Failure(std::to_string(failed) + (failed == 1 ? " value" : " values") +
		              " could not be restored; \"zevotune undo\" tries again, and removing " + kKeptFile +
		              " forgets it");
}
