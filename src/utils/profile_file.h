#ifndef UTILS_PROFILE_FILE_H
#define UTILS_PROFILE_FILE_H

#include "support/handles.h"

#include <zevotuned/profile.h>

// Reads the pairs of one section of a profile file; logs its failure. 0 or -1.
int ReadProfileSection(const char *szPath, const char *szSection, Hash &values);

// Fills a record from a profile file. All fields but main_section are reset first; main_section is added to, so callers
// pass a fresh record. 0, or -1 when the file cannot be read or has no section "main"; the record is then of no use, and
// its path is empty. May throw std::bad_alloc.
int TuneLoadProfileByPath(const char *szPath, Profile &profile);

#endif
