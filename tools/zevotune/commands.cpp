#include "commands.h"

#include "catalogue.h"
#include "config_access.h"
#include "failure.h"
#include "output.h"
#include "table.h"
#include "terminal.h"

#include <json/value.h>

#include <optional>

namespace {

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
	Print(table.Text(OutputLook()));
}

// Each name once, as the first profile hides the others.
void PrintNames(const Catalogue &catalogue, bool json)
{
	Json::Value entries(Json::arrayValue);
	for (const Profile &profile : catalogue) {
		if (&profile != FindProfile(catalogue, profile.name))
			continue;
		if (json)
			entries.append(profile.name);
		else
			PrintLine(Printable(profile.name));
	}
	if (json)
		PrintJson(entries);
}

} // namespace

void RequireRoot(const std::string &command)
{
	if (!IsRoot())
		throw Failure(Quoted(command) + " needs root and has changed nothing; run \"sudo zevotune " + command +
		              " ...\"");
}

void List(bool names, bool json)
{
	const Catalogue catalogue = ReadCatalogue();
	if (names) {
		PrintNames(catalogue, json);
		return;
	}
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
