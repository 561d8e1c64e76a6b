#ifndef TESTS_SWEEP_PIN_STATE_H
#define TESTS_SWEEP_PIN_STATE_H

#include "kit/pin_volume.h"

#include <set>
#include <string>

/// Blocks of the device.
using Blocks = std::set<uint64_t>;

/// What the pin tool has pinned.
Blocks PinnedBlocks(const kit::PinTool &tool);

/// What a mapping file says may be pinned. A file that is missing, or no mapping file, says nothing.
Blocks RecordedBlocks(const std::string &mapping);

Blocks Without(const Blocks &blocks, const Blocks &others);

/// The "status" of a section of a mapping file; empty when it has none.
std::string StatusOf(const std::string &mapping, const std::string &section);

/// Whether nobody holds a lock file. One that was never made is not held.
bool IsUnlocked(const std::string &path);

/// How often a call of the storage library was made.
long CallsOf(const kit::FakeStorage &storage, const std::string &function);

#endif
