#include "lint_tunables.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

TEST(WhyTunableRefused, DecimalTunablesTakeWholeNumbersOf64Bits)
{
	for (const char *name : {"slice_idle", "strict_guarantees", "read_lat_nsec"}) {
		for (const char *value : {"0", "1", "+1", "08", "18446744073709551615"})
			EXPECT_EQ(WhyTunableRefused(name, value), "") << name << ' ' << value;
		for (const char *value : {"-1", "-0", "-99999999999999999999"})
			EXPECT_EQ(WhyTunableRefused(name, value), "the least is 0") << name << ' ' << value;
		for (const char *value : {"18446744073709551616", "0x10"})
			EXPECT_EQ(WhyTunableRefused(name, value), "it is to be a decimal number of at most 64 bits")
				<< name << ' ' << value;
		for (const char *value : {"many", "1.5", "1 1", "+", "+-1", "--1", "0x"})
			EXPECT_EQ(WhyTunableRefused(name, value), "it is no number") << name << ' ' << value;
	}
}

TEST(WhyTunableRefused, OthersTakeIntegersOf32BitsInAnyNotation)
{
	for (const char *value : {"0", "-1", "010", "0x7fffffff", "2147483647", "-2147483648"})
		EXPECT_EQ(WhyTunableRefused("fifo_batch", value), "") << value;
	for (const char *value : {"2147483648", "0x80000000", "99999999999999999999"})
		EXPECT_EQ(WhyTunableRefused("fifo_batch", value), "the most is 2147483647") << value;
	for (const char *value : {"-2147483649", "-99999999999999999999"})
		EXPECT_EQ(WhyTunableRefused("fifo_batch", value), "the least is -2147483648") << value;
	for (const char *value : {"many", "08", "1.5", "0x"})
		EXPECT_EQ(WhyTunableRefused("fifo_batch", value), "it is no number") << value;
}

TEST(WhyTunableRefused, OfTunablesThatAreNotKnownOnlyWhatIsNoNumber)
{
	for (const char *value : {"-1", "0x10", "99999999999999999999"})
		EXPECT_EQ(WhyTunableRefused("quantum", value), "") << value;
	EXPECT_EQ(WhyTunableRefused("quantum", "many"), "it is no number");
}

TEST(WhyTunableChanged, TellsTheEndOfTheRange)
{
	EXPECT_EQ(WhyTunableChanged("low_latency", "5"), "the most is 1");
	EXPECT_EQ(WhyTunableChanged("low_latency", "010"), "the most is 1");
	EXPECT_EQ(WhyTunableChanged("front_merges", "-5"), "the least is 0");
	EXPECT_EQ(WhyTunableChanged("timeout_sync", "0"), "the least is 1");
	EXPECT_EQ(WhyTunableChanged("async_depth", "0"), "the least is 1");
	EXPECT_EQ(WhyTunableChanged("back_seek_max", "2147483648"), "the most is 2147483647");
	EXPECT_EQ(WhyTunableChanged("back_seek_max", "18446744073709551615"), "the most is 2147483647");
	EXPECT_EQ(WhyTunableChanged("slice_idle", "4295"), "the most is 4294");
	EXPECT_EQ(WhyTunableChanged("slice_idle_us", "4294968"), "the most is 4294967");
}

TEST(WhyTunableChanged, IsNothingInRangeAndOfTunablesThatAreNotKnown)
{
	for (const char *name : {"low_latency", "front_merges", "strict_guarantees"})
		for (const char *value : {"0", "1", "01", "+1"})
			EXPECT_EQ(WhyTunableChanged(name, value), "") << name << ' ' << value;
	EXPECT_EQ(WhyTunableChanged("slice_idle", "04294"), "");
	EXPECT_EQ(WhyTunableChanged("slice_idle_us", "4294967"), "");
	EXPECT_EQ(WhyTunableChanged("back_seek_max", "2147483647"), "");
	EXPECT_EQ(WhyTunableChanged("writes_starved", "-2147483648"), "");
	EXPECT_EQ(WhyTunableChanged("read_lat_nsec", "18446744073709551615"), "");
	EXPECT_EQ(WhyTunableChanged("quantum", "-1"), "");
}

} // namespace
