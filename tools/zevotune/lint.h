#ifndef ZEVOTUNE_LINT_H
#define ZEVOTUNE_LINT_H

// What is wrong with a profile's file, as far as that shows without applying it.

#include "profile_text.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct LintFinding {
	enum class Severity { kError, kWarning };
	Severity severity;
	int line; // 0: the whole file
	std::string text;
};

using LintFindings = std::vector<LintFinding>;

/// What is asked of the machine.
struct LintMachine {
	/// A kernel parameter's present value; nothing when it cannot be read.
	std::function<std::optional<std::string>(const std::string &name)> value;
	std::function<bool(const std::string &name)> exists;
	std::function<bool(const std::string &name)> writable; // by root
	/// Names of parameters that stand in the same folder.
	std::function<std::vector<std::string>(const std::string &name)> neighbours;
	std::set<std::string> schedulers; // that a disk offers
	std::set<std::string> tunables;   // that a disk's scheduler has
};

/// Of the text alone, and of what the machine says of its values. Findings are in the order of their lines.
LintFindings Lint(const ProfileText &text, const LintMachine &machine);

#endif
