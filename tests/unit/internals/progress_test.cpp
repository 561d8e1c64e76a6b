#include "btrfs_metadata_cache/progress.h"

#include "kit/device_reads.h"
#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/machine.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/mount.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kUuid = "11111111-2222-4333-8444-555555555555";
const std::string kFolder = "/run/zevotuned/metadata_cache";
const std::string kFile = kFolder + "/" + kUuid + ".progress";
const std::string kFault = "[0xFA17 fault:1]";

std::string NoPath(const std::string &uuid, const std::string &code)
{
	return "btrfs_metadata_cache.cpp Failed to get Btrfs Metadata Cache Progress file path with UUID[" + uuid +
	       "]." + code;
}

class ProgressFile : public kit::LabTest {
protected:
	ProgressFile()
	{
		VUNKCErrSetEx(0, "", 0);
		strcpy(context.szUuid, kUuid.c_str());
		context.pid = 4711;
		context.ullProgressTotal = UINT64_MAX;
		context.ullProgressCurrent = 1048576;
	}

	int Write() const { return BtrfsMetadataCacheProgressWriteFile(context); }
	int End() const { return BtrfsMetadataCacheProgressEnd(kUuid.c_str()); }

	MetadataCacheContext context = {};
	kit::Journal journal;
};

TEST_F(ProgressFile, SaysWhoHasDoneHowMuch)
{
	EXPECT_EQ(Write(), 0);
	EXPECT_EQ(kit::ReadFile(kFile), "pid=\"4711\"\ntotal=\"18446744073709551615\"\ncurrent=\"1048576\"\n");
	EXPECT_EQ(Lines(), journal.Lines());
}

TEST_F(ProgressFile, IsWrittenAsAWhole)
{
	kit::WriteFile(kFile, "pid=\"1\"\nother=\"2\"\nnot a pair\n");
	EXPECT_EQ(Write(), 0);
	context.ullProgressCurrent = 2097152;
	EXPECT_EQ(Write(), 0);
	EXPECT_EQ(kit::ReadFile(kFile), "pid=\"4711\"\ntotal=\"18446744073709551615\"\ncurrent=\"2097152\"\n");
	EXPECT_EQ(kit::Names(kFolder), std::set<std::string>{kUuid + ".progress"});
}

TEST_F(ProgressFile, IsNotWrittenWithoutAUuid)
{
	context.szUuid[0] = '\0';
	EXPECT_EQ(Write(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to get or create progress file with "
	                                  "un-initialized uuid.[0x0000 :0]",
	                                  NoPath("", "[0x0000 :0]")}));
}

TEST_F(ProgressFile, FailsWhereItCannotBeMade)
{
	const kit::PathFault fault("open", kFile, ENOSPC);
	EXPECT_EQ(Write(), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to create [" + kFile + "]\n",
	                                  NoPath(kUuid, "[0x0C00 btrfs_metadata_cache.cpp]")}));
	EXPECT_EQ(VUNKCErrGet(), 0xC00);
}

TEST_F(ProgressFile, FailsWhereTheCoreLibraryFails)
{
	const auto notSet = [](const std::string &key, const std::string &value) {
		return "btrfs_metadata_cache.cpp Failed to set hash key [" + key + "] value [" + value + "]" + kFault;
	};
	const struct {
		const char *function;
		int nth;
		std::string line;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, "btrfs_metadata_cache.cpp Failed to VUNKCSzHashAlloc()." + kFault},
		{"VUNKCSzHashSetValue", 1, notSet("pid", "4711")},
		{"VUNKCSzHashSetValue", 2, notSet("total", "18446744073709551615")},
		{"VUNKCSzHashSetValue", 3, notSet("current", "1048576")},
		{"VUNKCFileSetPair", 1, "btrfs_metadata_cache.cpp Failed to set hash to file [" + kFile + "]" + kFault},
	};
	kit::WriteFile(kFile, "pid=\"1\"\n");
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Write(), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Lines{row.line});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(kit::ReadFile(kFile), "pid=\"1\"\n");
	}
}

TEST_F(ProgressFile, EndsWithItsRemoval)
{
	EXPECT_EQ(Write(), 0);
	EXPECT_EQ(End(), 0);
	EXPECT_EQ(kit::Names(kFolder), std::set<std::string>{});
	EXPECT_EQ(End(), 0); // there is none now
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(ProgressFile, CannotEndWhereItsPathIsSomethingElse)
{
	fs::create_directories(kFile);
	EXPECT_EQ(End(), -1);
	EXPECT_EQ(journal.Lines(), Lines{NoPath(kUuid, "[0xC000 btrfs_metadata_cache.cpp]")});
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
}

TEST_F(ProgressFile, CannotEndWithoutAUuid)
{
	EXPECT_EQ(BtrfsMetadataCacheProgressEnd(""), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Failed to get or create progress file with "
	                                  "un-initialized uuid.[0x0000 :0]",
	                                  NoPath("", "[0x0000 :0]")}));
}

TEST_F(ProgressFile, CannotEndWhereItCannotBeRemoved)
{
	EXPECT_EQ(Write(), 0);
	const kit::MountPoint busy(kFile, kFile, nullptr, MS_BIND); // a mount point stays
	EXPECT_EQ(End(), -1);
	EXPECT_EQ(
		journal.Lines(),
		Lines{"btrfs_metadata_cache.cpp Failed to delete btrfs metadata cache progress file (" + kFile + ") "});
	EXPECT_TRUE(fs::exists(kFile));
}

// The clock stands a second after the machine's start.
class ProgressUpdate : public ProgressFile {
protected:
	ProgressUpdate()
	{
		context.fProgress = 1;
		context.ullProgressTotal = 1000;
		context.ullProgressCurrent = 0;
		reads.clock = 1000000;
	}

	int Update(uint64_t bytes) { return BtrfsMetadataCacheProgressUpdate(context, bytes); }
	static std::string Text(const std::string &current)
	{
		return "pid=\"4711\"\ntotal=\"1000\"\ncurrent=\"" + current + "\"\n";
	}

	kit::DeviceReads reads;
};

TEST_F(ProgressUpdate, DoesNothingWhereNoProgressIsReported)
{
	context.fProgress = 0;
	EXPECT_EQ(Update(100), 0);
	EXPECT_EQ(context.ullProgressCurrent, 0u);
	EXPECT_EQ(context.tsLastProgressWrite.tv_sec, 0);
	EXPECT_FALSE(fs::exists(kFolder));
}

TEST_F(ProgressUpdate, WritesTheFirstTimeAlsoRightAfterTheMachinesStart)
{
	for (const uint64_t start : {1, 1000000, 3999999, 4000000}) {
		SCOPED_TRACE(start);
		reads.clock = start;
		context.tsLastProgressWrite = {};
		context.ullProgressCurrent = 0;
		fs::remove(kFile);
		EXPECT_EQ(Update(100), 0);
		EXPECT_EQ(kit::ReadFile(kFile), Text("100"));
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressUpdate, WritesAfterFourWholeSecondsAndCountsMeanwhile)
{
	reads.clock = 1500000;
	EXPECT_EQ(Update(100), 0);
	EXPECT_EQ(context.tsLastProgressWrite.tv_sec, 1);
	EXPECT_EQ(context.tsLastProgressWrite.tv_nsec, 500000000);
	for (const uint64_t now :
	     {1500000, 2000000, 5000000, 5499999}) { // the seconds differ by 4 before 4 have passed
		reads.clock = now;
		EXPECT_EQ(Update(100), 0);
		EXPECT_EQ(kit::ReadFile(kFile), Text("100"));
	}
	EXPECT_EQ(context.ullProgressCurrent, 500u);
	reads.clock = 5500000;
	EXPECT_EQ(Update(1), 0);
	EXPECT_EQ(kit::ReadFile(kFile), Text("501"));
	reads.clock = 9400000;
	EXPECT_EQ(Update(1), 0);
	EXPECT_EQ(kit::ReadFile(kFile), Text("501"));
	reads.clock = 100000000;
	EXPECT_EQ(Update(0), 0);
	EXPECT_EQ(kit::ReadFile(kFile), Text("502"));
}

TEST_F(ProgressUpdate, NeverExceedsTheTotal)
{
	EXPECT_EQ(Update(1000), 0);
	EXPECT_EQ(context.ullProgressCurrent, 1000u);
	EXPECT_EQ(Update(1), 0);
	EXPECT_EQ(Update(UINT64_MAX), 0); // nor starts again
	EXPECT_EQ(context.ullProgressCurrent, 1000u);
	context.ullProgressCurrent = 999;
	EXPECT_EQ(Update(UINT64_MAX), 0);
	EXPECT_EQ(context.ullProgressCurrent, 1000u);
	context.ullProgressTotal = 0;
	EXPECT_EQ(Update(1), 0);
	EXPECT_EQ(context.ullProgressCurrent, 0u);
	EXPECT_EQ(kit::ReadFile(kFile), Text("1000"));
}

TEST_F(ProgressUpdate, FailsWhereTheFileCannotBeWrittenAndTriesAgainNextTime)
{
	{
		const kit::Fault fault("VUNKCFileSetPair");
		EXPECT_EQ(Update(100), -1);
	}
	EXPECT_EQ(journal.Lines(),
	          (Lines{"btrfs_metadata_cache.cpp Failed to set hash to file [" + kFile + "]" + kFault,
	                 "btrfs_metadata_cache.cpp Failed to BtrfsMetadataCacheProgressWriteFile with UUID[" + kUuid +
	                         "]" + kFault}));
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	EXPECT_EQ(context.ullProgressCurrent, 100u);
	EXPECT_EQ(context.tsLastProgressWrite.tv_sec, 0);
	EXPECT_EQ(Update(100), 0);
	EXPECT_EQ(kit::ReadFile(kFile), Text("200"));
}

} // namespace
