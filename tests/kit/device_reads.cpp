#include "kit/device_reads.h"

#include "kit/faults.h"
#include "kit/nth_call.h"
#include "kit/real.h"
#include "kit/timeline.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

kit::DeviceReads *current = nullptr;

std::string PathOf(int fd)
{
	const kit::Uncounted uncounted;
	char path[4096] = "";
	char link[64];
	snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
	return readlink(link, path, sizeof(path) - 1) < 0 ? "?" : path;
}

void Note(const std::string &line)
{
	current->lines.push_back(line);
	kit::Timeline::Note(line);
}

std::string Range(int fd, off_t offset, size_t size)
{
	return " " + PathOf(fd) + " " + std::to_string(offset) + "+" + std::to_string(size);
}

std::optional<ssize_t> Answer(int fd, size_t size, off_t offset)
{
	Note("pread" + Range(fd, offset, size));
	if (current->clock.has_value())
		*current->clock += current->clockAdvance;
	return current->answer ? current->answer(size, static_cast<uint64_t>(offset)) : std::nullopt;
}

} // namespace

extern "C" {

ssize_t pread(int fd, void *buffer, size_t size, off_t offset)
{
	static const auto real = kit::Real<ssize_t(int, void *, size_t, off_t)>("pread");
	if (kit::Strikes(kit::Calls::System, "pread"))
		return -1;
	if (current != nullptr) {
		current->buffer = buffer;
		if (const std::optional<ssize_t> answer = Answer(fd, size, offset))
			return *answer;
	}
	return real(fd, buffer, size, offset);
}

int posix_fadvise(int fd, off_t offset, off_t size, int advice) noexcept
{
	static const auto real = kit::Real<int(int, off_t, off_t, int)>("posix_fadvise");
	const int error = errno;
	if (kit::Strikes(kit::Calls::System, "posix_fadvise"))
		return std::exchange(errno, error);
	if (current != nullptr && advice == POSIX_FADV_DONTNEED)
		Note("posix_fadvise" + Range(fd, offset, static_cast<size_t>(size)));
	return real(fd, offset, size, advice);
}

int usleep(useconds_t microseconds)
{
	static const auto real = kit::Real<int(useconds_t)>("usleep");
	if (current == nullptr)
		return real(microseconds);
	Note("usleep " + std::to_string(microseconds));
	return 0;
}

int clock_gettime(clockid_t id, timespec *now) noexcept
{
	static const auto real = kit::Real<int(clockid_t, timespec *)>("clock_gettime");
	if (id != CLOCK_MONOTONIC || current == nullptr || !current->clock.has_value())
		return real(id, now);
	now->tv_sec = static_cast<time_t>(*current->clock / 1000000);
	now->tv_nsec = static_cast<long>(*current->clock % 1000000 * 1000);
	return 0;
}

// By way of a function that nobody here replaces, so that a sanitizer knows of the memory.
void *aligned_alloc(size_t alignment, size_t size) noexcept
{
	if (kit::Strikes(kit::Calls::System, "aligned_alloc"))
		return nullptr;
	void *memory = nullptr;
	const int error = posix_memalign(&memory, std::max(alignment, sizeof(void *)), size);
	if (error == 0)
		return memory;
	errno = error;
	return nullptr;
}

// Takes as many arguments as there can be, whether they were passed or not, as the kernel does; for the address sanitizer that is a
// stack overrun, which it would report on the small stack of a process that shares memory with this one, for ever.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept
{
	static const auto real = kit::Real<long(long, ...)>("syscall");
	long arguments[6];
	va_list values;
	va_start(values, number);
	for (long &argument : arguments)
		argument = va_arg(values, long);
	va_end(values);
	if (number == SYS_ioprio_set) {
		if (kit::Strikes(kit::Calls::System, "ioprio_set"))
			return -1;
		if (current != nullptr) {
			char line[64];
			snprintf(line, sizeof(line), "ioprio_set %d %d %#x", static_cast<int>(arguments[0]),
			         static_cast<int>(arguments[1]), static_cast<unsigned>(arguments[2]));
			Note(line);
			return 0;
		}
	}
	return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

} // extern "C"

namespace kit {

DeviceReads::DeviceReads()
{
	if (current != nullptr)
		throw std::logic_error("one at a time");
	current = this;
}

DeviceReads::~DeviceReads()
{
	current = nullptr;
}

std::vector<std::string> DeviceReads::Lines(const std::string &word) const
{
	std::vector<std::string> found;
	std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
	             [&](const std::string &line) { return line.starts_with(word + " "); });
	return found;
}

} // namespace kit
