#ifndef ZEVOTUNE_SCHEDULER_TUNABLES_H
#define ZEVOTUNE_SCHEDULER_TUNABLES_H

#include <set>
#include <string>

/// Names of I/O schedulers.
std::set<std::string> KnownSchedulers();

/// The files that a scheduler's folder queue/iosched has while it is active, in one kernel or another; none for a scheduler
/// that has no tunables, or is not known.
std::set<std::string> TunablesOf(const std::string &scheduler);

/// Those of all schedulers.
std::set<std::string> KnownTunables();

/// Whether a tunable takes numbers in octal and hexadecimal, too, as parameters do; those of most schedulers are decimal.
bool TakesAnyNotation(const std::string &tunable);

#endif
