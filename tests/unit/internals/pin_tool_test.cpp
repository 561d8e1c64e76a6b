#include "btrfs_metadata_cache/pin_tool.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/pin_tool.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const std::string kTool = "/usr/zevo/sbin/zevocachepinfiletool";
const std::string kRange = " --mount-path /volume1 --start-sector 128 --num-sectors 16";

std::string Failed(const std::string &arguments, int result)
{
	return "btrfs_metadata_cache.cpp Failed. Cmd = " + kTool + " " + arguments +
	       " ret = " + std::to_string(result) + ")";
}

class PinRangeTest : public kit::LabTest {
protected:
	PinRangeTest() { VUNKCErrSetEx(0, "", 0); }

	static int Pin() { return PinRange("/volume1", 128, 16, true); }
	static int Unpin() { return PinRange("/volume1", 128, 16, false); }

	kit::FakeStorage storage;
	kit::Journal journal;
};

class PinRangeByTool : public PinRangeTest {
protected:
	kit::PinTool tool;
};

TEST_F(PinRangeByTool, PinsWithOneRun)
{
	EXPECT_EQ(Pin(), 0);
	EXPECT_EQ(tool.lines, Lines{"--set-bitmap" + kRange});
	EXPECT_EQ(tool.Pinned(), "16+2");
	EXPECT_EQ(Pin(), 0);
	EXPECT_EQ(tool.Pinned(), "16+2");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinRangeByTool, UnpinsWithTwoRuns)
{
	EXPECT_EQ(Pin(), 0);
	tool.lines.clear();
	EXPECT_EQ(Unpin(), 0);
	EXPECT_EQ(tool.lines, (Lines{"--unset-bitmap" + kRange, "--unpin-range" + kRange}));
	EXPECT_EQ(tool.Pinned(), "");
	EXPECT_EQ(Unpin(), 0);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinRangeByTool, HandsPathsAndNumbersOnAsTheyAre)
{
	tool.before = [](const std::string &) { return -5; };
	EXPECT_EQ(PinRange("/volume 1/%s \"'\n", 9999999999999999999U, 9223372036854775808U, true), -1);
	EXPECT_EQ(PinRange("", 0, 0, true), -1);
	EXPECT_EQ(tool.lines, (Lines{"--set-bitmap --mount-path /volume 1/%s \"'\n --start-sector 9999999999999999999 "
	                             "--num-sectors 9223372036854775808",
	                             "--set-bitmap --mount-path  --start-sector 0 --num-sectors 0"}));
}

TEST_F(PinRangeByTool, FailsWithTheCommandLineAndTheResult)
{
	for (const int result : {-1, -7, -137, -2147483647 - 1}) {
		SCOPED_TRACE(result);
		journal.Clear();
		tool.lines.clear();
		tool.before = [&](const std::string &) { return result; };
		EXPECT_EQ(Pin(), -1);
		EXPECT_EQ(journal.Lines(), Lines{Failed("--set-bitmap" + kRange, result)});
		EXPECT_EQ(tool.lines.size(), 1u); // nobody tries again
	}
}

TEST_F(PinRangeByTool, TakesAResultAboveZeroForSuccess)
{
	tool.before = [](const std::string &) { return 1; };
	EXPECT_EQ(Unpin(), 0);
	EXPECT_EQ(tool.lines.size(), 2u);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinRangeByTool, UnpinsNothingWhereTheBitmapIsNotUnset)
{
	EXPECT_EQ(Pin(), 0);
	tool.lines.clear();
	tool.before = [](const std::string &) { return -2; };
	EXPECT_EQ(Unpin(), -1);
	EXPECT_EQ(tool.lines, Lines{"--unset-bitmap" + kRange});
	EXPECT_EQ(journal.Lines(), Lines{Failed("--unset-bitmap" + kRange, -2)});
	EXPECT_EQ(tool.Pinned(), "16+2");
}

TEST_F(PinRangeByTool, FailsWhereTheRangeIsNotUnpinned)
{
	tool.before = [](const std::string &line) { return line.starts_with("--unpin-range") ? -3 : 0; };
	EXPECT_EQ(Unpin(), -1);
	EXPECT_EQ(tool.lines.size(), 2u);
	EXPECT_EQ(journal.Lines(), Lines{Failed("--unpin-range" + kRange, -3)});
}

TEST_F(PinRangeByTool, FailsWhereItCannotBeRun)
{
	const kit::Fault fault("VUNKCExecl", 2);
	EXPECT_EQ(Unpin(), -1);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(journal.Lines(), Lines{Failed("--unpin-range" + kRange, -1)});
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(PinRangeByTool, CutsTheCommandLineOfTheLogOnly)
{
	const std::string path = "/" + std::string(2000, 'v');
	tool.before = [](const std::string &) { return -9; };
	EXPECT_EQ(PinRange(path.c_str(), 128, 16, true), -1);
	EXPECT_EQ(tool.lines, Lines{"--set-bitmap --mount-path " + path + " --start-sector 128 --num-sectors 16"});
	const std::string command = kTool + " --set-bitmap --mount-path " + path;
	EXPECT_EQ(journal.Lines(),
	          Lines{"btrfs_metadata_cache.cpp Failed. Cmd = " + command.substr(0, 1023) + " ret = -9)"});
}

TEST_F(PinRangeByTool, IsThereInFullInTheLogUpToTheLastByte)
{
	const std::string front = kTool + " --set-bitmap --mount-path ";
	const std::string back = " --start-sector 128 --num-sectors 16";
	tool.before = [](const std::string &) { return -9; };
	for (const size_t more : {0, 1}) {
		const std::string path = "/" + std::string(1023 - front.size() - back.size() - 1 + more, 'v');
		journal.Clear();
		EXPECT_EQ(PinRange(path.c_str(), 128, 16, true), -1);
		EXPECT_EQ(journal.Lines(), Lines{"btrfs_metadata_cache.cpp Failed. Cmd = " +
		                                 (front + path + back).substr(0, 1023) + " ret = -9)"});
	}
}

TEST_F(PinRangeByTool, SucceedsWithoutTheToolOnAModelWithoutPins)
{
	storage.supportsPin = false;
	EXPECT_EQ(Pin(), 0);
	EXPECT_EQ(Unpin(), 0);
	EXPECT_EQ(tool.lines, Lines{});
	EXPECT_EQ(journal.Lines(), (Lines{"btrfs_metadata_cache.cpp Doesn't support pin[0x0000 :0]",
	                                  "btrfs_metadata_cache.cpp Doesn't support pin[0x0000 :0]"}));
}

// A program in the tool's place, which writes down its arguments.
class PinRangeByProgram : public PinRangeTest {
protected:
	void Install(const std::string &ending)
	{
		kit::WriteFile(kTool, "#!/bin/sh\nprintf '<%s>' \"$@\" >> " + dir.Path("runs") + "\n" + ending + "\n");
		fs::permissions(kTool, fs::perms::owner_all);
	}
	std::string Runs() const
	{
		return fs::exists(dir.Path("runs")) ? kit::ReadFile(dir.Path("runs")) : std::string();
	}
	void TearDown() override
	{
		fs::remove(kTool);
		LabTest::TearDown();
	}

	kit::TempDir dir;
	const std::string range = "<--mount-path></volume1><--start-sector><128><--num-sectors><16>";
};

TEST_F(PinRangeByProgram, RunsItWithSevenArguments)
{
	Install("exit 0");
	EXPECT_EQ(Pin(), 0);
	EXPECT_EQ(Unpin(), 0);
	EXPECT_EQ(Runs(), "<--set-bitmap>" + range + "<--unset-bitmap>" + range + "<--unpin-range>" + range);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(PinRangeByProgram, FailsWithItsStatusOrItsSignal)
{
	const struct {
		const char *ending;
		int result;
		int code;
	} rows[] = {
		{"exit 1", -1, 0x1900},
		{"exit 255", -255, 0x1900},
		{"kill -9 $$", -137, 0x1900},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.ending);
		journal.Clear();
		Install(row.ending);
		EXPECT_EQ(Unpin(), -1);
		EXPECT_EQ(journal.Lines(), Lines{Failed("--unset-bitmap" + kRange, row.result)});
		EXPECT_EQ(VUNKCErrGet(), row.code);
	}
	EXPECT_EQ(Runs(), "<--unset-bitmap>" + range + "<--unset-bitmap>" + range + "<--unset-bitmap>" + range);
}

TEST_F(PinRangeByProgram, FailsWhereThereIsNone)
{
	EXPECT_EQ(Pin(), -1);
	EXPECT_EQ(journal.Lines(), Lines{Failed("--set-bitmap" + kRange, -1)});
	EXPECT_EQ(VUNKCErrGet(), 0x1800);
}

} // namespace
