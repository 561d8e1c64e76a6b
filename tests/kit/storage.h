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
/// VUNKCStrTok VUNKCFileExist ZEVOVolumeConfGet ZEVOVolumeConfSet ZEVOFlashCacheConfigTmpGet
/// ZEVOFlashCacheSupportFlagsGet ZEVOFlashCachePinIsVolumeSupport ModelSupportPin ZEVOVSpaceLayerPathGet
/// ZEVOSpaceBuildFileSet ZEVOSpaceBuildFileRemove ZEVOSysNotifySendNotifiction ZEVOLogSet1.

struct FakeVolume {
	std::string path;
	std::string uuid = "";
	std::vector<std::string> disks = {}; // of its space
	int type = ZEVO_FS_BTRFS;
	bool hasSpace = true;
	std::string device = ""; // of its space
	std::string altDevice = "";
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

/// The settings of a volume, or the code that asking for them fails with.
struct FakeVolumeConf {
	unsigned metadataCache = 0;
	int error = 0;
	int errorOfSet = 0;
};

/// A cache, or 0 or -1 as the answer when it is asked for; -1 leaves kFaultCode.
struct FakeCache {
	int mode = 1;
	std::optional<std::string> id = "ssd_1"; // nothing: a null pointer
	std::optional<std::string> reference = "cache-1";
	unsigned long long size = 1ULL << 30;
	unsigned flags = 0x6; // it can pin ranges
	int answer = 1;
	int answerOfFlags = 0; // -1: they cannot be told
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
	std::map<std::string, FakeVolumeConf> volumeConf; // by path; others fail with ZEVO_ERR_NO_VOLUME_CONF
	std::map<std::string, FakeCache> caches;          // by path of the volume; others have none
	std::map<std::string, std::string> layers;        // by path of the volume; others fail with ZEVO_ERR_NO_LAYER
	int processors = 4;
	bool supportsRaid = false;
	bool supportsPin = true;

	/// The calls so far, with what a caller chooses: "DiskInfoEnum 0x2f", "ZEVODiskIsSSD /dev/sda". A call that a fault
	/// lets fail does not count. Some of them:
	///
	///   ZEVOVolumeConfSet /volume1 metadata_cache=1 0x10
	///   ZEVOFlashCacheConfigTmpGet /volume1 2
	///   ZEVOVSpaceLayerPathGet 1 /volume1 4096
	///   ZEVOSpaceBuildFileSet self 8 31 14 cache-1      (or another process's id)
	///   ZEVOSysNotifySendNotifiction MetadataCacheSpaceFullWarning %SSD_ID%=1 %USAGE%=95 %USED_SIZE%=12
	///   ZEVOLogSet1 1 2 0x116000f6 12 95 1
	std::vector<std::string> calls;
};

} // namespace kit

#endif
