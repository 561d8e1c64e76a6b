#ifndef TESTS_KIT_FAULTS_H
#define TESTS_KIT_FAULTS_H

// Failing calls of the platform and of the C library. The test program's own definitions stand before the real ones, so
// this works on the shipped libraries; while nothing is armed, every call goes through to the real function.

#include "kit/nth_call.h"

#include <optional>
#include <string>
#include <vector>

namespace kit {

/// The code that a failing VUNKC call leaves on the error stack, with "fault" and line 1.
inline constexpr int kFaultCode = 0xFA17;

/// While the object lives, the nth call of a function from now on fails, once. Objects do not nest.
///
/// Functions: VUNKCSzHashAlloc VUNKCSzHashGetValue VUNKCSzHashSetValue VUNKCSzHashEnumKey VUNKCSzListAlloc
/// VUNKCSzListPush VUNKCFileGetPair VUNKCFileSetPair VUNKCFileGetSection VUNKCFileEnumSection VUNKCFileAddSection
/// VUNKCIFileModifySection VUNKCFileRemoveSection VUNKCFileEnumDir VUNKCFileLockTimeByFile VUNKCFileUnlockByFile (which unlocks all the same) VUNKCWrite VUNKCExec; stat mkdir open
/// unlink flock (an unlock is done all the same) sysinfo, with a given errno; and those of storage.h.
class Fault {
public:
	explicit Fault(const std::string &function, int nth = 1, int error = 5 /* EIO */);
	~Fault();
	Fault(const Fault &) = delete;
	Fault &operator=(const Fault &) = delete;

	/// Whether the call was made, and failed.
	bool Struck() const;
};

/// As Fault, for calls of stat, mkdir, open, unlink and flock on one path only; every such call fails.
class PathFault {
public:
	PathFault(const std::string &function, const std::string &path, int error);
	~PathFault();
	PathFault(const PathFault &) = delete;
	PathFault &operator=(const PathFault &) = delete;

	int Calls() const;
};

/// While the object lives, programs that VUNKCExec is asked to run are written down: "/sbin/sysctl -we vm.swappiness=10".
/// With `run` they are run as well, otherwise they count as successful. Objects do not nest.
class Programs {
public:
	explicit Programs(bool run = false);
	~Programs();
	Programs(const Programs &) = delete;
	Programs &operator=(const Programs &) = delete;

	const std::vector<std::string> &Lines() const;
};

/// While the object lives, what VUNKCWrite is asked to write is written down, "/sys/block/sda/queue/scheduler: none", and
/// written. Objects do not nest.
class Writes {
public:
	Writes();
	~Writes();
	Writes(const Writes &) = delete;
	Writes &operator=(const Writes &) = delete;

	const std::vector<std::string> &Lines() const;
};

/// While the object lives, sysinfo reports this much memory, counted in units of unitBytes.
class Memory {
public:
	explicit Memory(unsigned long totalram, unsigned unitBytes = 1);
	~Memory();
	Memory(const Memory &) = delete;
	Memory &operator=(const Memory &) = delete;
};

/// What an interposed function asks first: whether it is to fail now, in a sweep or by a Fault. Sets errno then.
bool Strikes(Calls calls, const char *function, bool changesState = false);

/// Paths that a machine (machine.h) opens in place of the kernel: open() asks it, unless null, after a fault. It answers with
/// a descriptor, with -1 and errno, or with nothing for a path that is none of its own.
extern std::optional<int> (*openInMachine)(const char *path, int flags);

} // namespace kit

#endif
