#ifndef ZEVOSTORAGE_ZEVOSTORAGE_H
#define ZEVOSTORAGE_ZEVOSTORAGE_H

/**
 * @file
 * The whole storage library: what is mounted, on which devices, and what these are made of.
 *
 * The rules of the core library (vunkcore/types.h) hold here as well. Besides:
 *
 *  1. What asks changes nothing, on the machine or in the process. Devices are never opened, only files of the kernel's,
 *     those that the headers name and, to ask a Btrfs file system who it is, the path that it is mounted at.
 *  2. A list is made at the time of the call and does not follow the machine afterwards. It belongs to the caller, who
 *     releases it with the function that its enumeration names and does not change it. A list pointer that a failed call
 *     left null can be released as well.
 *  3. Devices may come and go while they are looked at. One that is gone counts as never seen, unless it is what the call
 *     was about.
 */

#include <zevostorage/disk.h>
#include <zevostorage/error.h>
#include <zevostorage/file_system.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/mount.h>
#include <zevostorage/notify.h>
#include <zevostorage/raid.h>
#include <zevostorage/space.h>
#include <zevostorage/volume_conf.h>

#endif
