#ifndef BTRFS_METADATA_CACHE_PATHS_H
#define BTRFS_METADATA_CACHE_PATHS_H

#include "support/text_buffer.h"

// Where a volume's files are. What is written to is named by the volume's UUID, but for the mapping file, which lies
// inside of the volume and moves with it.

using VolumePath = TextBuffer<4096>;
using UuidText = TextBuffer<40>;

// The UUID of a Btrfs volume. 0, or -1: without a line and with error 0xD900 for what is no Btrfs volume, whatever code
// stood on the error stack before. A type or a UUID that cannot be found out leaves a line, and the code of that
// failure.
int BtrfsMetadataCacheUuidGet(const char *szVolPath, UuidText &uuid);

// Each gives the path of a file: 1 when it is there, or has been made; 0 when it is not there; -1 on failure. szPathOut
// has room for 4096 bytes. Only fCreate makes the file, and the mapping file's folder; the folder of the other two is
// made in any case. Not to be made is a failure of the mapping file, but 0 for the other two.
int BtrfsMetadataCacheConfigPathGet(const char *szVolPath, char *szPathOut, bool fCreate);
int BtrfsMetadataCacheProgressPathGet(const char *szUuid, char *szPathOut, bool fCreate);
int BtrfsMetadataCachePidPathGet(const char *szVolPath, char *szPathOut, bool fCreate);

// The path of the lock file that keeps two engines from one volume; its folder is made. 0 or -1. It is never removed.
int BtrfsMetadataCacheLockPathGet(const char *szUuid, char *szPathOut);

#endif
