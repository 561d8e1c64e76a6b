#ifndef ZEVOTUNE_LINT_VALUES_H
#define ZEVOTUNE_LINT_VALUES_H

// Which values the kernel refuses, as far as that can be known without writing them.

#include <optional>
#include <string>

/// Why a parameter's value would be refused; empty when that is not known. `now` is its present value, which tells whether
/// it consists of numbers.
std::string WhySysctlRefused(const std::string &name, const std::string &value, const std::optional<std::string> &now);

/// How many numbers a parameter takes, if the value has more, of which the kernel drops the rest. Nothing otherwise.
std::optional<size_t> NumbersTaken(const std::string &value, const std::optional<std::string> &now);

#endif
