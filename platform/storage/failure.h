#ifndef PLATFORM_STORAGE_FAILURE_H
#define PLATFORM_STORAGE_FAILURE_H

#include "common/internal.h"

#include <zevostorage/error.h>

#include <exception>
#include <string>
#include <utility>

namespace zevos {

/// What the kernel could not be asked, or answered with nonsense, and files that cannot be read or understood. Thrown
/// inside of the library only.
class KernelFailure : public std::exception {
public:
	KernelFailure(int errorCode, std::string fileName, int lineNumber = 0)
		: code(errorCode), line(lineNumber), file(std::move(fileName))
	{
	}

	const char *what() const noexcept override { return file.c_str(); }
	int Code() const { return code; }
	int Line() const { return line; }

private:
	int code;
	int line;
	std::string file;
};

/// Runs the body of an exported function and puts what it throws on the error stack.
template <class Result, class Body>
Result Guard(Result failure, Body &&body, const char *file, int line)
{
	return vunkc::Guard(
		failure,
		[&]() -> Result {
			try {
				return body();
			} catch (const KernelFailure &thrown) {
				return vunkc::FailAt(failure, thrown.Code(), thrown.what(), thrown.Line());
			}
		},
		file, line);
}

} // namespace zevos

#define ZEVOS_GUARD(failure, ...) zevos::Guard(failure, __VA_ARGS__, VUNKC_FILE, __LINE__)

#endif
