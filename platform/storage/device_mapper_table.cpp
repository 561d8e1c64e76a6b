#include "storage/device_mapper_table.h"

#include <zevostorage/flash_cache.h>

#include <algorithm>
#include <charconv>
#include <cstring>
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

/// Takes the words of a text, which blanks separate. No stream: the constructor of one takes a lock of the C++ library's,
/// which in a forked child may be closed for good.
class Words {
public:
	explicit Words(std::string_view text) : rest(text) {}

	std::optional<std::string_view> Next()
	{
		SkipBlanks();
		const std::string_view word = rest.substr(0, rest.find_first_of(kBlanks));
		rest.remove_prefix(word.size());
		return word.empty() ? std::nullopt : std::optional(word);
	}

	/// The number that comes next; what follows its digits is the next word, blank or not.
	std::optional<int> NextNumber()
	{
		SkipBlanks();
		if (rest.starts_with('+') && !rest.starts_with("+-"))
			rest.remove_prefix(1);
		int number;
		const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
		if (error != std::errc())
			return std::nullopt;
		rest.remove_prefix(static_cast<size_t>(end - rest.data()));
		return number;
	}

private:
	static constexpr std::string_view kBlanks = " \t\n\v\f\r";

	void SkipBlanks() { rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size())); }

	std::string_view rest;
};

bool IsFeature(std::string_view word, std::string_view feature)
{
	return word.size() == feature.size() && strncasecmp(word.data(), feature.data(), word.size()) == 0;
}

/// What the features of a dm-cache say: "SIZE-OF-BLOCK NUMBER-OF-FEATURES FEATURE...", of which the last one counts.
std::optional<int> CacheMode(Words &words)
{
	const std::optional<std::string_view> blockSize = words.Next();
	const std::optional<int> count = words.NextNumber();
	if (!blockSize || !count || *count < 0)
		return std::nullopt;
	int mode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK; // the kernel's default
	for (int left = *count; left > 0; --left) {
		const std::optional<std::string_view> feature = words.Next();
		if (!feature)
			return std::nullopt;
		if (IsFeature(*feature, "writeback"))
			mode = ZEVO_FLASH_CACHE_MODE_WRITE_BACK;
		else if (IsFeature(*feature, "writethrough"))
			mode = ZEVO_FLASH_CACHE_MODE_WRITE_THROUGH;
		else if (IsFeature(*feature, "passthrough"))
			mode = ZEVO_FLASH_CACHE_MODE_READ_ONLY;
	}
	return mode;
}

/// Takes the next word; false when there is none.
bool TakeWord(Words &words, std::string &word)
{
	const std::optional<std::string_view> next = words.Next();
	word = next.value_or("");
	return next.has_value();
}

/// Appends a target if it is one that caches. False when it lacks a device.
bool AppendCache(std::string_view type, std::string_view parameters, std::vector<CacheTarget> &caches)
{
	Words words(parameters);
	CacheTarget target;
	if (type == "cache") {
		if (!TakeWord(words, target.metadata) || !TakeWord(words, target.cache) ||
		    !TakeWord(words, target.origin))
			return false;
		target.mode = CacheMode(words);
	} else if (type == "writecache") {
		std::string kind;
		if (!TakeWord(words, kind) || !TakeWord(words, target.origin) || !TakeWord(words, target.cache))
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
