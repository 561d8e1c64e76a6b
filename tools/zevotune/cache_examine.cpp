#include "cache_examine.h"

#include "cache_error_text.h"
#include "cache_records.h"
#include "config_access.h"
#include "config_keys.h"
#include "error_text.h"
#include "failure.h"
#include "metadata_size.h"
#include "paths.h"

#include "btrfs_metadata_cache/policy.h"
#include "btrfs_metadata_cache/usage.h"
#include "support/storage_handles.h"

#include <vunkcore/pid_file.h>
#include <zevostorage/error.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>
#include <zevotuned/metadata_cache.h>

#include <cstdlib>
#include <fstream>

#include <unistd.h>

namespace {

using FlashCache = Handle<ZEVOFLASHCACHECONFIG, ZEVOFlashCacheConfigFree>;

[[noreturn]] void FailToTell(const BtrfsVolume &volume)
{
	const std::string advice = IsRoot() ? "" : "; perhaps root can tell (sudo)";
	throw Failure("cannot tell how the metadata cache of " + volume.path + " is: " + CacheErrorText(volume.path) +
	              advice);
}

std::optional<bool> SwitchOf(const BtrfsVolume &volume)
{
	ZEVOVOLUMECONF settings{};
	ForgetErrors();
	if (ZEVOVolumeConfGet(volume.path.c_str(), &settings) == 0)
		return settings.uMetadataCache != 0;
	if (VUNKCErrGet() == ZEVO_ERR_NO_VOLUME_CONF)
		return std::nullopt;
	FailToTell(volume);
}

/// The SSD cache in front of the volume; null when there is none.
FlashCache CacheOf(const BtrfsVolume &volume)
{
	SpaceList spaces(nullptr);
	ForgetErrors();
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, spaces.out()) < 0)
		FailToTell(volume);
	const ZEVOSPACESEARCH search{volume.path.c_str()};
	ZEVOSPACEINFO *space = nullptr;
	FlashCache cache(nullptr);
	if (ZEVOSpaceInfoSearch(spaces.get(), &search, &space) == 1 &&
	    ZEVOFlashCacheConfigTmpGet(space, ZEVO_FLASH_CACHE_OF_SPACE, cache.out()) < 0)
		FailToTell(volume);
	return cache;
}

/// Nothing where there is no cache, or others than root ask, who may see neither it nor the configuration.
std::optional<uint64_t> LimitOf(const BtrfsVolume &volume)
{
	constexpr const char *kKey = "btrfs_metadata_cache_space_usage_limit";
	if (!IsRoot())
		return std::nullopt;
	try {
		const FlashCache cache = CacheOf(volume);
		if (!cache)
			return std::nullopt;
		const Config config = ReadConfigAsItIs();
		const std::string *value = FindValue(config, kKey);
		const char *const limit = value != nullptr ? value->c_str() : FindConfigKey(kKey)->defaultValue;
		return UsedSizeLimit(strtoull(limit, nullptr, 10), cache->ullSizeByte);
	} catch (const Failure &) {
		return std::nullopt; // "check" says what is wrong with them
	}
}

std::optional<uint64_t> AllocatedOn(const BtrfsVolume &volume)
{
	unsigned long long bytes = 0;
	if (ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume.path.c_str(), &bytes) != 0)
		return std::nullopt;
	return bytes;
}

void AddRecords(const BtrfsVolume &volume, CacheFacts &facts)
{
	constexpr unsigned long long kSuperblockCopies =
		3; // they are known by these numbers, chunks by their addresses
	const PinRecords records = ReadPinRecords(volume.path);
	facts.isRecorded = records.isThere;
	for (const chunk_info &chunk : records.chunks) {
		const uint64_t size = SizeOnDevice(chunk);
		facts.recorded = Sum(facts.recorded, size);
		facts.ranges += StripesOf(chunk);
		if (chunk.offset < 1 || chunk.offset > kSuperblockCopies)
			facts.metadata = Sum(facts.metadata, size);
	}
}

// ZEVOBtrfsMetadataCacheSupportCheckForCache says yes to all that is switched on, and takes a volume whose switch was
// never set for none of Btrfs. Both checks that it is made of say how things are.
int ReasonNow(const BtrfsVolume &volume)
{
	int reason = 0;
	ForgetErrors();
	int isPossible = ZEVOBtrfsMetadataCacheSupportCheckForVolume(volume.path.c_str(), &reason);
	if (isPossible == 1) {
		MetadataCacheContext ctx = {};
		isPossible = BtrfsMetadataCacheCheckSSDCache(ctx, volume.path.c_str(), &reason);
	}
	if (isPossible < 0)
		FailToTell(volume);
	return isPossible == 1 ? 0 : reason;
}

} // namespace

CacheFacts ExamineCache(const BtrfsVolume &volume)
{
	CacheFacts facts;
	facts.path = volume.path;
	facts.uuid = volume.uuid;
	facts.device = volume.device;
	facts.engine = EngineOf(volume);
	unsigned long long total = 0;
	unsigned long long done = 0;
	ForgetErrors();
	if (ZEVOBtrfsMetadataCacheStatus(volume.path.c_str(), &facts.status, &total, &done) != 0)
		FailToTell(volume);
	facts.total = total;
	facts.done = done;
	AddRecords(volume, facts);
	facts.isOn = SwitchOf(volume);
	facts.limit = LimitOf(volume);
	facts.allocated = AllocatedOn(volume);
	return facts;
}

CacheSupport ExamineCacheSupport(const BtrfsVolume &volume)
{
	CacheSupport support;
	support.path = volume.path;
	support.device = volume.device;
	support.isSwitchedOn = SwitchOf(volume) == true;
	support.reason = ReasonNow(volume);
	const FlashCache cache = CacheOf(volume);
	if (cache) {
		support.cache = cache->szReference;
		support.cacheMode = cache->iMode;
		support.cacheSize = cache->ullSizeByte;
	}
	support.devices = CountDevices(volume);
	support.attribute = "/sys/fs/btrfs/" + volume.uuid + "/metadata_cache_enable";
	support.hasAttribute = access(support.attribute.c_str(), F_OK) == 0;
	return support;
}

int EngineOf(const BtrfsVolume &volume)
{
	const std::string path = std::string(kEngineDir) + '/' + volume.uuid + ".pid";
	if (VUNKCProcAliveByPidFile(path.c_str()) != 1)
		return 0;
	int process = 0;
	std::ifstream(path) >> process;
	return process;
}
