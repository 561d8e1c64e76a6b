// What the pin engine costs. Beside the pin tool and the reading, which are not its own: for each chunk that is pinned, found
// pinned and unpinned, against floors that do as much to the mapping file and nothing else. And how fast it reads a chunk,
// against dd. A program of its own: what it defines stands before the functions of the libraries, whose cost others measure.
//
//     zevotuned_pin_bench CHUNKS...    that many only, in memory, once: for tools that count
//     zevotuned_pin_bench preload      the reading only

#include "bench.h"

#include "btrfs_metadata_cache/chunk_lookup.h"
#include "btrfs_metadata_cache/chunk_records.h"
#include "btrfs_metadata_cache/pin_engine.h"
#include "btrfs_metadata_cache/preload.h"
#include "kit/files.h"
#include "kit/loop_device.h"

#include <vunkcore/process.h>
#include <vunkcore/section_file.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr unsigned long long kDistance = 256ULL << 20; // from one chunk to the next
constexpr unsigned long long kChunkBytes = 1ULL << 20; // few, as the reading is not what is measured
constexpr unsigned long long kPreloadBytes = 1ULL << 30;
constexpr char kUuid[] = "11111111-0000-4000-8000-0000000000aa";

/// The volume that the functions below tell of. Its chunks, of two stripes each, have the numbers from 1 up.
struct {
	std::string path;
	std::string device;
	unsigned long long chunks = 0;
	bool isWanted = true;
	bool hasReading = true; // without, a read is over at once
} volume;

ZEVOSPACEINFO space;
ZEVOFLASHCACHECONFIG cache = {ZEVO_FLASH_CACHE_MODE_WRITE_BACK, "ssd_1", "cache-1", 1ULL << 60};

int LookUp(btrfs_ioctl_chunk_lookup_args &request)
{
	const unsigned long long number = std::max(1ULL, (request.logical + kDistance - 1) / kDistance);
	if (number > volume.chunks)
		return 0;
	request.logical = number * kDistance;
	request.length = kChunkBytes;
	request.num_stripes = 2;
	request.stripe_offset[0] = request.logical;
	request.stripe_offset[1] = request.logical + (1ULL << 42);
	return 0;
}

int TellSpaces(btrfs_ioctl_space_args &request)
{
	if (request.space_slots != 0)
		request.spaces[0] = {BTRFS_BLOCK_GROUP_METADATA, volume.chunks * kChunkBytes, 0};
	request.total_spaces = 1;
	return 0;
}

} // namespace

extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept
{
	va_list values;
	va_start(values, request);
	void *const argument = va_arg(values, void *);
	va_end(values);
	switch (request) {
	case kChunkLookup:
		return LookUp(*static_cast<btrfs_ioctl_chunk_lookup_args *>(argument));
	case BTRFS_IOC_SPACE_INFO:
		return TellSpaces(*static_cast<btrfs_ioctl_space_args *>(argument));
	case BTRFS_IOC_FS_INFO:
		static_cast<btrfs_ioctl_fs_info_args *>(argument)->num_devices = 1;
		return 0;
	case BTRFS_IOC_DEV_INFO:
		strcpy(reinterpret_cast<char *>(static_cast<btrfs_ioctl_dev_info_args *>(argument)->path),
		       space.szDevice);
		return 0;
	case BLKGETSIZE64:
		*static_cast<uint64_t *>(argument) = 1 << 20; // room for one superblock
		return 0;
	default:
		return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
	}
}

ssize_t pread(int fd, void *buffer, size_t count, off_t offset)
{
	return volume.hasReading ? syscall(SYS_pread64, fd, buffer, count, offset) : static_cast<ssize_t>(count);
}

int VUNKCExecl(const char *, int, ...)
{
	return 0;
}

int ModelSupportPin()
{
	return 1;
}

int ZEVOGetFSType(const char *, int)
{
	return ZEVO_FS_BTRFS;
}

int ZEVOFSGetBTRFSUuid(const char *, char *szUuid, size_t cbUuid)
{
	snprintf(szUuid, cbUuid, "%s", kUuid);
	return 0;
}

int ZEVOSpaceInfoEnum(int, ZEVOSPACEINFO **ppList)
{
	*ppList = &space;
	return 0;
}

void ZEVOSpaceInfoFree(ZEVOSPACEINFO *) {}

int ZEVOFlashCacheConfigTmpGet(const ZEVOSPACEINFO *, int, ZEVOFLASHCACHECONFIG **ppConfig)
{
	*ppConfig = &cache;
	return 1;
}

void ZEVOFlashCacheConfigFree(ZEVOFLASHCACHECONFIG *) {}

int ZEVOFlashCacheSupportFlagsGet(const ZEVOFLASHCACHECONFIG *, unsigned int *puFlags)
{
	*puFlags = ZEVO_FLASH_CACHE_SUPPORT_PIN | ZEVO_FLASH_CACHE_SUPPORT_PIN_RANGE;
	return 0;
}

int ZEVOFlashCachePinIsVolumeSupport(const char *)
{
	return 1;
}

int ZEVOVolumeConfGet(const char *, ZEVOVOLUMECONF *pConf)
{
	pConf->uMetadataCache = volume.isWanted ? 1 : 0;
	return 0;
}

} // extern "C"

namespace {

using Clock = std::chrono::steady_clock;

template <class Action>
double Microseconds(Action &&action)
{
	const Clock::time_point start = Clock::now();
	action();
	return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double Median(std::vector<double> values)
{
	std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
	return values[values.size() / 2];
}

/// On the disk that the program lies on: the lab's own folders are in memory, where syncing costs nothing.
std::string FolderOnDisk()
{
	return fs::read_symlink("/proc/self/exe").parent_path() / "pin_bench.files";
}

std::string Mapping()
{
	return volume.path + "/@eaDir/zevo_btrfs_metadata_mapping_config";
}

void HaveVolume(const std::string &folder, unsigned long long chunks)
{
	fs::remove_all(folder);
	volume = {folder + "/volume", folder + "/device", chunks, true, false};
	space = {volume.device.c_str(), "", volume.path.c_str(), kUuid, nullptr};
	fs::create_directories(volume.path);
	bench::WriteFile(volume.device, "");
	bench::WriteFile(std::string("/sys/fs/btrfs/") + kUuid + "/metadata_cache_enable", "0\n");
	sync();
}

void Run()
{
	BENCH_REQUIRE(__BtrfsMetadataCacheSet(volume.path.c_str()) == 0);
}

enum class Folder { Synced, NotSynced };

/// The least that a change of the mapping file can be.
void Replace(std::string_view text, Folder synced)
{
	const std::string path = Mapping() + ".floor";
	const std::string temp = path + ".new";
	const int file = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
	BENCH_REQUIRE(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
	BENCH_REQUIRE(fsync(file) == 0 && rename(temp.c_str(), path.c_str()) == 0);
	if (synced == Folder::Synced) {
		const int folder = open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
		BENCH_REQUIRE(fsync(folder) == 0);
		close(folder);
	}
	close(file);
}

/// The mapping file when it had each number of chunks, the smallest first.
std::vector<std::string_view> Stages(std::string_view text)
{
	std::vector<std::string_view> stages;
	for (size_t header = text.find("\n["); header != std::string_view::npos;) {
		header = text.find("\n[", header + 1);
		stages.push_back(text.substr(0, header == std::string_view::npos ? text.size() : header + 1));
	}
	return stages;
}

/// Three changes for each chunk: its section is added, the most bytes used are written, the chunk is marked as done.
void ReplaceAsInPinning(const std::vector<std::string_view> &stages)
{
	for (const std::string_view stage : stages) {
		Replace(stage, Folder::Synced);
		Replace(stage, Folder::NotSynced);
		Replace(stage, Folder::NotSynced);
	}
}

void ReplaceAsInUnpinning(const std::vector<std::string_view> &stages)
{
	for (auto stage = stages.rbegin(); stage != stages.rend(); ++stage)
		Replace(*stage, Folder::Synced);
}

void ReadOnce()
{
	VUNKSZLIST *sections = VUNKCSzListAlloc(1024);
	BENCH_REQUIRE(VUNKCFileEnumSection(Mapping().c_str(), &sections) > 0);
	VUNKCSzListFree(sections);
}

struct Times {
	std::vector<double> ours;
	std::vector<double> floor;

	void Print(unsigned long long chunks) const
	{
		const double mine = Median(ours);
		const double least = Median(floor);
		const double perChunk = 1.0 / static_cast<double>(chunks);
		printf(" %10.1f %10.1f %7.2f", mine * perChunk, least * perChunk, mine / least);
	}
};

void MeasurePasses(const std::string &folder, const char *where, unsigned long long chunks, int rounds)
{
	Times pin, walk, unpin;
	for (int round = 0; round < rounds; ++round) {
		HaveVolume(folder, chunks);
		pin.ours.push_back(Microseconds(Run));
		const std::string text = kit::ReadFile(Mapping());
		const std::vector<std::string_view> stages = Stages(text);
		BENCH_REQUIRE(stages.size() == chunks + 1); // a superblock as well
		pin.floor.push_back(Microseconds([&] { ReplaceAsInPinning(stages); }));
		walk.ours.push_back(Microseconds(Run));
		walk.floor.push_back(Microseconds(ReadOnce));
		volume.isWanted = false;
		unpin.ours.push_back(Microseconds(Run));
		BENCH_REQUIRE(!fs::exists(Mapping()));
		unpin.floor.push_back(Microseconds([&] { ReplaceAsInUnpinning(stages); }));
	}
	printf("%-10s %7llu", where, chunks);
	for (const Times *const times : {&pin, &walk, &unpin})
		times->Print(chunks);
	printf("\n");
	fflush(stdout);
	fs::remove_all(folder);
}

void PrintHead()
{
	printf("\nThe pin engine without pin tool and reading: us a chunk, and their ratio\n");
	printf("%-18s %29s %29s %29s\n", "", "pin / 3 changes", "walk again / read once", "unpin / 1 change");
	printf("%-10s %7s", "file", "chunks");
	for (int i = 0; i < 3; ++i)
		printf(" %10s %10s %7s", "ours", "floor", "ratio");
	printf("\n");
}

void Forget(const std::string &path)
{
	const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	BENCH_REQUIRE(file >= 0 && fsync(file) == 0 && posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED) == 0);
	close(file);
}

void Fill(const std::string &device)
{
	std::vector<char> block(1 << 20);
	const int file = open(device.c_str(), O_WRONLY | O_CLOEXEC);
	BENCH_REQUIRE(file >= 0);
	for (unsigned long long done = 0; done < kPreloadBytes; done += block.size()) {
		for (char &byte : block)
			byte = static_cast<char>(random());
		BENCH_REQUIRE(write(file, block.data(), block.size()) == static_cast<ssize_t>(block.size()));
	}
	BENCH_REQUIRE(fsync(file) == 0);
	close(file);
}

/// By its own clock, which does not count the start of the process.
double MicrosecondsOfDd(const std::string &device)
{
	const std::string count = std::to_string(kPreloadBytes / 65536);
	const std::string said =
		kit::RunProgram({"env", "LC_ALL=C", "dd", "if=" + device, "of=/dev/null", "bs=64K", "count=" + count});
	constexpr std::string_view kBefore = "copied, ";
	const size_t seconds = said.find(kBefore);
	BENCH_REQUIRE(seconds != std::string::npos);
	return atof(said.c_str() + seconds + kBefore.size()) * 1e6;
}

void MeasurePreload()
{
	constexpr int kRounds = 10;
	constexpr double kGoal = 0.95;
	if (!kit::HasLoopDevices()) {
		printf("\nPreload: not measured, there are no loop devices here\n");
		return;
	}
	const std::string folder = FolderOnDisk();
	HaveVolume(folder, 1);
	setenv("TMPDIR", folder.c_str(), 1);
	const kit::LoopDevice device(kPreloadBytes);
	std::string image;
	for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder))
		if (entry.path().filename() == "image")
			image = entry.path();
	Fill(device.Path());
	sync(); // or marking the chunk as read would wait for what is still to be written
	volume.hasReading = true;
	bench::WriteFile(Mapping(), "");
	const chunk_info chunk = {kDistance, kPreloadBytes, 1, {0, 0}, 0};
	BENCH_REQUIRE(AddRecord(Mapping().c_str(), chunk));
	std::vector<double> ours, dd;
	for (int round = 0; round < kRounds; ++round) {
		// The first of the two in turn, as a disk that has its own memory favours the second.
		for (const bool isOurs : {round % 2 == 0, round % 2 != 0}) {
			Forget(device.Path());
			Forget(image);
			if (!isOurs) {
				dd.push_back(MicrosecondsOfDd(device.Path()));
				continue;
			}
			MetadataCacheContext ctx = {};
			ours.push_back(Microseconds([&] {
				BENCH_REQUIRE(PinBtrfsMetadataPreload(ctx, volume.path.c_str(), device.Path().c_str(),
				                                      Mapping().c_str(), &chunk) == 0);
			}));
		}
	}
	const double mebibytes = static_cast<double>(kPreloadBytes >> 20) * 1e6;
	const auto best = [](const std::vector<double> &times) { return *std::ranges::min_element(times); };
	const double ratio = Median(dd) / Median(ours);
	printf("\nPreload of 1 GiB of a loop device whose image is on disk, nothing of it cached: MiB/s, medians and "
	       "best\n");
	printf("%12s %12s %7s %7s %12s %12s %7s\n", "ours", "dd bs=64K", "ratio", "goal", "ours, best", "dd, best",
	       "ratio");
	printf("%12.0f %12.0f %7.2f %7.2f %12.0f %12.0f %7.2f%s\n", mebibytes / Median(ours), mebibytes / Median(dd),
	       ratio, kGoal, mebibytes / best(ours), mebibytes / best(dd), best(dd) / best(ours),
	       ratio >= kGoal ? "" : "  missed");
	fs::remove_all(folder);
}

} // namespace

int main(int argc, char **argv)
{
	const std::string inMemory = "/run/pin_bench.files";
	if (!fs::exists("/run/zevotuned-lab")) {
		fprintf(stderr, "bench: run this with bench/run, in the lab\n");
		return 1;
	}
	fs::create_directories("/usr/zevo/etc");
	if (argc == 2 && std::string_view(argv[1]) == "preload") {
		MeasurePreload();
		return 0;
	}
	PrintHead();
	for (int i = 1; i < argc; ++i)
		MeasurePasses(inMemory, "in memory", strtoull(argv[i], nullptr, 10), 1);
	if (argc > 1)
		return 0;
	for (const unsigned long long chunks : {100, 1000, 4000})
		MeasurePasses(inMemory, "in memory", chunks, 3);
	for (const unsigned long long chunks : {100, 1000, 4000})
		MeasurePasses(FolderOnDisk(), "on disk", chunks, chunks > 1000 ? 1 : 3);
	MeasurePreload();
	return 0;
}
