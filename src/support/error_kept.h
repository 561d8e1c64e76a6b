#ifndef SUPPORT_ERROR_KEPT_H
#define SUPPORT_ERROR_KEPT_H

#include "support/text_buffer.h"

#include <vunkcore/error.h>

#include <cerrno>

// The calling thread's error and errno as they were, to be put back after a clean-up that may have failed in its own way.
class ErrorKept {
public:
	ErrorKept() : code(VUNKCErrGet()), file("%s", VUNKCErrorGetFile()), line(VUNKCErrorGetLine()) {}

	void Restore() const
	{
		VUNKCErrSetEx(code, file.c_str(), line);
		errno = number;
	}

private:
	const int code;
	const TextBuffer<1024> file;
	const int line;
	const int number = errno;
};

#endif
