#include "btrfs_metadata_cache/mapping.h"
#include "btrfs_metadata_cache/chunk_records.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kFault = "[0xFA17 fault:1]";
const std::string kConfig = "[config]\nstatus=\"1\"\nmax_used_size=\"16777216\"\n";
const std::string kFirst = "[1]\nstatus=\"1\"\nsize=\"4096\"\nstripe_count=\"1\"\nstripe_offset_0=\"65536\"\n";
const std::string kChunk = "[1048576]\nstatus=\"0\"\nsize=\"8388608\"\nstripe_count=\"2\"\n"
			   "stripe_offset_0=\"38797312\"\nstripe_offset_1=\"1112539136\"\n";

std::string Replaced(std::string text, const std::string &old, const std::string &with)
{
	return text.replace(text.find(old), old.size(), with);
}

class Mapping : public kit::LabTest {
protected:
	Mapping()
	{
		VUNKCErrSetEx(0, "", 0);
		Write(kConfig + kFirst + kChunk);
	}

	void Write(const std::string &text) const { kit::WriteFile(path, text); }
	std::string Text() const { return kit::ReadFile(path); }
	std::string GetFails(const std::string &section, const std::string &code) const
	{
		return "btrfs_metadata_cache.cpp Failed to get section [" + section + "] in [" + path + "]" + code;
	}
	std::string SetFails(const std::string &section, const std::string &code) const
	{
		return "btrfs_metadata_cache.cpp Failed to set section [" + section + "] in [" + path + "]" + code;
	}

	int SetMaxUsedSize() const
	{
		return BtrfsMetadataCacheSetValueByKey(path.c_str(), "max_used_size", "33554432");
	}
	int Done(unsigned long long offset = 1048576) const
	{
		const chunk_info chunk = {offset, 8388608, 2, {38797312, 1112539136}, 0};
		return PinBtrfsMetadataSectionUpdateChunkDone(path.c_str(), &chunk);
	}
	int Load() { return BtrfsMetadataCacheConfigGet(context, path.c_str()); }

	// Every failure of the two functions that change a section leaves the file as it was.
	template <class Change>
	void ExpectFailures(const std::string &section, const std::string &setKeyLine, Change &&change)
	{
		const struct {
			const char *function;
			std::string line;
		} rows[] = {
			{"VUNKCSzHashAlloc", "btrfs_metadata_cache.cpp Failed to VUNKCSzHashAlloc()." + kFault},
			{"VUNKCFileGetSection", GetFails(section, kFault)},
			{"VUNKCSzHashSetValue", setKeyLine + kFault},
			{"VUNKCIFileModifySection", SetFails(section, kFault)},
		};
		const std::string before = Text();
		for (const auto &row : rows) {
			SCOPED_TRACE(row.function);
			journal.Clear();
			const kit::Fault fault(row.function);
			EXPECT_EQ(change(), -1);
			EXPECT_TRUE(fault.Struck());
			EXPECT_EQ(journal.Lines(), Lines{row.line});
			EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
			EXPECT_EQ(Text(), before);
		}
	}

	kit::TempDir dir;
	const std::string path = dir.Path("zevo_btrfs_metadata_mapping_config");
	MetadataCacheContext context = {};
	kit::Journal journal;
};

using MappingConfig = Mapping;
using MappingChunk = Mapping;

TEST_F(MappingConfig, KeepsWhatIsNotSet)
{
	EXPECT_EQ(SetMaxUsedSize(), 0);
	EXPECT_EQ(Text(), Replaced(kConfig, "16777216", "33554432") + kFirst + kChunk);
	EXPECT_EQ(BtrfsMetadataCacheSetValueByKey(path.c_str(), "other", ""), 0);
	EXPECT_EQ(Text(), Replaced(kConfig, "16777216", "33554432") + "other=\"\"\n" + kFirst + kChunk);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(kit::Names(dir.Path()).size(), 1u);
}

TEST_F(MappingConfig, HasTheStatusInDecimal)
{
	for (const int status : {1, 2, 3, -1}) {
		EXPECT_EQ(BtrfsMetadataCacheSetStatus(path.c_str(), status), 0);
		EXPECT_EQ(Text(), Replaced(kConfig, "status=\"1\"", "status=\"" + std::to_string(status) + "\"") +
		                          kFirst + kChunk);
		EXPECT_EQ(Load(), 0);
		EXPECT_EQ(context.status, status);
	}
}

TEST_F(MappingConfig, RefusesANullValue)
{
	EXPECT_EQ(BtrfsMetadataCacheSetValueByKey(path.c_str(), "status", nullptr), -1);
	EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Invaild Argument (NULL != szValue)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_STREQ(VUNKCErrorGetFile(), "btrfs_metadata_cache.cpp");
	EXPECT_EQ(Text(), kConfig + kFirst + kChunk);
}

TEST_F(MappingConfig, IsNotSetWhereTheCoreLibraryFails)
{
	ExpectFailures("config", "btrfs_metadata_cache.cpp Failed to set hash key [max_used_size] value [33554432]",
	               [&] { return SetMaxUsedSize(); });
	ExpectFailures("config", "btrfs_metadata_cache.cpp Failed to set hash key [status] value [3]",
	               [&] { return BtrfsMetadataCacheSetStatus(path.c_str(), 3); });
}

TEST_F(MappingConfig, IsNeitherSetNorLoadedWithoutTheSectionOrTheFile)
{
	const struct {
		bool exists;
		std::string text;
		std::string code;
	} rows[] = {
		{true, "", "[0x1600 " + path + ":0]"},
		{true, kChunk, "[0x1600 " + path + ":0]"},
		{true, kConfig + "[1048576]\nstatus", "[0x1500 " + path + ":5]"}, // written by something else
		{false, "", "[0x0800 " + path + ":0]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		journal.Clear();
		Write(row.text);
		if (!row.exists)
			fs::remove(path);
		context.status = context.pid = 7;
		context.ullMaxUsedSize = 7;
		EXPECT_EQ(SetMaxUsedSize(), -1);
		EXPECT_EQ(Load(), -1);
		EXPECT_EQ(journal.Lines(), (Lines{GetFails("config", row.code), GetFails("config", row.code)}));
		EXPECT_EQ(context.status, 7);
		EXPECT_EQ(context.pid, 7);
		EXPECT_EQ(context.ullMaxUsedSize, 7u);
		EXPECT_EQ(fs::exists(path), row.exists);
	}
}

TEST_F(MappingConfig, IsNotSetWhereTheFileCannotBeReplaced)
{
	fs::create_directory(dir.Path(".zevo_btrfs_metadata_mapping_config.new"));
	EXPECT_EQ(SetMaxUsedSize(), -1);
	EXPECT_EQ(journal.Lines(), Lines{SetFails("config", "[0x0B00 " + path + ":0]")});
	EXPECT_EQ(VUNKCErrGet(), 0xB00);
	EXPECT_EQ(Text(), kConfig + kFirst + kChunk);
}

TEST_F(MappingConfig, IsLoadedWithTheIdOfTheProcess)
{
	EXPECT_EQ(Load(), 0);
	EXPECT_EQ(context.status, 1);
	EXPECT_EQ(context.ullMaxUsedSize, 16777216u);
	EXPECT_EQ(context.pid, getpid());
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(Text(), kConfig + kFirst + kChunk);
}

TEST_F(MappingConfig, HasUsedNothingWhereItDoesNotSay)
{
	context.ullMaxUsedSize = 7;
	Write("[config]\nstatus=\"2\"\n");
	EXPECT_EQ(Load(), 0);
	EXPECT_EQ(context.ullMaxUsedSize, 0u);
	EXPECT_EQ(context.status, 2);
	Write("[config]\nstatus=\"2\"\nmax_used_size=\"18446744073709551615\"\n");
	EXPECT_EQ(Load(), 0);
	EXPECT_EQ(context.ullMaxUsedSize, UINT64_MAX);
}

TEST_F(MappingConfig, IsNotLoadedWithoutAStatus)
{
	context.ullMaxUsedSize = 7;
	context.status = context.pid = 7;
	Write("[config]\nmax_used_size=\"1\"\n");
	EXPECT_EQ(Load(), -1);
	EXPECT_EQ(VUNKCErrGet(), 0x1500);
	EXPECT_EQ(VUNKCErrorGetFile(), path);
	EXPECT_EQ(context.ullMaxUsedSize, 7u);
	EXPECT_EQ(context.status, 7);
	EXPECT_EQ(context.pid, 7);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MappingConfig, IsNotLoadedWhereTheCoreLibraryFails)
{
	{
		const kit::Fault fault("VUNKCSzHashAlloc");
		EXPECT_EQ(Load(), -1);
	}
	const kit::Fault fault("VUNKCFileGetSection");
	EXPECT_EQ(Load(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to VUNKCSzHashAlloc()." + kFault,
	                                  GetFails("config", kFault)}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(MappingChunk, IsMarkedAsReadAndTheOthersStayAsTheyAre)
{
	EXPECT_EQ(Done(), 0);
	EXPECT_EQ(Text(), kConfig + kFirst + Replaced(kChunk, "status=\"0\"", "status=\"1\""));
	EXPECT_EQ(Done(), 0);
	EXPECT_EQ(Done(1), 0);
	EXPECT_EQ(Text(), kConfig + kFirst + Replaced(kChunk, "status=\"0\"", "status=\"1\""));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MappingChunk, IsNamedByItsOffsetHoweverLarge)
{
	const std::string last = Replaced(kChunk, "1048576", "18446744073709551615");
	Write(kConfig + last);
	EXPECT_EQ(Done(UINT64_MAX), 0);
	EXPECT_EQ(Text(), kConfig + Replaced(last, "status=\"0\"", "status=\"1\""));
}

TEST_F(MappingChunk, GetsAStatusWhereItHasNone)
{
	Write(kConfig + "[1048576]\nsize=\"8388608\"\n");
	EXPECT_EQ(Done(), 0);
	EXPECT_EQ(Text(), kConfig + "[1048576]\nsize=\"8388608\"\nstatus=\"1\"\n");
}

TEST_F(MappingChunk, IsNotMarkedWhereItIsNotRecorded)
{
	EXPECT_EQ(Done(2097152), -1);
	EXPECT_EQ(journal.Lines(), Lines{GetFails("2097152", "[0x1600 " + path + ":0]")});
	EXPECT_EQ(Text(), kConfig + kFirst + kChunk);
}

TEST_F(MappingChunk, IsNotMarkedWhereTheCoreLibraryFails)
{
	ExpectFailures("1048576", "btrfs_metadata_cache.cpp Failed to set hash key status value 1",
	               [&] { return Done(); });
}

class MappingInit : public Mapping {
protected:
	int Init() const { return BtrfsMetadataCacheConfigInit(path.c_str()); }
	int Has() const { return BtrfsMetadataCacheHasConfig(path.c_str()); }

	const std::string fresh = "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n";
};

TEST_F(MappingInit, GivesANewFileItsConfig)
{
	Write("");
	EXPECT_EQ(Has(), 0);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), fresh);
	EXPECT_EQ(Has(), 1);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MappingInit, AddsTheConfigBehindChunksThatAreRecorded)
{
	Write(kFirst);
	EXPECT_EQ(Has(), 0);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), kFirst + fresh);
	EXPECT_EQ(Has(), 1);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MappingInit, LeavesAConfigInUseAlone)
{
	for (const char *const status : {"1", "2", "0", "4", "x", ""}) {
		SCOPED_TRACE(status);
		const std::string text =
			Replaced(kConfig, "status=\"1\"", "status=\"" + std::string(status) + "\"") + kChunk;
		Write(text);
		EXPECT_EQ(Init(), 0);
		EXPECT_EQ(Text(), text);
		EXPECT_EQ(Has(), 1);
	}
	const std::string text = "[config]\nstatus=\"2\"\n"; // without the most that was used
	Write(text);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), text);
}

TEST_F(MappingInit, StartsAgainAfterSwitchingOffAndKeepsWhatIsStillPinned)
{
	Write(Replaced(kConfig, "status=\"1\"", "status=\"3\"") + "other=\"x\"\n" + kChunk);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), fresh + "other=\"x\"\n" + kChunk);
}

TEST_F(MappingInit, StartsWhereThereIsNoStatus)
{
	Write("[config]\nmax_used_size=\"16777216\"\n" + kChunk);
	EXPECT_EQ(Has(), 1);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), "[config]\nmax_used_size=\"0\"\nstatus=\"1\"\n" + kChunk);
	Write("[config]\n" + kChunk);
	EXPECT_EQ(Has(), 1);
	EXPECT_EQ(Init(), 0);
	EXPECT_EQ(Text(), fresh + kChunk);
}

TEST_F(MappingInit, FailsWhereTheFileCannotBeRead)
{
	Write(kConfig + "[1048576]\nstatus");
	EXPECT_EQ(Init(), -1);
	EXPECT_EQ(Has(), -1);
	fs::remove(path);
	EXPECT_EQ(Init(), -1);
	EXPECT_EQ(Has(), -1);
	const std::string broken = GetFails("config", "[0x1500 " + path + ":5]");
	const std::string missing = GetFails("config", "[0x0800 " + path + ":0]");
	EXPECT_EQ(journal.Lines(), (Lines{broken, broken, missing, missing}));
	EXPECT_FALSE(fs::exists(path)); // making it is not for them
}

TEST_F(MappingInit, FailsWhereTheCoreLibraryFails)
{
	const auto notSet = [](const std::string &key, const std::string &value) {
		return "btrfs_metadata_cache.cpp Failed to set hash key [" + key + "] value [" + value + "]" + kFault;
	};
	const struct {
		const char *function;
		int nth;
		std::string line;
		std::string text;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, "btrfs_metadata_cache.cpp Failed to VUNKCSzHashAlloc()." + kFault, kFirst},
		{"VUNKCFileGetSection", 1, GetFails("config", kFault), kFirst},
		{"VUNKCSzHashSetValue", 1, notSet("status", "1"), kFirst},
		{"VUNKCSzHashSetValue", 2, notSet("max_used_size", "0"), kFirst},
		{"VUNKCFileAddSection", 1, SetFails("config", kFault), kFirst},
		{"VUNKCIFileModifySection", 1, SetFails("config", kFault), "[config]\nstatus=\"3\"\n" + kFirst},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		Write(row.text);
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Init(), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Lines{row.line});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(Text(), row.text);
	}
}

TEST_F(MappingInit, CannotTellWhetherThereIsAConfigWhereTheCoreLibraryFails)
{
	{
		const kit::Fault fault("VUNKCSzHashAlloc");
		EXPECT_EQ(Has(), -1);
	}
	const kit::Fault fault("VUNKCFileGetSection");
	EXPECT_EQ(Has(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to VUNKCSzHashAlloc()." + kFault,
	                                  GetFails("config", kFault)}));
}

} // namespace
