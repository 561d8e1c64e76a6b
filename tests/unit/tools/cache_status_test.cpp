#include "cache_status.h"

#include <zevotuned/metadata_cache.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr uint64_t kMiB = 1024 * 1024;

CacheFacts Facts(int status, uint64_t ranges, std::optional<bool> isOn, int engine = 0)
{
	CacheFacts facts;
	facts.path = "/volume1";
	facts.uuid = "01234567-89ab-cdef-0123-456789abcdef";
	facts.device = "/dev/mapper/vg1-volume1";
	facts.status = status;
	facts.isRecorded = ranges > 0;
	facts.recorded = ranges * kMiB;
	facts.metadata = facts.recorded;
	facts.ranges = ranges;
	facts.isOn = isOn;
	facts.engine = engine;
	return facts;
}

CacheFacts Pinning()
{
	CacheFacts facts = Facts(ZEVO_METADATA_CACHE_WORKING, 3, true, 42);
	facts.total = 200 * kMiB;
	facts.done = 50 * kMiB;
	return facts;
}

TEST(CacheState, IsWhatTheLibrarySaysWhileAnEngineWorks)
{
	EXPECT_EQ(StateOf(Pinning()), CacheState::kPinning);
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_PINNED, 3, true, 42)), CacheState::kPinned);
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false, 42)), CacheState::kUnpinning);
}

TEST(CacheState, OfAPassThatHasNotReportedYetIsPinning)
{
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_IDLE, 0, true, 42)), CacheState::kPinning);
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_IDLE, 3, true, 42)), CacheState::kPinning);
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_IDLE, 0, false, 42)), CacheState::kNothing);
}

TEST(CacheState, IsThatOfAPassWhichHasStoppedWhereNobodyIsAtIt)
{
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_IDLE, 3, true)), CacheState::kPinningStopped);
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false)), CacheState::kUnpinningStopped);
}

TEST(CacheState, IsNothingWhereNothingIsRecorded)
{
	EXPECT_EQ(StateOf(Facts(ZEVO_METADATA_CACHE_IDLE, 0, {})), CacheState::kNothing);
	CacheFacts empty = Facts(ZEVO_METADATA_CACHE_WORKING, 0, false);
	empty.isRecorded = true;
	EXPECT_EQ(StateOf(empty), CacheState::kNothing);
}

TEST(CacheState, IsUnderWayWhileSomebodyChangesWhatIsPinned)
{
	EXPECT_TRUE(IsUnderWay(Pinning()));
	EXPECT_TRUE(IsUnderWay(Facts(ZEVO_METADATA_CACHE_PINNED, 3, true, 42)));
	EXPECT_TRUE(IsUnderWay(Facts(ZEVO_METADATA_CACHE_IDLE, 0, false, 42)));
	EXPECT_FALSE(IsUnderWay(Facts(ZEVO_METADATA_CACHE_PINNED, 3, true)));
	EXPECT_FALSE(IsUnderWay(Facts(ZEVO_METADATA_CACHE_IDLE, 3, true)));
	EXPECT_FALSE(IsUnderWay(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false)));
}

TEST(CacheStateText, SaysWhatIsPinnedAndWhatToDo)
{
	const auto text = CacheStateText;
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 0, {})), "nothing is pinned");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 0, false)), "nothing is pinned");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 0, true)),
	          "nothing is pinned, although the switch is on; \"sudo zevotune cache rescan /volume1\" pins it, and "
	          "\"sudo zevotune cache check /volume1\" says whether that can be");
	EXPECT_EQ(text(Pinning()), "being pinned: 25%, 50 MiB of 200 MiB");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 3, true, 42)), "being pinned: 3 MiB in 3 ranges");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_PINNED, 3, true)), "pinned: 3 MiB in 3 ranges");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_PINNED, 3, false, 42)), "pinned: 3 MiB in 3 ranges");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_PINNED, 3, false)),
	          "pinned: 3 MiB in 3 ranges, although the switch is not on; \"sudo zevotune cache rescan /volume1\" "
	          "unpins it");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false, 42)), "being unpinned: 3 MiB in 3 ranges are left");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 1, true)),
	          "pinned in part, and nobody is at it: 1 MiB in 1 range; \"sudo zevotune cache rescan /volume1\" goes "
	          "on, "
	          "\"sudo zevotune cache off /volume1\" takes it back");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_IDLE, 1, false)),
	          "pinned in part, and nobody is at it: 1 MiB in 1 range; \"sudo zevotune cache rescan /volume1\" or "
	          "\"sudo zevotune cache off /volume1\" takes it back");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false)),
	          "unpinned in part, and nobody is at it: 3 MiB in 3 ranges are left; \"sudo zevotune cache rescan "
	          "/volume1\" goes on");
	EXPECT_EQ(text(Facts(ZEVO_METADATA_CACHE_WORKING, 3, true)),
	          "unpinned in part, and nobody is at it: 3 MiB in 3 ranges are left; \"sudo zevotune cache rescan "
	          "/volume1\" pins all of it again");
}

TEST(CacheStatusText, HasALineForEachThing)
{
	CacheFacts facts = Facts(ZEVO_METADATA_CACHE_PINNED, 3, true, 42);
	EXPECT_EQ(CacheStatusText(facts), "/volume1  on /dev/mapper/vg1-volume1\n"
	                                  "pinned: 3 MiB in 3 ranges\n"
	                                  "switch: on\n"
	                                  "engine: process 42\n");
	facts.limit = 100 * kMiB;
	facts.allocated = 5 * kMiB;
	facts.engine = 0;
	facts.isOn = false;
	EXPECT_THAT(CacheStatusText(facts),
	            HasSubstr("\nswitch: off\nengine: none\nlimit: 100 MiB of the SSD cache may be "
	                      "taken\n"));
	facts.isOn = std::nullopt;
	EXPECT_THAT(CacheStatusText(facts), HasSubstr("\nswitch: never set\n"));
	facts.path = "/a\n\x1B[2J";
	EXPECT_THAT(CacheStatusText(facts), Not(HasSubstr("\x1B")));
}

TEST(CacheStatusText, SaysWhatOfAPinnedVolumeIsNot)
{
	CacheFacts facts = Facts(ZEVO_METADATA_CACHE_PINNED, 3, true);
	const std::string line = "not pinned: 2 MiB of metadata, new since the last pass or beyond the limit; \"sudo "
				 "zevotune cache rescan /volume1\" pins what is new";
	EXPECT_EQ(NotPinnedText(facts), ""); // unknown
	facts.allocated = 5 * kMiB;
	EXPECT_EQ(NotPinnedText(facts), line);
	EXPECT_THAT(CacheStatusText(facts), HasSubstr("\npinned: 3 MiB in 3 ranges\n" + line + "\nswitch: on\n"));
	facts.allocated = 3 * kMiB;
	EXPECT_EQ(NotPinnedText(facts), "");
	facts.allocated = kMiB; // chunks have gone
	EXPECT_EQ(NotPinnedText(facts), "");
	facts = Facts(ZEVO_METADATA_CACHE_IDLE, 0, false);
	facts.allocated = 5 * kMiB;
	EXPECT_EQ(NotPinnedText(facts), "");
}

TEST(CacheStatusJson, HasEveryFact)
{
	CacheFacts facts = Pinning();
	facts.limit = 7;
	const Json::Value json = CacheStatusJson(facts);
	EXPECT_EQ(json.getMemberNames(),
	          (std::vector<std::string>{"device", "done", "engine_pid", "limit", "path", "pinned_ranges",
	                                    "pinned_size", "state", "switched_on", "total", "uuid"}));
	EXPECT_EQ(json["path"], "/volume1");
	EXPECT_EQ(json["uuid"], facts.uuid);
	EXPECT_EQ(json["device"], facts.device);
	EXPECT_EQ(json["state"], "pinning");
	EXPECT_EQ(json["switched_on"], true);
	EXPECT_EQ(json["engine_pid"].asInt(), 42);
	EXPECT_EQ(json["total"].asUInt64(), 200 * kMiB);
	EXPECT_EQ(json["done"].asUInt64(), 50 * kMiB);
	EXPECT_EQ(json["pinned_size"].asUInt64(), 3 * kMiB);
	EXPECT_EQ(json["pinned_ranges"].asUInt64(), 3U);
	EXPECT_EQ(json["limit"].asUInt64(), 7U);
}

TEST(CacheStatusJson, HasNullForWhatIsNotKnownOrNotThere)
{
	const Json::Value json = CacheStatusJson(Facts(ZEVO_METADATA_CACHE_IDLE, 0, {}));
	for (const char *name : {"switched_on", "engine_pid", "total", "done", "limit"})
		EXPECT_TRUE(json[name].isNull()) << name;
	EXPECT_EQ(json["state"], "nothing_pinned");
}

TEST(CacheStatusJson, NamesEveryState)
{
	const auto state = [](const CacheFacts &facts) { return CacheStatusJson(facts)["state"].asString(); };
	EXPECT_EQ(state(Facts(ZEVO_METADATA_CACHE_PINNED, 3, true)), "pinned");
	EXPECT_EQ(state(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false, 42)), "unpinning");
	EXPECT_EQ(state(Facts(ZEVO_METADATA_CACHE_IDLE, 3, true)), "pinning_stopped");
	EXPECT_EQ(state(Facts(ZEVO_METADATA_CACHE_WORKING, 3, false)), "unpinning_stopped");
}

TEST(CacheHints, NameAVolumeAsAShellTakesIt)
{
	EXPECT_EQ(ShellWord("/volume1"), "/volume1");
	EXPECT_EQ(ShellWord("/my volume"), "'/my volume'");
	EXPECT_EQ(ShellWord("/it's"), "'/it'\\''s'");
	EXPECT_EQ(ShellWord(""), "''");
	EXPECT_EQ(HowToFollow("/my volume"),
	          "\"zevotune cache status '/my volume' --watch\" follows it, \"sudo zevotune "
	          "cache stop '/my volume'\" ends it");
}

} // namespace
