#ifndef BTRFS_METADATA_CACHE_CHUNK_LOOKUP_H
#define BTRFS_METADATA_CACHE_CHUNK_LOOKUP_H

// The appliance kernel's own request to a Btrfs file system: the first chunk of some types at or after an address.

#include <cstddef>
#include <cstdint>

#include <linux/btrfs.h>
#include <sys/ioctl.h>

struct btrfs_ioctl_chunk_lookup_args {
	uint64_t logical;          // in: where to begin; out: where the chunk begins
	uint64_t type;             // in: block group types, any of which will do
	uint64_t length;           // out
	uint64_t num_stripes;      // out; 0: there is no such chunk
	uint64_t stripe_offset[2]; // out: on the device
	uint64_t reserved[4];
};

inline constexpr unsigned long kChunkLookup = _IOWR(BTRFS_IOCTL_MAGIC, 0xF2, btrfs_ioctl_chunk_lookup_args);

static_assert(sizeof(btrfs_ioctl_chunk_lookup_args) == 80);
static_assert(offsetof(btrfs_ioctl_chunk_lookup_args, length) == 16);
static_assert(offsetof(btrfs_ioctl_chunk_lookup_args, num_stripes) == 24);
static_assert(offsetof(btrfs_ioctl_chunk_lookup_args, stripe_offset) == 32);
static_assert(offsetof(btrfs_ioctl_chunk_lookup_args, reserved) == 48);
static_assert(kChunkLookup == 0xC05094F2);

#endif
