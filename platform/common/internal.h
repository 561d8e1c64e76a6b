#ifndef PLATFORM_COMMON_INTERNAL_H
#define PLATFORM_COMMON_INTERNAL_H

// What every file of the platform libraries shares: failing, and keeping exceptions inside.

#include <vunkcore/error.h>

#include <exception>

namespace vunkc {

constexpr const char *BaseName(const char *path)
{
	const char *base = path;
	for (const char *p = path; *p != '\0'; ++p)
		if (*p == '/')
			base = p + 1;
	return base;
}

/// Sets the error and gives `result` back, so that a failing case is one line.
template <class T>
T FailAt(T result, int code, const char *file, int line)
{
	VUNKCErrSetEx(code, file, line);
	return result;
}

/// Runs the body of an exported function; the only exception that the library's code can meet is a lack of memory.
template <class Failure, class Body>
auto Guard(Failure failure, Body &&body, const char *file, int line) -> decltype(body())
{
	try {
		return body();
	} catch (const std::exception &) { // and not "...": a cancelled thread unwinds through here
		return FailAt<decltype(body())>(failure, VUNKC_ERR_NO_MEMORY, file, line);
	}
}

} // namespace vunkc

#define VUNKC_FILE vunkc::BaseName(__FILE__)
#define VUNKC_FAIL(result, code) vunkc::FailAt(result, code, VUNKC_FILE, __LINE__)
#define VUNKC_GUARD(failure, body) vunkc::Guard(failure, body, VUNKC_FILE, __LINE__)

#endif
