#ifndef VUNKCORE_PAIR_FILE_H
#define VUNKCORE_PAIR_FILE_H

/** @file Files of key/value pairs without sections. Syntax and ways of writing: text_file.h. */

#include <vunkcore/hash.h>
#include <vunkcore/text_file.h>
#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Sets every pair of a file into a hash, replacing the values of keys that are there already.
 *
 * @param ppsh  address of a hash; may be moved. Left as it was when the file cannot be read or understood.
 * @return the number of pairs read (a key that occurs twice counts twice), 0 for an empty file, or -1 on failure:
 *         VUNKC_ERR_FILE_MISSING, VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ, VUNKC_ERR_SYNTAX (a section header
 *         included).
 */
VUNKC_API int VUNKCFileGetPair(const char *szPath, VUNKSZHASH **ppsh);

/**
 * Makes the pairs of a hash, in its order, the whole content of a file. The file may be missing.
 *
 * @param iFlags  0; other values are refused.
 * @return 0, or -1 on failure, when the file is as it was: VUNKC_ERR_NOT_STORABLE, VUNKC_ERR_FILE_WRITE.
 */
VUNKC_API int VUNKCFileSetPair(const char *szPath, const VUNKSZHASH *psh, int iFlags);

VUNKC_END_DECLS

#endif
