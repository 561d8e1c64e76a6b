#ifndef BTRFS_METADATA_CACHE_PROGRESS_REPORT_H
#define BTRFS_METADATA_CACHE_PROGRESS_REPORT_H

// What the progress file says to others than the engine that writes it.

struct ProgressReport {
	unsigned long long total;   // bytes
	unsigned long long current; // bytes
};

// 1 with the report of a pass that is under way; 0 when there is none, and then the file that an ended one has left is
// removed; -1 with the report as it was.
int BtrfsMetadataCacheProgressRead(const char *szUuid, ProgressReport &report);

#endif
