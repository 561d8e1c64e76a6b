#include "metadata_size.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

uint64_t Sum(uint64_t a, uint64_t b)
{
	return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

size_t StripesOf(const chunk_info &chunk)
{
	return static_cast<size_t>(std::min<unsigned long long>(chunk.stripe_count, std::size(chunk.stripe_offset)));
}

uint64_t SizeOnDevice(const chunk_info &chunk)
{
	uint64_t bytes = 0;
	for (size_t i = 0; i < StripesOf(chunk); ++i)
		bytes = Sum(bytes, chunk.size);
	return bytes;
}

uint64_t SizeOnDevice(const std::vector<chunk_info> &chunks)
{
	uint64_t bytes = 0;
	for (const chunk_info &chunk : chunks)
		bytes = Sum(bytes, SizeOnDevice(chunk));
	return bytes;
}

uint64_t LogicalSize(const std::vector<chunk_info> &chunks)
{
	uint64_t bytes = 0;
	for (const chunk_info &chunk : chunks)
		bytes = Sum(bytes, chunk.size);
	return bytes;
}

const char *ProfileOf(const chunk_info &chunk)
{
	return StripesOf(chunk) > 1 ? "DUP" : "single";
}

std::string SizeText(uint64_t bytes)
{
	constexpr const char *kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
	size_t unit = 0;
	while (unit + 1 < std::size(kUnits) && bytes >> (10 * (unit + 1)) != 0)
		++unit;
	const uint64_t one = uint64_t{1} << (10 * unit);
	const double count = static_cast<double>(bytes) / static_cast<double>(one);
	const int decimals = bytes % one == 0 || count >= 99.95 ? 0 : count >= 9.995 ? 1 : 2;
	char text[32];
	snprintf(text, sizeof(text), "%.*f %s", decimals, count, kUnits[unit]);
	return text;
}
