#ifndef UTILS_APPLY_SYSCTL_H
#define UTILS_APPLY_SYSCTL_H

#include "utils/apply/section.h"

// Sets the kernel parameters of a section. A key that cannot be set is logged and passed over: -1 only when the section
// itself cannot be read.
int TuneApplySysctlSection(const SectionPlace &place);

// Sets one kernel parameter. 0 or -1.
int TuneApplyOneSysctl(const char *szKey, const char *szValue, ParameterWriter &writer);

// Sets "vm.dirty_ratio" or "vm.dirty_background_ratio", as a number of bytes where the machine has more memory than the
// profile's "vm_memory_max". 0 or -1. May throw std::bad_alloc.
int TuneApplySysctlVMDirty(const char *szKey, const char *szValue, const Profile &profile, ParameterWriter &writer);

#endif
