#include "unit/internals/pin_pass_test.h"

#include <cerrno>

#include <linux/btrfs.h>

namespace {

constexpr uint64_t kBlock = kit::PinVolume::kBlock;

class EnablePass : public PinPassTest {
protected:
	/// A pass that does not fail and has nothing to say.
	void Pass()
	{
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(journal.Lines(), Lines{});
		EXPECT_EQ(Switch(), "1\n");
	}

	void ExpectFailure(const Lines &lines)
	{
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(journal.Lines(), lines);
		ExpectNothingLeft();
	}

	/// How much of the cache may be pinned, in blocks.
	void Limit(uint64_t blocks)
	{
		Configure("btrfs_metadata_cache_space_usage_limit", std::to_string(blocks * kBlock));
	}

	/// Fails for what is no call that sets errno.
	void ExpectFailureOfNoCall(const Lines &lines)
	{
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(WithoutErrno(journal.Lines()), lines);
	}

	/// Events and notifications.
	Lines Warnings() const
	{
		Lines warnings;
		for (const std::string &call : volume.storage.calls)
			if (call.starts_with("ZEVOSysNotifySendNotifiction") || call.starts_with("ZEVOLogSet1"))
				warnings.push_back(call);
		return warnings;
	}
};

// ---- What a pass does, and in which order

TEST_F(EnablePass, PinsWhatIsNotPinnedYet)
{
	Pass();
	const Lines steps = {
		"check",
		"add [config]",
		"ZEVOSpaceBuildFileSet self 8 31 14 cache-1",
		"drop",
		// The superblock: recorded, and on disk, before it is pinned.
		"add [1]",
		"modify [config]",
		"--set-bitmap 128 8",
		"pread /run/volume1-device 65536+4096",
		"modify [1]",
		"check",
		// The chunks.
		"add [4194304]",
		"modify [config]",
		"--set-bitmap 4096 128",
		"pread /run/volume1-device 2097152+65536",
		"modify [4194304]",
		"check",
		"add [8388608]",
		"modify [config]",
		"--set-bitmap 4800 64",
		"pread /run/volume1-device 2457600+32768",
		"--set-bitmap 5600 64",
		"pread /run/volume1-device 2867200+32768",
		"modify [8388608]",
		"check",
		// Complete.
		Of("{switch}: 1"),
		"modify [config]",
		"drop",
		"ZEVOSpaceBuildFileRemove self 8 31 14 cache-1",
		Of("unlink {pid}"),
	};
	EXPECT_EQ(Steps(), steps);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(EnablePass, ChangesNothingWhereAllIsPinned)
{
	PinAll();
	Pass();
	EXPECT_EQ(Steps(),
	          (Lines{"check", "drop", "ioprio_set 1 0 0x4007", Of("{switch}: 1"), "drop", Of("unlink {pid}")}));
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
}

TEST_F(EnablePass, BringsWhatIsPinnedIntoLineWithTheVolume)
{
	const kit::MetadataChunk vanished = {4096, 4, 800};
	const kit::MetadataChunk changed = {2048, 4, 600};
	const kit::MetadataChunk added = {8192, 2, 900};
	volume.SetChunks({kFirst, kSecond, vanished});
	PinAll();
	const uint64_t most = kAllBytes + 4 * kBlock;
	WriteMapping(Config("2", most) + SuperblockRecord() + Record(kFirst, 0) + Record(kSecond) + Record(vanished));
	volume.SetChunks({kFirst, changed, added});

	Pass();
	const Lines steps = {
		"check",
		"drop",
		"ioprio_set 1 0 0x4007",
		// Recorded, but not read.
		"--set-bitmap 4096 128",
		"pread /run/volume1-device 2097152+65536",
		"modify [4194304]",
		"check",
		// Smaller now, and of one stripe.
		"modify [8388608]",
		"--unset-bitmap 4800 64",
		"--unpin-range 4800 64",
		"--unset-bitmap 5600 64",
		"--unpin-range 5600 64",
		"remove [8388608]",
		"add [8388608]",
		"--set-bitmap 4800 32",
		"pread /run/volume1-device 2457600+16384",
		"modify [8388608]",
		"check",
		// Not there any more.
		"modify [16777216]",
		"--unset-bitmap 6400 32",
		"--unpin-range 6400 32",
		"remove [16777216]",
		// New.
		"add [33554432]",
		"--set-bitmap 7200 16",
		"pread /run/volume1-device 3686400+8192",
		"modify [33554432]",
		"check",
		Of("{switch}: 1"),
		"drop",
		Of("unlink {pid}"),
	};
	EXPECT_EQ(Steps(), steps);
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+16 600+4 900+2");
	EXPECT_EQ(Mapping(), Config("2", most) + SuperblockRecord() + Record(kFirst) + Record(changed) + Record(added));
}

TEST_F(EnablePass, RemovesAtTheEndWhatIsBehindTheLastChunk)
{
	PinAll();
	volume.SetChunks({});
	Pass();
	EXPECT_EQ(Steps(),
	          (Lines{"check", "drop", "ioprio_set 1 0 0x4007", "modify [4194304]", "--unset-bitmap 4096 128",
	                 "--unpin-range 4096 128", "remove [4194304]", "modify [8388608]", "--unset-bitmap 4800 64",
	                 "--unpin-range 4800 64", "--unset-bitmap 5600 64", "--unpin-range 5600 64", "remove [8388608]",
	                 Of("{switch}: 1"), "drop", Of("unlink {pid}")}));
	EXPECT_EQ(volume.tool.Pinned(), "16+1");
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + SuperblockRecord());
}

TEST_F(EnablePass, PinsAsManyCopiesOfTheSuperblockAsTheDeviceHas)
{
	volume.SetChunks({});
	volume.btrfs.deviceSize = 1ULL << 30;
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1 16384+1");
	EXPECT_EQ(Mapping(), Config("2", 2 * kBlock) + SuperblockRecord() + Record(2, 1, 1, {16384}));
	volume.btrfs.deviceSize = 1 << 20;
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1");
	volume.btrfs.deviceSize = 1 << 16;
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_EQ(Mapping(), Config("2", 2 * kBlock));
}

TEST_F(EnablePass, GoesOnWhereAnEarlierOneWasEnded)
{
	WriteMapping(Config("1", 17 * kBlock) + SuperblockRecord() + Record(kFirst, 0));
	Pass();
	EXPECT_EQ(volume.tool.lines.front(),
	          "--set-bitmap --mount-path /run/volume1 --start-sector 4096 --num-sectors 128");
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	EXPECT_EQ(Count("ZEVOSpaceBuildFileSet"), 1u);
	EXPECT_EQ(device.Lines("ioprio_set"), Lines{});
}

TEST_F(EnablePass, DoesNotReadAgainWhatHasNoStatus)
{
	const std::string withoutStatus =
		"[4194304]\nsize=\"65536\"\nstripe_count=\"1\"\nstripe_offset_0=\"2097152\"\n";
	WriteMapping(Config("2", kAllBytes) + SuperblockRecord() + withoutStatus + Record(kSecond));
	Pass();
	EXPECT_EQ(volume.tool.lines, Lines{});
	EXPECT_EQ(device.Lines("pread"), Lines{});
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + SuperblockRecord() + withoutStatus + Record(kSecond));
}

// ---- The state of the mapping file that it starts from

TEST_F(EnablePass, StartsAfreshOnlyWithoutAStatusAndAfterTheVolumeWasSwitchedOff)
{
	const struct {
		std::string config;
		std::string after; // when all chunks have been recorded
		bool isBuilding;
	} rows[] = {
		{Config("1", 999999), Config("2", 999999), true},
		{Config("2", 999999), Config("2", 999999), false},
		{Config("3", 999999), Config("2", 0), true},
		{"[config]\nmax_used_size=\"999999\"\n", "[config]\nmax_used_size=\"0\"\nstatus=\"2\"\n", true},
		{"[config]\n", Config("2", 0), true},
		{"[config]\nstatus=\"2\"\n", "[config]\nstatus=\"2\"\n", false},
		{Config("7", 999999), Config("2", 999999), false}, // of a later version, say
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.config);
		Forget();
		WriteMapping(row.config + kAllRecords);
		Pass();
		EXPECT_EQ(Mapping(), row.after + kAllRecords);
		EXPECT_EQ(volume.tool.lines, Lines{});
		EXPECT_EQ(Count("ZEVOSpaceBuildFileSet"), row.isBuilding ? 1u : 0u);
		EXPECT_EQ(device.Lines("ioprio_set"), row.isBuilding ? Lines{} : Lines{"ioprio_set 1 0 0x4007"});
	}
}

TEST_F(EnablePass, GivesAFileWithoutConfigOne)
{
	WriteMapping("");
	Pass();
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);

	WriteMapping(kAllRecords);
	Forget();
	Pass();
	EXPECT_EQ(volume.tool.lines, Lines{});
	EXPECT_EQ(Mapping(), kAllRecords + Config("2", 0));
}

// ---- Limits

TEST_F(EnablePass, PassesOverWhatDoesNotFit)
{
	const kit::MetadataChunk large = {1024, 64, 512};
	const kit::MetadataChunk dup = {2048, 8, 600, 700};
	const kit::MetadataChunk exact = {4096, 4, 800};
	const kit::MetadataChunk none = {8192, 1, 900};
	volume.SetChunks({large, dup, exact, none});
	const struct {
		uint64_t limit; // blocks
		std::string pinned;
	} rows[] = {
		{1 + 16 + 4, "16+1 600+8 700+8 800+4"}, // to the last byte
		{1 + 15, "16+1 800+4 900+1"},           // both stripes count
		{5, "16+1 800+4"},
		{4, "16+1 900+1"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.pinned);
		Renew();
		Limit(row.limit);
		Pass();
		EXPECT_EQ(volume.tool.Pinned(), row.pinned);
		EXPECT_FALSE(Contains(Mapping(), "[4194304]"));
	}
}

TEST_F(EnablePass, TakesALimitUpTo100ForAPercentage)
{
	volume.SetChunks({{1024, 8, 512}, {2048, 4, 600}, {4096, 1, 700}});
	const struct {
		std::string limit;
		uint64_t cacheSize; // bytes
		std::string pinned;
	} rows[] = {
		{"100", 13 * kBlock, "16+1 512+8 600+4"},
		{"50", 20 * kBlock, "16+1 512+8 700+1"},
		{"50", 20 * kBlock - 1, "16+1 512+8"}, // rounded down
		{"0", 20 * kBlock, ""},
		{"101", 20 * kBlock, ""}, // bytes
		{"20480", 1 << 30, "16+1 600+4"},
		{"20479", 1 << 30, "16+1 700+1"},
		{"1073741824", 6 * kBlock, "16+1 600+4 700+1"}, // no more than there is
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.limit + " " + row.pinned);
		Renew();
		Configure("btrfs_metadata_cache_space_usage_limit", row.limit);
		volume.storage.caches[volume.kPath].size = row.cacheSize;
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(volume.tool.Pinned(), row.pinned);
	}
}

TEST_F(EnablePass, UnpinsFromTheStartUntilWhatIsLeftFits)
{
	const kit::MetadataChunk a = {1024, 8, 512};
	const kit::MetadataChunk b = {2048, 8, 600};
	const kit::MetadataChunk c = {4096, 8, 700};
	volume.SetChunks({a, b, c});
	PinAll();
	const uint64_t most = 25 * kBlock;

	Limit(16);
	Pass();
	EXPECT_EQ(Steps(),
	          (Lines{"check", "drop", "modify [1]", "--unset-bitmap 128 8", "--unpin-range 128 8", "remove [1]",
	                 "ioprio_set 1 0 0x4007", "modify [4194304]", "--unset-bitmap 4096 64", "--unpin-range 4096 64",
	                 "remove [4194304]", Of("{switch}: 1"), "drop", Of("unlink {pid}")}));
	EXPECT_EQ(Mapping(), Config("2", most) + Record(b) + Record(c));
	EXPECT_EQ(volume.tool.Pinned(), "600+8 700+8");

	Configure("btrfs_metadata_cache_space_usage_limit", "0");
	Pass();
	EXPECT_EQ(Mapping(), Config("2", most));
	EXPECT_EQ(volume.tool.Pinned(), "");

	Configure("btrfs_metadata_cache_space_usage_limit", "100");
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+8 600+8 700+8");
	EXPECT_EQ(Mapping(), Config("2", most) + SuperblockRecord() + Record(a) + Record(b) + Record(c));
}

TEST_F(EnablePass, TakesTheLimitOncePerPass)
{
	volume.tool.before = [&](const std::string &) {
		Configure("btrfs_metadata_cache_space_usage_limit", "0");
		return 0;
	};
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	volume.tool.before = nullptr;
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
}

// ---- Progress

TEST_F(EnablePass, ReportsHowFarItIs)
{
	// 32 MiB whose steps are 16 MiB and one read; 2 MiB that do not fit; 1 MiB that is pinned already.
	const kit::MetadataChunk large = {16384, 8192, 1024};
	const kit::MetadataChunk tooLarge = {32768, 256, 20000, 24000};
	const kit::MetadataChunk pinned = {65536, 256, 30000};
	volume.SetChunks({large, tooLarge, pinned});
	volume.btrfs.spaces = {{4, 36 << 20, 0}, {1, 1 << 30, 0}};
	Limit(1 + 8192 + 256);
	WriteMapping(Config("1", 0) + Record(pinned));
	device.clock = 1000000; // within the first four seconds
	Lines seen;
	const auto look = [&] {
		const std::string text =
			std::filesystem::exists(volume.kProgress) ? kit::ReadFile(volume.kProgress) : "none";
		if (seen.empty() || seen.back() != text)
			seen.push_back(text);
	};
	device.answer = [&](size_t size, uint64_t) {
		look();
		return static_cast<ssize_t>(size);
	};
	volume.btrfs.before = [&](unsigned long, void *) {
		*device.clock += 4000000;
		look();
	};
	Pass();
	const auto text = [](uint64_t current) {
		return "pid=\"" + std::to_string(getpid()) + "\"\ntotal=\"" + std::to_string(36 << 20) +
		       "\"\ncurrent=\"" + std::to_string(current) + "\"\n";
	};
	const uint64_t mark = (16 << 20) + 65536;
	EXPECT_EQ(seen, (Lines{"none", text(mark), text(mark + (2 << 20)), text(mark + (3 << 20))}));
	EXPECT_FALSE(std::filesystem::exists(volume.kProgress));
}

TEST_F(EnablePass, ReportsNoMoreThanAllAndNoneOnceComplete)
{
	volume.btrfs.spaces = {{4, 5, 0}};
	WriteMapping(Config("1", 0) + kAllRecords);
	std::string seen;
	volume.btrfs.before = [&](unsigned long, void *) {
		if (std::filesystem::exists(volume.kProgress))
			seen = kit::ReadFile(volume.kProgress);
	};
	Pass();
	EXPECT_TRUE(Contains(seen, "total=\"5\"\ncurrent=\"5\"\n")) << seen;
	seen.clear();
	Pass(); // complete
	EXPECT_EQ(seen, "");
}

TEST_F(EnablePass, FailsWhereProgressCannotBeWritten)
{
	const Lines unwritten = Log({"Failed to set hash to file [{progress}]{code}",
	                             "Failed to BtrfsMetadataCacheProgressWriteFile with UUID[{uuid}]{code}"});
	const struct {
		std::string records;
		uint64_t limit;
		Lines chain;
	} rows[] = {
		// A chunk that is pinned already, and one that does not fit.
		{SuperblockRecord() + Record(kFirst), 1000, {}},
		{SuperblockRecord(), 1,
	         Log({"Failed to PinBtrfsMetadataSectionAdd offset:[4194304] with config:[{mapping}].{code}"})},
	};
	for (const auto &row : rows) {
		Renew();
		Limit(row.limit);
		WriteMapping(Config("1", 0) + row.records);
		Forget();
		const kit::Fault fault("VUNKCFileSetPair");
		ExpectFailure(OfMetadata(Joined(unwritten, row.chain)));
	}
}

// ---- Warnings

TEST_F(EnablePass, WarnsOnceOfTheHighestThresholdThatIsReached)
{
	volume.storage.caches[volume.kPath].size = 100 * kBlock;
	const struct {
		kit::MetadataChunk chunk;
		Lines percent;
	} rows[] = {
		{{1024, 78, 1024}, {}},      // 79, with the superblock
		{{2048, 13, 2048}, {"92"}},  // over 80 and 90
		{{4096, 1, 3000}, {}},       // 93
		{{8192, 2, 4000}, {"95"}},   //
		{{16384, 5, 5000}, {"100"}}, // over 99
		{{32768, 1, 6000}, {}},      // does not fit
	};
	std::vector<kit::MetadataChunk> chunks;
	for (const auto &row : rows) {
		chunks.push_back(row.chunk);
		SCOPED_TRACE(row.chunk.offset);
		volume.SetChunks(chunks);
		Forget();
		Pass();
		Lines expected;
		for (const std::string &percent : row.percent) {
			expected.push_back("ZEVOLogSet1 1 2 0x116000f6 0 " + percent + " 1");
			expected.push_back(
				"ZEVOSysNotifySendNotifiction MetadataCacheSpaceFullWarning %SSD_ID%=1 %USAGE%=" +
				percent + " %USED_SIZE%=0");
		}
		EXPECT_EQ(Warnings(), expected);
	}
}

TEST_F(EnablePass, WarnsBeforeItPins)
{
	volume.storage.caches[volume.kPath].size = kAllBytes;
	Pass();
	const Lines steps = Steps();
	const auto warning = std::find_if(steps.begin(), steps.end(), [](const std::string &step) {
		return step.starts_with("ZEVOSysNotifySendNotifiction");
	});
	ASSERT_NE(warning, steps.end());
	EXPECT_EQ(*(warning - 2), "modify [config]");
	EXPECT_EQ(*(warning - 1), "ZEVOLogSet1 1 2 0x116000f6 0 100 1");
	EXPECT_EQ(*(warning + 1), "--set-bitmap 4800 64");
}

TEST_F(EnablePass, DoesNotWarnAgainUntilTheVolumeIsSwitchedOff)
{
	volume.storage.caches[volume.kPath].size = kAllBytes;
	Pass();
	EXPECT_EQ(Warnings().size(), 2u);
	volume.SetChunks({kFirst});
	Pass();
	volume.SetChunks({kFirst, kSecond});
	Pass(); // as full as before
	EXPECT_EQ(Warnings().size(), 2u);
	EXPECT_TRUE(Contains(Mapping(), "max_used_size=\"" + std::to_string(kAllBytes) + "\""));

	SwitchVolume(false);
	EXPECT_EQ(Set(), 0);
	SwitchVolume(true);
	Pass();
	EXPECT_EQ(Warnings().size(), 4u);
}

TEST_F(EnablePass, PinsAlthoughItCannotWarn)
{
	const Lines told = Log({"Failed to SendMetadataCacheSpaceFullWarningEmail with SSDID[1] Percent[100] "
	                        "Size[135168]{code}",
	                        "Failed to BtrfsMetadataCacheSetMaxUsedSize to [135168] with [{mapping}]{code}"});
	const auto arrange = [&] {
		Renew();
		volume.storage.caches[volume.kPath].size = kAllBytes;
	};
	EXPECT_EQ(OutcomesOf("ZEVOSysNotifySendNotifiction", arrange),
	          (std::set<Outcome>{
			  {0, Joined(Log({"Failed to SEND notification [MetadataCacheSpaceFullWarning] {code}"}),
	                             told)}}));
	EXPECT_EQ(OutcomesOf("ZEVOLogSet1", arrange), (std::set<Outcome>{{0, {}}}));
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
}

// ---- What does not matter

TEST_F(EnablePass, GoesOnWithTheIoPriorityThatItHas)
{
	PinAll();
	const kit::Fault fault("ioprio_set", 1, EPERM);
	EXPECT_EQ(Set(), 0);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(journal.Lines(), Log({"Failed to setting ioprio errno [1]"}));
}

TEST_F(EnablePass, GoesOnWithoutTheMarkerAndDoesNotRemoveWhatItHasNotSet)
{
	const kit::Fault fault("ZEVOSpaceBuildFileSet");
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Log({"Failed to set building file for [cache-1] {code}"}));
	EXPECT_EQ(Count("ZEVOSpaceBuildFileRemove"), 0u);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
}

TEST_F(EnablePass, DoesNotNoticeThatTheMarkerStays)
{
	{
		const kit::Fault fault("ZEVOSpaceBuildFileRemove");
		Pass();
		EXPECT_TRUE(fault.Struck());
	}
	Forget(); // of the marker that was not removed
}

TEST_F(EnablePass, EndsWithSuccessAlthoughProgressStays)
{
	WriteMapping(Config("1", 0) + SuperblockRecord() + Record(kFirst));
	{
		const kit::PathFault fault("unlink", volume.kProgress, EPERM);
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(fault.Calls(), 1);
	}
	EXPECT_EQ(journal.Lines(), Log({"Failed to delete btrfs metadata cache progress file ({progress}) ",
	                                "Failed to BtrfsMetadataCacheProgressEnd with volume [{volume}]{code}"},
	                               "[0x0000 :0]"));
	EXPECT_TRUE(std::filesystem::remove(volume.kProgress));
}

TEST_F(EnablePass, EndsWithSuccessAlthoughThePageCacheStaysInTheEnd)
{
	PinAll();
	const kit::Fault fault("posix_fadvise", 2);
	EXPECT_EQ(Set(), 0);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(journal.Lines(), Log({"Failed to POSIX_FADV_DONTNEED with path [{device}]. errno[5]"}));
}

TEST_F(EnablePass, RunsNoToolOnAModelWithoutPins)
{
	volume.storage.supportsPin = false;
	WriteMapping(Config("1", 0));
	EXPECT_EQ(Set(), 0);
	EXPECT_EQ(journal.Lines(), Lines(4, Log({"Doesn't support pin{code}"}, "[0x0000 :0]")[0]));
	EXPECT_EQ(volume.tool.lines, Lines{});
	EXPECT_EQ(device.Lines("pread").size(), 4u);
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	EXPECT_EQ(Switch(), "1\n");
}

// ---- Failures: what is logged, and what is left

TEST_F(EnablePass, FailsBeforeTheWalks)
{
	const auto arrange = [&] { Renew(); };
	EXPECT_EQ(OutcomesOf("VUNKCSzListAlloc", arrange),
	          (std::set<Outcome>{{-1, OfEnabling(Log({"VUNKCSzListAlloc failed. {code}"}))}}));
	EXPECT_EQ(OutcomesOf("VUNKCFileEnumSection", arrange),
	          (std::set<Outcome>{
			  {-1, OfEnabling(Log({"Failed to enumerate sections with config [{mapping}].{code}"}))}}));
	EXPECT_EQ(OutcomesOf("posix_fadvise",
	                     [&] {
				     Renew();
				     WriteMapping(Config("1", 0));
			     }),
	          (std::set<Outcome>{
			  {-1, OfEnabling(Log({"Failed to POSIX_FADV_DONTNEED with path [{device}]. errno[5]",
	                                       "Failed to BtrfsMetadataCacheClearDevBuffer with [{device}].{code}"},
	                                      "[0x0000 :0]"),
	                                  "[0x0000 :0]")},
			  {0, Log({"Failed to POSIX_FADV_DONTNEED with path [{device}]. errno[5]"})}}));
}

TEST_F(EnablePass, FailsWithoutAMappingFile)
{
	const std::string folder = std::string(volume.kPath) + "/@eaDir";
	const std::string failed = "Failed to get btrfs metadata pin config with [{volume}].{code}";
	const Lines noFolder = {"Failed to create pin btrfs metadata directory [{volume}/@eaDir] {code}", failed};
	const struct {
		std::function<void()> arrange;
		Lines lines;
		std::string code;
	} rows[] = {
		{[&] { kit::WriteFile(folder, ""); }, noFolder, "[0xA000 utils.cpp]"},
		{[&] { std::filesystem::create_directory_symlink("/run", folder); }, noFolder,
	         "[0xA000 btrfs_metadata_cache.cpp]"},
		{[&] { std::filesystem::create_directories(volume.kMapping); },
	         {failed},
	         "[0xC000 btrfs_metadata_cache.cpp]"},
	};
	for (const auto &row : rows) {
		std::filesystem::remove_all(folder);
		row.arrange();
		Forget();
		ExpectFailureOfNoCall(OfEnabling(Log(row.lines, row.code), row.code, 0));
		// The page cache is dropped all the same; the marker has nothing to do with it.
		EXPECT_EQ(Steps(), (Lines{"check", "drop", Of("unlink {pid}")}));
		std::filesystem::remove_all(folder);
	}
}

TEST_F(EnablePass, FailsWhereTheMappingFileCannotBeMade)
{
	std::filesystem::create_directories(std::filesystem::path(volume.kMapping).parent_path());
	const kit::PathFault fault("open", volume.kMapping, EROFS);
	ExpectFailure(OfEnabling(Log({"Failed to create [{mapping}]\n",
	                              "Failed to get btrfs metadata pin config with [{volume}].{code}"},
	                             "[0x0C00 btrfs_metadata_cache.cpp]"),
	                         "[0x0C00 btrfs_metadata_cache.cpp]", EROFS));
}

TEST_F(EnablePass, FailsWithAMappingFileThatIsNone)
{
	const std::string code = Of("[0x1500 {mapping}:1]");
	WriteMapping("not a section\n");
	ExpectFailureOfNoCall(OfEnabling(Log({"Failed to get section [config] in [{mapping}]{code}",
	                                      "Failed to check & initial metadata cache config [{mapping}].{code}"},
	                                     code),
	                                 code, 0));
	EXPECT_EQ(Steps(), (Lines{"check", "drop", Of("unlink {pid}")}));
	EXPECT_EQ(Mapping(), "not a section\n");
}

TEST_F(EnablePass, FailsWithARecordThatCannotBeOne)
{
	const std::string size = "size=\"4096\"\n";
	const std::string count = "stripe_count=\"1\"\n";
	const std::string offset = "stripe_offset_0=\"0\"\n";
	const struct {
		std::string name;
		std::string pairs;
		std::string missing;
	} rows[] = {
		{"x", size + count + offset, "section"},
		{"-1", size + count + offset, "section"},
		{"0123", size + count + offset, "section"},
		{"18446744073709551616", size + count + offset, "section"},
		{"123", count + offset, "size with section"},
		{"123", "size=\"4k\"\n" + count + offset, "size with section"},
		{"123", size + offset, "stripe count with section"},
		{"123", size + "stripe_count=\"3\"\n" + offset + "stripe_offset_1=\"0\"\nstripe_offset_2=\"0\"\n",
	         "stripe count with section"},
		{"123", size + count, "stripe offset with section"},
		{"123", size + "stripe_count=\"2\"\n" + offset, "stripe offset with section"},
	};
	const std::string code = Of("[0x1500 {mapping}:0]");
	for (const auto &row : rows) {
		const std::string text = Config("1", 0) + "[" + row.name + "]\n" + row.pairs;
		SCOPED_TRACE(text);
		WriteMapping(text);
		Forget();
		ExpectFailureOfNoCall(OfEnabling(
			Log({"Failed to get " + row.missing + " [" + row.name + "] in [{mapping}]{code}"}, code), code,
			0));
		// The marker was set by then.
		EXPECT_EQ(Steps(), (Lines{"check", "ZEVOSpaceBuildFileSet self 8 31 14 cache-1", "drop",
		                          "ZEVOSpaceBuildFileRemove self 8 31 14 cache-1", Of("unlink {pid}")}));
		EXPECT_EQ(Mapping(), text);
	}
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToConfigure)
{
	const auto arrange = [&] {
		Renew();
		volume.SetChunks({});
		volume.btrfs.deviceSize = 0;
	};
	const Lines checked = Log({"Failed to check & initial metadata cache config [{mapping}].{code}"});
	const Lines loaded = Log({"Failed to load metadata cache config [{mapping}].{code}"});
	const Lines ended = Log({"Failed to BtrfsMetadataCacheSetStatus with [{mapping}]{code}"});
	const std::string noHash = "Failed to VUNKCSzHashAlloc().{code}";
	const std::string unread = "Failed to get section [config] in [{mapping}]{code}";
	const std::string unwritten = "Failed to set section [config] in [{mapping}]{code}";
	EXPECT_EQ(
		OutcomesOf("VUNKCSzHashAlloc", arrange),
		(std::set<Outcome>{
			{-1, OfEngine(Log({noHash, "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"}))},
			{-1, OfEnabling(Joined(Log({noHash}), checked))},
			{-1, OfEnabling(Joined(Log({noHash}), loaded))},
			{-1, OfEnabling(Joined(Log({noHash}), ended))},
		}));
	EXPECT_EQ(OutcomesOf("VUNKCFileGetSection", arrange), (std::set<Outcome>{
								      {-1, OfEnabling(Joined(Log({unread}), checked))},
								      {-1, OfEnabling(Joined(Log({unread}), loaded))},
								      {-1, OfEnabling(Joined(Log({unread}), ended))},
							      }));
	EXPECT_EQ(OutcomesOf("VUNKCSzHashSetValue", arrange),
	          (std::set<Outcome>{
			  {-1, OfEnabling(Joined(Log({"Failed to set hash key [status] value [1]{code}"}), checked))},
			  {-1, OfEnabling(Joined(Log({"Failed to set hash key [max_used_size] value [0]{code}"}),
	                                         checked))},
			  {-1, OfEnabling(Joined(Log({"Failed to set hash key [status] value [2]{code}"}), ended))},
		  }));
	EXPECT_EQ(OutcomesOf("VUNKCFileAddSection", arrange),
	          (std::set<Outcome>{{-1, OfEnabling(Joined(Log({unwritten}), checked))}}));
	EXPECT_EQ(OutcomesOf("VUNKCIFileModifySection", arrange),
	          (std::set<Outcome>{{-1, OfEnabling(Joined(Log({unwritten}), ended))}}));
	EXPECT_EQ(OutcomesOf("VUNKCIFileModifySection",
	                     [&] {
				     arrange();
				     WriteMapping(Config("3", 5));
			     }),
	          (std::set<Outcome>{{-1, OfEnabling(Joined(Log({unwritten}), checked))},
	                             {-1, OfEnabling(Joined(Log({unwritten}), ended))}}));
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToAddAChunk)
{
	// The superblock is a chunk as well; its failures differ in the walk that they end.
	const auto superblock = [&] {
		Renew();
		volume.SetChunks({});
	};
	const auto chunk = [&] {
		Renew();
		volume.SetChunks({kFirst});
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord());
	};
	const Lines added =
		Log({"Failed to PinBtrfsMetadataSectionAdd offset:[4194304] with config:[{mapping}].{code}"});
	const Lines marked = Joined(Log({"Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[4194304] in "
	                                 "[{mapping}]{code}",
	                                 "Failed to PinBtrfsMetadataPreload with chunk[4194304]{code}"}),
	                            added);
	const std::string pinned = "Failed to flash cache pin range start:[2097152] size:[65536] with [{volume}]{code}";
	const std::string read = "Failed to read pin range start:[2097152] size:[65536] with [{device}]{code}";
	const auto expect = [&](const char *function, const std::set<Lines> &chains) {
		std::set<Outcome> expected;
		for (const Lines &chain : chains)
			expected.insert({-1, OfMetadata(chain)});
		const std::set<Outcome> outcomes = OutcomesOf(function, chunk);
		for (const Outcome &outcome : expected)
			EXPECT_TRUE(outcomes.contains(outcome)) << function << testing::PrintToString(outcome)
								<< " is not of" << testing::PrintToString(outcomes);
	};
	expect("VUNKCSzHashAlloc", {Joined(Log({"Failed to alloc hash{code}"}), added),
	                            Joined(Log({"Failed to VUNKCSzHashAlloc().{code}"}), marked),
	                            Log({"Failed to VUNKCSzHashAlloc().{code}",
	                                 "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"})});
	expect("VUNKCSzHashSetValue",
	       {Joined(Log({"Failed to set hash key status value 0{code}"}), added),
	        Joined(Log({"Failed to set hash key size value 65536{code}"}), added),
	        Joined(Log({"Failed to set hash key stripe_count value 1{code}"}), added),
	        Joined(Log({"Failed to set hash key stripe_offset_0 value 2097152{code}"}), added),
	        Joined(Log({"Failed to set hash key status value 1{code}"}), marked)});
	expect("VUNKCFileAddSection", {Joined(Log({"Failed to set section [4194304] in [{mapping}]{code}"}), added)});
	expect("VUNKCFileGetSection", {Joined(Log({"Failed to get section [4194304] in [{mapping}]{code}"}), marked)});
	expect("VUNKCIFileModifySection",
	       {Joined(Log({"Failed to set section [4194304] in [{mapping}]{code}"}), marked)});
	const Lines preloaded = Joined(Log({"Failed to PinBtrfsMetadataPreload with chunk[4194304]{code}"}), added);
	expect("VUNKCExecl",
	       {Joined(Log({"Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool --set-bitmap --mount-path {volume} "
	                    "--start-sector 4096 --num-sectors 128 ret = -1)",
	                    pinned}),
	               preloaded)});
	expect("ZEVOVolumeConfGet", {Log({"Failed to ZEVOVolumeConfGet with [{volume}].{code}",
	                                  "Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}",
	                                  "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"})});
	expect("ZEVOSpaceInfoEnum", {Log({"Failed to enumerate volumes{code}",
	                                  "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}"})});

	EXPECT_EQ(OutcomesOf("VUNKCFileAddSection", superblock)
	                  .count({-1, OfSuperblocks(Log({"Failed to set section [1] in [{mapping}]{code}",
	                                                 "Failed to PinBtrfsMetadataSectionAdd offset:[1] with "
	                                                 "config:[{mapping}].{code}"}))}),
	          1u);
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToRead)
{
	const std::string none = "[0x0000 :0]";
	const auto arrange = [&] {
		Renew();
		volume.SetChunks({kSecond});
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord());
	};
	const auto chain = [&](const Lines &inner, const std::string &start, const std::string &code) {
		return OfMetadata(Joined(inner, Log({"Failed to read pin range start:[" + start +
		                                             "] size:[32768] with [{device}]{code}",
		                                     "Failed to PinBtrfsMetadataPreload with chunk[8388608]{code}",
		                                     "Failed to PinBtrfsMetadataSectionAdd offset:[8388608] with "
		                                     "config:[{mapping}].{code}"},
		                                    code)),
		                  code);
	};
	// The first and the second stripe.
	const auto read = [&](const std::string &start) {
		return chain(Log({"Failed to read start:" + start + ", count:32768 with device [{device}]. errno[5]"}),
		             start, none);
	};
	EXPECT_EQ(OutcomesOf("pread", arrange), (std::set<Outcome>{{-1, read("2457600")}, {-1, read("2867200")}}));
	const std::string noMemory = "[0x0200 btrfs_metadata_cache.cpp]";
	const auto alloc = [&](const std::string &start) {
		return chain(Log({"Failed to alloc read buffer\n"}), start, noMemory);
	};
	EXPECT_EQ(OutcomesOf("aligned_alloc", arrange),
	          (std::set<Outcome>{{-1, alloc("2457600")}, {-1, alloc("2867200")}}));
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToPreloadWhatIsRecorded)
{
	const Lines preloaded = Log({"Failed to PinBtrfsMetadataPreload with chunk[4194304]{code}"});
	const auto chunk = [&] {
		Renew();
		volume.SetChunks({kFirst});
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord() + Record(kFirst, 0));
	};
	EXPECT_EQ(
		OutcomesOf("VUNKCExecl", chunk),
		(std::set<Outcome>{
			{-1, OfMetadata(Joined(Log({"Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool --set-bitmap "
	                                            "--mount-path {volume} --start-sector 4096 --num-sectors 128 "
	                                            "ret = -1)",
	                                            "Failed to flash cache pin range start:[2097152] size:[65536] with "
	                                            "[{volume}]{code}"}),
	                                       preloaded))}}));
	const auto superblock = [&] {
		Renew();
		volume.SetChunks({});
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord(0));
	};
	EXPECT_EQ(OutcomesOf("VUNKCIFileModifySection", superblock),
	          (std::set<Outcome>{
			  {-1, OfSuperblocks(Log({"Failed to set section [1] in [{mapping}]{code}",
	                                          "Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[1] in "
	                                          "[{mapping}]{code}",
	                                          "Failed to PinBtrfsMetadataPreload with chunk[1]{code}"}))}}));
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToRemoveAChunk)
{
	const auto chunk = [&] {
		Renew();
		volume.SetChunks({});
		WriteMapping(Config("2", kAllBytes) + SuperblockRecord() + Record(kSecond));
	};
	const Lines removed =
		Log({"Failed to PinBtrfsMetadataSectionRemove offset:[8388608] with config:[{mapping}].{code}"});
	std::set<Outcome> unpinned;
	const std::pair<const char *, const char *> stripes[] = {{"2457600", "4800"}, {"2867200", "5600"}};
	for (const auto &[offset, sector] : stripes)
		for (const std::string option : {"--unset-bitmap", "--unpin-range"})
			unpinned.insert(
				{-1, OfMetadata(Joined(Log({"Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool " +
			                                            option + " --mount-path {volume} --start-sector " +
			                                            sector + " --num-sectors 64 ret = -1)",
			                                    std::string("Failed to flash cache unpin range start:[") +
			                                            offset + "] size:[32768] with [{volume}]{code}"}),
			                               removed))});
	EXPECT_EQ(OutcomesOf("VUNKCExecl", chunk), unpinned);
	EXPECT_EQ(OutcomesOf("VUNKCFileRemoveSection", chunk),
	          (std::set<Outcome>{
			  {-1, OfMetadata(Joined(Log({"Failed to remove section [8388608] in [{mapping}]{code}"}),
	                                         removed))}}));
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToFindChunks)
{
	const std::string none = "[0x0000 :0]";
	const std::string next = "Failed to GetNextMapping err[-1] with volume[{volume}] device[{device}]{code}";
	PinAll();
	volume.btrfs.errors = {{BTRFS_IOC_TREE_SEARCH, EPERM}, {BTRFS_IOC_TREE_SEARCH_V2, EPERM}};
	ExpectFailure(OfMetadata(Log({"Failed to find metadata chunk info on [{volume}] errno[1]", next}, none), none,
	                         EPERM));
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);

	Forget();
	volume.btrfs.errors = {{BLKGETSIZE64, EIO}};
	ExpectFailure(OfSuperblocks(Log({"Failed to get device size on [{device}]\n errno[5]", next}, none), none));
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureToStartProgress)
{
	const std::string none = "[0x0000 :0]";
	WriteMapping(Config("1", 0) + SuperblockRecord());
	volume.btrfs.errors = {{BTRFS_IOC_SPACE_INFO, EPERM}};
	ExpectFailure(OfEnabling(Log({"Failed to get space info with [{volume}], errno[1]",
	                              "Failed to ZEVOBtrfsMetadataCacheTotalMetadataSizeGet with [{volume}]{code}",
	                              "Failed to BtrfsMetadataCacheProgressStart with [{volume}]{code}",
	                              "Failed to PinBtrfsMetadataChunk with [{volume}].{code}"},
	                             none),
	                         none, EPERM));
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_EQ(Mapping(), Config("1", 0) + SuperblockRecord());
	// Where no progress is reported, nobody asks.
	WriteMapping(Config("2", 0) + SuperblockRecord());
	Forget();
	Pass();
}

TEST_F(EnablePass, LogsEveryStepUpFromAFailureOfTheKernelsSwitch)
{
	const auto arrange = [&] { Renew(); };
	EXPECT_EQ(
		OutcomesOf("VUNKCWrite", arrange),
		(std::set<Outcome>{{-1, OfEnabling(Joined({"utils.cpp TuneParameterWrite Failed to set parameter [" +
	                                                   volume.kSwitch + " 1], errno:Input/output error" + kFault},
	                                                  Log({"Failed to TuneBtrfsVolumeMetadataCacheEnable true with "
	                                                       "[{volume}]{code}"})))}}));
	const std::string none = "[0x0000 :0]";
	std::filesystem::remove(volume.kSwitch);
	Renew();
	std::filesystem::remove(volume.kSwitch);
	WriteMapping(Config("1", 0));
	Forget();
	ExpectFailure(OfEnabling(
		Joined({"utils.cpp TuneParameterWrite Can't open file " + volume.kSwitch +
	                ", errno:No such file or directory" + none},
	               Log({"Failed to TuneBtrfsVolumeMetadataCacheEnable true with [{volume}]{code}"}, none)),
		none, ENOENT));
	// What is pinned stays, and the next pass goes on with it.
	EXPECT_EQ(Mapping(), Config("1", kAllBytes) + kAllRecords);
	kit::WriteFile(volume.kSwitch, "0\n");
	Forget();
	Pass();
	EXPECT_EQ(volume.tool.lines, Lines{});
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
}

TEST_F(EnablePass, TellsTheErrnoOfTheFailureThatItWasEndedBy)
{
	PinAll();
	const std::string none = "[0x0000 :0]";
	const kit::PathFault fault("open", volume.kDevice, EACCES);
	const std::string open = "Failed to open path [{device}]. errno[13]";
	const Lines lines =
		OfEnabling(Log({open, "Failed to BtrfsMetadataCacheClearDevBuffer with [{device}].{code}", open}, none),
	                   none, EACCES);
	EXPECT_EQ(Set(), -1);
	EXPECT_EQ(journal.Lines(), lines); // the last of the inner ones is the drop at the end
}

TEST_F(EnablePass, LeavesWhatIsDoneToTheNextOne)
{
	volume.tool.before = [](const std::string &line) { return Contains(line, "--start-sector 5600") ? -3 : 0; };
	EXPECT_EQ(Set(), -1);
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+16 600+8");
	EXPECT_EQ(Mapping(), Config("1", kAllBytes) + SuperblockRecord() + Record(kFirst) + Record(kSecond, 0));
	EXPECT_EQ(Switch(), "0\n");
	ExpectNothingLeft();

	volume.tool.before = nullptr;
	Forget();
	Pass();
	EXPECT_EQ(volume.tool.lines.size(), 2u); // both stripes of the last chunk
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
}

} // namespace
