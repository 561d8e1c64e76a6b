#include <vunkcore/error.h>
#include <vunkcore/text.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

class StrTok : public testing::Test {
protected:
	StrTok() { VUNKCErrSetEx(0x1234, "before", 5); }
	~StrTok() override { VUNKCSzListFree(list); }

	Strings Listed() const
	{
		Strings strings;
		for (int i = 0; i < list->nItem; ++i)
			strings.emplace_back(VUNKCSzListGet(list, i));
		return strings;
	}

	VUNKSZLIST *list = VUNKCSzListAlloc(16);
};

TEST_F(StrTok, SplitsAtEveryDelimiterAndLeavesOutEmptyPieces)
{
	EXPECT_EQ(VUNKCStrTok(",,a, b;;c;", ",;", &list), 3);
	EXPECT_EQ(Listed(), (Strings{"a", " b", "c"}));
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
}

TEST_F(StrTok, AppendsAndCountsTheNewPiecesOnly)
{
	VUNKCSzListPush(&list, "there");
	EXPECT_EQ(VUNKCStrTok("a b", " ", &list), 2);
	EXPECT_EQ(Listed(), (Strings{"there", "a", "b"}));
}

TEST_F(StrTok, NothingBetweenDelimitersIsNothing)
{
	EXPECT_EQ(VUNKCStrTok("", ",", &list), 0);
	EXPECT_EQ(VUNKCStrTok(",,,", ",", &list), 0);
	EXPECT_EQ(VUNKCStrTok("", "", &list), 0);
	EXPECT_EQ(list->nItem, 0);
}

TEST_F(StrTok, WithoutDelimitersTheTextIsOnePiece)
{
	EXPECT_EQ(VUNKCStrTok("a b", "", &list), 1);
	EXPECT_EQ(Listed(), Strings{"a b"});
}

TEST_F(StrTok, BytesAboveAsciiAreDelimitersAsGoodAsAny)
{
	EXPECT_EQ(VUNKCStrTok("a\xFF"
	                      "b\x80"
	                      "c",
	                      "\x80\xFF", &list),
	          3);
	EXPECT_EQ(Listed(), (Strings{"a", "b", "c"}));
}

TEST_F(StrTok, TheTextMayBeOneOfTheListsOwn)
{
	VUNKCSzListPush(&list, "a,b,c,d,e,f,g");
	EXPECT_EQ(VUNKCStrTok(VUNKCSzListGet(list, 0), ",", &list), 7);
	EXPECT_EQ(list->nItem, 8);
	EXPECT_STREQ(VUNKCSzListGet(list, 7), "g");
}

TEST_F(StrTok, RefusesNullPointers)
{
	VUNKSZLIST *none = nullptr;
	EXPECT_EQ(VUNKCStrTok(nullptr, ",", &list), -1);
	EXPECT_EQ(VUNKCStrTok("a", nullptr, &list), -1);
	EXPECT_EQ(VUNKCStrTok("a", ",", nullptr), -1);
	EXPECT_EQ(VUNKCStrTok("a", ",", &none), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_EQ(list->nItem, 0);
}

} // namespace
