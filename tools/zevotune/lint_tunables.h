#ifndef ZEVOTUNE_LINT_TUNABLES_H
#define ZEVOTUNE_LINT_TUNABLES_H

// Which values schedulers refuse or change. Those of tunables that are not known are taken for good.

#include <string>

/// Why a tunable's value would be refused; empty when it would not.
std::string WhyTunableRefused(const std::string &name, const std::string &value);

/// Why a tunable would get another value than this one, which is not refused; empty when it would not.
std::string WhyTunableChanged(const std::string &name, const std::string &value);

#endif
