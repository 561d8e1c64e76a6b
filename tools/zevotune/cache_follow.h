#ifndef ZEVOTUNE_CACHE_FOLLOW_H
#define ZEVOTUNE_CACHE_FOLLOW_H

#include "btrfs_volume.h"
#include "cache_status.h"
#include "cache_watch.h"

#include <functional>

/// Runs a pass in a process of its own and shows how it goes until it has ended; one that found another engine at work is
/// run again when that one has ended.
/// @param action  for the line of a failure: "pin the metadata of".
/// @param first   the call that starts it. When it is run again, it is ZEVOBtrfsMetadataCacheRescan.
/// Throws Failure when it failed, was killed, or a signal has asked the tool to end, which leaves the pass alone.
void FollowPass(const BtrfsVolume &volume, const std::string &action, CacheWatch::Display display,
                const std::function<int()> &first);

/// Shows how a pass of whoever goes until no engine works on the volume. What is the case then.
/// Throws Failure when a signal has asked the tool to end.
CacheFacts FollowEngine(const BtrfsVolume &volume, CacheWatch::Display display);

#endif
