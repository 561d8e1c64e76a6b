#include "btrfs_metadata_cache/merge_walk.h"

namespace {

// A chunk that the volume has and that is recorded as it is. 1 to go on, 0 to end, -1.
int KeepChunk(const chunk_info &recorded, PinActions &actions)
{
	if (actions.IsOverLimit()) // which has been lowered
		return actions.Remove(recorded) == 0 && actions.Pass(recorded) == 0 ? 1 : -1;
	if (recorded.status == 1)
		return actions.Pass(recorded) == 0 ? 1 : -1;
	return actions.Preload(recorded) == 0 ? actions.MayGoOn() : -1;
}

} // namespace

int WalkChunks(std::span<const chunk_info> recorded, PinActions &actions)
{
	chunk_info current = {};
	int fetched;
	while ((fetched = actions.Next(current)) == 0) {
		// The recorded ones up to the current one are gone from the volume, or stand at its offset.
		bool isKept = false;
		int goOn = 1;
		while (!recorded.empty() && recorded.front().offset <= current.offset && !isKept) {
			isKept = ChunkIsEqual(recorded.front(), current);
			if (isKept)
				goOn = KeepChunk(recorded.front(), actions);
			else if (actions.Remove(recorded.front()) != 0)
				return -1;
			recorded = recorded.subspan(1);
		}
		if (!isKept)
			goOn = actions.Add(current) == 0 ? actions.MayGoOn() : -1;
		if (goOn != 1)
			return goOn;
	}
	if (fetched < 0)
		return -1;
	for (const chunk_info &chunk : recorded)
		if (actions.Remove(chunk) != 0)
			return -1;
	return 0;
}
