#ifndef VUNKCORE_FILE_H
#define VUNKCORE_FILE_H

/** @file Directories, existence and writing. */

#include <sys/types.h>
#include <vunkcore/list.h>
#include <vunkcore/types.h>

/** Entries that VUNKCFileEnumDir returns: regular files, and symbolic links to regular files. */
#define VUNKC_ENUM_REGULAR 0x80

VUNKC_BEGIN_DECLS

/**
 * Appends the names of a directory's regular files to a list, without the directory's path, in ascending byte order.
 * Symbolic links are followed: a link to a regular file counts, a dangling one does not. Names that begin with a dot
 * are left out, and with them the files that a killed writer left (text_file.h).
 *
 * @param szFilter  null. Other values are refused.
 * @param ppslNames address of a list; may be moved. Left as it was on failure.
 * @param iFlags    VUNKC_ENUM_REGULAR. Other values are refused.
 * @return the number of names, or -1 on failure: VUNKC_ERR_FILE_MISSING, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ.
 */
VUNKC_API int VUNKCFileEnumDir(const char *szDir, const char *szFilter, VUNKSZLIST **ppslNames, int iFlags);

/** @return 1 when the path, links followed, names anything at all; 0 when not, or when that cannot be found out. */
VUNKC_API int VUNKCFileExist(const char *szPath);

/**
 * Writes all of a buffer. Interrupted and short writes are carried on with; a signal therefore does not cut a write.
 *
 * @return cb, or -1 on failure with errno set (VUNKC_ERR_FILE_WRITE); part of the buffer may have been written.
 */
VUNKC_API ssize_t VUNKCWrite(int fd, const void *pBuf, size_t cb);

VUNKC_END_DECLS

#endif
