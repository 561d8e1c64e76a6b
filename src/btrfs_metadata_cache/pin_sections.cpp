#include "btrfs_metadata_cache/pin_sections.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/max_used_size.h"
#include "btrfs_metadata_cache/pin_tool.h"
#include "btrfs_metadata_cache/preload.h"
#include "btrfs_metadata_cache/progress.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/log.h"

namespace {

// Before it is unpinned. Were the pass to end half-way, and the chunks to be wanted again, no record must say that they are pinned.
bool MarkUnread(const MetadataCacheContext &ctx, const char *szConfigPath, const chunk_info &chunk)
{
	if (chunk.status == 1 && PinBtrfsMetadataSectionUpdateChunkUnread(szConfigPath, chunk.offset) != 0)
		return false;
	for (const PinnedRanges::Offset offset : ctx.pinned.Overlapping(chunk))
		if (PinBtrfsMetadataSectionUpdateChunkUnread(szConfigPath, offset) != 0)
			return false;
	return true;
}

} // namespace

int PinBtrfsMetadataSectionAdd(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath,
                               const char *szConfigPath, const chunk_info *pChunk)
{
	if (!ChargeChunk(ctx, *pChunk))
		return BtrfsMetadataCacheProgressUpdate(ctx, PinnedSize(*pChunk));
	if (!AddRecord(szConfigPath, *pChunk))
		return -1;
	ctx.pinned.Add(*pChunk);
	const unsigned long long total = ctx.totalMetadataCacheSize;
	if (total > ctx.ullMaxUsedSize && BtrfsMetadataCacheSetMaxUsedSize(ctx, szConfigPath) != 0)
		LOG_ERROR("Failed to BtrfsMetadataCacheSetMaxUsedSize to [%llu] with [%s]", total, szConfigPath);
	if (PinBtrfsMetadataPreload(ctx, szVolPath, szDevPath, szConfigPath, pChunk) != 0) {
		LOG_ERROR("Failed to PinBtrfsMetadataPreload with chunk[%llu]", pChunk->offset);
		return -1;
	}
	return 0;
}

int PinBtrfsMetadataSectionRemove(MetadataCacheContext &ctx, const char *szVolPath, const char *szConfigPath,
                                  const chunk_info *pChunk)
{
	DischargeChunk(ctx, *pChunk);
	ctx.pinned.Remove(*pChunk);
	if (!MarkUnread(ctx, szConfigPath, *pChunk))
		return -1;
	for (unsigned i = 0; i < pChunk->stripe_count; ++i) {
		const unsigned long long offset = pChunk->stripe_offset[i];
		if (PinRange(szVolPath, offset >> kSectorShift, pChunk->size >> kSectorShift, false) != 0) {
			LOG_ERROR("Failed to flash cache unpin range start:[%llu] size:[%llu] with [%s]", offset,
			          pChunk->size, szVolPath);
			return -1;
		}
	}
	return RemoveRecord(szConfigPath, SectionOf(*pChunk).c_str()) ? 0 : -1;
}
