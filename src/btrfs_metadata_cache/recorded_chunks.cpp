#include "btrfs_metadata_cache/recorded_chunks.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/usage.h"

#include <algorithm>

namespace {

constexpr unsigned long long kSuperblockNames = 3;

void Count(MetadataCacheContext &ctx, const chunk_info &chunk)
{
	ctx.totalMetadataCacheSize = SumOf(ctx.totalMetadataCacheSize, PinnedSize(chunk));
	ctx.pinned.Add(chunk);
}

} // namespace

bool LoadRecordedChunks(MetadataCacheContext &ctx, const char *szConfigPath, const List &sections,
                        RecordedChunks &chunks)
{
	for (const char *const szSection : NamesOnce(sections)) {
		if (IsConfigSection(szSection))
			continue;
		chunk_info chunk;
		if (!ReadRecord(szConfigPath, szSection, chunk))
			return false;
		const bool isSuperblock = chunk.offset >= 1 && chunk.offset <= kSuperblockNames;
		(isSuperblock ? chunks.superblocks : chunks.metadata).push_back(chunk);
	}
	for (const auto *const sorted : {&chunks.superblocks, &chunks.metadata})
		for (const chunk_info &chunk : *sorted)
			Count(ctx, chunk);
	std::sort(chunks.superblocks.begin(), chunks.superblocks.end(), ChunkInfoSort);
	std::sort(chunks.metadata.begin(), chunks.metadata.end(), ChunkInfoSort);
	return true;
}

void CountRecordedChunks(MetadataCacheContext &ctx, const char *szConfigPath, const std::vector<const char *> &names)
{
	for (const char *const szSection : names) {
		chunk_info chunk;
		if (!IsConfigSection(szSection) && TryRecord(szConfigPath, szSection, chunk))
			Count(ctx, chunk);
	}
}
