#ifndef ZEVOTUNED_SYSTEM_ACCESS_H
#define ZEVOTUNED_SYSTEM_ACCESS_H

/** @file Testing for files and directories, and writing kernel parameters. */

#include <zevotuned/export.h>

/**
 * Writes a value into an existing attribute file, such as those below /sys and /proc/sys. Nothing is created, cut or
 * appended to, and no newline is added.
 *
 * A failure's log line carries its source position twice, "utils.cpp:40 TuneParameterWrite:40 Can't open file ...".
 *
 * @param szPath   the attribute file.
 * @param szValue  the value.
 * @param cbValue  how many bytes of szValue to write, at least 1; the length of the text as a rule.
 * @return 0 or -1.
 */
ZEVOTUNED_API int TuneParameterWrite(const char *szPath, const char *szValue, unsigned long cbValue);

/**
 * @return 1 when the path, links followed, is a regular file; 0 when it is missing or cannot be looked at; -1 when it is
 *         anything else, or null.
 */
ZEVOTUNED_API int CheckFileExist(const char *szPath);

/**
 * Tests for a directory and makes it on request, the last level only, with mode 0777 less the umask.
 *
 * A directory on a file system that has lost its connection (ENOTCONN) counts as present.
 *
 * @return 1 when the directory is there or was made; 0 when it is missing, or could not be made (error 0xC00); -1 when
 *         the path is something else (error 0xA000), or null. Only the null path is logged.
 */
ZEVOTUNED_API int CheckOrCreateDir(const char *szPath, bool blCreate);

/** Makes /run/lock/zevotuned, which holds the lock files, where it is missing. @return 0 when it is there, else -1. */
ZEVOTUNED_API int CreateRunLockTunedDir();

/** Makes /run/zevotuned, which holds run-time state, where it is missing. @return 0 when it is there, else -1. */
ZEVOTUNED_API int CreateRunTunedDir();

#endif
