#include "btrfs_metadata_cache/usage.h"

#include "support/log.h"

#include <algorithm>
#include <climits>

namespace {

// a * b / c, exactly; the largest number when that is too small for it.
uint64_t MulDiv(uint64_t a, uint64_t b, uint64_t c)
{
	__extension__ using Wide = unsigned __int128;
	return static_cast<uint64_t>(std::min<Wide>(static_cast<Wide>(a) * b / c, UINT64_MAX));
}

} // namespace

uint64_t PinnedSize(const chunk_info &chunk)
{
	return MulDiv(chunk.size, chunk.stripe_count, 1);
}

uint64_t SumOf(uint64_t a, uint64_t b)
{
	uint64_t sum;
	return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

uint64_t UsedSizeLimit(uint64_t ullSpaceUsageLimit, uint64_t ullCacheSize)
{
	if (ullSpaceUsageLimit <= 100)
		return MulDiv(ullCacheSize, ullSpaceUsageLimit, 100);
	return std::min(ullSpaceUsageLimit, ullCacheSize);
}

int PercentOfCache(uint64_t ullSize, uint64_t ullCacheSize)
{
	if (ullCacheSize == 0)
		return 0;
	return static_cast<int>(std::min<uint64_t>(MulDiv(ullSize, 100, ullCacheSize), INT_MAX));
}

int ThresholdCrossed(int iOldPercent, int iNewPercent)
{
	for (const int threshold : {100, 99, 95, 90, 80})
		if (threshold <= iNewPercent)
			return threshold > iOldPercent ? threshold : 0;
	return 0;
}

bool ChargeChunk(MetadataCacheContext &ctx, const chunk_info &chunk)
{
	const uint64_t total = SumOf(ctx.totalMetadataCacheSize, PinnedSize(chunk));
	if (total > ctx.ullMaxUsedSizeLimit)
		return false;
	ctx.totalMetadataCacheSize = total;
	return true;
}

void DischargeChunk(MetadataCacheContext &ctx, const chunk_info &chunk)
{
	const unsigned long long size = PinnedSize(chunk);
	const unsigned long long total = ctx.totalMetadataCacheSize;
	if (size > total) {
		LOG_ERROR_ONLY("Failed to totalMetadataCacheSize underflow [%llu] < [%llu], with chunk [%llu]", total,
		               size, chunk.offset);
		ctx.totalMetadataCacheSize = 0;
		return;
	}
	ctx.totalMetadataCacheSize = total - size;
}
