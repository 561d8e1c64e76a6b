#ifndef UTILS_APPLY_DISK_H
#define UTILS_APPLY_DISK_H

#include "utils/apply/section.h"

// Applies [disk]. 0, or -1 at the first key that fails.
int TuneApplyDiskSection(const SectionPlace &place);

// Applies one key: "ssd_scheduler" selects a scheduler on every SSD that offers it, other keys have no effect. Disks of which
// it cannot be told whether they are SSDs are passed over. 0, or -1 at the first disk that fails; whatever the key, also
// when the disks cannot be listed.
int TuneApplyDiskByKeyValue(const char *szKey, const char *szValue, ParameterWriter &writer);

// Whether a disk's scheduler file offers a scheduler: 1, 0 or -1.
int TuneCheckSchedulerSupport(const char *szPath, const char *szScheduler);

#endif
