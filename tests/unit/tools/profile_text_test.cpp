#include "profile_text.h"

#include "failure.h"

#include "kit/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

// "section@line" and "key=value@line" of all of a text.
Lines Parsed(std::string_view text)
{
	Lines lines;
	for (const ProfileText::Section &section : ParseProfileText(text).sections) {
		lines.push_back(section.name + '@' + std::to_string(section.line));
		for (const ProfileText::Pair &pair : section.pairs)
			lines.push_back(pair.key + '=' + pair.value + '@' + std::to_string(pair.line));
	}
	return lines;
}

std::vector<int> BadLines(std::string_view text)
{
	return ParseProfileText(text).badLines;
}

std::string WhyUnread(const std::string &path)
{
	try {
		ReadProfileText(path);
	} catch (const Failure &failure) {
		return failure.what();
	}
	return "";
}

TEST(ProfileTextOf, HasSectionsAndPairsWithTheirLines)
{
	EXPECT_THAT(
		Parsed("; a comment\n\n[main]\n# another\n  name = a b \ninherit=\n[ sysctl ]\nvm.a = \"1 = 2\" \n"),
		ElementsAre("main@3", "name=a b@5", "inherit=@6", "sysctl@7", "vm.a=1 = 2@8"));
	EXPECT_THAT(Parsed(""), IsEmpty());
	EXPECT_THAT(Parsed("[main]"), ElementsAre("main@1"));
}

TEST(ProfileTextOf, KeepsEveryHeaderAndPairThatOccursAgain)
{
	EXPECT_THAT(Parsed("[a]\nx=1\nx=2\n[b]\n[a]\nx=3\n"),
	            ElementsAre("a@1", "x=1@2", "x=2@3", "b@4", "a@5", "x=3@6"));
}

TEST(ProfileTextOf, TakesLineEndsOfOtherSystemsAndAByteOrderMark)
{
	EXPECT_THAT(Parsed("\xEF\xBB\xBF[main]\r\nname = x\r\n"), ElementsAre("main@1", "name=x@2"));
	EXPECT_THAT(BadLines("\xEF\xBB\xBF[main]\r\n\r\n;\r\n"), IsEmpty());
}

TEST(ProfileTextOf, TellsLinesThatAreNothing)
{
	EXPECT_THAT(BadLines("a = 1\n[main]\nnonsense\n[\n[]\n[ ]\n= 1\n]\n[x] y\nb = 1\n"),
	            ElementsAre(1, 3, 4, 5, 6, 7, 8, 9));
	EXPECT_THAT(Parsed("a = 1\n[main]\nnonsense\nb = 1\n"), ElementsAre("main@2", "b=1@4"));
}

TEST(ProfileTextOf, LinesWithNulBytesAreBadAndNoOthers)
{
	const std::string_view text("[main]\na = \0\0 1\nb = 2\n;\0\n\0\nnonsense\nc = 3\n[\0x]\nd = 4\n", 53);
	ASSERT_TRUE(text.ends_with("d = 4\n"));
	EXPECT_THAT(BadLines(text), ElementsAre(2, 4, 5, 6, 8));
	EXPECT_THAT(Parsed(text), ElementsAre("main@1", "b=2@3", "c=3@7", "d=4@9"));
}

TEST(ProfileTextOf, AFileIsReadAsAWholeOrFailsWithTheReason)
{
	const kit::TempDir dir;
	const std::string path = dir.Path("x");
	kit::WriteFile(path, "[main]\nname = x\n");
	const ProfileText text = ReadProfileText(path);
	EXPECT_EQ(LineOf(text, "main", "name"), 2);

	EXPECT_EQ(WhyUnread(path), "");
	EXPECT_EQ(WhyUnread(dir.Path("gone")), dir.Path("gone") + " cannot be read (No such file or directory)");
	EXPECT_EQ(WhyUnread(path + "/x"), path + "/x cannot be read (Not a directory)");
	EXPECT_EQ(WhyUnread(dir.Path()), dir.Path() + " cannot be read (Is a directory)");
	EXPECT_EQ(WhyUnread(""), " cannot be read (No such file or directory)");
	ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600), 0);
	EXPECT_EQ(WhyUnread(dir.Path("fifo")), dir.Path("fifo") + " cannot be read (Invalid argument)");
	std::filesystem::resize_file(path, (256U << 20) + 1);
	EXPECT_EQ(WhyUnread(path), path + " cannot be read (File too large)");
}

TEST(LineOf, AKeyIsThatOfItsLastPairAndASectionThatOfItsFirstHeader)
{
	const ProfileText text = ParseProfileText("[a]\nx=1\n[b]\nx=2\n[a]\nx=3\ny=4\n");
	EXPECT_EQ(LineOf(text, "a", "x"), 6);
	EXPECT_EQ(LineOf(text, "b", "x"), 4);
	EXPECT_EQ(LineOf(text, "b", "y"), 0);
	EXPECT_EQ(LineOf(text, "c", "x"), 0);
	EXPECT_EQ(LineOf(text, "a"), 1);
	EXPECT_EQ(LineOf(text, "c"), 0);
	EXPECT_EQ(LineOf(text, ""), 0);
}

} // namespace
