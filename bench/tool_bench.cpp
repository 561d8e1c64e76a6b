// `zevotune list` as a whole process, with the shipped profiles.

#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kRuns = 101;

void MeasureTool()
{
	bench::RemoveLocalProfiles();
	posix_spawn_file_actions_t actions;
	BENCH_REQUIRE(posix_spawn_file_actions_init(&actions) == 0);
	BENCH_REQUIRE(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0);
	std::vector<double> milliseconds;
	long kibibytes = 0;
	for (int run = 0; run < kRuns; ++run) {
		std::string program = ZEVOTUNE_PROGRAM;
		std::string command = "list";
		char *arguments[] = {program.data(), command.data(), nullptr};
		const auto start = std::chrono::steady_clock::now();
		pid_t pid;
		int status;
		struct rusage usage;
		BENCH_REQUIRE(posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ) == 0);
		BENCH_REQUIRE(wait4(pid, &status, 0, &usage) == pid && status == 0);
		milliseconds.push_back(
			std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
		kibibytes = std::max(kibibytes, usage.ru_maxrss);
	}
	posix_spawn_file_actions_destroy(&actions);
	std::nth_element(milliseconds.begin(), milliseconds.begin() + kRuns / 2, milliseconds.end());
	printf("zevotune list: %.2f ms (goal 5), %.1f MiB (goal 8)\n", milliseconds[kRuns / 2],
	       static_cast<double>(kibibytes) / 1024);
}

[[maybe_unused]] const bool registered = [] {
	bench::Absolute(MeasureTool);
	return true;
}();

} // namespace
