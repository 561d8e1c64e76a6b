// The pin engine, killed at each of its system calls that change anything and around each run of the pin tool: nothing is ever
// pinned without a record, and the next pass reaches what it would have reached from there.
//
// ZEVOTUNED_SWEEP_AT=7 runs one position only.

#include "sweep/pin_model.h"

#include "btrfs_metadata_cache/pin_engine.h"

#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/slow_build.h"

#include <cstdlib>
#include <memory>
#include <ostream>

namespace {

using kit::PinVolume;
using model::Found;
using model::Situation;

constexpr char kNothing[] = "pinned \nswitch 0\nno mapping\n";

/// A pass to be killed in.
struct Pass {
	std::string name;
	Situation before;               // one whole pass is made in it, unless it may not pin
	int failingToolRun;             // of that pass, which ends there; 0: none
	Situation now;                  // the pass is made in it
	std::string reached;            // by it when nothing kills it
	std::vector<int> firstOfDouble; // positions of a first kill, before another one in the pass after it
};

void PrintTo(const Pass &pass, std::ostream *out)
{
	*out << pass.name;
}

Situation Off(Situation situation)
{
	situation.isSwitchedOn = false;
	return situation;
}

/// 73 blocks are to be pinned.
Situation Whole()
{
	return {.chunks = {{900, 2, 400},
	                   {1024, 16, 512},
	                   {1100, 8, 600, 700},
	                   {2048, 8, 800},
	                   {3000, 4, 900, 920},
	                   {4000, 8, 1000},
	                   {5000, 8, 1100},
	                   {6000, 2, 1200, 1210},
	                   {9000, 1, 1230}},
	        .isLarge = true};
}

constexpr char kWholeReached[] =
	"pinned 16+1 400+2 512+16 600+8 700+8 800+8 900+4 920+4 1000+8 1100+8 1200+2 1210+2 1230+1 16384+1\n"
	"switch 1\n"
	"mapping 2\n"
	"1 4096 at 65536\n"
	"2 4096 at 67108864\n"
	"3686400 8192 at 1638400\n"
	"4194304 65536 at 2097152\n"
	"4505600 32768 at 2457600 2867200\n"
	"8388608 32768 at 3276800\n"
	"12288000 16384 at 3686400 3768320\n"
	"16384000 32768 at 4096000\n"
	"20480000 32768 at 4505600\n"
	"24576000 8192 at 4915200 4956160\n"
	"36864000 4096 at 5038080\n";

/// The chunks at 1024 and 9000 have vanished, and a new one has the place of the first; 1100 is shorter, 2048 lies elsewhere. And
/// only 49 blocks may be pinned now: the superblock copies and the chunk at 900 have to go, and the one at 8000 does not fit in.
Situation Changed()
{
	return {.chunks = {{900, 2, 400},
	                   {1100, 4, 600, 700},
	                   {2048, 8, 1300},
	                   {3000, 4, 900, 920},
	                   {4000, 8, 1000},
	                   {5000, 8, 1100},
	                   {6000, 2, 1200, 1210},
	                   {7000, 4, 512},
	                   {8000, 2, 520}},
	        .isLarge = true,
	        .limit = 49 * PinVolume::kBlock};
}

constexpr char kChangedReached[] = "pinned 512+4 600+4 700+4 900+4 920+4 1000+8 1100+8 1200+2 1210+2 1300+8\n"
				   "switch 1\n"
				   "mapping 2\n"
				   "4505600 16384 at 2457600 2867200\n"
				   "8388608 32768 at 5324800\n"
				   "12288000 16384 at 3686400 3768320\n"
				   "16384000 32768 at 4096000\n"
				   "20480000 32768 at 4505600\n"
				   "24576000 8192 at 4915200 4956160\n"
				   "28672000 16384 at 2097152\n";

/// From the superblock copies and the first three chunks: less is recorded, so nothing has to go for the limit, and less new fits.
constexpr char kChangedHalfReached[] =
	"pinned 16+1 400+2 600+4 700+4 900+4 920+4 1000+8 1100+8 1200+2 1210+2 1300+8 16384+1\n"
	"switch 1\n"
	"mapping 2\n"
	"1 4096 at 65536\n"
	"2 4096 at 67108864\n"
	"3686400 8192 at 1638400\n"
	"4505600 16384 at 2457600 2867200\n"
	"8388608 32768 at 5324800\n"
	"12288000 16384 at 3686400 3768320\n"
	"16384000 32768 at 4096000\n"
	"20480000 32768 at 4505600\n"
	"24576000 8192 at 4915200 4956160\n";

std::vector<Pass> Passes()
{
	constexpr int kHalf = 6; // the second stripe of the chunk at 1100
	return {
		{"enabling", Off(Whole()), 0, Whole(), kWholeReached, {47, 200}},
		{"enabling_again", Whole(), kHalf, Whole(), kWholeReached, {31}},
		{"walking_again", Whole(), 0, Changed(), kChangedReached, {15, 90}},
		{"walking_again_half_done", Whole(), kHalf, Changed(), kChangedHalfReached, {52}},
		{"disabling", Whole(), 0, Off(Whole()), kNothing, {26}},
		{"disabling_half_done", Whole(), kHalf, Off(Whole()), kNothing, {33}},
	};
}

constexpr int kStep = kit::kIsSlowBuild ? 13 : 1; // from one position of a pass to the next

class PinKill : public kit::LabTest, public testing::WithParamInterface<Pass> {
protected:
	/// Up to the moment at which the pass begins.
	void Prepare()
	{
		volume.reset();
		kit::FreshMachine();
		volume = std::make_unique<PinVolume>();
		const Situation &before = GetParam().before;
		Apply(before, *volume);
		int run = 0;
		volume->tool.before = [&](const std::string &) { return ++run == GetParam().failingToolRun ? -1 : 0; };
		if (before.MayPin()) {
			EXPECT_EQ(__BtrfsMetadataCacheSet(volume->kPath), GetParam().failingToolRun == 0 ? 0 : -1);
		}
		volume->tool.before = nullptr;
		Apply(GetParam().now, *volume);
	}

	/// What a killed pass may leave that the next one does not clear away.
	static std::string StaysThere(const Situation &situation, const model::Mapping &before)
	{
		// A mapping file that was never written to is not written to when the volume is switched off: no writer comes
		// upon what the killed one left.
		const std::filesystem::path mapping = PinVolume::kMapping;
		const std::string half = '.' + mapping.filename().string() + ".new";
		const bool isLeft = !situation.MayPin() && before.exists && before.status.empty() &&
		                    std::filesystem::exists(mapping.parent_path() / half);
		return isLeft ? half : "";
	}

	/// A pass in a situation, and what it must have reached: all that is recorded is pinned.
	void MakeWholePass(const Situation &situation)
	{
		Apply(situation, *volume);
		const model::Mapping before = model::ReadMapping();
		const std::string reached = Reached(situation, before, PinnedBlocks(volume->tool));
		const std::string leftBehind = StaysThere(situation, before);
		journal.Clear();
		EXPECT_EQ(__BtrfsMetadataCacheSet(volume->kPath), 0);
		EXPECT_EQ(journal.Lines(), std::vector<std::string>());
		EXPECT_EQ(Found(*volume), reached);
		EXPECT_EQ(model::ReadMapping().Where(), PinnedBlocks(volume->tool));
		EXPECT_EQ(model::LeftBehind(), leftBehind);
	}

	void ExpectRecord() const { EXPECT_EQ(model::PinnedWithoutRecord(*volume), ""); }

	/// Kills the pass at a change. False when it got to its end, and has reached all then.
	bool PrepareAndKillAt(int n)
	{
		Prepare();
		const bool isKilled = model::KilledAt(n);
		ExpectRecord();
		if (!isKilled) {
			EXPECT_EQ(Found(*volume), GetParam().reached);
		}
		return isKilled;
	}

	std::unique_ptr<PinVolume> volume;
	kit::Journal journal;
};

TEST_P(PinKill, LeavesWhatTheNextPassGoesOnFrom)
{
	const char *only = getenv("ZEVOTUNED_SWEEP_AT");
	int points = 0;
	for (int n = only != nullptr ? atoi(only) : 1; PrepareAndKillAt(n); n += kStep) {
		SCOPED_TRACE(testing::Message() << "killed at change " << n);
		ASSERT_LT(n, 2000);
		MakeWholePass(GetParam().now);
		// The same kill, and the volume is switched off before the next pass.
		PrepareAndKillAt(n);
		MakeWholePass(Off(GetParam().now));
		EXPECT_EQ(Found(*volume), kNothing);
		if (only != nullptr || HasFailure())
			return;
		++points;
	}
	RecordProperty("kill_points", points);
	printf("kill points: %d\n", points);
}

TEST_P(PinKill, MayHappenAgainInTheNextPass)
{
	int points = 0;
	for (const int first : GetParam().firstOfDouble)
		for (const Situation &second : {GetParam().now, Off(GetParam().now)})
			for (int n = 1;; n += kStep) {
				SCOPED_TRACE(testing::Message()
				             << "killed at change " << first << ", then at change " << n
				             << (second.isSwitchedOn ? "" : " of a disabling pass"));
				ASSERT_TRUE(PrepareAndKillAt(first));
				Apply(second, *volume);
				if (!model::KilledAt(n))
					break;
				ExpectRecord();
				MakeWholePass(second);
				ASSERT_FALSE(HasFailure());
				++points;
			}
	RecordProperty("kill_points", points);
	printf("second kill points: %d\n", points);
}

INSTANTIATE_TEST_SUITE_P(, PinKill, testing::ValuesIn(Passes()), [](const auto &pass) { return pass.param.name; });

} // namespace
