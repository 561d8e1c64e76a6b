#include "storage/device_mapper_table.h"

#include <zevostorage/flash_cache.h>

#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include <linux/dm-ioctl.h>
#include <strings.h>

namespace zevos {

namespace {

/// A record of the kernel's, copied out of bytes that need not be aligned.
template <class Record>
std::optional<Record> RecordAt(std::string_view bytes, size_t offset)
{
	if (offset > bytes.size() || bytes.size() - offset < sizeof(Record))
		return std::nullopt;
	Record record;
	memcpy(&record, bytes.data() + offset, sizeof(record));
	return record;
}

/// A text that ends with a zero within the bytes.
std::optional<std::string_view> TextAt(std::string_view bytes, size_t offset)
{
	bytes.remove_prefix(offset);
	const size_t length = bytes.find('\0');
	if (length == std::string_view::npos)
		return std::nullopt;
	return bytes.substr(0, length);
}

/// What the features of a dm-cache say: "SIZE-OF-BLOCK NUMBER-OF-FEATURES FEATURE...", of which the last one counts.
std::optional<int> CacheMode(std::istringstream &words)
{
	std::string blockSize;
	int count = -1;
	if (!(words >> blockSize >> count) || count < 0)
		return std::nullopt;
	int mode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK; // the kernel's default
	for (std::string feature; count > 0; --count) {
		if (!(words >> feature))
			return std::nullopt;
		if (strcasecmp(feature.c_str(), "writeback") == 0)
			mode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK;
		else if (strcasecmp(feature.c_str(), "writethrough") == 0)
			mode = ZEVO_FLASH_CACHE_MODE_WRITE_THROUGH;
		else if (strcasecmp(feature.c_str(), "passthrough") == 0)
			mode = ZEVO_FLASH_CACHE_MODE_READ_ONLY;
	}
	return mode;
}

/// Appends a target if it is one that caches. False when it lacks a device.
bool AppendCache(std::string_view type, std::string_view parameters, std::vector<CacheTarget> &caches)
{
	std::istringstream words{std::string(parameters)};
	CacheTarget target;
	if (type == "cache") {
		if (!(words >> target.metadata >> target.cache >> target.origin))
			return false;
		target.mode = CacheMode(words);
	} else if (type == "writecache") {
		std::string kind;
		if (!(words >> kind >> target.origin >> target.cache))
			return false;
		target.mode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK;
	} else {
		return true;
	}
	caches.push_back(std::move(target));
	return true;
}

} // namespace

std::optional<std::vector<CacheTarget>> CacheTargetsInTable(std::string_view answer)
{
	const std::optional<dm_ioctl> header = RecordAt<dm_ioctl>(answer, 0);
	if (!header)
		return std::nullopt;
	if (header->target_count == 0)
		return std::vector<CacheTarget>();
	if (header->data_start > header->data_size || header->data_size > answer.size())
		return std::nullopt;
	const std::string_view targets = answer.substr(header->data_start, header->data_size - header->data_start);

	std::vector<CacheTarget> caches;
	size_t offset = 0;
	for (unsigned left = header->target_count; left > 0; --left) {
		const std::optional<dm_target_spec> target = RecordAt<dm_target_spec>(targets, offset);
		if (!target)
			return std::nullopt;
		const std::optional<std::string_view> parameters = TextAt(targets, offset + sizeof(dm_target_spec));
		const std::string_view type(target->target_type, strnlen(target->target_type, DM_MAX_TYPE_NAME));
		if (!parameters || !AppendCache(type, *parameters, caches))
			return std::nullopt;
		const size_t end = offset + sizeof(dm_target_spec) + parameters->size() + 1;
		if (left > 1 && target->next < end)
			return std::nullopt;
		offset = target->next; // counted from the first target
	}
	return caches;
}

} // namespace zevos
