#include "cache_support.h"

#include "cache_status.h"
#include "catalogue_check.h"
#include "metadata_size.h"
#include "output.h"
#include "paths.h"

#include <zevostorage/flash_cache.h>
#include <zevotuned/metadata_cache.h>

namespace {

constexpr const char *kDeclarations = ZEVO_FLASH_CACHE_FILE;

std::string CacheOf(const CacheSupport &support)
{
	return "its SSD cache " + Quoted(support.cache);
}

std::string NotReadyText(const CacheSupport &support)
{
	if (support.cacheMode == ZEVO_FLASH_CACHE_MODE_FAULTY)
		return CacheOf(support) + " is faulty and out of service; repair it first";
	return CacheOf(support) + " is still being assembled; try again when it is in service";
}

std::string NoCacheText(const CacheSupport &support)
{
	const std::string action =
		"; attach one to " + support.device + ", or declare the one that there is in " + kDeclarations;
	if (support.cache.empty())
		return "no SSD cache stands in front of it in which metadata could be pinned" + action;
	return CacheOf(support) + " is being taken away" + action;
}

std::string ReasonText(const CacheSupport &support)
{
	switch (support.reason) {
	case ZEVO_METADATA_CACHE_MODE_UNKNOWN:
		return CacheOf(support) +
		       " is in a mode that is not known, and nothing is pinned in one that may do anything; see what "
		       "its "
		       "own tools say of it, and its \"mode\" in " +
		       kDeclarations;
	case ZEVO_METADATA_CACHE_NO_SSD_CACHE:
		return NoCacheText(support);
	case ZEVO_METADATA_CACHE_NOT_READY:
		return NotReadyText(support);
	case ZEVO_METADATA_CACHE_CANNOT_PIN:
		return CacheOf(support) +
		       " cannot pin, as those of the kernel's own cannot; it takes one with a pin tool, declared in " +
		       kDeclarations + " with 0x4 and 0x2 among its \"flags\"";
	case ZEVO_METADATA_CACHE_CANNOT_PIN_RANGES:
		return CacheOf(support) +
		       " pins files, but no ranges of a device, which is what metadata is; it takes one that does, "
		       "declared in " +
		       kDeclarations + " with 0x4 and 0x2 among its \"flags\"";
	case ZEVO_METADATA_CACHE_SWITCHED_OFF:
		return std::string("\"btrfs_metadata_cache_on\" in ") + kConfigFile +
		       " is not \"true\", which switches it off for all volumes; run \"sudo zevotune config set "
		       "btrfs_metadata_cache_on true\"";
	default:
		return "it is not a Btrfs volume, and only of these the metadata can be pinned; name a mounted one "
		       "(\"zevotune devices\" lists the volumes)";
	}
}

} // namespace

std::string WhyNot(const CacheSupport &support)
{
	if (support.reason != 0)
		return ReasonText(support);
	if (support.devices > 1)
		return "it lies on " + std::to_string(support.devices) +
		       " devices, and only of volumes on one device can be told what lies where";
	if (!support.hasAttribute)
		return "this kernel has no " + support.attribute +
		       ", without which a pass could be neither completed nor undone; start the machine with a kernel "
		       "that has it";
	return "";
}

bool IsSupported(const CacheSupport &support)
{
	return support.isSwitchedOn || WhyNot(support).empty();
}

std::string CacheSupportText(const CacheSupport &support)
{
	const std::string path = Printable(support.path);
	const std::string why = Printable(WhyNot(support));
	if (why.empty())
		return path + ": its metadata can be pinned, in the SSD cache " + Printable(Quoted(support.cache)) +
		       " of " + SizeText(support.cacheSize) + '\n';
	if (!support.isSwitchedOn)
		return path + ": its metadata cannot be pinned: " + why + '\n';
	return path + ": the cache is switched on, but nothing can be pinned now: " + why + '\n';
}

Json::Value CacheSupportJson(const CacheSupport &support)
{
	const std::string why = WhyNot(support);
	Json::Value result;
	result["path"] = support.path;
	result["supported"] = IsSupported(support);
	result["can_pin"] = why.empty();
	result["reason"] = support.reason != 0 ? Json::Value(support.reason) : Json::Value();
	result["why"] = why.empty() ? Json::Value() : Json::Value(why);
	result["ssd_cache"] = support.cache.empty() ? Json::Value() : Json::Value(support.cache);
	return result;
}
