#include "btrfs_metadata_cache/preload.h"

#include "kit/device_reads.h"
#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/pin_volume.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr uint64_t kPiece = 65536;
constexpr uint64_t kMiB = 1 << 20;
constexpr uint64_t kMark = 16 * kMiB + kPiece; // the first piece beyond 16 MiB
const std::string kVolume = kit::PinVolume::kPath;
const std::string kDevice = kit::PinVolume::kDevice;
const std::string kNone = "[0x0000 :0]";

std::string Line(const std::string &text)
{
	return "btrfs_metadata_cache.cpp " + text;
}

std::string Pread(uint64_t offset, uint64_t size)
{
	return "pread " + kDevice + " " + std::to_string(offset) + "+" + std::to_string(size);
}

std::string PinRun(uint64_t offset, uint64_t size)
{
	return "--set-bitmap --mount-path " + kVolume + " --start-sector " + std::to_string(offset / 512) +
	       " --num-sectors " + std::to_string(size / 512);
}

class Preload : public kit::LabTest {
protected:
	Preload()
	{
		VUNKCErrSetEx(0, "", 0);
		strcpy(context.szUuid, kit::PinVolume::kUuid);
		context.pid = 4711;
		Record({1});
		volume.tool.before = [this](const std::string &line) {
			reads.lines.push_back(line);
			return resultOfTool;
		};
	}

	void Record(const std::vector<unsigned long long> &offsets) const
	{
		std::string text = "[config]\nstatus=\"1\"\nmax_used_size=\"0\"\n";
		for (const unsigned long long offset : offsets)
			text += "[" + std::to_string(offset) + "]\nstatus=\"0\"\n";
		kit::WriteFile(path, text);
	}
	bool IsDone() const { return kit::ReadFile(path).ends_with("[1]\nstatus=\"1\"\n"); }

	int Load(const chunk_info &chunk)
	{
		return PinBtrfsMetadataPreload(context, kVolume.c_str(), kDevice.c_str(), path.c_str(), &chunk);
	}
	// A chunk at 1 MiB, of one stripe.
	int Load(uint64_t size) { return Load({1, size, 1, {kMiB, 0}, 0}); }

	// Gigabytes that nobody reads.
	void ReadNothing()
	{
		reads.answer = [](size_t size, uint64_t) { return static_cast<ssize_t>(size); };
		resultOfTool = 1; // nor pins: the kit's device is not large enough
	}

	std::string NotRead(uint64_t offset, uint64_t size, const std::string &code) const
	{
		return Line("Failed to read pin range start:[" + std::to_string(offset) + "] size:[" +
		            std::to_string(size) + "] with [" + kDevice + "]" + code);
	}

	kit::PinVolume volume;
	kit::DeviceReads reads;
	kit::TempDir dir;
	const std::string path = dir.Path("mapping");
	MetadataCacheContext context = {};
	int resultOfTool = 0;
	kit::Journal journal;
};

TEST_F(Preload, PinsAndThenReadsInPieces)
{
	EXPECT_EQ(Load(2 * kPiece + 4096), 0);
	EXPECT_EQ(reads.lines, (Lines{PinRun(kMiB, 2 * kPiece + 4096), Pread(kMiB, kPiece),
	                              Pread(kMiB + kPiece, kPiece), Pread(kMiB + 2 * kPiece, 4096)}));
	EXPECT_EQ(volume.tool.Pinned(), "256+33");
	EXPECT_TRUE(IsDone());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Preload, PinsAndReadsEachStripeInItsTurn)
{
	EXPECT_EQ(Load({1, kPiece, 2, {2 * kMiB, kMiB}, 0}), 0);
	EXPECT_EQ(reads.lines, (Lines{PinRun(2 * kMiB, kPiece), Pread(2 * kMiB, kPiece), PinRun(kMiB, kPiece),
	                              Pread(kMiB, kPiece)}));
	EXPECT_EQ(volume.tool.Pinned(), "256+16 512+16");
	EXPECT_TRUE(IsDone());
}

TEST_F(Preload, IsOnlyMarkedAsDoneWithoutStripes)
{
	EXPECT_EQ(Load({1, kPiece, 0, {2 * kMiB, kMiB}, 0}), 0);
	EXPECT_EQ(reads.lines, Lines{});
	EXPECT_TRUE(IsDone());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Preload, MarksNoOtherChunkAndNotBeforeTheEnd)
{
	Record({2, 1});
	bool isEarly = false;
	reads.answer = [&](size_t, uint64_t) -> std::optional<ssize_t> {
		isEarly = isEarly || IsDone();
		return std::nullopt;
	};
	EXPECT_EQ(Load({1, kPiece, 2, {2 * kMiB, kMiB}, 0}), 0);
	EXPECT_FALSE(isEarly);
	EXPECT_TRUE(IsDone());
	EXPECT_TRUE(kit::ReadFile(path).find("[2]\nstatus=\"0\"\n") != std::string::npos);
}

TEST_F(Preload, ReadsNothingOutsideOfTheRange)
{
	for (const uint64_t size : {uint64_t{512}, uint64_t{4096}, kPiece - 512, kPiece, kPiece + 512,
	                            3 * kPiece - 4096, 16 * kMiB, kMark, kMark + 512}) {
		SCOPED_TRACE(size);
		uint64_t next = kMiB;
		resultOfTool = 1;
		reads.answer = [&](size_t count, uint64_t offset) {
			EXPECT_EQ(offset, next);
			EXPECT_GT(count, 0u);
			EXPECT_LE(count, kPiece);
			EXPECT_EQ(reinterpret_cast<uintptr_t>(reads.buffer) % 512, 0u);
			next += count;
			return static_cast<ssize_t>(count);
		};
		EXPECT_EQ(Load(size), 0);
		EXPECT_EQ(next, kMiB + size);
	}
}

TEST_F(Preload, CountsInSectorsWhateverTheRange)
{
	ReadNothing();
	EXPECT_EQ(Load({1, 1535, 1, {1 << 20 | 513, 0}, 0}), 0);
	EXPECT_EQ(reads.lines, (Lines{PinRun(kMiB + 512, 1024), Pread(kMiB + 513, 1535)}));
}

TEST_F(Preload, FindsStripesFarOut)
{
	const uint64_t far = uint64_t{1} << 62;
	ReadNothing();
	EXPECT_EQ(Load({1, kPiece, 1, {far, 0}, 0}), 0);
	EXPECT_EQ(reads.lines, (Lines{PinRun(far, kPiece), Pread(far, kPiece)}));
}

TEST_F(Preload, GoesOnWhereAShortReadEnds)
{
	int nth = 0;
	reads.answer = [&](size_t, uint64_t) -> std::optional<ssize_t> {
		return ++nth == 1 ? std::optional<ssize_t>(4096) : std::nullopt;
	};
	EXPECT_EQ(Load(kPiece + 4096), 0);
	EXPECT_EQ(reads.Lines("pread"), (Lines{Pread(kMiB, kPiece), Pread(kMiB + 4096, kPiece)}));
	EXPECT_TRUE(IsDone());
}

TEST_F(Preload, EndsAStripeAtTheEndOfTheDevice)
{
	reads.answer = [](size_t, uint64_t offset) -> std::optional<ssize_t> {
		return offset == 2 * kMiB + kPiece ? std::optional<ssize_t>(0) : std::nullopt;
	};
	EXPECT_EQ(Load({1, 3 * kPiece, 2, {2 * kMiB, kMiB}, 0}), 0);
	EXPECT_EQ(reads.Lines("pread"),
	          (Lines{Pread(2 * kMiB, kPiece), Pread(2 * kMiB + kPiece, kPiece), Pread(kMiB, kPiece),
	                 Pread(kMiB + kPiece, kPiece), Pread(kMiB + 2 * kPiece, kPiece)}));
	EXPECT_TRUE(IsDone());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Preload, EndsAtTheEndOfTheRealDevice)
{
	const uint64_t end = kit::PinTool::kBlocks * kit::PinVolume::kBlock;
	resultOfTool = 1;
	EXPECT_EQ(Load({1, 3 * kPiece, 1, {end - 4096, 0}, 0}), 0);
	EXPECT_EQ(reads.Lines("pread"), (Lines{Pread(end - 4096, kPiece), Pread(end, kPiece)}));
	EXPECT_TRUE(IsDone());
}

TEST_F(Preload, ReadsAgainWhatASignalHasInterrupted)
{
	int nth = 0;
	reads.answer = [&](size_t, uint64_t) -> std::optional<ssize_t> {
		errno = EINTR;
		return ++nth <= 2 ? std::optional<ssize_t>(-1) : std::nullopt;
	};
	EXPECT_EQ(Load(2 * kPiece), 0);
	EXPECT_EQ(reads.Lines("pread"),
	          (Lines{Pread(kMiB, kPiece), Pread(kMiB, kPiece), Pread(kMiB, kPiece), Pread(kMiB + kPiece, kPiece)}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

// Progress after each pread, where it changes: read bytes and what has been counted of them.
class PreloadProgress : public Preload {
protected:
	PreloadProgress()
	{
		ReadNothing();
		context.fProgress = 1;
		context.ullProgressTotal = uint64_t{1} << 40;
	}

	uint64_t CountedOf(uint64_t size)
	{
		context.ullProgressCurrent = 0;
		EXPECT_EQ(Load(size), 0);
		return context.ullProgressCurrent;
	}
};

TEST_F(PreloadProgress, CountsAtMarksBeyond16MiBAndNotTheTail)
{
	EXPECT_EQ(CountedOf(4096), 0u);
	EXPECT_EQ(CountedOf(16 * kMiB), 0u); // not beyond
	EXPECT_EQ(CountedOf(16 * kMiB + 512), 16 * kMiB + 512);
	EXPECT_EQ(CountedOf(kMark), kMark);
	EXPECT_EQ(CountedOf(kMark + 4096), kMark);
	EXPECT_EQ(CountedOf(kMark + 16 * kMiB), kMark);
	EXPECT_EQ(CountedOf(2 * kMark), 2 * kMark);
	EXPECT_EQ(CountedOf(1024 * kMiB), 63 * kMark);
}

TEST_F(PreloadProgress, StartsEachStripeAnew)
{
	EXPECT_EQ(Load({1, 16 * kMiB, 2, {kMiB, 64 * kMiB}, 0}), 0);
	EXPECT_EQ(context.ullProgressCurrent, 0u);
	EXPECT_EQ(Load({1, 20 * kMiB, 2, {kMiB, 64 * kMiB}, 0}), 0);
	EXPECT_EQ(context.ullProgressCurrent, 2 * kMark);
}

TEST_F(PreloadProgress, CountsShortReadsAsWhatTheyAre)
{
	reads.answer = [](size_t, uint64_t) { return 4096; };
	EXPECT_EQ(CountedOf(16 * kMiB), 0u);
	EXPECT_EQ(CountedOf(17 * kMiB), 16 * kMiB + 4096);
}

TEST_F(PreloadProgress, IsCountedRightAfterTheReadThatReachesAMark)
{
	std::vector<std::pair<uint64_t, uint64_t>> changes;
	reads.answer = [&](size_t size, uint64_t offset) {
		if (changes.empty() || changes.back().second != context.ullProgressCurrent)
			changes.emplace_back(offset - kMiB, context.ullProgressCurrent);
		return static_cast<ssize_t>(size);
	};
	EXPECT_EQ(Load(40 * kMiB), 0);
	using Changes = std::vector<std::pair<uint64_t, uint64_t>>;
	EXPECT_EQ(changes, (Changes{{0, 0}, {kMark, kMark}, {2 * kMark, 2 * kMark}}));
}

TEST_F(PreloadProgress, FailsWhereItCannotBeWritten)
{
	const kit::Fault fault("VUNKCFileSetPair");
	EXPECT_EQ(Load(40 * kMiB), -1);
	const std::string code = "[0xFA17 fault:1]";
	EXPECT_EQ(journal.Lines(), (Lines{Line("Failed to set hash to file [" + kit::PinVolume::kProgress + "]" + code),
	                                  Line("Failed to BtrfsMetadataCacheProgressWriteFile with UUID[" +
	                                       std::string(kit::PinVolume::kUuid) + "]" + code),
	                                  NotRead(kMiB, 40 * kMiB, code)}));
	EXPECT_EQ(reads.Lines("pread").size(), 257u);
	EXPECT_FALSE(IsDone());
}

class PreloadThrottle : public Preload {
protected:
	PreloadThrottle()
	{
		ReadNothing();
		reads.clock = 1000000; // a second after the machine's start
		reads.clockAdvance = 1000;
	}

	// What was slept after each mark of a chunk with two of them; a piece more than 256 before each.
	Lines Sleeps(uint32_t multiple)
	{
		reads.lines.clear();
		context.uReadThrottleWaitMult = multiple;
		EXPECT_EQ(Load(40 * kMiB), 0);
		return reads.Lines("usleep");
	}
};

TEST_F(PreloadThrottle, WaitsAMultipleOfTheTimeThatReadingTook)
{
	EXPECT_EQ(Sleeps(1), (Lines{"usleep 257000", "usleep 257000"}));
	EXPECT_EQ(Sleeps(3), (Lines{"usleep 771000", "usleep 771000"}));
}

TEST_F(PreloadThrottle, WaitsAfterThePieceThatReachesTheMark)
{
	Sleeps(1);
	EXPECT_EQ(reads.lines.at(257), Pread(kMiB + 16 * kMiB, kPiece));
	EXPECT_EQ(reads.lines.at(258), "usleep 257000");
	EXPECT_EQ(reads.lines.at(259), Pread(kMiB + kMark, kPiece));
	reads.lines.clear();
	EXPECT_EQ(Load(16 * kMiB), 0);
	EXPECT_EQ(reads.Lines("usleep"), Lines{});
}

TEST_F(PreloadThrottle, DoesNotWaitWithAMultipleOfZero)
{
	EXPECT_EQ(Sleeps(0), Lines{});
}

TEST_F(PreloadThrottle, DoesNotWaitWhereNoTimeHasPassed)
{
	reads.clockAdvance = 0;
	EXPECT_EQ(Sleeps(1), Lines{});
	reads.clockAdvance = UINT64_MAX; // by one microsecond back
	EXPECT_EQ(Sleeps(1), Lines{});
}

TEST_F(PreloadThrottle, WrapsAProductBeyond32Bits)
{
	EXPECT_EQ(Sleeps(UINT32_MAX), (Lines{"usleep 4294710296", "usleep 4294710296"})); // 2^32 - 257000
	EXPECT_EQ(Sleeps(1 << 31), (Lines{"usleep 0", "usleep 0"}));
	reads.clockAdvance = (uint64_t{1} << 32) + 1;
	EXPECT_EQ(Sleeps(2), (Lines{"usleep 514", "usleep 514"}));
}

TEST_F(PreloadThrottle, DoesNotCountTheWaitNorWhatWasBeforeTheFirstRead)
{
	resultOfTool = 1;
	volume.tool.before = [this](const std::string &) {
		*reads.clock += 5000000; // the tool takes its time
		return 1;
	};
	EXPECT_EQ(Sleeps(1), (Lines{"usleep 257000", "usleep 257000"}));
}

class PreloadFailure : public Preload {
protected:
	void ExpectFailure(const chunk_info &failing, const Lines &lines, const Lines &actions)
	{
		EXPECT_EQ(Load(failing), -1);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(reads.lines, actions);
		EXPECT_FALSE(IsDone());
	}

	const chunk_info chunk = {1, 2 * kPiece, 2, {2 * kMiB, kMiB}, 0};
	const std::string run = PinRun(2 * kMiB, 2 * kPiece);
};

TEST_F(PreloadFailure, OfThePinTool)
{
	resultOfTool = -2;
	ExpectFailure(
		chunk,
		{Line("Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool " + run + " ret = -2)"),
	         Line("Failed to flash cache pin range start:[2097152] size:[131072] with [" + kVolume + "]" + kNone)},
		{run});
}

TEST_F(PreloadFailure, OfThePinToolAtTheSecondStripe)
{
	const std::string second = PinRun(kMiB, 2 * kPiece);
	const kit::Fault fault("VUNKCExecl", 2);
	ExpectFailure(chunk,
	              {Line("Failed. Cmd = /usr/zevo/sbin/zevocachepinfiletool " + second + " ret = -1)"),
	               Line("Failed to flash cache pin range start:[1048576] size:[131072] with [" + kVolume +
	                    "][0xFA17 fault:1]")},
	              {run, Pread(2 * kMiB, kPiece), Pread(2 * kMiB + kPiece, kPiece)});
}

TEST_F(PreloadFailure, OfMemory)
{
	const kit::Fault fault("aligned_alloc", 1, ENOMEM);
	ExpectFailure(chunk,
	              {Line("Failed to alloc read buffer\n"),
	               NotRead(2 * kMiB, 2 * kPiece, "[0x0200 btrfs_metadata_cache.cpp]")},
	              {run});
	EXPECT_EQ(VUNKCErrGet(), 0x200);
}

TEST_F(PreloadFailure, OfOpeningTheDevice)
{
	const kit::PathFault fault("open", kDevice, ENXIO);
	ExpectFailure(chunk,
	              {Line("Failed to open path [" + kDevice + "]. errno[6]"), NotRead(2 * kMiB, 2 * kPiece, kNone)},
	              {run});
	EXPECT_EQ(errno, ENXIO);
}

TEST_F(PreloadFailure, OfReading)
{
	const kit::Fault fault("pread", 2, EIO);
	ExpectFailure(chunk,
	              {Line("Failed to read start:2162688, count:65536 with device [" + kDevice + "]. errno[5]"),
	               NotRead(2 * kMiB, 2 * kPiece, kNone)},
	              {run, Pread(2 * kMiB, kPiece)});
	EXPECT_EQ(errno, EIO);
}

TEST_F(PreloadFailure, OfReadingTheLastPieceOfTheLastStripe)
{
	const chunk_info odd = {1, kPiece + 4096, 1, {kMiB, 0}, 0};
	reads.answer = [](size_t size, uint64_t) -> std::optional<ssize_t> {
		errno = EROFS;
		return size == 4096 ? std::optional<ssize_t>(-1) : std::nullopt;
	};
	ExpectFailure(odd,
	              {Line("Failed to read start:1114112, count:4096 with device [" + kDevice + "]. errno[30]"),
	               NotRead(kMiB, kPiece + 4096, kNone)},
	              {PinRun(kMiB, kPiece + 4096), Pread(kMiB, kPiece), Pread(kMiB + kPiece, 4096)});
}

TEST_F(PreloadFailure, OfMarkingTheChunk)
{
	const chunk_info other = {5, 4096, 1, {kMiB, 0}, 0};
	const std::string code = "[0x1600 " + path + ":0]";
	ExpectFailure(other,
	              {Line("Failed to get section [5] in [" + path + "]" + code),
	               Line("Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[5] in [" + path + "]" + code)},
	              {PinRun(kMiB, 4096), Pread(kMiB, 4096)});
}

TEST_F(PreloadFailure, OfWritingTheMark)
{
	const kit::Fault fault("VUNKCIFileModifySection");
	const std::string code = "[0xFA17 fault:1]";
	EXPECT_EQ(Load(4096), -1);
	EXPECT_EQ(journal.Lines(), (Lines{Line("Failed to set section [1] in [" + path + "]" + code),
	                                  Line("Failed to PinBtrfsMetadataSectionUpdateChunkDone with chunk[1] in [" +
	                                       path + "]" + code)}));
	EXPECT_FALSE(IsDone());
}

TEST_F(Preload, SucceedsWithoutTheToolOnAModelWithoutPins)
{
	volume.storage.supportsPin = false;
	EXPECT_EQ(Load(4096), 0);
	EXPECT_EQ(reads.lines, Lines{Pread(kMiB, 4096)});
	EXPECT_TRUE(IsDone());
	EXPECT_EQ(journal.Lines(), Lines{Line("Doesn't support pin" + kNone)});
}

using DeviceBuffer = Preload;

TEST_F(DeviceBuffer, IsForgottenAsAWhole)
{
	EXPECT_EQ(BtrfsMetadataCacheClearDevBuffer(kDevice.c_str()), 0);
	EXPECT_EQ(reads.lines, Lines{"posix_fadvise " + kDevice + " 0+0"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DeviceBuffer, IsNotForgottenWhereTheDeviceCannotBeOpened)
{
	EXPECT_EQ(BtrfsMetadataCacheClearDevBuffer("/run/none"), -1);
	EXPECT_EQ(errno, ENOENT);
	const kit::PathFault fault("open", kDevice, EBUSY);
	EXPECT_EQ(BtrfsMetadataCacheClearDevBuffer(kDevice.c_str()), -1);
	EXPECT_EQ(errno, EBUSY);
	EXPECT_EQ(journal.Lines(), (Lines{Line("Failed to open path [/run/none]. errno[2]"),
	                                  Line("Failed to open path [" + kDevice + "]. errno[16]")}));
	EXPECT_EQ(reads.lines, Lines{});
}

TEST_F(DeviceBuffer, IsNotForgottenWhereTheKernelDoesNot)
{
	const kit::Fault fault("posix_fadvise", 1, EOPNOTSUPP);
	errno = 0;
	EXPECT_EQ(BtrfsMetadataCacheClearDevBuffer(kDevice.c_str()), -1);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(errno, EOPNOTSUPP); // which the call itself does not set
	EXPECT_EQ(journal.Lines(), Lines{Line("Failed to POSIX_FADV_DONTNEED with path [" + kDevice + "]. errno[95]")});
}

} // namespace
