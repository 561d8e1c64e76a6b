#include "sweep/pin_model.h"

#include "btrfs_metadata_cache/pin_engine.h"

#include "kit/files.h"
#include "kit/nth_call.h"

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace model {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kBlock = kit::PinVolume::kBlock;
constexpr uint64_t kSuperblockSize = 4096;
constexpr uint64_t kSuperblocks[] = {uint64_t{64} << 10, uint64_t{64} << 20};
constexpr uint64_t kSmall = uint64_t{32} << 20;
constexpr uint64_t kLarge = uint64_t{1} << 30;

bool Has(const Chunks &chunks, const Chunk &chunk)
{
	const auto found = chunks.find(chunk.offset);
	return found != chunks.end() && found->second == chunk;
}

/// What was pinned in a cache that went away while it was recorded.
Blocks lostWithCache;

void Insert(Blocks &blocks, const Blocks &more)
{
	blocks.insert(more.begin(), more.end());
}

Blocks WhereAll(const Chunks &chunks)
{
	Blocks blocks;
	for (const auto &[offset, chunk] : chunks)
		Insert(blocks, chunk.Where());
	return blocks;
}

/// "16+1 512+8"
std::string Ranges(const Blocks &blocks)
{
	std::ostringstream text;
	for (auto at = blocks.begin(); at != blocks.end();) {
		const uint64_t first = *at;
		uint64_t end = first;
		while (at != blocks.end() && *at == end) {
			++at;
			++end;
		}
		text << (text.tellp() == 0 ? "" : " ") << first << '+' << end - first;
	}
	return text.str();
}

std::string Text(const Blocks &pinned, const std::string &kernelSwitch, const Mapping &mapping)
{
	std::ostringstream text;
	text << "pinned " << Ranges(pinned) << "\nswitch " << kernelSwitch << '\n';
	if (!mapping.exists)
		return text.str() + "no mapping\n";
	text << "mapping " << mapping.status << '\n';
	for (const Chunks *chunks : {&mapping.superblocks, &mapping.metadata})
		for (const auto &[offset, chunk] : *chunks) {
			text << offset << ' ' << chunk.size << " at";
			for (const uint64_t stripe : chunk.stripes)
				text << ' ' << stripe;
			text << (mapping.unread.contains(offset) ? " unread\n" : "\n");
		}
	return text.str();
}

using Pairs = std::map<std::string, std::string>;

std::vector<std::string> Texts(const VUNKSZLIST *list)
{
	std::vector<std::string> texts;
	for (int i = 0; i < list->nItem; ++i)
		texts.emplace_back(VUNKCSzListGet(list, i));
	return texts;
}

std::vector<std::string> SectionNames()
{
	VUNKSZLIST *list = VUNKCSzListAlloc(1024);
	EXPECT_GE(VUNKCFileEnumSection(kit::PinVolume::kMapping.c_str(), &list), 0) << "no reader can read it";
	std::vector<std::string> names = Texts(list);
	VUNKCSzListFree(list);
	return names;
}

Pairs ReadSection(const std::string &name)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	VUNKSZLIST *keys = VUNKCSzListAlloc(1024);
	EXPECT_GE(VUNKCFileGetSection(kit::PinVolume::kMapping.c_str(), name.c_str(), &hash), 0) << name;
	VUNKCSzHashEnumKey(hash, &keys);
	Pairs pairs;
	for (const std::string &key : Texts(keys))
		pairs[key] = VUNKCSzHashGetValue(hash, key.c_str());
	VUNKCSzListFree(keys);
	VUNKCSzHashFree(hash);
	return pairs;
}

/// A section that lacks something throws: no writer leaves one.
Chunk ChunkOf(const std::string &name, const Pairs &section)
{
	Chunk chunk = {std::stoull(name), std::stoull(section.at("size")), {}};
	const uint64_t stripes = std::stoull(section.at("stripe_count"));
	for (uint64_t i = 0; i < stripes; ++i)
		chunk.stripes.push_back(std::stoull(section.at("stripe_offset_" + std::to_string(i))));
	EXPECT_EQ(section.size(), 3 + stripes) << name;
	return chunk;
}

} // namespace

Blocks Chunk::Where() const
{
	Blocks blocks;
	for (const uint64_t stripe : stripes)
		for (uint64_t at = stripe; at < stripe + size; at += kBlock)
			blocks.insert(at / kBlock);
	return blocks;
}

Blocks Mapping::Where() const
{
	Blocks blocks = WhereAll(superblocks);
	Insert(blocks, WhereAll(metadata));
	return blocks;
}

Mapping ReadMapping()
{
	Mapping mapping;
	mapping.exists = fs::exists(kit::PinVolume::kMapping);
	if (!mapping.exists)
		return mapping;
	for (const std::string &name : SectionNames()) {
		const Pairs section = ReadSection(name);
		if (name == "config") {
			mapping.status = section.at("status");
			continue;
		}
		const Chunk chunk = ChunkOf(name, section);
		(chunk.offset <= std::size(kSuperblocks) ? mapping.superblocks : mapping.metadata)[chunk.offset] =
			chunk;
		if (section.at("status") != "1")
			mapping.unread.insert(chunk.offset);
	}
	return mapping;
}

bool Situation::MayPin() const
{
	const bool isWorking = cacheMode == 1 || cacheMode == 4 || cacheMode == 5;
	return isConfiguredOn && isSwitchedOn && hasCache && isWorking;
}

uint64_t Situation::MostBytes() const
{
	return limit <= 100 ? cacheSize * limit / 100 : std::min(limit, cacheSize);
}

Chunks Situation::Superblocks() const
{
	Chunks copies = {{1, {1, kSuperblockSize, {kSuperblocks[0]}}}};
	if (isLarge)
		copies[2] = {2, kSuperblockSize, {kSuperblocks[1]}};
	return copies;
}

Chunks Situation::Metadata() const
{
	Chunks metadata;
	for (const kit::MetadataChunk &from : chunks) {
		Chunk chunk = {from.offset * kBlock, from.size * kBlock, {from.stripe * kBlock}};
		if (from.secondStripe != 0)
			chunk.stripes.push_back(from.secondStripe * kBlock);
		metadata[chunk.offset] = chunk;
	}
	return metadata;
}

void Apply(const Situation &situation, kit::PinVolume &volume)
{
	volume.SetChunks(situation.chunks);
	volume.btrfs.deviceSize = situation.isLarge ? kLarge : kSmall;
	volume.Configure({{"profile", "x"},
	                  {"lock", "false"},
	                  {"btrfs_metadata_cache_on", situation.isConfiguredOn ? "true" : "false"},
	                  {"btrfs_metadata_cache_space_usage_limit", std::to_string(situation.limit)},
	                  {"btrfs_metadata_cache_read_throttle_wait_mult", "0"}});
	volume.storage.volumeConf[volume.kPath].metadataCache = situation.isSwitchedOn ? 1 : 0;
	volume.storage.caches.clear();
	if (situation.hasCache)
		volume.storage.caches[volume.kPath] = {.mode = situation.cacheMode, .size = situation.cacheSize};
	constexpr int kRemoved = 6;
	if (!situation.hasCache || situation.cacheMode == kRemoved) {
		Insert(lostWithCache, PinnedBlocks(volume.tool));
		volume.tool.Clear();
	}
}

Chunks Walk(const Chunks &recorded, const Chunks &current, uint64_t mostBytes, uint64_t &total)
{
	std::set<uint64_t> offsets;
	for (const Chunks *chunks : {&recorded, &current})
		for (const auto &[offset, chunk] : *chunks)
			offsets.insert(offset);
	Chunks result;
	for (const uint64_t offset : offsets) {
		const bool wasThere = recorded.contains(offset);
		const bool isThere = current.contains(offset);
		const bool isAsItWas = wasThere && isThere && recorded.at(offset) == current.at(offset);
		if (isAsItWas && total <= mostBytes) {
			result[offset] = current.at(offset);
			continue;
		}
		if (wasThere)
			total -= recorded.at(offset).Cost();
		if (isThere && !isAsItWas && total + current.at(offset).Cost() <= mostBytes) {
			total += current.at(offset).Cost();
			result[offset] = current.at(offset);
		}
	}
	return result;
}

std::string Reached(const Situation &situation, const Mapping &before, const Blocks &pinned)
{
	if (!before.exists)
		lostWithCache.clear();
	if (!situation.MayPin())
		return Text({}, "0", {});
	uint64_t total = 0;
	for (const Chunks *chunks : {&before.superblocks, &before.metadata})
		for (const auto &[offset, chunk] : *chunks)
			total += chunk.Cost();
	Mapping after = {true, "2", {}, {}, {}};
	after.superblocks = Walk(before.superblocks, situation.Superblocks(), situation.MostBytes(), total);
	after.metadata = Walk(before.metadata, situation.Metadata(), situation.MostBytes(), total);

	const std::pair<const Chunks *, const Chunks *> kinds[] = {{&before.superblocks, &after.superblocks},
	                                                           {&before.metadata, &after.metadata}};
	Blocks givenUp;
	for (const auto &[chunksBefore, chunksAfter] : kinds)
		for (const auto &[offset, chunk] : *chunksBefore)
			if (!Has(*chunksAfter, chunk))
				Insert(givenUp, chunk.Where());
	Blocks lost;
	Blocks pinnedNow;
	for (const auto &[chunksBefore, chunksAfter] : kinds)
		for (const auto &[offset, chunk] : *chunksAfter) {
			const bool isBelieved = Has(*chunksBefore, chunk) && !before.unread.contains(offset) &&
			                        Without(chunk.Where(), givenUp) == chunk.Where();
			Insert(isBelieved ? lost : pinnedNow, chunk.Where());
		}
	lost = Without(Without(lost, pinned), pinnedNow);
	lost = Without(lost, Without(lost, lostWithCache)); // all else must have been pinned
	return Text(Without(after.Where(), lost), "1", after);
}

std::string Found(const kit::PinVolume &volume)
{
	std::string kernelSwitch = kit::ReadFile(volume.kSwitch);
	kernelSwitch.resize(kernelSwitch.find_last_not_of('\n') + 1);
	return Text(PinnedBlocks(volume.tool), kernelSwitch, ReadMapping());
}

std::string PinnedWithoutRecord(const kit::PinVolume &volume)
{
	return Ranges(Without(PinnedBlocks(volume.tool), ReadMapping().Where()));
}

std::string LeftBehind()
{
	std::string names;
	const auto found = [&](const std::string &what) { names += (names.empty() ? "" : ", ") + what; };
	for (const std::string &path : {kit::PinVolume::kPid, kit::PinVolume::kProgress})
		if (fs::exists(path))
			found(path);
	const fs::path folder = fs::path(kit::PinVolume::kMapping).parent_path();
	if (fs::exists(folder))
		for (const std::string &name : kit::Names(folder))
			if (name != fs::path(kit::PinVolume::kMapping).filename())
				found(name);
	if (!IsUnlocked(kit::PinVolume::kLock))
		found("the lock");
	return names;
}

bool KilledAt(int n)
{
	const pid_t child = fork();
	if (child == 0) {
		int result;
		{
			const kit::NthCall nth(kit::Calls::System, n, kit::NthCall::Kill);
			result = __BtrfsMetadataCacheSet(kit::PinVolume::kPath);
		}
		_exit(result == 0 ? 0 : 1);
	}
	int status = 0;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	if (WIFSIGNALED(status)) {
		EXPECT_EQ(WTERMSIG(status), SIGKILL);
		return true;
	}
	EXPECT_EQ(status, 0);
	return false;
}

} // namespace model
