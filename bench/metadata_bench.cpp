// Finding the metadata chunks of real volumes of three sizes: the whole process against what else there is for it, and
// what one more chunk costs.

#include "bench.h"

#include "btrfs_metadata_cache/chunk_discovery.h"
#include "kit/loop_device.h"
#include "kit/machine.h"

#include <zevotuned/metadata_cache.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr int kRuns = 15;

double MillisecondsSince(Clock::time_point start)
{
	return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double Median(std::vector<double> values)
{
	std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
	return values[values.size() / 2];
}

/// Runs a program to its end, its output thrown away.
double Milliseconds(Words words)
{
	std::vector<char *> arguments;
	for (std::string &word : words)
		arguments.push_back(word.data());
	arguments.push_back(nullptr);
	posix_spawn_file_actions_t actions;
	BENCH_REQUIRE(posix_spawn_file_actions_init(&actions) == 0);
	BENCH_REQUIRE(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0);
	const Clock::time_point start = Clock::now();
	pid_t pid;
	int status;
	BENCH_REQUIRE(posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) == 0);
	BENCH_REQUIRE(waitpid(pid, &status, 0) == pid && status == 0);
	const double taken = MillisecondsSince(start);
	posix_spawn_file_actions_destroy(&actions);
	return taken;
}

constexpr const char *kPython = R"(import btrfs, sys
wanted = btrfs.BLOCK_GROUP_METADATA | btrfs.BLOCK_GROUP_SYSTEM
with btrfs.FileSystem(sys.argv[1]) as fs:
    for chunk in fs.chunks():
        if chunk.type & wanted:
            print(chunk.vaddr, chunk.length, *(stripe.offset for stripe in chunk.stripes))
)";

/// A volume that grows. Each GiB of data that is taken lets it make one chunk for metadata.
class Volume {
public:
	Volume() : sys("/run/lab/kernel-sys", "/sys", "", MS_BIND), device(4200LL << 30)
	{
		kit::RunProgram({"mkfs.btrfs", "-q", "-f", "-K", "-m", "single", device.Path()});
		mount = std::make_unique<kit::MountPoint>(device.Path(), folder.Path(), "btrfs", 0, "metadata_ratio=1");
	}

	void Grow(int wanted)
	{
		for (; files < wanted; ++files) {
			const std::string name = folder.Path("d" + std::to_string(files));
			const int fd = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
			BENCH_REQUIRE(fd >= 0 && fallocate(fd, 0, 0, 1LL << 30) == 0);
			bench::WriteFile(folder.Path("t" + std::to_string(files)), "");
			BENCH_REQUIRE(syncfs(fd) == 0);
			close(fd);
		}
		kit::RunProgram({"blockdev", "--flushbufs", device.Path()});
	}

	std::string Path() const { return folder.Path(); }
	std::string Device() const { return device.Path(); }

	int Walk() const
	{
		chunk_info chunk = {};
		int count = 0;
		int result;
		while ((result = BtrfsMetadataCacheChunkNext(Path().c_str(), Device().c_str(), &chunk, 0)) == 0)
			++count;
		BENCH_REQUIRE(result == 1);
		return count;
	}

private:
	kit::MountPoint sys; // without the lab's overlay, which takes a device that comes back for a stale one
	kit::TempDir folder;
	kit::LoopDevice device;
	std::unique_ptr<kit::MountPoint> mount;
	int files = 0;
};

void PrintSize(const Volume &volume)
{
	std::vector<double> ours, tool, python, walks, sums;
	int chunks = 0;
	for (int run = 0; run < kRuns; ++run) {
		ours.push_back(Milliseconds({CHUNKS_PROGRAM, volume.Path(), volume.Device()}));
		tool.push_back(
			Milliseconds({"btrfs", "inspect-internal", "dump-tree", "-t", "chunk", volume.Device()}));
		python.push_back(Milliseconds({"/usr/bin/python3", "-c", kPython, volume.Path()}));
		const Clock::time_point start = Clock::now();
		chunks = volume.Walk();
		walks.push_back(MillisecondsSince(start));
		const Clock::time_point startOfSum = Clock::now();
		unsigned long long size = 0;
		BENCH_REQUIRE(ZEVOBtrfsMetadataCacheTotalMetadataSizeGet(volume.Path().c_str(), &size) == 0);
		sums.push_back(MillisecondsSince(startOfSum));
	}
	const double mine = Median(ours);
	printf("%8d %12.2f %12.2f %12.2f %11.2f%s %11.1f%s %12.2f %12.1f\n", chunks, mine, Median(tool), Median(python),
	       Median(tool) / mine, Median(tool) >= mine ? "" : "  missed", Median(python) / mine,
	       Median(python) >= 10 * mine ? "" : "  missed", Median(walks) * 1000 / chunks, Median(sums) * 1000);
}

void MeasureDiscovery()
{
	if (!kit::HasLoopDevices()) {
		printf("\nMetadata chunks: not measured, there are no loop devices here\n");
		return;
	}
	printf("\nMetadata chunks of a volume with as many data chunks: whole processes, ms; goals: 1 time, 10 times "
	       "as fast\n");
	printf("%8s %12s %12s %12s %11s %11s %12s %12s\n", "chunks", "ours", "dump-tree", "python3", "/dump-tree",
	       "/python3", "us a chunk", "size, us");
	Volume volume;
	for (const int chunks : {60, 600, 2000}) {
		volume.Grow(chunks);
		PrintSize(volume);
	}
}

[[maybe_unused]] const bool registered = [] {
	bench::Absolute(MeasureDiscovery);
	return true;
}();

} // namespace
