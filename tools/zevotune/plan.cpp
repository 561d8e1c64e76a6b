#include "plan.h"

std::vector<PlaceOfWrite> WritesOf(const Plan &plan)
{
	std::vector<PlaceOfWrite> writes;
	for (const PlannedSection &section : plan.sections)
		for (const PlannedKey &key : section.keys)
			for (const PlannedWrite &write : key.writes)
				writes.push_back({&section, &key, &write});
	return writes;
}

bool Changes(const PlannedWrite &write)
{
	return write.known && (!write.now.text || !IsSameValue(write.path, *write.now.text, write.value));
}
