#include "btrfs_metadata_cache/chunk_records.h"

#include "btrfs_metadata_cache/mapping_section.h"
#include "support/log.h"

#include <vunkcore/section_file.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <iterator>
#include <unordered_set>

namespace {

constexpr char kStatus[] = "status";
constexpr char kSize[] = "size";
constexpr char kStripeCount[] = "stripe_count";
constexpr char kStripeOffset[] = "stripe_offset_";

using Key = TextBuffer<32>;

Key StripeOffsetKey(size_t stripe)
{
	return Key("%s%zu", kStripeOffset, stripe);
}

// A decimal number and nothing else. A missing text is none.
template <class Number>
bool ParseNumber(const char *text, Number &number)
{
	if (text == nullptr)
		return false;
	const char *const end = text + strlen(text);
	const auto [rest, error] = std::from_chars(text, end, number);
	return error == std::errc() && rest == end;
}

// Only the name that the chunk would be written with: by any other it could not be found again.
bool ParseName(const char *szSection, chunk_info &chunk)
{
	return ParseNumber(szSection, chunk.offset) && std::string_view(szSection) == SectionOf(chunk).c_str();
}

enum class Fault { None, NoHash, Section, Size, StripeCount, StripeOffset };

Fault BadValue(const char *szConfigPath, Fault fault)
{
	VUNKCErrSetEx(VUNKC_ERR_SYNTAX, szConfigPath, 0);
	return fault;
}

Fault ParseRecord(const char *szConfigPath, const char *szSection, chunk_info &chunk)
{
	Hash pairs;
	if (!pairs)
		return Fault::NoHash;
	if (VUNKCFileGetSection(szConfigPath, szSection, pairs.out()) < 0)
		return Fault::Section;
	chunk = {};
	if (!ParseName(szSection, chunk))
		return BadValue(szConfigPath, Fault::Section);
	if (!ParseNumber(pairs.Get(kSize), chunk.size))
		return BadValue(szConfigPath, Fault::Size);
	if (!ParseNumber(pairs.Get(kStripeCount), chunk.stripe_count) ||
	    chunk.stripe_count > std::size(chunk.stripe_offset))
		return BadValue(szConfigPath, Fault::StripeCount);
	for (size_t i = 0; i < chunk.stripe_count; ++i)
		if (!ParseNumber(pairs.Get(StripeOffsetKey(i).c_str()), chunk.stripe_offset[i]) ||
		    chunk.stripe_offset[i] > ULLONG_MAX - chunk.size)
			return BadValue(szConfigPath, Fault::StripeOffset);
	const char *const status = pairs.Get(kStatus);
	chunk.status = status == nullptr || std::string_view(status) == "1" ? 1 : 0;
	return Fault::None;
}

bool SetKey(Hash &pairs, const char *szKey, unsigned long long value)
{
	const TextBuffer<32> text("%llu", value);
	if (VUNKCSzHashSetValue(pairs.out(), szKey, text.c_str()) == 0)
		return true;
	LOG_ERROR("Failed to set hash key %s value %s", szKey, text.c_str());
	return false;
}

bool SetPairs(Hash &pairs, const chunk_info &chunk)
{
	if (!SetKey(pairs, kStatus, 0) || !SetKey(pairs, kSize, chunk.size) ||
	    !SetKey(pairs, kStripeCount, chunk.stripe_count))
		return false;
	for (size_t i = 0; i < chunk.stripe_count; ++i)
		if (!SetKey(pairs, StripeOffsetKey(i).c_str(), chunk.stripe_offset[i]))
			return false;
	return true;
}

int SetStatus(const char *szConfigPath, unsigned long long ullOffset, const char *szStatus)
{
	const SectionName name("%llu", ullOffset);
	MappingSection section(szConfigPath, name.c_str());
	if (!section.Read())
		return -1;
	if (VUNKCSzHashSetValue(section.Pairs().out(), kStatus, szStatus) != 0) {
		LOG_ERROR("Failed to set hash key %s value %s", kStatus, szStatus);
		return -1;
	}
	return section.Write() ? 0 : -1;
}

} // namespace

SectionName SectionOf(const chunk_info &chunk)
{
	return SectionName("%llu", chunk.offset);
}

bool IsConfigSection(std::string_view name)
{
	return name == "config";
}

bool ReadRecord(const char *szConfigPath, const char *szSection, chunk_info &chunk)
{
	switch (ParseRecord(szConfigPath, szSection, chunk)) {
	case Fault::None:
		return true;
	case Fault::NoHash:
		LOG_ERROR("Failed to alloc hash");
		break;
	case Fault::Section:
		LOG_ERROR("Failed to get section [%s] in [%s]", szSection, szConfigPath);
		break;
	case Fault::Size:
		LOG_ERROR("Failed to get size with section [%s] in [%s]", szSection, szConfigPath);
		break;
	case Fault::StripeCount:
		LOG_ERROR("Failed to get stripe count with section [%s] in [%s]", szSection, szConfigPath);
		break;
	case Fault::StripeOffset:
		LOG_ERROR("Failed to get stripe offset with section [%s] in [%s]", szSection, szConfigPath);
		break;
	}
	return false;
}

bool TryRecord(const char *szConfigPath, const char *szSection, chunk_info &chunk)
{
	return ParseRecord(szConfigPath, szSection, chunk) == Fault::None;
}

std::vector<const char *> NamesOnce(const List &sections)
{
	std::vector<const char *> names;
	std::unordered_set<std::string_view> seen;
	for (int i = 0; i < sections.Count(); ++i)
		if (seen.insert(sections.Get(i)).second)
			names.push_back(sections.Get(i));
	return names;
}

bool AddRecord(const char *szConfigPath, const chunk_info &chunk)
{
	Hash pairs;
	if (!pairs) {
		LOG_ERROR("Failed to alloc hash");
		return false;
	}
	if (!SetPairs(pairs, chunk))
		return false;
	if (VUNKCFileAddSection(szConfigPath, SectionOf(chunk).c_str(), pairs.get()) >= 1)
		return true;
	LOG_ERROR("Failed to set section [%s] in [%s]", SectionOf(chunk).c_str(), szConfigPath);
	return false;
}

int PinBtrfsMetadataSectionUpdateChunkDone(const char *szConfigPath, const chunk_info *pChunk)
{
	return SetStatus(szConfigPath, pChunk->offset, "1");
}

int PinBtrfsMetadataSectionUpdateChunkUnread(const char *szConfigPath, unsigned long long ullOffset)
{
	return SetStatus(szConfigPath, ullOffset, "0");
}

bool RemoveRecord(const char *szConfigPath, const char *szSection)
{
	if (VUNKCFileRemoveSection(szConfigPath, szSection) == 1)
		return true;
	LOG_ERROR("Failed to remove section [%s] in [%s]", szSection, szConfigPath);
	return false;
}
