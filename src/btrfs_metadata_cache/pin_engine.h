#ifndef BTRFS_METADATA_CACHE_PIN_ENGINE_H
#define BTRFS_METADATA_CACHE_PIN_ENGINE_H

// Brings what is pinned of a volume into line with its settings: pins its metadata in the SSD cache in front of it, or
// unpins all that is recorded. Starts over when the settings or the cache change meanwhile.
//
// 0, also when another engine works on the volume, which then sees to it, and when the volume is no Btrfs although it
// has a switch; -1 after "Failed to __BtrfsMetadataCacheSet". Killed at any moment, or after a failure, it leaves
// nothing pinned without a record, and the next call goes on from there. A pass over a volume that has been pinned
// before lowers the calling thread's I/O priority for good.
int __BtrfsMetadataCacheSet(const char *szVolPath); // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

#endif
