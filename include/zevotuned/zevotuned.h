#ifndef ZEVOTUNED_ZEVOTUNED_H
#define ZEVOTUNED_ZEVOTUNED_H

/**
 * @file
 * libzevotuned: tunes the storage stack of a network-attached storage box.
 *
 * This header brings everything. C programs get the functions with the prefix ZEVO; C++ programs (C++17 or later) also
 * the functions that those are made of. Link with -lzevotuned -lvunkcore.
 *
 * What holds for every function:
 *
 *  - Results are int: 0 for success and -1 for failure, unless a function states others. No exception leaves a
 *    function: where memory runs out it returns -1, with code 0x200 and not always a log line of its own.
 *  - A wrong argument (null where an object is needed, a size of 0) is logged, sets error 0xD00 and gives -1.
 *    Outputs are as they were after a failure unless a function says otherwise.
 *  - Every failure is logged to syslog at priority LOG_ERR, once per level of the failing call chain, innermost first:
 *    "utils.cpp:120 Failed to find the profile [fast].[0x0000 :0]". The brackets at the end hold the code, file and
 *    line that the error stack (vunkcore/error.h) held at that moment. A success never leaves a code there, but may leave
 *    an old one.
 *  - The library keeps nothing in memory between calls and has no threads. Any thread may call any function; hashes,
 *    lists and vectors that are passed in must not be used by another thread meanwhile.
 *  - Writing kernel parameters and the configuration takes root.
 *
 * Codes that the library itself sets on the error stack:
 *
 * | code   | meaning                                                                    |
 * |--------|----------------------------------------------------------------------------|
 * | 0xD00  | wrong argument                                                             |
 * | 0xC00  | a file or directory could not be made                                      |
 * | 0xC000 | a path that must be a regular file is something else                       |
 * | 0xA000 | a path that must be a directory is something else                          |
 * | 0x900  | an engine's lock file could not be opened or locked                        |
 * | 0x6400 | another engine works on the volume; the call has succeeded                 |
 * | 0x9700 | a child process could not be made                                          |
 * | 0xC200 | the volume has no settings of its own yet                                  |
 * | 0xD900 | the path does not lie on a Btrfs file system                               |
 */

#include <zevotuned/metadata_cache.h>
#include <zevotuned/tune.h>

#ifdef __cplusplus
#include <zevotuned/apply.h>
#include <zevotuned/chunk_info.h>
#include <zevotuned/config.h>
#include <zevotuned/profile.h>
#include <zevotuned/system_access.h>
#endif

#endif
