// The pin engine on real file systems, with a program for a pin tool. The attribute that only an appliance's kernel has stands
// beside the real ones, in a /sys of the test's own.

#include "btrfs_metadata_cache/pin_engine.h"

#include "system/btrfs_chunks.h"

#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/loop_device.h"
#include "kit/machine.h"

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/section_file.h>
#include <zevostorage/zevostorage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <numeric>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;

constexpr long long kGiB = 1LL << 30;
constexpr const char *kTool = "/usr/zevo/sbin/zevocachepinfiletool";
constexpr const char *kToolFolder = "/run/pin-tool";

struct Range {
	uint64_t offset;
	uint64_t size;

	auto operator<=>(const Range &) const = default;
};

using Ranges = std::vector<Range>;

void PrintTo(const Range &range, std::ostream *out)
{
	*out << range.offset << '+' << range.size;
}

/// Each stripe of "offset size stripe stripe".
Ranges Stripes(const Strings &chunks)
{
	Ranges ranges;
	for (const std::string &chunk : chunks) {
		std::istringstream words(chunk);
		uint64_t address;
		uint64_t size;
		words >> address >> size;
		for (uint64_t stripe; words >> stripe;)
			ranges.push_back({stripe, size});
	}
	return ranges;
}

/// Lets the tool's next run wait. It must be let go.
class Gate {
public:
	Gate()
	{
		for (const std::string &pipe : {started, gate})
			if (mkfifo(pipe.c_str(), 0600) != 0)
				throw std::runtime_error("no pipe");
		fd = open(started.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
	}
	~Gate()
	{
		if (fd >= 0)
			LetGo();
	}
	Gate(const Gate &) = delete;
	Gate &operator=(const Gate &) = delete;

	void WaitForTool() const
	{
		pollfd wait = {fd, POLLIN, 0};
		ASSERT_EQ(poll(&wait, 1, 60000), 1) << "the tool was not run";
	}
	void LetGo()
	{
		fs::remove(started); // the runs that follow do not wait
		close(std::exchange(fd, -1));
		opened = open(gate.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
		EXPECT_EQ(write(opened, "\n", 1), 1);
	}
	/// Once the tool has ended.
	void Remove()
	{
		close(opened);
		fs::remove(gate);
	}

private:
	const std::string started = std::string(kToolFolder) + "/started";
	const std::string gate = std::string(kToolFolder) + "/gate";
	int fd = -1;
	int opened = -1;
};

class PinSystem : public kit::LabTest {
protected:
	void SetUp() override
	{
		if (!kit::HasLoopDevices())
			GTEST_SKIP() << "there are no loop devices here";
		MakeSys();
		fs::create_directory(kToolFolder);
		fs::create_directories(fs::path(kTool).parent_path());
		fs::copy_file(std::string(SYSTEM_TESTS) + "/recording_pin_tool.sh", kTool);
		device = std::make_unique<kit::LoopDevice>(kGiB);
		kit::RunProgram({"mkfs.btrfs", "-q", "-f", "-K", "-m", "dup", device->Path()});
		volume = folder.Path("volume");
		fs::create_directory(volume);
		Mount();
		char uuid[ZEVO_UUID_SIZE] = "";
		ASSERT_EQ(ZEVOFSGetBTRFSUuid(volume.c_str(), uuid, sizeof(uuid)), 0);
		attribute = "/sys/fs/btrfs/" + std::string(uuid) + "/metadata_cache_enable";
		runFile = "/run/zevotuned/metadata_cache/" + std::string(uuid);
		lock = "/run/lock/zevotuned/metadata_cache/" + std::string(uuid) + ".lock";
		conf = std::string(ZEVO_VOLUME_CONF_DIR) + "/" + uuid;
		mapping = volume + "/@eaDir/zevo_btrfs_metadata_mapping_config";
		kit::WriteFile(attribute, "0\n");
		kit::WriteFile(ZEVO_FLASH_CACHE_FILE, "[one]\nvolume=" + volume +
		                                              "\nid=ssd_1\nmode=4\nflags=0x6\n"
		                                              "size=256000000000\nreference=cache-1\n");
		Switch(true);
	}

	void TearDown() override
	{
		mount.reset();
		device.reset();
		sys.reset();
		fs::remove_all(kToolFolder);
		fs::remove(kTool);
		kit::LabTest::TearDown();
	}

	/// One of the test's own: an overlay takes a device or a file system that has gone and come back for a stale one.
	void MakeSys()
	{
		sys.reset();
		const kit::TempDir &layers = *sysLayers.emplace_back(std::make_unique<kit::TempDir>());
		fs::create_directory(layers.Path("upper"));
		fs::create_directory(layers.Path("work"));
		sys = std::make_unique<kit::MountPoint>("overlay", "/sys", "overlay", 0,
		                                        ("lowerdir=/run/lab/kernel-sys,upperdir=" +
		                                         layers.Path("upper") + ",workdir=" + layers.Path("work"))
		                                                .c_str());
	}

	void Mount()
	{
		mount = std::make_unique<kit::MountPoint>(device->Path(), volume, "btrfs");
		MakeSys();
	}

	void Switch(bool isOn) const
	{
		kit::WriteFile(conf, isOn ? "metadata_cache=\"1\"\n" : "metadata_cache=\"0\"\n");
	}
	int Pass() const { return __BtrfsMetadataCacheSet(volume.c_str()); }

	/// What the file system's own tools say is to be pinned, in the order of the walks.
	Ranges Wanted(const Strings &chunks) const
	{
		Ranges ranges = Stripes(SuperblocksOnDevice(device->Path()));
		const Ranges stripes = Stripes(chunks);
		ranges.insert(ranges.end(), stripes.begin(), stripes.end());
		return ranges;
	}

	/// The ranges that the tool was asked to do something to since the last time.
	Ranges ToolRanges(const std::string &action) const
	{
		const std::string path = std::string(kToolFolder) + "/lines";
		std::istringstream lines(fs::exists(path) ? kit::ReadFile(path) : "");
		const std::regex pattern(action + " --mount-path " + volume +
		                         " --start-sector (\\d+) --num-sectors (\\d+)");
		Ranges ranges;
		std::smatch match;
		for (std::string line; std::getline(lines, line);)
			if (std::regex_match(line, match, pattern))
				ranges.push_back({std::stoull(match[1]) * 512, std::stoull(match[2]) * 512});
		return ranges;
	}
	void ForgetToolRuns() const { fs::remove(std::string(kToolFolder) + "/lines"); }
	size_t ToolRuns() const
	{
		const std::string path = std::string(kToolFolder) + "/lines";
		const std::string lines = fs::exists(path) ? kit::ReadFile(path) : "";
		return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
	}

	/// What is recorded, by offset; those that are not done only with `wantsUndone`.
	Ranges Recorded(bool wantsUndone) const
	{
		Ranges ranges;
		VUNKSZLIST *sections = VUNKCSzListAlloc(1024);
		EXPECT_GE(VUNKCFileEnumSection(mapping.c_str(), &sections), 0);
		for (int i = 0; i < sections->nItem; ++i) {
			VUNKSZHASH *pairs = VUNKCSzHashAlloc(1024);
			EXPECT_GE(VUNKCFileGetSection(mapping.c_str(), VUNKCSzListGet(sections, i), &pairs), 0);
			const char *const size = VUNKCSzHashGetValue(pairs, "size");
			const std::string status = VUNKCSzHashGetValue(pairs, "status");
			for (const char *key : {"stripe_offset_0", "stripe_offset_1"})
				if (const char *stripe = VUNKCSzHashGetValue(pairs, key);
				    stripe != nullptr && (wantsUndone || status == "1"))
					ranges.push_back({std::stoull(stripe), std::stoull(size)});
			VUNKCSzHashFree(pairs);
		}
		VUNKCSzListFree(sections);
		std::sort(ranges.begin(), ranges.end());
		return ranges;
	}

	void ExpectNothingLeftOfThePass() const
	{
		EXPECT_FALSE(fs::exists(runFile + ".pid"));
		EXPECT_FALSE(fs::exists(runFile + ".progress"));
		const int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC);
		EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
		close(fd);
	}

	/// After a pass that was wanted and has succeeded.
	void ExpectPinned(Ranges wanted) const
	{
		std::sort(wanted.begin(), wanted.end());
		EXPECT_EQ(Recorded(false), wanted);
		EXPECT_EQ(kit::ReadFile(attribute).substr(0, 1), "1");
		EXPECT_NE(kit::ReadFile(mapping).find("2"), std::string::npos);
		ExpectNothingLeftOfThePass();
	}

	void SwitchedOffAgain() const
	{
		Switch(false);
		EXPECT_EQ(Pass(), 0);
		EXPECT_FALSE(fs::exists(mapping));
		EXPECT_EQ(kit::ReadFile(attribute).substr(0, 1), "0");
		ExpectNothingLeftOfThePass();
		Switch(true);
		ForgetToolRuns();
	}

	/// How many bytes were ever read from the device.
	uint64_t BytesRead() const
	{
		std::istringstream numbers(kit::ReadFile("/run/lab/kernel-sys/block/" + device->Name() + "/stat"));
		uint64_t requests;
		uint64_t merges;
		uint64_t sectors = 0;
		numbers >> requests >> merges >> sectors;
		return sectors * 512;
	}

	/// Pages of the ranges that the kernel has in its page cache of the device.
	size_t PagesInMemory(const Ranges &ranges) const
	{
		const int fd = open(device->Path().c_str(), O_RDONLY | O_CLOEXEC);
		void *const memory = mmap(nullptr, kGiB, PROT_READ, MAP_SHARED, fd, 0);
		close(fd);
		EXPECT_NE(memory, MAP_FAILED);
		size_t pages = 0;
		for (const Range &range : ranges) {
			std::vector<unsigned char> isThere(range.size / 4096);
			EXPECT_EQ(mincore(static_cast<char *>(memory) + range.offset, range.size, isThere.data()), 0);
			pages += static_cast<size_t>(
				std::count_if(isThere.begin(), isThere.end(), [](unsigned char is) { return is & 1; }));
		}
		munmap(memory, kGiB);
		return pages;
	}

	kit::TempDir folder;
	std::vector<std::unique_ptr<kit::TempDir>> sysLayers;
	std::unique_ptr<kit::MountPoint> sys;
	std::unique_ptr<kit::LoopDevice> device;
	std::unique_ptr<kit::MountPoint> mount;
	std::string volume;
	std::string attribute;
	std::string runFile;
	std::string lock;
	std::string conf;
	std::string mapping;
};

TEST_F(PinSystem, PinsWhatTheFileSystemHasAndUnpinsItAgain)
{
	WhileChunksStay(volume, device->Path(), [&](const Strings &chunks) {
		const kit::Journal journal;
		const Ranges wanted = Wanted(chunks);
		EXPECT_GE(wanted.size(), 6u); // two copies of the superblock, two chunks of DUP
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(ToolRanges("--set-bitmap"), wanted);
		EXPECT_EQ(ToolRuns(), wanted.size());
		ExpectPinned(wanted);

		ForgetToolRuns();
		EXPECT_EQ(Pass(), 0); // again, with nothing to do
		EXPECT_EQ(ToolRuns(), 0u);
		ExpectPinned(wanted);

		Switch(false);
		EXPECT_EQ(Pass(), 0);
		Ranges sorted = wanted;
		std::sort(sorted.begin(), sorted.end());
		for (const char *action : {"--unset-bitmap", "--unpin-range"}) {
			Ranges unpinned = ToolRanges(action);
			std::sort(unpinned.begin(), unpinned.end());
			EXPECT_EQ(unpinned, sorted) << action;
		}
		SwitchedOffAgain();
		EXPECT_EQ(journal.Lines(), Strings());
	});
}

TEST_F(PinSystem, ReadsWhatIsPinnedFromTheDeviceAndLeavesNoneOfItInMemory)
{
	WhileChunksStay(volume, device->Path(), [&](const Strings &chunks) {
		const Ranges wanted = Stripes(chunks);
		kit::RunProgram({"dd", "if=" + device->Path(), "of=/dev/null", "bs=1M", "status=none"});
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
	mount.reset();
	gate.LetGo();
	engine.join();
	gate.Remove();
	EXPECT_EQ(result, -1);
	EXPECT_TRUE(journal.Lines().back().starts_with(
		"btrfs_metadata_cache.cpp Failed to __BtrfsMetadataCacheSet with [" + volume + "]"));
	EXPECT_EQ(ToolRuns(), 1u);
	ExpectNothingLeftOfThePass();
	EXPECT_EQ(kit::Names(volume), std::set<std::string>()); // of the folder below

	Mount();
	kit::WriteFile(attribute, "0\n");
	WhileChunksStay(volume, device->Path(), [&](const Strings &chunks) {
		journal.Clear();
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(journal.Lines(), Strings());
		ExpectPinned(Wanted(chunks));
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
	EXPECT_EQ(ToolRanges("--set-bitmap").size(), 1u);
	EXPECT_EQ(Recorded(true), ToolRanges("--set-bitmap"));
	EXPECT_EQ(Recorded(false), Ranges());

	WhileChunksStay(volume, device->Path(), [&](const Strings &chunks) {
		const kit::Journal journal;
		EXPECT_EQ(Pass(), 0);
		ExpectPinned(Wanted(chunks));
		EXPECT_EQ(journal.Lines(), Strings());
	});
	SwitchedOffAgain();
}

TEST_F(PinSystem, ASecondEngineLeavesTheVolumeToTheFirst)
{
	WhileChunksStay(volume, device->Path(), [&](const Strings &chunks) {
		const kit::Journal journal;
		int result = -1;
		Gate gate;
		std::thread engine([&] { result = Pass(); });
		gate.WaitForTool();
		EXPECT_EQ(Pass(), 0);
		EXPECT_EQ(ToolRuns(), 1u);
		EXPECT_EQ(Recorded(false), Ranges()); // the first one is still at work
		EXPECT_TRUE(fs::exists(runFile + ".pid"));
		gate.LetGo();
		engine.join();
		gate.Remove();
		EXPECT_EQ(result, 0);
		EXPECT_EQ(ToolRanges("--set-bitmap"), Wanted(chunks));
		ExpectPinned(Wanted(chunks));
		EXPECT_EQ(journal.Lines(), Strings());
		SwitchedOffAgain();
	});
}

} // namespace
