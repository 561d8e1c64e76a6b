#include "btrfs_metadata_cache/pin_chunks.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/engine_lock.h"
#include "btrfs_metadata_cache/merge_walk.h"
#include "btrfs_metadata_cache/pin_sections.h"
#include "btrfs_metadata_cache/policy.h"
#include "btrfs_metadata_cache/preload.h"
#include "btrfs_metadata_cache/progress.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/error_codes.h"
#include "support/log.h"

#include <zevostorage/error.h>

#include <cerrno>
#include <climits>
#include <set>

namespace {

bool Fits(unsigned long long offset, unsigned long long size)
{
	return offset <= ULLONG_MAX - size;
}

// Whether a chunk is one, and stands behind the last one, which is all zero before the first. A walk over others could
// go on for ever.
bool IsBehind(const chunk_info &chunk, const chunk_info &last)
{
	const bool isFirst = last.size == 0;
	bool fits = Fits(chunk.offset, chunk.size);
	for (unsigned i = 0; i < chunk.stripe_count; ++i)
		fits = fits && Fits(chunk.stripe_offset[i], chunk.size);
	return fits && chunk.size != 0 && (isFirst || chunk.offset > last.offset);
}

class ChunkPinning final : public PinActions {
public:
	ChunkPinning(MetadataCacheContext &context, const char *szVolume, const char *szDevice, const char *szConfig,
	             GetNextMapping fnGetNextMapping)
		: ctx(context), szVolPath(szVolume), szDevPath(szDevice), szConfigPath(szConfig),
		  getNext(fnGetNextMapping)
	{
	}

	int Next(chunk_info &chunk) override
	{
		const chunk_info last = chunk;
		int result = getNext(szVolPath, szDevPath, &chunk, 0);
		if (result == 0 && !IsBehind(chunk, last)) {
			errno = EUCLEAN;
			SET_ERROR(ZEVO_ERR_BAD_ANSWER);
			result = -1;
		}
		if (result < 0)
			LOG_ERROR("Failed to GetNextMapping err[%d] with volume[%s] device[%s]", result, szVolPath,
			          szDevPath);
		return result;
	}

	bool IsOverLimit() const override { return ctx.totalMetadataCacheSize > ctx.ullMaxUsedSizeLimit; }

	int Remove(const chunk_info &asRead) override
	{
		chunk_info recorded = asRead;
		if (pinnedAgain.contains(recorded.offset))
			recorded.status = 1;
		const std::set<PinnedRanges::Offset> overlapping = ctx.pinned.Overlapping(recorded);
		if (PinBtrfsMetadataSectionRemove(ctx, szVolPath, szConfigPath, &recorded) != 0) {
			LOG_ERROR("Failed to PinBtrfsMetadataSectionRemove offset:[%s] with config:[%s].",
			          SectionOf(recorded).c_str(), szConfigPath);
			return -1;
		}
		// They have lost the bytes that they share with it.
		for (const PinnedRanges::Offset offset : overlapping)
			if (PinAgain(offset) != 0)
				return -1;
		return 0;
	}

	int Add(const chunk_info &chunk) override
	{
		if (PinBtrfsMetadataSectionAdd(ctx, szVolPath, szDevPath, szConfigPath, &chunk) == 0)
			return 0;
		LOG_ERROR("Failed to PinBtrfsMetadataSectionAdd offset:[%llu] with config:[%s].", chunk.offset,
		          szConfigPath);
		return -1;
	}

	int Preload(const chunk_info &recorded) override
	{
		if (PinBtrfsMetadataPreload(ctx, szVolPath, szDevPath, szConfigPath, &recorded) == 0)
			return 0;
		LOG_ERROR("Failed to PinBtrfsMetadataPreload with chunk[%llu]", recorded.offset);
		return -1;
	}

	int Pass(const chunk_info &chunk) override { return BtrfsMetadataCacheProgressUpdate(ctx, PinnedSize(chunk)); }

	int MayGoOn() override
	{
		const int isAllowed = BtrfsMetadataCacheCheck(ctx, szVolPath);
		if (isAllowed == 0)
			ctx.fRestart = 1;
		return isAllowed == 1 && !EngineLockCovers(ctx, szVolPath) ? -1 : isAllowed;
	}

private:
	int PinAgain(PinnedRanges::Offset offset)
	{
		chunk_info chunk;
		if (!ReadRecord(szConfigPath, SectionName("%llu", offset).c_str(), chunk) || Preload(chunk) != 0)
			return -1;
		pinnedAgain.insert(offset);
		return 0;
	}

	MetadataCacheContext &ctx;
	const char *const szVolPath;
	const char *const szDevPath;
	const char *const szConfigPath;
	const GetNextMapping getNext;
	std::set<PinnedRanges::Offset> pinnedAgain; // and recorded as read, which those at hand may not say
};

} // namespace

int PinChunks(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath, const char *szConfigPath,
              GetNextMapping fnGetNextMapping, const std::vector<chunk_info> &vecRecorded)
{
	ChunkPinning pinning(ctx, szVolPath, szDevPath, szConfigPath, fnGetNextMapping);
	return WalkChunks(vecRecorded, pinning);
}
