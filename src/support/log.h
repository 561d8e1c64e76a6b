#ifndef SUPPORT_LOG_H
#define SUPPORT_LOG_H

// Log lines. The text at the call site is the text in the journal, so that searching the sources for a line finds it.

#include <vunkcore/error.h>

#include <cerrno>

#include <syslog.h>

// The name that a folder's log lines carry; its CMakeLists.txt sets it.
#ifndef COMPONENT_FILE
#error "COMPONENT_FILE is not defined for this folder"
#endif

// What the error stack holds, at the end of a line.
#define ERROR_STACK_FORMAT "[0x%04X %s:%d]"
#define ERROR_STACK_VALUES static_cast<unsigned>(VUNKCErrGet()), VUNKCErrorGetFile(), VUNKCErrorGetLine()

// One line. Lines further up in the same chain may want to tell errno of the failure, which a log that cannot be reached changes.
#define LOG_LINE(priority, ...)                   \
	do {                                      \
		const int errorOfFailure = errno; \
		syslog(priority, __VA_ARGS__);    \
		errno = errorOfFailure;           \
	} while (false)

// One line at priority error: "utils.cpp:120 <text>" and nothing after it.
#define LOG_ERROR_ONLY(format, ...) \
	LOG_LINE(LOG_ERR, "%s:%d " format, COMPONENT_FILE, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// The usual line: the text and the error stack.
#define LOG_ERROR(format, ...) LOG_ERROR_ONLY(format ERROR_STACK_FORMAT, __VA_ARGS__ __VA_OPT__(, ) ERROR_STACK_VALUES)

// The usual line, of what went well but is worth knowing.
#define LOG_NOTABLE(format, ...)                                                                         \
	LOG_LINE(LOG_WARNING, "%s:%d " format ERROR_STACK_FORMAT, COMPONENT_FILE, __LINE__, __VA_ARGS__, \
	         ERROR_STACK_VALUES)

// The line of the functions that name themselves as well: "utils.cpp:40 TuneParameterWrite:40 <text>" and the error stack.
// The format holds both positions, as the line does.
#define LOG_ERROR_OF_FUNCTION(format, ...)                                                                      \
	LOG_LINE(LOG_ERR, format ERROR_STACK_FORMAT, COMPONENT_FILE, __LINE__, __func__, __LINE__, __VA_ARGS__, \
	         ERROR_STACK_VALUES)

#endif
