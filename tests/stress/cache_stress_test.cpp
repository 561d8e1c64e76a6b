// Ten callers switch the metadata cache of real volumes on and off, rescan, stop by force and ask, all at once: each call keeps
// its promise, and what is pinned in the end is what a single caller would have pinned. ZEVOTUNED_STRESS_SECONDS says for how
// long each test lets them; 20 unless it is set.

#include "system/cached_volumes.h"

#include "kit/lab.h"
#include "kit/slow_build.h"

#include <vunkcore/vunkcore.h>
#include <zevotuned/zevotuned.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include <signal.h>
#include <sys/mman.h>

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr int kCallers = 10;

/// The sanitizers' allocators do not look after fork(): what another thread has locked at that moment stays so in the child.
#if defined(__SANITIZE_THREAD__)
constexpr bool kCanThreadsFork = false;
#elif defined(__has_feature)
constexpr bool kCanThreadsFork = !kit::kIsSlowBuild && !__has_feature(thread_sanitizer);
#else
constexpr bool kCanThreadsFork = !kit::kIsSlowBuild;
#endif

enum Call { kOn, kOff, kRescan, kOnNoWait, kOffNoWait, kRescanNoWait, kForceStop, kStatus, kCalls };

constexpr const char *kNames[kCalls] = {
	"on", "off", "rescan", "on, no wait", "off, no wait", "rescan, no wait", "forced stop", "status"};
// A forced stop takes a second, and what it stops has to get somewhere before. That of a process of many callers takes all of
// them with it.
constexpr int kWeights[kCalls] = {12, 8, 8, 12, 8, 8, 3, 41};
constexpr int kWeightsOfThreads[kCalls] = {120, 80, 80, 120, 80, 80, 4, 430};

enum Result { kSucceeded, kTimeout, kFailed, kEnded, kResults };

/// In memory that all processes share.
struct Counts {
	std::atomic<long> calls[kCalls][kResults];
	std::atomic<long> begun[kCalls];
	std::atomic<long> wrongStatus;
	std::atomic<long> leaked;
	std::atomic<long> killedAtOnce; // by SIGKILL, who does not ignore SIGTERM
	std::atomic<long> working;      // answers of the status
	std::atomic<long> pinned;
};

class SharedCounts {
public:
	SharedCounts()
		: memory(mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
	{
		if (memory == MAP_FAILED)
			throw std::bad_alloc();
	}
	~SharedCounts() { munmap(memory, sizeof(Counts)); }
	SharedCounts(const SharedCounts &) = delete;
	SharedCounts &operator=(const SharedCounts &) = delete;

	Counts &operator*() const { return *static_cast<Counts *>(memory); }
	Counts *operator->() const { return static_cast<Counts *>(memory); }

private:
	void *const memory;
};

bool Waits(int call)
{
	return call == kOn || call == kOff || call == kRescan;
}

/// The form of a call that waits, where there is one.
int Waiting(int call)
{
	return call >= kOnNoWait && call <= kRescanNoWait ? call - kOnNoWait + kOn : call;
}

int AskStatus(Counts &counts, const std::string &volume)
{
	int status = -1;
	unsigned long long total = 0;
	unsigned long long processed = 0;
	const int result = ZEVOBtrfsMetadataCacheStatus(volume.c_str(), &status, &total, &processed);
	if (result == 0 &&
	    (status < ZEVO_METADATA_CACHE_IDLE || status > ZEVO_METADATA_CACHE_PINNED || processed > total))
		++counts.wrongStatus;
	if (result == 0 && status == ZEVO_METADATA_CACHE_WORKING)
		++counts.working;
	if (result == 0 && status == ZEVO_METADATA_CACHE_PINNED)
		++counts.pinned;
	return result;
}

int Make(int call, Counts &counts, std::string volume)
{
	switch (call) {
	case kOn:
	case kOff:
	case kOnNoWait:
	case kOffNoWait:
		return ZEVOBtrfsMetadataCacheSet(volume.data(), call == kOn || call == kOnNoWait, Waits(call) ? 0 : 1);
	case kRescan:
	case kRescanNoWait:
		return ZEVOBtrfsMetadataCacheRescan(volume.data(), Waits(call) ? 0 : 1);
	case kForceStop:
		return ZEVOBtrfsMetadataCacheForceStop(volume.c_str());
	default:
		return AskStatus(counts, volume);
	}
}

/// A call in this process, and in the thread that makes it.
Result MakeHere(int call, Counts &counts, const std::string &volume)
{
	VUNKCErrSetEx(0, "", 0);
	if (Make(call, counts, volume) == 0)
		return kSucceeded;
	// Switch and configuration are read and written in turns, for which nobody waits for ever.
	if (call != kForceStop && call != kStatus && VUNKCErrGet() == VUNKC_ERR_TIMEOUT)
		return kTimeout;
	fprintf(stderr, "%s failed: 0x%04X %s:%d\n", kNames[call], static_cast<unsigned>(VUNKCErrGet()),
	        VUNKCErrorGetFile(), VUNKCErrorGetLine());
	return kFailed;
}

/// A call in a child of this process: who waits for an engine is ended together with it.
Result MakeInChild(int call, Counts &counts, const std::string &volume, bool ignoresSigterm)
{
	const pid_t child = fork();
	if (child == 0) {
		if (ignoresSigterm)
			signal(SIGTERM, SIG_IGN);
		const std::set<int> descriptors = kit::OpenDescriptors();
		const Result result = MakeHere(call, counts, volume);
		if (kit::OpenDescriptors() != descriptors || kit::Children() != 0)
			++counts.leaked;
		_exit(result);
	}
	int status = 0;
	if (child < 0 || waitpid(child, &status, 0) != child)
		return kFailed;
	if (WIFEXITED(status))
		return WEXITSTATUS(status) < kResults ? static_cast<Result>(WEXITSTATUS(status)) : kFailed;
	// SIGKILL also where SIGTERM would have done: a forced stop that has ended several engines, each of which had the next
	// one follow it, takes the last one for the first.
	if (WTERMSIG(status) == SIGKILL && !ignoresSigterm)
		++counts.killedAtOnce;
	return WTERMSIG(status) == SIGTERM || WTERMSIG(status) == SIGKILL ? kEnded : kFailed;
}

class Caller {
public:
	/// One that does not run the engines itself that it waits for has children do it.
	Caller(unsigned seed, bool runsEngines, Counts &all, const cached::Volumes &its, Clock::time_point until)
		: random(seed), isEngine(runsEngines), weights(std::begin(runsEngines ? kWeightsOfThreads : kWeights),
	                                                       std::end(runsEngines ? kWeightsOfThreads : kWeights)),
		  counts(all), volumes(its), end(until), first(static_cast<int>(seed) % kCalls)
	{
	}

	/// Makes calls until the time is over.
	void Work()
	{
		for (int next = first; Clock::now() < end; next = weights(random)) {
			const int call = isEngine && !kCanThreadsFork ? Waiting(next) : next;
			const std::string &volume = volumes[random() % volumes.Count()].path;
			const bool ignoresSigterm = random() % 8 == 0;
			++counts.begun[call];
			const Result result = Waits(call) && !isEngine
			                              ? MakeInChild(call, counts, volume, ignoresSigterm)
			                              : MakeHere(call, counts, volume);
			++counts.calls[call][result];
		}
	}

private:
	std::minstd_rand random;
	const bool isEngine;
	std::discrete_distribution<int> weights;
	Counts &counts;
	const cached::Volumes &volumes;
	const Clock::time_point end;
	const int first;
};

/// Blocks that are pinned, or to be, without what tells neighbours apart.
cached::Ranges Joined(cached::Ranges ranges)
{
	std::sort(ranges.begin(), ranges.end());
	cached::Ranges joined;
	for (const cached::Range &range : ranges)
		if (!joined.empty() && range.offset <= joined.back().offset + joined.back().size)
			joined.back().size =
				std::max(joined.back().offset + joined.back().size, range.offset + range.size) -
				joined.back().offset;
		else
			joined.push_back(range);
	return joined;
}

class CacheStress : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
	}

	void TearDown() override
	{
		unsetenv("PIN_TOOL_REAPER");
		volumes.reset();
		kit::LabTest::TearDown();
	}

	void Begin(size_t count)
	{
		volumes = std::make_unique<cached::Volumes>(count, STRESS_PIN_TOOL);
		for (size_t i = 0; i < count; ++i) // a rescan wants a switch
			ASSERT_EQ(Make(kOff, *counts, (*volumes)[i].path), 0);
		setenv("PIN_TOOL_REAPER", std::to_string(getpid()).c_str(), 1);
		const char *const setting = getenv("ZEVOTUNED_STRESS_SECONDS");
		end = Clock::now() + std::chrono::seconds(setting != nullptr ? strtol(setting, nullptr, 10) : 20);
	}

	/// A process of so many callers.
	pid_t StartCallers(unsigned seed, int threads)
	{
		const pid_t child = fork();
		if (child != 0)
			return child;
		const std::set<int> before = kit::OpenDescriptors();
		if (threads == 1) {
			Caller(seed, false, *counts, *volumes, end).Work();
		} else {
			std::vector<std::thread> callers;
			callers.reserve(static_cast<size_t>(threads));
			for (int i = 0; i < threads; ++i)
				callers.emplace_back([this, seed, i] {
					Caller(seed + static_cast<unsigned>(i), true, *counts, *volumes, end).Work();
				});
			for (std::thread &caller : callers)
				caller.join();
		}
		if (kit::OpenDescriptors() != before || kit::Children() != 0)
			++counts->leaked;
		_exit(0);
	}

	/// Waits for callers, and for the engines and tools that they leave, until nothing of them runs.
	void WaitForAll(const std::function<void(pid_t, int)> &ended)
	{
		int status = 0;
		for (pid_t pid; (pid = waitpid(-1, &status, 0)) > 0 || errno == EINTR;)
			if (pid > 0)
				ended(pid, status);
	}

	/// Of engines nobody waits for, tools, and who waits for those. What a caller was ended in the middle of making, not yet an
	/// engine, ends in its own ways: its report has no reader, or nobody opens the log's lock again.
	void CountOrphan(int status, const std::set<int> &signals = {})
	{
		++orphans;
		const int number = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
		const bool isForced = number == SIGTERM || number == SIGKILL;
		isForced ? ++orphansEnded : 0;
		EXPECT_TRUE(isForced || signals.contains(number) || (WIFEXITED(status) && WEXITSTATUS(status) <= 1))
			<< status;
	}

	void WithProcesses(size_t count)
	{
		ASSERT_NO_FATAL_FAILURE(Begin(count));
		std::set<pid_t> callers;
		for (unsigned i = 0; i < kCallers; ++i)
			callers.insert(StartCallers(i, 1));
		WaitForAll([&](pid_t pid, int status) {
			if (callers.erase(pid) == 0)
				CountOrphan(status);
			else
				EXPECT_EQ(status, 0) << "a caller has ended that ran no engine";
		});
		EXPECT_TRUE(callers.empty());
		for (int call = 0; call < kCalls; ++call)
			EXPECT_TRUE(Waits(call) || counts->calls[call][kEnded] == 0) << kNames[call];
		ExpectPromisesKept(true);
	}

	/// Whichever of its threads is stopped, the whole process is; another one then goes on.
	void WithThreads(size_t count)
	{
		ASSERT_NO_FATAL_FAILURE(Begin(count));
		unsigned seed = 0;
		pid_t host = StartCallers(seed, kCallers);
		WaitForAll([&](pid_t pid, int status) {
			if (pid != host) {
				CountOrphan(status, {SIGPIPE, SIGALRM});
				return;
			}
			EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) &&
			                            (WTERMSIG(status) == SIGTERM || WTERMSIG(status) == SIGKILL)))
				<< status;
			hostsEnded += status == 0 ? 0 : 1;
			host = Clock::now() < end ? StartCallers(seed += kCallers, kCallers) : 0;
		});
		for (int call = 0; call < kCalls; ++call)
			counts->calls[call][kEnded] = counts->begun[call] - counts->calls[call][kSucceeded] -
			                              counts->calls[call][kTimeout] - counts->calls[call][kFailed];
		ExpectPromisesKept(kCanThreadsFork);
	}

	void ExpectPromisesKept(bool canFork)
	{
		Print();
		for (int call = 0; call < kCalls; ++call) {
			EXPECT_EQ(counts->begun[call] > 0, canFork || Waiting(call) == call) << kNames[call];
			EXPECT_EQ(counts->calls[call][kFailed], 0) << kNames[call];
		}
		EXPECT_EQ(counts->wrongStatus, 0);
		EXPECT_EQ(counts->leaked, 0);
		unsetenv("PIN_TOOL_REAPER");
		for (size_t i = 0; i < volumes->Count(); ++i) {
			SCOPED_TRACE((*volumes)[i].path);
			ExpectCleanEnd((*volumes)[i]);
		}
	}

	void Print() const
	{
		for (int call = 0; call < kCalls; ++call)
			printf("%-16s %6ld: %ld succeeded, %ld ended by force, %ld timed out, %ld failed\n",
			       kNames[call], counts->begun[call].load(), counts->calls[call][kSucceeded].load(),
			       counts->calls[call][kEnded].load(), counts->calls[call][kTimeout].load(),
			       counts->calls[call][kFailed].load());
		printf("%ld times working, %ld pinned; %ld engines and tools left to themselves, of which %ld ended by "
		       "force; %ld hosts ended by force; "
		       "%ld killed at once; %ld runs of the tool, %ld too late\n",
		       counts->working.load(), counts->pinned.load(), orphans, orphansEnded, hostsEnded,
		       counts->killedAtOnce.load(), ToolCount("runs"), ToolCount("late"));
	}

	/// The first look is at what the callers have left, whichever way it is switched; then there and back.
	void ExpectCleanEnd(const cached::Volume &volume) const
	{
		volume.ExpectLockIsFree();
		EXPECT_EQ(Make(kRescan, *counts, volume.path), 0);
		const bool isOn = kit::ReadFile(volume.conf) == "metadata_cache=\"1\"\n";
		isOn ? ExpectPinned(volume) : ExpectNotPinned(volume);
		EXPECT_EQ(Make(isOn ? kOff : kOn, *counts, volume.path), 0);
		isOn ? ExpectNotPinned(volume) : ExpectPinned(volume);
		EXPECT_EQ(Make(kOff, *counts, volume.path), 0);
		ExpectNotPinned(volume);
	}

	void ExpectPinned(const cached::Volume &volume) const
	{
		volume.WhileChunksStay([&](const Strings &chunks) {
			EXPECT_EQ(Make(kRescan, *counts, volume.path), 0);
			volume.ExpectPinned(volume.Wanted(chunks));
			EXPECT_EQ(Pinned(volume), Joined(volume.Wanted(chunks)));
		});
		EXPECT_EQ(GetStatus(volume), ZEVO_METADATA_CACHE_PINNED);
	}

	void ExpectNotPinned(const cached::Volume &volume) const
	{
		volume.ExpectNotPinned();
		EXPECT_EQ(Pinned(volume), cached::Ranges());
		EXPECT_EQ(GetStatus(volume), ZEVO_METADATA_CACHE_IDLE);
	}

	static int GetStatus(const cached::Volume &volume)
	{
		int status = -1;
		unsigned long long size = 0;
		EXPECT_EQ(ZEVOBtrfsMetadataCacheStatus(volume.path.c_str(), &status, &size, &size), 0);
		return status;
	}

	static std::string ToolFile(const std::string &name)
	{
		const std::string path = std::string(cached::kToolFolder) + "/" + name;
		return fs::exists(path) ? kit::ReadFile(path) : "";
	}
	static long ToolCount(const std::string &name) { return static_cast<long>(ToolFile(name).size()); }

	/// What the tool has been told to pin, and not to unpin.
	static cached::Ranges Pinned(const cached::Volume &volume)
	{
		constexpr uint64_t kBlock = 4096;
		const std::string blocks = ToolFile(fs::path(volume.path).filename());
		cached::Ranges ranges;
		for (size_t i = 0; i < blocks.size(); ++i)
			if (blocks[i] != 0)
				ranges.push_back({i * kBlock, kBlock});
		return Joined(ranges);
	}

	const cached::Adopting adopting;
	const SharedCounts counts;
	std::unique_ptr<cached::Volumes> volumes;
	Clock::time_point end;
	long orphans = 0;
	long orphansEnded = 0;
	long hostsEnded = 0;
};

TEST_F(CacheStress, ProcessesOnOneVolume)
{
	WithProcesses(1);
}

TEST_F(CacheStress, ProcessesOnThreeVolumes)
{
	WithProcesses(3);
}

TEST_F(CacheStress, ThreadsOnThreeVolumes)
{
	WithThreads(3);
}

} // namespace
