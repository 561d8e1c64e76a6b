// The pin engine on real file systems, with a program for a pin tool.

#include "btrfs_metadata_cache/pin_engine.h"

#include "system/pin_gate.h"

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/loop_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <numeric>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;
using cached::ForgetToolRuns;
using cached::Gate;
using cached::Range;
using cached::Ranges;
using cached::Stripes;
using cached::ToolRanges;
using cached::ToolRuns;

class PinSystem : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		volumes = std::make_unique<cached::Volumes>(1, std::string(SYSTEM_TESTS) + "/recording_pin_tool.sh");
		volume = &(*volumes)[0];
		Switch(true);
	}

	void TearDown() override
	{
		volumes.reset();
		kit::LabTest::TearDown();
	}

	void Switch(bool isOn) const
	{
		kit::WriteFile(volume->conf, isOn ? "metadata_cache=\"1\"\n" : "metadata_cache=\"0\"\n");
	}
	int Pass() const { return __BtrfsMetadataCacheSet(volume->path.c_str()); }

	void SwitchedOffAgain() const
	{
		Switch(false);
		EXPECT_EQ(Pass(), 0);
		volume->ExpectNotPinned();
		Switch(true);
		ForgetToolRuns();
	}

	/// How many bytes were ever read from the device.
	uint64_t BytesRead() const
	{
		std::istringstream numbers(
			kit::ReadFile("/run/lab/kernel-sys/block/" + volume->device.Name() + "/stat"));
		uint64_t requests;
		uint64_t merges;
		uint64_t sectors = 0;
		numbers >> requests >> merges >> sectors;
		return sectors * 512;
	}

	/// Pages of the ranges that the kernel has in its page cache of the device.
	size_t PagesInMemory(const Ranges &ranges) const
	{
		const int fd = open(volume->device.Path().c_str(), O_RDONLY | O_CLOEXEC);
		void *const memory = mmap(nullptr, cached::kVolumeSize, PROT_READ, MAP_SHARED, fd, 0);
		close(fd);
		EXPECT_NE(memory, MAP_FAILED);
		size_t pages = 0;
		for (const Range &range : ranges) {
			std::vector<unsigned char> isThere(range.size / 4096);
			EXPECT_EQ(mincore(static_cast<char *>(memory) + range.offset, range.size, isThere.data()), 0);
			pages += static_cast<size_t>(
				std::count_if(isThere.begin(), isThere.end(), [](unsigned char is) { return is & 1; }));
		}
		munmap(memory, cached::kVolumeSize);
		return pages;
	}

	std::unique_ptr<cached::Volumes> volumes;
	cached::Volume *volume = nullptr;
};

TEST_F(PinSystem, PinsWhatTheFileSystemHasAndUnpinsItAgain)
{
	volume->WhileChunksStay([&](const Strings &chunks) {
		const kit::Journal journal;
		const Ranges wanted = volume->Wanted(chunks);
		EXPECT_GE(wanted.size(), 6u); // two copies of the superblock, two chunks of DUP
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(ToolRanges(*volume, "--set-bitmap"), wanted);
		EXPECT_EQ(ToolRuns(), wanted.size());
		volume->ExpectPinned(wanted);

		ForgetToolRuns();
		EXPECT_EQ(Pass(), 0); // again, with nothing to do
		EXPECT_EQ(ToolRuns(), 0u);
		volume->ExpectPinned(wanted);

		Switch(false);
		EXPECT_EQ(Pass(), 0);
		Ranges sorted = wanted;
		std::sort(sorted.begin(), sorted.end());
		for (const char *action : {"--unset-bitmap", "--unpin-range"}) {
			Ranges unpinned = ToolRanges(*volume, action);
			std::sort(unpinned.begin(), unpinned.end());
			EXPECT_EQ(unpinned, sorted) << action;
		}
		SwitchedOffAgain();
		EXPECT_EQ(journal.Lines(), Strings());
	});
}

TEST_F(PinSystem, ReadsWhatIsPinnedFromTheDeviceAndLeavesNoneOfItInMemory)
{
	volume->WhileChunksStay([&](const Strings &chunks) {
		const Ranges wanted = Stripes(chunks);
		kit::RunProgram({"dd", "if=" + volume->device.Path(), "of=/dev/null", "bs=1M", "status=none"});
		EXPECT_GT(PagesInMemory(wanted), 0u);
		const uint64_t before = BytesRead();
		EXPECT_EQ(Pass(), 0);
		const uint64_t size =
			std::accumulate(wanted.begin(), wanted.end(), uint64_t{0},
		                        [](uint64_t sum, const Range &range) { return sum + range.size; });
		EXPECT_GE(BytesRead() - before, size);
		EXPECT_EQ(PagesInMemory(wanted), 0u);
		SwitchedOffAgain();
	});
}

TEST_F(PinSystem, AVolumeUnmountedInTheMiddleIsPinnedWhenItIsBack)
{
	kit::Journal journal;
	int result = 0;
	Gate gate;
	std::thread engine([&] { result = Pass(); });
	gate.WaitForTool();
	volume->Unmount();
	gate.LetGo();
	engine.join();
	gate.Remove();
	EXPECT_EQ(result, -1);
	EXPECT_TRUE(journal.Lines().back().starts_with(
		"btrfs_metadata_cache.cpp Failed to __BtrfsMetadataCacheSet with [" + volume->path + "]"));
	EXPECT_EQ(ToolRuns(), 1u);
	volume->ExpectNothingLeftOfThePass();
	EXPECT_EQ(kit::Names(volume->path), std::set<std::string>()); // of the folder below

	volume->Mount();
	volumes->Mounted();
	volume->WhileChunksStay([&](const Strings &chunks) {
		journal.Clear();
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(journal.Lines(), Strings());
		volume->ExpectPinned(volume->Wanted(chunks));
	});
}

TEST_F(PinSystem, AnEngineThatIsKilledLeavesNothingPinnedWithoutARecord)
{
	Gate gate;
	const pid_t engine = fork();
	if (engine == 0)
		_exit(Pass() == 0 ? 0 : 1);
	gate.WaitForTool();
	EXPECT_EQ(kill(engine, SIGKILL), 0);
	int status = 0;
	EXPECT_EQ(waitpid(engine, &status, 0), engine);
	EXPECT_TRUE(WIFSIGNALED(status));
	gate.LetGo();
	// The tool and who waits for it have nobody but this process now, where it is the namespace's first.
	while (getpid() == 1 && (waitpid(-1, nullptr, 0) > 0 || errno == EINTR)) {
	}
	gate.Remove();
	EXPECT_EQ(ToolRanges(*volume, "--set-bitmap").size(), 1u);
	EXPECT_EQ(volume->Recorded(true), ToolRanges(*volume, "--set-bitmap"));
	EXPECT_EQ(volume->Recorded(false), Ranges());

	volume->WhileChunksStay([&](const Strings &chunks) {
		const kit::Journal journal;
		EXPECT_EQ(Pass(), 0);
		volume->ExpectPinned(volume->Wanted(chunks));
		EXPECT_EQ(journal.Lines(), Strings());
	});
	SwitchedOffAgain();
}

TEST_F(PinSystem, ASecondEngineLeavesTheVolumeToTheFirst)
{
	volume->WhileChunksStay([&](const Strings &chunks) {
		const kit::Journal journal;
		int result = -1;
		Gate gate;
		std::thread engine([&] { result = Pass(); });
		gate.WaitForTool();
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(ToolRuns(), 1u);
		EXPECT_EQ(volume->Recorded(false), Ranges()); // the first one is still at work
		EXPECT_TRUE(fs::exists(volume->runFile + ".pid"));
		gate.LetGo();
		engine.join();
		gate.Remove();
		EXPECT_EQ(result, 0);
		EXPECT_EQ(ToolRanges(*volume, "--set-bitmap"), volume->Wanted(chunks));
		volume->ExpectPinned(volume->Wanted(chunks));
		EXPECT_EQ(journal.Lines(), Strings());
		SwitchedOffAgain();
	});
}

} // namespace
