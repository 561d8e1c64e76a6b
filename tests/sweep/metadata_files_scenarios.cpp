// The metadata cache's files and checks, on a Btrfs volume with a declared SSD
// cache.

#include "sweep/scenario.h"

#include "kit/files.h"
#include "kit/lab.h"
#include "kit/machine.h"
#include "kit/system_calls.h"

#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/policy.h"
#include "btrfs_metadata_cache/progress.h"

#include <vunkcore/error.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>
#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char kVolume[] = "/run/volume1";
constexpr char kUuid[] = "11111111-0000-4000-8000-0000000000aa";
constexpr char kMapping[] = "/run/zevotuned/mapping";

constexpr int kNotListed = 2;

std::unique_ptr<kit::Machine> machine;
MetadataCacheContext context;
VolumePath path;

void Finish()
{
	machine.reset();
	kit::btrfsFolders.clear();
	fs::remove_all(kVolume);
}

void Prepare()
{
	Finish();
	machine = std::make_unique<kit::Machine>();
	kit::btrfsPaths = nullptr; // the library's own look at a file system is among what fails
	machine->Disk("sda");
	machine->Partition("sda", 1);
	machine->Btrfs(kUuid, {"sda1"});
	machine->Mount("/dev/sda1", kVolume, "btrfs");
	fs::create_directories(kVolume);
	kit::btrfsFolders.push_back({kVolume, kUuid});
	kit::WriteFile(std::string(ZEVO_VOLUME_CONF_DIR) + "/" + kUuid, "metadata_cache=\"1\"\n");
	kit::WriteFile(ZEVO_FLASH_CACHE_FILE, "[one]\nvolume=/run/volume1\nid=ssd_1\nmode=4\nflags=0x6\n"
	                                      "size=256000000000\nreference=cache-1\n");
	kit::WriteFile(kMapping, "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n"
	                         "[1]\nstatus=\"1\"\nsize=\"4096\"\nstripe_count=\"1\"\nstripe_offset_0=\"65536\"\n"
	                         "[1048576]\nstatus=\"0\"\nsize=\"8388608\"\nstripe_count=\"1\"\n"
	                         "stripe_offset_0=\"38797312\"\n");
	context = {};
	strcpy(context.szUuid, kUuid);
	context.pid = 4711;
	context.ullProgressTotal = 2;
	context.ullProgressCurrent = 1;
}

void PrepareWithProgress()
{
	Prepare();
	kit::WriteFile("/run/zevotuned/metadata_cache/" + std::string(kUuid) + ".progress",
	               "pid=\"4711\"\ntotal=\"2\"\ncurrent=\"0\"\n");
}

int MarkDone()
{
	const chunk_info chunk = {1048576, 8388608, 1, {38797312, 0}, 0};
	return PinBtrfsMetadataSectionUpdateChunkDone(kMapping, &chunk);
}

int Load()
{
	const int result = BtrfsMetadataCacheConfigGet(context, kMapping);
	EXPECT_EQ(context.status, result == 0 || context.pid == getpid() ? 1 : 0);
	return result;
}

/// A failure must not look like a verdict, nor leave a reason.
int CheckSupport()
{
	int reason = 0;
	const int result = BtrfsMetadataCacheSupportCheck(kVolume, context, &reason);
	EXPECT_EQ(reason, result == 0 ? ZEVO_METADATA_CACHE_NOT_BTRFS : 0);
	return result;
}

int CheckCache()
{
	int reason = 0;
	const int result = BtrfsMetadataCacheCheckSSDCache(context, kVolume, &reason);
	EXPECT_EQ(reason, result == 0 ? ZEVO_METADATA_CACHE_NO_SSD_CACHE : 0);
	// The volume is not listed when its file system cannot be told; no call has failed then, so that there is no code.
	return result < 0 && VUNKCErrGet() == 0 ? kNotListed : result;
}

Scenario On(const std::string &name, const std::function<int()> &call, int result,
            const std::function<void()> &prepare = Prepare)
{
	return {name, prepare, call, result, false, {kVolume}, {}, Finish};
}

} // namespace

std::vector<Scenario> MetadataFilesScenarios()
{
	return {
		On(
			"metadata_mapping_path",
			[] { return BtrfsMetadataCacheConfigPathGet(kVolume, path.data(), true); }, 1),
		On(
			"metadata_progress_path",
			[] { return BtrfsMetadataCacheProgressPathGet(kUuid, path.data(), true); }, 1),
		On(
			"metadata_pid_path", [] { return BtrfsMetadataCachePidPathGet(kVolume, path.data(), true); },
			1),
		On(
			"metadata_set_status", [] { return BtrfsMetadataCacheSetStatus(kMapping, 3); }, 0),
		On(
			"metadata_set_max_used_size",
			[] { return BtrfsMetadataCacheSetValueByKey(kMapping, "max_used_size", "8388608"); }, 0),
		On("metadata_set_done", MarkDone, 0),
		On("metadata_load", Load, 0),
		On(
			"metadata_progress_write", [] { return BtrfsMetadataCacheProgressWriteFile(context); }, 0,
			PrepareWithProgress),
		On(
			"metadata_progress_write_fresh", [] { return BtrfsMetadataCacheProgressWriteFile(context); },
			0),
		On(
			"metadata_progress_end", [] { return BtrfsMetadataCacheProgressEnd(kUuid); }, 0,
			PrepareWithProgress),
		On(
			"metadata_policy", [] { return BtrfsMetadataCachePolicyCheck(context, kVolume, true); }, 1),
		On("metadata_support", CheckSupport, 1),
		On("metadata_ssd_cache", CheckCache, 1),
	};
}
