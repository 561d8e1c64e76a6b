#ifndef VUNKCORE_TYPES_H
#define VUNKCORE_TYPES_H

/**
 * @file
 * What every header of the core library shares.
 *
 * Rules that hold for the whole library unless a function says otherwise:
 *
 *  1. Every function may be called from any thread. Objects (hashes, lists) belong to whoever allocated them and must
 *     not be used by two threads at once. Nothing is kept between calls but the calling thread's error stack, and the
 *     text of a large file while its sections are read one after another, which shows in nothing but time.
 *  2. A call that fails leaves a non-zero code on the error stack (error.h) and its outputs as they were. A call that
 *     succeeds leaves the error stack as it was: only the result tells success from failure, never an old code.
 *  3. A null pointer where one is not allowed is a failure with VUNKC_ERR_BAD_ARGUMENT, never a crash.
 *  4. Every descriptor that the library opens is close-on-exec. Files whose names can be foreseen are opened without
 *     following a symbolic link in the last component.
 *  5. Strings are zero-terminated bytes; nothing is converted or checked for an encoding.
 *  6. No C++ exception leaves the library; a lack of memory is a failure with VUNKC_ERR_NO_MEMORY.
 */

#include <stddef.h>

#ifdef __cplusplus
#define VUNKC_BEGIN_DECLS extern "C" {
#define VUNKC_END_DECLS }
#else
#define VUNKC_BEGIN_DECLS
#define VUNKC_END_DECLS
#endif

#define VUNKC_API __attribute__((visibility("default")))

/** Truth value: 0 is false, anything else is true. */
typedef int BOOL;

#endif
