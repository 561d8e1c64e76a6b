#ifndef SUPPORT_BOUNDARY_H
#define SUPPORT_BOUNDARY_H

#include <vunkcore/error.h>

#include <exception>

// What an exported function does whose body may throw: `catch (const std::exception &) { return FAIL_ON_EXCEPTION; }`. What
// is thrown is a lack of memory, or a caller's object that cannot take the result; in both cases there is no more to say
// than -1. Not `catch (...)`: a cancelled thread unwinds by something that must not be caught.
#define FAIL_ON_EXCEPTION (VUNKCErrSetEx(VUNKC_ERR_NO_MEMORY, COMPONENT_FILE, __LINE__), -1)

#endif
