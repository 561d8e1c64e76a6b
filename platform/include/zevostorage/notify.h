#ifndef ZEVOSTORAGE_NOTIFY_H
#define ZEVOSTORAGE_NOTIFY_H

/**
 * @file
 * Telling people what happens to their storage: entries of the systemd journal with fields that programs can match, or
 * lines of syslog, of the message alone, where no journal listens or it does not take the entry at once. Control
 * characters in a message are "?". Each entry names the program as well (SYSLOG_IDENTIFIER). Nothing stays open between
 * two calls, so a forked child may make them too.
 */

#include <vunkcore/hash.h>
#include <vunkcore/types.h>

/** Kinds, levels and numbers of events. */
enum {
	ZEVO_LOG_SYSTEM = 1,                   /**< kind: about the machine, not about one of its users */
	ZEVO_LOG_WARNING = 2,                  /**< level */
	ZEVO_EVENT_METADATA_CACHE = 0x116000F6 /**< texts: pinned GiB, percent of the cache, number of the SSD cache */
};

/** The notification that pinned metadata nears the size of the cache: "%SSD_ID%", "%USAGE%" (percent), "%USED_SIZE%" (GiB). */
#define ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL "MetadataCacheSpaceFullWarning"

VUNKC_BEGIN_DECLS

/**
 * Sends a notification: one entry at priority warning with
 *
 *   MESSAGE          what a person reads; a sentence for tags that are known, else the tag and its values
 *   ZEVO_EVENT       the tag
 *   ZEVO_<KEY>       a field for each pair of the hash; a key's "%" are left out, its lower case becomes upper case and
 *                    what a field's name cannot have "_": "%SSD_ID%" is ZEVO_SSD_ID
 *
 * @param szTag  which notification.
 * @param psh    its values; may be null.
 * @return 0, or -1 on failure: VUNKC_ERR_BAD_ARGUMENT (an empty tag included), VUNKC_ERR_NO_MEMORY.
 */
VUNKC_API int ZEVOSysNotifySendNotifiction(const char *szTag, const VUNKSZHASH *psh);

/**
 * Records an event: one entry with MESSAGE, ZEVO_EVENT_ID (eight hexadecimal digits), ZEVO_LOG_KIND and ZEVO_TEXT_1,
 * ZEVO_TEXT_2 … for the texts.
 *
 * @param iKind   ZEVO_LOG_SYSTEM. Other values are refused.
 * @param iLevel  ZEVO_LOG_WARNING. Other values are refused.
 * @param iEvent  the event's number.
 * @param ...     at most eight texts; the last one must be followed by (char *)NULL.
 * @return 0, or -1 on failure: VUNKC_ERR_BAD_ARGUMENT (more than eight texts included), VUNKC_ERR_NO_MEMORY.
 */
VUNKC_API int ZEVOLogSet1(int iKind, int iLevel, int iEvent, ...) __attribute__((sentinel));

VUNKC_END_DECLS

#endif
