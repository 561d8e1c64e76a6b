#include "btrfs_metadata_cache/chunk_tree_search.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>

namespace {

// The next metadata chunk is mostly near; behind many data chunks it is worth asking for as much as fits at once.
constexpr uint32_t kFirstItems = 2;
constexpr uint32_t kMoreTimes = 8;
constexpr uint32_t kMostItems = 128;

// What btrfs_ioctl_search_args_v2 is, with room for the answer.
struct Search {
	btrfs_ioctl_search_key key;
	uint64_t buf_size;
	uint8_t buf[16384];
};

static_assert(sizeof(btrfs_ioctl_search_key) == 104);
static_assert(offsetof(Search, buf_size) == offsetof(btrfs_ioctl_search_args_v2, buf_size));
static_assert(offsetof(Search, buf) == sizeof(btrfs_ioctl_search_args_v2));
static_assert(sizeof(btrfs_ioctl_search_args) == 4096);
static_assert(BTRFS_IOC_TREE_SEARCH == 0xD0009411 && BTRFS_IOC_TREE_SEARCH_V2 == 0xC0709411);

// Kernels before 3.16 have a request with a smaller answer only.
int AskOldKernel(int volume, Search &search)
{
	btrfs_ioctl_search_args args = {};
	args.key = search.key;
	if (ioctl(volume, BTRFS_IOC_TREE_SEARCH, &args) != 0)
		return -1;
	search.key = args.key;
	search.buf_size = sizeof(args.buf);
	memcpy(search.buf, args.buf, sizeof(args.buf));
	return 0;
}

int Ask(int volume, uint64_t start, uint32_t items, Search &search)
{
	search.key = {};
	search.key.tree_id = BTRFS_CHUNK_TREE_OBJECTID;
	search.key.min_objectid = search.key.max_objectid = BTRFS_FIRST_CHUNK_TREE_OBJECTID;
	search.key.min_type = search.key.max_type = BTRFS_CHUNK_ITEM_KEY;
	search.key.min_offset = start;
	search.key.max_offset = search.key.max_transid = UINT64_MAX;
	search.key.nr_items = items;
	search.buf_size = sizeof(search.buf);
	const int result = ioctl(volume, BTRFS_IOC_TREE_SEARCH_V2, &search);
	return result != 0 && (errno == ENOTTY || errno == EINVAL) ? AskOldKernel(volume, search) : result;
}

// 0 with a chunk of the types, 1 when the answer has none, -1. Moves start behind the last chunk that it has looked at.
int FindInAnswer(const Search &search, uint64_t types, uint64_t &start, TreeChunk &found)
{
	std::span<const uint8_t> answer(search.buf, std::min<uint64_t>(search.buf_size, sizeof(search.buf)));
	for (uint32_t i = 0; i < search.key.nr_items; ++i) {
		const auto chunk = TakeChunk(answer);
		if (!chunk || chunk->logical < start || chunk->logical == UINT64_MAX) {
			errno = EUCLEAN;
			return -1;
		}
		start = chunk->logical + 1;
		if ((chunk->type & types) != 0) {
			found = *chunk;
			return 0;
		}
	}
	return 1;
}

} // namespace

int FindChunk(int volume, uint64_t types, uint64_t start, TreeChunk &found)
{
	Search search = {};
	// An answer with fewer items than were asked for need not be the last one; an empty one is.
	for (uint32_t items = kFirstItems;; items = std::min(items * kMoreTimes, kMostItems)) {
		if (Ask(volume, start, items, search) != 0)
			return -1;
		if (search.key.nr_items == 0)
			return 1;
		const int result = FindInAnswer(search, types, start, found);
		if (result != 1)
			return result;
	}
}
