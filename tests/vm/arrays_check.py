"""Arrays of md and disks of four drivers, as the real kernel has them: whose schedulers and tunables a profile writes, whose
it leaves alone, what the kernel makes of the values, and what is restored."""

import errno
import fcntl
import glob
import json
import os
import re
import shutil
import struct
import subprocess
import time

from guest import LOCAL, SHIPPED, TOOL, Guest, load, main, program, read, scsi_disks, until, write

BLKRRPART = 0x125F
LOOP_SET_FD = 0x4C00
LOOP_CLR_FD = 0x4C01

MODULES = ["nvme", "virtio_blk", "loop", "dm_mod", "raid0", "raid1", "raid10", "raid456", "linear", "multipath", "bfq",
           "kyber-iosched"]
REDUNDANT = ["--assume-clean", "--bitmap=none", "--size=65536"]
NO_TUNABLE = "its disk's scheduler has no such tunable"
# Of each scheduler one tunable that no other one has, with a value that is not its own.
TUNABLES = {"bfq": ("back_seek_max", "1234"), "mq-deadline": ("fifo_batch", "7"), "kyber": ("read_lat_nsec", "12345678")}
# Those of mq-deadline.
TAKE_ANY_NOTATION = ["fifo_batch", "front_merges", "writes_starved", "async_depth", "read_expire", "write_expire",
                     "prio_aging_expire"]
KEYS = "".join(f"{key} = {value}\n" for key, value in TUNABLES.values())


def queue(disk, inside):
    return f"/sys/block/{disk}/queue/{inside}"


def tunable(disk, key):
    return queue(disk, "iosched/" + key)


def offered(disk):
    return read(queue(disk, "scheduler")).replace("[", "").replace("]", "").split()


def scheduler(disk):
    text = read(queue(disk, "scheduler"))
    found = re.search(r"\[(.*)\]", text)
    return found[1] if found else text


def select(name, *disks):
    """With this scheduler's own tunables, whichever was active."""
    for disk in disks:
        write(queue(disk, "scheduler"), "none")
        write(queue(disk, "scheduler"), name)


def on_disk(path):
    """The disk in it, of a path below /sys/block."""
    return path.split("/")[3]


def snapshot(disk="*"):
    """What a scheduler is, brings and changes, of every block device that there is."""
    patterns = ["scheduler", "iosched/*", "nr_requests", "wbt_lat_usec", "read_ahead_kb", "nomerges"]
    values = {}
    for path in [path for pattern in patterns for path in glob.glob(queue(disk, pattern))]:
        try:
            values[path] = read(path)
        except OSError as error:  # wbt_lat_usec, where nothing is throttled
            values[path] = error.errno
    return values


def parameters():
    names = ["swappiness", "vfs_cache_pressure", "dirty_ratio", "dirty_bytes", "dirty_background_ratio",
             "dirty_background_bytes", "dirty_writeback_centisecs", "dirty_expire_centisecs", "watermark_scale_factor"]
    return {path: read(path) for path in ["/proc/sys/vm/" + name for name in names]}


def partition(*disks):
    """Makes two of each, by an MBR. mdadm has the kernel forget them when it takes the whole disk."""
    entries = b"".join(struct.pack("<B3xB3xII", 0, 0xFD, start, 262144) for start in [2048, 264192])
    for disk in disks:
        with open("/dev/" + disk, "r+b") as file:
            file.write(bytes(446) + entries.ljust(64, b"\0") + b"\x55\xaa")
        with open("/dev/" + disk, "rb") as file:
            fcntl.ioctl(file, BLKRRPART)
        until(lambda: len(glob.glob(f"/sys/block/{disk}/*/partition")) == 2, disk)  # pylint: disable=cell-var-from-loop


def create(array, level, *members, options=()):
    count = len(members) - sum(int(option.split("=")[1]) for option in options if option.startswith("--spare"))
    program("mdadm", "--create", "/dev/" + array, "--run", "--force", f"--level={level}", f"--raid-devices={count}", *options,
            *["/dev/" + member for member in members])


def md(array, name, value=None):
    path = f"/sys/block/{array}/md/{name}"
    return read(path) if value is None else write(path, value)


def slaves(array):
    return sorted(os.listdir(f"/sys/block/{array}/slaves"))


def stop_arrays():
    """Without mdadm, which waits for a reshape to come to a good place."""
    def stop():
        for array in [os.path.basename(path) for path in glob.glob("/sys/block/md*")]:
            try:
                if os.path.exists(f"/sys/block/{array}/md/sync_action"):
                    md(array, "sync_action", "frozen")
                md(array, "array_state", "clear")
            except OSError as error:  # another array's member, or gone already
                if error.errno not in [errno.EBUSY, errno.ENOENT, errno.ENODEV]:
                    raise
        return not glob.glob("/sys/block/md*")
    until(stop, "arrays that are stopped")


class Machine(Guest):
    """Starts every check with schedulers that have their own tunables, and without global profiles."""

    loops = []
    schedulers = {}  # of the disks that are not to have mq-deadline
    fresh = {}  # what a disk shows when it starts

    @classmethod
    def setUpClass(cls):
        program("modprobe", "--all", *MODULES)
        cls.find()
        for number in range(8 if not Machine.loops else 0):
            with open(f"/run/disk{number}", "w+b") as image, open(f"/dev/loop{number}", "r+b") as loop:
                image.truncate(192 << 20)
                fcntl.ioctl(loop, LOOP_SET_FD, image.fileno())
            Machine.loops.append(f"loop{number}")

    @classmethod
    def find(cls):
        disks = scsi_disks()
        cls.hdds, cls.ssds = disks[:4], disks[4:]
        cls.nvme = until(lambda: glob.glob("/sys/block/nvme*n1"), "nvme")[0].split("/")[-1]
        cls.virtio = until(lambda: glob.glob("/sys/block/vd*"), "virtio")[0].split("/")[-1]
        cls.disks = sorted(disks + [cls.nvme, cls.virtio])

    def setUp(self):
        super().setUp()
        shutil.rmtree(SHIPPED + "/global")
        for disk in [*self.disks, *self.loops]:
            name = self.schedulers.get(disk, "mq-deadline")
            # A change takes its time, as the disk is idle before.
            if self.fresh.get((disk, name)) != snapshot(disk):
                select(name, disk)
                self.fresh[disk, name] = snapshot(disk)

    def writes(self, plan):
        """All that are planned: a list for each key."""
        self.assertIsNone(plan["failure"])
        return [[(one["path"], one["now"], one["value"]) for one in key["writes"]]
                for section in plan["sections"] for key in section["keys"]]

    def passed_over(self, plan):
        return [[(one["what"], one["why"]) for one in key["passed_over"]]
                for section in plan["sections"] for key in section["keys"]]

    def changes(self, before):
        """What is otherwise than before, as it is now; what is gone is nothing."""
        now = snapshot()
        return {path: now.get(path) for path in before.keys() | now.keys() if now.get(path) != before.get(path)}

    def lines(self, *patterns):
        """All lines of the log. The last ones may still be on their way."""
        deadline = time.monotonic() + 5
        while len(self.log.lines) < len(patterns) and time.monotonic() < deadline:
            time.sleep(0.01)
        time.sleep(0.05)
        lines = self.log.texts()
        self.assertEqual(len(lines), len(patterns), lines)
        for line, pattern in zip(lines, patterns):
            self.assertRegex(line, f"^{pattern}$")

    def fails_in_section(self, line, *more, code=r"0x0B00 \S+"):
        """All lines of a RAID section that fails at a key."""
        path = re.escape(f"{LOCAL}/mine")
        self.lines(*more, rf"utils\.cpp:N Failed to Tune RAID_CFQ \[{re.escape(line)}\]\[{code}\]",
                   rf"utils\.cpp:N Failed to Apply Profile \[{path}\] Raid\[{code}\]",
                   rf"utils\.cpp:N Failed to TuneApplyProfileByPath \[{path}\]\.\[{code}\]",
                   rf"tune\.cpp:N Failed to apply profile \[mine\]\.\[{code}\]")


class Levels(Machine):
    """An array of each level, of whole disks, partitions and loop devices: no two have a disk in common."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.addClassCleanup(stop_arrays)
        partition(cls.hdds[1], cls.hdds[2], cls.nvme, cls.virtio)
        cls.arrays = {
            "md0": ("raid0", [cls.hdds[0], cls.ssds[0]], []),
            "md1": ("raid1", [cls.nvme + "p1", cls.virtio + "2"], REDUNDANT),
            "md10": ("raid10", [cls.ssds[2], cls.ssds[3]], REDUNDANT),
            "md11": ("linear", cls.loops[6:], []),
            "md4": ("raid4", cls.loops[4:6], REDUNDANT),
            "md5": ("raid5", [cls.hdds[1] + "1", cls.hdds[2] + "2", cls.ssds[1]], REDUNDANT),
            "md6": ("raid6", cls.loops[:4], REDUNDANT),
        }
        for array, (level, members, options) in cls.arrays.items():
            create(array, level, *members, options=options)
        # In each group, every scheduler; the last rotating disk is a member of nothing.
        cls.schedulers = dict.fromkeys([cls.hdds[0], cls.hdds[1], cls.ssds[3], cls.loops[0], cls.loops[4], cls.hdds[3]], "bfq")
        cls.schedulers |= dict.fromkeys([cls.ssds[0], cls.ssds[1], cls.nvme, cls.loops[2], cls.loops[5]], "kyber")
        cls.schedulers |= dict.fromkeys([cls.loops[3], cls.loops[7]], "none")

    def disk_of(self, member):
        return {self.hdds[1] + "1": self.hdds[1], self.hdds[2] + "2": self.hdds[2], self.nvme + "p1": self.nvme,
                self.virtio + "2": self.virtio}.get(member, member)

    def members(self, *arrays):
        return [member for array in arrays or self.arrays for member in sorted(self.arrays[array][1])]

    def test_sections_write_on_the_members_of_their_levels(self):
        without = ["md0", "md1", "md10", "md11"]
        with_parity = ["md4", "md5", "md6"]
        for section, arrays in [("[raid_cfq_1]", without), ("[raid_cfq_5]", with_parity)]:
            self.profile("mine", f"{section}\n{KEYS}")
            before = snapshot()
            self.tool("set", "mine")
            wanted = {}
            for disk in [self.disk_of(member) for member in self.members(*arrays)]:
                if scheduler(disk) != "none":
                    key, value = TUNABLES[scheduler(disk)]
                    wanted[tunable(disk, key)] = value
            self.assertEqual({os.path.basename(path) for path in wanted}, {key for key, _ in TUNABLES.values()})
            self.assertEqual(self.changes(before), wanted)
            for path in wanted:
                write(path, before[path])
        # Names that stand for no level: each array says so, and nothing is written.
        self.profile("mine", f"[raid_cfq]\n{KEYS}[raid_cfq_6]\n{KEYS}[raid_cfq_10]\n{KEYS}")
        plan = self.json("plan", "mine")
        self.assertEqual(self.writes(plan), [[]] * 9)
        self.assertEqual(self.passed_over(plan),
                         [[(f"/dev/{array}", "its level is none of this section's") for array in self.arrays]] * 9)
        self.tool("set", "mine")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_section_of_all_levels_plan_verify_undo(self):
        self.profile("mine", f"[raid_cfq_default]\n{KEYS}")
        before = snapshot()
        plan = self.json("plan", "mine")
        for number, (key, value) in enumerate(TUNABLES.values()):
            has, lacks = [], []
            for member in self.members():
                path = tunable(self.disk_of(member), key)
                if os.path.exists(path):
                    has.append((path, before[path], value))
                else:
                    lacks.append((f"/dev/{member}", NO_TUNABLE))
            self.assertEqual(self.writes(plan)[number], has)
            self.assertEqual(self.passed_over(plan)[number], lacks)
        self.assertEqual(self.changes(before), {})
        self.tool("set", "mine")
        wanted = {path: value for writes in self.writes(plan) for path, _, value in writes}
        self.assertEqual(len(wanted), 15)
        self.assertEqual(self.changes(before), wanted)
        verified = self.json("verify")["values"]
        self.assertEqual({value["path"]: (value["now"], value["state"]) for value in verified},
                         {path: (value, "holds") for path, value in wanted.items()})
        path = tunable(self.hdds[1], "back_seek_max")
        write(path, "5")
        self.assertEqual([(value["path"], value["now"], value["state"]) for value in self.json("verify", status=1)["values"]
                          if value["state"] != "holds"], [(path, "5", "changed")])
        self.tool("undo")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_devices_are_those_of_mdadm_and_sysfs(self):
        devices = self.json("devices")
        self.assertEqual(list(self.arrays), [array["device"].removeprefix("/dev/") for array in devices["arrays"]])
        details = program("mdadm", "--detail", "--scan", "--verbose")
        found = {}
        for device, level, count, members in re.findall(
                r"ARRAY (\S+) level=(\S+) num-devices=(\d+) .*\n +devices=(\S+)", details):
            found[os.path.basename(os.path.realpath(device))] = (level, int(count), sorted(members.split(",")))
        self.assertEqual({array["device"].removeprefix("/dev/"):
                          (array["level"], array["disks"], [member["device"] for member in array["members"]])
                          for array in devices["arrays"]}, found)
        for array in devices["arrays"]:
            parity = array["level"] in ["raid4", "raid5", "raid6"]
            self.assertEqual(array["sections"], ["raid_cfq_5" if parity else "raid_cfq_1", "raid_cfq_default"])
            self.assertEqual((array["active"], array["lacking"], array["broken"]), (True, 0, False))
            for member in array["members"]:
                # The kernel's own links say what a partition is of.
                link = os.path.realpath("/sys/class/block/" + os.path.basename(member["device"]))
                disk = os.path.dirname(link) if os.path.exists(link + "/partition") else link
                self.assertEqual((member["disk"], member["failed"], member["error"]), ("/dev/" + os.path.basename(disk), False, None))

        self.assertEqual([disk["kernel_name"] for disk in devices["disks"]], self.disks)
        types = {disk: "sas" for disk in self.hdds + self.ssds} | {self.nvme: "nvme", self.virtio: "virtual"}
        for disk in devices["disks"]:
            name = disk["kernel_name"]
            ssd = read(queue(name, "rotational")) == "0"
            folder = queue(name, "iosched")
            self.assertEqual(disk, {
                "device": "/dev/" + name, "kernel_name": name, "type": types[name], "ssd": ssd, "error": None,
                "scheduler": scheduler(name), "schedulers": offered(name), "sections": ["disk"] if ssd else [],
                "tunables": sorted(os.listdir(folder)) if os.path.isdir(folder) else []})
        # As the machine was made, not only as the kernel sees it.
        self.assertEqual([disk["kernel_name"] for disk in devices["disks"] if disk["ssd"]], sorted([*self.ssds, self.nvme]))

    def test_value_that_a_scheduler_refuses_ends_the_profile(self):
        # Members of arrays with parity come in the order of their arrays: the loop devices of md4 before those of md6.
        for key, value, disk in [("slice_idle", "-1", self.loops[4]), ("read_lat_nsec", "many", self.loops[5])]:
            self.profile("mine", f"[raid_cfq_5]\nfifo_batch = 7\n{key} = {value}\nfront_merges = 0\n")
            before = snapshot()
            first = tunable(disk, key)
            self.assertIn((first, before[first], value), self.writes(self.json("plan", "mine"))[1])
            self.log.lines.clear()
            out = self.tool("set", "mine", status=1)
            self.assertRegex(out, r'^zevotune: cannot set "mine": the kernel has refused a value.*it is selected, but perhaps applied in part; '
                             r'"sudo zevotune undo" restores what was')
            self.fails_in_section(f"{key} {value}", r"utils\.cpp:N TuneParameterWrite:\d+ Failed to set parameter "
                                  rf"\[{first} {value}\], errno:Invalid argument\[0x0B00 \S+\]")
            written = {tunable(disk, "fifo_batch"): "7" for disk in [self.hdds[2], self.loops[1]]}
            self.assertEqual(self.changes(before), written)
            states = {entry["path"]: entry["state"] for entry in self.json("verify", status=1)["values"]}
            self.assertEqual({path for path, state in states.items() if state == "holds"}, set(written))
            # It has refused this one, and was never given those behind it.
            self.assertEqual((states[first], states[tunable(self.hdds[2], "front_merges")]), ("differs", "differs"))
            self.assertEqual(set(states.values()), {"holds", "differs"})
            self.tool("undo")
            self.assertEqual(self.changes(before), {})

    def test_number_that_is_too_large_for_the_scheduler(self):
        self.profile("mine", "[raid_cfq_5]\nfifo_batch = 99999999999\n")
        before = snapshot()
        self.tool("set", "mine", status=1)
        self.fails_in_section("fifo_batch 99999999999", r"utils\.cpp:N TuneParameterWrite:\d+ Failed to set parameter "
                              rf"\[{tunable(self.hdds[2], 'fifo_batch')} 99999999999\], "
                              r"errno:Numerical result out of range\[0x0B00 \S+\]")
        self.assertEqual(self.changes(before), {})
        # bfq and kyber have room for it, and bfq takes what it can.
        self.profile("mine", "[raid_cfq_5]\nback_seek_max = 99999999999\nread_lat_nsec = 99999999999\n")
        self.assertIn("the kernel has refused or changed 3 values;", self.tool("set", "mine"))
        bfq, kyber = [self.loops[4], self.hdds[1], self.loops[0]], [self.loops[5], self.ssds[1], self.loops[2]]
        self.assertEqual(self.changes(before), {tunable(disk, "back_seek_max"): "2147483647" for disk in bfq} |
                         {tunable(disk, "read_lat_nsec"): "99999999999" for disk in kyber})
        self.tool("undo")
        self.assertEqual(self.changes(before), {})

    def test_values_that_the_scheduler_corrects(self):
        # What bfq cuts to its range, and what both round up to ticks of 4 ms.
        taken = {"low_latency": ("5", "1"), "fifo_expire_sync": ("0", "1"), "timeout_sync": ("5", "8"),
                 "read_expire": ("5", "8"), "front_merges": ("5", "1"), "fifo_batch": ("-1", "0")}
        self.profile("mine", "[raid_cfq_5]\n" + "".join(f"{key} = {value}\n" for key, (value, _) in taken.items()))
        before = snapshot()
        plan = self.json("plan", "mine")
        out = self.tool("set", "mine")
        self.assertIn('zevotune: the kernel has refused or changed 15 values; "zevotune verify" shows which\n', out)
        paths = {path: key for key in taken for path in glob.glob(tunable("*", key))
                 if on_disk(path) in [*self.loops[:6], self.hdds[1], self.hdds[2]]}
        self.assertEqual(len(paths), 15)
        self.assertEqual({path for writes in self.writes(plan) for path, _, _ in writes}, paths.keys())
        changed = {path: taken[key][1] for path, key in paths.items() if before[path] != taken[key][1]}
        self.assertEqual(self.changes(before), changed)
        verified = self.json("verify", status=1)
        self.assertFalse(verified["holds"])
        self.assertEqual({value["path"]: (value["value"], value["now"], value["state"]) for value in verified["values"]},
                         {path: (*taken[key], "refused") for path, key in paths.items()})
        # Once more is no different, nor is what there was before forgotten.
        self.assertIn("refused or changed 15 values", self.tool("apply"))
        undone = self.json("undo")
        self.assertTrue(all(value["restored"] for value in undone["values"]))
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_tunables_that_change_along_are_undone(self):
        path = tunable(self.hdds[1], "slice_idle")
        write(path, "0")
        self.profile("mine", "[raid_cfq_5]\nstrict_guarantees = 1\n")
        before = snapshot()
        self.tool("set", "mine")
        self.assertEqual(read(path), "8")
        self.tool("undo")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_tunable_in_two_units(self):
        folder = os.path.dirname(tunable(self.hdds[1], "slice_idle"))
        for found, keys, microseconds in [("0", "slice_idle = 3\nslice_idle_us = 2500\n", "2500"),
                                          ("700", "slice_idle_us = 2500\nslice_idle = 3\n", "3000"),
                                          ("8500", "slice_idle = 0\n", "0")]:
            write(folder + "/slice_idle_us", found)
            self.profile("mine", "[raid_cfq_5]\n" + keys)
            before = snapshot()
            self.assertNotIn("refused or changed", self.tool("set", "mine"))
            self.assertEqual((read(folder + "/slice_idle_us"), read(folder + "/slice_idle")),
                             (microseconds, str(int(microseconds) // 1000)))
            self.tool("verify")
            self.tool("undo")
            self.assertEqual(self.changes(before), {})
        self.lines()

    def test_numbers_are_read_as_each_scheduler_does(self):
        for value, decimal, other in [("010", "10", "8"), ("0020", "20", "16")]:
            self.profile("mine", f"[raid_cfq_5]\nback_seek_max = {value}\nread_lat_nsec = {value}\nfifo_batch = {value}\n")
            before = snapshot()
            self.assertNotIn("refused or changed", self.tool("set", "mine"))
            names = {"back_seek_max": decimal, "read_lat_nsec": decimal, "fifo_batch": other}
            changes = self.changes(before)
            self.assertEqual(changes, {path: names[os.path.basename(path)] for path in changes})
            # 16 is what fifo_batch is from the start.
            self.assertEqual({os.path.basename(path) for path in changes}, names.keys() - ({"fifo_batch"} if other == "16" else set()))
            self.tool("verify")
            self.tool("undo")
            self.assertEqual(self.changes(before), {})
        self.lines()

    def test_lint_knows_what_schedulers_refuse_and_correct(self):
        times = ["read_expire", "write_expire", "prio_aging_expire", "fifo_expire_sync", "fifo_expire_async", "timeout_sync"]
        values = ["-1", "0", "-0", "1", "2", "+1", "+-1", "08", "010", "0x10", "2147483647", "2147483648", "-2147483648",
                  "-2147483649", "4294967295", "4294967296", "9223372036854775808", "18446744073709551615",
                  "18446744073709551616", "4294", "4295", "4294967", "4294968", "many", "1.5"]
        disks = [self.hdds[3], self.hdds[2], self.ssds[1]]
        self.assertEqual([scheduler(disk) for disk in disks], ["bfq", "mq-deadline", "kyber"])
        for value in values:
            becomes = {}
            for disk in disks:
                for path in glob.glob(tunable(disk, "*")):
                    before = read(path)
                    try:
                        write(path, value)
                        becomes[os.path.basename(path)] = read(path)
                    except OSError as failed:
                        becomes[os.path.basename(path)] = failed.errno
                    write(path, before)
            self.assertEqual(len(becomes), 19)
            self.profile("mine", "[raid_cfq_default]\n" + "".join(f"{key} = {value}\n" for key in becomes))
            result = subprocess.run([TOOL, "lint", f"{LOCAL}/mine", "--json"], capture_output=True, text=True, check=False)
            said = {list(becomes)[finding["line"] - 4]: finding for finding in json.loads(result.stdout)}
            for key, taken in becomes.items():
                with self.subTest(key=key, value=value, taken=taken, said=said.get(key)):
                    if isinstance(taken, int):
                        self.assertEqual(said[key]["severity"], "error")
                        continue
                    if key in said:
                        self.assertEqual(said[key]["severity"], "warning")
                    number = int(value) if key not in TAKE_ANY_NOTATION else int(value, 8 if value == "010" else 0)
                    if key not in times:  # which are rounded up to ticks
                        self.assertEqual(key in said, int(taken) != number)

    def test_disk_section_changes_ssds_and_undo_their_tunables(self):
        bfq, deadline, none, kyber = self.ssds
        select("bfq", bfq)
        select("none", none)
        select("mq-deadline", deadline)
        select("kyber", kyber)
        # From its length mq-deadline derives async_depth.
        write(queue(deadline, "nr_requests"), "64")
        # bfq lengthens a shorter idling when it is to be strict, so that this order is the only one for both.
        for disk, key, value in [
                (bfq, "strict_guarantees", "1"), (bfq, "slice_idle", "0"), (bfq, "back_seek_max", "1234"),
                (bfq, "max_budget", "5000"), (bfq, "timeout_sync", "200"), (deadline, "fifo_batch", "5"),
                (deadline, "read_expire", "48"), (deadline, "async_depth", "77"), (kyber, "read_lat_nsec", "3")]:
            write(tunable(disk, key), value)
        program("dmsetup", "create", "plain", "--table", f"0 2048 linear /dev/{self.hdds[3]} 0")
        self.addCleanup(program, "dmsetup", "remove", "plain")
        mapped = os.path.basename(os.path.realpath(glob.glob("/sys/block/dm-*")[0]))
        self.profile("mine", "[disk]\nssd_scheduler = kyber\n")
        before = snapshot()
        plan = self.json("plan", "mine")
        wanted = sorted([*self.ssds, self.nvme])
        self.assertEqual(self.writes(plan)[0], [(queue(disk, "scheduler"), scheduler(disk), "kyber") for disk in wanted])
        self.assertEqual(self.passed_over(plan)[0],
                         [(f"/dev/{disk}", "it is no SSD") for disk in sorted([*self.hdds, self.virtio])])
        everything = {name: scheduler(name) for name in os.listdir("/sys/block")}
        self.assertTrue({mapped, "md5", *self.loops} <= everything.keys())
        self.tool("set", "mine")
        self.assertEqual({name: scheduler(name) for name in everything}, everything | {disk: "kyber" for disk in wanted})
        self.assertEqual({on_disk(path) for path in self.changes(before)}, {bfq, deadline, none})
        self.assertEqual(read(tunable(kyber, "read_lat_nsec")), "3")
        self.tool("verify")
        self.tool("undo")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_disk_section_believes_an_operator_who_says_what_turns(self):
        ssd = self.ssds[2]
        for disk, value in [(self.virtio, "0"), (ssd, "1")]:
            self.addCleanup(write, queue(disk, "rotational"), read(queue(disk, "rotational")))
            write(queue(disk, "rotational"), value)
        select("mq-deadline", *self.disks)
        self.profile("mine", "[disk]\nssd_scheduler = none\n")
        before = snapshot()
        self.tool("set", "mine")
        self.assertEqual({on_disk(path) for path in self.changes(before)},
                         {self.virtio, self.nvme, *self.ssds} - {ssd})
        self.assertEqual(scheduler(self.virtio), "none")
        self.tool("undo")
        self.assertEqual(self.changes(before), {})

    def test_schedulers_that_not_all_disks_offer(self):
        # A disk with zones that want to be written in order offers few schedulers, and is no rotating one.
        there = set(os.listdir("/sys/block"))
        self.addCleanup(program, "modprobe", "-r", "scsi_debug")
        program("modprobe", "scsi_debug", "zbc=managed", "dev_size_mb=64", "zone_size_mb=4", "sector_size=4096")
        zoned = until(lambda: set(os.listdir("/sys/block")) - there, "zoned disk").pop()
        until(lambda: read(queue(zoned, "zoned")) == "host-managed" and read(f"/sys/block/{zoned}/size") != "0", zoned)
        self.assertEqual(set(offered(zoned)), {"mq-deadline", "none"})
        self.assertEqual(read(queue(zoned, "rotational")), "0")
        select("mq-deadline", *self.ssds, self.nvme)
        self.profile("mine", "[disk]\nssd_scheduler = bfq\n")
        plan = self.json("plan", "mine")
        self.assertIn((f"/dev/{zoned}", "it does not offer this scheduler"), self.passed_over(plan)[0])
        self.tool("set", "mine")
        self.assertEqual({disk: scheduler(disk) for disk in [*self.ssds, self.nvme, zoned]},
                         {disk: "bfq" for disk in [*self.ssds, self.nvme]} | {zoned: "mq-deadline"})
        self.profile("mine", "[disk]\nssd_scheduler = none\n")
        self.tool("apply")
        self.assertEqual({scheduler(disk) for disk in [*self.ssds, self.nvme, zoned]}, {"none"})
        self.tool("undo")
        self.assertEqual({scheduler(disk) for disk in [*self.ssds, self.nvme, zoned]}, {"mq-deadline"})
        self.lines()

    def test_scheduler_whose_module_is_not_loaded_is_passed_over(self):
        select("mq-deadline", *self.disks, *self.loops)
        program("modprobe", "-r", "kyber-iosched")
        self.addCleanup(load, "kyber-iosched")
        self.assertNotIn("kyber", offered(self.nvme))
        self.profile("mine", "[disk]\nssd_scheduler = kyber\n")
        before = snapshot()
        plan = self.json("plan", "mine")
        self.assertEqual([over for over in self.passed_over(plan)[0] if over[1] != "it is no SSD"],
                         [(f"/dev/{disk}", "it does not offer this scheduler") for disk in sorted([*self.ssds, self.nvme])])
        self.tool("set", "mine")
        self.assertEqual(self.changes(before), {})
        # Whoever writes it all the same has the kernel load it.
        select("kyber", self.hdds[0])
        self.tool("apply")
        self.assertEqual({disk for disk in self.disks if scheduler(disk) == "kyber"}, {*self.ssds, self.nvme, self.hdds[0]})
        self.lines()

    def check_shipped(self, name):
        """Sets it, and compares the kernel with what was planned. Returns what there was before."""
        before = snapshot() | parameters()
        plan = self.json("plan", name)
        self.assertIsNone(plan["failure"])
        planned = [one for section in plan["sections"] for key in section["keys"] for one in key["writes"]]
        self.assertEqual([one["path"] for one in planned if not one["known"]], [])
        last = {one["path"]: one for one in planned if not one["overwritten_later"]}
        self.assertEqual(last.keys(), {one["path"] for one in planned})
        for path, entry in last.items():
            if entry["now"] is not None:
                self.assertEqual(entry["now"], scheduler(on_disk(path)) if path.endswith("/scheduler") else before[path])
        self.tool("set", name)
        after = snapshot() | parameters()
        for path, entry in last.items():
            value = scheduler(on_disk(path)) if path.endswith("/scheduler") else after[path]
            self.assertEqual(value, entry["value"], path)
            self.assertEqual(entry["changes"], before.get(path) != after[path], path)
        # All else is as it was, but for what another scheduler has brought or taken.
        switched = {on_disk(path) for path, entry in last.items() if path.endswith("/scheduler") and entry["changes"]}
        self.assertEqual([path for path in before.keys() | after.keys() if before.get(path) != after.get(path) and
                          path.replace("slice_idle_us", "slice_idle") not in last and  # one time in two units
                          not (path.startswith("/sys") and on_disk(path) in switched)], [])
        self.assertEqual({disk for disk in self.disks if f"/sys/block/{disk}/queue/scheduler" in last},
                         {*self.ssds, self.nvme})
        verified = self.json("verify")
        self.assertEqual({value["path"]: (value["now"], value["state"]) for value in verified["values"]},
                         {path: (entry["value"], "holds") for path, entry in last.items()})
        return before

    def test_shipped_profiles_do_as_planned_and_are_undone(self):
        shutil.rmtree(SHIPPED)
        shutil.copytree(os.path.dirname(os.path.abspath(__file__)) + "/../../profiles/stock", SHIPPED)
        select("bfq", self.ssds[0])
        write(tunable(self.ssds[0], "back_seek_max"), "1234")
        before = self.check_shipped("performance_throughput")
        self.assertEqual({scheduler(disk) for disk in [*self.ssds, self.nvme]}, {"none"})
        self.assertEqual(read(tunable(self.hdds[1], "slice_idle")), "0")
        self.assertEqual(read(tunable(self.loops[1], "fifo_batch")), "32")
        self.assertEqual(read(tunable(self.hdds[3], "slice_idle")), "8")
        self.tool("undo")
        self.assertEqual(snapshot() | parameters(), before)
        self.tool("set", "performance_throughput")
        between = self.check_shipped("performance_latency")
        # Members that are SSDs have got their tunables with the scheduler.
        self.assertEqual({read(tunable(disk, "fifo_batch")) for disk in [*self.ssds, self.nvme, self.virtio]}, {"4"})
        self.assertEqual(read(tunable(self.hdds[1], "low_latency")), "1")
        self.tool("undo")
        self.assertEqual(snapshot() | parameters(), between)
        self.assertEqual(self.tool("current").strip(), "performance_throughput")
        for path, value in before.items():
            if path.startswith("/proc/") and value != "0":
                write(path, value)
        self.lines()


class States(Machine):
    """Arrays that miss members, have others, are busy, or are not active."""

    def setUp(self):
        super().setUp()
        self.addCleanup(stop_arrays)
        limit = "/proc/sys/dev/raid/speed_limit_"
        for end in ["min", "max"]:
            self.addCleanup(write, limit + end, read(limit + end))
            write(limit + end, "1")
        self.profile("mine", "[raid_cfq_default]\nfifo_batch = 7\n")

    def array(self, device):
        arrays = [array for array in self.json("devices")["arrays"] if array["device"] == "/dev/" + device]
        return arrays[0] if arrays else None

    def tunes(self, *disks):
        """An application writes on these, and on no other."""
        before = snapshot()
        self.tool("set", "mine")
        self.assertEqual(self.changes(before), {tunable(disk, "fifo_batch"): "7" for disk in disks})
        for disk in disks:
            write(tunable(disk, "fifo_batch"), before[tunable(disk, "fifo_batch")])

    def shows(self, device, level, count, lacking=0):
        """The tool has the kernel's members. Returns them."""
        array = self.array(device)
        self.assertEqual((array["level"], array["disks"], array["active"], array["lacking"], array["broken"]),
                         (level, count, count > 0, lacking, False))
        self.assertEqual([member["device"] for member in array["members"]], ["/dev/" + name for name in slaves(device)])
        self.assertEqual(array["sections"] != [], count > 1)
        return slaves(device)

    def line(self, device):
        return [line for line in self.tool("devices").splitlines() if f"/dev/{device}  " in line][0].split("  ", 1)[1]

    def test_array_that_loses_members(self):
        one, two, three = self.ssds[0], self.hdds[0], self.ssds[1]
        spare = self.hdds[1]
        create("md5", "raid5", one, two, three, spare, options=["--assume-clean", "--bitmap=none", "--size=524288",
                                                              "--spare-devices=1"])
        self.assertEqual(md("md5", f"dev-{spare}/state"), "spare")
        self.assertEqual(self.shows("md5", "raid5", 3), sorted([one, two, three, spare]))
        self.tunes(one, two, three, spare)

        program("mdadm", "/dev/md5", "--fail", "/dev/" + two)
        until(lambda: md("md5", "sync_action") == "recover", "recovery")
        self.assertEqual((md("md5", f"dev-{two}/state").split(",")[0], md("md5", "degraded")), ("faulty", "1"))
        self.assertIn(two, self.shows("md5", "raid5", 3, lacking=1))
        self.assertEqual([member["device"] for member in self.array("md5")["members"] if member["failed"]], ["/dev/" + two])
        self.assertEqual(self.line("md5"), "raid5, 3 disks, of which only 2 in use")
        self.tunes(one, two, three, spare)

        program("mdadm", "/dev/md5", "--remove", "/dev/" + two)
        self.assertEqual(md("md5", "sync_action"), "recover")
        self.assertEqual(self.shows("md5", "raid5", 3, lacking=1), sorted([one, three, spare]))
        self.tunes(one, three, spare)

        program("mdadm", "/dev/md5", "--fail", "/dev/" + spare)
        until(lambda: md("md5", "sync_action") == "idle", "recovery that ends")
        program("mdadm", "/dev/md5", "--remove", "/dev/" + spare)
        self.assertEqual(self.shows("md5", "raid5", 3, lacking=1), sorted([one, three]))
        self.assertEqual(self.line("md5"), "raid5, 3 disks, of which only 2 in use")
        self.tunes(one, three)

        program("mdadm", "--stop", "/dev/md5")
        self.assertIsNone(self.array("md5"))
        self.tunes()
        program("mdadm", "--incremental", "/dev/" + one)
        self.assertEqual(md("md5", "array_state"), "inactive")
        self.assertEqual(self.shows("md5", None, 0), [one])
        self.assertEqual(self.line("md5"), "level unknown, not active")
        self.assertEqual(self.passed_over(self.json("plan", "mine"))[0], [("/dev/md5", "it is not active")])
        self.tunes()
        # Started at last, with what there is.
        program("mdadm", "--incremental", "--run", "/dev/" + three)
        self.assertEqual(self.shows("md5", "raid5", 3, lacking=1), sorted([one, three]))
        self.tunes(one, three)
        self.lines()

    def test_arrays_that_are_busy(self):
        one, two, three, fourth = self.ssds[0], self.ssds[1], self.ssds[2], self.ssds[3]
        create("md1", "raid1", self.hdds[0], self.hdds[1], options=["--bitmap=none", "--size=524288"])
        create("md5", "raid5", one, two, three, fourth, options=["--assume-clean", "--bitmap=none", "--size=524288",
                                                               "--chunk=64", "--spare-devices=1"])
        md("md5", "raid_disks", "4")
        md("md5", "sync_action", "reshape")
        self.assertEqual((md("md1", "sync_action"), md("md5", "sync_action")), ("resync", "reshape"))
        self.assertEqual(md("md5", "raid_disks"), "4 (3)")
        self.shows("md1", "raid1", 2)
        self.shows("md5", "raid5", 4)
        self.tunes(*self.hdds[:2], *self.ssds)
        self.assertEqual((md("md1", "sync_action"), md("md5", "sync_action")), ("resync", "reshape"))
        self.lines()

    def test_arrays_that_few_have(self):
        create("md1", "raid1", self.hdds[0], options=REDUNDANT)
        create("md2", "raid1", self.hdds[1], self.ssds[0], options=REDUNDANT)
        program("mdadm", "--readonly", "/dev/md2")
        create("md3", "multipath", *self.loops[:2])
        create("md4", "raid0", "md1", self.loops[6])
        create("md5", "raid5", *self.loops[2:5], options=["--size=65536", f"--write-journal=/dev/{self.loops[5]}"])
        # Metadata of a format that is not md's own: what holds the disks is never active, the array made of it is.
        program("mdadm", "--create", "/dev/md127", "--metadata=ddf", "--level=container", "--raid-devices=2", "--run",
                *["/dev/" + disk for disk in self.ssds[1:3]])
        program("mdadm", "--create", "/dev/md7", "--level=raid1", "--raid-devices=2", "--run", "--size=65536", "/dev/md127")
        write("/sys/module/md_mod/parameters/new_array", "md9")
        self.assertEqual([md("md2", "array_state"), md("md127", "array_state"), md("md9", "array_state")],
                         ["readonly", "inactive", "clear"])
        self.assertEqual(md("md5", f"dev-{self.loops[5]}/state").split(",")[-1], "journal")
        self.assertEqual(slaves("md127"), sorted(self.ssds[1:3]))
        without, with_parity = ["raid_cfq_1", "raid_cfq_default"], ["raid_cfq_5", "raid_cfq_default"]
        self.assertEqual([(array["device"], array["level"], array["disks"], array["sections"])
                          for array in self.json("devices")["arrays"]],
                         [("/dev/md1", "raid1", 1, []), ("/dev/md127", None, 0, []), ("/dev/md2", "raid1", 2, without),
                          ("/dev/md3", "multipath", 2, []), ("/dev/md4", "raid0", 2, without),
                          ("/dev/md5", "raid5", 3, with_parity), ("/dev/md7", "raid1", 2, without)])
        self.assertEqual(self.passed_over(self.json("plan", "mine"))[0],
                         [("/dev/md1", "it is made for one disk alone"), ("/dev/md127", "it is not active"),
                          ("/dev/md3", "its level is none of this section's"), ("/dev/md1", NO_TUNABLE)])
        self.tunes(self.hdds[1], *self.ssds[:3], *self.loops[2:7])
        self.lines()

    def test_arrays_that_share_their_disks(self):
        # A small mirror for the system in front of the data on each disk.
        one, two = self.hdds[1:3]
        partition(one, two)
        create("md0", "raid1", one + "1", two + "1", options=REDUNDANT)
        create("md5", "raid5", one + "2", two + "2", self.ssds[0], options=REDUNDANT)
        both = [tunable(disk, "fifo_batch") for disk in sorted([one, two])]
        alone = tunable(self.ssds[0], "fifo_batch")
        before = snapshot()
        for sections, wanted in [("[raid_cfq_1]\nfifo_batch = 7\n[raid_cfq_5]\nfifo_batch = 9\n", "9"),
                                 ("[raid_cfq_5]\nfifo_batch = 9\n[raid_cfq_1]\nfifo_batch = 7\n", "7")]:
            self.profile("mine", sections)
            writes = [one for section in self.json("plan", "mine")["sections"] for key in section["keys"]
                      for one in key["writes"]]
            planned = [(path, value, value != wanted) for path in both for value in "79"] + [(alone, "9", False)]
            self.assertEqual(sorted((one["path"], one["value"], one["overwritten_later"]) for one in writes), sorted(planned))
            self.tool("set", "mine")
            self.assertEqual(self.changes(before), {path: wanted for path in both} | {alone: "9"})
            self.tool("verify")
            # The second application of one profile has not forgotten what the first one found.
            self.tool("undo" if wanted == "7" else "apply")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_member_that_is_pulled_out(self):
        pulled, stays, other = self.ssds[3], self.ssds[2], self.hdds[3]
        partition(pulled)
        create("md0", "raid0", pulled + "1", self.hdds[2])
        create("md5", "raid5", pulled + "2", stays, other, options=REDUNDANT)
        address = os.path.realpath(f"/sys/block/{pulled}/device")
        before = snapshot()
        self.tool("set", "mine")
        write(address + "/delete", "1")
        until(lambda: not os.path.exists("/sys/block/" + pulled), "disk that is gone")
        # What was the disk's own cannot be had again; that of the others can.
        out, _, error = self.tool("undo", "--json", status=1).rpartition("zevotune: ")
        self.assertIn("1 value could not be restored; ", error)
        self.assertEqual({value["path"]: (value["now"], value["restored"]) for value in json.loads(out)["values"]},
                         {tunable(disk, "fifo_batch"): (None, False) if disk == pulled else ("16", True)
                          for disk in [pulled, stays, other, self.hdds[2]]})
        self.assertEqual({on_disk(path) for path in self.changes(before)}, {pulled})
        os.remove("/run/zevotuned/undo.json")
        # Nothing was read or written, so that md5 has not noticed; md0 does.
        with self.assertRaises(OSError) as failed, open("/dev/md0", "r+b", buffering=0) as file:
            file.write(bytes(1 << 20))
            os.fsync(file)
        self.assertEqual((failed.exception.errno, md("md0", "array_state")), (errno.EIO, "broken"))
        self.assertEqual((slaves("md5"), md("md5", "degraded")), (sorted([pulled + "2", stays, other]), "0"))
        arrays = {array["device"]: array for array in self.json("devices")["arrays"]}
        self.assertEqual([member["device"] for member in arrays["/dev/md0"]["members"]],
                         sorted([f"/dev/{pulled}1", "/dev/" + self.hdds[2]]))
        self.assertEqual([(arrays[device]["broken"], arrays[device]["lacking"]) for device in ["/dev/md0", "/dev/md5"]],
                         [(True, 0), (False, 0)])
        self.assertEqual([member["disk"] for member in arrays["/dev/md5"]["members"]],
                         ["/dev/" + disk for disk in sorted([pulled, stays, other])])
        self.assertEqual(self.passed_over(self.json("plan", "mine"))[0],
                         [(f"/dev/{pulled}{number}", NO_TUNABLE) for number in [1, 2]])
        self.tunes(stays, other, self.hdds[2])
        # In its bay again, it has another name, as the array still has the old one.
        write(f"/sys/class/scsi_host/{re.search('host[0-9]+', address)[0]}/scan", "- - -")
        again = os.path.basename(until(lambda: glob.glob(address + "/block/sd*"), "disk that is back")[0])
        self.assertNotEqual(again, pulled)
        until(lambda: os.path.isdir(queue(again, "iosched")), again)
        self.tunes(stays, other, self.hdds[2])
        self.assertIn(again, [disk["kernel_name"] for disk in self.json("devices")["disks"]])
        stop_arrays()
        self.find()
        # Restoring tries twice.
        self.lines(*[rf"utils\.cpp:N TuneParameterWrite:\d+ Can't open file {tunable(pulled, 'fifo_batch')}, "
                     r"errno:No such file or directory\[0x0000 :0\]"] * 2)


class WithoutArrays(Machine):
    def test_section_for_arrays(self):
        self.assertEqual(glob.glob("/sys/block/md*"), [])
        self.profile("mine", f"[raid_cfq_1]\n{KEYS}[raid_cfq_5]\n{KEYS}[raid_cfq_default]\n{KEYS}")
        before = snapshot()
        self.assertEqual(self.json("devices")["arrays"], [])
        plan = self.json("plan", "mine")
        self.assertEqual((sum(self.writes(plan), []), sum(self.passed_over(plan), [])), ([], []))
        self.tool("set", "mine")
        self.assertEqual(self.changes(before), {})
        self.lines()

    def test_section_for_arrays_on_a_model_that_has_them(self):
        self.profile("mine", "[raid_cfq_1]\nfifo_batch = 7\n[disk]\nssd_scheduler = none\n")
        write("/usr/zevo/etc/model.conf", "support_raid = yes\n")
        before = snapshot()
        why = 'there is no RAID array, although /usr/zevo/etc/model.conf says "support_raid = yes"'
        self.assertIn(f'zevotune: applying "mine" would fail there: {why}', self.tool("plan", "mine", status=1))
        self.lines()
        self.assertIn(why, self.tool("set", "mine", status=1))
        self.fails_in_section("fifo_batch 7", code="0x0000 :0")
        self.assertEqual(self.changes(before), {})
        # One array is enough, whichever.
        self.addCleanup(stop_arrays)
        create("md5", "raid5", *self.hdds[:2], self.ssds[0], options=REDUNDANT)
        self.tool("apply")
        self.assertEqual({disk for disk in self.disks if scheduler(disk) == "none"}, {*self.ssds, self.nvme})
        self.lines(*[".*"] * 4)


main()
