#ifndef ZEVOTUNE_METADATA_SIZE_H
#define ZEVOTUNE_METADATA_SIZE_H

// Sizes of pieces of metadata. Whatever the kernel says, sums do not leave 64 bits: they end at the largest number.

#include <zevotuned/chunk_info.h>

#include <cstdint>
#include <string>
#include <vector>

uint64_t Sum(uint64_t a, uint64_t b);

/// How many stripes of a chunk are known.
size_t StripesOf(const chunk_info &chunk);

/// What a chunk takes on the device.
uint64_t SizeOnDevice(const chunk_info &chunk);
uint64_t SizeOnDevice(const std::vector<chunk_info> &chunks);

/// What chunks hold, each counted once.
uint64_t LogicalSize(const std::vector<chunk_info> &chunks);

/// "DUP" or "single", as Btrfs' own tools call it.
const char *ProfileOf(const chunk_info &chunk);

/// For people: "64 KiB" where it is that, else with three digits: "1.25 GiB".
std::string SizeText(uint64_t bytes);

#endif
