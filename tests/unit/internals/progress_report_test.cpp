#include "btrfs_metadata_cache/progress_report.h"

#include "btrfs_metadata_cache/context.h"
#include "btrfs_metadata_cache/progress.h"

#include "kit/device_reads.h"
#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/nth_call.h"
#include "kit/processes.h"
#include "kit/timeline.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kUuid = "11111111-2222-4333-8444-555555555555";
const std::string kFolder = "/run/zevotuned/metadata_cache";
const std::string kFile = kFolder + "/" + kUuid + ".progress";
const std::string kName = "btrfs_metadata_cache.cpp ";
const std::string kFault = "[0xFA17 fault:1]";

class ProgressReports : public kit::LabTest {
protected:
	ProgressReports() { VUNKCErrSetEx(0, "", 0); }

	int Read() { return BtrfsMetadataCacheProgressRead(kUuid.c_str(), report); }

	void ExpectReport(unsigned long long total, unsigned long long current) const
	{
		EXPECT_EQ(report.total, total);
		EXPECT_EQ(report.current, current);
	}

	/// As the engine does it; by this process unless it is told another one.
	static void Write(pid_t pid = getpid())
	{
		MetadataCacheContext context = {};
		strcpy(context.szUuid, kUuid.c_str());
		context.pid = pid;
		context.ullProgressTotal = 1000;
		context.ullProgressCurrent = 300;
		if (BtrfsMetadataCacheProgressWriteFile(context) != 0)
			abort();
	}

	static std::string Text(const std::string &pid, const std::string &total, const std::string &current)
	{
		return "pid=\"" + pid + "\"\ntotal=\"" + total + "\"\ncurrent=\"" + current + "\"\n";
	}

	ProgressReport report = {71, 72};
	kit::Journal journal;
};

TEST_F(ProgressReports, AreThoseOfAPassThatIsUnderWay)
{
	const kit::ChildProcess engine([] { Write(); });
	EXPECT_EQ(Read(), 1);
	ExpectReport(1000, 300);
	EXPECT_TRUE(fs::exists(kFile));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, AreNoneWithoutAFile)
{
	EXPECT_EQ(Read(), 0);
	ExpectReport(71, 72);
	EXPECT_EQ(kit::Names(kFolder), std::set<std::string>{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, OfAPassThatHasEndedAreRemoved)
{
	kit::ChildProcess engine([] { Write(); });
	engine.Kill();
	EXPECT_EQ(Read(), 0);
	ExpectReport(71, 72);
	EXPECT_FALSE(fs::exists(kFile));
	Write(engine.Pid());
	EXPECT_NE(engine.EndedBy(), 0);
	EXPECT_EQ(Read(), 0);
	EXPECT_FALSE(fs::exists(kFile));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, ThatCannotBeRemovedAreNoneAllTheSame)
{
	Write(999999);
	const kit::PathFault fault("unlink", kFile, EPERM);
	EXPECT_EQ(Read(), 0);
	ExpectReport(71, 72);
	EXPECT_EQ(journal.Lines(),
	          Lines{kName + "Failed to delete btrfs metadata cache progress file (" + kFile + ") "});
}

TEST_F(ProgressReports, HaveNumbersAsFarAsTheyGo)
{
	const std::string pid = std::to_string(getpid());
	const struct {
		std::string total;
		unsigned long long number;
	} rows[] = {
		{"0", 0},
		{"18446744073709551615", ULLONG_MAX},
		{"99999999999999999999", ULLONG_MAX},
		{"12 bytes", 12},
		{"many", 0},
		{"", 0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.total);
		kit::WriteFile(kFile, Text(pid, row.total, "7"));
		EXPECT_EQ(Read(), 1);
		ExpectReport(row.number, 7);
		kit::WriteFile(kFile, Text(pid, "7", row.total));
		EXPECT_EQ(Read(), 1);
		ExpectReport(7, row.number);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, AreNoneOfAnIdThatIsNoProcess)
{
	const std::string own = std::to_string(getpid());
	const std::string wrapped = std::to_string((1ULL << 32) + static_cast<unsigned long long>(getpid()));
	for (const std::string &pid : {std::string("0"), std::string("-1"), "-" + own, std::string("2147483647"),
	                               std::string("2147483648"), wrapped, std::string("99999999999999999999")}) {
		SCOPED_TRACE(pid);
		kit::WriteFile(kFile, Text(pid, "1", "1"));
		EXPECT_EQ(Read(), 0);
		EXPECT_FALSE(fs::exists(kFile));
	}
	ExpectReport(71, 72);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, AreWaitedForWhileTheFileIsBeingWritten)
{
	kit::WriteFile(kFile, "");
	std::thread engine([] { Write(); });
	EXPECT_EQ(Read(), 1);
	engine.join();
	ExpectReport(1000, 300);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, AreReadTenTimesOverATenthOfASecond)
{
	const kit::DeviceReads reads;
	kit::Timeline timeline;
	for (const size_t nth : {1u, 9u, 10u}) {
		SCOPED_TRACE(nth);
		kit::WriteFile(kFile, "");
		timeline.lines.clear();
		timeline.before = [&, sleeps = 0u](const std::string &line) mutable {
			if (line == "usleep 10000" && ++sleeps == nth)
				Write();
		};
		EXPECT_EQ(Read(), nth <= 9 ? 1 : -1);
		EXPECT_EQ(timeline.lines, Lines(std::min<size_t>(nth, 9), "usleep 10000"));
	}
	EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to get progress pid in [" + kFile + "][0x0000 :0]"});
}

TEST_F(ProgressReports, ThatVanishMeanwhileAreNone)
{
	// Between having been found and being read, and between two readings.
	for (const int call : {2, 3}) {
		SCOPED_TRACE(call);
		kit::WriteFile(kFile, "");
		const kit::BeforeNth before(kit::Calls::Platform, call, [] { fs::remove(kFile); });
		EXPECT_EQ(Read(), 0);
		EXPECT_FALSE(fs::exists(kFile));
	}
	ExpectReport(71, 72);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProgressReports, FailWithoutAUuid)
{
	EXPECT_EQ(BtrfsMetadataCacheProgressRead("", report), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{kName + "Failed to get or create progress file with un-initialized uuid.[0x0000 :0]",
	                 kName + "Failed to get Btrfs Metadata Cache Progress file path with UUID[].[0x0000 :0]"}));
	ExpectReport(71, 72);
}

TEST_F(ProgressReports, FailWhereTheFileCannotBeFoundOrRead)
{
	const std::string noPath =
		kName + "Failed to get Btrfs Metadata Cache Progress file path with UUID[" + kUuid + "].";
	const std::string noPairs = kName + "Failed to get file [" + kFile + "] to hash";
	const struct {
		std::string what;
		std::function<void()> arrange;
		std::string line;
	} rows[] = {
		{"a folder", [] { fs::create_directories(kFile); }, noPath + "[0xC000 btrfs_metadata_cache.cpp]"},
		{"a file as its folder", [] { kit::WriteFile(kFolder, ""); }, noPath + "[0xA000 utils.cpp]"},
		{"garbage", [] { kit::WriteFile(kFile, "a=\"1\"\ngarbage\n"); }, noPairs + "[0x1500 " + kFile + ":2]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		fs::remove_all(kFolder);
		row.arrange();
		journal.Clear();
		EXPECT_EQ(Read(), -1);
		EXPECT_EQ(journal.Lines(), Lines{row.line});
	}
	fs::remove_all(kFolder);
	Write();
	for (const auto &[function, line] :
	     {std::pair{"VUNKCSzHashAlloc", kName + "Failed to VUNKCSzHashAlloc()."}, {"VUNKCFileGetPair", noPairs}}) {
		journal.Clear();
		const kit::Fault fault(function);
		EXPECT_EQ(Read(), -1);
		EXPECT_EQ(journal.Lines(), Lines{line + kFault});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_TRUE(fs::exists(kFile));
	ExpectReport(71, 72);
}

TEST_F(ProgressReports, FailWithoutAKey)
{
	const std::pair<const char *, const char *> rows[] = {
		{"pid", "pid"}, {"total", "total size"}, {"current", "current size"}};
	for (int nth = 1; nth <= 3; ++nth) {
		Write(999999);
		journal.Clear();
		const kit::Fault fault("VUNKCSzHashGetValue", nth);
		EXPECT_EQ(Read(), -1);
		EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to get progress " + rows[nth - 1].second + " in [" +
		                                 kFile + "]" + kFault});
		EXPECT_TRUE(fs::exists(kFile)); // who has written it cannot be told
	}
	ExpectReport(71, 72);
}

} // namespace
