#ifndef ZEVOTUNE_DEVICES_H
#define ZEVOTUNE_DEVICES_H

// What profiles may concern: volumes, arrays and disks. Whatever could not be found out of one of them has its reason
// in the record, in an error that is empty otherwise.

#include <optional>
#include <string>
#include <vector>

struct VolumeDisk {
	std::string device;
	std::optional<bool> ssd;
	std::string error;
};

struct Volume {
	std::string path;
	std::string fileSystem; // the kernel's name: "btrfs"
	bool btrfs = false;
	std::string uuid; // of a Btrfs volume; "" for others, and if unknown
	std::string device;
	std::string alternativeDevice; // the name that people know the device by; "" if none
	std::optional<std::vector<VolumeDisk>> disks;
	std::string error;
};

struct ArrayMember {
	std::string device;
	std::string disk; // "" if unknown
	std::string error;
	bool failed = false; // still there, but no longer used
};

struct Array {
	std::string device;
	std::string level;      // "" when the kernel does not say
	unsigned levelFlag = 0; // one of RAID_LEVEL_..., 0 for a level without a flag
	unsigned diskCount = 0; // that it is made for; 0 when it is not active
	unsigned lacking = 0;   // of these: gone, failed, or being rebuilt
	bool broken = false;    // it lacks more than its level can do without
	std::vector<ArrayMember> members;
};

/// A disk's queue of requests.
struct Queue {
	std::string scheduler; // the active one; "" if unknown
	std::vector<std::string> schedulers;
	std::string schedulerError;
	std::vector<std::string> tunables; // of the active scheduler
	std::string tunablesError;
};

struct Disk {
	std::string device;
	std::string kernelName;
	unsigned type = 0; // one of DISK_TYPE_...
	std::optional<bool> ssd;
	std::string ssdError;
	Queue queue;
};

struct Machine {
	std::vector<Volume> volumes;
	std::vector<Array> arrays;
	std::vector<Disk> disks;
};

/// Throws Failure where volumes, arrays or disks cannot be listed at all.
Machine ExamineMachine();

/// @param disk  the disk's kernel name.
Queue ReadQueue(const std::string &disk);

/// Fills in which of an array's disks have failed and are lacking, and whether it is broken.
void ReadArrayState(Array &array);

#endif
