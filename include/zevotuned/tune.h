#ifndef ZEVOTUNED_TUNE_H
#define ZEVOTUNED_TUNE_H

/**
 * @file
 * Selecting and applying performance profiles. For C and C++.
 *
 * A profile is a file in /usr/zevo/share/zevotuned/profiles or /usr/local/share/zevotuned/profiles. It is known by the
 * "name" of its "main" section, not by its file name. One file in these folders that cannot be read as a profile makes
 * every function that looks a profile up fail.
 */

#include <stddef.h>

#include <vunkcore/list.h>
#include <zevotuned/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Selects a profile: records its name in the configuration, then applies it.
 *
 * The name is recorded before anything is applied and stays recorded when the application fails half-way; values
 * written until then stay written. ZEVORunCurrentProfile tries again.
 *
 * Two selections at the same moment may leave the name of one and the values of the other.
 *
 * @param szProfile  name of an installed profile.
 * @return 0; -1 when there is no such profile or the name could not be recorded (nothing has been applied), or when the
 *         application failed.
 */
ZEVOTUNED_API int ZEVOSetCustomProfile(const char *szProfile);

/**
 * Selects a built-in profile, exactly as ZEVOSetCustomProfile does with its name.
 *
 * @param iProfile  0 for "performance_throughput", 1 for "performance_latency"; anything else is a wrong argument.
 * @return as ZEVOSetCustomProfile.
 */
ZEVOTUNED_API int ZEVOSetProfile(int iProfile);

/**
 * Reads the name of the selected profile back. It is not checked against the installed profiles. On a system without a
 * configuration file this makes one, and the name is "performance_throughput".
 *
 * @param szBuf  receives the name, cut to cbBuf - 1 bytes and terminated; untouched on failure.
 * @param cbBuf  size of szBuf in bytes, at least 1.
 * @return 0 or -1.
 */
ZEVOTUNED_API int ZEVOGetCurrentProfile(char *szBuf, size_t cbBuf);

/**
 * Applies the selected profile again. The configuration is not changed.
 *
 * @return 0; -1 when the name could not be read (nothing has been applied) or the application failed (TuneApplyProfile
 *         in apply.h tells what stays written).
 */
ZEVOTUNED_API int ZEVORunCurrentProfile(void);

/**
 * Appends the names of all installed profiles to a list, by ascending "index". Names that occur twice are there twice. A
 * name for which the list finds no memory is left out, and the result is 0 all the same.
 *
 * @param ppslList  address of a list from VUNKCSzListAlloc. The call may move the list; it stays the caller's, and what
 *                  it held stays in it.
 * @return 0; -1 on failure, when the list is as it was.
 */
ZEVOTUNED_API int ZEVOProfileList(VUNKSZLIST **ppslList);

#ifdef __cplusplus
}
#endif

#endif
