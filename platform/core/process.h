#ifndef PLATFORM_CORE_PROCESS_H
#define PLATFORM_CORE_PROCESS_H

// What the kernel tells about processes.

#include "common/descriptor.h"

#include <optional>

#include <sys/types.h>

namespace vunkc {

/// What /proc/<pid>/stat says.
struct ProcessStat {
	/// A zombie with more than one thread is a leader that has ended while the process goes on.
	bool HasEnded() const { return (state == 'Z' || state == 'X') && threads <= 1; }

	char state;
	long threads;
	unsigned long long startTime; // in clock ticks since the machine started
};

/// The path of that file.
struct StatPath {
	explicit StatPath(pid_t pid);

	char text[32];
};

/// Takes such a file apart; nothing when it cannot be read.
std::optional<ProcessStat> ReadProcessStat(const char *path);

/// Whether this errno of pidfd_open() means that there is no such process; the id of a thread is none of a process.
bool MeansNoProcess(int error);

/// Whether the process of a pidfd has ended, with all its threads; a zombie has.
bool HasEnded(const Descriptor &process);

/// Reads until the buffer is full or the file ends. Returns how many bytes there are, or -1 with errno set.
ssize_t ReadUpTo(int fd, char *buffer, size_t size);

} // namespace vunkc

#endif
