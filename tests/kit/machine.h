#ifndef TESTS_KIT_MACHINE_H
#define TESTS_KIT_MACHINE_H

// A machine of the test's own: its mounts, its block devices and its device mapper, in place of the real ones. It is what
// the process sees at the real paths, inside of tests/lab/enter.

#include "kit/files.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <linux/dm-ioctl.h>

namespace kit {

/// Something mounted at a path while the object lives; throws when that fails.
class MountPoint {
public:
	MountPoint(const std::string &source, std::string path, const char *fsType, unsigned long flags = 0,
	           const char *options = nullptr);
	~MountPoint();
	MountPoint(const MountPoint &) = delete;
	MountPoint &operator=(const MountPoint &) = delete;

private:
	std::string path;
};

/// How a disk is attached. Optical is a SATA drive with removable media, Sd a card in a slot of its own.
enum class Bus { Sata, Sas, Nvme, Virtio, Xen, Usb, Emmc, Sd, Optical };

struct DiskOptions {
	Bus bus = Bus::Sata;
	bool rotating = false;
	std::string schedulers = "[none] mq-deadline";
	std::map<std::string, std::string> tunables = {}; // of the active scheduler: files of queue/iosched
	long long sectors = 2097152;                      // 0 for a drive without a medium
	bool hidden = false;                              // one path of several to an NVMe namespace
};

struct MdOptions {
	std::string state = "clean";
	int raidDisks = -1; // as many as there are members
};

struct BtrfsOptions {
	std::vector<int> missing = {};                 // ids of devices that are not there; the others count from 1
	std::map<std::string, std::string> files = {}; // further files of its folder below /sys/fs/btrfs
};

struct MountOptions {
	std::string root = "/";
	std::string options = ""; // of the file system; "rw", and of a Btrfs the subvolume that `root` names
	int id = 0;               // the next one
	int parent = 0;           // the mount that the path leads to
	std::string devno = "";   // of the source; a number of no block device for Btrfs and what has no source
};

/// What a machine's /dev/mapper/control answers when it is asked for tables. Other requests are refused.
struct DeviceMapper {
	struct Table {
		std::string name;
		std::vector<std::string> targets; // "0 2048 linear 9:0 2048"
	};

	std::map<std::string, Table> tables;                // by device number, "253:0"
	bool exists = true;                                 // whether /dev/mapper/control is there
	int error = 0;                                      // errno, in place of every answer
	std::function<void(dm_ioctl *request)> answer = {}; // fills an answer in, in place of the kernel's one
	std::function<void()> before = {};                  // runs before each answer
	std::atomic<int> answers = 0;                       // how often it was asked
};

/// While the object lives, the process has this machine's mount table, /sys and device mapper; children do not have the
/// mount table. Changes are seen at once; what no function here changes can be changed in /sys. Objects do not nest.
///
/// Device folders, links and files are laid out as the kernel does it, as far as the storage library looks at them.
class Machine {
public:
	/// A machine without a mount and without a device.
	Machine();
	/// The machine of a recording, tests/machines/NAME.machine.
	static Machine Recorded(const std::string &name);
	/// The machine of a recording in any file. A line that is not understood throws.
	static Machine RecordedIn(const std::string &file);
	/// The names of all recordings.
	static std::set<std::string> Recordings();
	~Machine();
	Machine(const Machine &) = delete;
	Machine &operator=(const Machine &) = delete;

	void Disk(const std::string &name, const DiskOptions &options = {});
	/// "sda1" of "sda", "nvme0n1p1" of "nvme0n1".
	void Partition(const std::string &disk, int number);
	void Loop(const std::string &name, bool rotating = false);
	/// A block device in memory or of the network: "ram0", "zram0", "nbd0".
	void Virtual(const std::string &name);
	void Md(const std::string &name, const std::string &level, const std::vector<std::string> &members,
	        const MdOptions &options = {});
	void Dm(const std::string &name, const std::string &dmName, const std::string &uuid,
	        const std::vector<std::string> &slaves, const std::vector<std::string> &targets);
	/// Without a backing device, a volume in the cache itself; without a cache, a backing device that has none now.
	void Bcache(const std::string &name, const std::string &backing, const std::string &cache);
	void Btrfs(const std::string &uuid, const std::vector<std::string> &devices, const BtrfsOptions &options = {});

	/// Mounts a source ("/dev/sda1", "/dev/mapper/vg1-volume1", "tmpfs") at a path. Returns the mount's id.
	int Mount(const std::string &source, const std::string &path, const std::string &fsType,
	          const MountOptions &options = {});
	/// The lines of the mount table, to be changed as wished.
	std::vector<std::string> MountLines() const;
	void SetMountLines(const std::vector<std::string> &lines);

	/// A device vanishes, with its partitions. The links of what is made of it stay, and lead nowhere.
	void Remove(const std::string &name);

	/// "8:1"
	std::string Number(const std::string &name) const;

	kit::DeviceMapper deviceMapper;

	/// UUIDs that Btrfs file systems say of themselves when they are asked at a path. Nothing is found at other paths.
	std::map<std::string, std::string> btrfsPaths;

	/// The mount table as a further thread of the process sees it, for as long as that lives.
	MountPoint ForThisThread() const;

private:
	struct MountRecord {
		int id;
		int parent;
		std::string path;
	};

	explicit Machine(const std::string &file);
	void Record(const std::string &line);
	std::string NextNumber(const std::string &name);
	const std::string &Find(const std::string &name) const;
	void Add(const std::string &name, const std::string &path, const std::string &number, long long sectors);
	void AddDisk(const std::string &name, const std::string &path, long long sectors, bool rotating);
	void AddSlave(const std::string &name, const std::string &slave);
	std::string SourceName(const std::string &source) const;
	std::string DefaultNumber(const std::string &source, const std::string &path, const std::string &fsType);
	int TopMount(const std::string &path) const;

	TempDir folder;                             // holds the file that is seen as /proc/thread-self/mountinfo
	std::map<std::string, std::string> devices; // folders below /sys by kernel names
	std::map<std::string, std::vector<std::string>> btrfs; // devices by UUID
	std::map<std::string, std::string> anonymousNumbers;   // of file systems that lie on no one block device
	std::vector<MountRecord> mounts;
	std::vector<std::string> mountLines;
	std::map<int, int> nextMinor; // by major number
	int nextSlot = 0;             // of hosts, controllers and PCI functions
	std::unique_ptr<MountPoint> sys;
	std::unique_ptr<MountPoint> mountInfo;
};

/// That of the machine that lives; null while none does.
extern const std::map<std::string, std::string> *btrfsPaths;

} // namespace kit

#endif
