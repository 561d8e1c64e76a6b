#include "commands.h"

#include "failure.h"
#include "kernel_value.h"
#include "lint_catalogue.h"
#include "output.h"
#include "paths.h"
#include "terminal.h"

#include "devices.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using Severity = LintFinding::Severity;

std::optional<mode_t> ModeOf(const std::string &parameter)
{
	struct stat status;
	if (stat(SysctlPath(parameter).c_str(), &status) != 0 || !S_ISREG(status.st_mode))
		return std::nullopt;
	return status.st_mode;
}

std::vector<std::string> NamesIn(const fs::path &folder)
{
	std::vector<std::string> names;
	std::error_code error;
	for (const fs::directory_entry &entry : fs::directory_iterator(folder, error))
		names.push_back(entry.path().filename());
	std::sort(names.begin(), names.end());
	return names;
}

std::vector<std::string> Neighbours(const std::string &parameter)
{
	const size_t dot = parameter.rfind('.');
	if (dot == std::string::npos)
		return {};
	std::vector<std::string> names = NamesIn(fs::path(SysctlPath(parameter)).parent_path());
	for (std::string &name : names)
		name.insert(0, parameter, 0, dot + 1);
	return names;
}

LintMachine ThisMachine()
{
	LintMachine machine;
	machine.value = [](const std::string &name) { return ReadKernelValue(SysctlPath(name)).text; };
	machine.exists = [](const std::string &name) { return ModeOf(name).has_value(); };
	machine.writable = [](const std::string &name) { return (ModeOf(name).value_or(0) & S_IWUSR) != 0; };
	machine.neighbours = Neighbours;
	for (const std::string &disk : NamesIn("/sys/block")) {
		const Queue queue = ReadQueue(disk);
		machine.schedulers.insert(queue.schedulers.begin(), queue.schedulers.end());
		machine.tunables.insert(queue.tunables.begin(), queue.tunables.end());
	}
	return machine;
}

struct LintFile {
	std::string path; // as it was given
	std::string realPath;
	ProfileText text;
};

std::string RealPath(const std::string &path)
{
	std::error_code error;
	return fs::canonical(path, error);
}

bool IsIn(const std::string &realPath, const std::string &folder)
{
	return fs::path(realPath).parent_path() == fs::path(folder);
}

std::optional<ProfileText> ReadIfReadable(const std::string &path)
{
	std::error_code error;
	if (!fs::is_regular_file(path, error))
		return std::nullopt;
	try {
		return ReadProfileText(path);
	} catch (const Failure &) {
		return std::nullopt;
	}
}

bool IsAmong(const std::vector<LintFile> &files, const std::string &realPath)
{
	return std::any_of(files.begin(), files.end(),
	                   [&realPath](const LintFile &file) { return file.realPath == realPath; });
}

// What is installed, as far as it can be read, and the files themselves, which need not be installed yet.
Catalogue CatalogueWith(const std::vector<LintFile> &files)
{
	Catalogue catalogue;
	for (const std::string folder : {kShippedProfiles, kLocalProfiles}) {
		for (const std::string &name : NamesIn(folder)) {
			const std::string path = folder + '/' + name;
			if (name.starts_with('.') || IsAmong(files, RealPath(path)))
				continue;
			if (const std::optional<ProfileText> text = ReadIfReadable(path))
				catalogue.push_back(ProfileOf(path, *text));
		}
	}
	for (const LintFile &file : files)
		if (!IsIn(file.realPath, kGlobalProfiles[0]) && !IsIn(file.realPath, kGlobalProfiles[1]))
			catalogue.push_back(ProfileOf(file.path, file.text));
	return catalogue;
}

LintFindings FindingsOf(const LintFile &file, const Catalogue &catalogue, const LintMachine &machine)
{
	LintFindings findings = Lint(file.text, machine);
	const bool isGlobal = IsIn(file.realPath, kGlobalProfiles[0]) || IsIn(file.realPath, kGlobalProfiles[1]);
	const LintFindings more = LintAmong(catalogue, ProfileOf(file.path, file.text), file.text, isGlobal);
	findings.insert(findings.end(), more.begin(), more.end());
	std::stable_sort(findings.begin(), findings.end(),
	                 [](const LintFinding &a, const LintFinding &b) { return a.line < b.line; });
	return findings;
}

const char *NameOf(Severity severity)
{
	return severity == Severity::kError ? "error" : "warning";
}

void PrintFinding(const std::string &path, const LintFinding &finding, const Look &look)
{
	const Style style = finding.severity == Severity::kError ? Style::kBad : Style::kWarning;
	PrintLine(Printable(path) + ':' + (finding.line == 0 ? "" : std::to_string(finding.line) + ':') + ' ' +
	          Styled(NameOf(finding.severity), style, look) + ": " + Printable(finding.text));
}

Json::Value ToJson(const std::string &path, const LintFinding &finding)
{
	Json::Value entry;
	entry["file"] = path;
	entry["line"] = finding.line == 0 ? Json::Value() : Json::Value(finding.line);
	entry["severity"] = NameOf(finding.severity);
	entry["text"] = finding.text;
	return entry;
}

} // namespace

void LintProfiles(const std::vector<std::string> &paths, bool json)
{
	std::vector<LintFile> files;
	for (const std::string &path : paths)
		if (const std::string realPath = RealPath(path); realPath.empty() || !IsAmong(files, realPath))
			files.push_back({path, realPath, ReadProfileText(path)});
	const Catalogue catalogue = CatalogueWith(files);
	const LintMachine machine = ThisMachine();
	const Look look = OutputLook();

	Json::Value entries(Json::arrayValue);
	bool sound = true;
	for (const LintFile &file : files) {
		for (const LintFinding &finding : FindingsOf(file, catalogue, machine)) {
			sound = sound && finding.severity != Severity::kError;
			if (json)
				entries.append(ToJson(file.path, finding));
			else
				PrintFinding(file.path, finding, look);
		}
	}
	if (json)
		PrintJson(entries);
	FlushOutput();
	if (!sound)
		throw AnswerIsNo();
}
