#ifndef UTILS_PROFILE_CATALOGUE_H
#define UTILS_PROFILE_CATALOGUE_H

#include <zevotuned/profile.h>

// Appends the profiles of all files of a folder, in ascending byte order of the file names; a folder that is not there
// has none. 0, or -1 at the first file that is no profile; what was appended until then stays. May throw std::bad_alloc.
int TuneProfileListByDir(const char *szDir, std::vector<Profile> &vecProfile);

#endif
