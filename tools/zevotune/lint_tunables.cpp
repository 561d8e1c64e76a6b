#include "lint_tunables.h"

#include "numbers.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <iterator>

namespace {

enum class Notation {
	kAny,    // of an int
	kDecimal // without a sign, of 64 bits
};

struct Range {
	const char *name;
	Notation notation;
	long long min;
	long long max;
};

constexpr Range kRanges[] = {
	// mq-deadline
	{"async_depth", Notation::kAny, 1, INT_MAX},
	{"fifo_batch", Notation::kAny, 0, INT_MAX},
	{"front_merges", Notation::kAny, 0, 1},
	{"prio_aging_expire", Notation::kAny, 0, INT_MAX},
	{"read_expire", Notation::kAny, 0, INT_MAX},
	{"write_expire", Notation::kAny, 0, INT_MAX},
	{"writes_starved", Notation::kAny, INT_MIN, INT_MAX},
	// kyber
	{"read_lat_nsec", Notation::kDecimal, 0, LLONG_MAX},
	{"write_lat_nsec", Notation::kDecimal, 0, LLONG_MAX},
	// bfq
	{"back_seek_max", Notation::kDecimal, 0, INT_MAX},
	{"back_seek_penalty", Notation::kDecimal, 1, INT_MAX},
	{"fifo_expire_async", Notation::kDecimal, 1, INT_MAX},
	{"fifo_expire_sync", Notation::kDecimal, 1, INT_MAX},
	{"low_latency", Notation::kDecimal, 0, 1},
	{"max_budget", Notation::kDecimal, 0, INT_MAX},
	{"slice_idle", Notation::kDecimal, 0, 4294},       // counted in nanoseconds, of 32 bits
	{"slice_idle_us", Notation::kDecimal, 0, 4294967}, // the same
	{"strict_guarantees", Notation::kDecimal, 0, 1},
	{"timeout_sync", Notation::kDecimal, 1, INT_MAX},
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
bool IsNumber(const Range *range, const std::string &value)
{
	const bool decimal = range != nullptr && range->notation == Notation::kDecimal;
	return IsInteger(value) || (decimal && IsWholeNumber(value));
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
	const Range *const range = FindRange(name);
	const std::string value = WithoutPlus(text);
	if (!IsNumber(range, value))
		return "it is no number";
	if (range == nullptr)
		return "";
	if (range->notation == Notation::kAny)
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
	const int base = range->notation == Notation::kDecimal ? 10 : 0;
	return BeyondWhich(strtoll(value.c_str(), nullptr, base), range->min, range->max);
}
