#ifndef UTILS_APPLY_DRIVER_H
#define UTILS_APPLY_DRIVER_H

#include "utils/apply/writer.h"

#include <zevotuned/apply.h>

// Applies the sections of one profile file in file order, up to the first that fails. A file that cannot be loaded as a
// profile is not applied at all. 0 or -1. May throw std::bad_alloc.
int TuneApplyProfileByPath(const char *szProfilePath, ParameterWriter &writer);

// What TuneApplyProfile and TuneApplyGlobalProfile do, with a writer of the caller's. May throw what the writer throws.
int ApplyProfile(const char *szProfile, ParameterWriter &writer);
int ApplyGlobalProfiles(ParameterWriter &writer);

#endif
