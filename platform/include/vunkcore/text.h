#ifndef VUNKCORE_TEXT_H
#define VUNKCORE_TEXT_H

/** @file Taking text apart. */

#include <vunkcore/list.h>
#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Splits a text at every character that is one of the delimiters and appends the pieces that are not empty to a list.
 * The text itself is not changed.
 *
 * @param ppslTokens  address of a list; may be moved. Left as it was on failure.
 * @return the number of pieces, or -1 on failure.
 */
VUNKC_API int VUNKCStrTok(const char *szText, const char *szDelims, VUNKSZLIST **ppslTokens);

VUNKC_END_DECLS

#endif
