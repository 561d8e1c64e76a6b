#include <vunkcore/pid_file.h>

#include "common/descriptor.h"
#include "file_replace.h"
#include "common/internal.h"
#include "pidfd.h"
#include "process.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kOwnStat = "/proc/self/stat";

/// The one line of a pid file.
struct Entry {
	pid_t pid;
	unsigned long long startTime;
};

class Line {
public:
	explicit Line(Entry entry) : length(snprintf(text, sizeof(text), "%d %llu\n", entry.pid, entry.startTime)) {}

	std::string_view View() const { return {text, static_cast<size_t>(length)}; }

private:
	char text[64]; // more than the longest of both numbers
	int length;
};

/// The entry that the text is the line of, to the byte; false when there is none.
bool Parse(std::string_view text, Entry &entry)
{
	const char *const end = text.data() + text.size();
	const auto pid = std::from_chars(text.data(), end, entry.pid);
	if (pid.ec != std::errc() || entry.pid < 1 || pid.ptr == end)
		return false;
	const auto startTime = std::from_chars(pid.ptr + 1, end, entry.startTime);
	return startTime.ec == std::errc() && Line(entry).View() == text;
}

/// Reads the entry of a pid file. Returns an error code, which is not set yet.
int ReadEntry(const char *path, Entry &entry)
{
	// O_NONBLOCK: a pipe at the path is to be refused, not waited for.
	const vunkc::Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK));
	if (!file)
		return errno == ENOENT || errno == ENOTDIR ? VUNKC_ERR_FILE_MISSING : VUNKC_ERR_FILE_OPEN;
	struct stat status;
	if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
		return VUNKC_ERR_FILE_OPEN;
	char text[sizeof(Line) + 1]; // what fills it is too long for a line
	const ssize_t length = vunkc::ReadUpTo(file.Get(), text, sizeof(text));
	if (length < 0)
		return VUNKC_ERR_FILE_READ;
	return Parse({text, static_cast<size_t>(length)}, entry) ? VUNKC_ERR_NONE : VUNKC_ERR_PID_FILE;
}

/// The process of an entry: held by a pidfd, or, where there are none, known by its id alone.
struct NamedProcess {
	/// As kill().
	int Signal(int number) const
	{
		// The second way leaves a window: when the process has ended since its start time was read, was collected, and
		// its id went to another one, it is that one which is signalled.
		return fd ? pidfd_send_signal(fd.Get(), number, nullptr, 0) : kill(pid, number);
	}

	pid_t pid = -1;
	vunkc::Descriptor fd;
};

/// Whether this errno of pidfd_open() means that the kernel, before Linux 5.3, or a sandbox has no pidfds.
bool MeansNoPidfds(int error)
{
	return error == ENOSYS || error == EPERM;
}

/// Finds the process of an entry. Returns an error code, which is not set yet.
int FindProcess(Entry entry, NamedProcess &process)
{
	process.pid = entry.pid;
	process.fd = vunkc::Descriptor(pidfd_open(entry.pid, 0));
	if (!process.fd && !MeansNoPidfds(errno))
		return vunkc::MeansNoProcess(errno) ? VUNKC_ERR_NO_PROCESS : VUNKC_ERR_SIGNAL;
	const auto stat = vunkc::ReadProcessStat(vunkc::StatPath(entry.pid).text);
	// The id cannot change hands while its process has not ended. So when that is still so after the start time was
	// read, it was the start time of the process that is open.
	if (!stat || stat->startTime != entry.startTime ||
	    (process.fd ? vunkc::HasEnded(process.fd) : stat->HasEnded()))
		return VUNKC_ERR_NO_PROCESS;
	return VUNKC_ERR_NONE;
}

/// Finds the process that a pid file names. Returns an error code, which is not set yet.
int FindNamedProcess(const char *path, NamedProcess &process)
{
	Entry entry;
	const int code = ReadEntry(path, entry);
	return code == VUNKC_ERR_NONE ? FindProcess(entry, process) : code;
}

bool IsOfFile(int code)
{
	return code == VUNKC_ERR_FILE_MISSING || code == VUNKC_ERR_FILE_OPEN || code == VUNKC_ERR_FILE_READ;
}

} // namespace

int VUNKCProcPidFileCreate(const char *szPath)
{
	if (szPath == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	const auto stat = vunkc::ReadProcessStat(kOwnStat);
	if (!stat)
		return vunkc::FailAt(-1, VUNKC_ERR_FILE_READ, kOwnStat, 0);
	return VUNKC_GUARD(-1, [&] { return vunkc::ReplaceFile(szPath, Line({getpid(), stat->startTime}).View()); });
}

int VUNKCProcSignalByPidFile(const char *szPath, int iSignal)
{
	if (szPath == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	NamedProcess process;
	const int code = FindNamedProcess(szPath, process);
	if (IsOfFile(code))
		return vunkc::FailAt(-1, code, szPath, 0);
	if (code != VUNKC_ERR_NONE)
		return VUNKC_FAIL(-1, code);
	if (process.Signal(iSignal) != 0)
		return VUNKC_FAIL(-1, errno == ESRCH ? VUNKC_ERR_NO_PROCESS : VUNKC_ERR_SIGNAL);
	return 0;
}

int VUNKCProcAliveByPidFile(const char *szPath)
{
	if (szPath == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	NamedProcess process;
	const int code = FindNamedProcess(szPath, process);
	if (IsOfFile(code))
		return vunkc::FailAt(-1, code, szPath, 0);
	return code == VUNKC_ERR_NONE;
}
