#include "lint_catalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

Profile MadeProfile(const std::string &path, const std::string &main)
{
	return ProfileOf(path, ParseProfileText("[main]\n" + main));
}

// Of the last profile of a catalogue.
Lines LintLast(const Catalogue &catalogue, const std::string &main, bool isGlobal = false)
{
	Lines lines;
	for (const LintFinding &finding :
	     LintAmong(catalogue, catalogue.back(), ParseProfileText("[main]\n" + main), isGlobal))
		lines.push_back(std::to_string(finding.line) + ": " + finding.text);
	return lines;
}

TEST(ProfileFromText, IsTheOneThatTheLibraryReads)
{
	const Profile profile = ProfileOf("/x", ParseProfileText("[main]\nname = a\n[sysctl]\nname = b\nindex = 3\n"
	                                                         "[main]\nname = c\ninherit =\n"));
	EXPECT_EQ(profile.path, "/x");
	EXPECT_EQ(profile.name, "c");
	EXPECT_EQ(profile.index, -1);
	ASSERT_NE(InheritedName(profile), nullptr);
	EXPECT_EQ(*InheritedName(profile), "");
	EXPECT_EQ(InheritedName(ProfileOf("/x", ParseProfileText("nonsense"))), nullptr);
}

TEST(ProfileFromText, SortsByTheDecimalNumberThatItsIndexBeginsWith)
{
	const std::pair<const char *, int> rows[] = {{"7", 7},    {"-7", -7}, {"010", 10},
	                                             {"0x10", 0}, {"3rd", 3}, {"first", 0},
	                                             {"", 0},     {" 5", 5},  {"99999999999999999999", -1}};
	for (const auto &[text, index] : rows)
		EXPECT_EQ(MadeProfile("/x", std::string("index = ") + text + "\n").index, index) << text;
}

TEST(LintAmongOthers, IndexesAreComparedAsTheyAreSorted)
{
	const std::string main = "name = x\nindex = 010\n";
	EXPECT_THAT(LintLast({MadeProfile("/a", "name = a\nindex = 8\n"), MadeProfile("/x", main)}, main), IsEmpty());
	EXPECT_THAT(
		LintLast({MadeProfile("/a", "name = a\nindex = 10\n"), MadeProfile("/b", "name = b\nindex = 10\n"),
	                  MadeProfile("/x", main)},
	                 main),
		ElementsAre("3: the index 10 is that of /a as well: which of the two is listed first is not settled",
	                    "3: the index 10 is that of /b as well: which of the two is listed first is not settled"));
}

TEST(LintAmongOthers, OnesWithoutANameHaveNoneInCommon)
{
	EXPECT_THAT(LintLast({MadeProfile("/a", ""), MadeProfile("/x", "")}, ""),
	            ElementsAre("1: [main] has no \"name\", by which a profile is selected"));
}

TEST(LintAmongOthers, AFileThatIsNoProfileHasNoNameToMiss)
{
	const ProfileText text = ParseProfileText("[sysctl]\n");
	EXPECT_THAT(LintAmong({}, ProfileOf("/x", text), text, false), IsEmpty());
}

TEST(LintAmongOthers, CirclesEndWhereTheyBegin)
{
	const std::string main = "name = x\ninherit = x\n";
	EXPECT_THAT(
		LintLast({MadeProfile("/x", main)}, main),
		ElementsAre("3: its inheritance never ends: \"x\" (/x) -> \"x\" (/x); remove one \"inherit\" of the "
	                    "circle"));
	// A circle of others is told, too, as it keeps this one from being applied.
	const std::string outside = "name = x\ninherit = a\n";
	EXPECT_THAT(LintLast({MadeProfile("/a", "name = a\ninherit = a\n"), MadeProfile("/x", outside)}, outside),
	            ElementsAre("3: its inheritance never ends: \"x\" (/x) -> \"a\" (/a) -> \"a\" (/a); remove one "
	                        "\"inherit\" of the circle"));
}

TEST(LintAmongOthers, AParentIsTheFirstOfItsName)
{
	const std::string main = "name = x\ninherit = a\n";
	EXPECT_THAT(LintLast({MadeProfile("/first", "name = a\n"), MadeProfile("/second", "name = a\ninherit = gone\n"),
	                      MadeProfile("/x", main)},
	                     main),
	            IsEmpty());
}

TEST(LintAmongOthers, AMissingParentOfAParentIsToldWithANameThatIsNear)
{
	const std::string main = "name = x\ninherit = latency\n";
	EXPECT_THAT(LintLast({MadeProfile("/l", "name = latency\ninherit = latenzy\n"), MadeProfile("/x", main)}, main),
	            ElementsAre("3: /l inherits from \"latenzy\", and there is no profile of that name; did you mean "
	                        "\"latency\"?"));
}

} // namespace
