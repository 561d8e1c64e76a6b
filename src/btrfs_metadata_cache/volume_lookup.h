#ifndef BTRFS_METADATA_CACHE_VOLUME_LOOKUP_H
#define BTRFS_METADATA_CACHE_VOLUME_LOOKUP_H

// The path of the mounted volume that szPath names by that path, by its device, or by the device-mapper, md or bcache
// device that it lies on. szVolPathOut has room for 4096 bytes. 0 or -1.
int BtrfsMetadataCacheSpaceFind(const char *szPath, char *szVolPathOut);

#endif
