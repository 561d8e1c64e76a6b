// The pin engine: whatever fails, nothing is pinned without a record, nothing is left of the pass but what was reached, and
// the next pass completes it.

#include "sweep/pin_state.h"
#include "sweep/scenario.h"

#include "btrfs_metadata_cache/pin_engine.h"

#include "kit/files.h"
#include "kit/nth_call.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

namespace {

namespace fs = std::filesystem;

using kit::MetadataChunk;
using kit::PinVolume;

std::unique_ptr<PinVolume> volume;
std::string wanted; // what is pinned in the end
int passes;         // since the volume was made ready

void Finish()
{
	volume.reset();
}

void Switch(bool isOn)
{
	volume->storage.volumeConf[volume->kPath].metadataCache = isOn ? 1 : 0;
}

/// A volume on a machine on which the engine has never run.
void PrepareFresh()
{
	Finish();
	volume = std::make_unique<PinVolume>();
	Switch(false);
	wanted = "";
	passes = 0;
}

/// The engine has made its folders and the configuration is complete, but nothing was ever pinned.
void Prepare(const std::vector<MetadataChunk> &chunks, const std::string &pinned)
{
	PrepareFresh();
	EXPECT_EQ(__BtrfsMetadataCacheSet(volume->kPath), 0);
	volume->SetChunks(chunks);
	Switch(true);
	volume->storage.calls.clear();
	wanted = pinned;
}

void PrepareFirst()
{
	Prepare({{1024, 8, 512, 640}, {2048, 8, 1024}}, "16+1 512+8 640+8 1024+8");
}

/// A volume whose first pass has been made.
void PrepareComplete(const std::vector<MetadataChunk> &chunks, const std::string &pinned)
{
	Prepare(chunks, pinned);
	EXPECT_EQ(__BtrfsMetadataCacheSet(volume->kPath), 0);
	volume->storage.calls.clear();
}

/// One chunk has vanished, one has moved, one is new.
void PrepareChanged()
{
	PrepareComplete({{256, 8, 256}, {1024, 8, 512, 640}}, "16+1 520+8 648+8 1024+8");
	volume->SetChunks({{1024, 8, 520, 648}, {2048, 8, 1024}});
}

/// A smaller cache: what is taken first is given up first, until the rest fits.
void PrepareLowered()
{
	PrepareComplete({{1024, 8, 512, 640}, {2048, 8, 1024}}, "1024+8");
	volume->storage.caches[volume->kPath].size = 8 * PinVolume::kBlock;
}

void PrepareSwitchedOff()
{
	PrepareComplete({{1024, 8, 512, 640}}, "");
	Switch(false);
}

/// 8 of 10 blocks; the device is too small for a superblock copy.
void PrepareWarning()
{
	Prepare({{1024, 8, 512}}, "512+8");
	volume->btrfs.deviceSize = 1 << 16;
	volume->storage.caches[volume->kPath].size = 10 * PinVolume::kBlock;
}

/// A first pass that the tool has ended at the last chunk. What is done already counts as progress.
void PrepareResumed()
{
	Prepare({{1024, 8, 512, 640}, {2048, 8, 1024}}, "16+1 512+8 640+8 1024+8");
	int runs = 0;
	volume->tool.before = [&](const std::string &) { return ++runs == 4 ? -1 : 0; };
	EXPECT_EQ(__BtrfsMetadataCacheSet(volume->kPath), -1);
	volume->tool.before = {};
	EXPECT_EQ(StatusOf(volume->kMapping, std::to_string(2048 * PinVolume::kBlock)), "0");
	volume->storage.calls.clear();
}

/// A process id has more or fewer digits from one run to the next, which a transcript must not show.
void HideProcessId(const std::string &path)
{
	if (fs::exists(path) && fs::file_size(path) > 0)
		kit::WriteFile(path, "of this process");
}

int Pin()
{
	const int result = __BtrfsMetadataCacheSet(volume->kPath);
	const kit::Uncounted lookingAtIt;
	if (++passes == 2) { // with nothing failing
		EXPECT_EQ(volume->tool.Pinned(), wanted);
		EXPECT_EQ(volume->HasMapping(), !wanted.empty());
		EXPECT_EQ(kit::ReadFile(volume->kSwitch), wanted.empty() ? "0\n" : "1\n");
		EXPECT_FALSE(fs::exists(volume->kPid));
		EXPECT_FALSE(fs::exists(volume->kProgress));
	}
	HideProcessId(volume->kPid);
	HideProcessId(volume->kProgress);
	return result;
}

void Check()
{
	const std::string failed = kit::StruckFunction();
	EXPECT_EQ(Without(PinnedBlocks(volume->tool), RecordedBlocks(volume->kMapping)), Blocks());
	EXPECT_TRUE(IsUnlocked(volume->kLock));
	EXPECT_FALSE(fs::exists(volume->kPid) && failed != "unlink" && failed != "stat");
	EXPECT_FALSE(fs::exists(volume->kProgress) && failed != "unlink" && failed != "stat");
	EXPECT_EQ(CallsOf(volume->storage, "ZEVOSpaceBuildFileSet"),
	          CallsOf(volume->storage, "ZEVOSpaceBuildFileRemove") +
	                  (failed == "ZEVOSpaceBuildFileRemove" ? 1 : 0));
}

Scenario Pass(const std::string &name, const std::function<void()> &prepare)
{
	return {name,  prepare, Pin, 0, false, {PinVolume::kPath, fs::path(PinVolume::kSwitch).parent_path()},
	        Check, Finish};
}

} // namespace

std::vector<Scenario> PinScenarios()
{
	return {
		Pass("pin_nothing", PrepareFresh),        Pass("pin_first", PrepareFirst),
		Pass("pin_resumed", PrepareResumed),      Pass("pin_changed", PrepareChanged),
		Pass("pin_lowered", PrepareLowered),      Pass("pin_switched_off", PrepareSwitchedOff),
		Pass("pin_with_warning", PrepareWarning),
	};
}
