#include "btrfs_metadata_cache/mapping.h"

#include "support/check.h"
#include "support/handles.h"
#include "support/text_buffer.h"

#include <vunkcore/section_file.h>

#include <cstdlib>

namespace {

constexpr char kConfigSection[] = "config";

// A section of the mapping file, read and written as a whole; reading and writing leave their
// lines when they fail. The syntax of the file is
// the core library's, and so is that readers find the old file or the new one, which is on disk when Write returns.
class Section {
public:
	Section(const char *its, const char *section) : path(its), name(section) {}

	bool Read()
	{
		if (!pairs) {
			LOG_ERROR("Failed to VUNKCSzHashAlloc().");
			return false;
		}
		if (VUNKCFileGetSection(path, name, pairs.out()) < 0) {
			LOG_ERROR("Failed to get section [%s] in [%s]", name, path);
			return false;
		}
		return true;
	}

	const char *Get(const char *szKey) const { return pairs.Get(szKey); }
	bool Set(const char *szKey, const char *szValue)
	{
		return VUNKCSzHashSetValue(pairs.out(), szKey, szValue) == 0;
	}

	bool Write() const
	{
		if (VUNKCIFileModifySection(path, name, nullptr, pairs.get(), 1, 0) == 1)
			return true;
		LOG_ERROR("Failed to set section [%s] in [%s]", name, path);
		return false;
	}

private:
	const char *const path;
	const char *const name;
	Hash pairs;
};

} // namespace

int BtrfsMetadataCacheSetValueByKey(const char *szConfigPath, const char *szKey, const char *szValue)
{
	CHECK_ARGUMENT(NULL != szValue);

	Section config(szConfigPath, kConfigSection);
	if (!config.Read())
		return -1;
	if (!config.Set(szKey, szValue)) {
		LOG_ERROR("Failed to set hash key [%s] value [%s]", szKey, szValue);
		return -1;
	}
	return config.Write() ? 0 : -1;
}

int BtrfsMetadataCacheSetStatus(const char *szConfigPath, int iStatus)
{
	return BtrfsMetadataCacheSetValueByKey(szConfigPath, "status", TextBuffer<16>("%d", iStatus).c_str());
}

int BtrfsMetadataCacheConfigGet(MetadataCacheContext &ctx, const char *szConfigPath)
{
	Section config(szConfigPath, kConfigSection);
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

int PinBtrfsMetadataSectionUpdateChunkDone(const char *szConfigPath, const chunk_info *pChunk)
{
	const TextBuffer<32> name("%llu", pChunk->offset);
	Section section(szConfigPath, name.c_str());
	if (!section.Read())
		return -1;
	if (!section.Set("status", "1")) {
		LOG_ERROR("Failed to set hash key %s value %s", "status", "1");
		return -1;
	}
	return section.Write() ? 0 : -1;
}
