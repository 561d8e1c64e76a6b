#ifndef BTRFS_METADATA_CACHE_PROCESS_AGE_H
#define BTRFS_METADATA_CACHE_PROCESS_AGE_H

#include <sys/types.h>

// Whether a file may have been written by the process that has this id now: false when that process started after the
// file was last written, and so has the id of one that has ended. True also where that cannot be told.
bool MayHaveWritten(pid_t pid, const char *szPath);

#endif
