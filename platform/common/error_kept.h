#ifndef PLATFORM_COMMON_ERROR_KEPT_H
#define PLATFORM_COMMON_ERROR_KEPT_H

#include <vunkcore/error.h>

#include <cstring>

namespace vunkc {

/// Keeps the calling thread's error as it is now, whatever fails while it lives.
class ErrorKept {
public:
	ErrorKept() : code(VUNKCErrGet()), line(VUNKCErrorGetLine())
	{
		strncpy(file, VUNKCErrorGetFile(), sizeof(file) - 1);
	}
	~ErrorKept() { VUNKCErrSetEx(code, file, line); }
	ErrorKept(const ErrorKept &) = delete;
	ErrorKept &operator=(const ErrorKept &) = delete;

private:
	const int code;
	const int line;
	char file[1024] = "";
};

} // namespace vunkc

#endif
