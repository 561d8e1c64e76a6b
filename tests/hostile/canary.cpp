// Proves that the hostile platform bites: a pointer that is kept across a call that may move its object kills.

#include <vunkcore/hash.h>
#include <vunkcore/list.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(HostilePlatformDeathTest, KillsTheUserOfAValueThatWasKept)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	ASSERT_EQ(VUNKCSzHashSetValue(&hash, "a", "1"), 0);
	const char *kept = VUNKCSzHashGetValue(hash, "a");
	ASSERT_EQ(VUNKCSzHashSetValue(&hash, "b", "2"), 0);
	EXPECT_EXIT(exit(kept[0] == '1'), testing::KilledBySignal(SIGSEGV), "");
	VUNKCSzHashFree(hash);
}

TEST(HostilePlatformDeathTest, KillsTheUserOfAListThatHasMoved)
{
	VUNKSZLIST *list = VUNKCSzListAlloc(64);
	const VUNKSZLIST *kept = list;
	ASSERT_EQ(VUNKCSzListPush(&list, "a"), 1);
	EXPECT_EXIT(exit(kept->nItem), testing::KilledBySignal(SIGSEGV), "");
	VUNKCSzListFree(list);
}

TEST(HostilePlatform, DoesWhatTheRealOneDoes)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	for (int i = 0; i < 50; ++i)
		ASSERT_EQ(VUNKCSzHashSetValue(&hash, std::to_string(i % 40).c_str(), std::to_string(i).c_str()), 0);
	VUNKSZLIST *keys = VUNKCSzListAlloc(64);
	EXPECT_EQ(VUNKCSzHashEnumKey(hash, &keys), 40);
	EXPECT_EQ(keys->nItem, 40);
	EXPECT_STREQ(VUNKCSzListGet(keys, 7), "7");
	EXPECT_STREQ(VUNKCSzHashGetValue(hash, "7"), "47");
	VUNKCSzListFree(keys);
	VUNKCSzHashFree(hash);
}

} // namespace
