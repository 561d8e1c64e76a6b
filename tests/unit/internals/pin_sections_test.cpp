#include "btrfs_metadata_cache/pin_sections.h"

#include "btrfs_metadata_cache/usage.h"

#include "unit/internals/pin_pass_test.h"

namespace {

constexpr uint64_t kBlock = kit::PinVolume::kBlock;

class PinSections : public PinPassTest {
protected:
	PinSections()
	{
		WriteMapping(Config("1", 0));
		context.ullCacheSize = 1 << 30;
		context.ullMaxUsedSizeLimit = 1 << 30;
		snprintf(context.szSsdId, sizeof(context.szSsdId), "1");
		snprintf(context.szUuid, sizeof(context.szUuid), "%s", volume.kUuid);
		Forget();
	}

	int Add()
	{
		return PinBtrfsMetadataSectionAdd(context, volume.kPath, volume.kDevice, volume.kMapping.c_str(),
		                                  &chunk);
	}
	int Remove() { return PinBtrfsMetadataSectionRemove(context, volume.kPath, volume.kMapping.c_str(), &chunk); }

	void ExpectFailure(int result, const Lines &lines) const
	{
		EXPECT_EQ(result, -1);
		EXPECT_EQ(journal.Lines(), lines);
	}

	MetadataCacheContext context = {};
	chunk_info chunk = {2048 * kBlock, 8 * kBlock, 2, {600 * kBlock, 700 * kBlock}, 0};
};

TEST_F(PinSections, AreRecordedBeforeTheyArePinned)
{
	Lines seen;
	volume.tool.before = [&](const std::string &) {
		seen.push_back(Mapping());
		return 0;
	};
	EXPECT_EQ(Add(), 0);
	const std::string recorded = Config("1", 16 * kBlock) + Record(kSecond, 0);
	EXPECT_EQ(seen, (Lines{recorded, recorded}));
	EXPECT_EQ(Mapping(), Config("1", 16 * kBlock) + Record(kSecond, 1));
	EXPECT_EQ(context.totalMetadataCacheSize, 16 * kBlock);
	EXPECT_EQ(context.ullMaxUsedSize, 16 * kBlock);
	EXPECT_EQ(volume.tool.Pinned(), "600+8 700+8");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinSections, ChangeTheMostThatWasPinnedOnlyWhenItIsMore)
{
	context.ullMaxUsedSize = 16 * kBlock;
	EXPECT_EQ(Add(), 0);
	EXPECT_EQ(Mapping(), Config("1", 0) + Record(kSecond));
	EXPECT_EQ(Steps(),
	          (Lines{"add [8388608]", "--set-bitmap 4800 64", "pread /run/volume1-device 2457600+32768",
	                 "--set-bitmap 5600 64", "pread /run/volume1-device 2867200+32768", "modify [8388608]"}));
}

TEST_F(PinSections, OnlyCountForProgressWhenTheyDoNotFit)
{
	context.ullMaxUsedSizeLimit = 16 * kBlock - 1;
	context.fProgress = 1;
	context.ullProgressTotal = 1 << 30;
	EXPECT_EQ(Add(), 0);
	EXPECT_EQ(context.ullProgressCurrent, 16 * kBlock);
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(Mapping(), Config("1", 0));
	EXPECT_EQ(Steps(), Lines{});
	std::filesystem::remove(volume.kProgress);

	const kit::Fault fault("VUNKCFileSetPair");
	context.tsLastProgressWrite = {};
	ExpectFailure(Add(), Log({"Failed to set hash to file [{progress}]{code}",
	                          "Failed to BtrfsMetadataCacheProgressWriteFile with UUID[{uuid}]{code}"}));
	std::filesystem::remove(volume.kProgress);
}

TEST_F(PinSections, DoNotCountForProgressWhenTheyAreSmall)
{
	context.fProgress = 1;
	context.ullProgressTotal = 1 << 30;
	EXPECT_EQ(Add(), 0);
	EXPECT_EQ(context.ullProgressCurrent, 0u); // the bytes behind the last mark
	EXPECT_FALSE(std::filesystem::exists(volume.kProgress));
}

TEST_F(PinSections, WithoutStripesAreOnlyRecorded)
{
	chunk.stripe_count = 0;
	EXPECT_EQ(Add(), 0);
	EXPECT_EQ(Mapping(), Config("1", 0) + Record(chunk.offset, 1, 8, {}));
	EXPECT_EQ(Remove(), 0);
	EXPECT_EQ(Mapping(), Config("1", 0));
	EXPECT_EQ(volume.tool.lines, Lines{});
}

TEST_F(PinSections, AreNotAddedWhereTheyCannotBeRecorded)
{
	const struct {
		const char *function;
		int nth;
		std::string line;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, "Failed to alloc hash{code}"},
		{"VUNKCSzHashSetValue", 1, "Failed to set hash key status value 0{code}"},
		{"VUNKCSzHashSetValue", 2, "Failed to set hash key size value 32768{code}"},
		{"VUNKCSzHashSetValue", 3, "Failed to set hash key stripe_count value 2{code}"},
		{"VUNKCSzHashSetValue", 4, "Failed to set hash key stripe_offset_0 value 2457600{code}"},
		{"VUNKCSzHashSetValue", 5, "Failed to set hash key stripe_offset_1 value 2867200{code}"},
		{"VUNKCFileAddSection", 1, "Failed to set section [8388608] in [{mapping}]{code}"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		ExpectFailure(Add(), Log({row.line}));
		EXPECT_EQ(Mapping(), Config("1", 0));
		EXPECT_EQ(volume.tool.lines, Lines{});
	}
}

TEST_F(PinSections, AreNotAddedTwice)
{
	WriteMapping(Config("1", 0) + Record(kFirst) + Record(kSecond));
	ExpectFailure(Add(), Log({"Failed to set section [8388608] in [{mapping}]{code}"}, "[0x0000 :0]"));
	EXPECT_EQ(volume.tool.lines, Lines{});
}

TEST_F(PinSections, KeepTheirRecordWhenTheyCannotBePinnedOrRead)
{
	const std::string preload = "Failed to PinBtrfsMetadataPreload with chunk[8388608]{code}";
	const struct {
		const char *function;
		int nth;
		Lines lines;
		std::string pinned;
		std::string code;
	} rows[] = {
		{"VUNKCExecl",
	         1,
	         {"Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool --set-bitmap --mount-path {volume} --start-sector "
	          "4800 "
	          "--num-sectors 64 ret = -1)",
	          "Failed to flash cache pin range start:[2457600] size:[32768] with [{volume}]{code}", preload},
	         "",
	         kFault},
		{"pread",
	         2,
	         {"Failed to read start:2867200, count:32768 with device [{device}]. errno[5]",
	          "Failed to read pin range start:[2867200] size:[32768] with [{device}]{code}", preload},
	         "600+8 700+8",
	         "[0x0000 :0]"},
		{"VUNKCFileGetSection",
	         2,
	         {"Failed to get section [8388608] in [{mapping}]{code}",
	          "Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[8388608] in [{mapping}]{code}", preload},
	         "600+8 700+8",
	         kFault},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		WriteMapping(Config("1", 0));
		context.totalMetadataCacheSize = 0;
		context.ullMaxUsedSize = 0;
		volume.tool.Clear();
		Forget();
		const kit::Fault fault(row.function, row.nth);
		ExpectFailure(Add(), Log(row.lines, row.code));
		EXPECT_EQ(Mapping(), Config("1", 16 * kBlock) + Record(kSecond, 0));
		EXPECT_EQ(volume.tool.Pinned(), row.pinned);
	}
}

TEST_F(PinSections, AreAddedAlthoughTheMostThatWasPinnedCannotBeRecorded)
{
	volume.storage.caches[volume.kPath].size = 1;
	context.ullCacheSize = 16 * kBlock; // there is reason to warn
	const kit::Fault fault("VUNKCFileGetSection");
	EXPECT_EQ(Add(), 0);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to get section [config] in [{mapping}]{code}",
	               "Failed to BtrfsMetadataCacheSetValueByKey with key[max_used_size] value[65536]{code}",
	               "Failed to BtrfsMetadataCacheSetMaxUsedSize to [65536] with [{mapping}]{code}"}));
	EXPECT_EQ(Count("ZEVOSysNotifySendNotifiction"), 0u);
	EXPECT_EQ(Mapping(), Config("1", 0) + Record(kSecond));
}

TEST_F(PinSections, AreUnpinnedBeforeTheirRecordGoes)
{
	ASSERT_EQ(Add(), 0);
	Forget();
	Lines seen;
	volume.tool.before = [&](const std::string &) {
		seen.push_back(Mapping());
		return 0;
	};
	EXPECT_EQ(Remove(), 0);
	EXPECT_EQ(seen, Lines(4, Config("1", 16 * kBlock) + Record(kSecond)));
	EXPECT_EQ(Mapping(), Config("1", 16 * kBlock)); // the most that was pinned stays
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(volume.tool.Pinned(), "");
}

TEST_F(PinSections, AreRemovedAlthoughLessIsCountedThanTheyTake)
{
	ASSERT_EQ(Add(), 0);
	context.totalMetadataCacheSize = 3;
	EXPECT_EQ(Remove(), 0);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to totalMetadataCacheSize underflow [3] < [65536], with chunk [8388608]"}));
	EXPECT_EQ(context.totalMetadataCacheSize, 0u);
	EXPECT_EQ(Mapping(), Config("1", 16 * kBlock));
}

TEST_F(PinSections, KeepTheirRecordWhenTheyCannotBeUnpinned)
{
	const struct {
		int nth;
		const char *option;
		const char *sector;
		const char *offset;
	} rows[] = {{1, "--unset-bitmap", "4800", "2457600"},
	            {2, "--unpin-range", "4800", "2457600"},
	            {3, "--unset-bitmap", "5600", "2867200"},
	            {4, "--unpin-range", "5600", "2867200"}};
	ASSERT_EQ(Add(), 0);
	const std::string before = Mapping();
	for (const auto &row : rows) {
		SCOPED_TRACE(row.nth);
		context.totalMetadataCacheSize = 16 * kBlock;
		Forget();
		const kit::Fault fault("VUNKCExecl", row.nth);
		ExpectFailure(Remove(), Log({std::string("Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool ") +
		                                     row.option + " --mount-path {volume} --start-sector " +
		                                     row.sector + " --num-sectors 64 ret = -1)",
		                             std::string("Failed to flash cache unpin range start:[") + row.offset +
		                                     "] size:[32768] with [{volume}]{code}"}));
		EXPECT_EQ(Mapping(), before);
		EXPECT_EQ(volume.tool.lines.size(), static_cast<size_t>(row.nth - 1)); // the others have not come to it
	}
}

TEST_F(PinSections, FailToBeRemovedWhereTheirRecordStaysOrIsNotThere)
{
	ASSERT_EQ(Add(), 0);
	const std::string line = "Failed to remove section [8388608] in [{mapping}]{code}";
	{
		const kit::Fault fault("VUNKCFileRemoveSection");
		ExpectFailure(Remove(), Log({line}));
	}
	WriteMapping(Config("1", 0));
	context.totalMetadataCacheSize = 16 * kBlock;
	Forget();
	ExpectFailure(Remove(), Log({line}, "[0x0000 :0]"));
}

} // namespace
