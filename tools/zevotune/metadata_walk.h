#ifndef ZEVOTUNE_METADATA_WALK_H
#define ZEVOTUNE_METADATA_WALK_H

#include "btrfs_metadata_cache/chunk_discovery.h"

#include <optional>
#include <string>
#include <vector>

/// All that an enumerator names, or nothing when it fails. Throws Failure when it would never end.
std::optional<std::vector<chunk_info>> WalkMetadata(GetNextMapping next, const std::string &volume,
                                                    const std::string &device);

#endif
