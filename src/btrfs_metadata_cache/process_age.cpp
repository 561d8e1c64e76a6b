#include "btrfs_metadata_cache/process_age.h"

#include "support/handles.h"
#include "support/text_buffer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

double Seconds(const timespec &time)
{
	return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double Now(clockid_t clock)
{
	timespec now = {};
	clock_gettime(clock, &now);
	return Seconds(now);
}

// In seconds since the machine started.
std::optional<double> StartTime(pid_t pid)
{
	const TextBuffer<32> path("/proc/%d/stat", pid);
	const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	char text[4096] = {};
	if (!file || read(file.get(), text, sizeof(text) - 1) <= 0)
		return std::nullopt;
	// The second field is the program's name in parentheses, which can hold blanks and parentheses itself.
	const char *const name = strrchr(text, ')');
	unsigned long long ticks;
	if (name == nullptr ||
	    // NOLINTNEXTLINE(cert-err34-c): the kernel's number fits
	    sscanf(name + 1, "%*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
	           &ticks) != 1)
		return std::nullopt;
	return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

} // namespace

bool MayHaveWritten(pid_t pid, const char *szPath)
{
	struct stat file;
	const std::optional<double> start = StartTime(pid);
	if (!start || stat(szPath, &file) != 0)
		return true;
	// In this order: being held up in between makes the process older, never younger.
	const double now = Now(CLOCK_REALTIME);
	const double age = Now(CLOCK_BOOTTIME) - *start;
	// Files get the time of the last tick, and no id comes round again within a second.
	constexpr double kInaccuracy = 1;
	return now - age <= Seconds(file.st_mtim) + kInaccuracy;
}
