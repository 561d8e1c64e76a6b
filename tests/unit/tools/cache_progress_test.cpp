#include "cache_progress.h"

#include "output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr uint64_t kMiB = 1024 * 1024;

CacheProgress Progress()
{
	return {234 * kMiB, 520 * kMiB, 12.3 * kMiB, 23};
}

std::string Bar(size_t columns, bool isUtf8 = false, const CacheProgress &progress = Progress())
{
	return ProgressBar("pinning", progress, 100, {columns, isUtf8});
}

TEST(CacheRate, IsUnknownBeforeTheSecondReport)
{
	RateEstimate rate;
	EXPECT_FALSE(rate.Rate());
	EXPECT_FALSE(rate.SecondsLeft(0, 100));
	rate.Add(0, 10);
	rate.Add(1, 10); // the same one
	EXPECT_FALSE(rate.Rate());
	EXPECT_FALSE(rate.SecondsLeft(1, 100));
}

TEST(CacheRate, IsThatBetweenReportsWheneverTheyAreRead)
{
	RateEstimate rate;
	for (int second = 0; second <= 11; ++second)
		rate.Add(second, second < 4 ? 0 : second < 8 ? 40 : 80);
	EXPECT_DOUBLE_EQ(rate.Rate().value(), 10);
	EXPECT_DOUBLE_EQ(rate.SecondsLeft(8, 100).value(), 2);
	EXPECT_DOUBLE_EQ(rate.SecondsLeft(9, 100).value(), 1); // it goes on between two reports
	EXPECT_DOUBLE_EQ(rate.SecondsLeft(30, 100).value(), 0);
	EXPECT_DOUBLE_EQ(rate.SecondsLeft(8, 50).value(), 0); // a total that has been overtaken
}

TEST(CacheRate, ForgetsWhatIsLongerAgoThanAMinute)
{
	RateEstimate rate;
	rate.Add(0, 0);
	rate.Add(4, 1'000'000); // chunks that were pinned before are passed over quickly
	for (int report = 1; report <= 20; ++report)
		rate.Add(4 + 4 * report, 1'000'000 + 40 * static_cast<uint64_t>(report));
	EXPECT_DOUBLE_EQ(rate.Rate().value(), 10);
}

TEST(CacheRate, KeepsTwoReportsHoweverLongAgo)
{
	RateEstimate rate;
	rate.Add(0, 0);
	rate.Add(1000, 5000);
	EXPECT_DOUBLE_EQ(rate.Rate().value(), 5);
	rate.Add(2000, 15000);
	EXPECT_DOUBLE_EQ(rate.Rate().value(), 10);
}

TEST(CacheRate, StartsAnewWithThePass)
{
	RateEstimate rate;
	rate.Add(0, 0);
	rate.Add(10, 1000);
	rate.Add(20, 5);
	EXPECT_FALSE(rate.Rate());
	rate.Add(21, 6);
	EXPECT_DOUBLE_EQ(rate.Rate().value(), 1);
}

TEST(CacheRate, HasNoneOfTwoReportsAtOneMoment)
{
	RateEstimate rate;
	rate.Add(1, 0);
	rate.Add(1, 10);
	EXPECT_FALSE(rate.Rate());
}

TEST(CacheDuration, IsReadAsAClock)
{
	EXPECT_EQ(DurationText(0), "0:00");
	EXPECT_EQ(DurationText(23.9), "0:23");
	EXPECT_EQ(DurationText(725), "12:05");
	EXPECT_EQ(DurationText(3599), "59:59");
	EXPECT_EQ(DurationText(3753), "1:02:33");
	EXPECT_EQ(DurationText(-5), "0:00");
	EXPECT_EQ(DurationText(1e300), "277777:46:40");
}

TEST(CacheProgressText, HasWhatIsKnown)
{
	EXPECT_EQ(ProgressText(Progress()), "45%, 234 MiB of 520 MiB, 12.3 MiB/s, 0:23 left");
	EXPECT_EQ(ProgressText({0, 520 * kMiB, {}, {}}), "0%, 0 B of 520 MiB");
	EXPECT_EQ(ProgressText({520 * kMiB, 520 * kMiB, {}, {}}), "100%, 520 MiB of 520 MiB");
	EXPECT_EQ(ProgressText({520 * kMiB - 1, 520 * kMiB, {}, {}}).substr(0, 4), "99%,");
	EXPECT_EQ(ProgressText({UINT64_MAX, 1, {}, {}}).substr(0, 5), "100%,");
}

TEST(CacheBar, IsOneLineOfAllThatFits)
{
	EXPECT_EQ(Bar(80), "pinning [#########............]  45%  0:23 left  234 MiB of 520 MiB  12.3 MiB/s");
	EXPECT_EQ(Bar(80, true), "pinning [█████████░░░░░░░░░░░░]  45%  0:23 left  234 MiB of 520 MiB  12.3 MiB/s");
	EXPECT_EQ(Bar(60), "pinning [#####........]  45%  0:23 left  234 MiB of 520 MiB");
	EXPECT_EQ(Bar(40), "pinning [#####........]  45%  0:23 left");
	EXPECT_EQ(Bar(30), "pinning [######........]  45%");
	EXPECT_EQ(Bar(20), "pinning  45%");
	EXPECT_EQ(Bar(10), "pinning  ");
	EXPECT_EQ(Bar(1), "");
	EXPECT_EQ(Bar(0), "");
}

TEST(CacheBar, IsAlwaysShorterThanTheTerminalIsWide)
{
	for (size_t columns = 1; columns < 300; ++columns)
		for (const bool isUtf8 : {false, true}) {
			EXPECT_LT(Width(Bar(columns, isUtf8)), columns);
			EXPECT_LT(Width(Bar(columns, isUtf8, {0, 1, {}, {}})), columns);
			EXPECT_LT(Width(Bar(columns, isUtf8, {0, 0, {}, {}})), columns);
		}
}

TEST(CacheBar, DoesNotGrowForEver)
{
	EXPECT_THAT(Bar(1000), HasSubstr('[' + std::string(22, '#') + std::string(28, '.') + ']'));
}

TEST(CacheBar, IsFullOnlyWhenAllIsDone)
{
	EXPECT_THAT(Bar(200, false, {0, 100, {}, {}}), Not(HasSubstr("#")));
	EXPECT_THAT(Bar(200, false, {99, 100, {}, {}}), HasSubstr("#.]  99%"));
	EXPECT_THAT(Bar(200, false, {100, 100, {}, {}}), HasSubstr("##] 100%"));
}

TEST(CacheBar, HasOnlyTheTimeWhereTheTotalIsUnknown)
{
	EXPECT_EQ(Bar(80, true, {0, 0, {}, {}}), "pinning  1:40");
	EXPECT_EQ(Bar(10, true, {0, 0, {}, {}}), "pinning  ");
}

} // namespace
