#include "btrfs_metadata_cache/merge_walk.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using Chunks = std::vector<chunk_info>;

// "c" is a chunk of one stripe, "C" one at the same place in another shape; a recorded one that was not read has a "?" at its end.
chunk_info Chunk(unsigned long long offset, char shape, int status = 1)
{
	return {offset, 4096, shape == 'c' ? 1ULL : 2ULL, {65536, 131072}, status};
}

// "1c 2C?"
Chunks Parse(const std::string &text)
{
	Chunks chunks;
	for (size_t i = 0; i < text.size(); ++i) {
		if (text[i] == ' ')
			continue;
		const bool isUnread = i + 2 < text.size() && text[i + 2] == '?';
		chunks.push_back(Chunk(static_cast<unsigned long long>(text[i] - '0'), text[i + 1], isUnread ? 0 : 1));
		i += isUnread ? 2 : 1;
	}
	return chunks;
}

std::string Name(const chunk_info &chunk)
{
	return std::to_string(chunk.offset) + (chunk.stripe_count == 1 ? "c" : "C");
}

// Writes down what it is asked for, one letter for each: r(emove) a(dd) l(oad) p(ass) ?(may it go on). It fails, or ends the walk, at
// an action of its own choice.
class Recording final : public PinActions {
public:
	explicit Recording(Chunks its) : chunks(std::move(its)) {}

	int Next(chunk_info &chunk) override
	{
		++fetches;
		if (fetches == failingFetch)
			return -1;
		// By what it is given, as the kernel is asked by an address.
		for (const chunk_info &candidate : chunks)
			if (candidate.offset > chunk.offset) {
				chunk = candidate;
				chunk.status = 0; // which only a record has
				return 0;
			}
		return 1;
	}
	bool IsOverLimit() const override { return total > limit; }
	int Remove(const chunk_info &recorded) override
	{
		total -= static_cast<int>(recorded.stripe_count);
		return Act("r" + Name(recorded));
	}
	int Add(const chunk_info &chunk) override
	{
		total += static_cast<int>(chunk.stripe_count);
		return Act("a" + Name(chunk));
	}
	int Preload(const chunk_info &recorded) override { return Act("l" + Name(recorded)); }
	int Pass(const chunk_info &chunk) override { return Act("p" + Name(chunk)); }
	int MayGoOn() override
	{
		const bool fails = Act("?") != 0;
		return fails ? -1 : ++questions == lastQuestion ? 0 : 1;
	}

	std::string log;
	int total = 0; // of what is recorded, in stripes
	int limit = 1000;
	int fetches = 0;
	int failingFetch = -1;
	int failingAction = -1;
	int lastQuestion = -1;
	int actions = 0;

private:
	int Act(const std::string &what)
	{
		log += (log.empty() ? "" : " ") + what;
		return ++actions == failingAction ? -1 : 0;
	}

	const Chunks chunks;
	int questions = 0;
};

int StripesOf(const Chunks &chunks)
{
	int count = 0;
	for (const chunk_info &chunk : chunks)
		count += static_cast<int>(chunk.stripe_count);
	return count;
}

TEST(MergeWalk, BringsTheRecordsToWhatTheVolumeHas)
{
	const struct {
		const char *recorded;
		const char *volume;
		const char *expected;
	} rows[] = {
		{"", "", ""},
		{"", "1c", "a1c ?"},
		{"", "1c 2C", "a1c ? a2C ?"},
		{"1c", "", "r1c"},
		{"1c 2C?", "", "r1c r2C"},
		{"1c", "1c", "p1c"},
		{"1c?", "1c", "l1c ?"},
		{"1C", "1c", "r1C a1c ?"}, // has become smaller
		{"1c?", "1C", "r1c a1C ?"},
		{"1c", "2c", "r1c a2c ?"},
		{"2c", "1c", "a1c ? r2c"},
		{"2c", "1c 2c", "a1c ? p2c"}, // the record is kept while others are added before it
		{"3c", "1c 2c 3c", "a1c ? a2c ? p3c"},
		{"1c 2c", "2c", "r1c p2c"}, // the chunk is kept while records before it are removed
		{"1c 2c 3c", "3c", "r1c r2c p3c"},
		{"1c 2c? 3c 4C", "1c 2c 4c", "p1c l2c ? r3c r4C a4c ?"},
		{"1c 3c", "2c 4c", "r1c a2c ? r3c a4c ?"},
		{"1c", "1c 2c 3c", "p1c a2c ? a3c ?"},
		{"1c 2c 3c", "1c", "p1c r2c r3c"},
		{"0c?", "1c", "r0c a1c ?"}, // of no chunk that there can be
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.recorded) + " | " + row.volume);
		Recording actions(Parse(row.volume));
		EXPECT_EQ(WalkChunks(Parse(row.recorded), actions), 0);
		EXPECT_EQ(actions.log, row.expected);
	}
}

TEST(MergeWalk, RemovesWhatIsThereWhileMoreIsRecordedThanMayBe)
{
	const struct {
		const char *recorded;
		const char *volume;
		int limit;
		const char *expected;
	} rows[] = {
		{"1c 2c 3c", "1c 2c 3c", 3, "p1c p2c p3c"}, // as much as may be is not too much
		{"1c 2c 3c", "1c 2c 3c", 2, "r1c p1c p2c p3c"},
		{"1c 2c 3c", "1c 2c 3c", 0, "r1c p1c r2c p2c r3c p3c"},
		{"1C? 2c", "1C 2c", 2, "r1C p1C p2c"},   // nor is it read before
		{"1c 2c?", "1c 2c", 1, "r1c p1c l2c ?"}, // what is left is treated as ever
		{"1c 2c", "2c", 1, "r1c p2c"},
		{"1c", "1c", -1, "r1c p1c"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.recorded) + " | " + row.volume + " of " + std::to_string(row.limit));
		const Chunks recorded = Parse(row.recorded);
		Recording actions(Parse(row.volume));
		actions.total = StripesOf(recorded);
		actions.limit = row.limit;
		EXPECT_EQ(WalkChunks(recorded, actions), 0);
		EXPECT_EQ(actions.log, row.expected);
	}
}

TEST(MergeWalk, AsksForTheFirstChunkWithOneThatIsAllZero)
{
	class First final : public PinActions {
	public:
		int Next(chunk_info &chunk) override
		{
			first = first.value_or(chunk);
			return 1;
		}
		bool IsOverLimit() const override { return false; }
		int Remove(const chunk_info &) override { return -1; }
		int Add(const chunk_info &) override { return -1; }
		int Preload(const chunk_info &) override { return -1; }
		int Pass(const chunk_info &) override { return -1; }
		int MayGoOn() override { return -1; }

		std::optional<chunk_info> first;
	};
	First actions;
	EXPECT_EQ(WalkChunks({}, actions), 0);
	ASSERT_TRUE(actions.first.has_value());
	EXPECT_EQ(actions.first->offset, 0u);
	EXPECT_EQ(actions.first->size, 0u);
	EXPECT_EQ(actions.first->stripe_count, 0u);
	EXPECT_EQ(actions.first->stripe_offset[0], 0u);
	EXPECT_EQ(actions.first->stripe_offset[1], 0u);
	EXPECT_EQ(actions.first->status, 0);
}

TEST(MergeWalk, DoesNotAskAgainAfterTheLastChunk)
{
	Recording actions(Parse("1c 2c"));
	EXPECT_EQ(WalkChunks(Parse("1c 3c 4c"), actions), 0);
	EXPECT_EQ(actions.fetches, 3);
}

TEST(MergeWalk, FailsWhereTheChunksCannotBeFound)
{
	const char *const expected[] = {"", "r1c a2c ?", "r1c a2c ? l3c ?"};
	for (int nth = 1; nth <= 3; ++nth) {
		Recording actions(Parse("2c 3c"));
		actions.failingFetch = nth;
		EXPECT_EQ(WalkChunks(Parse("1c 3c? 4c"), actions), -1);
		EXPECT_EQ(actions.log, expected[nth - 1]); // and what is recorded behind it stays
		EXPECT_EQ(actions.fetches, nth);
	}
}

// Every action of a walk that has all of them fails in turn, and is the last one.
TEST(MergeWalk, EndsAtTheFirstActionThatFails)
{
	const Chunks recorded = Parse("1c 2c 3c? 4c 5c 7c");
	const std::string whole = "r1c p1c p2c l3c ? r4c a4C ? r5c a6c ? r7c";
	const auto walk = [&](int failing, std::string &log) {
		Recording actions(Parse("1c 2c 3c 4C 6c"));
		actions.total = StripesOf(recorded);
		actions.limit = actions.total - 1;
		actions.failingAction = failing;
		const int result = WalkChunks(recorded, actions);
		log = actions.log;
		return result;
	};
	std::string log;
	ASSERT_EQ(walk(-1, log), 0);
	ASSERT_EQ(log, whole);
	int nth = 1;
	for (size_t end = whole.find(' ');; end = whole.find(' ', end + 1), ++nth) {
		EXPECT_EQ(walk(nth, log), -1);
		EXPECT_EQ(log, whole.substr(0, end));
		if (end == std::string::npos)
			break;
	}
	EXPECT_EQ(nth, 12);
}

TEST(MergeWalk, EndsWithSuccessWhereItMayNotGoOn)
{
	const std::string whole = "a1c ? l2c ? r3c a3C ? a4c ?";
	const std::string expected[] = {"a1c ?", "a1c ? l2c ?", "a1c ? l2c ? r3c a3C ?", whole};
	for (int nth = 1; nth <= 4; ++nth) {
		Recording actions(Parse("1c 2c 3C 4c"));
		actions.lastQuestion = nth;
		EXPECT_EQ(WalkChunks(Parse("2c? 3c 5c"), actions), 0);
		EXPECT_EQ(actions.log, expected[nth - 1]); // 5c stays recorded
		EXPECT_EQ(actions.fetches, nth);
	}
}

// A model that looks at each offset on its own instead of walking.
std::string Expected(const Chunks &recorded, const Chunks &volume, int limit)
{
	int total = StripesOf(recorded);
	std::string log;
	const auto act = [&](const std::string &what) { log += (log.empty() ? "" : " ") + what; };
	for (unsigned long long offset = 1; offset <= 4; ++offset) {
		const chunk_info *record = nullptr;
		const chunk_info *chunk = nullptr;
		for (const chunk_info &candidate : recorded)
			record = candidate.offset == offset ? &candidate : record;
		for (const chunk_info &candidate : volume)
			chunk = candidate.offset == offset ? &candidate : chunk;
		const bool isSame = record != nullptr && chunk != nullptr && Name(*record) == Name(*chunk);
		if (record != nullptr && (!isSame || total > limit)) {
			act("r" + Name(*record));
			total -= static_cast<int>(record->stripe_count);
			if (isSame)
				act("p" + Name(*chunk));
		} else if (isSame) {
			act(record->status == 1 ? "p" + Name(*chunk) : "l" + Name(*chunk) + " ?");
		}
		if (chunk != nullptr && !isSame) {
			act("a" + Name(*chunk) + " ?");
			total += static_cast<int>(chunk->stripe_count);
		}
	}
	return log;
}

// Chunks at the offsets 1 to 4, of which `number` tells, in the base `kinds`, what is there: nothing, "c", "C", and of records the same
// unread.
Chunks Sequence(int number, int kinds)
{
	Chunks chunks;
	for (unsigned long long offset = 1; offset <= 4; ++offset, number /= kinds)
		if (const int kind = number % kinds; kind != 0)
			chunks.push_back(Chunk(offset, kind % 2 == 1 ? 'c' : 'C', kind <= 2 ? 1 : 0));
	return chunks;
}

TEST(MergeWalk, DoesWithEverySmallPairOfSequencesWhatAModelDoes)
{
	constexpr int kOfRecords = 5;
	constexpr int kOfChunks = 3;
	int pairs = 0;
	for (int record = 0; record < kOfRecords * kOfRecords * kOfRecords * kOfRecords; ++record)
		for (int chunk = 0; chunk < kOfChunks * kOfChunks * kOfChunks * kOfChunks; ++chunk)
			for (const int limit : {0, 2, 1000}) {
				const Chunks recorded = Sequence(record, kOfRecords);
				const Chunks volume = Sequence(chunk, kOfChunks);
				Recording actions(volume);
				actions.total = StripesOf(recorded);
				actions.limit = limit;
				ASSERT_EQ(WalkChunks(recorded, actions), 0);
				ASSERT_EQ(actions.log, Expected(recorded, volume, limit))
					<< "records " << record << ", chunks " << chunk << ", limit " << limit;
				++pairs;
			}
	EXPECT_EQ(pairs, 625 * 81 * 3);
}

} // namespace
