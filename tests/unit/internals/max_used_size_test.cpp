#include "btrfs_metadata_cache/max_used_size.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr uint64_t kGiB = 1ULL << 30;
const std::string kFault = "[0xFA17 fault:1]";
const std::string kNone = "[0x0000 :0]";

std::string Line(const std::string &text)
{
	return "btrfs_metadata_cache.cpp " + text;
}

std::string Event(const std::string &percent, const std::string &size)
{
	return "ZEVOLogSet1 1 2 0x116000f6 " + size + " " + percent + " 7";
}

std::string Notification(const std::string &percent, const std::string &size)
{
	return "ZEVOSysNotifySendNotifiction MetadataCacheSpaceFullWarning %SSD_ID%=7 %USAGE%=" + percent +
	       " %USED_SIZE%=" + size;
}

class MaxUsedSize : public kit::LabTest {
protected:
	MaxUsedSize()
	{
		VUNKCErrSetEx(0, "", 0);
		strcpy(context.szSsdId, "7");
		context.ullCacheSize = 100 * kGiB;
		kit::WriteFile(path, "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n[1]\nsize=\"4096\"\n");
	}

	std::string Text(uint64_t size) const
	{
		return "[config]\nstatus=\"1\"\nmax_used_size=\"" + std::to_string(size) + "\"\n[1]\nsize=\"4096\"\n";
	}
	int Grow(uint64_t size)
	{
		context.totalMetadataCacheSize = size;
		return BtrfsMetadataCacheSetMaxUsedSize(context, path.c_str());
	}
	// The calls of the storage library meanwhile.
	Lines CallsOfGrowing(uint64_t size)
	{
		storage.calls.clear();
		EXPECT_EQ(Grow(size), 0);
		return storage.calls;
	}
	std::string NotSent(int percent, uint64_t size, const std::string &code) const
	{
		return Line("Failed to SendMetadataCacheSpaceFullWarningEmail with SSDID[7] Percent[" +
		            std::to_string(percent) + "] Size[" + std::to_string(size) + "]" + code);
	}

	kit::TempDir dir;
	const std::string path = dir.Path("mapping");
	MetadataCacheContext context = {};
	kit::FakeStorage storage;
	kit::Journal journal;
};

TEST_F(MaxUsedSize, IsRecordedAndTheRestOfTheFileStays)
{
	EXPECT_EQ(CallsOfGrowing(79 * kGiB), Lines{});
	EXPECT_EQ(kit::ReadFile(path), Text(79 * kGiB));
	EXPECT_EQ(context.ullMaxUsedSize, 79 * kGiB);
	EXPECT_EQ(context.totalMetadataCacheSize, 79 * kGiB);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MaxUsedSize, WarnsOnceOfEachThreshold)
{
	const struct {
		uint64_t size;
		Lines calls;
	} rows[] = {
		{80 * kGiB - 1, {}},
		{80 * kGiB, {Event("80", "80"), Notification("80", "80")}},
		{81 * kGiB, {}},
		{90 * kGiB, {Event("90", "90"), Notification("90", "90")}},
		{95 * kGiB - 1, {}},
		{95 * kGiB, {Event("95", "95"), Notification("95", "95")}},
		{99 * kGiB + 1, {Event("99", "99"), Notification("99", "99")}},
		{100 * kGiB, {Event("100", "100"), Notification("100", "100")}},
		{101 * kGiB, {}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.size);
		EXPECT_EQ(CallsOfGrowing(row.size), row.calls);
		EXPECT_EQ(kit::ReadFile(path), Text(row.size));
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MaxUsedSize, WarnsOnceWhereSeveralThresholdsAreCrossedAtOnceAndTellsTheWholePercentage)
{
	EXPECT_EQ(CallsOfGrowing(92 * kGiB), (Lines{Event("92", "92"), Notification("92", "92")}));
	EXPECT_EQ(CallsOfGrowing(93 * kGiB), Lines{});
	EXPECT_EQ(CallsOfGrowing(95 * kGiB), (Lines{Event("95", "95"), Notification("95", "95")}));
	EXPECT_EQ(CallsOfGrowing(250 * kGiB), (Lines{Event("250", "250"), Notification("250", "250")}));
}

TEST_F(MaxUsedSize, TellsWholeGiBRoundedDown)
{
	context.ullCacheSize = kGiB;
	EXPECT_EQ(CallsOfGrowing(kGiB - 1), (Lines{Event("99", "0"), Notification("99", "0")}));
	context.ullCacheSize = 2 * kGiB;
	EXPECT_EQ(CallsOfGrowing(2 * kGiB - 1), (Lines{Event("99", "1"), Notification("99", "1")})); // from 49 %
	context.ullCacheSize = UINT64_MAX;
	EXPECT_EQ(CallsOfGrowing(UINT64_MAX), (Lines{Event("100", "17179869183"), Notification("100", "17179869183")}));
}

TEST_F(MaxUsedSize, TakesUpAtWhatTheMappingFileHas)
{
	context.ullMaxUsedSize = 91 * kGiB;
	EXPECT_EQ(CallsOfGrowing(92 * kGiB), Lines{});
	EXPECT_EQ(CallsOfGrowing(96 * kGiB), (Lines{Event("96", "96"), Notification("96", "96")}));
}

TEST_F(MaxUsedSize, WarnsOfNothingInACacheOfNothing)
{
	context.ullCacheSize = 0;
	EXPECT_EQ(CallsOfGrowing(92 * kGiB), Lines{});
	EXPECT_EQ(kit::ReadFile(path), Text(92 * kGiB));
}

TEST_F(MaxUsedSize, WarnsOfNothingWhereItCannotBeRecorded)
{
	kit::WriteFile(path, "[1]\nsize=\"4096\"\n");
	EXPECT_EQ(Grow(92 * kGiB), -1);
	const std::string code = "[0x1600 " + path + ":0]";
	const std::string size = std::to_string(92 * kGiB);
	EXPECT_EQ(journal.Lines(),
	          (Lines{Line("Failed to get section [config] in [" + path + "]" + code),
	                 Line("Failed to BtrfsMetadataCacheSetValueByKey with key[max_used_size] value[" + size + "]" +
	                      code)}));
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(context.ullMaxUsedSize, 0u);

	kit::WriteFile(path, Text(0)); // the warning is made up for when it can
	EXPECT_EQ(CallsOfGrowing(93 * kGiB), (Lines{Event("93", "93"), Notification("93", "93")}));
}

TEST_F(MaxUsedSize, FailsWithALineForEachStepThatFails)
{
	const uint64_t size = 92 * kGiB;
	const std::string notRecorded =
		Line("Failed to BtrfsMetadataCacheSetValueByKey with key[max_used_size] value[" + std::to_string(size) +
	             "]" + kFault);
	const std::string notSent = NotSent(92, size, kFault);
	const auto notSet = [](const std::string &key, const std::string &value) {
		return Line("Failed to set hash key [" + key + "] value [" + value + "]" + kFault);
	};
	const struct {
		const char *function;
		int nth;
		Lines lines;
		bool isRecorded;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, {Line("Failed to VUNKCSzHashAlloc()." + kFault), notRecorded}, false},
		{"VUNKCFileGetSection",
	         1,
	         {Line("Failed to get section [config] in [" + path + "]" + kFault), notRecorded},
	         false},
		{"VUNKCSzHashSetValue", 1, {notSet("max_used_size", std::to_string(size)), notRecorded}, false},
		{"VUNKCIFileModifySection",
	         1,
	         {Line("Failed to set section [config] in [" + path + "]" + kFault), notRecorded},
	         false},
		{"VUNKCSzHashAlloc", 2, {Line("Failed to VUNKCSzHashAlloc()." + kFault), notSent}, true},
		{"VUNKCSzHashSetValue", 2, {notSet("%SSD_ID%", "7"), notSent}, true},
		{"VUNKCSzHashSetValue", 3, {notSet("%USAGE%", "92"), notSent}, true},
		{"VUNKCSzHashSetValue", 4, {notSet("%USED_SIZE%", "92"), notSent}, true},
		{"ZEVOSysNotifySendNotifiction",
	         1,
	         {Line("Failed to SEND notification [MetadataCacheSpaceFullWarning] " + kFault), notSent},
	         true},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.lines.front());
		kit::WriteFile(path, Text(0));
		context.ullMaxUsedSize = 0;
		storage.calls.clear();
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Grow(size), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), row.lines);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(kit::ReadFile(path), Text(row.isRecorded ? size : 0));
		EXPECT_EQ(context.ullMaxUsedSize, row.isRecorded ? size : 0);
		EXPECT_EQ(storage.calls, row.isRecorded ? Lines{Event("92", "92")} : Lines{});
	}
}

TEST_F(MaxUsedSize, NotifiesWhereTheEventCannotBeRecorded)
{
	const kit::Fault fault("ZEVOLogSet1");
	EXPECT_EQ(CallsOfGrowing(92 * kGiB), Lines{Notification("92", "92")});
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MaxUsedSize, IsNotWarnedOfWithoutAllTexts)
{
	EXPECT_EQ(SendMetadataCacheSpaceFullWarningEmail("7", "92", nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(SendMetadataCacheSpaceFullWarningEmail("7", nullptr, "12"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{Line("Invaild Argument (NULL != szSizeGB)=[0]\n"),
	                                  Line("Invaild Argument (__null != szPercent)=[0]\n")}));
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(SendMetadataCacheSpaceFullWarningEmail("7", "92", "12"), 0);
	EXPECT_EQ(storage.calls, (Lines{Event("92", "12"), Notification("92", "12")}));
}

} // namespace
