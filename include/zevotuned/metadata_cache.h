#ifndef ZEVOTUNED_METADATA_CACHE_H
#define ZEVOTUNED_METADATA_CACHE_H

/** @file Pinning the metadata of Btrfs volumes in the SSD cache in front of them. */

#include <zevotuned/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Adds to a number the bytes that a Btrfs volume's metadata and system chunks take on its device: what is allocated, twice
 * for DUP.
 *
 * @param szVolPath             a folder or regular file on the volume.
 * @param pullMetadataSizeByte  in and out: what is found is added to what stands here, and nothing sets it to 0; do so
 *                              before the call. Left as it was on failure.
 * @return 0, or -1 on failure: the path cannot be opened, or does not lie on a Btrfs volume.
 */
ZEVOTUNED_API int ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(const char *szVolPath,
                                                             unsigned long long *pullMetadataSizeByte);

#ifdef __cplusplus
}
#endif

#endif
