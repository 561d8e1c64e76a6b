#include "btrfs_metadata_cache/chunk_tree.h"

#include <cstddef>
#include <cstring>

#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>

static_assert(sizeof(btrfs_ioctl_search_header) == 32);
static_assert(sizeof(btrfs_stripe) == 32);
static_assert(sizeof(btrfs_chunk) == 48 + sizeof(btrfs_stripe) && offsetof(btrfs_chunk, stripe) == 48);

namespace {

// Nothing in an answer is aligned.
template <class T>
std::optional<T> Read(std::span<const uint8_t> bytes, size_t at)
{
	if (bytes.size() < at || bytes.size() - at < sizeof(T))
		return std::nullopt;
	T value;
	memcpy(&value, bytes.data() + at, sizeof(value));
	return value;
}

std::optional<TreeChunk> ParseChunk(uint64_t logical, std::span<const uint8_t> item)
{
	const auto head = Read<btrfs_chunk>(item, 0);
	if (!head)
		return std::nullopt;
	TreeChunk chunk = {
		logical, le64toh(head->length), le64toh(head->type), le16toh(head->num_stripes), {},
	};
	uint64_t end;
	if (chunk.stripe_count == 0 || __builtin_add_overflow(logical, chunk.length, &end) ||
	    item.size() < offsetof(btrfs_chunk, stripe) + chunk.stripe_count * sizeof(btrfs_stripe))
		return std::nullopt;
	size_t at = offsetof(btrfs_chunk, stripe);
	for (unsigned i = 0; i < 2 && i < chunk.stripe_count; ++i, at += sizeof(btrfs_stripe)) {
		const auto stripe = Read<btrfs_stripe>(item, at);
		if (!stripe)
			return std::nullopt;
		chunk.stripe[i] = {le64toh(stripe->devid), le64toh(stripe->offset)};
		if (__builtin_add_overflow(chunk.stripe[i].offset, chunk.length, &end))
			return std::nullopt;
	}
	return chunk;
}

} // namespace

std::optional<TreeChunk> TakeChunk(std::span<const uint8_t> &answer)
{
	const auto header = Read<btrfs_ioctl_search_header>(answer, 0);
	if (!header || header->objectid != BTRFS_FIRST_CHUNK_TREE_OBJECTID || header->type != BTRFS_CHUNK_ITEM_KEY)
		return std::nullopt;
	const auto items = answer.subspan(sizeof(*header));
	if (header->len > items.size())
		return std::nullopt;
	const auto chunk = ParseChunk(header->offset, items.first(header->len));
	if (chunk)
		answer = items.subspan(header->len);
	return chunk;
}
