#ifndef BENCH_MACHINES_H
#define BENCH_MACHINES_H

// Machines to measure on. The one that was asked for last is there; asking for it again changes nothing.

#include <string>
#include <vector>

namespace bench {

/// 24 SATA disks, every other one an SSD, in three arrays (raid1, raid5, raid6) of eight. Profiles "bench_disk" (one key) and
/// "bench_raid" (two keys, that each disk has) are installed.
void HaveBays();

/// The files that the two profiles write.
const std::vector<std::string> &SchedulerFiles(); // of the SSDs
const std::vector<std::string> &TunableFiles();   // of all disks

/// So many file systems, Btrfs and ext4 in turn, each mounted twice, on half as many disks with partitions.
void HaveVolumes(int volumes);

} // namespace bench

#endif
