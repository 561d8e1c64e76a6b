#include "btrfs_metadata_cache/policy.h"

#include "support/check.h"
#include "support/storage_handles.h"

#include <zevostorage/error.h>
#include <zevostorage/file_system.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>
#include <zevotuned/config.h>
#include <zevotuned/metadata_cache.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using FlashCache = Handle<ZEVOFLASHCACHECONFIG, ZEVOFlashCacheConfigFree>;

template <size_t Capacity>
void Copy(char (&to)[Capacity], const char *from)
{
	snprintf(to, Capacity, "%s", from);
}

const char *ValueOr(const Hash &pairs, const char *szKey, const char *szDefault)
{
	const char *const value = pairs.Get(szKey);
	return value == nullptr ? szDefault : value;
}

const ZEVOSPACEINFO *FindSpace(const SpaceList &spaces, std::string_view path)
{
	const ZEVOSPACEINFO *space = spaces.get();
	while (space != nullptr && path != DeviceOf(space) && path != space->szVolPath)
		space = space->pNext;
	return space;
}

int CannotPin(MetadataCacheContext &ctx, int *piResult, int reason)
{
	if (piResult != nullptr)
		*piResult = reason;
	ctx.fCachePinSupport = 0;
	return 0;
}

// 0 for a mode in which a cache pins.
int ReasonOfMode(int iMode)
{
	switch (iMode) {
	case ZEVO_FLASH_CACHE_MODE_WRITE_THROUGH:
	case ZEVO_FLASH_CACHE_MODE_WRITE_BACK:
	case ZEVO_FLASH_CACHE_MODE_READ_ONLY:
		return 0;
	case ZEVO_FLASH_CACHE_MODE_REMOVED:
		return ZEVO_METADATA_CACHE_NO_SSD_CACHE;
	case ZEVO_FLASH_CACHE_MODE_ASSEMBLING:
	case ZEVO_FLASH_CACHE_MODE_FAULTY:
		return ZEVO_METADATA_CACHE_NOT_READY;
	default:
		return ZEVO_METADATA_CACHE_MODE_UNKNOWN;
	}
}

int ReasonOfFlags(unsigned int uFlags)
{
	if ((uFlags & ZEVO_FLASH_CACHE_SUPPORT_PIN) == 0)
		return ZEVO_METADATA_CACHE_CANNOT_PIN;
	return (uFlags & ZEVO_FLASH_CACHE_SUPPORT_PIN_RANGE) == 0 ? ZEVO_METADATA_CACHE_CANNOT_PIN_RANGES : 0;
}

// As scanf's "ssd_%d", which passes over blanks before the number and over all that follows it; but a number that is no
// int is none.
bool ParseSsdId(const char *szId, int &number)
{
	constexpr std::string_view prefix = "ssd_";
	if (szId == nullptr || !std::string_view(szId).starts_with(prefix))
		return false;
	const char *const digits = szId + prefix.size();
	char *end = nullptr;
	errno = 0;
	const long value = strtol(digits, &end, 10);
	if (end == digits || errno == ERANGE || value < INT_MIN || value > INT_MAX)
		return false;
	number = static_cast<int>(value);
	return true;
}

// The cache is there: whether it can pin, and then what the engine has to know of it.
int CheckCache(MetadataCacheContext &ctx, const ZEVOFLASHCACHECONFIG *pCache, int *piResult)
{
	if (const int reason = ReasonOfMode(pCache->iMode); reason != 0)
		return CannotPin(ctx, piResult, reason);
	unsigned int flags = 0;
	if (ZEVOFlashCacheSupportFlagsGet(pCache, &flags) < 0) {
		LOG_ERROR("Failed to get SSD cache support flag for %s", ctx.szVolPath);
		return -1;
	}
	if (const int reason = ReasonOfFlags(flags); reason != 0)
		return CannotPin(ctx, piResult, reason);
	int number = 0;
	if (!ParseSsdId(pCache->szId, number)) {
		LOG_ERROR_ONLY("Fail to parse SSD ID");
		return -1;
	}
	Copy(ctx.szCacheRef, pCache->szReference == nullptr ? "" : pCache->szReference);
	snprintf(ctx.szSsdId, sizeof(ctx.szSsdId), "%d", number);
	ctx.fCachePinSupport = 1;
	ctx.ullCacheSize = pCache->ullSizeByte;
	return 1;
}

} // namespace

int BtrfsMetadataCacheVolumeConfGet(const char *szVolPath, uint8_t *pfOn)
{
	CHECK_ARGUMENT(__null != szVolPath);

	// Callers take 0xC200 for "no settings", so one that an earlier call has left must not be seen as this one's.
	VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	ZEVOVOLUMECONF settings = {};
	if (ZEVOVolumeConfGet(szVolPath, &settings) != 0) {
		if (VUNKCErrGet() != ZEVO_ERR_NO_VOLUME_CONF)
			LOG_ERROR("Failed to ZEVOVolumeConfGet with [%s].", szVolPath);
		return -1;
	}
	*pfOn = settings.uMetadataCache != 0 ? 1 : 0;
	return 0;
}

int BtrfsMetadataCachePolicyCheck(MetadataCacheContext &ctx, const char *szVolPath, bool fCheckVolume)
{
	CHECK_ARGUMENT(__null != szVolPath);

	Hash config;
	if (!config) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (TunedConfigGet(config.out()) != 0) {
		LOG_ERROR("Failed to TunedConfigGet.");
		return -1;
	}
	ctx.fPolicyOn = strcmp(ValueOr(config, "btrfs_metadata_cache_on", "true"), "true") == 0 ? 1 : 0;
	ctx.ullSpaceUsageLimit =
		strtoull(ValueOr(config, "btrfs_metadata_cache_space_usage_limit", "100"), nullptr, 10);
	ctx.uReadThrottleWaitMult = static_cast<uint32_t>(
		strtoul(ValueOr(config, "btrfs_metadata_cache_read_throttle_wait_mult", "0"), nullptr, 10));
	if (ctx.fPolicyOn == 0 || !fCheckVolume)
		return ctx.fPolicyOn;
	if (BtrfsMetadataCacheVolumeConfGet(szVolPath, &ctx.fPolicyOn) != 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheVolumeConfGet with [%s].", szVolPath);
		return -1;
	}
	ctx.lastSwitch = ctx.fPolicyOn != 0 ? VolumeSwitch::On : VolumeSwitch::Off;
	return ctx.fPolicyOn;
}

int BtrfsMetadataCacheSupportCheck(const char *szVolPath, MetadataCacheContext &ctx, int *piResult)
{
	CHECK_ARGUMENT(__null != szVolPath);
	CHECK_ARGUMENT(NULL != piResult);

	const int isOn = BtrfsMetadataCachePolicyCheck(ctx, szVolPath, false);
	if (isOn < 0) {
		LOG_ERROR("Failed to BtrfsMetadataCachePolicyCheck with [%s]", szVolPath);
		return -1;
	}
	if (isOn == 0) {
		*piResult = ZEVO_METADATA_CACHE_SWITCHED_OFF;
		return 0;
	}
	if (ZEVOGetFSType(szVolPath, 0) != ZEVO_FS_BTRFS) {
		*piResult = ZEVO_METADATA_CACHE_NOT_BTRFS;
		return 0;
	}
	return 1;
}

int BtrfsMetadataCacheCheckSSDCache(MetadataCacheContext &ctx, const char *szPath, int *piResult)
{
	CHECK_ARGUMENT(__null != szPath);

	SpaceList spaces(nullptr);
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0) {
		LOG_ERROR("Failed to enumerate volumes");
		return -1;
	}
	const ZEVOSPACEINFO *const space = FindSpace(spaces, szPath);
	if (space == nullptr) {
		LOG_ERROR("Couldn't find volume info for device [%s]\n", szPath);
		return -1;
	}
	Copy(ctx.szVolPath, space->szVolPath);
	Copy(ctx.szDevPath, DeviceOf(space));

	FlashCache cache(nullptr);
	const int hasCache = ZEVOFlashCacheConfigTmpGet(space, ZEVO_FLASH_CACHE_OF_SPACE, cache.out());
	if (hasCache < 0) {
		LOG_ERROR("Failed to get SSD cache config for %s", space->szVolPath);
		return -1;
	}
	if (hasCache == 0)
		return CannotPin(ctx, piResult, ZEVO_METADATA_CACHE_NO_SSD_CACHE);
	return CheckCache(ctx, cache.get(), piResult);
}

int BtrfsMetadataCacheCheck(MetadataCacheContext &ctx, const char *szVolPath)
{
	if (BtrfsMetadataCacheCheckSSDCache(ctx, szVolPath, nullptr) < 0) {
		LOG_ERROR("Failed to BtrfsMetadataCacheCheckSSDCache path [%s].", szVolPath);
		return -1;
	}
	if (BtrfsMetadataCachePolicyCheck(ctx, szVolPath, true) < 0) {
		LOG_ERROR("Failed to BtrfsMetadataCachePolicyCheck with [%s]", szVolPath);
		return -1;
	}
	return ctx.fCachePinSupport != 0 && ctx.fPolicyOn != 0 ? 1 : 0;
}
