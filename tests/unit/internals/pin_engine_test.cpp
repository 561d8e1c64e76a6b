#include "unit/internals/pin_pass_test.h"

namespace {

class PinEngine : public PinPassTest {
protected:
	/// Takes the lock as another engine does; gives the descriptor.
	int Lock() const
	{
		std::filesystem::create_directories(std::filesystem::path(volume.kLock).parent_path());
		const int fd = open(volume.kLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
		EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
		return fd;
	}

	void ExpectFailure(const Lines &lines, int code)
	{
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(VUNKCErrGet(), code);
		ExpectNothingLeft();
	}

	/// Nothing has been done to the volume.
	void ExpectUntouched() const
	{
		EXPECT_EQ(volume.tool.lines, Lines{});
		EXPECT_EQ(device.lines, Lines{});
		EXPECT_FALSE(std::filesystem::exists(std::string(volume.kPath) + "/@eaDir"));
		EXPECT_FALSE(std::filesystem::exists(volume.kPid));
		EXPECT_EQ(Switch(), "0\n");
	}
};

TEST_F(PinEngine, PinsAndUnpins)
{
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Switch(), "1\n");
	SwitchVolume(false);
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_EQ(Switch(), "0\n");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinEngine, KnowsTheVolumeByItsDeviceAsWellAsTheStorageLibraryDoes)
{
	volume.storage.volumes[0].device = "/dev/none";
	volume.storage.volumes[0].altDevice = volume.kDevice;
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
}

// ---- The lock

TEST_F(PinEngine, LeavesTheVolumeToTheEngineThatHasTheLock)
{
	const int fd = Lock();
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0x6400);
	ExpectUntouched();
	close(fd);
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
}

TEST_F(PinEngine, HoldsTheLockAndTellsItsProcessWhileItWorks)
{
	int runs = 0;
	volume.tool.before = [&](const std::string &) {
		++runs;
		EXPECT_FALSE(IsLockFree());
		EXPECT_TRUE(kit::ReadFile(volume.kPid).starts_with(std::to_string(getpid()) + " "));
		EXPECT_EQ(__BtrfsMetadataCacheSet(volume.kPath), 0); // another one at once
		EXPECT_EQ(VUNKCErrGet(), 0x6400);
		return 0;
	};
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(runs, 4);
	EXPECT_EQ(volume.tool.lines.size(), 4u);
	SwitchVolume(false);
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(runs, 4 + 8);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_TRUE(std::filesystem::exists(volume.kLock)); // for good
	EXPECT_EQ(kit::ReadFile(volume.kLock), "");
}

TEST_F(PinEngine, HasNothingToDoWithOtherFileSystems)
{
	volume.storage.volumes[0].type = ZEVO_FS_EXT;
	for (const bool on : {true, false}) {
		SwitchVolume(on);
		VUNKCErrSetEx(0x1234, "stale", 1);
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(VUNKCErrGet(), 0xD900);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
	ExpectUntouched();
	EXPECT_FALSE(std::filesystem::exists("/run/lock/zevotuned/metadata_cache"));
}

TEST_F(PinEngine, DoesNotTakeAVolumeForNoBtrfsByTheCodeOfAnEarlierCall)
{
	const Lines lines = OfEngine(Log({"Failed to get UUID from [{volume}]\n{code}"}));
	for (const char *const function : {"ZEVOFSGetBTRFSUuid", "ZEVOGetFSType"})
		for (const int stale : {0xD900, 0x6400}) {
			Forget();
			VUNKCErrSetEx(stale, "stale", 1);
			const kit::Fault fault(function);
			ExpectFailure(lines, kit::kFaultCode);
			ExpectUntouched();
		}
}

TEST_F(PinEngine, FailsWithoutALock)
{
	const std::string folder = std::filesystem::path(volume.kLock).parent_path();
	const std::string own = "btrfs_metadata_cache.cpp";
	const struct {
		const char *what;
		std::function<void()> arrange;
		std::string code;
	} rows[] = {
		{"a folder in its place", [&] { std::filesystem::create_directories(volume.kLock); },
	         "[0x0900 " + own + "]"},
		{"a link in its place",
	         [&] {
			 std::filesystem::create_directories(folder);
			 std::filesystem::create_symlink("/run/other", volume.kLock);
		 },
	         "[0x0900 " + own + "]"},
		{"a file as its folder", [&] { kit::WriteFile(folder, ""); }, "[0xA000 utils.cpp]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		std::filesystem::remove_all("/run/lock/zevotuned");
		row.arrange();
		Forget();
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(), OfEngine({}, row.code));
		ExpectUntouched();
		std::filesystem::remove_all("/run/lock/zevotuned");
	}
	EXPECT_FALSE(std::filesystem::exists("/run/other"));
	for (const char *const function : {"open", "flock"}) {
		SCOPED_TRACE(function);
		Forget();
		const kit::PathFault fault(function, volume.kLock, ENOLCK);
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(fault.Calls(), 1);
		EXPECT_EQ(journal.Lines(), OfEngine({}, "[0x0900 " + own + "]"));
		ExpectUntouched();
	}
}

TEST_F(PinEngine, FailsWhenTheLockCannotBeReleased)
{
	const Outcome failed = {-1, OfEngine(Log({"fail to VUNKCFileUnlockByFile of [{lock}] config{code}"}))};
	EXPECT_TRUE(OutcomesOf("VUNKCFileUnlockByFile", [&] { Renew(); }).contains(failed));
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_TRUE(OutcomesOf("VUNKCFileUnlockByFile", [&] {
			    Renew();
			    WriteMapping(Config("2", 0) + kAllRecords);
			    SwitchVolume(false);
		    }).contains(failed));
	EXPECT_FALSE(volume.HasMapping());
}

// ---- The checks

TEST_F(PinEngine, FailsWhereACheckFails)
{
	const std::string cache = "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}";
	const std::string policy = "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}";
	const struct {
		const char *function;
		Lines lines;
	} rows[] = {
		{"ZEVOSpaceInfoEnum", {"Failed to enumerate volumes{code}", cache}},
		{"ZEVOFlashCacheConfigTmpGet", {"Failed to get SSD cache config for {volume}{code}", cache}},
		{"ZEVOFlashCacheSupportFlagsGet", {"Failed to get SSD cache support flag for {volume}{code}", cache}},
		{"VUNKCSzHashAlloc", {"Failed to VUNKCSzHashAlloc().{code}", policy}},
		{"ZEVOVolumeConfGet",
	         {"Failed to ZEVOVolumeConfGet with [{volume}].{code}",
	          "Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}", policy}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		Forget();
		const kit::Fault fault(row.function);
		ExpectFailure(OfEngine(Log(row.lines)), kit::kFaultCode);
		EXPECT_TRUE(fault.Struck());
		ExpectUntouched();
		EXPECT_EQ(Count("ZEVOFSGetBTRFSUuid"), 0u); // it did not come to the lock
	}
}

TEST_F(PinEngine, FailsForAVolumeThatIsNotThereOrHasNoSettings)
{
	const std::string none = "[0xC200 fake:1]";
	volume.storage.volumeConf.clear();
	ExpectFailure(OfEngine(Log({"Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}",
	                            "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"},
	                           none),
	                       none),
	              0xC200);
	Forget();
	volume.storage.volumes.clear();
	ExpectFailure(OfEngine(Log({"Couldn't find volume info for device [{volume}]\n{code}",
	                            "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"},
	                           "[0x0000 :0]"),
	                       "[0x0000 :0]"),
	              0);
	ExpectUntouched();
}

TEST_F(PinEngine, FailsWithACacheWhoseIdHoldsNoNumber)
{
	volume.storage.caches[volume.kPath].id = "nvme";
	const std::string none = "[0x0000 :0]";
	ExpectFailure(OfEngine(Log({"Fail to parse SSD ID",
	                            "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"},
	                           none),
	                       none),
	              0);
	ExpectUntouched();
}

// ---- The pid file

TEST_F(PinEngine, FailsWithoutAPidFile)
{
	const std::string run = "/run/zevotuned/metadata_cache";
	const std::string path = "Failed to get Btrfs Metadata Cache Pid file path with vol path [{volume}].{code}";
	const std::string written = "Failed to BtrfsMetadataCachePidFileWrite with [{volume}]{code}";
	const struct {
		const char *what;
		std::function<void()> arrange;
		Lines lines;
		std::string code;
	} rows[] = {
		{"a folder in its place",
	         [&] { std::filesystem::create_directories(volume.kPid); },
	         {path, written},
	         "[0xC000 btrfs_metadata_cache.cpp]"},
		{"a file as its folder", [&] { kit::WriteFile(run, ""); }, {path, written}, "[0xA000 utils.cpp]"},
		{"no room for a new one",
	         [&] { std::filesystem::create_directories(run + "/." + volume.kUuid + ".pid.new"); },
	         {"Failed to VUNKCProcPidFileCreate with [{pid}]{code}", written},
	         Of("[0x0B00 {pid}:0]")},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		std::filesystem::remove_all(run);
		row.arrange();
		Forget();
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(), OfEngine(Log(row.lines, row.code), row.code));
		std::filesystem::remove_all(run);
		ExpectNothingLeft();
		ExpectUntouched();
	}
	Forget();
	const kit::PathFault fault("open", volume.kPid, ENOSPC);
	const std::string code = "[0x0C00 btrfs_metadata_cache.cpp]";
	ExpectFailure(OfEngine(Log({"Failed to create [{pid}]\n", path, written}, code), code), 0xC00);
	ExpectUntouched();
}

TEST_F(PinEngine, TakesOverThePidFileOfAProcessThatHasEnded)
{
	kit::WriteFile(volume.kPid, "999999 1\n");
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinEngine, SucceedsAlthoughThePidFileStays)
{
	{
		const kit::PathFault fault("unlink", volume.kPid, EPERM);
		EXPECT_EQ(Set(), 0);
	}
	EXPECT_EQ(journal.Lines(), Log({"Failed to delete btrfs metadata cache pid file ({pid}) ",
	                                "Failed to BtrfsMetadataCachePidFileRemove with [{volume}]{code}"},
	                               "[0x0000 :0]"));
	EXPECT_TRUE(std::filesystem::remove(volume.kPid));
}

TEST_F(PinEngine, SucceedsAlthoughThePidFileCannotBeFound)
{
	// The last chunk's tool turns the file into a folder.
	volume.tool.afterwards = [&](const std::string &line) {
		if (Contains(line, "5600")) {
			std::filesystem::remove(volume.kPid);
			std::filesystem::create_directories(volume.kPid);
		}
	};
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to get Btrfs Metadata Cache Pid file path with vol path [{volume}].{code}",
	               "Failed to BtrfsMetadataCachePidFileRemove with [{volume}]{code}"},
	              "[0xC000 btrfs_metadata_cache.cpp]"));
	std::filesystem::remove(volume.kPid);
}

TEST_F(PinEngine, DoesNotMindAPidFileThatSomebodyElseHasRemoved)
{
	volume.tool.afterwards = [&](const std::string &) { std::filesystem::remove(volume.kPid); };
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinEngine, RemovesThePidFileOfAVolumeThatHasBeenUnmounted)
{
	volume.tool.afterwards = [&](const std::string &line) {
		if (Contains(line, "5600"))
			volume.storage.volumes.clear();
	};
	EXPECT_EQ(Set(), -1);
	const std::string none = "[0x0000 :0]";
	Lines lines = OfMetadata(Log({"Couldn't find volume info for device [{volume}]\n{code}",
	                              "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"},
	                             none),
	                         none, 0);
	const Lines unfound = Log({"Failed to get UUID from [{volume}]\n{code}",
	                           "Failed to get Btrfs Metadata Cache Pid file path with vol path [{volume}].{code}",
	                           "Failed to BtrfsMetadataCachePidFileRemove with [{volume}]{code}"});
	lines.insert(lines.end() - 1, unfound.begin(), unfound.end());
	EXPECT_EQ(WithoutErrno(journal.Lines()), lines);
	EXPECT_FALSE(std::filesystem::exists(volume.kPid));
}

// ---- Starting over

TEST_F(PinEngine, FinishesTheChunkAndStartsOverWhenACheckTurns)
{
	const struct {
		const char *what;
		std::function<void()> turn;
		bool unpins; // the cache is there to be asked
	} rows[] = {
		{"configuration", [&] { Configure("btrfs_metadata_cache_on", "false"); }, true},
		{"volume's switch", [&] { SwitchVolume(false); }, true},
		{"no cache", [&] { volume.storage.caches.clear(); }, false},
		{"cache cannot pin", [&] { volume.storage.caches[volume.kPath].flags = 0; }, false},
		{"cache not ready", [&] { volume.storage.caches[volume.kPath].mode = 2; }, true},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		Renew();
		Configure("btrfs_metadata_cache_on", "true");
		volume.storage.caches[volume.kPath] = {};
		std::string after;
		volume.tool.before = [&](const std::string &line) {
			if (Contains(line, "--set-bitmap") && Contains(line, "4096"))
				row.turn();
			return 0;
		};
		Forget();
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(journal.Lines(), Lines{});
		Lines steps = {
			"add [4194304]",
			"modify [config]",
			"--set-bitmap 4096 128",
			"pread /run/volume1-device 2097152+65536",
			"modify [4194304]",
			"check",
			"drop", // neither the switch nor the status
			"ZEVOSpaceBuildFileRemove self 8 31 14 cache-1",
			Of("unlink {pid}"),
			"check",
			"modify [config]",
			Of("{switch}: 0"),
			"ZEVOFlashCachePinIsVolumeSupport /run/volume1",
		};
		if (row.unpins)
			steps = Joined(steps, {"switch?", "modify [4194304]", "--unset-bitmap 4096 128",
			                       "--unpin-range 4096 128", "remove [4194304]", "switch?", "modify [1]",
			                       "--unset-bitmap 128 8", "--unpin-range 128 8", "remove [1]", "switch?"});
		steps = Joined(steps, {Of("unlink {mapping}"), Of("unlink {pid}")});
		Lines done;
		for (std::string step : Steps())
			// The configuration has a say before the volume's switch, which then is not looked at.
			done.push_back(step == "cache?" ? "check" : step);
		const auto from = std::find(done.begin(), done.end(), "add [4194304]");
		EXPECT_EQ(Lines(from, done.end()), steps);
		EXPECT_FALSE(volume.HasMapping());
		EXPECT_EQ(volume.tool.Pinned(), row.unpins ? "" : "16+1 512+16");
		EXPECT_EQ(Switch(), "0\n");
		EXPECT_EQ(Passes(), 2);
	}
}

TEST_F(PinEngine, LooksAtTheChecksOnlyAfterAnAddOrAPreload)
{
	PinAll();
	volume.btrfs.before = [&](unsigned long, void *) { SwitchVolume(false); };
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(Passes(), 1);
	EXPECT_EQ(Switch(), "1\n");
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	volume.btrfs.before = nullptr;
}

TEST_F(PinEngine, StartsOverUntilTheChecksStay)
{
	// Off while it pins, and on again while it unpins, three times.
	int turns = 0;
	volume.tool.before = [&](const std::string &line) {
		const bool pins = Contains(line, "--set-bitmap");
		if (turns < 6 && pins == (turns % 2 == 0)) {
			SwitchVolume(!pins);
			++turns;
		}
		return 0;
	};
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(turns, 6);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Switch(), "1\n");
	EXPECT_TRUE(Contains(Mapping(), "status=\"2\""));
}

TEST_F(PinEngine, DoesNotStartOverAfterAFailure)
{
	// The configuration turns while the switch of the kernel is gone: the second pass is the last.
	volume.tool.before = [&](const std::string &line) {
		if (Contains(line, "--start-sector 4096")) {
			SwitchVolume(false);
			std::filesystem::remove(volume.kSwitch);
		}
		return 0;
	};
	const std::string none = "[0x0000 :0]";
	EXPECT_EQ(Set(), -1);
	EXPECT_EQ(journal.Lines(),
	          OfDisabling(Joined({"utils.cpp TuneParameterWrite Can't open file " + volume.kSwitch +
	                              ", errno:No such file or directory" + none},
	                             Log({"Failed to TuneBtrfsVolumeMetadataCacheEnable false with [{volume}]{code}"},
	                                 none)),
	                      none));
	EXPECT_EQ(Passes(), 2);
	EXPECT_EQ(Mapping(), Config("3", 17 * kit::PinVolume::kBlock) + SuperblockRecord() + Record(kFirst));
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+16");
}

TEST_F(PinEngine, LeavesTheVolumeToAnotherEngineThatHasComeBetweenTwoPasses)
{
	int fd = -1;
	volume.tool.before = [&](const std::string &line) {
		if (Contains(line, "--start-sector 4096"))
			SwitchVolume(false);
		return 0;
	};
	timeline.before = [&](const std::string &line) {
		if (fd < 0 && Passes() == 1 && line.starts_with("ZEVOSpaceInfoEnum"))
			fd = Lock();
	};
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0x6400);
	ASSERT_GE(fd, 0);
	close(fd);
	EXPECT_EQ(Mapping(), Config("1", 17 * kit::PinVolume::kBlock) + SuperblockRecord() + Record(kFirst));
	EXPECT_EQ(Switch(), "0\n");
}

} // namespace
