#ifndef TESTS_KIT_DEVICE_READS_H
#define TESTS_KIT_DEVICE_READS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kit {

/// What goes with reading a device: pread, posix_fadvise, usleep, clock_gettime, aligned_alloc, and ioprio_set, which is
/// a system call without a function. While no object lives, all of them do what they do. Faults (faults.h) and
/// NthCall can name pread, posix_fadvise, aligned_alloc and ioprio_set, with an object and without one.
///
/// While the object lives, nobody sleeps, the I/O priority stays, and this is written down, in order:
///
///   pread /run/volume1-device 65536+4096        (also one that is answered in place of the kernel; not one that a fault
///                                                lets fail)
///   posix_fadvise /run/volume1-device 0+0       (only POSIX_FADV_DONTNEED)
///   usleep 1500
///   ioprio_set 1 0 0x4007
///
/// Objects do not nest.
class DeviceReads {
public:
	DeviceReads();
	~DeviceReads();
	DeviceReads(const DeviceReads &) = delete;
	DeviceReads &operator=(const DeviceReads &) = delete;

	std::vector<std::string> lines;
	/// The lines that start with a word: Lines("usleep").
	std::vector<std::string> Lines(const std::string &word) const;

	/// Where CLOCK_MONOTONIC stands, in microseconds; nothing: where the kernel has it.
	std::optional<uint64_t> clock;
	/// By how much it advances at each pread, when it stands somewhere.
	uint64_t clockAdvance = 0;

	/// Answers a pread in place of the kernel: as pread does, with the bytes that it reads, 0 at the end, or -1 and errno;
	/// or with nothing, and the kernel is asked. Buffers stay as they are.
	std::function<std::optional<ssize_t>(size_t size, uint64_t offset)> answer;
	/// Where the last pread was to put its bytes.
	const void *buffer = nullptr;
};

} // namespace kit

#endif
