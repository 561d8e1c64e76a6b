#ifndef SUPPORT_CHECK_H
#define SUPPORT_CHECK_H

#include "support/error_codes.h"
#include "support/log.h"

// Ends the function with -1 unless the condition holds. The text of the condition is part of the log line, so "__null"
// and "NULL" are not interchangeable: callers see the one that is written.
#define CHECK_ARGUMENT(condition)                                                      \
	do {                                                                           \
		if (!(condition)) {                                                    \
			LOG_ERROR_ONLY("Invaild Argument (%s)=[%d]\n", #condition, 0); \
			VUNKCErrSetEx(kErrBadArgument, COMPONENT_FILE, __LINE__);      \
			return -1;                                                     \
		}                                                                      \
	} while (false)

#endif
