#include "kit/faults.h"

#include "kit/nth_call.h"
#include "kit/real.h"
#include "kit/timeline.h"

#include <vunkcore/vunkcore.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

struct Armed {
	std::string function;
	int countdown;
	int error;
	bool struck;
};

struct ArmedPath {
	std::string function;
	std::string path;
	int error;
	int calls;
};

struct Recorder {
	bool run;
	std::vector<std::string> lines = {};
};

std::optional<Armed> armed;
std::optional<ArmedPath> armedPath;
std::optional<Recorder> recorder;
std::optional<struct sysinfo> memory;
std::optional<std::vector<std::string>> writes;

template <class State, class... Values>
void Set(std::optional<State> &state, Values... values)
{
	if (state.has_value())
		throw std::logic_error("one at a time");
	state = State{values...};
}

} // namespace

bool kit::Strikes(Calls calls, const char *function, bool changesState)
{
	if (IsNth(calls, function, changesState)) {
		errno = EIO;
		return true;
	}
	if (!armed.has_value() || armed->function != function || armed->struck || --armed->countdown > 0)
		return false;
	armed->struck = true;
	errno = armed->error;
	return true;
}

namespace {

bool StrikesPath(const char *function, const char *path, bool changesState = false)
{
	if (Strikes(kit::Calls::System, function, changesState))
		return true;
	if (!armedPath.has_value() || armedPath->function != function || armedPath->path != path)
		return false;
	++armedPath->calls;
	errno = armedPath->error;
	return true;
}

std::string PathOf(int fd)
{
	char path[4096] = "";
	const kit::Uncounted uncounted;
	const std::string link = "/proc/self/fd/" + std::to_string(fd);
	return readlink(link.c_str(), path, sizeof(path) - 1) < 0 ? "?" : path;
}

template <class T>
T Failing(T result)
{
	VUNKCErrSetEx(kit::kFaultCode, "fault", 1);
	return result;
}

} // namespace

// The body of a function that fails when its turn has come and is the real one otherwise.
#define PASS_ON(failure, function, ...)                                            \
	do {                                                                       \
		static const auto real = kit::Real<decltype(function)>(#function); \
		if (Strikes(kit::Calls::Platform, #function))                      \
			return Failing(failure);                                   \
		return real(__VA_ARGS__);                                          \
	} while (false)

extern "C" {

VUNKSZHASH *VUNKCSzHashAlloc(int cb)
{
	PASS_ON(static_cast<VUNKSZHASH *>(nullptr), VUNKCSzHashAlloc, cb);
}

const char *VUNKCSzHashGetValue(const VUNKSZHASH *psh, const char *szKey)
{
	PASS_ON(static_cast<const char *>(nullptr), VUNKCSzHashGetValue, psh, szKey);
}

int VUNKCSzHashSetValue(VUNKSZHASH **ppsh, const char *szKey, const char *szValue)
{
	PASS_ON(-1, VUNKCSzHashSetValue, ppsh, szKey, szValue);
}

int VUNKCSzHashEnumKey(const VUNKSZHASH *psh, VUNKSZLIST **ppsl)
{
	PASS_ON(-1, VUNKCSzHashEnumKey, psh, ppsl);
}

VUNKSZLIST *VUNKCSzListAlloc(int cb)
{
	PASS_ON(static_cast<VUNKSZLIST *>(nullptr), VUNKCSzListAlloc, cb);
}

int VUNKCSzListPush(VUNKSZLIST **ppsl, const char *sz)
{
	PASS_ON(-1, VUNKCSzListPush, ppsl, sz);
}

int VUNKCFileGetPair(const char *szPath, VUNKSZHASH **ppsh)
{
	PASS_ON(-1, VUNKCFileGetPair, szPath, ppsh);
}

int VUNKCFileSetPair(const char *szPath, const VUNKSZHASH *psh, int iFlags)
{
	PASS_ON(-1, VUNKCFileSetPair, szPath, psh, iFlags);
}

int VUNKCFileGetSection(const char *szPath, const char *szSection, VUNKSZHASH **ppsh)
{
	PASS_ON(-1, VUNKCFileGetSection, szPath, szSection, ppsh);
}

int VUNKCFileEnumSection(const char *szPath, VUNKSZLIST **ppsl)
{
	PASS_ON(-1, VUNKCFileEnumSection, szPath, ppsl);
}

int VUNKCFileAddSection(const char *szPath, const char *szSection, const VUNKSZHASH *psh)
{
	kit::Timeline::Note(std::string("VUNKCFileAddSection ") + szSection);
	PASS_ON(-1, VUNKCFileAddSection, szPath, szSection, psh);
}

int VUNKCIFileModifySection(const char *szPath, const char *szSection, const char *szNewName, const VUNKSZHASH *psh,
                            int fReplace, int iFlags)
{
	kit::Timeline::Note(std::string("VUNKCIFileModifySection ") + szSection);
	PASS_ON(-1, VUNKCIFileModifySection, szPath, szSection, szNewName, psh, fReplace, iFlags);
}

int VUNKCFileRemoveSection(const char *szPath, const char *szSection)
{
	kit::Timeline::Note(std::string("VUNKCFileRemoveSection ") + szSection);
	PASS_ON(-1, VUNKCFileRemoveSection, szPath, szSection);
}

int VUNKCFileEnumDir(const char *szDir, const char *szFilter, VUNKSZLIST **ppsl, int iFlags)
{
	PASS_ON(-1, VUNKCFileEnumDir, szDir, szFilter, ppsl, iFlags);
}

int VUNKCFileLockTimeByFile(const char *szPath, BOOL blExclusive, int iTimeout, int *pfd)
{
	PASS_ON(0, VUNKCFileLockTimeByFile, szPath, blExclusive, iTimeout, pfd);
}

int VUNKCFileUnlockByFile(int fd)
{
	static const auto real = kit::Real<decltype(VUNKCFileUnlockByFile)>("VUNKCFileUnlockByFile");
	const int result = real(fd);
	return Strikes(kit::Calls::Platform, "VUNKCFileUnlockByFile") ? Failing(0) : result;
}

ssize_t VUNKCWrite(int fd, const void *pBuf, size_t cb)
{
	if (!writes.has_value() && !kit::Timeline::IsWatching())
		PASS_ON(static_cast<ssize_t>(-1), VUNKCWrite, fd, pBuf, cb);
	const std::string line = PathOf(fd) + ": " + std::string(static_cast<const char *>(pBuf), cb);
	if (writes.has_value())
		writes->push_back(line);
	kit::Timeline::Note(line);
	const auto write = [&] { PASS_ON(static_cast<ssize_t>(-1), VUNKCWrite, fd, pBuf, cb); };
	const ssize_t written = write();
	kit::Timeline::Done(line);
	return written;
}

int VUNKCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3, const char *szArg4)
{
	const auto run = [&] { PASS_ON(-1, VUNKCExec, szProgram, szArg1, szArg2, szArg3, szArg4); };
	if (!recorder.has_value())
		return run();
	std::string line = szProgram;
	for (const char *szArg : {szArg1, szArg2, szArg3, szArg4}) {
		if (szArg == nullptr)
			break;
		line = line + " " + szArg;
	}
	recorder->lines.push_back(line);
	kit::Timeline::Note(line);
	const int status = recorder->run ? run() : Strikes(kit::Calls::Platform, "VUNKCExec") ? Failing(-1) : 0;
	kit::Timeline::Done(line);
	return status;
}

int stat(const char *path, struct stat *status)
{
	static const auto real = kit::Real<int(const char *, struct stat *)>("stat");
	return StrikesPath("stat", path) ? -1 : real(path, status);
}

int mkdir(const char *path, mode_t mode)
{
	static const auto real = kit::Real<int(const char *, mode_t)>("mkdir");
	return StrikesPath("mkdir", path, true) ? -1 : real(path, mode);
}

int open(const char *path, int flags, ...)
{
	mode_t mode = 0;
	if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
		va_list values;
		va_start(values, flags);
		mode = va_arg(values, mode_t);
		va_end(values);
	}
	static const auto real = kit::Real<int(const char *, int, ...)>("open");
	if (StrikesPath("open", path, (flags & O_ACCMODE) != O_RDONLY || (flags & O_CREAT) != 0))
		return -1;
	if (kit::openInMachine != nullptr)
		if (const std::optional<int> result = kit::openInMachine(path, flags))
			return *result;
	return real(path, flags, mode);
}

int unlink(const char *path)
{
	kit::Timeline::Note(std::string("unlink ") + path);
	static const auto real = kit::Real<int(const char *)>("unlink");
	return StrikesPath("unlink", path, true) ? -1 : real(path);
}

int flock(int fd, int operation)
{
	static const auto real = kit::Real<int(int, int)>("flock");
	const int unlocked = operation == LOCK_UN ? real(fd, operation) : 0;
	const bool asksForPath = armedPath.has_value() && armedPath->function == "flock";
	if (StrikesPath("flock", asksForPath ? PathOf(fd).c_str() : ""))
		return -1;
	return operation == LOCK_UN ? unlocked : real(fd, operation);
}

int sysinfo(struct sysinfo *info)
{
	static const auto real = kit::Real<int(struct sysinfo *)>("sysinfo");
	if (Strikes(kit::Calls::System, "sysinfo"))
		return -1;
	if (memory.has_value()) {
		*info = *memory;
		return 0;
	}
	return real(info);
}

} // extern "C"

namespace kit {

std::optional<int> (*openInMachine)(const char *path, int flags) = nullptr;

Fault::Fault(const std::string &function, int nth, int error)
{
	Set(armed, function, nth, error, false);
}
Fault::~Fault()
{
	armed.reset();
}
bool Fault::Struck() const
{
	return armed->struck;
}

PathFault::PathFault(const std::string &function, const std::string &path, int error)
{
	Set(armedPath, function, path, error, 0);
}
PathFault::~PathFault()
{
	armedPath.reset();
}
int PathFault::Calls() const
{
	return armedPath->calls;
}

Programs::Programs(bool run)
{
	Set(recorder, run);
}
Programs::~Programs()
{
	recorder.reset();
}
const std::vector<std::string> &Programs::Lines() const
{
	return recorder->lines;
}

Writes::Writes()
{
	if (writes.has_value())
		throw std::logic_error("one at a time");
	writes.emplace();
}
Writes::~Writes()
{
	writes.reset();
}
const std::vector<std::string> &Writes::Lines() const
{
	return *writes;
}

Memory::Memory(unsigned long totalram, unsigned unitBytes)
{
	struct sysinfo info = {};
	info.totalram = totalram;
	info.mem_unit = unitBytes;
	if (memory.has_value())
		throw std::logic_error("one at a time");
	memory = info;
}
Memory::~Memory()
{
	memory.reset();
}

} // namespace kit
