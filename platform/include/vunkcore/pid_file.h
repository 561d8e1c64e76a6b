#ifndef VUNKCORE_PID_FILE_H
#define VUNKCORE_PID_FILE_H

/**
 * @file
 * Files that name a running process so that other processes can find it.
 *
 * A pid file holds one line: the process id, a blank, and the process's start time as the kernel counts it (field 22 of
 * /proc/<pid>/stat). Both together name one process for as long as the machine runs: when the id has been given to
 * another process since, the start time differs, and the file names nobody. So does a file that is empty, cut short,
 * holds an id below 1, or anything else but these two numbers.
 */

#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Makes the calling process the one that a file names. The file is written as text_file.h says; it may be missing.
 *
 * @return 0, or -1 on failure: VUNKC_ERR_FILE_WRITE, VUNKC_ERR_FILE_READ (the start time cannot be found out).
 */
VUNKC_API int VUNKCProcPidFileCreate(const char *szPath);

/**
 * Sends a signal to the process that a file names, and to no other: an id that changes hands in the meantime is not hit.
 * Only where the kernel has no pidfds (before Linux 5.3), or a sandbox forbids them, there is a moment in which it could be.
 *
 * @return 0 when it was sent, or -1: VUNKC_ERR_FILE_MISSING, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ,
 *         VUNKC_ERR_PID_FILE, VUNKC_ERR_NO_PROCESS, VUNKC_ERR_SIGNAL (not permitted, or no such signal).
 */
VUNKC_API int VUNKCProcSignalByPidFile(const char *szPath, int iSignal);

/**
 * @return 1 when the process that a file names is alive; 0 when it is not or the file names nobody; -1 when the file
 *         cannot be read (a missing one included).
 */
VUNKC_API int VUNKCProcAliveByPidFile(const char *szPath);

VUNKC_END_DECLS

#endif
