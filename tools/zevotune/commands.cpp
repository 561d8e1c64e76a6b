#include "commands.h"

#include "catalogue.h"
#include "config_access.h"
#include "error_text.h"
#include "failure.h"
#include "output.h"
#include "paths.h"

#include <zevotuned/tune.h>

#include <json/value.h>

#include <optional>

namespace {

constexpr const char *kSeeLog = " (the whole chain is in the system's log: journalctl -t zevotune)";

std::optional<std::string> SelectedProfileIfReadable()
{
	try {
		return SelectedProfile();
	} catch (const Failure &) {
		return std::nullopt;
	}
}

Json::Value ToJson(const Profile &profile, const Profile &counting, const std::optional<std::string> &selected)
{
	const std::string *inherited = InheritedName(profile);
	Json::Value entry;
	entry["name"] = profile.name;
	entry["index"] = profile.index;
	entry["inherit"] = inherited != nullptr ? Json::Value(*inherited) : Json::Value();
	entry["title"] = profile.profile_title_i18n;
	entry["description"] = profile.profile_desc_i18n;
	entry["ui"] = profile.ui;
	entry["path"] = profile.path;
	if (selected)
		entry["selected"] = &profile == &counting && profile.name == *selected;
	else
		entry["selected"] = Json::Value();
	if (&profile != &counting)
		entry["shadowed_by"] = counting.path;
	return entry;
}

void PrintCatalogueJson(const Catalogue &catalogue, const std::optional<std::string> &selected)
{
	Json::Value entries(Json::arrayValue);
	for (const Profile &profile : catalogue)
		entries.append(ToJson(profile, *FindProfile(catalogue, profile.name), selected));
	PrintJson(entries);
}

void PrintCatalogue(const Catalogue &catalogue, const std::optional<std::string> &selected)
{
	Table table({" ", "INDEX", "NAME", "TITLE", "FILE"});
	for (const Profile &profile : catalogue) {
		const Profile &counting = *FindProfile(catalogue, profile.name);
		const bool counts = &profile == &counting;
		table.Add({counts && profile.name == selected ? "*" : " ", std::to_string(profile.index), profile.name,
		           profile.profile_title_i18n,
		           counts ? profile.path : profile.path + " (hidden by " + counting.path + ")"});
	}
	Print(table.Text());
}

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

} // namespace

void RequireRoot(const std::string &command)
{
	if (!IsRoot())
		throw Failure(Quoted(command) + " needs root and has changed nothing; run \"sudo zevotune " + command +
		              " ...\"");
}

void List(bool json)
{
	const Catalogue catalogue = ReadCatalogue();
	const std::optional<std::string> selected = SelectedProfileIfReadable();
	if (json)
		PrintCatalogueJson(catalogue, selected);
	else
		PrintCatalogue(catalogue, selected);
}

void Current(bool json)
{
	const std::string name = *FindValue(ReadConfig(), "profile");
	if (json) {
		Json::Value result;
		result["profile"] = name;
		PrintJson(result);
	} else {
		PrintLine(name);
	}
}

void Set(const std::string &name, bool json)
{
	RequireRoot("set");
	const Catalogue catalogue = ReadCatalogue();
	const Profile &profile = RequireProfile(catalogue, name);
	RequireSoundInheritance(catalogue, profile);

	ForgetErrors();
	if (ZEVOSetCustomProfile(name.c_str()) != 0) {
		const std::string reason = ErrorText();
		const bool recorded = SelectedProfileIfReadable() == name;
		const char *state = recorded ? "; it is selected, but perhaps applied in part" : "; it is not selected";
		throw Failure("cannot set " + Quoted(name) + ": " + reason + state + kSeeLog);
	}
	PrintApplied(profile, "selected and applied", json);
}

void Apply(bool json)
{
	RequireRoot("apply");
	const std::string name = *FindValue(ReadConfig(), "profile");
	const Catalogue catalogue = ReadCatalogue();
	const Profile *profile = FindProfile(catalogue, name);
	if (profile == nullptr)
		throw Failure("the selected profile " + Quoted(name) + " (in " + kConfigFile + ") is not installed" +
		              DidYouMean(name, NamesOf(catalogue), "") +
		              " (\"sudo zevotune set NAME\" selects another one)");
	RequireSoundInheritance(catalogue, *profile);

	ForgetErrors();
	if (ZEVORunCurrentProfile() != 0)
		throw Failure("cannot apply " + Quoted(name) + ": " + ErrorText() + "; perhaps it is applied in part" +
		              kSeeLog);
	PrintApplied(*profile, "applied", json);
}
