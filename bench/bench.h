#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

// Measurements in pairs: what the library does, and the floor, the same system calls bare. Both are named
// "<what>/ours" and "<what>/floor"; the table that main prints puts their ratio beside the goal of <what>.

#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

using SetUp = void (*)(const benchmark::State &);

/// For a pair whose floor does less than what is asked for: a ratio to know, not to reach.
inline constexpr double kNoGoal = 0;

/// Registers a pair. `ours` and `floor` do the operation once; `setUp` comes before a number of operations and is not measured.
void Pair(const std::string &what, double goal, void (*ours)(), void (*floor)(), SetUp setUp = nullptr);

/// Something that is measured against an absolute goal, by its own means; called after the pairs.
void Absolute(void (*measureAndPrint)());

void WriteFile(const std::string &path, std::string_view text);

/// Takes away the profiles that another measurement has added: looking for one reads them all. A set-up, too.
void RemoveLocalProfiles();
inline void SetUpWithoutLocalProfiles(const benchmark::State &)
{
	RemoveLocalProfiles();
}

/// Ends the program when a step failed: a number measured on a failure is worth nothing.
void Require(bool condition, const char *what);

} // namespace bench

#define BENCH_REQUIRE(condition) bench::Require(condition, #condition)

#endif
