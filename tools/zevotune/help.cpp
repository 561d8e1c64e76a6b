#include "help.h"

#include "config_keys.h"

namespace help {

const char *const kTool =
	R"help(A profile is a file that says which value each kernel parameter is to have.
  /usr/zevo/share/zevotuned/profiles    profiles that ship
  /usr/local/share/zevotuned/profiles   profiles added locally
  /usr/zevo/share/zevotuned/global      applied before every profile
  /usr/local/share/zevotuned/global     applied then, before every profile
A profile is known by the "name" in its section [main], not by its file name.
One file there that cannot be read as a profile stops all commands that look
at profiles; the message names the file and the line.

Everybody may list and read; "set", "apply", "undo", "config set", "metadata" and
"cache", but for "cache status", take root (sudo).

Exit status: 0 done; 1 failed, with one line on standard error that says what
failed, where, why, and what to do; 2 wrong usage. The system's log has the
details of a failure, and every parameter that the kernel refused:
  journalctl -t zevotune
With --json the result is JSON, in which everything but ASCII is escaped;
failures remain a line on standard error.)help";

const char *const kList =
	R"help(One line for each profile, by ascending index:
  *       the selected profile; no line has it when the selection cannot be
          read or names a profile that is not installed
  INDEX   key "index", -1 when there is none
  NAME    key "name"; what "set" takes
  TITLE   key of the title's translations, if there is one
  FILE    the file; with "(hidden by FILE)" when another profile of the same
          name comes first: only that one is ever used
Nothing is made or changed but, as root, the lock file of the configuration.

--names: each name once, a line each; with --json an array of strings.

--json: an array of objects with
  name, title, description, path   strings, "" for a missing key
  index                            number
  inherit                          the name that it inherits from, or null
  ui                               true: meant to be offered to users
  selected                         true or false; null: cannot be read
  shadowed_by                      path of the profile that hides it, only
                                   where there is one)help";

const char *const kCurrent =
	R"help(Prints the name of the selected profile, as it is recorded in
/usr/zevo/etc/zevotuned/config; whether it is installed is not looked at.
As root, a missing configuration is made: performance_throughput is selected
then. Without root nothing is made, and it fails where the configuration is
missing.

--json: {"profile": NAME})help";

const char *const kSet =
	R"help(Records the profile as the selected one and applies it: first the global
profiles, then those that it inherits from, then its own parameters. It stays
selected over a boot, but its values do not: "zevotune apply" at every boot
brings them back.

Nothing is touched when there is no such profile, when a profile that is
inherited is missing, or when inheritance goes round in a circle. A parameter
that the kernel does not know is passed over, one that it refuses is logged
and passed over; "zevotune verify" shows it. After any other failure half-way,
what has been applied until then stays; "zevotune apply" tries again.

What is overwritten is kept: "zevotune undo" restores it.

Takes root.

--json: {"profile": NAME, "path": FILE})help";

const char *const kApply =
	R"help(Applies the selected profile again, for example after a boot or after its file
was changed, with the same checks as "set". As root, a missing configuration is
made: performance_throughput is selected then. "zevotune undo" restores what it
overwrites.

Takes root.

--json: {"profile": NAME, "path": FILE})help";

const char *const kUndo =
	R"help(Restores the values that the last "set" or "apply" has overwritten, also when it
has failed half-way, and selects the profile again that was selected before.
Of a profile that was applied several times without another one in between,
what was there before the first time. A disk's scheduler gets back the tunables
that it had, and of a ratio and its bytes the one that was in force.

What was overwritten is kept in /run/zevotuned/undo.json, until it is restored
or the machine is booted. A value that cannot be restored is shown with the
reason; "undo" then tries again.

Takes root. Exit status: 0 all is restored, 1 not all, or there is nothing to
undo.

--json: an object with
  profile          whose application is undone
  selected_again   the profile that is selected again, or null
  values           objects with target, path, before (what was to be
                   restored), found (what it was just now), now (what it is
                   after the restoration; both null: cannot be read), restored)help";

const char *const kPlan =
	R"help(Shows what "zevotune set NAME" would write on this machine, in that order, and
writes nothing: the global profiles, the profiles that it inherits from, each of
its sections. Of each value
  LINE     the line of the file named above that it comes from
  TARGET   the kernel parameter, or the file of the kernel's
  NOW      its present value
  TO COME  the value that would be written; "as now" if that is the same
  NOTE     how the value comes about where it is not the file's, such as a
           ratio that becomes a number of bytes; and what becomes of it later
Devices, keys and sections that would be left alone are listed behind "not",
with the reason. Whether the kernel accepts a value only shows when it is
written; "zevotune lint" knows some that it does not. An application that would
fail half-way ends the plan there.

Everybody may ask; some values are shown to root alone.

Exit status: 0, or 1 if applying would fail.

--json: an object with
  profile    the name
  failure    what would end the application at the end of the plan, or null
  sections   objects with role ("global", "inherited", "selected"), profile,
             path, section, line, keys, passed_over
             keys: objects with key, value, line, writes, passed_over
             writes: objects with target, path (the kernel's file), now (null:
             unknown), now_unknown (why, or null), value, changes (whether it
             would change anything), known (to this kernel),
             overwritten_later, note (or null)
             passed_over: objects with what, why)help";

const char *const kVerify =
	R"help(Shows of each value that applying the profile would leave behind whether it
holds now; without NAME, of the selected profile:
  holds                        the kernel has it
  changed since it was applied it had it then, and has another one now
  refused by the kernel        it did not take it, or corrected it
  differs                      it has another one, and which of these two it is
                               is not known: since the boot "zevotune" has not
                               applied the profile, or not to its end, or you
                               are not root
  cannot be read               by you, or by anybody
Values that this kernel does not know count neither way. Where several profiles,
sections or lines give the same value, the last one counts. Nothing is changed.

Exit status: 0 all values hold, 1 not all do.

--json: an object with
  profile   the name
  holds     true or false, as the exit status
  values    objects with target, path, now (null: unknown), value, state
            ("holds", "changed", "refused", "differs", "unread", "unknown"),
            file, line)help";

const char *const kLint =
	R"help(Looks for mistakes in files that are profiles or are to become such: lines that
cannot be read; a missing [main] or name; sections and keys that nothing reads;
what occurs twice; names and indexes that another profile has; parents that do
not exist, inheritance that goes round in a circle, global profiles that
inherit; values that this machine's kernel would refuse, and parameters,
schedulers and tunables that it does not have. Nothing is changed, and everybody
may ask.

A line for each, FILE:LINE: error: TEXT. An error keeps the profile, or that
value, from being applied; a warning is worth a look.

Exit status: 0 no errors, 1 errors.

--json: an array of objects with
  file       as given
  line       number; null for the whole file
  severity   "error" or "warning"
  text       what it is)help";

const char *const kDevices =
	R"help(Shows the mounted volumes with their disks, the RAID arrays with their members,
and the disks with their schedulers, the active one in brackets, and its
tunables; and of each, what a profile's sections do to it:
  [volume]           changes Btrfs volumes all of whose disks are SSDs
  [raid_cfq_1]       changes tunables of the member disks of arrays without
                     parity: raid0, raid1, raid10, linear
  [raid_cfq_5]       the same for arrays with parity: raid4, raid5, raid6
  [raid_cfq_default] the same for both
  [disk]             "ssd_scheduler" sets the scheduler of SSDs that offer it
Arrays that are not active or made for one disk only are left alone, and
external disks by [disk]. Of the RAID sections' keys a disk takes those that
are among its tunables. A section changes only what is there when the profile
is applied, which is done again with "zevotune apply".

What cannot be found out is shown as unknown with the reason, and does not
stop the rest. Which disks lie below a cache of the device mapper, for
example, only root finds out. Nothing is changed.

The branches are drawn in ASCII unless the locale's character set is UTF-8.

--json: an object with
  volumes  objects with path, file_system, uuid (null unless Btrfs), device,
           alternative_device (the name that people know it by, or null),
           disks (objects with device, ssd, error; null: unknown), ssd_only,
           sections, error
  arrays   objects with device, level, disks (how many it is made for, 0 when
           not active), active, lacking (how many of them are gone, failed or
           being rebuilt), broken (it lacks too many), members (objects with
           device, disk, failed, error), sections
  disks    objects with device, kernel_name, type ("sata", "sas", "nvme",
           "virtual", "external", "emmc"), ssd, scheduler (the active one),
           schedulers (all), tunables, sections, error
"sections" are the names of those that change it. What is unknown is null, or
an empty array, with the reason in "error", which is null otherwise.)help";

const char *const kMetadata =
	R"help(Shows where a mounted Btrfs volume has its metadata: the chunks of types
metadata and system (also those that hold data besides), and the copies of the
superblock. Space that is set aside for metadata counts, full or not; with
profile DUP it lies on the device twice. Where some of it is pinned in an SSD
cache ("zevotune cache --help"), it is said how much, and of what. Nothing is
changed.

A few chunks are listed; of many it is shown how many there are of each size,
unless --list is given. SIZE is rounded, offsets are in bytes.

The map shows the whole device in eight lines at most, as wide as the terminal,
or 80 columns. In front of each line stands the offset at which it begins. How
dark a cell is says how much of it is metadata. It is drawn in ASCII unless the
locale's character set is UTF-8.

Only volumes on one device can be shown. Behind LVM, RAID or a cache, the device
is that which is mounted, not the disks below it.

Takes root.

--json: an object with
  path, uuid, device   strings
  device_size          bytes, as all sizes and offsets
  superblocks          objects with copy (1, 2, 3), size, device_offset, pinned
  chunks               objects with logical_offset, size, profile ("single",
                       "DUP"), device_offsets (one or two), type ("system",
                       "metadata", "mixed" with data; null: unknown), pinned
                       (true or false; null: unknown)
  totals               chunks (how many), logical_size, size_on_device (DUP
                       twice), counted_by_kernel: the same as size_on_device
                       unless chunks have come or gone meanwhile; pinned: how
                       many bytes on the device (null: unknown))help";

const char *const kCache =
	R"help(An SSD cache in front of a Btrfs volume can keep the volume's metadata for good:
it is "pinned". Every volume has a switch for that, and an engine that brings
what is pinned into line with it. At most one engine works on a volume; it goes
on when the program that has started it is ended. What is pinned is recorded on
the volume itself, so that a pass that has ended half-way is gone on with.)help";

const char *const kCacheOn =
	R"help(Switches a volume's cache on and pins its metadata: all metadata and system
chunks and the copies of the superblock. Each is read once, which takes as long
as reading all of it. Progress is shown: as a bar on a terminal, otherwise by a
line every few seconds. Ctrl-C ends the display, and not the pass. When another
engine works on the volume, it waits for that one and looks through the volume
again.

Refused before anything is changed where "zevotune cache check" says no.
How much of the SSD cache is taken at most: "btrfs_metadata_cache_space_usage_
limit" of "zevotune config".

Takes root.

Exit status: 0 all is pinned, or what the limit allows; 1 not; 128 and the
signal's number when a signal has ended the display.

--json: the object of "zevotune cache status", when the pass has ended; with
--no-wait: {"path": PATH, "started": true, "switched_on": true or false})help";

const char *const kCacheOff =
	R"help(Switches a volume's cache off and unpins all that is recorded. Otherwise as
"zevotune cache on".

Where the kernel lacks the attribute metadata_cache_enable of the volume, it is
refused as long as anything is recorded as pinned.

Takes root.

--json: as "zevotune cache on")help";

const char *const kCacheRescan =
	R"help(Looks through a volume again: with its switch on, pins chunks that are new and
unpins what is gone; with its switch off, or where metadata cannot be pinned any
more, unpins what is left. Goes on with a pass that has ended half-way.
Otherwise as "zevotune cache on".

Takes root.

--json: as "zevotune cache on")help";

const char *const kCacheStatus =
	R"help(Shows what is pinned of a volume, its switch, the process of the engine that
works on it, and how much of the SSD cache may be taken (to root only). How far
a pass is may be five seconds old.

With --watch a pass is followed until it has ended: as a bar on a terminal,
otherwise by a line every few seconds. Then all is shown.

Needs no root where the files are readable to everybody.

--json: an object with
  path, uuid, device           strings
  state                        "nothing_pinned", "pinning", "pinned",
                               "unpinning"; half-way and nobody at it:
                               "pinning_stopped", "unpinning_stopped"
  switched_on                  true or false; null: never set
  engine_pid                   null when there is none
  total, done                  bytes to be gone through and gone through while
                               it is being pinned; otherwise null
  pinned_size, pinned_ranges   bytes on the device that are recorded as pinned,
                               or as about to be, and in how many ranges
  limit                        bytes that may be pinned; null: unknown
With --watch one such object a line whenever it changes, and one at the end.)help";

const char *const kCacheStop =
	R"help(Ends the process of the engine that works on a volume: asks it to end, six times
in five seconds, and then kills it. The switch stays as it is, and so does what
is recorded: "zevotune cache rescan" goes on from there, "zevotune cache off"
unpins it. It is no failure when there is no engine.

Takes root.

--json: the object of "zevotune cache status", and
  stopped_pid   the process that has ended, or null
  killed        true: by force)help";

const char *const kCacheCheck =
	R"help(Says whether a volume's metadata can be pinned, and why not. Nothing is changed.
A volume whose switch is on is always supported, so that it can be switched off.

Takes root.

Exit status: 0 it can, 1 it cannot.

--json: an object with
  path        string
  supported   true or false, as the exit status
  can_pin     whether it could be pinned now
  reason      the library's number of why not, or null:
              1 the SSD cache's mode is unknown    2 there is no SSD cache
              3 it is not ready                    4 it cannot pin
              5 it can pin no ranges               6 btrfs_metadata_cache_on
              7 not a Btrfs volume                   is not "true"
  why         in words, with what to do, or null
  ssd_cache   its name, or null)help";

const char *const kConfig =
	R"help(The configuration is the file /usr/zevo/etc/zevotuned/config.
"zevotune config set --help" lists the keys.)help";

const char *const kConfigGet =
	R"help(Prints the value of a key as it is. As root, a missing configuration is made,
and keys that it lacks are added with their defaults; without root, nothing is
made, and such keys are shown with their defaults.

--json: {"key": KEY, "value": VALUE}; the value is a string always)help";

const char *const kConfigList =
	R"help(Prints all keys with their values, in the order of the file. As root, a missing
configuration is made, and keys that it lacks are added with their defaults;
without root, nothing is made, and such keys are shown with their defaults.

--json: {KEY: VALUE, ...}; values are strings always)help";

std::string ConfigSet()
{
	std::string text = "Keys:\n";
	for (const ConfigKey &key : ConfigKeys()) {
		text += std::string("  ") + key.name + " (default: " + key.defaultValue + ")\n";
		text += std::string("      ") + key.values + '\n';
	}
	return text +
	       R"help(Setting "profile" only records the name; "zevotune apply" applies it.

Refused unless --force is given: a key that is neither one of these nor in the
file already, so that a misspelt one does not go unnoticed; a value that makes
no sense for its key; a profile that is not installed.
A value that begins with '-' goes behind "--".

Takes root.

--json: {"key": KEY, "value": VALUE})help";
}

} // namespace help
