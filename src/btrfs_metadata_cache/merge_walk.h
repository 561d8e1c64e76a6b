#ifndef BTRFS_METADATA_CACHE_MERGE_WALK_H
#define BTRFS_METADATA_CACHE_MERGE_WALK_H

#include <zevotuned/chunk_info.h>

#include <span>

// What a walk asks for and what it finds to do. Unless it says otherwise, each returns 0, or -1, which ends the walk.
class PinActions {
public:
	virtual ~PinActions() = default;

	// The volume's first chunk behind the one that `chunk` holds, which is all zero before the first call: 0, and 1
	// when there is none. Offsets rise.
	virtual int Next(chunk_info &chunk) = 0;
	// More is recorded than may be pinned.
	virtual bool IsOverLimit() const = 0;

	virtual int Remove(const chunk_info &recorded) = 0;
	virtual int Add(const chunk_info &chunk) = 0;
	virtual int Preload(const chunk_info &recorded) = 0;
	// The chunk needs nothing (more).
	virtual int Pass(const chunk_info &chunk) = 0;
	// Asked after each Add and Preload: 1, or 0 when the walk is to end here with success.
	virtual int MayGoOn() = 0;
};

// Walks two sequences at once by ascending offset: the chunks that are recorded, and those that the volume has now.
// What is recorded but not there, or not so, is removed; what is there but not recorded is added; what is recorded but
// was not read is preloaded. 0 or -1.
int WalkChunks(std::span<const chunk_info> recorded, PinActions &actions);

#endif
