// The C library's functions that enter the kernel for the library and its platform, each of which fails when it is its
// turn (nth_call.h). A function that gives something up (close, unlock) does so and then reports the failure.

#include "kit/system_calls.h"

#include "kit/machine_ioctl.h"
#include "kit/nth_call.h"
#include "kit/real.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#include <dirent.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <poll.h>
#include <signal.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
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

/// The UUID of a folder that is to look like a Btrfs file system; null for others.
const std::string *BtrfsUuid(const std::string &path)
{
	for (const kit::BtrfsFolder &folder : kit::btrfsFolders)
		if (folder.path == path)
			return &folder.uuid;
	return nullptr;
}

const std::string *BtrfsUuid(int fd)
{
	const kit::Uncounted uncounted;
	char path[4096] = "";
	const std::string link = "/proc/self/fd/" + std::to_string(fd);
	return readlink(link.c_str(), path, sizeof(path) - 1) < 0 ? nullptr : BtrfsUuid(std::string(path));
}

std::optional<int> AnswerFsInfo(int fd, unsigned long request, void *argument)
{
	const std::string *const uuid = request == BTRFS_IOC_FS_INFO ? BtrfsUuid(fd) : nullptr;
	if (uuid == nullptr)
		return std::nullopt;
	std::string digits;
	for (const char c : *uuid)
		if (c != '-')
			digits += c;
	auto *const info = static_cast<btrfs_ioctl_fs_info_args *>(argument);
	for (size_t i = 0; i < sizeof(info->fsid); ++i)
		info->fsid[i] = static_cast<unsigned char>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
	return 0;
}

[[maybe_unused]] const bool answersFsInfo = (kit::ioctlOnVolume = AnswerFsInfo, true);

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
SYSTEM_CALL(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1, EIO, false)
SYSTEM_CALL(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), -1, ENOSPC, true)
SYSTEM_CALL(int, fstat, (int fd, struct stat *status), (fd, status), -1, EIO, false)
SYSTEM_CALL(int, fstatat, (int dir, const char *path, struct stat *status, int flags), (dir, path, status, flags), -1,
            EIO, false)
SYSTEM_CALL(ssize_t, readlink, (const char *path, char *text, size_t size), (path, text, size), -1, EIO, false)
SYSTEM_CALL(int, access, (const char *path, int mode), (path, mode), -1, EIO, false)
SYSTEM_CALL(FILE *, fopen, (const char *path, const char *mode), (path, mode), nullptr, EMFILE, false)
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

int statfs(const char *path, struct statfs *status) noexcept
{
	static const auto real = kit::Real<int(const char *, struct statfs *)>("statfs");
	if (Fails("statfs", EIO))
		return -1;
	const int result = real(path, status);
	if (result == 0 && BtrfsUuid(std::string(path)) != nullptr)
		status->f_type = BTRFS_SUPER_MAGIC;
	return result;
}

int fstatfs(int fd, struct statfs *status) noexcept
{
	static const auto real = kit::Real<int(int, struct statfs *)>("fstatfs");
	if (Fails("fstatfs", EIO))
		return -1;
	const int result = real(fd, status);
	if (result == 0 && BtrfsUuid(fd) != nullptr)
		status->f_type = BTRFS_SUPER_MAGIC;
	return result;
}

// What getline() is under another name, where a compiler takes it apart.
ssize_t __getdelim(char **line, size_t *size, int delimiter, FILE *file)
{
	static const auto real = kit::Real<ssize_t(char **, size_t *, int, FILE *)>("__getdelim");
	if (!Fails("getline", EIO))
		return real(line, size, delimiter, file);
	constexpr int kErrorSeen = 0x20; // what ferror() looks at
	file->_flags |= kErrorSeen;
	return -1;
}

// By another name, as clang does not let an inline function of the C library be defined anew.
ssize_t Getline(char **line, size_t *size, FILE *file) __asm__("getline");
ssize_t Getline(char **line, size_t *size, FILE *file)
{
	return __getdelim(line, size, '\n', file);
}

int close(int fd)
{
	static const auto real = kit::Real<int(int)>("close");
	const int result = real(fd);
	return Fails("close", EIO) ? -1 : result;
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

namespace kit {

constinit std::vector<BtrfsFolder> btrfsFolders; // libraries' constructors look at file systems as well

} // namespace kit
