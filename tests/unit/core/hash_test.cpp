#include <vunkcore/error.h>
#include <vunkcore/hash.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

class HashTest : public testing::Test {
protected:
	HashTest() { VUNKCErrSetEx(0, "", 0); }
	~HashTest() override
	{
		VUNKCSzHashFree(hash);
		VUNKCSzListFree(list);
	}

	std::vector<std::string> Keys()
	{
		VUNKSZLIST *keys = VUNKCSzListAlloc(1);
		const int count = VUNKCSzHashEnumKey(hash, &keys);
		std::vector<std::string> all;
		for (int i = 0; i < keys->nItem; ++i)
			all.emplace_back(VUNKCSzListGet(keys, i));
		VUNKCSzListFree(keys);
		EXPECT_EQ(count, static_cast<int>(all.size()));
		return all;
	}

	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	VUNKSZLIST *list = VUNKCSzListAlloc(1024);
};

TEST_F(HashTest, KeepsItsKeysInTheOrderInWhichTheyCame)
{
	EXPECT_TRUE(Keys().empty());
	for (const char *key : {"zebra", "ant", "", "mole"})
		EXPECT_EQ(VUNKCSzHashSetValue(&hash, key, "1"), 0);
	EXPECT_EQ(VUNKCSzHashSetValue(&hash, "ant", "2"), 0);
	EXPECT_EQ(Keys(), (std::vector<std::string>{"zebra", "ant", "", "mole"}));
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, "ant"), "2");
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, ""), "1");
}

TEST_F(HashTest, TellsAnEmptyValueFromNoneAndTakesNoneForNoFailure)
{
	EXPECT_EQ(VUNKCSzHashSetValue(&hash, "key", ""), 0);
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, "key"), "");
	EXPECT_EQ(VUNKCSzHashGetValue(hash, "Key"), nullptr);
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(HashTest, CopiesWhatItIsGivenEvenOutOfItself)
{
	std::string value = "old";
	EXPECT_EQ(VUNKCSzHashSetValue(&hash, "key", value.c_str()), 0);
	value = "new";
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, "key"), "old");
	EXPECT_EQ(VUNKCSzHashSetValue(&hash, "key", VUNKCSzHashGetValue(hash, "key") + 1), 0);
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, "key"), "ld");
}

TEST_F(HashTest, HoldsManyKeysOfAnyLength)
{
	for (int i = 0; i < 5000; ++i)
		ASSERT_EQ(VUNKCSzHashSetValue(
				  &hash, (std::string(static_cast<size_t>(i % 90), 'k') + std::to_string(i)).c_str(),
				  std::to_string(i).c_str()),
		          0);
	const std::vector<std::string> keys = Keys();
	ASSERT_EQ(keys.size(), 5000u);
	for (int i = 0; i < 5000; ++i)
		ASSERT_EQ(VUNKCSzHashGetValue(hash, keys[static_cast<size_t>(i)].c_str()), std::to_string(i));
}

TEST_F(HashTest, AppendsItsKeysToWhatAListHolds)
{
	VUNKCSzListPush(&list, "first");
	VUNKCSzHashSetValue(&hash, "key", "value");
	EXPECT_EQ(VUNKCSzHashEnumKey(hash, &list), 1);
	EXPECT_EQ(list->nItem, 2);
	EXPECT_STREQ(VUNKCSzListGet(list, 1), "key");
}

TEST_F(HashTest, RefusesWhatIsNull)
{
	VUNKSZHASH *noHash = nullptr;
	VUNKSZLIST *noList = nullptr;
	const auto refused = [](bool failed) {
		EXPECT_TRUE(failed);
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
		VUNKCErrSetEx(0, "", 0);
	};
	refused(VUNKCSzHashAlloc(0) == nullptr);
	refused(VUNKCSzHashAlloc(-1) == nullptr);
	refused(VUNKCSzHashGetValue(nullptr, "key") == nullptr);
	refused(VUNKCSzHashGetValue(hash, nullptr) == nullptr);
	refused(VUNKCSzHashSetValue(nullptr, "key", "value") == -1);
	refused(VUNKCSzHashSetValue(&noHash, "key", "value") == -1);
	refused(VUNKCSzHashSetValue(&hash, nullptr, "value") == -1);
	refused(VUNKCSzHashSetValue(&hash, "key", nullptr) == -1);
	refused(VUNKCSzHashEnumKey(nullptr, &list) == -1);
	refused(VUNKCSzHashEnumKey(hash, nullptr) == -1);
	refused(VUNKCSzHashEnumKey(hash, &noList) == -1);
	EXPECT_TRUE(Keys().empty());
	VUNKCSzHashFree(nullptr);
}

} // namespace
