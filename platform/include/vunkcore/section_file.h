#ifndef VUNKCORE_SECTION_FILE_H
#define VUNKCORE_SECTION_FILE_H

/**
 * @file
 * Files of named sections of key/value pairs. Syntax and ways of writing: text_file.h.
 *
 * A pair before the first header belongs to no section and makes the file unreadable (VUNKC_ERR_SYNTAX). A section
 * whose header occurs more than once has the pairs of all its occurrences, as though they stood in one. A section goes
 * up to the next header: comments and empty lines right before a header belong to the section above it.
 *
 * The functions that change a file leave everything outside of the section in question byte for byte as it is,
 * comments included, except that a last line without a newline gets one before a section is appended. Of a section that
 * is modified the header's line is kept, comments are not. All of them fail with VUNKC_ERR_FILE_MISSING,
 * VUNKC_ERR_FILE_OPEN, VUNKC_ERR_FILE_READ or VUNKC_ERR_SYNTAX when the file cannot be read, and with
 * VUNKC_ERR_NOT_STORABLE or VUNKC_ERR_FILE_WRITE when it cannot be written; it is then as it was.
 *
 * What is added or modified is on disk when the call returns, and what is removed is gone from it.
 */

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <vunkcore/text_file.h>
#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Sets every pair of a section into a hash, replacing the values of keys that are there already.
 *
 * @param ppsh  address of a hash; may be moved. Left as it was on failure.
 * @return the number of pairs read, 0 for an empty section, or -1 on failure: as above, and VUNKC_ERR_SECTION_MISSING
 *         when the file can be read but has no such section.
 */
VUNKC_API int VUNKCFileGetSection(const char *szPath, const char *szSection, VUNKSZHASH **ppsh);

/**
 * Appends the names of all sections to a list, in file order; a name whose header occurs twice is there twice.
 *
 * @param ppslSections  address of a list; may be moved. Left as it was on failure.
 * @return the number of names, or -1 on failure.
 */
VUNKC_API int VUNKCFileEnumSection(const char *szPath, VUNKSZLIST **ppslSections);

/**
 * Appends a section with the pairs of a hash at the end of a file. The file may be missing.
 *
 * @return 1 when it was added, 0 when the file has a section of that name (nothing is written), -1 on failure.
 */
VUNKC_API int VUNKCFileAddSection(const char *szPath, const char *szSection, const VUNKSZHASH *psh);

/**
 * Gives a section the pairs of a hash in place of those that it has. Of a header that occurs more than once the first
 * occurrence stays, with the new pairs, and the others go.
 *
 * @param szNewName  null: the section keeps its name. Other values are refused.
 * @param fReplace   1. Other values are refused.
 * @param iFlags     0. Other values are refused.
 * @return 1 when it was written, 0 when the file has no such section (nothing is written), -1 on failure.
 */
VUNKC_API int VUNKCIFileModifySection(const char *szPath, const char *szSection, const char *szNewName,
                                      const VUNKSZHASH *psh, int fReplace, int iFlags);

/**
 * Removes a section, all its occurrences, up to the next header or the end of the file.
 *
 * @return 1 when it was removed, 0 when the file has no such section (nothing is written), -1 on failure.
 */
VUNKC_API int VUNKCFileRemoveSection(const char *szPath, const char *szSection);

VUNKC_END_DECLS

#endif
