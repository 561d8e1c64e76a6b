#include "kept_file.h"

#include "failure.h"

#include <zevotuned/system_access.h>

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kFolder = "/run/zevotuned";
constexpr const char *kNewFile = "/run/zevotuned/.undo.json.new";
constexpr int kLockSeconds = 5;
constexpr size_t kMaxSize = 16 << 20;

Failure Cannot(const char *what, const std::string &path)
{
	return Failure("cannot " + std::string(what) + ' ' + path + " (" + strerror(errno) + ")");
}

std::string ReadAll(int fd)
{
	std::string text;
	char part[4096];
	for (;;) {
		const ssize_t count = read(fd, part, sizeof(part));
		if (count < 0)
			throw Cannot("read", kKeptFile);
		if (count == 0)
			return text;
		text.append(part, static_cast<size_t>(count));
		if (text.size() > kMaxSize) {
			errno = EFBIG;
			throw Cannot("read", kKeptFile);
		}
	}
}

void WriteAll(int fd, const std::string &text)
{
	for (size_t written = 0; written < text.size();) {
		const ssize_t count = write(fd, text.data() + written, text.size() - written);
		if (count < 0)
			throw Cannot("write", kNewFile);
		written += static_cast<size_t>(count);
	}
	if (fsync(fd) != 0)
		throw Cannot("write", kNewFile);
}

// Byte by byte as it is: names need not be UTF-8.
std::string TextOf(const KeptValues &kept)
{
	Json::StreamWriterBuilder writer;
	writer["emitUTF8"] = true;
	return Json::writeString(writer, ToJson(kept)) + '\n';
}

std::optional<KeptValues> Parse(const std::string &text)
{
	const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
	Json::Value value;
	try {
		if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr))
			return KeptFromJson(value);
	} catch (const Json::Exception &) { // deeper than any of ours
	}
	return std::nullopt;
}

} // namespace

ApplicationLock::ApplicationLock() : folder(-1)
{
	if (CreateRunTunedDir() != 0)
		throw Failure(std::string("cannot make the folder ") + kFolder +
		              ", in which it is kept what \"undo\" restores");
	folder = FileDescriptor(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
	if (!folder)
		throw Cannot("open", kFolder);
	for (int tries = kLockSeconds * 10; flock(folder.get(), LOCK_EX | LOCK_NB) != 0; --tries) {
		if (errno != EWOULDBLOCK && errno != EINTR)
			throw Cannot("lock", kFolder);
		if (tries == 0)
			throw Failure("another \"zevotune set\", \"apply\" or \"undo\" has been running for " +
			              std::to_string(kLockSeconds) + " seconds; try again when it has ended");
		usleep(100000);
	}
}

std::optional<KeptValues> LoadKept()
{
	const FileDescriptor file(open(kKeptFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
	if (!file && (errno == ENOENT || errno == ENOTDIR))
		return std::nullopt;
	if (!file)
		throw Cannot("open", kKeptFile);
	struct stat status;
	if (fstat(file.get(), &status) != 0)
		throw Cannot("read", kKeptFile);
	if (!S_ISREG(status.st_mode) || status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
		throw Failure(std::string(kKeptFile) +
		              " could have been written by others than root; look at it and remove it");

	std::optional<KeptValues> kept = Parse(ReadAll(file.get()));
	if (!kept)
		throw Failure(std::string(kKeptFile) + " is damaged, or of another version; remove it");
	return kept;
}

void SaveKept(const KeptValues &kept)
{
	// One that a killed command has left.
	if (unlink(kNewFile) != 0 && errno != ENOENT)
		throw Cannot("remove", kNewFile);
	const FileDescriptor file(open(kNewFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
	if (!file)
		throw Cannot("make", kNewFile);
	try {
		if (fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) // whatever the umask
			throw Cannot("write", kNewFile);
		WriteAll(file.get(), TextOf(kept));
		if (rename(kNewFile, kKeptFile) != 0)
			throw Cannot("write", kKeptFile);
	} catch (...) {
		unlink(kNewFile);
		throw;
	}
}

void RemoveKept()
{
	if (unlink(kKeptFile) != 0 && errno != ENOENT)
		throw Cannot("remove", kKeptFile);
}
