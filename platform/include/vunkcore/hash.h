#ifndef VUNKCORE_HASH_H
#define VUNKCORE_HASH_H

/** @file A map from string to string that keeps the order in which its keys came. */

#include <vunkcore/list.h>
#include <vunkcore/types.h>

/** A hash; its content is reached through the functions below only. */
typedef struct VUNKSZHASH VUNKSZHASH;

VUNKC_BEGIN_DECLS

/**
 * Makes an empty hash.
 *
 * @param cbInitial  bytes of text to make room for; a hint, more than 0. The hash grows as needed.
 * @return the hash, to be released with VUNKCSzHashFree; null on failure.
 */
VUNKC_API VUNKSZHASH *VUNKCSzHashAlloc(int cbInitial);

/** Releases a hash with its keys and values. Null is accepted. */
VUNKC_API void VUNKCSzHashFree(VUNKSZHASH *psh);

/**
 * @return the value of the key, which belongs to the hash and is valid until the hash is changed or released; null
 *         when there is no such key. An empty value is "", not null. Asking for a key that is not there is no failure
 *         and sets no error; a null argument is (null, VUNKC_ERR_BAD_ARGUMENT).
 */
VUNKC_API const char *VUNKCSzHashGetValue(const VUNKSZHASH *psh, const char *szKey);

/**
 * Sets a key to a copy of a value. A key that is there already keeps its place in the order; a new one comes last.
 * Any string is a key, the empty one included.
 *
 * @param ppsh  address of the hash. The call may move the hash: use *ppsh afterwards, never an older copy of it.
 * @return 0, or -1 on failure, when the hash is as it was.
 */
VUNKC_API int VUNKCSzHashSetValue(VUNKSZHASH **ppsh, const char *szKey, const char *szValue);

/**
 * Appends every key to a list, in the order in which the keys were first set.
 *
 * @param ppslKeys  address of a list; may be moved.
 * @return the number of keys, or -1 on failure, when the list is as it was.
 */
VUNKC_API int VUNKCSzHashEnumKey(const VUNKSZHASH *psh, VUNKSZLIST **ppslKeys);

VUNKC_END_DECLS

#endif
