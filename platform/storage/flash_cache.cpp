#include <zevostorage/flash_cache.h>

#include "common/model_value.h"
#include "storage/block_device.h"
#include "storage/devices.h"
#include "storage/failure.h"
#include "storage/flash_cache_file.h"
#include "storage/sysfs.h"

#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

using zevos::BlockPath;
using zevos::KernelFailure;
using zevos::LastComponent;
using zevos::ReadAttribute;
using zevos::ReadLink;

struct CacheRecord : ZEVOFLASHCACHECONFIG {
	CacheRecord(std::string &&idText, std::string &&referenceText, int mode, unsigned long long size,
	            unsigned canDo)
		: ZEVOFLASHCACHECONFIG(), id(std::move(idText)), reference(std::move(referenceText)), flags(canDo)
	{
		iMode = mode;
		szId = id.c_str();
		szReference = reference.c_str();
		ullSizeByte = size;
	}

	const std::string id;
	const std::string reference;
	const unsigned flags;
};
using Record = std::unique_ptr<CacheRecord>;

/// "ssd_" and a number made of a text, in which few texts meet (FNV-1a).
std::string IdOf(std::string_view uuid)
{
	unsigned hash = 2166136261U;
	for (const char c : uuid)
		hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
	return "ssd_" + std::to_string(hash & INT_MAX);
}

/// The size of a block device; nothing when it is gone.
std::optional<unsigned long long> SizeOf(const std::string &kernelName)
{
	const std::string path = BlockPath(kernelName, "/size");
	const std::optional<std::string> text = ReadAttribute(path);
	if (!text)
		return std::nullopt;
	unsigned long long sectors = 0;
	const char *const end = text->data() + text->size();
	if (const auto [stop, error] = std::from_chars(text->data(), end, sectors);
	    error != std::errc() || stop != end || sectors > ULLONG_MAX / 512)
		throw KernelFailure(ZEVO_ERR_BAD_ANSWER, path);
	return sectors * 512;
}

Record ReadDeviceMapperCache(const zevos::Layer &layer)
{
	const zevos::CacheTarget &target = layer.caches.front();
	std::optional<std::string> name = ReadAttribute(BlockPath(layer.device, "/dm/name"));
	const std::optional<std::string> uuid = ReadAttribute(BlockPath(layer.device, "/dm/uuid"));
	const std::optional<std::string> link = ReadLink("/sys/dev/block/" + target.cache);
	const std::optional<unsigned long long> size = link ? SizeOf(LastComponent(*link)) : std::nullopt;
	if (!name || !uuid || !size)
		return nullptr;
	if (!target.mode)
		throw KernelFailure(ZEVO_ERR_BAD_ANSWER, BlockPath(layer.device));
	std::string id = IdOf(uuid->empty() ? *name : *uuid);
	return std::make_unique<CacheRecord>(std::move(id), std::move(*name), *target.mode, *size, 0);
}

/// Of "writethrough [writeback] writearound none" the one in brackets.
int BcacheMode(const std::string &choices, const std::string &path)
{
	const size_t open = choices.find('[');
	const size_t close = choices.find(']');
	const std::string chosen =
		open < close && close != std::string::npos ? choices.substr(open + 1, close - open - 1) : "";
	if (chosen == "writethrough")
		return ZEVO_FLASH_CACHE_MODE_WRITE_THROUGH;
	if (chosen == "writeback")
		return ZEVO_FLASH_CACHE_MODE_WRITE_BACK;
	if (chosen == "writearound" || chosen == "none")
		return ZEVO_FLASH_CACHE_MODE_READ_ONLY;
	throw KernelFailure(ZEVO_ERR_BAD_ANSWER, path);
}

/// The size of all cache devices of a bcache set: "cache0" leads to the "bcache" folder of one.
unsigned long long SizeOfSet(const std::string &set)
{
	constexpr std::string_view digits = "0123456789";
	unsigned long long size = 0;
	for (const std::string &name : zevos::ReadNames(set).value_or(zevos::Names())) {
		if (!name.starts_with("cache") || name.size() == 5 ||
		    name.find_first_not_of(digits, 5) != std::string::npos)
			continue;
		if (const std::optional<std::string> link = ReadLink(set + "/" + name))
			size += SizeOf(LastComponent(link->substr(0, link->rfind('/')))).value_or(0);
	}
	return size;
}

/// The cache of a backing device; null for one that has none now.
Record ReadBcache(const std::string &backing)
{
	const std::string folder = BlockPath(backing, "/bcache");
	const std::string modePath = folder + "/cache_mode";
	const std::optional<std::string> set = ReadLink(folder + "/cache");
	const std::optional<std::string> state = ReadAttribute(folder + "/state");
	const std::optional<std::string> modes = ReadAttribute(modePath);
	if (!set || !state || *state == "no cache" || !modes)
		return nullptr;
	std::string uuid = LastComponent(*set);
	const unsigned long long size = SizeOfSet("/sys/fs/bcache/" + uuid);
	std::string id = IdOf(uuid);
	return std::make_unique<CacheRecord>(std::move(id), std::move(uuid), BcacheMode(*modes, modePath), size, 0);
}

Record FindRealCache(const zevos::Names &devices)
{
	Record found;
	zevos::Descend(devices, [&](const zevos::Layer &layer) {
		if (!layer.caches.empty())
			found = ReadDeviceMapperCache(layer);
		else if (!layer.backing.empty())
			found = ReadBcache(layer.backing);
		return found == nullptr;
	});
	return found;
}

Record FindCache(const ZEVOSPACEINFO &space)
{
	if (auto declared = zevos::FindDeclaredCache(space.szVolPath, space.szDevice, space.szAltDevice))
		return std::make_unique<CacheRecord>(std::move(declared->id), std::move(declared->reference),
		                                     declared->mode, declared->size, declared->flags);
	return FindRealCache(zevos::DevicesOfSpace(space));
}

/// The spaces of the machine, released with the object.
class Spaces {
public:
	Spaces() : hasFailed(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &list) != 0) {}
	~Spaces() { ZEVOSpaceInfoFree(list); }
	Spaces(const Spaces &) = delete;
	Spaces &operator=(const Spaces &) = delete;

	bool HasFailed() const { return hasFailed; }

	/// Null when there is none.
	const ZEVOSPACEINFO *Find(const char *volPath) const
	{
		const ZEVOSPACEINFO *space = list;
		while (space != nullptr && strcmp(space->szVolPath, volPath) != 0)
			space = space->pNext;
		return space;
	}

private:
	ZEVOSPACEINFO *list = nullptr;
	const bool hasFailed;
};

bool IsVirtual(const std::string &kernelName)
{
	if (zevos::DiskOfPartition(kernelName))
		return false;
	return kernelName.starts_with("bcache") || ReadAttribute(BlockPath(kernelName, "/dm/name")) ||
	       ReadAttribute(BlockPath(kernelName, "/md/array_state"));
}

} // namespace

int ZEVOFlashCacheConfigTmpGet(const ZEVOSPACEINFO *pSpace, int iKind, ZEVOFLASHCACHECONFIG **ppConfig)
{
	if (pSpace == nullptr || iKind != ZEVO_FLASH_CACHE_OF_SPACE || ppConfig == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		Record cache = FindCache(*pSpace);
		if (cache == nullptr)
			return 0;
		*ppConfig = cache.release();
		return 1;
	});
}

void ZEVOFlashCacheConfigFree(ZEVOFLASHCACHECONFIG *pConfig)
{
	delete static_cast<CacheRecord *>(pConfig);
}

int ZEVOFlashCacheSupportFlagsGet(const ZEVOFLASHCACHECONFIG *pConfig, unsigned int *puFlags)
{
	if (pConfig == nullptr || puFlags == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	*puFlags = static_cast<const CacheRecord *>(pConfig)->flags;
	return 0;
}

int ZEVOFlashCachePinIsVolumeSupport(const char *szVolPath)
{
	constexpr unsigned needed = ZEVO_FLASH_CACHE_SUPPORT_PIN_RANGE | ZEVO_FLASH_CACHE_SUPPORT_PIN;
	if (szVolPath == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const Spaces spaces;
		if (spaces.HasFailed())
			return -1;
		const ZEVOSPACEINFO *const space = spaces.Find(szVolPath);
		if (space == nullptr)
			return vunkc::FailAt(-1, ZEVO_ERR_NO_DEVICE, szVolPath, 0);
		// Of real ones none can.
		const auto cache = zevos::FindDeclaredCache(space->szVolPath, space->szDevice, space->szAltDevice);
		return cache && cache->mode != ZEVO_FLASH_CACHE_MODE_REMOVED && (cache->flags & needed) == needed ? 1
		                                                                                                  : 0;
	});
}

int ModelSupportPin(void)
{
	return vunkc::ModelSays("support_pin", "no") ? 0 : 1;
}

int ZEVOVSpaceLayerPathGet(int iKind, const char *szVolPath, char *szOut, size_t cbOut)
{
	if (iKind != 1 || szVolPath == nullptr || szOut == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const Spaces spaces;
		if (spaces.HasFailed())
			return -1;
		const ZEVOSPACEINFO *const space = spaces.Find(szVolPath);
		if (space == nullptr || !IsVirtual(zevos::KernelName(space->szDevice)))
			return vunkc::FailAt(-1, ZEVO_ERR_NO_LAYER, szVolPath, 0);
		const size_t size = strlen(space->szDevice) + 1;
		if (size > cbOut)
			return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
		memcpy(szOut, space->szDevice, size);
		return 0;
	});
}
