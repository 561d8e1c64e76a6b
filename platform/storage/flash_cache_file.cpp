#include "storage/flash_cache_file.h"

#include "common/text_lines.h"
#include "common/text_read.h"
#include "storage/block_device.h"
#include "storage/failure.h"

#include <zevostorage/flash_cache.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <set>
#include <utility>

namespace zevos {

namespace {

using vunkc::Line;

constexpr std::string_view kIdPrefix = "ssd_";
constexpr size_t kMaxReference = 256; // what the records of this library's users have room for

/// A whole text as a number from 0 to `max`: no sign, no blanks.
template <class Number>
bool ParseNumber(std::string_view text, Number max, Number &number, int base = 10)
{
	static_assert(std::is_unsigned_v<Number>);
	const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
	return error == std::errc() && end == text.data() + text.size() && number <= max;
}

/// Whether a path is written as the kernel writes paths. Another one would never be found.
bool IsPlainPath(std::string_view path)
{
	if (path == "/")
		return true;
	if (!path.starts_with('/') || path.ends_with('/'))
		return false;
	const std::string closed = std::string(path) + '/';
	return closed.find("//") == std::string::npos && closed.find("/./") == std::string::npos &&
	       closed.find("/../") == std::string::npos;
}

bool ParseVolume(std::string_view value, DeclaredCache &cache)
{
	cache.volume = value;
	return IsPlainPath(value);
}

bool ParseDevice(std::string_view value, DeclaredCache &cache)
{
	cache.device = value;
	return value.starts_with(kDevDir) && IsPlainPath(value);
}

bool ParseId(std::string_view value, DeclaredCache &cache)
{
	cache.id = value;
	unsigned number = 0;
	return value.starts_with(kIdPrefix) && ParseNumber(value.substr(kIdPrefix.size()), unsigned{INT_MAX}, number);
}

bool ParseMode(std::string_view value, DeclaredCache &cache)
{
	unsigned mode = 0;
	const bool isMode = ParseNumber(value, unsigned{ZEVO_FLASH_CACHE_MODE_REMOVED}, mode);
	cache.mode = static_cast<int>(mode);
	return isMode;
}

bool ParseFlags(std::string_view value, DeclaredCache &cache)
{
	constexpr unsigned known = ZEVO_FLASH_CACHE_SUPPORT_PIN_RANGE | ZEVO_FLASH_CACHE_SUPPORT_PIN;
	const bool isHexadecimal = value.starts_with("0x") || value.starts_with("0X");
	const bool isNumber = isHexadecimal ? ParseNumber(value.substr(2), UINT_MAX, cache.flags, 16)
	                                    : ParseNumber(value, UINT_MAX, cache.flags);
	return isNumber && (cache.flags & ~known) == 0;
}

bool ParseSize(std::string_view value, DeclaredCache &cache)
{
	return ParseNumber(value, ULLONG_MAX, cache.size) && cache.size > 0;
}

bool ParseReference(std::string_view value, DeclaredCache &cache)
{
	cache.reference = value;
	return !value.empty() && value.size() <= kMaxReference;
}

struct Key {
	std::string_view name;
	bool (*parse)(std::string_view value, DeclaredCache &cache);
	bool namesSpace = false; // one of those that do
};

constexpr Key kKeys[] = {
	{"volume", ParseVolume, true}, {"device", ParseDevice, true}, {"id", ParseId},
	{"mode", ParseMode},           {"flags", ParseFlags},         {"size", ParseSize},
	{"reference", ParseReference},
};

/// Takes the lines of the file one after the other.
class Parser {
public:
	/// False when the line is wrong.
	bool TakeHeader(const Line &line)
	{
		header = line.number;
		caches.emplace_back();
		given.clear();
		return names.emplace(line.name).second;
	}

	bool TakePair(const Line &line)
	{
		if (caches.empty())
			return false;
		const auto key = std::find_if(std::begin(kKeys), std::end(kKeys),
		                              [&](const Key &known) { return known.name == line.name; });
		if (key == std::end(kKeys) || !given.insert(key->namesSpace ? "" : key->name).second ||
		    !key->parse(line.value, caches.back()))
			return false;
		if (!key->namesSpace)
			return true;
		caches.back().spaceLine = line.number;
		return spaces.emplace(key->name, line.value).second;
	}

	/// Whether the section so far, if there is one, has all of its keys; else its header is wrong.
	bool IsComplete() const { return caches.empty() || given.size() == std::size(kKeys) - 1; }

	int Header() const { return header; }
	std::vector<DeclaredCache> Release() { return std::move(caches); }

private:
	int header = 0;
	std::vector<DeclaredCache> caches;
	std::set<std::string_view> given; // keys of this section; "" for either that names the space
	std::set<std::string_view> names;
	std::set<std::pair<std::string_view, std::string_view>> spaces;
};

bool IsFor(const DeclaredCache &cache, std::string_view volume, std::string_view device, std::string_view altDevice)
{
	if (!cache.volume.empty())
		return cache.volume == volume;
	return cache.device == device || cache.device == altDevice;
}

} // namespace

FlashCacheFile ParseFlashCacheFile(std::string_view text)
{
	vunkc::LineReader reader(text);
	Parser parser;
	for (;;) {
		const Line line = reader.Next();
		const bool endsSection = line.kind == Line::Kind::kHeader || line.kind == Line::Kind::kEnd;
		if (endsSection && !parser.IsComplete())
			return {{}, parser.Header()};
		if (line.kind == Line::Kind::kEnd)
			return {parser.Release()};
		const bool isRight = line.kind == Line::Kind::kHeader
		                             ? parser.TakeHeader(line)
		                             : line.kind == Line::Kind::kPair && parser.TakePair(line);
		if (!isRight)
			return {{}, line.number};
	}
}

std::optional<DeclaredCache> FindDeclaredCache(std::string_view volume, std::string_view device,
                                               std::string_view altDevice)
{
	std::string text;
	const int error = vunkc::ReadText(ZEVO_FLASH_CACHE_FILE, text);
	if (error == VUNKC_ERR_FILE_MISSING)
		return std::nullopt;
	if (error != VUNKC_ERR_NONE)
		throw KernelFailure(error, ZEVO_FLASH_CACHE_FILE);
	FlashCacheFile file = ParseFlashCacheFile(text);
	if (file.wrongLine != 0)
		throw KernelFailure(VUNKC_ERR_SYNTAX, ZEVO_FLASH_CACHE_FILE, file.wrongLine);
	std::optional<DeclaredCache> found;
	for (DeclaredCache &cache : file.caches) {
		if (!IsFor(cache, volume, device, altDevice))
			continue;
		if (found) // one by the volume, one by a device
			throw KernelFailure(VUNKC_ERR_SYNTAX, ZEVO_FLASH_CACHE_FILE, cache.spaceLine);
		found = std::move(cache);
	}
	return found;
}

} // namespace zevos
