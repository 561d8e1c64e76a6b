// The exported functions of the metadata cache on real file systems, with real processes to be stopped.

#include "system/pin_gate.h"

#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/vunkcore.h>
#include <zevotuned/zevotuned.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <signal.h>

namespace fs = std::filesystem;

namespace {

using cached::ForgetToolRuns;
using cached::Gate;
using cached::Range;
using cached::Ranges;
using cached::ToolRanges;
using cached::ToolRuns;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Strings = std::vector<std::string>;

struct Status {
	int status = -7;
	unsigned long long total = 7;
	unsigned long long processed = 7;
};

std::string ProcessLink(pid_t pid, const std::string &name)
{
	return fs::read_symlink("/proc/" + std::to_string(pid) + "/" + name);
}

class CacheSystem : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		volumes = std::make_unique<cached::Volumes>(1, std::string(SYSTEM_TESTS) + "/recording_pin_tool.sh");
		volume = &(*volumes)[0];
	}

	void TearDown() override
	{
		adopting.WaitForAll();
		volumes.reset();
		kit::LabTest::TearDown();
	}

	static int Set(std::string path, bool isOn, bool isNoWait = false)
	{
		return ZEVOBtrfsMetadataCacheSet(path.data(), isOn ? 1 : 0, isNoWait ? 1 : 0);
	}
	static int Rescan(std::string path, bool isNoWait = false)
	{
		return ZEVOBtrfsMetadataCacheRescan(path.data(), isNoWait ? 1 : 0);
	}
	int ForceStop() const { return ZEVOBtrfsMetadataCacheForceStop(volume->path.c_str()); }
	Status GetStatus() const
	{
		Status is;
		EXPECT_EQ(ZEVOBtrfsMetadataCacheStatus(volume->path.c_str(), &is.status, &is.total, &is.processed), 0);
		return is;
	}

	/// Switches it on in a child, which does so to its signals first.
	pid_t SwitchOnInChild(void (*onSigterm)(int)) const
	{
		const pid_t child = fork();
		if (child == 0) {
			signal(SIGTERM, onSigterm);
			_exit(Set(volume->path, true) == 0 ? 0 : 1);
		}
		return child;
	}

	pid_t EngineOfPidFile() const
	{
		std::istringstream text(kit::ReadFile(volume->runFile + ".pid"));
		pid_t pid = 0;
		text >> pid;
		return pid;
	}

	/// Lets the engine pause while it reads, for longer than a forced stop takes. While it waits for the pin tool, its signals
	/// wait as well.
	static void Throttle(bool isOn)
	{
		ASSERT_EQ(TuneSetKeyValueToConfig("btrfs_metadata_cache_read_throttle_wait_mult", isOn ? "10000" : "0"),
		          0);
	}

	/// The run of the tool behind which an engine that pins for the first time reads a large range.
	size_t RunBeforeReading() const
	{
		const Ranges wanted = volume->Wanted(ChunksOnDevice(volume->path, volume->device.Path()));
		return static_cast<size_t>(std::find_if(wanted.begin(), wanted.end(), IsLarge) - wanted.begin()) + 1;
	}
	static bool IsLarge(const Range &range) { return range.size > 17 << 20; }

	/// The forced stop of an engine that is held up.
	std::chrono::steady_clock::duration StopHeldUp(const std::string &line) const
	{
		const kit::Journal journal;
		const auto begin = std::chrono::steady_clock::now();
		EXPECT_EQ(ForceStop(), 0);
		const auto taken = std::chrono::steady_clock::now() - begin;
		EXPECT_THAT(journal.Lines(), ElementsAre(AllOf(HasSubstr(line), HasSubstr("[" + volume->path + "]"))));
		return taken;
	}

	static void ExpectKilledBy(int number, pid_t engine)
	{
		int status = 0;
		ASSERT_EQ(waitpid(engine, &status, WNOHANG), engine) << "it has not ended";
		EXPECT_TRUE(WIFSIGNALED(status));
		EXPECT_EQ(WTERMSIG(status), number);
	}

	/// After a forced stop the next engine goes on from what is there.
	void ExpectNextSetCompletes() const
	{
		EXPECT_EQ(volume->MappingStatus(), "1");
		EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_IDLE);
		volume->ExpectNothingLeftOfThePass();
		volume->WhileChunksStay([&](const Strings &chunks) {
			const kit::Journal journal;
			EXPECT_EQ(Set(volume->path, true), 0);
			EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_PINNED);
			volume->ExpectPinned(volume->Wanted(chunks));
			EXPECT_EQ(journal.Lines(), Strings());
		});
	}

	/// How many bytes of the volume's metadata, and how many bytes are there for it, counting DUP once.
	std::pair<uint64_t, uint64_t> UsedAndAllocated() const
	{
		kit::RunProgram({"sync", "-f", volume->path});
		const std::string text = kit::RunProgram({"btrfs", "filesystem", "df", "-b", volume->path});
		static const std::regex kMetadata(R"(Metadata, \S+: total=(\d+), used=(\d+))");
		std::smatch match;
		if (!std::regex_search(text, match, kMetadata))
			throw std::runtime_error(text);
		return {std::stoull(match[2]), std::stoull(match[1])};
	}

	/// Fills the metadata chunk that a new volume has, and some of a further one, which then stays.
	void FillMetadataChunk()
	{
		const std::string target(3800, 'x');
		for (const uint64_t size = UsedAndAllocated().second; UsedAndAllocated().first <= size + size / 8;)
			for (int i = 0; i < 2000; ++i)
				fs::create_symlink(target, volume->path + "/" + std::to_string(linksMade++));
	}

	const cached::Adopting adopting;
	std::unique_ptr<cached::Volumes> volumes;
	cached::Volume *volume = nullptr;
	int linksMade = 0;
};

TEST_F(CacheSystem, IsSwitchedByPathAndByDeviceWaitingAndNot)
{
	for (const std::string &name : {volume->path, volume->device.Path()}) {
		for (const bool isNoWait : {false, true}) {
			SCOPED_TRACE(name + (isNoWait ? ", not waiting" : ""));
			volume->WhileChunksStay([&](const Strings &chunks) {
				const kit::Journal journal;
				ForgetToolRuns();
				Ranges wanted = volume->Wanted(chunks);
				EXPECT_EQ(Set(name, true, isNoWait), 0);
				adopting.WaitForAll();
				EXPECT_EQ(ToolRanges(*volume, "--set-bitmap"), wanted);
				EXPECT_EQ(ToolRuns(), wanted.size());
				EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_PINNED);
				volume->ExpectPinned(wanted);

				ForgetToolRuns();
				EXPECT_EQ(Set(name, false, isNoWait), 0);
				adopting.WaitForAll();
				std::sort(wanted.begin(), wanted.end());
				for (const char *action : {"--unset-bitmap", "--unpin-range"}) {
					Ranges unpinned = ToolRanges(*volume, action);
					std::sort(unpinned.begin(), unpinned.end());
					EXPECT_EQ(unpinned, wanted) << action;
				}
				EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_IDLE);
				volume->ExpectNotPinned();
				EXPECT_EQ(journal.Lines(), Strings());
			});
		}
	}
}

TEST_F(CacheSystem, TellsHowFarItIs)
{
	FillMetadataChunk();
	unsigned long long size = 0;
	ASSERT_EQ(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume->path.c_str(), &size), 0);
	const Ranges wanted = volume->Wanted(ChunksOnDevice(volume->path, volume->device.Path()));
	std::vector<size_t> large; // runs of the tool behind which the report changes
	for (size_t i = 0; i < wanted.size(); ++i)
		if (IsLarge(wanted[i]))
			large.push_back(i + 1);
	ASSERT_GE(large.size(), 3u);

	Gate first(large[1]);
	Gate second(large[2]);
	EXPECT_EQ(Set(volume->path, true, true), 0);
	first.WaitForTool();
	const Status early = GetStatus();
	EXPECT_EQ(early.status, ZEVO_METADATA_CACHE_WORKING);
	EXPECT_EQ(early.total, size);
	EXPECT_GT(early.processed, 0u);
	std::this_thread::sleep_for(std::chrono::milliseconds(4100)); // it is not reported more often
	first.LetGo();
	second.WaitForTool();
	const Status late = GetStatus();
	EXPECT_EQ(late.status, ZEVO_METADATA_CACHE_WORKING);
	EXPECT_EQ(late.total, size);
	EXPECT_GT(late.processed, early.processed);
	EXPECT_LT(late.processed, size);
	second.LetGo();
	adopting.WaitForAll();
	const Status end = GetStatus();
	EXPECT_EQ(end.status, ZEVO_METADATA_CACHE_PINNED);
	EXPECT_EQ(end.total, 7u);
	EXPECT_EQ(end.processed, 7u);
	EXPECT_EQ(volume->KernelSwitch(), '1');
	volume->ExpectNothingLeftOfThePass();
}

TEST_F(CacheSystem, ARescanPinsWhatTheFileSystemHasAddedAndIsPinnedMeanwhile)
{
	EXPECT_EQ(Set(volume->path, true), 0);
	const size_t before = volume->Recorded(false).size();
	FillMetadataChunk();
	ForgetToolRuns();
	{
		Gate gate;
		EXPECT_EQ(Rescan(volume->path, true), 0);
		gate.WaitForTool();
		EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_PINNED);
		gate.LetGo();
		adopting.WaitForAll();
	}
	EXPECT_GT(volume->Recorded(false).size(), before);
	volume->WhileChunksStay([&](const Strings &chunks) {
		const kit::Journal journal;
		EXPECT_EQ(Rescan(volume->device.Path()), 0);
		volume->ExpectPinned(volume->Wanted(chunks));
		EXPECT_EQ(journal.Lines(), Strings());
	});
	EXPECT_EQ(Set(volume->path, false), 0);
	volume->ExpectNotPinned();
	EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_IDLE);
}

TEST_F(CacheSystem, AForcedStopEndsAnEngine)
{
	Throttle(true);
	Gate gate(RunBeforeReading());
	const pid_t engine = SwitchOnInChild(SIG_DFL);
	gate.WaitForTool();
	gate.LetGo();
	EXPECT_EQ(EngineOfPidFile(), engine);
	EXPECT_GE(StopHeldUp("<4>btrfs_metadata_cache.cpp Success to force stop Btrfs Metadata Cache with vol path "),
	          std::chrono::seconds(1));
	ExpectKilledBy(SIGTERM, engine);
	adopting.WaitForAll();
	Throttle(false);
	ExpectNextSetCompletes();
}

TEST_F(CacheSystem, AForcedStopKillsAnEngineThatIgnoresSigterm)
{
	Gate gate;
	const pid_t engine = SwitchOnInChild(SIG_IGN);
	gate.WaitForTool();
	const auto taken =
		StopHeldUp("btrfs_metadata_cache.cpp Failed to force stop Btrfs Metadata Cache with vol path ");
	EXPECT_GT(taken, std::chrono::seconds(5));
	EXPECT_LT(taken, std::chrono::seconds(60));
	ExpectKilledBy(SIGKILL, engine);
	// Without waiting for the tool, which nobody is left to wait for.
	ExpectNextSetCompletes();
	gate.LetGo();
	adopting.WaitForAll();
}

TEST_F(CacheSystem, AForcedStopEndsAnEngineThatNobodyWaitsFor)
{
	Throttle(true);
	Gate gate(RunBeforeReading());
	EXPECT_EQ(Set(volume->path, true, true), 0);
	gate.WaitForTool();
	gate.LetGo();
	const pid_t engine = EngineOfPidFile();
	EXPECT_NE(engine, getpid());
	StopHeldUp("<4>btrfs_metadata_cache.cpp Success to force stop Btrfs Metadata Cache with vol path ");
	ExpectKilledBy(SIGTERM, engine);
	adopting.WaitForAll();
	Throttle(false);
	ExpectNextSetCompletes();
}

TEST_F(CacheSystem, AForcedStopLeavesAProcessAloneThatGotTheIdLater)
{
	EXPECT_EQ(Set(volume->path, false), 0); // makes the folders
	const pid_t other = fork();
	if (other == 0) {
		pause();
		_exit(0);
	}
	// The engine had started a moment before.
	std::istringstream fields(kit::ReadFile("/proc/" + std::to_string(other) + "/stat"));
	std::string word;
	for (int field = 1; field <= 22; ++field)
		fields >> word;
	const std::string began = std::to_string(std::stoull(word) - 1);
	kit::WriteFile(volume->runFile + ".pid", std::to_string(other) + " " + began + "\n");
	StopHeldUp("<4>btrfs_metadata_cache.cpp Success to force stop Btrfs Metadata Cache with vol path ");
	EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "it was hit";
	EXPECT_FALSE(fs::exists(volume->runFile + ".pid"));
	kill(other, SIGKILL);
	EXPECT_EQ(waitpid(other, nullptr, 0), other);
}

TEST_F(CacheSystem, AForcedStopRemovesAnEmptyPidFile)
{
	EXPECT_EQ(Set(volume->path, false), 0);
	kit::WriteFile(volume->runFile + ".pid", "");
	StopHeldUp("<4>btrfs_metadata_cache.cpp Success to force stop Btrfs Metadata Cache with vol path ");
	EXPECT_FALSE(fs::exists(volume->runFile + ".pid"));
	const kit::Journal journal;
	EXPECT_EQ(ForceStop(), 0); // with nothing to stop
	EXPECT_EQ(journal.Lines(), Strings());
}

TEST_F(CacheSystem, AVolumeThatIsNotMountedIsNone)
{
	EXPECT_EQ(Set(volume->path, true), 0);
	volume->Unmount();
	const kit::Journal journal;
	for (const std::string &name : {volume->path, volume->device.Path()}) {
		for (const bool isNoWait : {false, true}) {
			EXPECT_EQ(Set(name, false, isNoWait), -1);
			EXPECT_EQ(Rescan(name, isNoWait), -1);
		}
		EXPECT_EQ(ZEVOBtrfsMetadataCacheForceStop(name.c_str()), -1);
	}
	EXPECT_THAT(journal.Lines(), Contains(StartsWith("btrfs_metadata_cache.cpp Failed to find space with [")));
	EXPECT_EQ(kit::ReadFile(volume->conf), "metadata_cache=\"1\"\n");
}

/// What a host program has that its copy must not use: it runs in a child of the test.
class Host {
public:
	explicit Host(const std::string &folder) : trace(folder + "/trace"), stream(folder + "/stream") {}

	/// Leaves text in a stream, and what writes to a file at the end of the program; then switches on, and goes without either.
	[[noreturn]] void Run(std::string volume)
	{
		traceOfExit = &trace;
		atexit([] { kit::WriteFile(*traceOfExit, "exit handler"); });
		static const AtEnd destructor;
		FILE *const file = fopen(stream.c_str(), "w");
		fputs("not flushed", file);
		std::atomic<bool> isOver = false;
		constexpr size_t kThreads = 4;
		std::vector<std::thread> threads;
		threads.reserve(kThreads);
		for (size_t i = 0; i < kThreads; ++i)
			threads.emplace_back([&] {
				while (!isOver)
					std::this_thread::yield();
			});
		const int result = ZEVOBtrfsMetadataCacheSet(volume.data(), 1, 1);
		isOver = true;
		for (std::thread &thread : threads)
			thread.join();
		_exit(result == 0 ? 0 : 1);
	}

	const std::string trace;
	const std::string stream;

private:
	struct AtEnd {
		~AtEnd() { kit::WriteFile(*traceOfExit, "destructor"); }
	};
	static inline const std::string *traceOfExit = nullptr;
};

TEST_F(CacheSystem, TheChildThatIsNotWaitedForUsesNothingOfItsHost)
{
	const kit::TempDir folder;
	Host host(folder.Path());
	Gate gate;
	const pid_t child = fork();
	if (child == 0)
		host.Run(volume->path);
	int status = -1;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);

	gate.WaitForTool();
	const pid_t engine = EngineOfPidFile();
	EXPECT_NE(engine, child);
	EXPECT_EQ(getsid(engine), engine);
	EXPECT_EQ(ProcessLink(engine, "cwd"), "/");
	std::set<std::string> links;
	for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(engine) + "/fd"))
		links.insert(fs::read_symlink(entry));
	EXPECT_EQ(links, (std::set<std::string>{"/dev/null", volume->lock}));
	gate.LetGo();
	adopting.WaitForAll();
	EXPECT_EQ(GetStatus().status, ZEVO_METADATA_CACHE_PINNED);
	EXPECT_FALSE(fs::exists(host.trace)) << kit::ReadFile(host.trace);
	EXPECT_EQ(kit::ReadFile(host.stream), "");
}

} // namespace
