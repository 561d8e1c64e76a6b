#ifndef BTRFS_METADATA_CACHE_PID_FILE_H
#define BTRFS_METADATA_CACHE_PID_FILE_H

// The pid file: says which process runs the engine of a volume, while it does.

#include "btrfs_metadata_cache/paths.h"

// Writes it; `written` is its path from then on. 0 or -1.
int BtrfsMetadataCachePidFileWrite(const char *szVolPath, VolumePath &written);

// Removes it, also when the volume has been unmounted meanwhile. 0, also when it is not there, or -1.
int BtrfsMetadataCachePidFileRemove(const char *szVolPath, const VolumePath &written);

#endif
