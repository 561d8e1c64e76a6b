#ifndef BTRFS_METADATA_CACHE_PRELOAD_H
#define BTRFS_METADATA_CACHE_PRELOAD_H

#include "btrfs_metadata_cache/context.h"

#include <zevotuned/chunk_info.h>

// Makes the kernel forget what it has read of a device, so that reads go to the SSD cache below. 0 or -1.
int BtrfsMetadataCacheClearDevBuffer(const char *szDevPath);

// Pins every stripe of a chunk, reads each once so that the SSD cache gets to hold it, and records that this has been
// done. The reading counts for progress by steps of somewhat more than 16 MiB; what is left at the end of a stripe does
// not count. 0 or -1.
int PinBtrfsMetadataPreload(MetadataCacheContext &ctx, const char *szVolPath, const char *szDevPath,
                            const char *szConfigPath, const chunk_info *pChunk);

#endif
