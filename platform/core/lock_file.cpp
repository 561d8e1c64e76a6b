#include <vunkcore/lock_file.h>

#include "common/descriptor.h"
#include "common/internal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

vunkc::Descriptor OpenLockFile(const char *path)
{
	// O_NONBLOCK: a pipe at the path is to be refused, not waited for.
	vunkc::Descriptor file(open(path, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK, 0644));
	struct stat status;
	if (file && (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)))
		file.Close();
	return file;
}

/// Tries until the deadline and at least once. Polling, because a waiting flock() can only be ended by a signal, and
/// signals are the host's.
int LockBefore(Clock::time_point deadline, int fd, int operation)
{
	Clock::duration pause = 500us;
	while (flock(fd, operation | LOCK_NB) != 0) {
		if (errno == EINTR)
			continue;
		if (errno != EWOULDBLOCK)
			return VUNKC_ERR_LOCK;
		const Clock::time_point now = Clock::now();
		if (now >= deadline)
			return VUNKC_ERR_TIMEOUT;
		std::this_thread::sleep_for(std::min(pause, deadline - now));
		pause = std::min<Clock::duration>(2 * pause, 20ms);
	}
	return VUNKC_ERR_NONE;
}

} // namespace

int VUNKCFileLockTimeByFile(const char *szPath, BOOL blExclusive, int iTimeout, int *pfd)
{
	if (szPath == nullptr || iTimeout < 0 || pfd == nullptr)
		return VUNKC_FAIL(0, VUNKC_ERR_BAD_ARGUMENT);
	const Clock::time_point deadline = Clock::now() + std::chrono::seconds(iTimeout);
	vunkc::Descriptor file = OpenLockFile(szPath);
	if (!file)
		return vunkc::FailAt(0, VUNKC_ERR_FILE_OPEN, szPath, 0);
	if (const int code = LockBefore(deadline, file.Get(), blExclusive ? LOCK_EX : LOCK_SH); code != VUNKC_ERR_NONE)
		return VUNKC_FAIL(0, code);
	*pfd = file.Release();
	return 1;
}

int VUNKCFileUnlockByFile(int fd)
{
	// Closing alone would leave the lock to every copy of the descriptor that a fork has made.
	const bool unlocked = flock(fd, LOCK_UN) == 0;
	const vunkc::Descriptor closed(fd);
	return unlocked ? 1 : VUNKC_FAIL(0, VUNKC_ERR_LOCK);
}
