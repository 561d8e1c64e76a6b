#include "lint.h"

#include "catalogue_check.h"
#include "lint_tunables.h"
#include "lint_values.h"
#include "numbers.h"
#include "scheduler_tunables.h"

#include <algorithm>

namespace {

using Severity = LintFinding::Severity;
using Names = std::vector<std::string>;

const Names &Sections()
{
	static const Names names = {"main", "sysctl", "volume", "disk", "raid_cfq_1", "raid_cfq_5", "raid_cfq_default"};
	return names;
}

const Names &MainKeys()
{
	static const Names names = {"name",         "inherit", "index", "ui", "profile_title_i18n", "profile_desc_i18n",
	                            "vm_memory_max"};
	return names;
}

bool Contains(const Names &names, const std::string &name)
{
	return std::find(names.begin(), names.end(), name) != names.end();
}

class Linter {
public:
	Linter(const ProfileText &toLint, const LintMachine &ofMachine) : text(toLint), machine(ofMachine) {}

	LintFindings Run()
	{
		for (const int line : text.badLines)
			Error(line, "neither a section, a pair in a section nor a comment: the file cannot be read as "
			            "a profile");
		LintMain();
		LintRepetitions();
		for (const ProfileText::Section &section : text.sections)
			LintSection(section);
		std::stable_sort(findings.begin(), findings.end(),
		                 [](const LintFinding &a, const LintFinding &b) { return a.line < b.line; });
		return std::move(findings);
	}

private:
	void Error(int line, const std::string &what) { findings.push_back({Severity::kError, line, what}); }
	void Warn(int line, const std::string &what) { findings.push_back({Severity::kWarning, line, what}); }

	void LintMain()
	{
		if (LineOf(text, "main") == 0)
			Error(0, "there is no section [main], without which it is no profile");
	}

	void LintRepetitions()
	{
		std::set<std::string> sections;
		std::set<std::pair<std::string, std::string>> keys;
		for (const ProfileText::Section &section : text.sections) {
			if (!sections.insert(section.name).second)
				Warn(section.line, '[' + section.name +
				                           "] occurs more than once: each time it is applied with the "
				                           "keys of all of them");
			for (const ProfileText::Pair &pair : section.pairs)
				if (!keys.insert({section.name, pair.key}).second)
					Warn(pair.line, Quoted(pair.key) + " occurs more than once in [" +
					                        section.name + "]: the value of line " +
					                        std::to_string(LineOf(text, section.name, pair.key)) +
					                        " counts");
		}
		for (const std::string group : {"", "_background"})
			if (const int bytes = LineOf(text, "sysctl", "vm.dirty" + group + "_bytes");
			    bytes != 0 && LineOf(text, "sysctl", "vm.dirty" + group + "_ratio") != 0)
				Warn(bytes, "the kernel takes \"vm.dirty" + group + "_bytes\" or \"vm.dirty" + group +
				                    "_ratio\": whichever is applied later sets the other one to 0");
	}

	void LintSection(const ProfileText::Section &section)
	{
		if (!Contains(Sections(), section.name)) {
			Warn(section.line, "no section [" + section.name + "] is known, and it is ignored" +
			                           DidYouMean(section.name, Sections(), ""));
			return;
		}
		for (const ProfileText::Pair &pair : section.pairs) {
			if (section.name == "main")
				LintMainPair(pair);
			else if (section.name == "sysctl")
				LintSysctl(pair);
			else if (section.name == "volume")
				LintVolumePair(pair);
			else if (section.name == "disk")
				LintDiskPair(pair);
			else
				LintTunable(pair);
		}
	}

	void UnknownKey(const ProfileText::Pair &pair, const std::string &section, const Names &known)
	{
		Warn(pair.line, '[' + section + "] knows no key " + Quoted(pair.key) + ", and ignores it" +
		                        DidYouMean(pair.key, known, ""));
	}

	void LintMainPair(const ProfileText::Pair &pair)
	{
		if (!Contains(MainKeys(), pair.key))
			UnknownKey(pair, "main", MainKeys());
		else if (pair.key == "index" && !DecimalOf(pair.value))
			Warn(pair.line, "\"index\" is to be a decimal number; " + Quoted(pair.value) +
			                        " sorts as what it begins with, or as 0");
		else if (pair.key == "ui" && pair.value != "true" && pair.value != "false")
			Warn(pair.line, "\"ui\" is to be true or false; " + Quoted(pair.value) + " counts as false");
		else if (pair.key == "vm_memory_max" && !IsWholeNumber(pair.value))
			Error(pair.line, "\"vm_memory_max\" is to be a number of bytes; " + Quoted(pair.value) +
			                         " counts as what it begins with, or as 0");
	}

	void LintSysctl(const ProfileText::Pair &pair)
	{
		if (!machine.exists(pair.key)) {
			Warn(pair.line, "this kernel has no parameter " + Quoted(pair.key) + ", and it is passed over" +
			                        DidYouMean(pair.key, machine.neighbours(pair.key), ""));
			return;
		}
		if (!machine.writable(pair.key)) {
			Error(pair.line, "the kernel refuses it: " + Quoted(pair.key) + " can only be read");
			return;
		}
		const std::optional<std::string> now = machine.value(pair.key);
		if (const std::string why = WhySysctlRefused(pair.key, pair.value, now); !why.empty())
			Error(pair.line,
			      "the kernel refuses " + Quoted(pair.value) + " for " + Quoted(pair.key) + ": " + why);
		else if (const auto taken = NumbersTaken(pair.value, now))
			Warn(pair.line, "the kernel takes only " + std::to_string(*taken) +
			                        (taken == 1 ? " number for " : " numbers for ") + Quoted(pair.key));
	}

	void LintVolumePair(const ProfileText::Pair &pair)
	{
		if (pair.key != "zevo_writeback_thread_max")
			UnknownKey(pair, "volume", {"zevo_writeback_thread_max"});
		else if (pair.value != "auto" && DecimalOf(pair.value).value_or(0) < 1)
			Error(pair.line,
			      "\"zevo_writeback_thread_max\" is to be \"auto\" or a decimal number from 1, not " +
			              Quoted(pair.value));
	}

	void LintDiskPair(const ProfileText::Pair &pair)
	{
		if (pair.key != "ssd_scheduler") {
			UnknownKey(pair, "disk", {"ssd_scheduler"});
			return;
		}
		if (machine.schedulers.contains(pair.value))
			return;
		std::set<std::string> known = KnownSchedulers();
		known.insert(machine.schedulers.begin(), machine.schedulers.end());
		const std::string offers = known.contains(pair.value) ? "no disk of this machine offers the scheduler "
		                                                      : "there is no known scheduler ";
		Warn(pair.line, offers + Quoted(pair.value) + DidYouMean(pair.value, {known.begin(), known.end()}, ""));
	}

	void LintTunable(const ProfileText::Pair &pair)
	{
		std::set<std::string> known = KnownTunables();
		known.insert(machine.tunables.begin(), machine.tunables.end());
		if (!known.contains(pair.key))
			Warn(pair.line, "no known scheduler has a tunable " + Quoted(pair.key) +
			                        ": disks without it are passed over" +
			                        DidYouMean(pair.key, {known.begin(), known.end()}, ""));
		if (pair.value.empty())
			Error(pair.line,
			      Quoted(pair.key) + " is empty, and ends the application on a machine with such an array");
		else if (const std::string why = WhyTunableRefused(pair.key, pair.value); !why.empty())
			Error(pair.line,
			      "the kernel refuses " + Quoted(pair.value) + " for " + Quoted(pair.key) + ": " + why);
		else if (const std::string change = WhyTunableChanged(pair.key, pair.value); !change.empty())
			Warn(pair.line, "the kernel takes another value than " + Quoted(pair.value) + " for " +
			                        Quoted(pair.key) + ": " + change);
	}

	const ProfileText &text;
	const LintMachine &machine;
	LintFindings findings;
};

} // namespace

LintFindings Lint(const ProfileText &text, const LintMachine &machine)
{
	return Linter(text, machine).Run();
}
