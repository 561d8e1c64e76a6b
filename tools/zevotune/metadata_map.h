#ifndef ZEVOTUNE_METADATA_MAP_H
#define ZEVOTUNE_METADATA_MAP_H

#include "metadata.h"

enum class Shades { kAscii, kUnicode };

struct MapStyle {
	size_t columns; // of the terminal
	Shades shades;
};

/// The device in eight lines at most, each cell standing for a power of two of MiB, and what the shades mean. Lines are
/// never shorter than eight cells, 19 columns, however narrow the terminal.
std::string MetadataMap(const MetadataLayout &layout, const MapStyle &style);

#endif
