#include "table.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

namespace {

TEST(Table, AlignsColumnsByCharactersAndLeavesNoBlanksAtTheEnds)
{
	Table table({"A", "LONG", "END"});
	table.Add({"grün", "1", ""});
	table.Add({"x", "", "last"});
	EXPECT_EQ(table.Text(), "A     LONG  END\n"
	                        "grün  1\n"
	                        "x           last\n");
}

TEST(Table, EscapesControlCharacters)
{
	Table table({"A", "B"});
	table.Add({"a\nb", "\x1B[31m"});
	table.AddLine("c\td");
	EXPECT_EQ(table.Text(), "A       B\n"
	                        "a\\x0Ab  \\x1B[31m\n"
	                        "c\\x09d\n");
}

TEST(Table, EscapesTheControlCharactersThatUtf8HasTwoBytesFor)
{
	Table table({"A"});
	table.Add({"\xC2\x9B" "31m \xC2\xA9 \xC3\x9B"});
	EXPECT_EQ(table.Text(), "A\n\\xC2\\x9B31m \xC2\xA9 \xC3\x9B\n");
}

TEST(Table, LinesBetweenRowsAreInNoColumn)
{
	Table table({"A", "B"});
	table.AddLine("a line that is longer than the columns");
	table.AddLine("");
	table.Add({"1", "2"});
	EXPECT_EQ(table.Text({false, 30}), "A  B\n"
	                                   "a line that is longer than the columns\n"
	                                   "\n"
	                                   "1  2\n");
}

TEST(Table, BreaksItsLastColumnBetweenWords)
{
	Table table({"KEY", "TEXT"});
	table.Add({"a", "one two three four five six seven"});
	table.Add({"b", "short"});
	EXPECT_EQ(table.Text({false, 25}), "KEY  TEXT\n"
	                                   "a    one two three four\n"
	                                   "     five six seven\n"
	                                   "b    short\n");
	// A word that fits nowhere sticks out, and a column that would be too narrow is not broken.
	EXPECT_EQ(table.Text({false, 24}), table.Text());
	Table path({"KEY", "TEXT"});
	path.Add({"a", "in /a/path/that/is/longer/than/that"});
	EXPECT_EQ(path.Text({false, 30}), "KEY  TEXT\n"
	                                  "a    in\n"
	                                  "     /a/path/that/is/longer/than/that\n");
}

TEST(Table, OfNothingIsItsHeader)
{
	EXPECT_EQ(Table({"A", "LONG", "END"}).Text(), "A  LONG  END\n");
	EXPECT_EQ(Table({"A", "LONG", ""}).Text({false, 80}), "A  LONG\n");
	EXPECT_EQ(Table({"ALONE"}).Text({false, 1}), "ALONE\n");
	Table empty({"A", "B"});
	empty.Add({"", ""});
	EXPECT_EQ(empty.Text(), "A  B\n\n");
}

TEST(Table, BrokenLinesKeepTheirColourAndAreCountedInCharacters)
{
	Table table({"K", "TEXT"});
	table.Add({"ä", Cell("größe größe größe größe größe", Style::kBad)});
	EXPECT_EQ(table.Text({false, 23}), "K  TEXT\n"
	                                   "ä  größe größe größe\n"
	                                   "   größe größe\n");
	EXPECT_EQ(table.Text({true, 23}), "K  TEXT\n"
	                                  "ä  \x1B[31mgröße größe größe\x1B[0m\n"
	                                  "   \x1B[31mgröße größe\x1B[0m\n");
}

TEST(Table, LosesNoWordWhateverTheWidth)
{
	Table table({"KEY", "TEXT"});
	table.Add({"first", "a bb ccc dddd eeeee ffffff ggggggg hhhhhhhh iiiiiiiii"});
	table.Add({"second", ""});
	table.AddLine("between");
	const auto words = [](const std::string &text) {
		std::istringstream stream(text);
		return std::vector<std::string>(std::istream_iterator<std::string>(stream), {});
	};
	for (size_t columns = 0; columns < 100; ++columns) {
		const std::string text = table.Text({false, columns});
		EXPECT_EQ(words(text), words(table.Text())) << columns;
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);) {
			EXPECT_FALSE(line.ends_with(' ')) << columns;
			EXPECT_TRUE(columns < 8 + 20 || line.size() <= columns) << columns << ": " << line;
		}
	}
}

TEST(Table, ColoursDoNotCountAsWidth)
{
	Table table({"A", "B", "C"});
	table.Add({Cell("1", Style::kGood), Cell("", Style::kBad), Cell("2", Style::kWarning)});
	EXPECT_EQ(table.Text({true, 0}), "A  B  C\n"
	                                 "\x1B[32m1\x1B[0m     \x1B[33m2\x1B[0m\n");
	EXPECT_EQ(table.Text(), "A  B  C\n1     2\n");
}

} // namespace
