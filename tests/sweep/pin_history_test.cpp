// Long lives of a volume, made up: its chunks, its cache and its settings change, and between the changes, and in the middle of
// them, the pin engine runs, undisturbed, killed, or with something failing. Nothing is ever pinned without a record, and a pass that
// nothing disturbs reaches what the model says.
//
// ZEVOTUNED_HISTORIES=100000 makes more of them; ZEVOTUNED_HISTORY_SEED=7 runs one and tells it.

#include "sweep/pin_model.h"

#include "btrfs_metadata_cache/pin_engine.h"

#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/nth_call.h"
#include "kit/slow_build.h"

#include <cstdlib>
#include <random>
#include <sstream>

namespace {

using kit::MetadataChunk;
using kit::PinVolume;
using model::Found;
using model::PinnedWithoutRecord;
using model::Situation;

constexpr int kHistories = kit::kIsSlowBuild ? 150 : 1500;
constexpr int kSteps = 12;

/// The same numbers from the same seed, whatever library it is built with.
class Dice {
public:
	explicit Dice(uint64_t seed) : engine(seed) {}

	uint64_t Below(uint64_t limit) { return engine() % limit; }
	uint64_t From(uint64_t first, uint64_t last) { return first + Below(last - first + 1); }
	bool OneIn(uint64_t n) { return Below(n) == 0; }
	/// From 1 to a power of two; small ones come up as often as large ones.
	int Position(unsigned log2) { return static_cast<int>(From(1, uint64_t{1} << From(1, log2))); }

	template <class T>
	const T &Of(const std::vector<T> &choices)
	{
		return choices[Below(choices.size())];
	}

private:
	std::mt19937_64 engine;
};

/// The chunks of a file system that works as Btrfs does in what matters here: a place on the device is given to one chunk at a time,
/// and again and again; one place has a copy of the superblock in its middle.
class ChunkSet {
public:
	explicit ChunkSet(Dice &its) : dice(its) {}

	const std::vector<MetadataChunk> &All() const { return chunks; }

	/// Makes one change.
	std::string Change()
	{
		switch (chunks.empty() ? 0 : dice.Below(chunks.size() > 9 ? 5 : 7)) {
		default:
			return Add(dice.OneIn(4) ? Between() : Behind());
		case 1:
		case 2:
			return Remove();
		case 3:
			return Resize();
		case 4:
			return dice.OneIn(2) ? Move() : Convert();
		}
	}

private:
	static constexpr uint64_t kSlotSize = 16;
	static constexpr uint64_t kFirstSlot = 8;
	static constexpr size_t kSlots = 1000; // up to the second superblock copy

	std::string Add(uint64_t offset)
	{
		if (offset == 0)
			return "no room for a chunk";
		MetadataChunk chunk = {offset, dice.From(1, std::min(kSlotSize, RoomAt(offset))), Place(), 0};
		if (dice.OneIn(2))
			chunk.secondStripe = Place();
		chunks.push_back(chunk);
		std::sort(chunks.begin(), chunks.end(), [](auto &a, auto &b) { return a.offset < b.offset; });
		highest = std::max(highest, offset + kSlotSize);
		return "add " + Name(chunk);
	}

	std::string Remove()
	{
		const size_t i = dice.Below(chunks.size());
		const MetadataChunk chunk = chunks[i];
		chunks.erase(chunks.begin() + static_cast<long>(i));
		Free(chunk);
		return "remove " + Name(chunk);
	}

	std::string Resize()
	{
		MetadataChunk &chunk = Any();
		chunk.size = dice.From(1, std::min(kSlotSize, RoomAt(chunk.offset)));
		return "resize to " + Name(chunk);
	}

	std::string Move()
	{
		MetadataChunk &chunk = Any();
		const MetadataChunk old = chunk;
		chunk.stripe = Place();
		if (chunk.secondStripe != 0)
			chunk.secondStripe = Place();
		Free(old);
		return "move to " + Name(chunk);
	}

	std::string Convert()
	{
		MetadataChunk &chunk = Any();
		if (chunk.secondStripe == 0) {
			chunk.secondStripe = Place();
		} else {
			isTaken[SlotOf(chunk.secondStripe)] = false;
			chunk.secondStripe = 0;
		}
		return "convert to " + Name(chunk);
	}

	MetadataChunk &Any() { return chunks[dice.Below(chunks.size())]; }

	uint64_t Behind() { return highest + dice.Below(8); }

	/// An address in a gap; 0 when none is found.
	uint64_t Between()
	{
		const uint64_t offset = dice.From(1, highest);
		for (const MetadataChunk &chunk : chunks)
			if (offset >= chunk.offset && offset < chunk.offset + chunk.size)
				return 0;
		return offset;
	}

	uint64_t RoomAt(uint64_t offset) const
	{
		for (const MetadataChunk &chunk : chunks)
			if (chunk.offset > offset)
				return chunk.offset - offset;
		return kSlotSize;
	}

	/// One of the first places that are free, so that they are used again and again.
	uint64_t Place()
	{
		std::vector<size_t> candidates;
		for (size_t i = 0; i < kSlots && candidates.size() < 4; ++i)
			if (!isTaken[i])
				candidates.push_back(i);
		const size_t chosen = dice.Of(candidates);
		isTaken[chosen] = true;
		return kFirstSlot + chosen * kSlotSize;
	}

	static size_t SlotOf(uint64_t place) { return (place - kFirstSlot) / kSlotSize; }

	void Free(const MetadataChunk &chunk)
	{
		for (const uint64_t stripe : {chunk.stripe, chunk.secondStripe})
			if (stripe != 0)
				isTaken[SlotOf(stripe)] = false;
	}

	static std::string Name(const MetadataChunk &chunk)
	{
		std::string name = std::to_string(chunk.offset) + '+' + std::to_string(chunk.size) + " at " +
		                   std::to_string(chunk.stripe);
		return chunk.secondStripe == 0 ? name : name + " and " + std::to_string(chunk.secondStripe);
	}

	Dice &dice;
	std::vector<MetadataChunk> chunks;
	std::vector<bool> isTaken = std::vector<bool>(kSlots);
	uint64_t highest = 256;
};

/// One volume's life.
class History {
public:
	explicit History(uint64_t seed) : dice(seed), chunks(dice)
	{
		volume.btrfs.hasLookup = dice.OneIn(2);
		for (uint64_t i = dice.Below(8); i > 0; --i)
			Tell(chunks.Change());
		Update();
	}

	void Live()
	{
		for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) {
			for (uint64_t changes = dice.Below(4); changes > 0; --changes)
				Change();
			Run();
			EXPECT_EQ(PinnedWithoutRecord(volume), "");
		}
		Tell("in the end:");
		RunWhole();
	}

	std::string Story() const { return story.str(); }

	/// Of all histories, so that none of the ways to run turns out not to happen.
	static inline std::map<std::string, int> counts;

private:
	void Tell(const std::string &what) { story << what << '\n'; }

	void Update()
	{
		situation.chunks = chunks.All();
		Apply(situation, volume);
	}

	void Change()
	{
		switch (dice.Below(12)) {
		default:
			Tell(chunks.Change());
			break;
		case 0:
			situation.limit = dice.Of<uint64_t>({0, 1, 10, 50, 80, 100, 100, 101});
			Tell("limit " + std::to_string(situation.limit));
			break;
		case 1:
			situation.limit = dice.Below(120) * PinVolume::kBlock;
			Tell("limit " + std::to_string(situation.limit));
			break;
		case 2:
			situation.cacheSize = dice.OneIn(3) ? uint64_t{1} << 30 : dice.Below(120) * PinVolume::kBlock;
			Tell("cache of " + std::to_string(situation.cacheSize));
			break;
		case 3:
			situation.isSwitchedOn = !situation.isSwitchedOn || dice.OneIn(2);
			Tell(situation.isSwitchedOn ? "switch on" : "switch off");
			break;
		case 5:
			situation.isConfiguredOn = !situation.isConfiguredOn || dice.OneIn(2);
			Tell(situation.isConfiguredOn ? "configure on" : "configure off");
			break;
		case 6:
			situation.hasCache = !situation.hasCache || dice.OneIn(2);
			situation.cacheMode = dice.Of<int>({1, 1, 1, 1, 4, 4, 5, 5, 0, 2, 3, 6});
			Tell(situation.hasCache ? "cache of mode " + std::to_string(situation.cacheMode) : "no cache");
			break;
		case 7:
			situation.isLarge = !situation.isLarge;
			Tell(situation.isLarge ? "large device" : "small device");
			break;
		}
		Update();
	}

	void Run()
	{
		switch (dice.Below(8)) {
		default:
			return RunWhole();
		case 0:
		case 1:
			return RunKilled();
		case 2:
			return RunFailing(kit::Calls::Platform, dice.Position(9));
		case 3:
			return RunFailing(kit::Calls::System, dice.Position(10));
		case 4:
			return RunWithFailingTool();
		case 5:
			return RunWithChange();
		}
	}

	int Pass()
	{
		const int result = __BtrfsMetadataCacheSet(PinVolume::kPath);
		Tell("  result " + std::to_string(result));
		return result;
	}

	/// Nothing disturbs it, and it reaches what it has to.
	void RunWhole()
	{
		Tell("run");
		ExpectReached([&] { EXPECT_EQ(Pass(), 0); });
	}

	template <class Run>
	void ExpectReached(Run run)
	{
		const std::string reached = Reached(situation, model::ReadMapping(), PinnedBlocks(volume.tool));
		journal.Clear();
		run();
		EXPECT_EQ(journal.Lines(), std::vector<std::string>());
		EXPECT_EQ(Found(volume), reached);
		EXPECT_FALSE(std::filesystem::exists(PinVolume::kPid));
		EXPECT_TRUE(IsUnlocked(PinVolume::kLock));
		++counts[situation.MayPin() ? "pinned" : "unpinned"];
		if (model::ReadMapping().Where() != PinnedBlocks(volume.tool))
			++counts["taken at their word"];
	}

	void RunKilled()
	{
		const int n = dice.Position(8);
		Tell("run, killed at change " + std::to_string(n));
		const std::string reached = Reached(situation, model::ReadMapping(), PinnedBlocks(volume.tool));
		if (model::KilledAt(n)) {
			++counts["killed"];
			return;
		}
		Tell("  which it has not");
		EXPECT_EQ(Found(volume), reached);
	}

	void RunFailing(kit::Calls calls, int n)
	{
		const kit::NthCall nth(calls, n);
		Tell((calls == kit::Calls::System ? "run, system call " : "run, platform call ") + std::to_string(n) +
		     " fails");
		Pass();
		if (!nth.Struck())
			return;
		Tell("  " + nth.Function());
		++counts[calls == kit::Calls::System ? "system call failed" : "platform call failed"];
	}

	/// One run of the tool fails, and may have done what it should all the same.
	void RunWithFailingTool()
	{
		int countdown = dice.Position(4);
		const bool doesIt = dice.OneIn(2);
		Tell("run, run " + std::to_string(countdown) + " of the tool fails" + (doesIt ? ", and did it" : ""));
		volume.tool.before = [&](const std::string &line) {
			if (countdown == 0 || --countdown != 0)
				return 0;
			std::istringstream words(line);
			if (doesIt)
				volume.tool.Run("/usr/zevo/sbin/zevocachepinfiletool", 0xBB,
				                {std::istream_iterator<std::string>(words), {}});
			++counts["tool failed"];
			return -1;
		};
		const int result = Pass();
		EXPECT_EQ(result, countdown == 0 ? -1 : 0);
		volume.tool.before = nullptr;
	}

	/// Something changes at one of the moments at which the engine turns to the tool or to the file system. It starts over, or
	/// not: what it has reached then is right or is set right by the next pass.
	void RunWithChange()
	{
		int countdown = dice.Position(5);
		const int resultOfTool = dice.OneIn(2) ? 1 : -1; // when there is nothing any more that it could pin in
		const auto change = [&] {
			if (countdown == 0 || --countdown != 0)
				return;
			const kit::Uncounted itsOwnCalls;
			Change();
			++counts["changed meanwhile"];
		};
		Tell("run, and at moment " + std::to_string(countdown) + ":");
		const bool wasThere = HasCache();
		volume.btrfs.before = [&](unsigned long, void *) { change(); };
		volume.tool.before = [&](const std::string &) {
			change();
			return HasCache() ? 0 : resultOfTool;
		};
		journal.Clear();
		const int result = Pass();
		volume.btrfs.before = nullptr;
		volume.tool.before = nullptr;
		if (wasThere == HasCache()) {
			EXPECT_EQ(result, 0);
			EXPECT_EQ(journal.Lines(), std::vector<std::string>());
		}
		EXPECT_EQ(PinnedWithoutRecord(volume), "");
		if (dice.OneIn(2))
			RunWhole();
	}

	bool HasCache() const { return volume.storage.caches.contains(PinVolume::kPath) && situation.cacheMode != 6; }

	Dice dice;
	PinVolume volume;
	kit::Journal journal;
	ChunkSet chunks;
	Situation situation;
	std::ostringstream story;
};

class PinHistory : public kit::LabTest {
protected:
	void Live(uint64_t seed, bool isTold)
	{
		kit::FreshMachine();
		History history(seed);
		history.Live();
		if (isTold || HasFailure())
			printf("ZEVOTUNED_HISTORY_SEED=%lu\n%s", static_cast<unsigned long>(seed),
			       history.Story().c_str());
	}
};

TEST_F(PinHistory, EndsWhereTheModelSays)
{
	if (const char *const seed = getenv("ZEVOTUNED_HISTORY_SEED")) {
		Live(strtoull(seed, nullptr, 10), true);
		return;
	}
	const char *const wanted = getenv("ZEVOTUNED_HISTORIES");
	const int histories = wanted != nullptr ? atoi(wanted) : kHistories;
	History::counts.clear();
	for (int seed = 1; seed <= histories && !HasFailure(); ++seed)
		Live(static_cast<uint64_t>(seed), false);
	for (const auto &[way, count] : History::counts)
		printf("%s: %d\n", way.c_str(), count);
	for (const char *const way : {"pinned", "unpinned", "killed", "platform call failed", "system call failed",
	                              "tool failed", "changed meanwhile"})
		EXPECT_GT(History::counts[way], 0) << way << " has never come up";
}

} // namespace
