#include "lint_tunables.h"

#include "numbers.h"
#include "scheduler_tunables.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <iterator>

namespace {

struct Range {
	const char *name;
	long long min;
	long long max;
};

// Those in any notation are read as an int, decimal ones as 64 bits without a sign, before their range counts.
constexpr Range kRanges[] = {
	// mq-deadline
	{"async_depth", 1, INT_MAX},
	{"fifo_batch", 0, INT_MAX},
	{"front_merges", 0, 1},
	{"prio_aging_expire", 0, INT_MAX},
	{"read_expire", 0, INT_MAX},
	{"write_expire", 0, INT_MAX},
	{"writes_starved", INT_MIN, INT_MAX},
	// kyber
	{"read_lat_nsec", 0, LLONG_MAX},
	{"write_lat_nsec", 0, LLONG_MAX},
	// bfq
	{"back_seek_max", 0, INT_MAX},
	{"back_seek_penalty", 1, INT_MAX},
	{"fifo_expire_async", 1, INT_MAX},
	{"fifo_expire_sync", 1, INT_MAX},
	{"low_latency", 0, 1},
	{"max_budget", 0, INT_MAX},
	{"slice_idle", 0, 4294},       // counted in nanoseconds, of 32 bits
	{"slice_idle_us", 0, 4294967}, // the same
	{"strict_guarantees", 0, 1},
	{"timeout_sync", 1, INT_MAX},
};

const Range *FindRange(const std::string &name)
{
	const auto *found = std::find_if(std::begin(kRanges), std::end(kRanges),
	                                 [&name](const Range &range) { return name == range.name; });
	return found == std::end(kRanges) ? nullptr : found;
}

// A number may have a plus.
std::string WithoutPlus(const std::string &value)
{
	return value.size() > 1 && value[0] == '+' && isdigit(static_cast<unsigned char>(value[1])) != 0
	               ? value.substr(1)
	               : value;
}

// "08" is no octal number, but a decimal one.
bool IsNumber(const std::string &name, const std::string &value)
{
	return IsInteger(value) || (!TakesAnyNotation(name) && IsWholeNumber(value));
}

std::string BeyondWhich(long long number, long long min, long long max)
{
	if (number < min)
		return "the least is " + std::to_string(min);
	return number > max ? "the most is " + std::to_string(max) : "";
}

} // namespace

std::string WhyTunableRefused(const std::string &name, const std::string &text)
{
	const std::string value = WithoutPlus(text);
	if (!IsNumber(name, value))
		return "it is no number";
	if (FindRange(name) == nullptr)
		return "";
	if (TakesAnyNotation(name))
		return BeyondWhich(IntegerOf(value), INT_MIN, INT_MAX);
	if (IsWholeNumber(value))
		return "";
	return value.starts_with('-') ? "the least is 0" : "it is to be a decimal number of at most 64 bits";
}

std::string WhyTunableChanged(const std::string &name, const std::string &value)
{
	const Range *const range = FindRange(name);
	if (range == nullptr)
		return "";
	const int base = TakesAnyNotation(name) ? 0 : 10;
	return BeyondWhich(strtoll(value.c_str(), nullptr, base), range->min, range->max);
}
