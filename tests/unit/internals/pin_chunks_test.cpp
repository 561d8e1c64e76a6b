#include "btrfs_metadata_cache/pin_chunks.h"

#include "unit/internals/pin_pass_test.h"

#include <algorithm>
#include <optional>

namespace {

constexpr uint64_t kBlock = kit::PinVolume::kBlock;

/// What the enumerator finds, and what it has been asked for.
struct Found {
	std::vector<chunk_info> chunks;
	int end = 1;
	std::vector<std::string> asked = {};
};

Found found;

/// The first chunk behind the one that it is given.
int Next(const char *szVolPath, const char *szDevPath, chunk_info *pChunk, int)
{
	found.asked.push_back(std::string(szVolPath) + " " + szDevPath + " " + std::to_string(pChunk->offset));
	const size_t index = found.asked.size() - 1;
	if (index >= found.chunks.size())
		return found.end;
	*pChunk = found.chunks[index];
	return 0;
}

class PinChunksTest : public PinPassTest {
protected:
	PinChunksTest()
	{
		found = {};
		context.ullMaxUsedSizeLimit = 1 << 30;
		context.ullCacheSize = 1 << 30;
		strcpy(context.szUuid, volume.kUuid);
	}

	static chunk_info Chunk(uint64_t offset, uint64_t size, uint64_t stripe, uint8_t status = 0)
	{
		return {offset * kBlock, size * kBlock, 1, {stripe * kBlock, 0}, status};
	}

	/// Walks over what is recorded, with the mapping file to it.
	int Walk(const std::vector<chunk_info> &recorded)
	{
		std::string text = Config("2", 1 << 30);
		context.totalMetadataCacheSize = 0;
		context.pinned = {};
		for (const chunk_info &chunk : recorded) {
			text += Record(chunk.offset, chunk.status, chunk.size / kBlock,
			               {chunk.stripe_offset[0] / kBlock});
			context.totalMetadataCacheSize += chunk.size;
		}
		context.ullMaxUsedSize = 1 << 30;
		WriteMapping(text);
		Forget();
		return PinChunks(context, volume.kPath, volume.kDevice, volume.kMapping.c_str(), Next, recorded);
	}

	MetadataCacheContext context = {};
};

TEST_F(PinChunksTest, AsksForTheChunkBehindTheLastOneUntilThereIsNone)
{
	found.chunks = {Chunk(100, 4, 500), Chunk(200, 4, 600)};
	EXPECT_EQ(Walk({}), 0);
	EXPECT_EQ(found.asked,
	          (Lines{Of("{volume} {device} 0"), Of("{volume} {device} 409600"), Of("{volume} {device} 819200")}));
	EXPECT_EQ(volume.tool.Pinned(), "500+4 600+4");
	EXPECT_EQ(context.fRestart, 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinChunksTest, DoesWhatEachPairOfChunksCallsFor)
{
	const chunk_info chunk = Chunk(100, 4, 500, 1);
	const Lines remove = {"modify [409600]", "--unset-bitmap 4000 32", "--unpin-range 4000 32", "remove [409600]"};
	const auto add = [](const std::string &section, const std::string &range, const std::string &bytes) {
		return Lines{"add [" + section + "]", "--set-bitmap " + range, "pread /run/volume1-device " + bytes,
		             "modify [" + section + "]", "check"};
	};
	const Lines other = add("819200", "8000 32", "4096000+16384");
	const struct {
		const char *what;
		std::vector<chunk_info> recorded;
		std::vector<chunk_info> chunks;
		Lines steps;
	} rows[] = {
		{"neither", {}, {}, {}},
		{"done", {chunk}, {chunk}, {}},
		{"gone", {chunk}, {}, remove},
		{"gone before another", {chunk}, {Chunk(200, 4, 1000)}, Joined(remove, other)},
		{"new before another",
	         {Chunk(200, 4, 1000, 1)},
	         {chunk, Chunk(200, 4, 1000)},
	         add("409600", "4000 32", "2048000+16384")},
		{"larger", {chunk}, {Chunk(100, 8, 500)}, Joined(remove, add("409600", "4000 64", "2048000+32768"))},
		{"moved", {chunk}, {Chunk(100, 4, 1000)}, Joined(remove, add("409600", "8000 32", "4096000+16384"))},
		{"not read",
	         {Chunk(100, 4, 500, 0)},
	         {chunk},
	         {"--set-bitmap 4000 32", "pread /run/volume1-device 2048000+16384", "modify [409600]", "check"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		found = {.chunks = row.chunks};
		EXPECT_EQ(Walk(row.recorded), 0);
		EXPECT_EQ(Steps(), row.steps);
		uint64_t sum = 0;
		for (const chunk_info &now : row.chunks)
			sum += now.size;
		EXPECT_EQ(context.totalMetadataCacheSize, sum);
		EXPECT_EQ(journal.Lines(), Lines{});
	}
}

TEST_F(PinChunksTest, RemovesWhatIsOverTheLimitAndCountsItForProgress)
{
	const chunk_info chunk = Chunk(100, 4, 500, 1);
	context.ullMaxUsedSizeLimit = 4 * kBlock - 1;
	context.fProgress = 1;
	context.ullProgressTotal = 1 << 30;
	snprintf(context.szUuid, sizeof(context.szUuid), "%s", volume.kUuid);
	found.chunks = {chunk};
	EXPECT_EQ(Walk({chunk}), 0);
	EXPECT_EQ(Steps(),
	          (Lines{"modify [409600]", "--unset-bitmap 4000 32", "--unpin-range 4000 32", "remove [409600]"}));
	EXPECT_EQ(context.ullProgressCurrent, 4 * kBlock);
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(Mapping(), Config("2", 1 << 30));

	context.ullMaxUsedSizeLimit = 4 * kBlock;
	found = {.chunks = {chunk}};
	EXPECT_EQ(Walk({chunk}), 0);
	EXPECT_EQ(Steps(), Lines{});
	EXPECT_EQ(context.ullProgressCurrent, 8 * kBlock);
	std::filesystem::remove(volume.kProgress);
}

TEST_F(PinChunksTest, EndsWithSuccessWhenTheCacheIsNotAllowedAnyMore)
{
	found.chunks = {Chunk(100, 4, 500), Chunk(200, 4, 600), Chunk(300, 4, 700)};
	volume.tool.before = [&](const std::string &line) {
		if (Contains(line, "4800")) // of the second
			SwitchVolume(false);
		return 0;
	};
	EXPECT_EQ(Walk({Chunk(400, 4, 800, 1)}), 0);
	EXPECT_EQ(context.fRestart, 1);
	EXPECT_EQ(context.fPolicyOn, 0);
	EXPECT_EQ(found.asked.size(), 2u);
	EXPECT_EQ(volume.tool.Pinned(), "500+4 600+4");
	EXPECT_TRUE(Contains(Mapping(), Record({400, 4, 800}))); // what comes behind is left alone
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinChunksTest, AsksForNothingAfterARemovalOrAChunkThatIsDone)
{
	SwitchVolume(false);
	const chunk_info kept = Chunk(200, 4, 600, 1);
	found.chunks = {kept};
	EXPECT_EQ(Walk({Chunk(100, 4, 500, 1), kept, Chunk(300, 4, 700, 1)}), 0);
	EXPECT_EQ(context.fRestart, 0);
	EXPECT_EQ(Count("ZEVOVolumeConfGet"), 0u);
	EXPECT_EQ(Mapping(), Config("2", 1 << 30) + Record({200, 4, 600}));
}

TEST_F(PinChunksTest, FailsWhenNoChunkCanBeFound)
{
	const std::string line = "Failed to GetNextMapping err[{err}] with volume[{volume}] device[{device}]{code}";
	const auto of = [&](const std::string &err, const std::string &code) {
		return Log({std::string(line).replace(line.find("{err}"), 5, err)}, code);
	};
	found.end = -5;
	EXPECT_EQ(Walk({Chunk(100, 4, 500, 1)}), -1);
	EXPECT_EQ(journal.Lines(), of("-5", "[0x0000 :0]"));
	EXPECT_EQ(volume.tool.lines, Lines{}); // nothing is taken for gone
	EXPECT_EQ(Mapping(), Config("2", 1 << 30) + Record({100, 4, 500}));

	// Answers that would never end.
	const std::vector<chunk_info> rows[] = {
		{Chunk(100, 0, 500)},
		{Chunk(100, 4, 500), Chunk(200, 0, 600)},
		{Chunk(100, 4, 500), Chunk(100, 4, 500)},
		{Chunk(100, 4, 500), Chunk(50, 4, 600)},
	};
	for (const auto &row : rows) {
		found = {.chunks = row};
		EXPECT_EQ(Walk({}), -1);
		EXPECT_EQ(journal.Lines(), of("-1", "[0x2200 btrfs_metadata_cache.cpp]"));
		EXPECT_EQ(errno, EUCLEAN);
		EXPECT_EQ(found.asked.size(), row.size());
	}
}

TEST_F(PinChunksTest, FailsWithWhatItWasAboutToDo)
{
	const std::string tool = "Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool {option} --mount-path {volume} "
				 "--start-sector 4000 --num-sectors 32 ret = -1)";
	const auto ran = [&](const std::string &option) {
		return std::string(tool).replace(tool.find("{option}"), 8, option);
	};
	const std::string removed =
		"Failed to PinBtrfsMetadataSectionRemove offset:[409600] with config:[{mapping}].{code}";
	const std::string unpinned =
		"Failed to flash cache unpin range start:[2048000] size:[16384] with [{volume}]{code}";
	const std::string pinned = "Failed to flash cache pin range start:[2048000] size:[16384] with [{volume}]{code}";
	const std::string preloaded = "Failed to PinBtrfsMetadataPreload with chunk[409600]{code}";
	const std::string added = "Failed to PinBtrfsMetadataSectionAdd offset:[409600] with config:[{mapping}].{code}";
	const chunk_info chunk = Chunk(100, 4, 500, 1);
	const struct {
		const char *what;
		const char *function;
		std::vector<chunk_info> recorded;
		std::vector<chunk_info> chunks;
		uint64_t limit;
		Lines lines;
	} rows[] = {
		{"add", "VUNKCExecl", {}, {chunk}, 99, {ran("--set-bitmap"), pinned, preloaded, added}},
		{"preload",
	         "VUNKCExecl",
	         {Chunk(100, 4, 500, 0)},
	         {chunk},
	         99,
	         {ran("--set-bitmap"), pinned, preloaded}},
		{"gone at the end", "VUNKCExecl", {chunk}, {}, 99, {ran("--unset-bitmap"), unpinned, removed}},
		{"gone before another",
	         "VUNKCExecl",
	         {chunk},
	         {Chunk(200, 1, 1)},
	         99,
	         {ran("--unset-bitmap"), unpinned, removed}},
		{"changed",
	         "VUNKCExecl",
	         {chunk},
	         {Chunk(100, 8, 500)},
	         99,
	         {ran("--unset-bitmap"), unpinned, removed}},
		{"over the limit", "VUNKCExecl", {chunk}, {chunk}, 0, {ran("--unset-bitmap"), unpinned, removed}},
		{"check",
	         "ZEVOSpaceInfoEnum",
	         {},
	         {chunk},
	         99,
	         {"Failed to enumerate volumes{code}",
	          "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"}},
		{"check",
	         "ZEVOFlashCacheConfigTmpGet",
	         {Chunk(100, 4, 500, 0)},
	         {chunk},
	         99,
	         {"Failed to get SSD cache config for {volume}{code}",
	          "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		found = {.chunks = row.chunks};
		context.ullMaxUsedSizeLimit = row.limit * kBlock;
		const kit::Fault fault(row.function);
		EXPECT_EQ(Walk(row.recorded), -1);
		EXPECT_EQ(journal.Lines(), Log(row.lines));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(context.fRestart, 0);
		EXPECT_EQ(found.asked.size(), 1u);
	}
}

} // namespace
