#include "lint_values.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

namespace {

struct Range {
	const char *name;
	long long min;
	long long max;
};

void PrintTo(const Range &range, std::ostream *out)
{
	*out << range.name;
}

class LintRange : public testing::TestWithParam<Range> {
protected:
	static std::string Why(const std::string &value) { return WhySysctlRefused(GetParam().name, value, "1"); }
};

TEST_P(LintRange, EndsAreTakenAndWhatLiesBeyondIsNot)
{
	const Range &range = GetParam();
	EXPECT_EQ(Why(std::to_string(range.min)), "");
	EXPECT_EQ(Why(std::to_string(range.max)), "");
	EXPECT_EQ(Why(std::to_string(range.min - 1)), "the least is " + std::to_string(range.min));
	if (range.max < LLONG_MAX) {
		EXPECT_EQ(Why(std::to_string(range.max + 1)), "the most is " + std::to_string(range.max));
		EXPECT_EQ(Why("99999999999999999999"), "the most is " + std::to_string(range.max));
	}
	EXPECT_EQ(Why("-99999999999999999999"), "the least is " + std::to_string(range.min));
}

TEST_P(LintRange, CountsWhateverTheNotationAndWhetherThePresentValueCanBeReadOrNot)
{
	char text[32];
	snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(GetParam().max));
	EXPECT_EQ(Why(text), "");
	snprintf(text, sizeof(text), "0%llo", static_cast<unsigned long long>(GetParam().max));
	EXPECT_EQ(Why(text), "");
	const std::string tooLow = std::to_string(GetParam().min - 1);
	EXPECT_NE(WhySysctlRefused(GetParam().name, tooLow, std::nullopt), "");
	EXPECT_NE(WhySysctlRefused(GetParam().name, tooLow, ""), "");
	for (const char *word : {"", " ", "a", "1a", "0x", "08", "--1", "+1", "1.5", "60%", "1 a"})
		EXPECT_NE(Why(word), "") << '"' << word << '"';
}

INSTANTIATE_TEST_SUITE_P(
	Each, LintRange,
	testing::Values(Range{"vm.compaction_proactiveness", 0, 100}, Range{"vm.dirty_background_bytes", 1, LLONG_MAX},
                        Range{"vm.dirty_background_ratio", 0, 100}, Range{"vm.dirty_bytes", 8192, LLONG_MAX},
                        Range{"vm.dirty_expire_centisecs", 0, UINT32_MAX}, Range{"vm.dirty_ratio", 0, 100},
                        Range{"vm.dirty_writeback_centisecs", 0, UINT32_MAX}, Range{"vm.extfrag_threshold", 0, 1000},
                        Range{"vm.min_free_kbytes", 0, INT_MAX}, Range{"vm.overcommit_memory", 0, 2},
                        Range{"vm.page-cluster", 0, 31}, Range{"vm.panic_on_oom", 0, 2}, Range{"vm.swappiness", 0, 200},
                        Range{"vm.vfs_cache_pressure", 0, INT_MAX}, Range{"vm.watermark_boost_factor", 0, INT_MAX},
                        Range{"vm.watermark_scale_factor", 1, 3000}, Range{"vm.zone_reclaim_mode", 0, INT_MAX}));

TEST(LintWords, NumbersAreCountedByThePresentValue)
{
	EXPECT_EQ(WhySysctlRefused("vm.lowmem_reserve_ratio", "256 32 0", "256\t256\t32\t0\t0"), "");
	EXPECT_EQ(WhySysctlRefused("vm.lowmem_reserve_ratio", "1\t2  3 4 5", "256\t256\t32\t0\t0"), "");
	EXPECT_EQ(WhySysctlRefused("vm.lowmem_reserve_ratio", "1 2 3 4 5 6", "256\t256\t32\t0\t0"), "");
	EXPECT_EQ(NumbersTaken("1 2 3 4 5 6", "256\t256\t32\t0\t0"), 5U);
	EXPECT_EQ(NumbersTaken("1 2 3 4 5", "256\t256\t32\t0\t0"), std::nullopt);
	EXPECT_EQ(NumbersTaken("1 2", "60"), 1U);
	EXPECT_EQ(NumbersTaken("1 2", "text"), std::nullopt);
	EXPECT_EQ(NumbersTaken("1 2", std::nullopt), std::nullopt);
	EXPECT_EQ(WhySysctlRefused("vm.laptop_mode", "", "0"), "it is empty");
	EXPECT_EQ(WhySysctlRefused("vm.laptop_mode", "on", "0"), "it is no number");
	EXPECT_EQ(WhySysctlRefused("vm.laptop_mode", "1 on", "0"), "these are not all numbers");
	EXPECT_EQ(WhySysctlRefused("vm.laptop_mode", "-99999999999999999999", "0"), "");
}

TEST(LintWords, NothingIsSaidOfParametersThatAreNoNumbers)
{
	for (const char *now : {"always [madvise] never", "", "Node", "1 a"})
		for (const char *value : {"", "anything", "1 2 3"})
			EXPECT_EQ(WhySysctlRefused("vm.numa_zonelist_order", value, now), "") << now << ": " << value;
}

} // namespace
