#include "lint_values.h"

#include "kernel_value.h"
#include "numbers.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <sstream>
#include <vector>

namespace {

struct Range {
	const char *name;
	long long min;
	long long max;
};

constexpr long long kPage = 4096;

// What the kernel checks before it takes a value, where that is not the same for all numbers. Upper limits that differ between
// kernels are those of the most generous one.
constexpr Range kRanges[] = {
	{"vm.compaction_proactiveness", 0, 100},
	{"vm.dirty_background_bytes", 1, LLONG_MAX},
	{"vm.dirty_background_ratio", 0, 100},
	{"vm.dirty_bytes", 2 * kPage, LLONG_MAX},
	{"vm.dirty_expire_centisecs", 0, UINT_MAX},
	{"vm.dirty_ratio", 0, 100},
	{"vm.dirty_writeback_centisecs", 0, UINT_MAX},
	{"vm.extfrag_threshold", 0, 1000},
	{"vm.min_free_kbytes", 0, INT_MAX},
	{"vm.overcommit_memory", 0, 2},
	{"vm.page-cluster", 0, 31},
	{"vm.panic_on_oom", 0, 2},
	{"vm.swappiness", 0, 200},
	{"vm.vfs_cache_pressure", 0, INT_MAX},
	{"vm.watermark_boost_factor", 0, INT_MAX},
	{"vm.watermark_scale_factor", 1, 3000},
	{"vm.zone_reclaim_mode", 0, INT_MAX},
};

std::vector<std::string> Words(const std::string &text)
{
	std::istringstream stream(text);
	std::vector<std::string> words;
	for (std::string word; stream >> word;)
		words.push_back(word);
	return words;
}

bool AreIntegers(const std::vector<std::string> &words)
{
	return !words.empty() && std::all_of(words.begin(), words.end(), IsInteger);
}

const Range *FindRange(const std::string &name)
{
	const std::string path = SysctlPath(name);
	const auto *found = std::find_if(std::begin(kRanges), std::end(kRanges),
	                                 [&path](const Range &range) { return SysctlPath(range.name) == path; });
	return found == std::end(kRanges) ? nullptr : found;
}

} // namespace

std::string WhySysctlRefused(const std::string &name, const std::string &value, const std::optional<std::string> &now)
{
	const std::vector<std::string> words = Words(value);
	const Range *const range = FindRange(name);
	const std::vector<std::string> present = Words(now.value_or(""));
	if (range == nullptr && !AreIntegers(present))
		return "";
	if (words.empty())
		return "it is empty";
	if (!AreIntegers(words))
		return words.size() == 1 ? "it is no number" : "these are not all numbers";
	if (range == nullptr)
		return "";
	const long long number = IntegerOf(words[0]);
	if (number < range->min)
		return "the least is " + std::to_string(range->min);
	if (number > range->max)
		return "the most is " + std::to_string(range->max);
	return "";
}

std::optional<size_t> NumbersTaken(const std::string &value, const std::optional<std::string> &now)
{
	const std::vector<std::string> present = Words(now.value_or(""));
	if (!AreIntegers(present) || Words(value).size() <= present.size())
		return std::nullopt;
	return present.size();
}
