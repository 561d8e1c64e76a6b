#include "cache_support.h"

#include <zevostorage/flash_cache.h>
#include <zevotuned/metadata_cache.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

CacheSupport Support(int reason = 0)
{
	CacheSupport support;
	support.path = "/volume1";
	support.device = "/dev/mapper/vg1-volume1";
	support.reason = reason;
	support.cache = "vg1-cache";
	support.cacheMode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK;
	support.cacheSize = 256ULL << 30;
	support.attribute = "/sys/fs/btrfs/UUID/metadata_cache_enable";
	return support;
}

TEST(CacheReasons, EachSaysWhatIsInTheWayAndWhatToDo)
{
	EXPECT_EQ(WhyNot(Support()), "");
	EXPECT_THAT(WhyNot(Support(ZEVO_METADATA_CACHE_MODE_UNKNOWN)),
	            AllOf(StartsWith("its SSD cache \"vg1-cache\" is in a mode that is not known"),
	                  HasSubstr("see what its own tools say of it")));
	EXPECT_THAT(WhyNot(Support(ZEVO_METADATA_CACHE_NO_SSD_CACHE)),
	            AllOf(StartsWith("its SSD cache \"vg1-cache\" is being taken away"),
	                  HasSubstr("; attach one to /dev/mapper/vg1-volume1")));
	EXPECT_THAT(WhyNot(Support(ZEVO_METADATA_CACHE_CANNOT_PIN)),
	            AllOf(StartsWith("its SSD cache \"vg1-cache\" cannot pin"), HasSubstr("0x4 and 0x2")));
	EXPECT_THAT(
		WhyNot(Support(ZEVO_METADATA_CACHE_CANNOT_PIN_RANGES)),
		AllOf(StartsWith("its SSD cache \"vg1-cache\" pins files, but no ranges"), HasSubstr("0x4 and 0x2")));
	EXPECT_THAT(WhyNot(Support(ZEVO_METADATA_CACHE_SWITCHED_OFF)),
	            AllOf(StartsWith("\"btrfs_metadata_cache_on\" in /usr/zevo/etc/zevotuned/config is not \"true\""),
	                  HasSubstr("run \"sudo zevotune config set btrfs_metadata_cache_on true\"")));
	EXPECT_THAT(WhyNot(Support(ZEVO_METADATA_CACHE_NOT_BTRFS)),
	            AllOf(StartsWith("it is not a Btrfs volume"), HasSubstr("\"zevotune devices\" lists the volumes")));
}

TEST(CacheReasons, DependOnWhatTheCacheIsDoing)
{
	CacheSupport support = Support(ZEVO_METADATA_CACHE_NOT_READY);
	support.cacheMode = ZEVO_FLASH_CACHE_MODE_ASSEMBLING;
	EXPECT_EQ(WhyNot(support),
	          "its SSD cache \"vg1-cache\" is still being assembled; try again when it is in service");
	support.cacheMode = ZEVO_FLASH_CACHE_MODE_FAULTY;
	EXPECT_EQ(WhyNot(support), "its SSD cache \"vg1-cache\" is faulty and out of service; repair it first");
	support = Support(ZEVO_METADATA_CACHE_NO_SSD_CACHE);
	support.cache.clear();
	EXPECT_THAT(WhyNot(support), StartsWith("no SSD cache stands in front of it"));
}

TEST(CacheReasons, AreAllDifferent)
{
	std::set<std::string> texts;
	for (int reason = ZEVO_METADATA_CACHE_MODE_UNKNOWN; reason <= ZEVO_METADATA_CACHE_NOT_BTRFS; ++reason)
		texts.insert(WhyNot(Support(reason)));
	EXPECT_EQ(texts.size(), 7U);
}

TEST(CacheReasons, AreAlsoThoseThatTheLibraryDoesNotLookAt)
{
	CacheSupport support = Support();
	support.hasAttribute = false;
	EXPECT_THAT(WhyNot(support), StartsWith("this kernel has no /sys/fs/btrfs/UUID/metadata_cache_enable, "));
	support.devices = 2;
	EXPECT_THAT(WhyNot(support), StartsWith("it lies on 2 devices"));
	support.reason = ZEVO_METADATA_CACHE_SWITCHED_OFF;
	EXPECT_THAT(WhyNot(support), HasSubstr("btrfs_metadata_cache_on"));
	support.devices = 0; // cannot be told
	support.reason = 0;
	support.hasAttribute = true;
	EXPECT_EQ(WhyNot(support), "");
}

TEST(CacheCheck, SaysYes)
{
	EXPECT_TRUE(IsSupported(Support()));
	EXPECT_EQ(CacheSupportText(Support()),
	          "/volume1: its metadata can be pinned, in the SSD cache \"vg1-cache\" of 256 GiB\n");
	const Json::Value json = CacheSupportJson(Support());
	EXPECT_EQ(json["supported"], true);
	EXPECT_EQ(json["can_pin"], true);
	EXPECT_TRUE(json["reason"].isNull());
	EXPECT_TRUE(json["why"].isNull());
	EXPECT_EQ(json["ssd_cache"], "vg1-cache");
}

TEST(CacheCheck, SaysNoWithTheReason)
{
	const CacheSupport support = Support(ZEVO_METADATA_CACHE_CANNOT_PIN);
	EXPECT_FALSE(IsSupported(support));
	EXPECT_EQ(CacheSupportText(support), "/volume1: its metadata cannot be pinned: " + WhyNot(support) + '\n');
	const Json::Value json = CacheSupportJson(support);
	EXPECT_EQ(json["supported"], false);
	EXPECT_EQ(json["can_pin"], false);
	EXPECT_EQ(json["reason"].asInt(), 4);
	EXPECT_EQ(json["why"], WhyNot(support));
}

TEST(CacheCheck, SaysYesToWhatIsSwitchedOnButNotThatItCanBePinned)
{
	CacheSupport support = Support(ZEVO_METADATA_CACHE_NO_SSD_CACHE);
	support.isSwitchedOn = true;
	support.cache.clear();
	EXPECT_TRUE(IsSupported(support));
	EXPECT_EQ(CacheSupportText(support), "/volume1: the cache is switched on, but nothing can be "
	                                     "pinned now: " +
	                                             WhyNot(support) + '\n');
	const Json::Value json = CacheSupportJson(support);
	EXPECT_EQ(json["supported"], true);
	EXPECT_EQ(json["can_pin"], false);
	EXPECT_TRUE(json["ssd_cache"].isNull());
}

} // namespace
