// Settings of volumes, caches, markers and notifications of the storage library: wherever a call fails, no setting of
// another kind is lost and no cache overlooked.

#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/machine.h"
#include "kit/system_calls.h"

#include <vunkcore/hash.h>
#include <zevostorage/zevostorage.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

namespace {

namespace fs = std::filesystem;

const std::string kVolume = "/run/volume1";
const std::string kUuid = "11111111-0000-4000-8000-0000000000aa";
const std::string kSettings = ZEVO_VOLUME_CONF_DIR "/" + kUuid;
const std::string kOldSettings = "other=\"1\"\nmetadata_cache=\"0\"\n";
const std::string kNewSettings = "other=\"1\"\nmetadata_cache=\"1\"\n";
const std::string kMarker = ZEVO_SPACE_BUILD_DIR "/cache";

std::unique_ptr<kit::Machine> machine;

void Finish()
{
	machine.reset();
	kit::btrfsFolders.clear();
	fs::remove(kVolume);
	fs::remove_all("/run/zevo");
}

/// A Btrfs volume on LVM on a bcache, and another on a dm-cache.
void Prepare()
{
	Finish();
	machine = std::make_unique<kit::Machine>();
	kit::btrfsPaths = nullptr; // the library's own look at a file system is among what fails
	for (const char *disk : {"sda", "sdb", "sdc", "sdd", "sde"})
		machine->Disk(disk);
	machine->Bcache("bcache0", "sda", "sdb");
	machine->Dm("dm-0", "vg1-volume1", "LVM-1", {"bcache0"},
	            {"0 2048 linear " + machine->Number("bcache0") + " 0"});
	machine->Dm("dm-1", "cached", "LVM-2", {"sdc", "sdd", "sde"},
	            {"0 2048 cache 8:32 8:48 8:64 128 1 writethrough smq 0"});
	machine->Btrfs(kUuid, {"dm-0"});
	machine->Mount("/dev/mapper/vg1-volume1", kVolume, "btrfs");
	machine->Mount("/dev/mapper/cached", "/volume2", "ext4");
	fs::create_directories(kVolume);
	kit::btrfsFolders.push_back({kVolume, kUuid});
}

void PrepareSettings()
{
	Prepare();
	kit::WriteFile(kSettings, kOldSettings);
}

void PrepareDeclaration()
{
	Prepare();
	kit::WriteFile(ZEVO_FLASH_CACHE_FILE,
	               "[a]\nvolume=" + kVolume + "\nid=ssd_1\nmode=4\nflags=0x6\nsize=5\nreference=declared\n");
}

void PrepareMarker()
{
	Prepare();
	kit::WriteFile(kMarker, "old=\"1\"\n");
}

int SetVolume()
{
	const ZEVOVOLUMECONF conf = {1};
	return ZEVOVolumeConfSet(kVolume.c_str(), &conf, ZEVO_VOLUME_CONF_METADATA_CACHE);
}

int GetVolume()
{
	ZEVOVOLUMECONF conf = {77};
	const int result = ZEVOVolumeConfGet(kVolume.c_str(), &conf);
	EXPECT_EQ(conf.uMetadataCache, result == 0 ? 0U : 77U);
	return result;
}

void CheckSettings()
{
	const std::string now = kit::ReadFile(kSettings);
	EXPECT_TRUE(now == kOldSettings || now == kNewSettings) << now;
}

/// The cache of a volume, which must be the one with this reference or, when its space could not be told, none. A call that
/// says that there is none fails the test.
int FindCache(const std::string &volume, const std::string &reference)
{
	ZEVOSPACEINFO *spaces = nullptr;
	if (ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &spaces) != 0)
		return -1;
	const ZEVOSPACESEARCH search = {volume.c_str()};
	ZEVOSPACEINFO *space = nullptr;
	int result = ZEVOSpaceInfoSearch(spaces, &search, &space);
	if (result == 1) {
		ZEVOFLASHCACHECONFIG *cache = nullptr;
		result = ZEVOFlashCacheConfigTmpGet(space, ZEVO_FLASH_CACHE_OF_SPACE, &cache);
		EXPECT_NE(result, 0) << "a cache is overlooked";
		EXPECT_EQ(cache != nullptr, result == 1);
		if (cache != nullptr) {
			EXPECT_EQ(cache->szReference, reference);
		}
		ZEVOFlashCacheConfigFree(cache);
	}
	ZEVOSpaceInfoFree(spaces);
	return result;
}

int FindLayer()
{
	char layer[64] = "as it was";
	const int result = ZEVOVSpaceLayerPathGet(1, kVolume.c_str(), layer, sizeof(layer));
	EXPECT_STREQ(layer, result == 0 ? "/dev/dm-0" : "as it was");
	return result;
}

ZEVOSPACEBUILD Marker()
{
	ZEVOSPACEBUILD build = {4711, 8, 31, 14, ""};
	strcpy(build.szReference, "cache");
	return build;
}

int SetMarker()
{
	const ZEVOSPACEBUILD build = Marker();
	return ZEVOSpaceBuildFileSet(&build);
}

int RemoveMarker()
{
	const ZEVOSPACEBUILD build = Marker();
	return ZEVOSpaceBuildFileRemove(&build);
}

void CheckMarker()
{
	if (!fs::exists(kMarker))
		return;
	const std::string now = kit::ReadFile(kMarker);
	EXPECT_TRUE(now == "old=\"1\"\n" || now == "pid=\"4711\"\nkind=\"8\"\nstage=\"31\"\nreason=\"14\"\n") << now;
}

int Notify()
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	if (hash == nullptr)
		return -1;
	const bool isSet = VUNKCSzHashSetValue(&hash, "%SSD_ID%", "1") == 0;
	const int result = isSet ? ZEVOSysNotifySendNotifiction("Tag", hash) : -1;
	VUNKCSzHashFree(hash);
	return result;
}

Scenario Row(const std::string &name, const std::function<void()> &prepare, const std::function<int()> &call,
             int result, const std::function<void()> &check = {})
{
	return {name, prepare, call, result, false, {"/sys/fs", "/sys/devices", "/run/zevo"}, check, Finish};
}

} // namespace

std::vector<Scenario> FlashCacheScenarios()
{
	return {
		Row("volume_conf_set", Prepare, SetVolume, 0),
		Row("volume_conf_set_again", PrepareSettings, SetVolume, 0, CheckSettings),
		Row("volume_conf_get", PrepareSettings, GetVolume, 0, CheckSettings),
		Row(
			"cache_declared", PrepareDeclaration, [] { return FindCache(kVolume, "declared"); }, 1),
		Row(
			"cache_bcache", Prepare, [] { return FindCache(kVolume, "9c0e0fbb-8a3c-4c0a-9d8b-sdb"); }, 1),
		Row(
			"cache_device_mapper", Prepare, [] { return FindCache("/volume2", "cached"); }, 1),
		Row(
			"cache_can_pin", PrepareDeclaration,
			[] { return ZEVOFlashCachePinIsVolumeSupport(kVolume.c_str()); }, 1),
		Row("cache_layer", Prepare, FindLayer, 0),
		Row("space_build_set", Prepare, SetMarker, 0, CheckMarker),
		Row("space_build_set_again", PrepareMarker, SetMarker, 0, CheckMarker),
		Row("space_build_remove", PrepareMarker, RemoveMarker, 0, CheckMarker),
		Row("notify", Prepare, Notify, 0),
		Row(
			"notify_event", Prepare,
			[] { return ZEVOLogSet1(1, 2, 7, "text", static_cast<char *>(nullptr)); }, 0),
	};
}
