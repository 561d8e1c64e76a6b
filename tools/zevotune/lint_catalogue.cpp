#include "lint_catalogue.h"

#include <algorithm>
#include <cstdlib>

namespace {

using Severity = LintFinding::Severity;

constexpr int kNoIndex = -1;

// A global profile needs none.
void LintName(const ProfileText &text, LintFindings &findings)
{
	const int line = LineOf(text, "main", "name");
	if (line != 0 && ProfileOf("", text).name.empty())
		findings.push_back({Severity::kError, line, "\"name\" is empty, by which a profile is selected"});
	else if (line == 0 && LineOf(text, "main") != 0)
		findings.push_back({Severity::kError, LineOf(text, "main"),
		                    "[main] has no \"name\", by which a profile is selected"});
}

void LintNames(const Catalogue &catalogue, const Profile &profile, const ProfileText &text, LintFindings &findings)
{
	for (const Profile &other : catalogue) {
		if (other.path == profile.path)
			continue;
		if (!profile.name.empty() && other.name == profile.name)
			findings.push_back({Severity::kError, LineOf(text, "main", "name"),
			                    "the name " + Quoted(profile.name) + " is that of " + other.path +
			                            " as well: only the one that is listed first is ever used"});
		else if (profile.index != kNoIndex && other.index == profile.index)
			findings.push_back({Severity::kWarning, LineOf(text, "main", "index"),
			                    "the index " + std::to_string(profile.index) + " is that of " + other.path +
			                            " as well: which of the two is listed first is not settled"});
	}
}

} // namespace

Profile ProfileOf(const std::string &path, const ProfileText &text)
{
	Profile profile;
	profile.path = path;
	for (const ProfileText::Section &section : text.sections)
		if (section.name == "main")
			for (const ProfileText::Pair &pair : section.pairs)
				profile.main_section[pair.key] = pair.value;
	profile.name = profile.main_section["name"];
	if (const auto index = profile.main_section.find("index"); index != profile.main_section.end())
		profile.index = static_cast<int>(strtol(index->second.c_str(), nullptr, 10)); // as the library does
	return profile;
}

LintFindings LintAmong(const Catalogue &catalogue, const Profile &profile, const ProfileText &text, bool isGlobal)
{
	LintFindings findings;
	const int line = LineOf(text, "main", "inherit");
	if (isGlobal) {
		if (line != 0)
			findings.push_back({Severity::kError, line,
			                    "a global profile must not inherit: before every profile that is inherited "
			                    "all global ones are applied, without end"});
		return findings;
	}
	LintName(text, findings);
	LintNames(catalogue, profile, text, findings);
	// Circles are told by the profiles of the catalogue.
	const auto itself = std::find_if(catalogue.begin(), catalogue.end(),
	                                 [&profile](const Profile &other) { return other.path == profile.path; });
	if (const auto fault = FindInheritanceFault(catalogue, {}, itself == catalogue.end() ? profile : *itself))
		findings.push_back({Severity::kError, line, Describe(*fault, catalogue)});
	return findings;
}
