#ifndef BTRFS_METADATA_CACHE_KERNEL_SWITCH_H
#define BTRFS_METADATA_CACHE_KERNEL_SWITCH_H

// Tells the kernel whether a volume's metadata is pinned, by the volume's attribute metadata_cache_enable. 0; -1, also
// on a kernel without that attribute.
int TuneBtrfsVolumeMetadataCacheEnable(const char *szVolPath, bool fEnable);

#endif
