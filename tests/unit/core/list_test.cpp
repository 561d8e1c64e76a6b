#include <vunkcore/error.h>
#include <vunkcore/list.h>

#include <gtest/gtest.h>

#include <string>

namespace {

class ListTest : public testing::Test {
protected:
	ListTest() { VUNKCErrSetEx(0, "", 0); }
	~ListTest() override { VUNKCSzListFree(list); }

	VUNKSZLIST *list = VUNKCSzListAlloc(1024);
};

TEST_F(ListTest, GivesItsStringsBackInOrder)
{
	EXPECT_EQ(list->nItem, 0);
	for (int i = 1; i <= 3000; ++i)
		ASSERT_EQ(VUNKCSzListPush(&list, std::to_string(i).c_str()), i);
	ASSERT_EQ(list->nItem, 3000);
	for (int i = 0; i < 3000; ++i)
		ASSERT_EQ(VUNKCSzListGet(list, i), std::to_string(i + 1));
}

TEST_F(ListTest, CopiesWhatItIsGivenEvenOutOfItself)
{
	std::string text = "";
	EXPECT_EQ(VUNKCSzListPush(&list, text.c_str()), 1);
	text = "changed";
	EXPECT_STREQ(VUNKCSzListGet(list, 0), "");
	EXPECT_EQ(VUNKCSzListPush(&list, "one of some length that is kept elsewhere"), 2);
	for (int i = 3; i < 100; ++i)
		EXPECT_EQ(VUNKCSzListPush(&list, VUNKCSzListGet(list, 1)), i);
	EXPECT_STREQ(VUNKCSzListGet(list, 98), "one of some length that is kept elsewhere");
}

TEST_F(ListTest, RefusesWhatIsNullOrOutsideOfIt)
{
	VUNKSZLIST *none = nullptr;
	const auto refused = [](bool failed) {
		EXPECT_TRUE(failed);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
		VUNKCErrSetEx(0, "", 0);
	};
	VUNKCSzListPush(&list, "only");
	refused(VUNKCSzListAlloc(0) == nullptr);
	refused(VUNKCSzListGet(nullptr, 0) == nullptr);
	refused(VUNKCSzListGet(list, -1) == nullptr);
	refused(VUNKCSzListGet(list, 1) == nullptr);
	refused(VUNKCSzListPush(nullptr, "x") == -1);
	refused(VUNKCSzListPush(&none, "x") == -1);
	refused(VUNKCSzListPush(&list, nullptr) == -1);
	EXPECT_EQ(list->nItem, 1);
	VUNKCSzListFree(nullptr);
}

} // namespace
