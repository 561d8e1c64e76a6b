#include "unit/library/metadata_cache_test.h"

#include <vunkcore/pid_file.h>

#include <algorithm>
#include <map>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

class MetadataCacheStop : public MetadataCacheTest {
protected:
	MetadataCacheStop()
	{
		kit::WriteFile(volume.kPid, "999999 1\n");
		kit::WriteFile(volume.kProgress, "pid=\"999999\"\ntotal=\"2\"\ncurrent=\"1\"\n");
		kit::WriteFile(volume.kMapping, "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n[1]\nstatus=\"0\"\n");
		kit::WriteFile(volume.kLock, "");
		kit::WriteFile(volume.kSwitch, "1\n");
		untouched = Untouched();
	}

	void TearDown() override
	{
		EXPECT_EQ(Untouched(), untouched);
		EXPECT_EQ(volume.storage.volumeConf[kVolume].metadataCache, 1u);
		EXPECT_EQ(volume.tool.lines, Lines{});
		MetadataCacheTest::TearDown();
	}

	static int Stop(const std::string &path = kVolume) { return ZEVOBtrfsMetadataCacheForceStop(path.c_str()); }

	/// What no stopping changes.
	std::map<std::string, std::string> Untouched() const
	{
		std::map<std::string, std::string> files;
		for (const std::string &path : {volume.kMapping, volume.kLock, volume.kSwitch})
			files[path] = kit::ReadFile(path);
		return files;
	}

	void ExpectFilesGone() const
	{
		EXPECT_EQ(kit::Names("/run/zevotuned/metadata_cache"), std::set<std::string>{});
	}

	void ExpectFilesLeft() const
	{
		EXPECT_TRUE(fs::exists(volume.kPid));
		EXPECT_TRUE(fs::exists(volume.kProgress));
	}

	/// A process made up, that has ended when it has slept this often.
	void EndAfter(int sleeps)
	{
		processes.isAlive = [this, sleeps] {
			return std::count(processes.lines.begin(), processes.lines.end(), "sleep 1") < sleeps;
		};
	}

	/// The process that the pid file names.
	void NameInPidFile(const std::string &text) const { kit::WriteFile(volume.kPid, text); }

	/// Writes the pid file of the process that calls, as an engine does.
	void BecomeEngine() const
	{
		if (VUNKCProcPidFileCreate(volume.kPid.c_str()) != 0)
			abort();
	}

	Lines Success(const std::string &code = kNoCode) const
	{
		return {"<4>btrfs_metadata_cache.cpp Success to force stop Btrfs Metadata Cache with vol path [" +
		        kVolume + "]." + code};
	}
	Lines Failure(const std::string &code = kNoCode) const
	{
		return Log({"Failed to force stop Btrfs Metadata Cache with vol path [{volume}].{code}"}, code);
	}

	/// What has been done, without the names of the pid file.
	Lines Steps() const
	{
		Lines steps;
		for (std::string line : processes.lines) {
			if (const size_t at = line.find(" " + volume.kPid); at != std::string::npos)
				line.erase(at, volume.kPid.size() + 1);
			steps.push_back(line);
		}
		return steps;
	}

	Lines FirstSteps(size_t count) const
	{
		Lines steps = Steps();
		steps.resize(std::min(count, steps.size()));
		return steps;
	}

private:
	std::map<std::string, std::string> untouched;
};

// ---- The volume

TEST_F(MetadataCacheStop, RefusesANullPath)
{
	EXPECT_EQ(ZEVOBtrfsMetadataCacheForceStop(nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(journal.Lines(), Log({Refused("__null != szPath")}));
	EXPECT_EQ(volume.storage.calls, Lines{});
	ExpectFilesLeft();
}

TEST_F(MetadataCacheStop, FailsForAVolumeThatIsNotThere)
{
	EXPECT_EQ(Stop("/run/volume"), -1);
	EXPECT_EQ(journal.Lines(), Log({"Couldn't find volume info for device [/run/volume]\n{code}",
	                                "Failed to find space with [/run/volume]{code}"},
	                               "[0x0600 fake:1]"));
	EXPECT_EQ(VUNKCErrGet(), 0x600);
	journal.Clear();
	const kit::Fault fault("ZEVOSpaceInfoEnum");
	EXPECT_EQ(Stop(), -1);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to enumerate volumes{code}", "Failed to find space with [{volume}]{code}"}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_EQ(processes.lines, Lines{});
	ExpectFilesLeft();
}

TEST_F(MetadataCacheStop, HasNothingToDoWithOtherFileSystems)
{
	volume.storage.volumes[0].type = ZEVO_FS_EXT;
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(processes.lines, Lines{});
	ExpectFilesLeft();
}

TEST_F(MetadataCacheStop, FailsForAVolumeWhoseUuidCannotBeTold)
{
	for (const char *const function : {"ZEVOGetFSType", "ZEVOFSGetBTRFSUuid"})
		for (const int stale : {0, 0xD900}) {
			SCOPED_TRACE(function);
			Forget();
			VUNKCErrSetEx(stale, "stale", 1);
			const kit::Fault fault(function);
			EXPECT_EQ(Stop(), -1);
			EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}"}));
			EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		}
	EXPECT_EQ(processes.lines, Lines{});
	ExpectFilesLeft();
}

TEST_F(MetadataCacheStop, FailsWhereThePidFileCannotBeFound)
{
	const std::string noPath = "Failed to get Btrfs Metadata Cache Pid file path with vol path [{volume}].{code}";
	{
		const kit::Fault fault("ZEVOFSGetBTRFSUuid", 2);
		EXPECT_EQ(Stop(), -1);
	}
	EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}", noPath}));
	Forget();
	fs::remove(volume.kPid);
	fs::create_directory(volume.kPid);
	EXPECT_EQ(Stop(), -1);
	EXPECT_EQ(journal.Lines(), Log({noPath}, "[0xC000 btrfs_metadata_cache.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	ExpectFilesLeft();
	Forget();
	fs::remove_all("/run/zevotuned");
	kit::WriteFile("/run/zevotuned/metadata_cache", "");
	EXPECT_EQ(Stop(), -1);
	EXPECT_EQ(journal.Lines(), Log({noPath}, "[0xA000 utils.cpp]"));
	EXPECT_EQ(processes.lines, Lines{});
}

TEST_F(MetadataCacheStop, HasNobodyToStopWithoutAPidFile)
{
	fs::remove(volume.kPid);
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(processes.lines, Lines{});
	EXPECT_TRUE(fs::exists(volume.kProgress));
	fs::remove_all("/run/zevotuned");
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, KnowsTheVolumeByItsPathItsDeviceAndItsLayer)
{
	volume.storage.layers[kVolume] = "/dev/dm-3";
	for (const std::string &name : {kVolume, std::string(volume.kDevice), std::string("/dev/dm-3")}) {
		SCOPED_TRACE(name);
		NameInPidFile("1 1\n");
		EndAfter(1);
		Forget();
		EXPECT_EQ(Stop(name), 0);
		EXPECT_EQ(Steps(), (Lines{"signal 15", "sleep 1", "alive?"}));
		EXPECT_EQ(journal.Lines(), Success());
		ExpectFilesGone();
	}
}

// ---- A process made up

TEST_F(MetadataCacheStop, AsksAgainEverySecondUntilTheProcessHasEnded)
{
	const std::string progress = kit::ReadFile(volume.kProgress);
	for (int seconds = 1; seconds <= 5; ++seconds) {
		SCOPED_TRACE(seconds);
		NameInPidFile("1 1\n");
		kit::WriteFile(volume.kProgress, progress);
		EndAfter(seconds);
		Forget();
		Lines steps;
		for (int second = 1; second <= seconds; ++second)
			steps.insert(steps.end(), {"signal 15", "sleep 1", "alive?"});
		EXPECT_EQ(Stop(), 0);
		EXPECT_EQ(Steps(), steps);
		EXPECT_EQ(journal.Lines(), Success());
		EXPECT_EQ(VUNKCErrGet(), 0);
		ExpectFilesGone();
	}
	EXPECT_EQ(device.lines, Lines{}); // it does not wait any longer
}

TEST_F(MetadataCacheStop, KillsAProcessThatHasNotEndedAfterFiveSeconds)
{
	EndAfter(6);
	EXPECT_EQ(Stop(), 0);
	Lines steps;
	for (int second = 1; second <= 5; ++second)
		steps.insert(steps.end(), {"signal 15", "sleep 1", "alive?"});
	steps.insert(steps.end(), {"signal 15", "signal 9"});
	EXPECT_EQ(FirstSteps(steps.size()), steps);
	EXPECT_EQ(journal.Lines(), Failure());
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, WaitsAMomentForTheEndOfAProcessThatItHasKilled)
{
	const std::string killing = Of("signal 9 {pid}");
	for (const int lasts : {0, 1, 50, 1000}) { // not for ever
		SCOPED_TRACE(lasts);
		NameInPidFile("1 1\n");
		Forget();
		device.lines.clear();
		int looks = 0;
		processes.isAlive = [&] {
			const auto killed = std::find(processes.lines.begin(), processes.lines.end(), killing);
			return killed == processes.lines.end() || looks++ < lasts;
		};
		EXPECT_EQ(Stop(), 0);
		EXPECT_EQ(device.lines, Lines(static_cast<size_t>(std::min(lasts, 100)), "usleep 10000"));
		EXPECT_EQ(journal.Lines(), Failure());
		ExpectFilesGone();
	}
}

TEST_F(MetadataCacheStop, RemovesTheFilesLast)
{
	EndAfter(1);
	EXPECT_EQ(Stop(), 0);
	const auto last = [&](size_t n) {
		return Lines(timeline.lines.end() - static_cast<long>(n), timeline.lines.end());
	};
	const Lines files = {Of("unlink {progress}"), Of("unlink {pid}")};
	EXPECT_EQ(last(3), (Lines{Of("alive? {pid}"), files[0], files[1]}));
	NameInPidFile("1 1\n");
	kit::WriteFile(volume.kProgress, "");
	EndAfter(100);
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(last(4), (Lines{Of("alive? {pid}"), "usleep 10000", files[0], files[1]}));
}

TEST_F(MetadataCacheStop, SleepsOnWhenASignalWakesIt)
{
	EndAfter(100);
	unsigned left = 0;
	processes.sleep = [&](unsigned seconds) {
		EXPECT_EQ(seconds, 1u);
		left = (left + 1) % 3;
		return left == 0 ? 0u : 1u;
	};
	EXPECT_EQ(Stop(), 0);
	Lines steps;
	for (int second = 1; second <= 5; ++second)
		steps.insert(steps.end(), {"signal 15", "sleep 1", "sleep 1", "sleep 1", "alive?"});
	EXPECT_EQ(FirstSteps(steps.size()), steps);
}

TEST_F(MetadataCacheStop, LeavesTheEngineThatFollowsAlone)
{
	for (const int second : {1, 3, 5}) {
		SCOPED_TRACE(second);
		NameInPidFile("1 1\n");
		Forget();
		EndAfter(100);
		processes.sleep = [&, slept = 0](unsigned) mutable {
			if (++slept == second)
				NameInPidFile("1 2\n"); // the same id, given anew
			return 0u;
		};
		EXPECT_EQ(Stop(), 0);
		EXPECT_EQ(Steps().back(), "sleep 1"); // neither asked for nor signalled
		EXPECT_EQ(std::count(processes.lines.begin(), processes.lines.end(), Of("signal 15 {pid}")), second);
		EXPECT_EQ(journal.Lines(), Success());
		EXPECT_EQ(kit::ReadFile(volume.kPid), "1 2\n");
		ExpectFilesLeft();
	}
}

TEST_F(MetadataCacheStop, LeavesTheEngineThatFollowsAKilledOneAlone)
{
	processes.isAlive = [] { return true; };
	timeline.before = [&, looks = 0](const std::string &line) mutable {
		if (line == "usleep 10000" && ++looks == 3)
			NameInPidFile("2 2\n");
	};
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(device.lines, Lines(3, "usleep 10000"));
	EXPECT_EQ(journal.Lines(), Failure());
	EXPECT_EQ(kit::ReadFile(volume.kPid), "2 2\n");
	ExpectFilesLeft();
}

TEST_F(MetadataCacheStop, EndsTheFilesOfAnEngineOfWhichThereIsNothingElse)
{
	fs::remove(volume.kProgress);
	EndAfter(1);
	timeline.before = [&](const std::string &line) {
		if (line.starts_with("sleep"))
			fs::remove(volume.kPid); // its own doing
	};
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(journal.Lines(), Success());
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, SucceedsAlthoughAFileStays)
{
	EndAfter(1);
	{
		const kit::PathFault fault("unlink", volume.kProgress, EPERM);
		EXPECT_EQ(Stop(), 0);
	}
	Lines lines = Success();
	const Lines more = Log({"Failed to delete btrfs metadata cache progress file ({progress}) "});
	lines.insert(lines.end(), more.begin(), more.end());
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_FALSE(fs::exists(volume.kPid));
	NameInPidFile("1 1\n");
	Forget();
	const kit::PathFault fault("unlink", volume.kPid, EPERM);
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(journal.Lines(), Success());
	EXPECT_FALSE(fs::exists(volume.kProgress));
}

// ---- Real processes

TEST_F(MetadataCacheStop, EndsARealProcess)
{
	kit::ChildProcess engine([&] { BecomeEngine(); });
	processes.sleep = [&](unsigned) {
		engine.WaitForEnd();
		return 0u;
	};
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(engine.EndedBy(), SIGTERM);
	EXPECT_EQ(Steps(), (Lines{"signal 15", "sleep 1", "alive?"}));
	EXPECT_EQ(journal.Lines(), Success());
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, KillsARealProcessThatDoesNotWantToEndAndWaitsForItsEnd)
{
	kit::ChildProcess engine([&] {
		BecomeEngine();
		signal(SIGTERM, SIG_IGN);
		// As an engine does: the lock is free when the process has ended.
		if (flock(open(volume.kLock.c_str(), O_RDWR | O_CLOEXEC), LOCK_EX | LOCK_NB) != 0)
			abort();
	});
	const int lock = open(volume.kLock.c_str(), O_RDWR | O_CLOEXEC);
	EXPECT_NE(flock(lock, LOCK_EX | LOCK_NB), 0);
	timeline.before = [&](const std::string &line) {
		if (line == "usleep 10000")
			engine.WaitForEnd();
	};
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
	close(lock);
	EXPECT_EQ(engine.EndedBy(), SIGKILL);
	EXPECT_EQ(std::count(processes.lines.begin(), processes.lines.end(), Of("signal 15 {pid}")), 6);
	EXPECT_EQ(std::count(processes.lines.begin(), processes.lines.end(), Of("signal 9 {pid}")), 1);
	EXPECT_EQ(std::count(processes.lines.begin(), processes.lines.end(), "sleep 1"), 5);
	EXPECT_EQ(journal.Lines(), Failure());
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, SignalsNobodyWhereThePidFileNamesNobody)
{
	kit::ChildProcess other;
	const std::string id = std::to_string(other.Pid());
	const std::string own = std::to_string(getpid());
	const struct {
		const char *what;
		std::string text;
		std::string code;
	} rows[] = {
		{"of a process whose id another one has", id + " 1\n", "[0x1B00 pid_file.cpp]"},
		{"of a process that is gone", "999999 1\n", "[0x1B00 pid_file.cpp]"},
		{"empty", "", "[0x1A00 pid_file.cpp]"},
		{"without a start time", id + "\n", "[0x1A00 pid_file.cpp]"},
		{"of every process", "-1 1\n", "[0x1A00 pid_file.cpp]"},
		{"of the group", "0 1\n", "[0x1A00 pid_file.cpp]"},
		{"of this process, but older", own + " 0\n", "[0x1B00 pid_file.cpp]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		NameInPidFile(row.text);
		Forget();
		EXPECT_EQ(Stop(), 0);
		EXPECT_EQ(Steps(), (Lines{"signal 15: failed", "sleep 1", "alive?"}));
		EXPECT_EQ(journal.Lines(), Success(row.code));
		ExpectFilesGone();
	}
	EXPECT_EQ(other.EndedBy(), 0);
}

TEST_F(MetadataCacheStop, DoesNotTakeAZombieForAlive)
{
	kit::ChildProcess engine([&] { BecomeEngine(); });
	engine.Kill();
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(Steps().back(), "alive?");
	EXPECT_EQ(Steps().size(), 3u);
	ExpectFilesGone();
}

TEST_F(MetadataCacheStop, FollowsNoLinkToAnotherPidFile)
{
	kit::ChildProcess other([&] {
		if (VUNKCProcPidFileCreate("/run/zevotuned/other.pid") != 0)
			abort();
	});
	fs::remove(volume.kPid);
	fs::create_symlink("/run/zevotuned/other.pid", volume.kPid);
	EXPECT_EQ(Stop(), 0);
	EXPECT_EQ(Steps(), (Lines{"signal 15: failed", "sleep 1", "alive?"}));
	EXPECT_EQ(other.EndedBy(), 0);
	EXPECT_TRUE(fs::exists("/run/zevotuned/other.pid"));
	ExpectFilesGone();
}

} // namespace
