#include "common/text_read.h"

#include "common/descriptor.h"

#include <vunkcore/error.h>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vunkc {
namespace {

/// The whole content of an open file, whose size is only a first guess: it may grow, and files of /proc have none.
bool ReadAll(int fd, size_t size, std::string &text)
{
	text.resize(size + 1); // one more, so that the end is found without growing
	size_t filled = 0;
	for (;;) {
		const ssize_t count = Retried([&] { return read(fd, text.data() + filled, text.size() - filled); });
		if (count < 0)
			return false;
		filled += static_cast<size_t>(count);
		if (filled > kMaxFileSize) {
			errno = EFBIG;
			return false;
		}
		if (count == 0)
			break;
		if (filled == text.size())
			text.resize(std::min(2 * filled + 4096, kMaxFileSize + 1));
	}
	text.resize(filled);
	return true;
}

} // namespace

int ReadText(const char *path, std::string &text)
{
	// Not blocking, so that a fifo under that name is opened, and refused, without waiting for somebody to write to
	// it.
	const Descriptor file(Retried([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
	if (!file)
		return errno == ENOENT || errno == ENOTDIR ? VUNKC_ERR_FILE_MISSING : VUNKC_ERR_FILE_OPEN;
	struct stat status;
	if (fstat(file.Get(), &status) != 0)
		return VUNKC_ERR_FILE_READ;
	if (!S_ISREG(status.st_mode)) {
		errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
		return VUNKC_ERR_FILE_READ;
	}
	if (status.st_size > static_cast<off_t>(kMaxFileSize)) {
		errno = EFBIG;
		return VUNKC_ERR_FILE_READ;
	}
	return ReadAll(file.Get(), static_cast<size_t>(status.st_size), text) ? VUNKC_ERR_NONE : VUNKC_ERR_FILE_READ;
}

} // namespace vunkc
