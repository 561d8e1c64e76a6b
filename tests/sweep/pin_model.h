#ifndef TESTS_SWEEP_PIN_MODEL_H
#define TESTS_SWEEP_PIN_MODEL_H

// What the pin engine has to reach, stated without how it gets there.
//
// A volume whose metadata may be pinned ends up with a mapping file that names a set of chunks, with all of these pinned and
// nothing else. Which ones they are follows from the chunks that the volume has now, from those that the mapping file named
// before, and from how much may be pinned. Any other volume ends up with no mapping file and with nothing pinned.

#include "kit/pin_volume.h"

#include "sweep/pin_state.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace model {

/// Something to be pinned, in bytes: a metadata chunk by its address, or a superblock copy by its number, 1 and up.
struct Chunk {
	uint64_t offset;
	uint64_t size;
	std::vector<uint64_t> stripes;

	bool operator==(const Chunk &) const = default;
	/// What it takes of the cache.
	uint64_t Cost() const { return size * stripes.size(); }
	Blocks Where() const;
};

using Chunks = std::map<uint64_t, Chunk>; // by offset

/// A mapping file as a reader sees it.
struct Mapping {
	bool exists = false;
	std::string status; // of all: "1" building, "2" complete, "3" disabled; empty when the file does not say
	Chunks superblocks;
	Chunks metadata;
	std::set<uint64_t> unread; // offsets of those that are recorded, and not known to be pinned in full

	Blocks Where() const;
};

Mapping ReadMapping();

/// A volume, and all that decides about it.
struct Situation {
	std::vector<kit::MetadataChunk> chunks; // with rising offsets
	bool isLarge = false;                   // enough for a second copy of the superblock
	uint64_t cacheSize = uint64_t{1} << 30;
	uint64_t limit = 100; // as configured: up to 100 a percentage of the cache, otherwise bytes
	bool isConfiguredOn = true;
	bool isSwitchedOn = true;
	bool hasCache = true;
	int cacheMode = 1;

	bool MayPin() const;
	uint64_t MostBytes() const;
	Chunks Superblocks() const;
	Chunks Metadata() const;
};

/// Makes the volume so. What goes away with its cache is not pinned any more.
void Apply(const Situation &situation, kit::PinVolume &volume);

/// One walk by rising offset over what was recorded and what is there now; the result is recorded afterwards.
///
/// `total` is the sum of all that is recorded. What has vanished or is not as it was is given up. What is as it was stays,
/// unless more is recorded at that moment than may be: then it is given up. What is new, or new as it is, is taken if it still
/// fits in.
Chunks Walk(const Chunks &recorded, const Chunks &current, uint64_t mostBytes, uint64_t &total);

/// What a pass that nothing disturbs makes of a mapping file, as text; `pinned` is what was pinned before it.
///
/// A record that says that its chunk is pinned is taken at its word: what was lost with a cache that has come back stays so.
std::string Reached(const Situation &situation, const Mapping &before, const Blocks &pinned);

/// What is there, as text:
///
///   pinned 16+1 512+8 640+8
///   switch 1
///   mapping 2
///   1 4096 at 65536
///   4194304 32768 at 2097152 2621440           (" unread" behind a chunk whose status is not 1)
std::string Found(const kit::PinVolume &volume);

/// What is pinned and is not in a mapping file, as ranges; empty when all is well.
std::string PinnedWithoutRecord(const kit::PinVolume &volume);

/// What a pass must have cleared away: the names of what is left of it; empty when all is well.
std::string LeftBehind();

/// Runs the engine in a child that is killed at its nth change. False when the child got to its end, which it must do with
/// success.
bool KilledAt(int n);

} // namespace model

#endif
