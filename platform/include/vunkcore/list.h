#ifndef VUNKCORE_LIST_H
#define VUNKCORE_LIST_H

/** @file A growable list of strings. */

#include <vunkcore/types.h>

/**
 * A list of strings. Only the count is for callers to read; the rest of the object is the library's, so a list comes
 * from VUNKCSzListAlloc alone and is never copied.
 */
typedef struct VUNKSZLIST {
	int nItem; /**< number of strings; read only */
} VUNKSZLIST;

VUNKC_BEGIN_DECLS

/**
 * Makes an empty list.
 *
 * @param cbInitial  bytes of text to make room for; a hint, more than 0. The list grows as needed.
 * @return the list, to be released with VUNKCSzListFree; null on failure.
 */
VUNKC_API VUNKSZLIST *VUNKCSzListAlloc(int cbInitial);

/** Releases a list and its strings. Null is accepted. */
VUNKC_API void VUNKCSzListFree(VUNKSZLIST *psl);

/**
 * @param iIndex  0 for the first string.
 * @return the string, which belongs to the list and is valid until the list is changed or released; null when the
 *         list is null or the index lies outside of it (VUNKC_ERR_BAD_ARGUMENT).
 */
VUNKC_API const char *VUNKCSzListGet(const VUNKSZLIST *psl, int iIndex);

/**
 * Appends a copy of a string.
 *
 * @param ppsl  address of the list. The call may move the list: use *ppsl afterwards, never an older copy of it.
 * @return the new count, or -1 on failure, when the list is as it was.
 */
VUNKC_API int VUNKCSzListPush(VUNKSZLIST **ppsl, const char *sz);

VUNKC_END_DECLS

#endif
