#include "unit/internals/pin_pass_test.h"

namespace {

class DisablePass : public PinPassTest {
protected:
	DisablePass() { SwitchVolume(false); }

	/// All is pinned, and the volume switched off.
	void Arrange()
	{
		Renew();
		PinAll();
		SwitchVolume(false);
	}

	/// A pass that does not fail, has nothing to say and leaves nothing.
	void Pass()
	{
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_FALSE(volume.HasMapping());
		EXPECT_EQ(Switch(), "0\n");
	}
};

TEST_F(DisablePass, UnpinsFromTheLastRecordToTheFirst)
{
	Arrange();
	Pass();
	const Lines steps = {
		"check",
		"modify [config]",
		Of("{switch}: 0"),
		"ZEVOFlashCachePinIsVolumeSupport /run/volume1",
		"switch?",
		"modify [8388608]",
		"--unset-bitmap 4800 64",
		"--unpin-range 4800 64",
		"--unset-bitmap 5600 64",
		"--unpin-range 5600 64",
		"remove [8388608]",
		"switch?",
		"modify [4194304]",
		"--unset-bitmap 4096 128",
		"--unpin-range 4096 128",
		"remove [4194304]",
		"switch?",
		"modify [1]",
		"--unset-bitmap 128 8",
		"--unpin-range 128 8",
		"remove [1]",
		"switch?", // before "config" as well
		Of("unlink {mapping}"),
		Of("unlink {pid}"),
	};
	EXPECT_EQ(Steps(), steps); // neither a marker, nor reads, nor the page cache, nor priorities
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_TRUE(kit::Names(std::string(volume.kPath) + "/@eaDir").empty());
}

TEST_F(DisablePass, SaysWhatIsNotPinnedAnyMoreBeforeItUnpins)
{
	Arrange();
	Lines seen;
	volume.tool.before = [&](const std::string &) {
		if (seen.empty())
			seen = {Mapping(), Switch(), kit::ReadFile(volume.kPid)};
		return 0;
	};
	Pass();
	ASSERT_EQ(seen.size(), 3u);
	EXPECT_EQ(seen[0], Config("3", kAllBytes) + SuperblockRecord() + Record(kFirst) + Record(kSecond, 0));
	EXPECT_EQ(seen[1], "0\n");
	EXPECT_TRUE(seen[2].starts_with(std::to_string(getpid()) + " "));
}

TEST_F(DisablePass, HasNothingToDoWithoutAMappingFile)
{
	kit::WriteFile(volume.kSwitch, "1\n"); // not looked at
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(Steps(), (Lines{"check", Of("unlink {pid}")}));
	EXPECT_EQ(Switch(), "1\n");
	EXPECT_FALSE(std::filesystem::exists(std::string(volume.kPath) + "/@eaDir"));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DisablePass, RemovesAFileWithoutConfig)
{
	WriteMapping("");
	Pass();
	EXPECT_EQ(Steps(), (Lines{"check", Of("{switch}: 0"), "ZEVOFlashCachePinIsVolumeSupport /run/volume1",
	                          Of("unlink {mapping}"), Of("unlink {pid}")}));

	Arrange();
	WriteMapping(kAllRecords);
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
}

TEST_F(DisablePass, GoesOnWhereAnEarlierOneWasEnded)
{
	for (const std::string status : {"1", "2", "3"}) {
		Arrange();
		WriteMapping(Config(status, kAllBytes) + SuperblockRecord() + Record(kFirst, 0));
		Pass();
		EXPECT_EQ(volume.tool.lines.size(), 4u);
		EXPECT_EQ(volume.tool.Pinned(), "600+8 700+8"); // of which nothing is recorded
	}
}

TEST_F(DisablePass, ForgetsWhatIsPinnedInACacheThatIsGone)
{
	const struct {
		const char *what;
		kit::FakeCache cache;
		bool unpins;
	} rows[] = {
		{"none", {.answer = 0}, false},          {"removed", {.mode = 6}, false},
		{"pins no ranges", {.flags = 4}, false}, {"being assembled", {.mode = 0}, true},
		{"faulty", {.mode = 2}, true},           {"unknown mode", {.mode = 3}, true},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		volume.storage.caches[volume.kPath] = {};
		Arrange();
		SwitchVolume(true); // it is the cache that says no
		volume.storage.caches[volume.kPath] = row.cache;
		Pass();
		EXPECT_EQ(volume.tool.lines.size(), row.unpins ? 8u : 0u);
		EXPECT_EQ(volume.tool.Pinned(), row.unpins ? "" : kAllPinned);
	}
}

TEST_F(DisablePass, RunsNoToolOnAModelWithoutPins)
{
	Arrange();
	volume.storage.supportsPin = false;
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines(4, Log({"Doesn't support pin{code}"}, "[0x0000 :0]")[0]));
	EXPECT_EQ(volume.tool.lines, Lines{});
	EXPECT_FALSE(volume.HasMapping());
}

// ---- Switched on meanwhile

TEST_F(DisablePass, EndsEarlyWhenTheVolumeIsSwitchedOn)
{
	Arrange();
	std::string seen;
	volume.tool.before = [&](const std::string &line) {
		if (line.starts_with("--unset-bitmap"))
			SwitchVolume(true);
		else if (line.starts_with("--set-bitmap") && seen.empty())
			seen = Mapping();
		return 0;
	};
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
	const Lines steps = {
		"check",
		"modify [config]",
		Of("{switch}: 0"),
		"ZEVOFlashCachePinIsVolumeSupport /run/volume1",
		"switch?",
		"modify [8388608]",
		"--unset-bitmap 4800 64",
		"--unpin-range 4800 64",
		"--unset-bitmap 5600 64",
		"--unpin-range 5600 64",
		"remove [8388608]", // the chunk is finished
		"switch?",
		Of("unlink {pid}"),
		// And from the start: what is still pinned is not read again.
		"check",
		"modify [config]",
		"ZEVOSpaceBuildFileSet self 8 31 14 cache-1",
		"drop",
		"add [8388608]",
		"modify [config]", // the most that was pinned
		"--set-bitmap 4800 64",
		"pread /run/volume1-device 2457600+32768",
		"--set-bitmap 5600 64",
		"pread /run/volume1-device 2867200+32768",
		"modify [8388608]",
		"check",
		Of("{switch}: 1"),
		"modify [config]",
		Of("unlink {progress}"),
		"drop",
		"ZEVOSpaceBuildFileRemove self 8 31 14 cache-1",
		Of("unlink {pid}"),
	};
	EXPECT_EQ(Steps(), steps);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	EXPECT_EQ(Switch(), "1\n");
	EXPECT_TRUE(Contains(seen, Config("1", kAllBytes))) << seen; // counted anew
}

TEST_F(DisablePass, EndsEarlyBeforeTheFirstRecordAsWellAsBeforeConfig)
{
	const struct {
		std::string turnsBefore;
		size_t unpinned; // chunks
	} rows[] = {
		{Of("{switch}: 0"), 0},
		{"--unpin-range --mount-path /run/volume1 --start-sector 128 --num-sectors 8", 3},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.turnsBefore);
		Arrange();
		timeline.before = [&](const std::string &line) {
			if (line == row.turnsBefore)
				SwitchVolume(true);
		};
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_EQ(Passes(), 2);
		EXPECT_EQ(std::count(timeline.lines.begin(), timeline.lines.end(), Of("unlink {mapping}")), 0);
		EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
		EXPECT_EQ(Switch(), "1\n");
		EXPECT_EQ(static_cast<size_t>(std::count_if(
				  timeline.lines.begin(), timeline.lines.end(),
				  [](const std::string &line) { return line.starts_with("VUNKCFileRemoveSection"); })),
		          row.unpinned);
		timeline.before = nullptr;
	}
}

TEST_F(DisablePass, UnpinsAllWhereTheConfigurationSaysNoToAVolumeThatIsSwitchedOn)
{
	Arrange();
	SwitchVolume(true);
	Configure("btrfs_metadata_cache_on", "false");
	Forget();
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_EQ(Passes(), 1);
}

TEST_F(DisablePass, StartsOverOnceWhereTheVolumeIsSwitchedOnAgainstTheConfiguration)
{
	Arrange();
	Configure("btrfs_metadata_cache_on", "false");
	Forget();
	volume.tool.before = [&](const std::string &) {
		SwitchVolume(true);
		return 0;
	};
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_EQ(Passes(), 2);
}

// ---- Failures

TEST_F(DisablePass, LogsEveryStepUpFromAFailure)
{
	const auto arrange = [&] {
		Renew();
		WriteMapping(Config("2", kAllBytes) + Record(kSecond));
	};
	const auto of = [&](const Lines &lines) { return Outcome{-1, OfDisabling(Log(lines))}; };
	const std::string set = "Failed to BtrfsMetadataCacheSetStatus with [{mapping}]{code}";
	const std::string removed =
		"Failed to PinBtrfsMetadataSectionRemove offset:[8388608] with config:[{mapping}].{code}";
	const auto unpinned = [&](const std::string &option, const std::string &sector, const std::string &offset) {
		return of(
			{"Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool " + option + " --mount-path {volume} " +
		                 "--start-sector " + sector + " --num-sectors 64 ret = -1)",
		         "Failed to flash cache unpin range start:[" + offset + "] size:[32768] with [{volume}]{code}",
		         removed});
	};
	const Outcome underflow = {
		0, Log({"Failed to totalMetadataCacheSize underflow [0] < [65536], with chunk [8388608]"})};
	const struct {
		const char *function;
		std::set<Outcome> outcomes;
	} rows[] = {
		{"VUNKCSzListAlloc", {of({"VUNKCSzListAlloc failed. {code}"})}},
		{"VUNKCSzHashAlloc",
	         {{-1, OfEngine(Log({"Failed to VUNKCSzHashAlloc().{code}",
	                             "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"}))},
	          of({"Failed to VUNKCSzHashAlloc().{code}", set}),
	          of({"Failed to alloc hash{code}", removed}),
	          of({"Failed to VUNKCSzHashAlloc().{code}", removed}),
	          underflow}}, // what is recorded cannot be summed up
		{"VUNKCFileGetSection",
	         {of({"Failed to get section [config] in [{mapping}]{code}", set}),
	          of({"Failed to get section [8388608] in [{mapping}]{code}", removed}), underflow}},
		{"VUNKCSzHashSetValue",
	         {of({"Failed to set hash key [status] value [3]{code}", set}),
	          of({"Failed to set hash key status value 0{code}", removed})}},
		{"VUNKCIFileModifySection",
	         {of({"Failed to set section [config] in [{mapping}]{code}", set}),
	          of({"Failed to set section [8388608] in [{mapping}]{code}", removed})}},
		{"VUNKCFileEnumSection", {of({"Fail to enumerate sections with config [{mapping}].{code}"})}},
		{"VUNKCFileRemoveSection", {of({"Failed to remove section [8388608] in [{mapping}]{code}", removed})}},
		{"VUNKCExecl",
	         {unpinned("--unset-bitmap", "4800", "2457600"), unpinned("--unpin-range", "4800", "2457600"),
	          unpinned("--unset-bitmap", "5600", "2867200"), unpinned("--unpin-range", "5600", "2867200")}},
		{"VUNKCWrite",
	         {{-1, OfDisabling(Joined({"utils.cpp TuneParameterWrite Failed to set parameter [" + volume.kSwitch +
	                                   " 0], errno:Input/output error" + kFault},
	                                  Log({"Failed to TuneBtrfsVolumeMetadataCacheEnable false with "
	                                       "[{volume}]{code}"})))}}},
		{"ZEVOVolumeConfGet",
	         {{-1, OfEngine(Log({"Failed to ZEVOVolumeConfGet with [{volume}].{code}",
	                             "Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}",
	                             "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"}))},
	          of({"Failed to ZEVOVolumeConfGet with [{volume}].{code}",
	              "Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}"})}},
		{"posix_fadvise", {}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		EXPECT_EQ(OutcomesOf(row.function,
		                     [&] {
					     arrange();
					     SwitchVolume(false);
				     }),
		          row.outcomes);
		EXPECT_FALSE(volume.HasMapping());
	}
}

TEST_F(DisablePass, FailsWhereTheMappingFileIsNone)
{
	const std::string folder = std::string(volume.kPath) + "/@eaDir";
	const std::string failed = "Failed to get btrfs metadata pin config.{code}";
	const struct {
		std::function<void()> arrange;
		Lines lines;
		std::string code;
	} rows[] = {
		{[&] { kit::WriteFile(folder, ""); },
	         {"Failed to get zevotuned config directory {code}", failed},
	         "[0xA000 utils.cpp]"},
		{[&] { std::filesystem::create_directories(volume.kMapping); },
	         {failed},
	         "[0xC000 btrfs_metadata_cache.cpp]"},
		{[&] { WriteMapping("x\n"); },
	         {"Failed to get section [config] in [{mapping}]{code}",
	          "Failed to BtrfsMetadataCacheSetStatus with [{mapping}]{code}"},
	         Of("[0x1500 {mapping}:1]")},
	};
	for (const auto &row : rows) {
		std::filesystem::remove_all(folder);
		row.arrange();
		Forget();
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(), OfDisabling(Log(row.lines, row.code), row.code));
		EXPECT_EQ(Steps(), (Lines{"check", Of("unlink {pid}")}));
		std::filesystem::remove_all(folder);
	}
}

TEST_F(DisablePass, StopsAtARecordThatCannotBeOne)
{
	const struct {
		std::string name;
		std::string pairs;
		std::string missing;
	} rows[] = {
		{"x", "size=\"4096\"\nstripe_count=\"0\"\n", "section"},
		{"9", "stripe_count=\"0\"\n", "size with section"},
		{"9", "size=\"4096\"\n", "stripe count with section"},
		{"9", "size=\"4096\"\nstripe_count=\"3\"\n", "stripe count with section"},
		{"9", "size=\"4096\"\nstripe_count=\"1\"\n", "stripe offset with section"},
	};
	const std::string code = Of("[0x1500 {mapping}:0]");
	for (const auto &row : rows) {
		const std::string bad = "[" + row.name + "]\n" + row.pairs;
		SCOPED_TRACE(bad);
		Arrange();
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord() + bad + Record(kFirst) + Record(kSecond));
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(),
		          OfDisabling(Log({"Failed to get " + row.missing + " [" + row.name + "] in [{mapping}]{code}",
		                           "Failed to PinBtrfsMetadataSectionRemove offset:[" + row.name +
		                                   "] with config:[{mapping}].{code}"},
		                          code),
		                      code));
		EXPECT_EQ(Mapping(), Config("3", kAllBytes) + SuperblockRecord() + bad);
		EXPECT_EQ(volume.tool.Pinned(), "16+1");
	}
}

TEST_F(DisablePass, FailsWhereTheMappingFileStays)
{
	Arrange();
	{
		const kit::PathFault fault("unlink", volume.kMapping, EROFS);
		EXPECT_EQ(Set(), -1);
	}
	EXPECT_EQ(journal.Lines(),
	          OfDisabling(Log({"Failed to delete pin btrfs metadata file ({mapping}) errno[30]"}), "[0x0000 :0]"));
	EXPECT_EQ(Mapping(), Config("3", kAllBytes));
	EXPECT_EQ(volume.tool.Pinned(), "");
	Forget();
	Pass();
}

} // namespace
