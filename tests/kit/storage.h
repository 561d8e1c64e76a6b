#ifndef TESTS_KIT_STORAGE_H
#define TESTS_KIT_STORAGE_H

// The storage library's functions, which fail as those of faults.h do, and a storage of the test's own in place of the
// machine's. While none lives, every call goes through to the real function.

#include <zevostorage/file_system.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kit {

/// Functions that a Fault can name: ZEVOMountVolInfoEnum ZEVOSpaceInfoEnum ZEVOSpaceInfoSearch ZEVOSpaceDiskEnum
/// ZEVODiskIsSSD ZEVOFSGetBTRFSUuid ZEVOGetFSType DiskInfoEnum DiskPartitionNumRemove RAIDInfoEnum VUNKCSupportRAID
/// VUNKCStrTok VUNKCFileExist.

struct FakeVolume {
	std::string path;
	std::string uuid = "";
	std::vector<std::string> disks = {}; // of its space
	int type = ZEVO_FS_BTRFS;
	bool hasSpace = true;
};

struct FakeDisk {
	std::optional<std::string> kernelName;
	std::string device;
	unsigned type = 1;
};

struct FakeArray {
	unsigned levels;
	std::vector<std::string> members;
	unsigned disks = 2;
	bool hasRecord = true;
};

/// While the object lives, the storage library finds what its members say, which can be changed at any time. Lists are made
/// anew for each call; the test fails when one of them is left when the object goes, or is freed by a function that it
/// is not for. Objects do not nest.
class FakeStorage {
public:
	FakeStorage();
	~FakeStorage();
	FakeStorage(const FakeStorage &) = delete;
	FakeStorage &operator=(const FakeStorage &) = delete;

	std::vector<FakeVolume> volumes;
	std::vector<FakeDisk> disks;
	std::vector<FakeArray> arrays;
	std::map<std::string, int> isSSD; // by the name that is asked for; other names fail, as does -1
	/// What DiskPartitionNumRemove writes, byte for byte, zeros included, in place of what the library would.
	std::map<std::string, std::string> wholeDisks;
	/// What ZEVOMountVolInfoEnum leaves on the error stack, beside the list; nothing: what stood there before.
	std::optional<int> codeOfVolumes = 0;
	int processors = 4;
	bool supportsRaid = false;

	/// The calls so far, with what a caller chooses: "DiskInfoEnum 0x2f", "ZEVODiskIsSSD /dev/sda". A call that a fault
	/// lets fail does not count.
	std::vector<std::string> calls;
};

} // namespace kit

#endif
