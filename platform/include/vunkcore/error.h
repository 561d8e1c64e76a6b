#ifndef VUNKCORE_ERROR_H
#define VUNKCORE_ERROR_H

/**
 * @file
 * The error stack: which failure came first in the call chain of this thread.
 *
 * A function that fails sets a code together with the place of the failure; the callers above it read the code for
 * their own log lines and leave it alone, so that the innermost failure is the one that is reported at every level.
 * Only the last code set can be read, and nothing but VUNKCErrSetEx changes it. Each thread has its own.
 *
 * Failures that lie in a file's text (VUNKC_ERR_SYNTAX, VUNKC_ERR_SECTION_MISSING) or in opening, reading or writing
 * a text file name that file and the line in it (0 for the whole file) instead of a source file, so that a log line
 * points at what has to be mended.
 */

#include <vunkcore/types.h>

/** Codes that the core library sets. Other libraries use other values of the same space. */
enum {
	VUNKC_ERR_NONE = 0,
	VUNKC_ERR_NO_MEMORY = 0x0200,       /**< memory could not be had */
	VUNKC_ERR_FILE_MISSING = 0x0800,    /**< there is no such file or directory */
	VUNKC_ERR_FILE_OPEN = 0x0900,       /**< a file or directory could not be opened */
	VUNKC_ERR_FILE_READ = 0x0A00,       /**< reading a file or directory failed */
	VUNKC_ERR_FILE_WRITE = 0x0B00,      /**< a file could not be written or replaced */
	VUNKC_ERR_BAD_ARGUMENT = 0x0D00,    /**< an argument is null or outside of its range */
	VUNKC_ERR_TIMEOUT = 0x0E00,         /**< a lock was not free in time */
	VUNKC_ERR_LOCK = 0x0F00,            /**< locking or unlocking failed for another reason */
	VUNKC_ERR_SYNTAX = 0x1500,          /**< a line of a file could not be understood */
	VUNKC_ERR_SECTION_MISSING = 0x1600, /**< the file has no section of that name */
	VUNKC_ERR_NOT_STORABLE = 0x1700,    /**< the file's syntax cannot hold this name, key or value */
	VUNKC_ERR_EXEC = 0x1800,            /**< a program could not be started */
	VUNKC_ERR_EXIT_STATUS = 0x1900,     /**< a program ran, but ended with another status than 0 */
	VUNKC_ERR_PID_FILE = 0x1A00,        /**< a pid file holds no process */
	VUNKC_ERR_NO_PROCESS = 0x1B00,      /**< the process is gone, or its id belongs to another one now */
	VUNKC_ERR_SIGNAL = 0x1C00,          /**< a process could not be signalled */
	VUNKC_ERR_FORK = 0x9700             /**< a process could not be made */
};

VUNKC_BEGIN_DECLS

/**
 * Sets the calling thread's error. Does not change errno.
 *
 * @param iCode   the code; 0 clears the error.
 * @param szFile  the file where it happened; copied, and of a text longer than 1023 bytes the end is kept. Null counts
 *                as "".
 * @param iLine   the line in that file.
 */
VUNKC_API void VUNKCErrSetEx(int iCode, const char *szFile, int iLine);

/** @return the calling thread's error code; 0 when none has been set. */
VUNKC_API int VUNKCErrGet(void);

/**
 * @return the file that was set with the code; "" when there is none, never null. Valid until the thread sets another
 *         error or ends.
 */
VUNKC_API const char *VUNKCErrorGetFile(void);

/** @return the line that was set with the code; 0 when there is none. */
VUNKC_API int VUNKCErrorGetLine(void);

VUNKC_END_DECLS

#endif
