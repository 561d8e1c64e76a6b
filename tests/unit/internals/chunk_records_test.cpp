#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/recorded_chunks.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Pairs = std::map<std::string, std::string>;

const std::string kFault = "[0xFA17 fault:1]";
const std::string kConfig = "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n";
const chunk_info kDup = {1048576, 8388608, 2, {38797312, 1112539136}, 0};
const std::string kDupText = "[1048576]\nstatus=\"0\"\nsize=\"8388608\"\nstripe_count=\"2\"\n"
			     "stripe_offset_0=\"38797312\"\nstripe_offset_1=\"1112539136\"\n";
const std::string kLargest = "18446744073709551615";

std::string Line(const std::string &text)
{
	return "btrfs_metadata_cache.cpp " + text;
}

class ChunkRecord : public kit::LabTest {
protected:
	ChunkRecord()
	{
		VUNKCErrSetEx(0, "", 0);
		kit::WriteFile(path, kConfig);
	}

	std::string Text() const { return kit::ReadFile(path); }
	void Write(const std::string &section, const Pairs &pairs) const
	{
		std::string text = kConfig + "[" + section + "]\n";
		for (const auto &[key, value] : pairs)
			text += key + "=\"" + value + "\"\n";
		kit::WriteFile(path, text);
	}

	bool Add(const chunk_info &added) const { return AddRecord(path.c_str(), added); }
	bool Remove(const char *szSection) const { return RemoveRecord(path.c_str(), szSection); }
	bool Read(const std::string &section) { return ReadRecord(path.c_str(), section.c_str(), chunk); }
	uint64_t Sum() const
	{
		List sections;
		EXPECT_GE(VUNKCFileEnumSection(path.c_str(), sections.out()), 0);
		MetadataCacheContext context = {};
		CountRecordedChunks(context, path.c_str(), NamesOnce(sections));
		return context.totalMetadataCacheSize;
	}

	kit::TempDir dir;
	const std::string path = dir.Path("mapping");
	chunk_info chunk = {7, 7, 7, {7, 7}, 7};
	kit::Journal journal;
};

TEST_F(ChunkRecord, IsNamedByItsOffset)
{
	EXPECT_STREQ(SectionOf(kDup).c_str(), "1048576");
	EXPECT_STREQ(SectionOf({}).c_str(), "0");
	EXPECT_STREQ(SectionOf({UINT64_MAX, 0, 0, {}, 0}).c_str(), kLargest.c_str());
}

TEST_F(ChunkRecord, IsNotTheSectionOfTheWhole)
{
	EXPECT_TRUE(IsConfigSection("config"));
	for (const char *const name : {"", "1", "Config", "config ", "confi", "config2"})
		EXPECT_FALSE(IsConfigSection(name)) << name;
}

TEST_F(ChunkRecord, IsAppendedAsNotRead)
{
	chunk_info done = kDup;
	done.status = 1; // which nobody has read as long as it is not recorded
	EXPECT_TRUE(Add(done));
	EXPECT_EQ(Text(), kConfig + kDupText);
	EXPECT_TRUE(Add({1, 4096, 1, {65536, 0}, 0}));
	const std::string second = "[1]\nstatus=\"0\"\nsize=\"4096\"\nstripe_count=\"1\"\nstripe_offset_0=\"65536\"\n";
	EXPECT_EQ(Text(), kConfig + kDupText + second);
	EXPECT_TRUE(Add({UINT64_MAX, UINT64_MAX, 0, {1, 2}, 0}));
	EXPECT_EQ(Text(), kConfig + kDupText + second + "[" + kLargest + "]\nstatus=\"0\"\nsize=\"" + kLargest +
	                          "\"\nstripe_count=\"0\"\n");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, ReadsAsItWasWritten)
{
	const chunk_info chunks[] = {
		kDup,
		{2, 4096, 1, {67108864, 0}, 0},
		{UINT64_MAX, 4096, 2, {UINT64_MAX - 4096, 0}, 0},
		{0, 0, 0, {}, 0},
	};
	for (const chunk_info &written : chunks) {
		SCOPED_TRACE(written.offset);
		EXPECT_TRUE(Add(written));
		chunk = {7, 7, 7, {7, 7}, 7};
		EXPECT_TRUE(Read(SectionOf(written).c_str()));
		EXPECT_TRUE(ChunkIsEqual(chunk, written));
		EXPECT_EQ(chunk.stripe_offset[0], written.stripe_offset[0]);
		EXPECT_EQ(chunk.stripe_offset[1], written.stripe_offset[1]);
		EXPECT_EQ(chunk.status, 0);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, IsDoneWithoutAStatusOrWithOne)
{
	const Pairs pairs = {{"size", "4096"}, {"stripe_count", "1"}, {"stripe_offset_0", "65536"}};
	const struct {
		const char *status;
		int expected;
	} rows[] = {{nullptr, 1}, {"1", 1}, {"0", 0}, {"2", 0}, {"", 0}, {"x", 0}, {"11", 0}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.status == nullptr ? "none" : row.status);
		Pairs with = pairs;
		if (row.status != nullptr)
			with["status"] = row.status;
		Write("1", with);
		EXPECT_TRUE(Read("1"));
		EXPECT_EQ(chunk.status, row.expected);
		EXPECT_EQ(chunk.offset, 1u);
		EXPECT_EQ(chunk.size, 4096u);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, MayHoldWhatItDoesNotNeed)
{
	Write("1", {{"size", "4096"},
	            {"stripe_count", "1"},
	            {"stripe_offset_0", "65536"},
	            {"stripe_offset_1", "x"},
	            {"other", "x"}});
	EXPECT_TRUE(Read("1"));
	EXPECT_EQ(chunk.stripe_offset[0], 65536u);
	EXPECT_EQ(chunk.stripe_offset[1], 0u);
}

TEST_F(ChunkRecord, IsNotReadWhereAValueIsMissingOrNoNumber)
{
	const Pairs good = {{"status", "1"},
	                    {"size", "4096"},
	                    {"stripe_count", "2"},
	                    {"stripe_offset_0", "65536"},
	                    {"stripe_offset_1", "131072"}};
	const std::pair<const char *, const char *> keys[] = {{"size", "size"},
	                                                      {"stripe_count", "stripe count"},
	                                                      {"stripe_offset_0", "stripe offset"},
	                                                      {"stripe_offset_1", "stripe offset"}};
	const char *const bad[] = {
		nullptr, "", "x", "4096x", "4096 ", "-1", "+1", "0x10", "1.0", "1e3", "18446744073709551616"};
	for (const auto &[key, name] : keys)
		for (const char *const value : bad) {
			SCOPED_TRACE(std::string(key) + " " + (value == nullptr ? "none" : value));
			Pairs pairs = good;
			if (value == nullptr)
				pairs.erase(key);
			else
				pairs[key] = value;
			Write("1048576", pairs);
			journal.Clear();
			VUNKCErrSetEx(0, "", 0);
			EXPECT_FALSE(Read("1048576"));
			EXPECT_EQ(journal.Lines(),
			          Lines{Line("Failed to get " + std::string(name) + " with section [1048576] in [" +
			                     path + "][0x1500 " + path + ":0]")});
			EXPECT_EQ(Sum(), 0u);
			EXPECT_EQ(journal.Lines().size(), 1u);
		}
	Write("1048576", good);
	EXPECT_TRUE(Read("1048576"));
}

TEST_F(ChunkRecord, IsNotReadWithMoreStripesThanAChunkHas)
{
	for (const char *const count : {"3", "4294967298", kLargest.c_str()}) {
		SCOPED_TRACE(count);
		journal.Clear();
		Write("1", {{"size", "1"},
		            {"stripe_count", count},
		            {"stripe_offset_0", "1"},
		            {"stripe_offset_1", "2"},
		            {"stripe_offset_2", "3"}});
		EXPECT_FALSE(Read("1"));
		EXPECT_EQ(journal.Lines(), Lines{Line("Failed to get stripe count with section [1] in [" + path +
		                                      "][0x1500 " + path + ":0]")});
		EXPECT_EQ(Sum(), 0u);
	}
}

TEST_F(ChunkRecord, IsNotReadWhereAStripeEndsBehindTheLargestNumber)
{
	const std::string size = "18446744073709486080"; // and 65536 are too many by one
	for (const char *const badStripe : {"0", "1"}) {
		SCOPED_TRACE(badStripe);
		journal.Clear();
		Write("1", {{"size", size},
		            {"stripe_count", "2"},
		            {"stripe_offset_0", badStripe == std::string("0") ? "65536" : "65535"},
		            {"stripe_offset_1", badStripe == std::string("1") ? "65536" : "65535"}});
		EXPECT_FALSE(Read("1"));
		EXPECT_EQ(journal.Lines(), Lines{Line("Failed to get stripe offset with section [1] in [" + path +
		                                      "][0x1500 " + path + ":0]")});
	}
	Write("1", {{"size", size}, {"stripe_count", "1"}, {"stripe_offset_0", "65535"}});
	EXPECT_TRUE(Read("1"));
}

TEST_F(ChunkRecord, CanBeTakenForUnreadAgain)
{
	EXPECT_TRUE(Add(kDup));
	EXPECT_EQ(PinBtrfsMetadataSectionUpdateChunkDone(path.c_str(), &kDup), 0);
	EXPECT_TRUE(Read("1048576"));
	EXPECT_EQ(chunk.status, 1);
	EXPECT_EQ(PinBtrfsMetadataSectionUpdateChunkUnread(path.c_str(), kDup.offset), 0);
	EXPECT_TRUE(Read("1048576"));
	EXPECT_EQ(chunk.status, 0);
	EXPECT_TRUE(ChunkIsEqual(chunk, kDup));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, HasOneNameWhereItsHeaderStandsTwice)
{
	List sections;
	for (const char *const name : {"7", "config", "7", "1", "config", "8", "1"})
		EXPECT_GE(VUNKCSzListPush(sections.out(), name), 0);
	const std::vector<const char *> names = NamesOnce(sections);
	EXPECT_EQ(std::vector<std::string>(names.begin(), names.end()),
	          (std::vector<std::string>{"7", "config", "1", "8"}));
}

TEST_F(ChunkRecord, IsNotReadWhereItsNameIsNotWhatItsOffsetIsWrittenAs)
{
	for (const char *const name :
	     {"x", "1x", "01", "00", "+1", "-1", "0x10", "1.0", "config", "18446744073709551616", "1 2"}) {
		SCOPED_TRACE(name);
		journal.Clear();
		kit::WriteFile(path, "[" + std::string(name) + "]\nsize=\"1\"\nstripe_count=\"0\"\n");
		EXPECT_FALSE(Read(name));
		EXPECT_EQ(journal.Lines(), Lines{Line("Failed to get section [" + std::string(name) + "] in [" + path +
		                                      "][0x1500 " + path + ":0]")});
		EXPECT_EQ(Sum(), 0u);
	}
}

TEST_F(ChunkRecord, IsNotReadWhereItIsNot)
{
	EXPECT_FALSE(Read("1"));
	fs::remove(path);
	EXPECT_FALSE(Read("1"));
	EXPECT_EQ(journal.Lines(), (Lines{Line("Failed to get section [1] in [" + path + "][0x1600 " + path + ":0]"),
	                                  Line("Failed to get section [1] in [" + path + "][0x0800 " + path + ":0]")}));
}

TEST_F(ChunkRecord, IsNotReadWhereTheCoreLibraryFails)
{
	kit::WriteFile(path, kConfig + kDupText);
	const std::pair<const char *, std::string> rows[] = {
		{"VUNKCSzHashAlloc", "Failed to alloc hash" + kFault},
		{"VUNKCFileGetSection", "Failed to get section [1048576] in [" + path + "]" + kFault},
	};
	for (const auto &[function, line] : rows) {
		journal.Clear();
		const kit::Fault fault(function);
		EXPECT_FALSE(Read("1048576"));
		EXPECT_EQ(journal.Lines(), Lines{Line(line)});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
}

TEST_F(ChunkRecord, IsNotAddedTwice)
{
	EXPECT_TRUE(Add(kDup));
	EXPECT_FALSE(Add({kDup.offset, 4096, 1, {65536, 0}, 0}));
	EXPECT_EQ(Text(), kConfig + kDupText);
	EXPECT_EQ(journal.Lines(), Lines{Line("Failed to set section [1048576] in [" + path + "][0x0000 :0]")});
}

TEST_F(ChunkRecord, IsNotAddedWhereTheCoreLibraryFails)
{
	const auto notSet = [](const std::string &key, const std::string &value) {
		return "Failed to set hash key " + key + " value " + value + kFault;
	};
	const struct {
		const char *function;
		int nth;
		std::string line;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, "Failed to alloc hash" + kFault},
		{"VUNKCSzHashSetValue", 1, notSet("status", "0")},
		{"VUNKCSzHashSetValue", 2, notSet("size", "8388608")},
		{"VUNKCSzHashSetValue", 3, notSet("stripe_count", "2")},
		{"VUNKCSzHashSetValue", 4, notSet("stripe_offset_0", "38797312")},
		{"VUNKCSzHashSetValue", 5, notSet("stripe_offset_1", "1112539136")},
		{"VUNKCFileAddSection", 1, "Failed to set section [1048576] in [" + path + "]" + kFault},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_FALSE(Add(kDup));
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Lines{Line(row.line)});
		EXPECT_EQ(Text(), kConfig);
	}
}

TEST_F(ChunkRecord, IsRemovedAlone)
{
	kit::WriteFile(path, kConfig + "[1]\nsize=\"1\"\n" + kDupText + "[2]\n");
	EXPECT_TRUE(Remove("1048576"));
	EXPECT_EQ(Text(), kConfig + "[1]\nsize=\"1\"\n[2]\n");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, IsNotRemovedWhereItIsNotOrTheCoreLibraryFails)
{
	EXPECT_FALSE(Remove("1"));
	EXPECT_EQ(journal.Lines(), Lines{Line("Failed to remove section [1] in [" + path + "][0x0000 :0]")});
	journal.Clear();
	kit::WriteFile(path, kConfig + kDupText);
	const kit::Fault fault("VUNKCFileRemoveSection");
	EXPECT_FALSE(Remove("1048576"));
	EXPECT_EQ(journal.Lines(), Lines{Line("Failed to remove section [1048576] in [" + path + "]" + kFault)});
	EXPECT_EQ(Text(), kConfig + kDupText);
}

TEST_F(ChunkRecord, CountsInTheSumWithEveryStripe)
{
	EXPECT_EQ(Sum(), 0u);
	EXPECT_TRUE(Add(kDup));
	EXPECT_TRUE(Add({1, 4096, 1, {65536, 0}, 0}));
	EXPECT_TRUE(Add({2, 4096, 0, {}, 0}));
	EXPECT_EQ(Sum(), 2 * 8388608u + 4096u);
	kit::WriteFile(path, Text() + "[x]\nsize=\"1\"\n[3]\n"); // what cannot be read counts for nothing
	EXPECT_EQ(Sum(), 2 * 8388608u + 4096u);
	EXPECT_TRUE(Add({4, UINT64_MAX, 1, {0, 0}, 0}));
	EXPECT_EQ(Sum(), UINT64_MAX);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ChunkRecord, CountsForNothingWhereTheCoreLibraryFails)
{
	kit::WriteFile(path, kDupText + "[1]\nsize=\"4096\"\nstripe_count=\"1\"\nstripe_offset_0=\"65536\"\n");
	const kit::Fault fault("VUNKCFileGetSection");
	EXPECT_EQ(Sum(), 4096u);
	EXPECT_EQ(journal.Lines(), Lines{});
}

} // namespace
