#ifndef TESTS_KIT_FAKE_BTRFS_H
#define TESTS_KIT_FAKE_BTRFS_H

// A Btrfs file system of the test's own, behind every descriptor: what it answers to the requests for chunks, devices
// and spaces; and the size of a block device.

#include "kit/machine_ioctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>

namespace kit {

inline constexpr unsigned long kAppliancesLookup = 0xC05094F2;

struct FakeChunk {
	struct Stripe {
		uint64_t devid;
		uint64_t offset;
	};
	uint64_t logical;
	uint64_t length;
	uint64_t type;
	std::vector<Stripe> stripes;
};

/// Appends a search's item, byte for byte as the kernel lays it out.
inline void AppendItem(std::vector<uint8_t> &bytes, const FakeChunk &chunk)
{
	btrfs_chunk head = {};
	head.length = htole64(chunk.length);
	head.owner = htole64(2);
	head.stripe_len = htole64(65536);
	head.type = htole64(chunk.type);
	head.num_stripes = htole16(static_cast<uint16_t>(chunk.stripes.size()));
	constexpr size_t kHead = offsetof(btrfs_chunk, stripe);
	btrfs_ioctl_search_header header = {};
	header.objectid = BTRFS_FIRST_CHUNK_TREE_OBJECTID;
	header.offset = chunk.logical;
	header.type = BTRFS_CHUNK_ITEM_KEY;
	header.len = static_cast<uint32_t>(kHead + chunk.stripes.size() * sizeof(btrfs_stripe));
	const auto append = [&](const void *from, size_t size) {
		const auto *first = static_cast<const uint8_t *>(from);
		bytes.insert(bytes.end(), first, first + size);
	};
	append(&header, sizeof(header));
	append(&head, kHead);
	for (const FakeChunk::Stripe &stripe : chunk.stripes) {
		btrfs_stripe raw = {};
		raw.devid = htole64(stripe.devid);
		raw.offset = htole64(stripe.offset);
		append(&raw, sizeof(raw));
	}
}

/// What the kernel answers while the object lives. Objects do not nest.
class FakeBtrfs {
public:
	FakeBtrfs() : previous(ioctlOnVolume)
	{
		current = this;
		ioctlOnVolume = [](int, unsigned long request, void *argument) {
			return current->Answer(request, argument);
		};
	}
	~FakeBtrfs()
	{
		ioctlOnVolume = previous;
		current = nullptr;
	}
	FakeBtrfs(const FakeBtrfs &) = delete;
	FakeBtrfs &operator=(const FakeBtrfs &) = delete;

	std::vector<FakeChunk> chunks; // by address
	std::map<uint64_t, std::string> devices;
	std::vector<btrfs_ioctl_space_info> spaces;
	uint64_t deviceSize = 0;
	bool hasLookup = false;                                // the appliance's request
	std::map<unsigned long, int> errors;                   // errno in place of an answer
	std::function<void(unsigned long, void *)> before;     // runs before each answer
	std::function<void(unsigned long, void *)> afterwards; // may change the answer
	std::vector<unsigned long> requests;                   // so far

private:
	std::optional<int> Answer(unsigned long request, void *argument)
	{
		requests.push_back(request);
		if (before)
			before(request, argument);
		if (const auto error = errors.find(request); error != errors.end())
			return Failure(error->second);
		const std::optional<int> result = Fill(request, argument);
		if (result == 0 && afterwards)
			afterwards(request, argument);
		return result;
	}

	std::optional<int> Fill(unsigned long request, void *argument) const
	{
		switch (request) {
		case kAppliancesLookup:
			return hasLookup ? LookUp(static_cast<uint64_t *>(argument)) : Failure(ENOTTY);
		case BTRFS_IOC_TREE_SEARCH: {
			auto *const args = static_cast<btrfs_ioctl_search_args *>(argument);
			size_t room = sizeof(args->buf);
			Search(args->key, reinterpret_cast<uint8_t *>(args->buf), room);
			return 0;
		}
		case BTRFS_IOC_TREE_SEARCH_V2: {
			auto *const args = static_cast<btrfs_ioctl_search_args_v2 *>(argument);
			size_t room = args->buf_size;
			Search(args->key, static_cast<uint8_t *>(argument) + sizeof(*args), room);
			const bool fits = room <= args->buf_size;
			args->buf_size = room; // what it takes
			return fits ? 0 : Failure(EOVERFLOW);
		}
		case BTRFS_IOC_FS_INFO:
			static_cast<btrfs_ioctl_fs_info_args *>(argument)->num_devices = devices.size();
			if (!devices.empty())
				static_cast<btrfs_ioctl_fs_info_args *>(argument)->max_id = devices.rbegin()->first;
			return 0;
		case BTRFS_IOC_DEV_INFO: {
			auto *const args = static_cast<btrfs_ioctl_dev_info_args *>(argument);
			const auto device = devices.find(args->devid);
			if (device == devices.end())
				return Failure(ENODEV);
			strcpy(reinterpret_cast<char *>(args->path), device->second.c_str());
			return 0;
		}
		case BTRFS_IOC_SPACE_INFO:
			return Spaces(static_cast<uint64_t *>(argument));
		case BLKGETSIZE64:
			*static_cast<uint64_t *>(argument) = deviceSize;
			return 0;
		default:
			return std::nullopt;
		}
	}

	static int Failure(int error)
	{
		errno = error;
		return -1;
	}

	/// Ten words: logical, type, length, number of stripes, two offsets, four that mean nothing.
	int LookUp(uint64_t *words) const
	{
		for (size_t i = 2; i < 10; ++i)
			if (words[i] != 0)
				return Failure(EINVAL);
		const auto chunk = std::find_if(chunks.begin(), chunks.end(), [&](const FakeChunk &candidate) {
			return candidate.logical >= words[0] && (candidate.type & words[1]) != 0;
		});
		if (chunk == chunks.end())
			return 0;
		words[0] = chunk->logical;
		words[2] = chunk->length;
		words[3] = chunk->stripes.size();
		for (size_t i = 0; i < 2 && i < chunk->stripes.size(); ++i)
			words[4 + i] = chunk->stripes[i].offset;
		return 0;
	}

	/// Fills items in while there is room. Of a first one that does not fit there is only a header, without length.
	void Search(btrfs_ioctl_search_key &key, uint8_t *buffer, size_t &room) const
	{
		const uint32_t wanted = key.nr_items;
		key.nr_items = 0;
		std::vector<uint8_t> bytes;
		for (const FakeChunk &chunk : chunks) {
			if (chunk.logical < key.min_offset || chunk.logical > key.max_offset)
				continue;
			std::vector<uint8_t> item;
			AppendItem(item, chunk);
			if (key.nr_items == 0 && item.size() > room) {
				room = item.size();
				memset(item.data() + offsetof(btrfs_ioctl_search_header, len), 0, sizeof(uint32_t));
				memcpy(buffer, item.data(), sizeof(btrfs_ioctl_search_header));
				key.nr_items = 1;
				return;
			}
			if (key.nr_items == wanted || bytes.size() + item.size() > room)
				break;
			bytes.insert(bytes.end(), item.begin(), item.end());
			++key.nr_items;
		}
		std::copy(bytes.begin(), bytes.end(), buffer);
	}

	/// Two words, slots and spaces, and three for each space.
	int Spaces(uint64_t *words) const
	{
		const uint64_t slots = words[0];
		words[1] = slots == 0 ? spaces.size() : std::min<uint64_t>(slots, spaces.size());
		for (uint64_t i = 0; slots != 0 && i < words[1]; ++i)
			memcpy(words + 2 + 3 * i, &spaces[i], sizeof(spaces[i]));
		return 0;
	}

	static inline FakeBtrfs *current = nullptr;
	std::optional<int> (*previous)(int, unsigned long, void *);
};

} // namespace kit

#endif
