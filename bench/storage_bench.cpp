// The sections for disks and arrays on a machine with 24 disks, against the bare writes; and what listing volumes costs on
// machines of three sizes.

#include "bench.h"
#include "machines.h"

#include <vunkcore/error.h>
#include <zevostorage/zevostorage.h>
#include <zevotuned/zevotuned.h>

#include <chrono>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

void WriteAll(const std::vector<std::string> &files, std::string_view value)
{
	for (const std::string &file : files) {
		const int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC);
		BENCH_REQUIRE(fd >= 0 && write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size()));
		close(fd);
	}
}

void EnumVolumes()
{
	ZEVOMOUNTVOL *const volumes = ZEVOMountVolInfoEnum(0, 0);
	BENCH_REQUIRE(VUNKCErrGet() == 0 && volumes != nullptr);
	ZEVOMountVolInfoFree(volumes);
}

void EnumSpaces()
{
	ZEVOSPACEINFO *spaces = nullptr;
	BENCH_REQUIRE(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &spaces) == 0 && spaces != nullptr);
	ZEVOSpaceInfoFree(spaces);
}

void EnumSpaceDisks()
{
	ZEVOSPACEINFO *spaces = nullptr;
	BENCH_REQUIRE(ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &spaces) == 0);
	for (const ZEVOSPACEINFO *space = spaces; space != nullptr; space = space->pNext) {
		VUNKSZLIST *disks = VUNKCSzListAlloc(1024);
		BENCH_REQUIRE(ZEVOSpaceDiskEnum(space, &disks) == 1);
		VUNKCSzListFree(disks);
	}
	ZEVOSpaceInfoFree(spaces);
}

double Microseconds(void (*call)())
{
	using Clock = std::chrono::steady_clock;
	double best = 0;
	for (int i = 0; i < 10; ++i) {
		const Clock::time_point begin = Clock::now();
		call();
		const double taken = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
		best = i == 0 ? taken : std::min(best, taken);
	}
	return best;
}

void PrintGrowth()
{
	printf("\n%-28s %16s %16s %16s\n", "us a volume", "125 volumes", "250 volumes", "500 volumes");
	const std::pair<const char *, void (*)()> kCalls[] = {
		{"volumes", EnumVolumes}, {"spaces", EnumSpaces}, {"spaces and their disks", EnumSpaceDisks}};
	double taken[std::size(kCalls)][3];
	const int sizes[] = {125, 250, 500};
	for (size_t size = 0; size < std::size(sizes); ++size) {
		bench::HaveVolumes(sizes[size]);
		for (size_t call = 0; call < std::size(kCalls); ++call)
			taken[call][size] = Microseconds(kCalls[call].second) / sizes[size];
	}
	for (size_t call = 0; call < std::size(kCalls); ++call)
		printf("%-28s %16.1f %16.1f %16.1f\n", kCalls[call].first, taken[call][0], taken[call][1],
		       taken[call][2]);
	printf("(each volume is mounted twice, and each two lie on a disk: at 500, 1,001 mounts and 750 block "
	       "devices)\n");
}

void SetUpBays(const benchmark::State &)
{
	bench::RemoveLocalProfiles();
	bench::HaveBays();
}

[[maybe_unused]] const bool registered = [] {
	bench::Pair(
		"apply [disk], 1 key, 12 SSDs of 24 disks", bench::kNoGoal,
		[] { BENCH_REQUIRE(TuneApplyProfile("bench_disk") == 0); },
		[] { WriteAll(bench::SchedulerFiles(), "mq-deadline"); }, SetUpBays);
	bench::Pair(
		"apply [raid_cfq_default], 2 keys, 24 disks", bench::kNoGoal,
		[] { BENCH_REQUIRE(TuneApplyProfile("bench_raid") == 0); },
		[] { WriteAll(bench::TunableFiles(), "32"); }, SetUpBays);
	bench::Absolute(PrintGrowth);
	return true;
}();

} // namespace
