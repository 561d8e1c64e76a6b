#ifndef ZEVOTUNE_METADATA_OUTPUT_H
#define ZEVOTUNE_METADATA_OUTPUT_H

#include "metadata.h"
#include "metadata_map.h"

#include <json/value.h>

/// For people. More than a few chunks are summed up by their sizes, unless the whole list is asked for.
std::string MetadataText(const MetadataLayout &layout, const MapStyle &style, bool list);

/// For programs, with every chunk.
Json::Value MetadataJson(const MetadataLayout &layout);

#endif
