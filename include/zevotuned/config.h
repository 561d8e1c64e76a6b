#ifndef ZEVOTUNED_CONFIG_H
#define ZEVOTUNED_CONFIG_H

/**
 * @file
 * The configuration: a pair file (vunkcore/pair_file.h) at /usr/zevo/etc/zevotuned/config.
 *
 * | key                                          | default                  | value                                   |
 * |----------------------------------------------|--------------------------|-----------------------------------------|
 * | profile                                      | performance_throughput   | name of the selected profile            |
 * | lock                                         | false                    | true or false; of no effect in here     |
 * | btrfs_metadata_cache_on                      | true                     | the metadata cache is on when it is     |
 * |                                              |                          | exactly true                            |
 * | btrfs_metadata_cache_space_usage_limit       | 100                      | up to 100: percent of the SSD cache;    |
 * |                                              |                          | above: bytes                            |
 * | btrfs_metadata_cache_read_throttle_wait_mult | 0                        | pause after reading, in multiples of    |
 * |                                              |                          | the time that the reading took          |
 *
 * Other keys are kept and exported like these. Values are text and never checked.
 *
 * Every function reads the file afresh. Each single read and each single write holds the lock file
 * /run/lock/zevotuned/config.lock, shared or exclusive, and waits up to 5 seconds for it. No lock spans a reading and
 * the writing that follows from it: of two changes made at the same moment by two callers, one can be lost. The file
 * itself is always whole.
 */

#include <vunkcore/hash.h>
#include <vunkcore/types.h>
#include <zevotuned/export.h>

namespace Json {
class Value;
}

/**
 * Locks the configuration, waiting up to 5 seconds. Logs nothing.
 *
 * @param blExclusive  0 to read, anything else to write.
 * @return the descriptor that holds the lock, to be released with VUNKCFileUnlockByFile; -1 on failure.
 */
ZEVOTUNED_API int TuneLockConfig(BOOL blExclusive);

/**
 * Gives the path of the configuration file and finds out whether it is there.
 *
 * @param szConfig  receives the path, cut to cbConfig - 1 bytes; it is the cut path that is looked at then. Written also
 *                  on failure.
 * @param cbConfig  size of szConfig in bytes, at least 1.
 * @param blCreate  make the folder (its last level only) and an empty file where they are missing.
 * @return 1 when the file is there or was made; 0 when it is missing, or could not be made (logged, error 0xC00);
 *         -1 when it is not a regular file (error 0xC000, not logged), when its folder is something else, or when the
 *         folder could not be made.
 */
ZEVOTUNED_API int TuneGetOrCreateConfig(char *szConfig, unsigned long cbConfig, bool blCreate);

/**
 * Reads a pair file under the configuration's lock.
 *
 * @param ppshHash  address of a hash, which receives the pairs in addition to what it holds. After a failure it may hold
 *                  some of them.
 * @return 0 or -1.
 */
ZEVOTUNED_API int TuneGetConfigHashFromFile(const char *szPath, VUNKSZHASH **ppshHash);

/**
 * Makes a hash the whole content of an existing file, under the configuration's lock. When the lock cannot be had, the
 * log line says "shared" although the lock asked for is the exclusive one.
 *
 * @return 0 or -1; on failure the file is as it was.
 */
ZEVOTUNED_API int TuneSetConfigHashToFile(const char *szPath, VUNKSZHASH *pshHash);

/** @return 1 when the hash has all five keys of the table above, whatever their values; 0 when not; -1 for null. */
ZEVOTUNED_API int TuneConfigIsValid(VUNKSZHASH *pshHash);

/**
 * Reads the configuration. Makes the file where it is missing, and adds the keys that it lacks with their defaults.
 *
 * Whether keys are missing is judged on the caller's hash after the file's pairs have been added to it: pass an empty
 * one to have the file completed.
 *
 * @param ppshHash  as in TuneGetConfigHashFromFile.
 * @return 0 or -1.
 */
ZEVOTUNED_API int TunedConfigGet(VUNKSZHASH **ppshHash);

/**
 * Writes the pairs of a hash into the configuration; other pairs of the file stay. Makes the file where it is missing,
 * without adding defaults.
 *
 * @return 0 or -1; on failure the file is as it was.
 */
ZEVOTUNED_API int TuneSetHashToConfig(VUNKSZHASH *pshHashNew);

/** Writes one pair into the configuration, as TuneSetHashToConfig does. */
ZEVOTUNED_API int TuneSetKeyValueToConfig(const char *szKey, const char *szValue);

/** Records a profile's name as the selected one. Whether there is such a profile is not looked at, nor is it applied. */
ZEVOTUNED_API int TuneSetConfigProfile(const char *szProfile);

/**
 * Exports the configuration, read as TunedConfigGet does, as members of a JSON object. All values are JSON strings, also
 * "true" and "100".
 *
 * @param jsConfig  an object or null (which becomes an object); anything else is a wrong argument. Members of the same
 *                  names are overwritten, others stay.
 * @return 0 or -1.
 */
ZEVOTUNED_API int TunedConfigGetToJson(Json::Value &jsConfig);

#endif
