#ifndef VUNKCORE_LOCK_FILE_H
#define VUNKCORE_LOCK_FILE_H

/**
 * @file
 * Advisory locks on lock files.
 *
 * A lock belongs to the open file, not to the process: two threads of one process exclude each other like two
 * processes do, and the end of the process releases it. Lock files are empty, are made with mode 0644 less the umask
 * and never removed. Reading permission is enough to lock one, in either mode.
 */

#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Opens a lock file, made if it is missing, and locks it.
 *
 * @param blExclusive  0: shared with other shared holders; otherwise exclusive.
 * @param iTimeout     how long to wait for other holders, in seconds; 0 tries once, negative values are refused.
 * @param pfd          receives the descriptor that holds the lock; give it to VUNKCFileUnlockByFile.
 * @return 1 when the lock is held; 0 on failure: VUNKC_ERR_FILE_OPEN (a symbolic link at the path included),
 *         VUNKC_ERR_TIMEOUT, VUNKC_ERR_LOCK.
 */
VUNKC_API int VUNKCFileLockTimeByFile(const char *szPath, BOOL blExclusive, int iTimeout, int *pfd);

/**
 * Unlocks, then closes. The lock is gone even while a forked child still has a copy of the descriptor. The descriptor
 * is closed in any case.
 *
 * @return 1, or 0 on failure: VUNKC_ERR_LOCK.
 */
VUNKC_API int VUNKCFileUnlockByFile(int fd);

VUNKC_END_DECLS

#endif
