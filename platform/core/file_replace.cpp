#include "file_replace.h"

#include "common/descriptor.h"
#include "common/internal.h"
#include "text_file.h"

#include <cerrno>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vunkc {
namespace {

/// Closing a descriptor is not enough to give its lock up: a child that another thread forks in the meantime has a copy
/// of the descriptor, and with it the lock.
class LockedDescriptor : public Descriptor {
public:
	using Descriptor::Descriptor;
	~LockedDescriptor()
	{
		const int error = errno;
		if (*this)
			flock(Get(), LOCK_UN);
		errno = error;
	}

	bool Lock()
	{
		return Retried([&] { return flock(Get(), LOCK_EX); }) == 0;
	}
};

/// Who has the temporary name: the file in question, another one or none, or it cannot be found out.
enum class Holder { kThis, kOther, kUnknown };

/// A file to be replaced: its folder, and the names in it.
class Target {
public:
	explicit Target(std::string_view path)
		: slash(path.rfind('/')), name(path.substr(slash + 1)), temp("." + name + ".new"),
		  folder(Retried([&] { return open(Folder(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }))
	{
	}

	bool IsReachable() const { return static_cast<bool>(folder); }
	int FolderDescriptor() const { return folder.Get(); }
	const char *Name() const { return name.c_str(); }
	const char *TempName() const { return temp.c_str(); }

	/// Compares the file that has the temporary name now with an open one that had it.
	Holder TempNameHolder(int fd) const
	{
		struct stat opened;
		struct stat named;
		if (fstat(fd, &opened) != 0)
			return Holder::kUnknown;
		if (fstatat(folder.Get(), TempName(), &named, AT_SYMLINK_NOFOLLOW) != 0)
			return errno == ENOENT ? Holder::kOther : Holder::kUnknown;
		return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino ? Holder::kThis : Holder::kOther;
	}

private:
	std::string Folder(std::string_view path) const
	{
		if (slash == std::string_view::npos)
			return ".";
		return std::string(path.substr(0, slash + 1));
	}

	const size_t slash;
	const std::string name;
	const std::string temp;
	const Descriptor folder;
};

/// The file that is there already; none when a symbolic link is, as what it leads to is not replaced.
using OldFile = std::optional<struct stat>;

bool FindOldFile(const Target &target, OldFile &old)
{
	if (*target.Name() == '\0') {
		errno = EISDIR;
		return false;
	}
	struct stat status;
	old.reset();
	if (fstatat(target.FolderDescriptor(), target.Name(), &status, AT_SYMLINK_NOFOLLOW) != 0)
		return errno == ENOENT;
	if (S_ISREG(status.st_mode))
		old = status;
	else if (!S_ISLNK(status.st_mode)) {
		errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL; // a device must not become a file
		return false;
	}
	return true;
}

/// Whether a file can be one that a writer of this user made; the last thing that a writer does to it is to give it the
/// owner of the old file. Everything else under the temporary name was put there by somebody else.
bool IsLeftOver(int fd, const OldFile &old)
{
	struct stat status;
	if (fstat(fd, &status) != 0)
		return false;
	const bool ours = status.st_uid == geteuid() || (old && status.st_uid == old->st_uid);
	if (S_ISREG(status.st_mode) && status.st_nlink == 1 && ours)
		return true;
	errno = EEXIST;
	return false;
}

/// Waits until the file under the temporary name has no living writer, and removes it if it is still there.
/// It is not written to again: its mode may have been wide enough for somebody else to have opened it.
bool ClearTempName(const Target &target, const OldFile &old)
{
	// Read-only, as the mode may be that of a read-only file already; not blocking, because of fifos.
	const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
	LockedDescriptor file(Retried([&] { return openat(target.FolderDescriptor(), target.TempName(), flags); }));
	if (!file)
		return errno == ENOENT;
	// If it has been renamed meanwhile, it may have become anything, and is not in the way.
	if (!IsLeftOver(file.Get(), old))
		return target.TempNameHolder(file.Get()) == Holder::kOther;
	if (!file.Lock())
		return false;
	const Holder holder = target.TempNameHolder(file.Get());
	return holder == Holder::kOther ||
	       (holder == Holder::kThis && unlinkat(target.FolderDescriptor(), target.TempName(), 0) == 0);
}

/// The new file, under its temporary name until it is complete. The name belongs to whoever holds the lock of the file
/// that has it; only they rename or remove it.
class NewFile {
public:
	NewFile(const Target &its, const OldFile &before, int fd) : target(its), old(before), file(fd) {}
	NewFile(const NewFile &) = delete;
	NewFile &operator=(const NewFile &) = delete;
	~NewFile()
	{
		const int error = errno;
		if (holdsName)
			unlinkat(target.FolderDescriptor(), target.TempName(), 0);
		errno = error;
	}

	/// Another writer can open the new file before it is locked, take it for one that a killed writer left, and
	/// remove it. In doubt it has not: the file was made only just now.
	Holder Claim()
	{
		const Holder holder = file.Lock() ? target.TempNameHolder(file.Get()) : Holder::kUnknown;
		holdsName = holder != Holder::kOther;
		return holder;
	}

	bool Fill(std::string_view text)
	{
		while (!text.empty()) {
			const ssize_t count = Retried([&] { return write(file.Get(), text.data(), text.size()); });
			if (count < 0)
				return false;
			text.remove_prefix(static_cast<size_t>(count));
		}
		return true;
	}

	/// The owner first: the mode is meant for that owner, and a change of owner can clear bits of it.
	bool TakeOwnerAndMode()
	{
		struct stat status;
		if (!old)
			return true;
		if (fstat(file.Get(), &status) != 0)
			return false;
		const bool sameOwner = status.st_uid == old->st_uid && status.st_gid == old->st_gid;
		if (!sameOwner && fchown(file.Get(), old->st_uid, old->st_gid) != 0)
			return false;
		const bool sameMode = status.st_mode == old->st_mode;
		return sameMode || fchmod(file.Get(), old->st_mode & 07777) == 0;
	}

	bool Sync()
	{
		return Retried([&] { return fsync(file.Get()); }) == 0;
	}

	bool Rename()
	{
		const int folder = target.FolderDescriptor();
		if (renameat(folder, target.TempName(), folder, target.Name()) != 0)
			return false;
		holdsName = false;
		return true;
	}

private:
	const Target &target;
	const OldFile &old;
	LockedDescriptor file;
	bool holdsName = false;
};

/// A new file starts with no more than the owner's part of the old file's mode and is never open to more than the old
/// one. Where there was none the kernel takes the umask off, which cannot be read without changing it for all threads.
int CreateTemp(const Target &target, const OldFile &old)
{
	const mode_t mode = old ? old->st_mode & 0600 : 0644;
	const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
	return Retried([&] { return openat(target.FolderDescriptor(), target.TempName(), flags, mode); });
}

bool Replace(const Target &target, std::string_view text)
{
	for (;;) {
		OldFile old;
		if (!FindOldFile(target, old))
			return false;
		const int fd = CreateTemp(target, old);
		if (fd < 0) {
			if (errno != EEXIST || !ClearTempName(target, old))
				return false;
			continue;
		}
		NewFile file(target, old, fd);
		const Holder holder = file.Claim();
		if (holder == Holder::kOther)
			continue;
		if (holder == Holder::kUnknown)
			return false;
		if (!file.Fill(text) || !file.TakeOwnerAndMode() || !file.Sync() || !file.Rename())
			return false;
		// The file is the new one by now, and either the old or the new one after a power cut, whether or not
		// this succeeds: to report a failure would say that nothing has changed.
		fsync(target.FolderDescriptor());
		return true;
	}
}

} // namespace

int ReplaceFile(const char *path, std::string_view text)
{
	if (text.size() > kMaxFileSize) {
		errno = EFBIG;
		return FailAt(-1, VUNKC_ERR_FILE_WRITE, path, 0);
	}
	const Target target(path);
	if (!target.IsReachable() || !Replace(target, text))
		return FailAt(-1, VUNKC_ERR_FILE_WRITE, path, 0);
	return 0;
}

} // namespace vunkc
