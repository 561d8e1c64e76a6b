#include "btrfs_metadata_cache/mapping.h"

#include "btrfs_metadata_cache/hash_key.h"
#include "btrfs_metadata_cache/mapping_section.h"
#include "support/check.h"
#include "support/text_buffer.h"

#include <cstdlib>

#include <unistd.h>

namespace {

constexpr char kConfigSection[] = "config";

bool IsInUse(const char *szStatus)
{
	return szStatus != nullptr && strtol(szStatus, nullptr, 10) != kMappingDisabled;
}

} // namespace

int BtrfsMetadataCacheSetValueByKey(const char *szConfigPath, const char *szKey, const char *szValue)
{
	CHECK_ARGUMENT(NULL != szValue);

	MappingSection config(szConfigPath, kConfigSection);
	return config.Read() && SetHashKey(config.Pairs(), szKey, szValue) && config.Write() ? 0 : -1;
}

int BtrfsMetadataCacheSetStatus(const char *szConfigPath, int iStatus)
{
	return BtrfsMetadataCacheSetValueByKey(szConfigPath, "status", TextBuffer<16>("%d", iStatus).c_str());
}

int BtrfsMetadataCacheHasConfig(const char *szConfigPath)
{
	MappingSection config(szConfigPath, kConfigSection);
	if (!config.Read(MappingSection::Need::MayBeMissing))
		return -1;
	return config.IsMissing() ? 0 : 1;
}

int BtrfsMetadataCacheConfigInit(const char *szConfigPath)
{
	MappingSection config(szConfigPath, kConfigSection);
	if (!config.Read(MappingSection::Need::MayBeMissing))
		return -1;
	if (IsInUse(config.Get("status")))
		return 0;
	const TextBuffer<16> building("%d", kMappingBuilding);
	return SetHashKey(config.Pairs(), "status", building.c_str()) &&
	                       SetHashKey(config.Pairs(), "max_used_size", "0") && config.Write()
	               ? 0
	               : -1;
}

int BtrfsMetadataCacheConfigGet(MetadataCacheContext &ctx, const char *szConfigPath)
{
	MappingSection config(szConfigPath, kConfigSection);
	if (!config.Read())
		return -1;
	const char *const status = config.Get("status");
	if (status == nullptr) {
		VUNKCErrSetEx(VUNKC_ERR_SYNTAX, szConfigPath, 0);
		return -1;
	}
	const char *const maxUsedSize = config.Get("max_used_size");
	ctx.ullMaxUsedSize = maxUsedSize == nullptr ? 0 : strtoull(maxUsedSize, nullptr, 10);
	ctx.status = static_cast<int32_t>(strtol(status, nullptr, 10));
	ctx.pid = getpid();
	return 0;
}
