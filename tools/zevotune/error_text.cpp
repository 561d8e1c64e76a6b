#include "error_text.h"

#include "paths.h"

#include "support/error_codes.h"

#include <zevostorage/error.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool Exists(const std::string &path)
{
	struct stat status;
	return lstat(path.c_str(), &status) == 0;
}

bool IsKernelFile(std::string_view path)
{
	return path.starts_with("/proc/") || path.starts_with("/sys/") || path.starts_with("/dev/");
}

std::string AdviceFor(std::string_view path)
{
	if (!IsKernelFile(path))
		return "mend or remove it";
	const std::string advice = "see the kernel's log (dmesg)";
	return path.starts_with("/dev/") ? advice : advice + ", and whether /proc and /sys are mounted";
}

// The error stack has no errno, and the log lines written since have changed it: asked for again.
std::string OpenText(const std::string &path)
{
	if (path == kLockFile)
		return path + " cannot be opened as a lock file; remove it";
	const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
	if (fd >= 0) {
		close(fd);
		return path + " could not be opened, but can be by now; try again";
	}
	if (errno == EACCES && geteuid() != 0)
		return path + " can only be read by other users; run zevotune as root (sudo)";
	return path + " cannot be opened (" + strerror(errno) + "); " + AdviceFor(path);
}

std::string ReadText(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
		return path + " is no regular file; move it away";
	const char *reason = IsKernelFile(path) ? "" : ": the disk fails, or it is larger than 256 MiB";
	return path + " cannot be read" + reason + "; " + AdviceFor(path);
}

std::string SyntaxText(const std::string &path, int line)
{
	const std::string place = line > 0 ? path + ":" + std::to_string(line) : path;
	if (path == kConfigFile)
		return place + ": line is neither a pair nor a comment; mend the file";
	return place + ": line is neither a section, a pair in a section nor a comment; mend or remove the file";
}

std::string NotCreatedText()
{
	// In the order in which the library makes them.
	for (const std::string path : {kConfigDir, kConfigFile, kLockDir}) {
		if (Exists(path))
			continue;
		const std::string folder = path.substr(0, path.rfind('/'));
		if (!Exists(folder))
			return path + " cannot be made, as " + folder + " is missing; make that folder";
		return path + " cannot be made; see whether the file system of " + folder + " is full or read-only";
	}
	return "a file could not be made; try again";
}

std::string NotDirectoryText()
{
	struct stat status;
	const bool configDir = stat(kConfigDir, &status) == 0 && !S_ISDIR(status.st_mode);
	return std::string(configDir ? kConfigDir : kLockDir) + " is no folder; move it away";
}

std::string OtherText(int code, const std::string &file, int line)
{
	char text[64];
	snprintf(text, sizeof(text), "error 0x%04X", static_cast<unsigned>(code));
	return file.empty() ? text : text + (" at " + file + ":") + std::to_string(line);
}

} // namespace

void ForgetErrors()
{
	VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
}

std::string ErrorText()
{
	const int code = VUNKCErrGet();
	const std::string file = VUNKCErrorGetFile();
	const int line = VUNKCErrorGetLine();
	switch (code) {
	case VUNKC_ERR_NONE:
		return "the library gives no reason; try again";
	case VUNKC_ERR_NO_MEMORY:
		return "memory has run out";
	case VUNKC_ERR_FILE_MISSING:
		return file + " has just been removed; try again";
	case VUNKC_ERR_FILE_OPEN:
		return OpenText(file);
	case VUNKC_ERR_FILE_READ:
		return ReadText(file);
	case VUNKC_ERR_FILE_WRITE:
		// What the kernel refuses has no file's name on the error stack, only in the log.
		return file.starts_with('/')
		               ? file + " cannot be written; see whether its file system is full or read-only"
		               : "the kernel has refused a value";
	case VUNKC_ERR_TIMEOUT:
		return std::string("another program has held the lock ") + kLockFile + " for 5 seconds; try again";
	case VUNKC_ERR_LOCK:
		return std::string("the lock ") + kLockFile + " cannot be taken";
	case VUNKC_ERR_SYNTAX:
		return SyntaxText(file, line);
	case VUNKC_ERR_SECTION_MISSING:
		return file + ": there is no section [main]; add one or remove the file";
	case VUNKC_ERR_NOT_STORABLE:
		return std::string(kConfigFile) + " cannot hold it: it has to be one line, and a key without '=', "
		                                  "blanks at its ends, or '#', ';' or '[' in front";
	case kErrNotCreated:
		return NotCreatedText();
	case kErrNotRegularFile:
		return std::string(kConfigFile) + " is no regular file; move it away";
	case kErrNotDirectory:
		return NotDirectoryText();
	case ZEVO_ERR_NO_DEVICE:
		return file + " is gone, or was never there; try again";
	case ZEVO_ERR_BAD_ANSWER:
		return "the kernel's answer in " + file + " makes no sense; see its log (dmesg)";
	default:
		return OtherText(code, file, line);
	}
}

std::string ReasonInPlace()
{
	if (VUNKCErrGet() == VUNKC_ERR_NO_MEMORY)
		throw std::bad_alloc();
	return ErrorText();
}
