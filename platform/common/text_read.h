#ifndef PLATFORM_COMMON_TEXT_READ_H
#define PLATFORM_COMMON_TEXT_READ_H

#include <cerrno>
#include <cstddef>
#include <string>

namespace vunkc {

/// A longer file is not read and, so that it can be read again, not written either.
constexpr size_t kMaxFileSize = size_t{256} << 20;

/// Repeats a system call for as long as signals interrupt it.
template <class Call>
auto Retried(Call &&call)
{
	for (;;) {
		const auto result = call();
		if (result != -1 || errno != EINTR)
			return result;
	}
}

/// Reads a whole file. Returns VUNKC_ERR_NONE or the code of the failure with errno set; the error stack is left alone,
/// as a missing file is not a failure to every caller.
int ReadText(const char *path, std::string &text);

} // namespace vunkc

#endif
