#include "storage/device_mapper_table.h"

#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include <linux/dm-ioctl.h>

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

/// Which parameters of a target, counted from 0, are devices that only cache.
std::pair<size_t, size_t> CacheParameters(std::string_view type)
{
	if (type == "cache") // metadata, cache, origin
		return {0, 2};
	if (type == "writecache") // kind of cache, origin, cache
		return {2, 3};
	return {0, 0};
}

bool AppendCaches(std::string_view type, std::string_view parameters, Names &caches)
{
	const auto [begin, end] = CacheParameters(type);
	std::istringstream words{std::string(parameters)};
	std::string word;
	for (size_t i = 0; i < end; ++i) {
		if (!(words >> word))
			return false;
		if (i >= begin)
			caches.push_back(word);
	}
	return true;
}

} // namespace

std::optional<Names> CacheDevicesInTable(std::string_view answer)
{
	const std::optional<dm_ioctl> header = RecordAt<dm_ioctl>(answer, 0);
	if (!header)
		return std::nullopt;
	if (header->target_count == 0)
		return Names();
	if (header->data_start > header->data_size || header->data_size > answer.size())
		return std::nullopt;
	const std::string_view targets = answer.substr(header->data_start, header->data_size - header->data_start);

	Names caches;
	size_t offset = 0;
	for (unsigned left = header->target_count; left > 0; --left) {
		const std::optional<dm_target_spec> target = RecordAt<dm_target_spec>(targets, offset);
		if (!target)
			return std::nullopt;
		const std::optional<std::string_view> parameters = TextAt(targets, offset + sizeof(dm_target_spec));
		const std::string_view type(target->target_type, strnlen(target->target_type, DM_MAX_TYPE_NAME));
		if (!parameters || !AppendCaches(type, *parameters, caches))
			return std::nullopt;
		const size_t end = offset + sizeof(dm_target_spec) + parameters->size() + 1;
		if (left > 1 && target->next < end)
			return std::nullopt;
		offset = target->next; // counted from the first target
	}
	return caches;
}

} // namespace zevos
