#ifndef UTILS_APPLY_RAID_H
#define UTILS_APPLY_RAID_H

#include "utils/apply/section.h"

// Applies a section whose name begins with "raid_cfq": tunables of the active I/O scheduler, on every member disk of the
// arrays whose level belongs to the section's name. 0, or -1 at the first key that fails.
int TuneApplyRaidSection(const SectionPlace &place);

#endif
