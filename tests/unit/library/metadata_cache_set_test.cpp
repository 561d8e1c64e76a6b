#include "unit/library/metadata_cache_test.h"

#include <climits>
#include <optional>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kWait = 0;
constexpr int kNoWait = 1;

class MetadataCacheSwitch : public MetadataCacheTest {
protected:
	MetadataCacheSwitch()
	{
		// None of these is the volume, whatever it is named by.
		volume.storage.volumes.insert(volume.storage.volumes.begin(),
		                              {{.path = "/run/volume", .device = "/dev/sdx1"},
		                               {.path = "/run/volume11", .device = "/dev/sdx2"}});
		SwitchVolume(false);
	}

	static int Set(std::string path, int fEnable = 1, int fNoWait = kWait)
	{
		return ZEVOBtrfsMetadataCacheSet(path.data(), fEnable, fNoWait);
	}
	static int Rescan(std::string path, int fNoWait = kWait)
	{
		return ZEVOBtrfsMetadataCacheRescan(path.data(), fNoWait);
	}

	kit::FakeVolume &Volume() { return volume.storage.volumes.back(); }
	void SwitchVolume(bool on) { volume.storage.volumeConf[kVolume].metadataCache = on ? 1 : 0; }
	bool IsOn() { return volume.storage.volumeConf[kVolume].metadataCache != 0; }

	/// The calls that write a switch.
	Lines Writes() const
	{
		Lines writes;
		for (const std::string &call : volume.storage.calls)
			if (call.starts_with("ZEVOVolumeConfSet"))
				writes.push_back(call);
		return writes;
	}

	void ExpectPinned(const std::string &pinned) const
	{
		EXPECT_EQ(volume.tool.Pinned(), pinned);
		EXPECT_EQ(volume.HasMapping(), !pinned.empty());
		EXPECT_EQ(kit::ReadFile(volume.kSwitch), pinned.empty() ? "0\n" : "1\n");
		EXPECT_FALSE(fs::exists(volume.kPid));
		EXPECT_FALSE(fs::exists(volume.kProgress));
	}

	/// Makes the volume one on which the engine has never run.
	void Renew()
	{
		fs::remove_all(fs::path(volume.kMapping).parent_path());
		kit::WriteFile(volume.kSwitch, "0\n");
		volume.tool.Clear();
		SwitchVolume(false);
		Forget();
	}

	/// Of an engine that finds no cache.
	Lines EngineLines(const std::string &code = kFault) const
	{
		return Log({"Failed to get SSD cache config for {volume}{code}",
		            "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}",
		            "Failed to __BtrfsMetadataCacheSet with [{volume}]{code}",
		            "Failed to BtrfsMetadataCacheSet with [{volume}]{code}"},
		           code);
	}
};

using MetadataCacheSet = MetadataCacheSwitch;
using MetadataCacheRescan = MetadataCacheSwitch;

// ---- The volume

TEST_F(MetadataCacheSwitch, RefusesANullPath)
{
	EXPECT_EQ(ZEVOBtrfsMetadataCacheSet(nullptr, 1, kWait), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	VUNKCErrSetEx(0, "", 0);
	EXPECT_EQ(ZEVOBtrfsMetadataCacheRescan(nullptr, kNoWait), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(journal.Lines(), Log({Refused("__null != szPath"), Refused("__null != szPath")}));
	EXPECT_EQ(volume.storage.calls, Lines{});
	EXPECT_EQ(processes.lines, Lines{});
	ExpectNoFiles();
}

TEST_F(MetadataCacheSwitch, KnowsTheVolumeByItsPathItsDeviceAndItsLayer)
{
	volume.storage.layers[kVolume] = "/dev/dm-3";
	for (const std::string &name : {kVolume, std::string(volume.kDevice), std::string("/dev/dm-3")}) {
		SCOPED_TRACE(name);
		Renew();
		EXPECT_EQ(Set(name), 0);
		EXPECT_EQ(Writes(), Lines{"ZEVOVolumeConfSet /run/volume1 metadata_cache=1 0x10"});
		ExpectPinned(kAllPinned);
		EXPECT_EQ(Set(name, 0), 0);
		ExpectPinned("");
		SwitchVolume(true);
		EXPECT_EQ(Rescan(name), 0);
		ExpectPinned(kAllPinned);
		EXPECT_EQ(journal.Lines(), Lines{});
	}
}

TEST_F(MetadataCacheSwitch, KnowsADeviceByItsAlternativeNameWhereThereIsOne)
{
	Volume().device = "/dev/dm-1";
	Volume().altDevice = volume.kDevice;
	EXPECT_EQ(Set(volume.kDevice), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	ExpectPinned(kAllPinned);
	Forget();
	for (const auto &call : {+[] { return Set("/dev/dm-1", 0); }, +[] { return Rescan("/dev/dm-1"); }}) {
		journal.Clear();
		EXPECT_EQ(call(), -1);
		EXPECT_EQ(journal.Lines(), Log({"Couldn't find volume info for device [/dev/dm-1]\n{code}",
		                                "Failed to find space with [/dev/dm-1]{code}"},
		                               "[0x0600 fake:1]"));
		EXPECT_EQ(VUNKCErrGet(), 0x600);
	}
	EXPECT_EQ(Writes(), Lines{});
	EXPECT_TRUE(IsOn());
}

TEST_F(MetadataCacheSwitch, FailsForAVolumeThatIsNotThere)
{
	volume.storage.volumes.clear();
	for (const int noWait : {kWait, kNoWait})
		for (const auto &call :
		     {+[](int how) { return Set(kVolume, 1, how); }, +[](int how) { return Rescan(kVolume, how); }}) {
			Forget();
			EXPECT_EQ(call(noWait), -1);
			EXPECT_EQ(journal.Lines(), Log({"Couldn't find volume info for device [{volume}]\n{code}",
			                                "Failed to find space with [{volume}]{code}"},
			                               kNoCode));
			EXPECT_EQ(volume.storage.calls, Lines{"ZEVOSpaceInfoEnum 1"});
		}
	EXPECT_EQ(processes.lines, Lines{});
	ExpectNoFiles();
}

TEST_F(MetadataCacheSwitch, FailsWhereVolumesOrTheirLayersCannotBeTold)
{
	volume.storage.layers[kVolume] = "/dev/dm-3";
	const Lines noVolumes = {"Failed to enumerate volumes{code}"};
	// The first volume's layer: the third volume would match.
	const Lines noLayer = {"Failed to ZEVOVSpaceLayerPathGet with [/run/volume] errno=0xFA17\n{code}",
	                       "Couldn't find volume info for device [/dev/dm-3]\n{code}"};
	for (const auto &[function, lines] :
	     {std::pair{"ZEVOSpaceInfoEnum", noVolumes}, {"ZEVOVSpaceLayerPathGet", noLayer}})
		for (const auto &call : {+[] { return Set("/dev/dm-3"); }, +[] { return Rescan("/dev/dm-3"); }}) {
			SCOPED_TRACE(function);
			Forget();
			const kit::Fault fault(function);
			EXPECT_EQ(call(), -1);
			Lines chain = lines;
			chain.push_back("Failed to find space with [/dev/dm-3]{code}");
			EXPECT_EQ(journal.Lines(), Log(chain));
			EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
			EXPECT_EQ(Writes(), Lines{});
		}
	EXPECT_FALSE(IsOn());
	ExpectNoFiles();
}

TEST_F(MetadataCacheSwitch, HasNothingToDoWithOtherFileSystems)
{
	Volume().type = ZEVO_FS_EXT;
	Volume().device = volume.kDevice;
	volume.storage.layers[kVolume] = "/dev/dm-3";
	for (const int noWait : {kWait, kNoWait})
		for (const std::string &name : {kVolume, std::string(volume.kDevice), std::string("/dev/dm-3")}) {
			EXPECT_EQ(Set(name, 1, noWait), 0);
			EXPECT_EQ(Set(name, 0, noWait), 0);
			EXPECT_EQ(Rescan(name, noWait), 0);
			EXPECT_EQ(volume.storage.calls.back(), "ZEVOGetFSType /run/volume1 0");
		}
	EXPECT_EQ(Writes(), Lines{});
	EXPECT_EQ(processes.lines, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.tool.lines, Lines{});
	ExpectNoFiles();
}

// ---- The switch

TEST_F(MetadataCacheSet, WritesTheSwitchBeforeTheEngineStarts)
{
	EXPECT_EQ(Set(kVolume), 0);
	ASSERT_GE(timeline.lines.size(), 6u);
	EXPECT_EQ(Lines(timeline.lines.begin(), timeline.lines.begin() + 6),
	          (Lines{"ZEVOSpaceInfoEnum 1", "ZEVOVSpaceLayerPathGet 1 /run/volume 128",
	                 "ZEVOVSpaceLayerPathGet 1 /run/volume11 128", "ZEVOGetFSType /run/volume1 0",
	                 "ZEVOVolumeConfSet /run/volume1 metadata_cache=1 0x10", "ZEVOSpaceInfoEnum 1"}));
	ExpectPinned(kAllPinned);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSet, IsOnForAnythingButZero)
{
	for (const int enable : {1, 2, -1, INT_MIN, INT_MAX, 0x100}) {
		SCOPED_TRACE(enable);
		Renew();
		EXPECT_EQ(Set(kVolume, enable), 0);
		EXPECT_EQ(Writes(), Lines{"ZEVOVolumeConfSet /run/volume1 metadata_cache=1 0x10"});
		ExpectPinned(kAllPinned);
	}
	Forget();
	EXPECT_EQ(Set(kVolume, 0), 0);
	EXPECT_EQ(Writes(), Lines{"ZEVOVolumeConfSet /run/volume1 metadata_cache=0 0x10"});
	ExpectPinned("");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSet, GivesAVolumeASwitchThatHadNone)
{
	volume.storage.volumeConf.clear();
	EXPECT_EQ(Set(kVolume), 0);
	EXPECT_TRUE(IsOn());
	ExpectPinned(kAllPinned);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSet, FailsWhereTheSwitchCannotBeWrittenAndRunsNoEngine)
{
	volume.storage.volumeConf[kVolume].errorOfSet = 0xB00;
	for (const int noWait : {kWait, kNoWait}) {
		Forget();
		EXPECT_EQ(Set(volume.kDevice, 1, noWait), -1);
		EXPECT_EQ(journal.Lines(), Log({"Failed to set volume conf with [{volume}].{code}",
		                                "Failed to set volume conf with [{volume}]{code}"},
		                               "[0x0B00 fake:1]"));
		EXPECT_EQ(VUNKCErrGet(), 0xB00);
		EXPECT_EQ(volume.storage.calls.back(), "ZEVOVolumeConfSet /run/volume1 metadata_cache=1 0x10");
	}
	EXPECT_EQ(processes.lines, Lines{});
	EXPECT_FALSE(IsOn());
	ExpectNoFiles();
}

TEST_F(MetadataCacheSet, LeavesTheSwitchWrittenWhereTheEngineFails)
{
	const kit::Fault fault("ZEVOFlashCacheConfigTmpGet");
	EXPECT_EQ(Set(volume.kDevice), -1);
	EXPECT_EQ(journal.Lines(), EngineLines());
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_TRUE(IsOn());
}

TEST_F(MetadataCacheSet, LeavesTheVolumeToTheEngineThatIsAtIt)
{
	fs::create_directories(fs::path(volume.kLock).parent_path());
	const int fd = open(volume.kLock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	ASSERT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
	EXPECT_EQ(Set(kVolume), 0);
	close(fd);
	EXPECT_EQ(VUNKCErrGet(), 0x6400);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_TRUE(IsOn());
	ExpectPinned("");
}

TEST_F(MetadataCacheSet, TurnsAnEngineThatIsAtItRound)
{
	volume.tool.before = [&](const std::string &line) {
		if (line.starts_with("--set-bitmap")) {
			EXPECT_EQ(Set(kVolume, 0), 0); // finds the lock taken
		}
		return 0;
	};
	EXPECT_EQ(Set(kVolume), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_FALSE(IsOn());
	ExpectPinned("");
}

// ---- Rescanning

TEST_F(MetadataCacheRescan, RunsTheEngineAsTheSwitchStands)
{
	SwitchVolume(true);
	EXPECT_EQ(Rescan(volume.kDevice), 0);
	ExpectPinned(kAllPinned);
	volume.SetChunks({{2048, 8, 600, 700}, {4096, 4, 900}}); // one has vanished, one is new
	EXPECT_EQ(Rescan(kVolume), 0);
	ExpectPinned("16+1 600+8 700+8 900+4");
	SwitchVolume(false);
	EXPECT_EQ(Rescan(kVolume), 0);
	ExpectPinned("");
	EXPECT_EQ(Writes(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheRescan, FailsForAVolumeWhoseSwitchHasNeverBeenSet)
{
	volume.storage.volumeConf.clear();
	EXPECT_EQ(Rescan(kVolume), -1);
	EXPECT_EQ(journal.Lines(), Log({"Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}",
	                                "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}",
	                                "Failed to __BtrfsMetadataCacheSet with [{volume}]{code}",
	                                "Failed to BtrfsMetadataCacheSet with [{volume}]{code}"},
	                               "[0xC200 fake:1]"));
	EXPECT_EQ(VUNKCErrGet(), 0xC200);
	EXPECT_TRUE(volume.storage.volumeConf.empty());
}

TEST_F(MetadataCacheRescan, FailsWhereTheEngineFails)
{
	const kit::Fault fault("ZEVOFlashCacheConfigTmpGet");
	EXPECT_EQ(Rescan(volume.kDevice), -1);
	EXPECT_EQ(journal.Lines(), EngineLines());
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_FALSE(IsOn());
}

// ---- In a child

TEST_F(MetadataCacheSwitch, LeavesTheEngineToAChildForAnythingButZero)
{
	for (const int noWait : {kNoWait, 2, -1, INT_MIN}) {
		SCOPED_TRACE(noWait);
		Renew();
		EXPECT_EQ(Set(kVolume, 1, noWait), 0);
		EXPECT_EQ(volume.storage.calls.back(), "ZEVOVolumeConfSet /run/volume1 metadata_cache=1 0x10");
		EXPECT_EQ(processes.WaitForChild(), 0);
		ExpectPinned(kAllPinned);
		EXPECT_EQ(Set(kVolume, 0, noWait), 0);
		EXPECT_EQ(processes.WaitForChild(), 0);
		ExpectPinned("");
		SwitchVolume(true);
		EXPECT_EQ(Rescan(kVolume, noWait), 0);
		EXPECT_EQ(processes.WaitForChild(), 0);
		ExpectPinned(kAllPinned);
		EXPECT_EQ(processes.lines, (Lines{"fork", "fork", "fork"}));
		EXPECT_EQ(volume.tool.lines, Lines{}); // not this process
		EXPECT_EQ(journal.Lines(), Lines{});
	}
}

TEST_F(MetadataCacheSwitch, RunsTheEngineInAChildThatNobodyWaitsFor)
{
	processes.forksForReal = true;
	EXPECT_EQ(Set(kVolume, 1, kNoWait), 0);
	EXPECT_EQ(processes.WaitForChild(), 0);
	ExpectPinned(kAllPinned);
	EXPECT_EQ(volume.tool.lines, Lines{});
	// And one whose line nobody but the log sees.
	volume.storage.caches[kVolume].answer = -1;
	EXPECT_EQ(Set(kVolume, 0, kNoWait), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(processes.WaitForChild(), 0);
	EXPECT_EQ(journal.Lines(), EngineLines());
}

TEST_F(MetadataCacheSwitch, SucceedsWhateverBecomesOfTheChildsEngine)
{
	volume.storage.caches[kVolume].answer = -1;
	for (const auto &call : {+[] { return Set(kVolume, 1, kNoWait); }, +[] { return Rescan(kVolume, kNoWait); }}) {
		Forget();
		EXPECT_EQ(call(), 0);
		EXPECT_EQ(VUNKCErrGet() & ~0x600, 0); // of a volume without a layer
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_EQ(processes.WaitForChild(), 0);
		EXPECT_EQ(journal.Lines(), EngineLines());
		EXPECT_TRUE(IsOn());
	}
}

TEST_F(MetadataCacheSwitch, FlushesNoStreamOfTheProgramInTheChild)
{
	const kit::TempDir dir;
	FILE *const file = fopen(dir.Path("file").c_str(), "we");
	ASSERT_NE(file, nullptr);
	fputs("of the program", file);
	EXPECT_EQ(Set(kVolume, 1, kNoWait), 0);
	EXPECT_EQ(processes.WaitForChild(), 0);
	EXPECT_EQ(kit::ReadFile(dir.Path("file")), "");
	fclose(file);
	EXPECT_EQ(kit::ReadFile(dir.Path("file")), "of the program");
}

TEST_F(MetadataCacheSwitch, FailsWhereThereCanBeNoChild)
{
	const kit::Fault fault("VUNKCProcForkChildNoWait");
	EXPECT_EQ(Set(volume.kDevice, 1, kNoWait), -1);
	EXPECT_EQ(journal.Lines(), Log({"Failed to BtrfsMetadataCacheSetNoWait with [{volume}]{code}"},
	                               "[0x9700 btrfs_metadata_cache.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0x9700);
	EXPECT_TRUE(IsOn());
	EXPECT_EQ(volume.tool.lines, Lines{});
	ExpectNoFiles();
}

TEST_F(MetadataCacheRescan, FailsWhereThereCanBeNoChild)
{
	const kit::Fault fault("VUNKCProcForkChildNoWait");
	EXPECT_EQ(Rescan(volume.kDevice, kNoWait), -1);
	EXPECT_EQ(journal.Lines(), Log({"Failed to BtrfsMetadataCacheSetNoWait with [{volume}]{code}"},
	                               "[0x9700 btrfs_metadata_cache.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0x9700);
	EXPECT_EQ(Writes(), Lines{});
	ExpectNoFiles();
}

} // namespace
