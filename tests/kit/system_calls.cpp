// The C library's functions that enter the kernel for the library and its platform, each of which fails when it is its
// turn (nth_call.h). A function that gives something up (close, unlock) does so and then reports the failure.

#include "kit/nth_call.h"
#include "kit/real.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sched.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool Fails(const char *function, int error, bool changesState = false)
{
	if (!kit::IsNth(kit::Calls::System, function, changesState))
		return false;
	errno = error;
	return true;
}

} // namespace

// A function with fixed arguments: `failure` and errno `error` when it is its turn.
#define SYSTEM_CALL(result, function, parameters, arguments, failure, error, changesState) \
	result function parameters                                                         \
	{                                                                                  \
		static const auto real = kit::Real<result parameters>(#function);          \
		return Fails(#function, error, changesState) ? (failure) : real arguments; \
	}

extern "C" {

SYSTEM_CALL(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, EIO, true)
SYSTEM_CALL(int, fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid), -1, EIO, true)
SYSTEM_CALL(int, fsync, (int fd), (fd), -1, EIO, true)
SYSTEM_CALL(int, ftruncate, (int fd, off_t size), (fd, size), -1, ENOSPC, true)
SYSTEM_CALL(int, renameat, (int from, const char *old, int to, const char *path), (from, old, to, path), -1, EIO, true)
SYSTEM_CALL(int, unlinkat, (int dir, const char *path, int flags), (dir, path, flags), -1, EIO, true)
SYSTEM_CALL(int, unlink, (const char *path), (path), -1, EIO, true)
SYSTEM_CALL(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1, EIO, false)
SYSTEM_CALL(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), -1, ENOSPC, true)
SYSTEM_CALL(int, fstat, (int fd, struct stat *status), (fd, status), -1, EIO, false)
SYSTEM_CALL(int, fstatat, (int dir, const char *path, struct stat *status, int flags), (dir, path, status, flags), -1,
            EIO, false)
SYSTEM_CALL(DIR *, opendir, (const char *path), (path), nullptr, EMFILE, false)
SYSTEM_CALL(dirent *, readdir, (DIR * dir), (dir), nullptr, EIO, false)
SYSTEM_CALL(int, pipe2, (int ends[2], int flags), (ends, flags), -1, EMFILE, false)
SYSTEM_CALL(int, dup2, (int from, int to), (from, to), -1, EMFILE, false)
SYSTEM_CALL(pid_t, fork, (), (), -1, EAGAIN, false)
SYSTEM_CALL(pid_t, waitpid, (pid_t pid, int *status, int flags), (pid, status, flags), -1, EINTR, false)
SYSTEM_CALL(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout), -1, EINTR, false)
SYSTEM_CALL(int, kill, (pid_t pid, int number), (pid, number), -1, EPERM, false)
SYSTEM_CALL(int, pidfd_open, (pid_t pid, unsigned flags), (pid, flags), -1, EMFILE, false)
SYSTEM_CALL(int, pidfd_send_signal, (int fd, int number, siginfo_t *info, unsigned flags), (fd, number, info, flags),
            -1, EPERM, false)
SYSTEM_CALL(void *, mmap, (void *at, size_t size, int protection, int flags, int fd, off_t offset),
            (at, size, protection, flags, fd, offset), MAP_FAILED, ENOMEM, false)

int close(int fd)
{
	static const auto real = kit::Real<int(int)>("close");
	const int result = real(fd);
	return Fails("close", EIO) ? -1 : result;
}

int flock(int fd, int operation)
{
	static const auto real = kit::Real<int(int, int)>("flock");
	if (operation == LOCK_UN) {
		const int result = real(fd, operation);
		return Fails("flock", EIO) ? -1 : result;
	}
	return Fails("flock", ENOLCK) ? -1 : real(fd, operation);
}

int openat(int dir, const char *path, int flags, ...)
{
	va_list values;
	va_start(values, flags);
	const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(values, mode_t) : 0;
	va_end(values);
	static const auto real = kit::Real<int(int, const char *, int, ...)>("openat");
	return Fails("openat", EMFILE, (flags & O_ACCMODE) != O_RDONLY) ? -1 : real(dir, path, flags, mode);
}

int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                const posix_spawnattr_t *attributes, char *const arguments[], char *const environment[])
{
	static const auto real = kit::Real<decltype(posix_spawn)>("posix_spawn");
	return kit::IsNth(kit::Calls::System, "posix_spawn")
	               ? EAGAIN
	               : real(pid, path, actions, attributes, arguments, environment);
}

int __clone(int (*function)(void *), void *stack, int flags, void *argument, ...)
{
	static const auto real = kit::Real<int(int (*)(void *), void *, int, void *, ...)>("__clone");
	return Fails("__clone", EAGAIN) ? -1 : real(function, stack, flags, argument);
}

} // extern "C"
