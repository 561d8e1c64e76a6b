#ifndef ZEVOTUNED_APPLY_H
#define ZEVOTUNED_APPLY_H

/**
 * @file
 * Applying profiles.
 *
 * The sections of a profile's file are applied in file order:
 *
 * | section      | effect                                                                                               |
 * |--------------|------------------------------------------------------------------------------------------------------|
 * | [main]       | applies the profile that key "inherit" names, as TuneApplyProfile does; an empty "inherit" is a name |
 * |              | too. Values of a section that stands after [main] win over inherited ones, before it they lose.      |
 * | [sysctl]     | gives each key, a kernel parameter in sysctl notation, its value with /sbin/sysctl -we               |
 * | [volume]     | sets the number of writeback threads of Btrfs volumes on SSDs                                        |
 * | [raid_cfq*]  | gives tunables of I/O schedulers their values, on member disks of RAID arrays                        |
 * | [disk]       | selects the I/O scheduler of SSDs                                                                    |
 * | others       | are ignored                                                                                          |
 *
 * In [sysctl] the ratios "vm.dirty_ratio" and "vm.dirty_background_ratio" become "vm.dirty_bytes" and
 * "vm.dirty_background_bytes" on machines whose memory is larger than "vm_memory_max" (bytes) in [main] of the same
 * file: vm_memory_max * ratio / 100, in 64 bits, which wrap. A key that cannot be set is logged and passed over. A key
 * that the kernel does not know is no failure.
 *
 * [volume] has one key, "zevo_writeback_thread_max": "auto", one thread for eight processors and never none, or a number,
 * which is cut down to the number of processors. It is written to that attribute in the folder below /sys/fs/btrfs of
 * every mounted Btrfs volume all of whose disks are SSDs. Volumes with a rotating disk stay as they are. A kernel without
 * the attribute is a failure, as is a disk of which the kernel does not say what it is; a volume of which the storage
 * library knows no devices is logged and passed over. Enumerating volumes leaves 0 on the error stack.
 *
 * [raid_cfq_1] is for md arrays of the levels without parity (linear, 0, 1, 10), [raid_cfq_5] for those with it (4, 5, 6),
 * [raid_cfq_default] for all, and any other name that begins so for none. Arrays that are not active or made for one disk
 * alone are left out. Each key is a file in /sys/block/DISK/queue/iosched of each disk that an array has a member
 * on; a disk whose active scheduler does not have the file is passed over, so that one section can serve all schedulers.
 * No array at all is a failure on a model that is declared to have RAID (vunkcore/model.h).
 *
 * [disk] has one key, "ssd_scheduler": the name of a scheduler, which is selected on every internal SSD that offers it. It
 * starts with its own tunables, so [disk] belongs before the RAID sections. Disks of which the kernel does not say what
 * they are count as rotating here.
 *
 * Any other failure ends the application. What has been written until then stays written; nothing is undone.
 * Applications at the same moment mix their writes.
 */

#include <zevotuned/export.h>

/**
 * Applies the global profiles (TuneApplyGlobalProfile) and then a profile. For every profile that is inherited the global
 * profiles are applied again before it. Profiles that inherit from each other in a circle recurse until the stack is
 * exhausted, and so does a global profile that inherits from any profile: check before you call.
 *
 * @param szProfile  name of an installed profile.
 * @return 0; -1 when there is no such profile (nothing has been applied), or on a failure while applying.
 */
ZEVOTUNED_API int TuneApplyProfile(const char *szProfile);

/**
 * Applies every profile file of /usr/zevo/share/zevotuned/global and then of /usr/local/share/zevotuned/global, each
 * folder in ascending byte order of the file names; "index" does not matter. A folder that is missing holds none.
 *
 * @return 0; -1 when a file cannot be read as a profile (nothing has been applied) or at the first one that fails (those
 *         before it stay applied).
 */
ZEVOTUNED_API int TuneApplyGlobalProfile();

#endif
