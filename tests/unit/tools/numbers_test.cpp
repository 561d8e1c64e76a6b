#include "numbers.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

TEST(IntegerOf, ReadsEveryNotationAndStopsAtTheEndsOfTheRange)
{
	EXPECT_EQ(IntegerOf("12"), 12);
	EXPECT_EQ(IntegerOf("-12"), -12);
	EXPECT_EQ(IntegerOf("0x1F"), 31);
	EXPECT_EQ(IntegerOf("-0x1f"), -31);
	EXPECT_EQ(IntegerOf("017"), 15);
	EXPECT_EQ(IntegerOf("9223372036854775807"), LLONG_MAX);
	EXPECT_EQ(IntegerOf("9223372036854775808"), LLONG_MAX);
	EXPECT_EQ(IntegerOf("-9223372036854775809"), LLONG_MIN);
}

TEST(IsInteger, AllOfTheTextHasToBeTheNumber)
{
	for (const char *text : {"0", "-0", "00", "0x0", "-0x1f", "08x", "09"})
		EXPECT_EQ(IsInteger(text), std::string(text).find_first_of("89") == std::string::npos) << text;
	EXPECT_FALSE(IsInteger(std::string("1\0", 2)));
	EXPECT_FALSE(IsInteger("1\n"));
	EXPECT_FALSE(IsInteger("-\t1"));
	EXPECT_FALSE(IsInteger("\xD9\xA1")); // a digit, but of another script
}

TEST(DecimalOf, IsAnIntOfDecimalDigits)
{
	EXPECT_EQ(DecimalOf("0"), 0);
	EXPECT_EQ(DecimalOf("-7"), -7);
	EXPECT_EQ(DecimalOf("010"), 10); // decimal, whatever it looks like
	EXPECT_EQ(DecimalOf("2147483647"), INT_MAX);
	EXPECT_EQ(DecimalOf("-2147483648"), INT_MIN);
	for (const char *text :
	     {"", "-", "+1", " 1", "1 ", "1a", "0x10", "1.5", "2147483648", "-2147483649", "99999999999999999999"})
		EXPECT_EQ(DecimalOf(text), std::nullopt) << text;
}

TEST(IsWholeNumber, IsDecimalWithoutASign)
{
	for (const char *text : {"0", "007", "8589934592", "18446744073709551615"})
		EXPECT_TRUE(IsWholeNumber(text)) << text;
	for (const char *text : {"+1", " 1", "1K", "8G", "0x10", "1e3", "1.0"})
		EXPECT_FALSE(IsWholeNumber(text)) << text;
}

} // namespace
