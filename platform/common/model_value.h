#ifndef PLATFORM_COMMON_MODEL_VALUE_H
#define PLATFORM_COMMON_MODEL_VALUE_H

#include "common/error_kept.h"
#include "common/pairs.h"

#include <vunkcore/model.h>

#include <exception>
#include <string_view>

namespace vunkc {

/// Whether the model file gives a key this very value. Of a file that cannot be read it does not. Sets no error.
inline bool ModelSays(const char *key, std::string_view expected)
{
	const ErrorKept kept;
	try {
		Pairs model;
		if (!model.Read(VUNKC_MODEL_FILE))
			return false;
		const char *const value = model.Get(key);
		return value != nullptr && value == expected;
	} catch (const std::exception &) { // no memory
		return false;
	}
}

} // namespace vunkc

#endif
