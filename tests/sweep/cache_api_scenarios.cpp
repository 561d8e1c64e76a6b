// The functions that switch the metadata cache, stop its engine and tell what has become of it: whatever fails, nothing is
// pinned without a record, what was not asked for stays as it is, and the same call works when it is made again.

#include "sweep/pin_state.h"
#include "sweep/scenario.h"

#include "kit/device_reads.h"
#include "kit/files.h"
#include "kit/nth_call.h"
#include "kit/pin_volume.h"
#include "kit/processes.h"

#include <vunkcore/pid_file.h>
#include <zevotuned/metadata_cache.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using kit::PinVolume;

std::unique_ptr<PinVolume> volume;
std::unique_ptr<kit::DeviceReads> device; // nobody sleeps
std::unique_ptr<kit::Processes> processes;
std::unique_ptr<kit::ChildProcess> engine;
int otherEngine = -1; // the lock of one
char path[] = "/run/volume1";

void Finish()
{
	if (otherEngine >= 0)
		close(std::exchange(otherEngine, -1));
	engine.reset();
	processes.reset();
	device.reset();
	volume.reset();
}

void Switch(bool isOn)
{
	volume->storage.volumeConf[path].metadataCache = isOn ? 1 : 0;
}

/// A volume whose engine has made its folders, and the configuration complete, but has pinned nothing.
void PrepareOff()
{
	Finish();
	volume = std::make_unique<PinVolume>();
	device = std::make_unique<kit::DeviceReads>();
	processes = std::make_unique<kit::Processes>();
	Switch(false);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheRescan(path, 0), 0);
	volume->SetChunks({{1024, 8, 512}});
	volume->btrfs.deviceSize = 1 << 16; // too small for a superblock copy
	volume->storage.calls.clear();
}

void PrepareOn()
{
	PrepareOff();
	Switch(true);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheRescan(path, 0), 0);
	volume->storage.calls.clear();
}

/// With a switch that is on although nothing is pinned, so that switching it off is soon done.
void PrepareUnpinned()
{
	PrepareOff();
	Switch(true);
}

/// Under another name than those that are looked at first, with an engine that works on it already.
void PrepareLayer()
{
	PrepareOff();
	otherEngine = open(volume->kLock.c_str(), O_RDWR | O_CLOEXEC);
	EXPECT_EQ(flock(otherEngine, LOCK_EX | LOCK_NB), 0);
	volume->storage.volumes.insert(volume->storage.volumes.begin(), {.path = "/run/other", .device = "/dev/sdx1"});
	volume->storage.layers[path] = "/dev/dm-3";
}

// ---- Switching

/// A process id has more or fewer digits from one run to the next, which a transcript must not show.
void HideProcessId(const std::string &file)
{
	if (fs::exists(file) && fs::file_size(file) > 0)
		kit::WriteFile(file, "of this process");
}

int Switched(int result)
{
	const kit::Uncounted lookingAtIt;
	if (const int status = processes->WaitForChild(); status != -1) {
		EXPECT_EQ(status, 0);
	}
	HideProcessId(volume->kPid);
	HideProcessId(volume->kProgress);
	return result;
}

int SetOn()
{
	return Switched(ZEVOBtrfsMetadataCacheSet(path, 1, 0));
}

int SetOnByLayer()
{
	char layer[] = "/dev/dm-3";
	return Switched(ZEVOBtrfsMetadataCacheSet(layer, 1, 0));
}

int SetOff()
{
	return Switched(ZEVOBtrfsMetadataCacheSet(path, 0, 0));
}

int SetOffNoWait()
{
	return Switched(ZEVOBtrfsMetadataCacheSet(path, 0, 1));
}

int RunAgain()
{
	return Switched(ZEVOBtrfsMetadataCacheRescan(path, 0));
}

void CheckSwitched()
{
	const std::string failed = kit::StruckFunction();
	EXPECT_EQ(Without(PinnedBlocks(volume->tool), RecordedBlocks(volume->kMapping)), Blocks());
	EXPECT_TRUE(IsUnlocked(volume->kLock));
	EXPECT_FALSE(fs::exists(volume->kPid) && failed != "unlink" && failed != "stat");
	EXPECT_FALSE(fs::exists(volume->kProgress) && failed != "unlink" && failed != "stat");
}

/// Once the switch is written it stays.
void CheckSwitch(bool isOn)
{
	const bool isWritten = CallsOf(volume->storage, "ZEVOVolumeConfSet") > 0;
	EXPECT_EQ(volume->storage.volumeConf[path].metadataCache, isOn == isWritten ? 1u : 0u);
}

/// It is written before anything is done to the volume.
std::function<void()> CheckSet(bool isOn)
{
	return [isOn] {
		CheckSwitched();
		CheckSwitch(isOn);
		if (CallsOf(volume->storage, "ZEVOVolumeConfSet") == 0) {
			EXPECT_EQ(volume->HasMapping(), !isOn);
			EXPECT_EQ(PinnedBlocks(volume->tool).empty(), isOn);
		}
	};
}

void CheckSetNoWait()
{
	CheckSwitched();
	CheckSwitch(false);
	EXPECT_FALSE(volume->HasMapping());
}

/// The other engine sees the switch, and nobody else does anything.
void CheckLeftToOther()
{
	CheckSwitch(true);
	EXPECT_EQ(PinnedBlocks(volume->tool), Blocks());
	EXPECT_FALSE(volume->HasMapping());
}

void CheckRescanned()
{
	CheckSwitched();
	EXPECT_EQ(CallsOf(volume->storage, "ZEVOVolumeConfSet"), 0);
}

// ---- Stopping

std::string mapping; // as it was

/// A pass that reports progress; of a process that has ended.
void PrepareEnded()
{
	PrepareOn();
	kit::WriteFile(volume->kPid, "999999 1\n");
	kit::WriteFile(volume->kProgress, "pid=\"999999\"\ntotal=\"1000\"\ncurrent=\"300\"\n");
	mapping = kit::ReadFile(volume->kMapping);
}

/// Of a process that works, and ends when it is asked to.
void PrepareAlive()
{
	PrepareEnded();
	engine = std::make_unique<kit::ChildProcess>([] { VUNKCProcPidFileCreate(volume->kPid.c_str()); });
	processes->sleep = [](unsigned) {
		const auto &lines = processes->lines;
		const bool isSignalled = std::any_of(lines.begin(), lines.end(), [](const std::string &line) {
			return line.starts_with("signal ") && !line.ends_with(": failed");
		});
		if (isSignalled && engine != nullptr)
			engine->WaitForEnd();
		return 0u;
	};
}

/// Of one that has to be killed.
void PrepareStubborn()
{
	PrepareEnded();
	processes->isAlive = [] {
		const auto &lines = processes->lines;
		return std::find(lines.begin(), lines.end(), "signal 9 " + volume->kPid) == lines.end();
	};
}

int Stop()
{
	processes->lines.clear();
	const int result = ZEVOBtrfsMetadataCacheForceStop(path);
	engine.reset();
	return result;
}

void CheckStopped()
{
	EXPECT_EQ(kit::ReadFile(volume->kMapping), mapping);
	EXPECT_EQ(volume->storage.volumeConf[path].metadataCache, 1u);
	EXPECT_TRUE(IsUnlocked(volume->kLock));
	EXPECT_FALSE(PinnedBlocks(volume->tool).empty());
}

// ---- Asking

/// What the status is. Without the volume's UUID there is no report of how much is done.
std::function<int()> Status(int expected, unsigned long long total, unsigned long long current)
{
	return [=] {
		int status = 70;
		unsigned long long sizes[] = {71, 72};
		const int result = ZEVOBtrfsMetadataCacheStatus(path, &status, &sizes[0], &sizes[1]);
		const kit::Uncounted lookingAtIt;
		if (result < 0) {
			EXPECT_EQ(status, 70);
			EXPECT_EQ(sizes[0], 71u);
			EXPECT_EQ(sizes[1], 72u);
		} else if (status == expected) {
			const bool mayBeUnknown = kit::StruckFunction().starts_with("ZEVO");
			EXPECT_TRUE((sizes[0] == total && sizes[1] == current) ||
			            (mayBeUnknown && sizes[0] == 0 && sizes[1] == 0));
		}
		return result < 0 ? -1 : status;
	};
}

void PrepareStatus(const std::string &status)
{
	PrepareOff();
	kit::WriteFile(volume->kMapping, "[config]\nstatus=\"" + status + "\"\nmax_used_size=\"0\"\n");
}

void Report()
{
	kit::WriteFile(volume->kProgress,
	               "pid=\"" + std::to_string(getpid()) + "\"\ntotal=\"1000\"\ncurrent=\"300\"\n");
}

void PrepareReporting()
{
	PrepareStatus("1");
	Report();
}

/// A pass that is taken for ended loses its report, until it writes the next one.
int StatusOfReporting()
{
	if (kit::StruckFunction() == "VUNKCProcAlive")
		Report();
	return Status(ZEVO_METADATA_CACHE_WORKING, 1000, 300)();
}

void PrepareNotReportingAnyMore()
{
	PrepareStatus("1");
	kit::WriteFile(volume->kProgress, "pid=\"999999\"\ntotal=\"1000\"\ncurrent=\"300\"\n");
}

/// A failure must not look like a verdict, nor leave a reason.
std::function<int()> Support(int (*check)(const char *, int *))
{
	return [check] {
		int reason = 99;
		const int result = check(path, &reason);
		const bool isNotBtrfs = result == 0 && kit::StruckFunction() == "ZEVOGetFSType";
		EXPECT_EQ(reason, isNotBtrfs ? ZEVO_METADATA_CACHE_NOT_BTRFS : 0);
		return result;
	};
}

Scenario On(const std::string &name, const std::function<void()> &prepare, const std::function<int()> &call, int result,
            const std::function<void()> &check = {})
{
	return {name,  prepare, call, result, false, {PinVolume::kPath, fs::path(PinVolume::kSwitch).parent_path()},
	        check, Finish};
}

} // namespace

std::vector<Scenario> CacheApiScenarios()
{
	return {
		On("cache_set_on", PrepareOff, SetOn, 0, CheckSet(true)),
		On("cache_set_on_by_layer", PrepareLayer, SetOnByLayer, 0, CheckLeftToOther),
		On("cache_set_off", PrepareOn, SetOff, 0, CheckSet(false)),
		On("cache_set_no_wait", PrepareUnpinned, SetOffNoWait, 0, CheckSetNoWait),
		On("cache_rescan", PrepareOn, RunAgain, 0, CheckRescanned),
		On("cache_stop_ended", PrepareEnded, Stop, 0, CheckStopped),
		On("cache_stop_alive", PrepareAlive, Stop, 0, CheckStopped),
		On("cache_stop_stubborn", PrepareStubborn, Stop, 0, CheckStopped),
		On("cache_status_nothing", PrepareOff, Status(ZEVO_METADATA_CACHE_IDLE, 71, 72), 0),
		On(
			"cache_status_pinned", [] { PrepareStatus("2"); }, Status(ZEVO_METADATA_CACHE_PINNED, 71, 72),
			2),
		On(
			"cache_status_unpinning", [] { PrepareStatus("3"); }, Status(ZEVO_METADATA_CACHE_WORKING, 0, 0),
			1),
		On("cache_status_working", PrepareReporting, StatusOfReporting, 1),
		On("cache_status_ended", PrepareNotReportingAnyMore, Status(ZEVO_METADATA_CACHE_IDLE, 71, 72), 0),
		On("cache_support_volume", PrepareOff, Support(ZEVOBtrfsMetadataCacheSupportCheckForVolume), 1),
		On("cache_support_cache", PrepareOff, Support(ZEVOBtrfsMetadataCacheSupportCheckForCache), 1),
	};
}
