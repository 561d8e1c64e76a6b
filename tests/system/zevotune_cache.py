#!/usr/bin/env python3
"""Runs "zevotune cache" as a user does, on Btrfs volumes of the real kernel with a program for a pin tool, and compares all that it
prints, its exit status, and what it leaves pinned.

The environment variable ZEVOTUNE holds the tool's path. Runs as root inside of tests/lab/enter only.
"""

import contextlib
import fcntl
import json
import os
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time

sys.dont_write_bytecode = True  # this folder need not be writable
from waiting import until  # pylint: disable=wrong-import-position
from zevotune_machine import (  # pylint: disable=wrong-import-position
    CONFIG, Volumes, main, program, read, tree, write)

TOOL = "/usr/zevo/sbin/zevocachepinfiletool"
RECORDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "recording_pin_tool.sh")
RECORD = "/run/pin-tool"
DECLARATIONS = "/usr/zevo/etc/flash_cache.conf"
ENGINES = "/run/zevotuned/metadata_cache"
SEE_VOLUMES = ' ("zevotune devices" lists the volumes)'
SEE_LOG = " (the whole chain is in the system's log: journalctl -t zevotune)"
ACTIONS = {"on": "pin the metadata of", "off": "unpin the metadata of", "rescan": "bring up to date what is pinned of",
           "status": "show the metadata cache of", "stop": "stop the pass over", "check": "check the metadata cache of"}
PATIENCE = 60


class Gate:
    """Lets one run of the pin tool wait: the nth since it was last counted."""

    def __init__(self, run):
        self.names = [f"{RECORD}/{kind}.{run}" for kind in ("started", "gate")]
        for name in self.names:
            os.mkfifo(name)
        self.started = os.open(self.names[0], os.O_RDONLY | os.O_NONBLOCK)

    def wait_for_tool(self):
        if not select.select([self.started], [], [], PATIENCE)[0]:
            raise AssertionError("the pin tool was not run")

    def let_go(self):
        with contextlib.suppress(FileNotFoundError):
            os.remove(self.names[0])
        gate = os.open(self.names[1], os.O_RDWR | os.O_NONBLOCK)
        os.write(gate, b"\n")
        os.close(self.started)
        self.names.append(gate)


class Terminal:
    """A pseudo terminal, and all that is written to it."""

    def __init__(self, columns):
        self.master, self.slave = os.openpty()
        self.resize(columns)
        self.text = ""

    def resize(self, columns):
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

    def take(self):
        """What has come until now."""
        with contextlib.suppress(OSError):  # nobody has the other side open any more
            while select.select([self.master], [], [], 0)[0]:
                part = os.read(self.master, 65536)
                if not part:
                    break
                self.text += part.decode()
        return self.text

    def lines(self):
        """Each as it was drawn."""
        return [line for line in re.split("[\r\n]|\x1b\\[J", self.take()) if line]

    def shows(self, pattern):
        return until(lambda: next((line for line in reversed(self.lines()) if re.fullmatch(pattern, line)), None),
                     lambda: f"{pattern} on a terminal with {self.text!r}")

    def close(self):
        os.close(self.master)
        os.close(self.slave)


class Cache(Volumes):
    def setUp(self):
        super().setUp()
        os.environ["TERM"] = "xterm"
        shutil.rmtree(RECORD, ignore_errors=True)
        shutil.rmtree(ENGINES, ignore_errors=True)
        os.mkdir(RECORD)
        os.makedirs(os.path.dirname(TOOL))
        shutil.copy(RECORDER, TOOL)
        self.path, self.device = self.cached_volume()

    def cached_volume(self):
        # Rare commits, as each has the kernel look for chunks that it can give back while they are empty.
        path, device = self.volume(256 * self.MIB, mount="metadata_ratio=1,commit=300")
        self.uuid = program("blkid", "--probe", "--output", "value", "--match-tag", "UUID", device)
        # As the kernel's /sys is, but for an attribute that only an appliance's has. It is made after the file system was
        # mounted, as an overlay does not see what comes later.
        layers = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, layers)
        for layer in ["upper", "work"]:
            os.mkdir(f"{layers}/{layer}")
        program("mount", "-t", "overlay", "-o",
                f"lowerdir=/run/lab/kernel-sys,upperdir={layers}/upper,workdir={layers}/work", "overlay", "/sys")
        self.addCleanup(program, "umount", "/sys")
        self.attribute = write(f"/sys/fs/btrfs/{self.uuid}/metadata_cache_enable", "0\n")
        self.mapping = path + "/@eaDir/zevo_btrfs_metadata_mapping_config"
        self.switch_file = "/usr/zevo/etc/volumes/" + self.uuid
        self.declare(path)
        return path, device

    def declare(self, path, mode=4, flags=6, size=256 * 10**9):
        write(DECLARATIONS, f"[one]\nvolume = {path}\nid = ssd_1\nmode = {mode}\nflags = {flags:#x}\nsize = {size}\n"
              "reference = cache-1\n")

    def grow(self):
        """Until the volume has more chunks for metadata."""
        before = self.chunks(self.device)
        for i in range(20):
            program("fallocate", "--length", "8M", f"{self.path}/data{i}")
            write(f"{self.path}/file{i}", "")
            program("sync", "--file-system", self.path)
            if len(self.chunks(self.device)) > len(before):
                return
        self.fail("no chunk has come")

    def ranges(self):
        """What is to be pinned, as offset and size."""
        stripes = [(offset, chunk["size"]) for chunk in self.chunks(self.device) for offset in chunk["device_offsets"]]
        return sorted([(65536, 4096), (64 * self.MIB, 4096)] + stripes)

    def tool_ranges(self, action):
        if not os.path.exists(RECORD + "/lines"):
            return []
        return [(int(start) * 512, int(count) * 512) for start, count in re.findall(
            rf"^{action} --mount-path {self.path} --start-sector (\d+) --num-sectors (\d+)$",
            read(RECORD + "/lines").decode(), re.MULTILINE)]

    def pinned(self):
        """What the tool has been asked to pin and not to unpin since. Either may have been asked for twice."""
        left = set()
        for action, start, count in re.findall(
                rf"^(--set-bitmap|--unpin-range) --mount-path {self.path} --start-sector (\d+) --num-sectors (\d+)$",
                read(RECORD + "/lines").decode(), re.MULTILINE):
            entry = (int(start) * 512, int(count) * 512)
            if action == "--set-bitmap":
                left.add(entry)
            else:
                left.discard(entry)
        return sorted(left)

    def amount(self, ranges=None):
        """As the tool says it."""
        ranges = self.ranges() if ranges is None else ranges
        size = sum(size for _, size in ranges)
        unit = next(unit for unit in [30, 20, 10, 0] if size >> unit)
        count = size / (1 << unit)
        decimals = 0 if size % (1 << unit) == 0 or count >= 99.95 else 1 if count >= 9.995 else 2
        return (f"{count:.{decimals}f} {({30: 'GiB', 20: 'MiB', 10: 'KiB', 0: 'B'})[unit]} in {len(ranges)} "
                f"range{'' if len(ranges) == 1 else 's'}")

    def status(self):
        return json.loads(self.succeeds("cache", "status", "--json", self.path))

    def text(self, state, switch="on", engine="none", limit="238 GiB"):
        return (f"{self.path}  on {self.device}\n{state}\nswitch: {switch}\nengine: {engine}\n" +
                (f"limit: {limit} of the SSD cache may be taken\n" if limit else ""))

    def command_of(self, name):
        return f'"sudo zevotune cache {name} {self.path}"'

    @property
    def follow(self):
        return f'"zevotune cache status {self.path} --watch" follows it, {self.command_of("stop")} ends it'

    @property
    def goes_on(self):
        return f"; what it has recorded stays, and {self.command_of('rescan')} goes on from there"

    def start(self, *arguments, **options):
        """In the background."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
        process = subprocess.Popen(self.command(list(arguments), "root"), stdin=subprocess.DEVNULL,
                                   env=os.environ | {"LC_ALL": self.locale}, **options)
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process

    def ends(self, process, out, err, status):
        real_out, real_err = (None if text is None else text.decode() for text in process.communicate(timeout=PATIENCE))
        self.assertEqual((real_err, real_out, process.returncode), (err, out, status))

    def start_on_terminal(self, terminal, *arguments):
        """As a shell does it in the foreground, so that what is typed reaches it."""
        def take_terminal():
            os.setsid()
            fcntl.ioctl(terminal.slave, termios.TIOCSCTTY, 0)
        return self.start(*arguments, stdout=terminal.slave, preexec_fn=take_terminal)

    def held_up(self, run=1):
        gate = Gate(self.runs() + run)
        self.addCleanup(gate.let_go)
        return gate

    @staticmethod
    def runs():
        return read(RECORD + "/lines").count(b"\n") if os.path.exists(RECORD + "/lines") else 0

    def engine(self):
        return int(read(f"{ENGINES}/{self.uuid}.pid").split()[0])

    def engine_ends(self):
        until(lambda: not os.path.exists(f"{ENGINES}/{self.uuid}.pid"), "the end of the pass")

    def kill_engine(self, gate):
        """The tool that it waits for is let go."""
        engine = self.engine()
        os.kill(engine, signal.SIGKILL)
        until(lambda: self.has_ended(engine), "the end of the engine")
        gate.let_go()

    @staticmethod
    def has_ended(process):
        try:
            return read(f"/proc/{process}/stat").rpartition(b")")[2].split()[0] == b"Z"
        except FileNotFoundError:
            return True


class Passes(Cache):
    def test_on_pins_all_metadata_and_says_how_much(self):
        self.prints(f"pinned the metadata of {self.path}: {self.amount()}\n", "cache", "on", self.path)
        self.assertEqual(sorted(self.tool_ranges("--set-bitmap")), self.ranges())
        self.assertEqual(read(self.attribute)[:1], b"1")
        # Again, with nothing to do.
        self.prints(f"pinned the metadata of {self.path}: {self.amount()}\n", "cache", "on", self.path)
        self.assertEqual(self.runs(), len(self.ranges()))

    def test_takes_every_name_of_a_volume(self):
        write(self.path + "/folder/file", "text")
        os.symlink(self.device, self.folder + "/link")
        for name in [self.path, self.device, self.path + "/", self.path + "/folder/file", self.folder + "/link"]:
            with self.subTest(name=name):
                self.prints(f"pinned the metadata of {self.path}: {self.amount()}\n", "cache", "on", name)
                self.succeeds("cache", "status", name)
                self.succeeds("cache", "rescan", name)
                self.succeeds("cache", "off", name)
                self.succeeds("cache", "stop", name)
                self.succeeds("cache", "check", name)
        self.assertEqual(self.pinned(), [])

    def test_off_unpins_all_of_it(self):
        self.succeeds("cache", "on", self.path)
        before = self.amount()
        self.prints(f"switched off; nothing is pinned of {self.path} any more, before {before}\n", "cache", "off",
                    self.path)
        self.assertEqual(self.pinned(), [])
        for action in ["--unset-bitmap", "--unpin-range"]:
            self.assertEqual(sorted(self.tool_ranges(action)), sorted(self.tool_ranges("--set-bitmap")))
        self.assertFalse(os.path.exists(self.mapping))
        self.assertEqual(read(self.attribute)[:1], b"0")
        self.prints(f"switched off; nothing is pinned of {self.path}\n", "cache", "off", self.path)

    def test_rescan_pins_what_is_new(self):
        self.succeeds("cache", "on", self.path)
        before = self.amount()
        self.grow()
        self.prints(f"rescanned {self.path}: {self.amount()} are pinned, before {before}\n", "cache", "rescan",
                    self.path)
        self.assertEqual(self.pinned(), self.ranges())

    def test_rescan_goes_by_the_switch(self):
        self.fails(f"cannot bring up to date what is pinned of \"{self.path}\": its switch has never been set; "
                   f"{self.command_of('on')} pins its metadata", "cache", "rescan", self.path, touching=True)
        self.succeeds("cache", "on", self.path)
        write(self.switch_file, "metadata_cache=\"0\"\n")
        self.prints(f"nothing is pinned of {self.path}: the switch is off\n", "cache", "rescan", self.path)
        self.assertEqual(self.pinned(), [])

    def test_rescan_unpins_when_the_configuration_says_no(self):
        self.succeeds("cache", "on", self.path)
        self.succeeds("config", "set", "btrfs_metadata_cache_on", "false")
        self.prints(f"nothing is pinned of {self.path}: \"btrfs_metadata_cache_on\" in {CONFIG} is not \"true\", which "
                    "switches it off for all volumes; run \"sudo zevotune config set btrfs_metadata_cache_on true\"\n",
                    "cache", "rescan", self.path)
        self.assertEqual(self.pinned(), [])

    def test_json(self):
        def result(state, on, ranges):
            return {"path": self.path, "uuid": self.uuid, "device": self.device, "state": state, "switched_on": on,
                    "engine_pid": None, "total": None, "done": None, "limit": 256 * 10**9,
                    "pinned_size": sum(size for _, size in ranges), "pinned_ranges": len(ranges)}
        for name, state, on in [("on", "pinned", True), ("rescan", "pinned", True), ("off", "nothing_pinned", False)]:
            self.prints_json(result(state, on, self.ranges() if on else []), "cache", name, self.path)

    def test_no_wait_starts_a_pass_and_says_how_to_follow_it(self):
        for name, text in [("on", self.amount()), ("rescan", self.amount())]:
            self.prints(f"started a pass over {self.path}: {self.follow}\n", "cache", name, "--no-wait", self.path)
            self.assertIn(f"\npinned: {text}\n", self.succeeds("cache", "status", "--watch", self.path))
        self.assertEqual(self.pinned(), self.ranges())
        self.prints_json({"path": self.path, "switched_on": False, "started": True}, "cache", "off", "--no-wait",
                         self.path)
        until(lambda: self.status()["state"] == "nothing_pinned" and self.status()["engine_pid"] is None, "the end")
        self.assertEqual(self.pinned(), [])

    def test_without_a_terminal_a_line_every_few_seconds(self):
        gate = self.held_up(run=6)
        process = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        line = process.stdout.readline().decode()
        self.assertRegex(line, r"\Apinning: \d+%, \d+(\.\d+)? MiB of 80 MiB(, .*)?\n\Z")
        gate.let_go()
        self.ends(process, f"pinned the metadata of {self.path}: {self.amount()}\n", "", 0)

    def test_what_the_limit_does_not_allow_is_not_pinned(self):
        self.succeeds("config", "set", "btrfs_metadata_cache_space_usage_limit", str(20 * self.MIB))
        kept = [entry for entry in self.ranges() if entry[1] <= 8 * self.MIB]
        missing = sum(size for _, size in self.ranges()) - sum(size for _, size in kept)
        self.prints(f"pinned the metadata of {self.path}: {self.amount(kept)}\nnot pinned: {missing >> 20} MiB of "
                    f"metadata, new since the last pass or beyond the limit; {self.command_of('rescan')} pins what is "
                    "new\n", "cache", "on", self.path)
        self.assertEqual(self.pinned(), kept)
        self.assertIn("\nlimit: 20 MiB of the SSD cache may be taken\n", self.succeeds("cache", "status", self.path))

    def test_metadata_shows_what_is_pinned(self):
        self.succeeds("cache", "on", self.path)
        text = self.succeeds("metadata", self.path)
        self.assertIn(f"\npinned in the SSD cache: {self.amount()}\n", text)
        self.assertRegex(text, r"\nLOGICAL OFFSET +SIZE +TYPE +PROFILE +PINNED +DEVICE OFFSETS\n")
        chunks = len(self.chunks(self.device))
        self.assertEqual(len(re.findall(r" DUP +yes +\d+, \d+\n", text)), chunks)
        self.grow()
        text = self.succeeds("metadata", "--list", self.path)
        self.assertEqual(len(re.findall(r" DUP +yes +\d+, \d+\n", text)), chunks)
        self.assertGreater(len(re.findall(r" +no +\d+(, \d+)?\n", text)), 0)
        shown = json.loads(self.succeeds("metadata", "--json", self.path))
        self.assertEqual([chunk["pinned"] for chunk in shown["chunks"]].count(True), chunks)
        self.assertTrue(all(copy["pinned"] for copy in shown["superblocks"]))
        self.assertEqual(shown["totals"]["pinned"], self.status()["pinned_size"])
        write(self.mapping, "nonsense\n")
        self.assertIn("\nwhat of it is pinned in an SSD cache cannot be told; \"zevotune cache status\" says why\n",
                      self.succeeds("metadata", self.path))
        self.assertIsNone(json.loads(self.succeeds("metadata", "--json", self.path))["totals"]["pinned"])


class Failures(Cache):
    def fails_in_pass(self, name, reason):
        status, out, err = self.run_tool("cache", name, self.path)
        self.assertEqual((err, out, status), (
            f"zevotune: cannot {ACTIONS[name]} \"{self.path}\": {reason}{self.goes_on}{SEE_LOG}\n", "", 1))

    def test_a_pin_tool_that_fails(self):
        reason = f"the pin tool {TOOL} has failed; the system's log has its command line (journalctl -t zevotune)"
        write(TOOL, "#!/bin/sh\nexit 1\n")
        self.fails_in_pass("on", reason)
        self.assertEqual(self.status()["state"], "pinning_stopped")
        shutil.copy(RECORDER, TOOL)
        self.assertRegex(self.succeeds("cache", "rescan", self.path), r"\Arescanned ")
        self.assertEqual(self.pinned(), self.ranges())
        write(TOOL, "#!/bin/sh\nkill -9 $$\n")
        self.fails_in_pass("off", reason)
        self.assertEqual(self.status()["state"], "unpinning_stopped")
        shutil.copy(RECORDER, TOOL)
        self.succeeds("cache", "off", self.path)
        self.assertEqual(self.pinned(), [])

    def test_a_pin_tool_that_is_missing(self):
        os.remove(TOOL)
        self.fails_in_pass("on", f"the pin tool {TOOL} cannot be run; see whether it is installed")

    def test_a_mapping_file_that_cannot_be_understood(self):
        self.succeeds("cache", "on", self.path)
        text = read(self.mapping)
        write(self.mapping, text + b"nonsense\n")
        line = text.count(b"\n") + 1
        reason = f"{self.mapping}:{line}: records what is pinned, and cannot be understood; mend it"
        for name in ["status", "off", "rescan"]:
            status, out, err = self.run_tool("cache", name, self.path)
            self.assertIn(reason, err)
            self.assertEqual((out, status), ("", 1))

    def test_what_stands_where_the_mapping_file_belongs(self):
        os.makedirs(self.mapping)
        status, _, err = self.run_tool("cache", "on", self.path)
        self.assertEqual(status, 1)
        self.assertIn("is no regular file of root's; move it away", err)

    def test_an_engine_that_is_killed(self):
        gate = self.held_up()
        process = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        self.kill_engine(gate)
        self.ends(process, "", f"zevotune: cannot pin the metadata of \"{self.path}\": the pass was ended by SIGKILL, as "
                  f"\"zevotune cache stop\" does it{self.goes_on}\n", 1)
        self.assertEqual(self.status()["state"], "pinning_stopped")

    def test_output_that_cannot_be_written_keeps_no_pass_from_being_done(self):
        for name in [["on"], ["rescan"], ["status"], ["status", "--watch"], ["check"], ["stop"], ["off"]]:
            with open("/dev/full", "wb") as full:
                self.assertEqual(self.run_tool("cache", *name, self.path, stdout=full), (
                    1, None, "zevotune: cannot write to standard output (No space left on device)\n"), name)
            if name == ["on"]:
                self.assertEqual(self.pinned(), self.ranges())
        self.assertEqual(self.pinned(), [])

    def test_a_volume_that_vanishes_in_the_middle(self):
        gate = self.held_up()
        process = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        program("umount", self.path)
        gate.let_go()
        _, err = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 1)
        self.assertIn(f"zevotune: cannot pin the metadata of \"{self.path}\": ".encode(), err)
        program("mount", self.device, self.path)


class Others(Cache):
    def test_a_second_on_waits_for_the_first(self):
        gate = self.held_up()
        first = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        second = self.start_on_terminal(terminal, "cache", "on", self.path)
        terminal.shows(rf"waiting for process {self.engine()}: pinning  \d+:\d\d")
        self.assertIsNone(second.poll())
        gate.let_go()
        self.ends(first, f"pinned the metadata of {self.path}: {self.amount()}\n", "", 0)
        self.ends(second, None, "", 0)
        terminal.shows(re.escape(f"pinned the metadata of {self.path}: {self.amount()}"))
        self.assertEqual(self.runs(), len(self.ranges()))

    def test_a_second_off_waits_for_the_first_on_which_fails(self):
        gate = self.held_up()
        first = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        second = self.start("cache", "off", self.path)
        until(lambda: self.status()["switched_on"] is False, "the switch")
        gate.let_go()
        self.ends(first, "", f"zevotune: cannot pin the metadata of \"{self.path}\": another program has turned its switch "
                  "meanwhile\n", 1)
        out, err = second.communicate(timeout=PATIENCE)
        self.assertEqual((err, second.returncode), (b"", 0))
        self.assertTrue(out.startswith(f"switched off; nothing is pinned of {self.path}".encode()), out)
        self.assertEqual(self.pinned(), [])

    def test_who_waits_for_another_one_can_be_stopped(self):
        gate = self.held_up()
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        engine = self.engine()
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        second = self.start_on_terminal(terminal, "cache", "rescan", self.path)
        terminal.shows(rf"waiting for process {engine}: pinning  \d+:\d\d")
        os.write(terminal.master, b"\x03")
        self.ends(second, None, f"zevotune: ended by SIGINT; the engine that was at work before goes on in process {engine}, "
                  f"by the switch as it is set now: {self.follow}\n", 130)
        gate.let_go()
        self.engine_ends()
        self.assertEqual(self.status()["state"], "pinned")


class Watching(Cache):
    def test_a_bar_on_a_terminal(self):
        gate = self.held_up(run=6)
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        process = self.start_on_terminal(terminal, "cache", "on", self.path)
        gate.wait_for_tool()
        line = terminal.shows(r"pinning \[[#.]+\] +\d+%  \d+(\.\d+)? MiB of 80 MiB.*")
        self.assertLess(len(line), 100)
        for columns in [50, 200, 12]:
            terminal.resize(columns)
            terminal.take()
            terminal.text = ""
            cells = {50: r"\[[#.]{10,}\] ", 200: r"\[[#.]{50}\] ", 12: ""}[columns]
            self.assertLess(len(terminal.shows(rf"pinning {cells} ?\d*%?.*" if cells else "pinning  2[0-9]")), columns)
        gate.let_go()
        self.ends(process, None, "", 0)
        self.assertTrue(terminal.take().endswith(f"\r\x1b[Jpinned the metadata of {self.path}: {self.amount()}\r\n"))

    def test_a_bar_in_unicode_where_the_locale_is_utf8(self):
        gate = self.held_up(run=6)
        self.locale = "C.UTF-8"
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        process = self.start_on_terminal(terminal, "cache", "on", self.path)
        gate.wait_for_tool()
        terminal.shows(r"pinning \[█+░+\] +\d+%  \d+(\.\d+)? MiB of 80 MiB.*")
        gate.let_go()
        self.ends(process, None, "", 0)

    def test_no_bar_on_a_terminal_that_cannot_draw(self):
        os.environ["TERM"] = "dumb"
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        self.ends(self.start_on_terminal(terminal, "cache", "on", self.path), None, "", 0)
        self.assertEqual(terminal.take(), f"pinned the metadata of {self.path}: {self.amount()}\r\n")

    def test_a_signal_ends_the_display_and_not_the_pass(self):
        for number, name in [(signal.SIGINT, "SIGINT"), (signal.SIGTERM, "SIGTERM"), (signal.SIGHUP, "SIGHUP")]:
            with self.subTest(name=name):
                gate = self.held_up()
                terminal = Terminal(100)
                process = self.start_on_terminal(terminal, "cache", "on", self.path)
                gate.wait_for_tool()
                terminal.shows(r"pinning  \d+:\d\d")
                engine = self.engine()
                if number == signal.SIGINT:
                    os.write(terminal.master, b"\x03")
                else:
                    process.send_signal(number)
                self.ends(process, None, f"zevotune: ended by {name}; the pass goes on in process {engine}: "
                          f"{self.follow}\n", 128 + number)
                self.assertTrue(terminal.take().endswith("\r\x1b[J"), terminal.text)
                terminal.close()
                self.assertEqual(self.engine(), engine)
                gate.let_go()
                self.engine_ends()
                self.assertEqual(self.pinned(), self.ranges())
                self.succeeds("cache", "off", self.path)

    def test_a_signal_that_is_ignored_stays_ignored(self):
        gate = self.held_up()
        process = self.start("cache", "on", self.path, preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        gate.wait_for_tool()
        process.send_signal(signal.SIGHUP)
        time.sleep(0.5)
        self.assertIsNone(process.poll())
        gate.let_go()
        self.ends(process, f"pinned the metadata of {self.path}: {self.amount()}\n", "", 0)

    def test_who_ignores_the_end_of_children_learns_how_a_pass_ends(self):
        write(TOOL, "#!/bin/sh\nexit 1\n")
        process = self.start("cache", "on", self.path, preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 1)

    def test_status_watch_on_a_terminal(self):
        gate = self.held_up(run=6)
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        process = self.start_on_terminal(terminal, "cache", "status", "--watch", self.path)
        terminal.shows(r"pinning \[[#.]+\] +\d+%  \d+(\.\d+)? MiB of 80 MiB.*")
        gate.let_go()
        self.ends(process, None, "", 0)
        self.assertTrue(terminal.take().endswith("\r\x1b[J" + self.text("pinned: " + self.amount())
                                                 .replace("\n", "\r\n")), terminal.text)

    def test_status_watch_can_be_ended(self):
        gate = self.held_up()
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        process = self.start_on_terminal(terminal, "cache", "status", "--watch", self.path)
        terminal.shows(r"pinning  \d+:\d\d")
        os.write(terminal.master, b"\x03")
        self.ends(process, None, f"zevotune: ended by SIGINT; the pass goes on: {self.follow}\n", 130)
        gate.let_go()
        self.engine_ends()

    def test_status_watch_as_json(self):
        gate = self.held_up()
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        process = self.start("cache", "status", "--watch", "--json", self.path)
        first = json.loads(process.stdout.readline())
        self.assertEqual((first["state"], first["engine_pid"]), ("pinning", self.engine()))
        gate.let_go()
        rest = process.communicate(timeout=PATIENCE)[0].decode().splitlines()
        self.assertEqual(json.loads(rest[-1]), self.status())
        self.assertEqual(process.returncode, 0)

    def test_unpinning_is_shown_by_what_is_left(self):
        self.succeeds("cache", "on", self.path)
        gate = self.held_up(run=3)
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        process = self.start_on_terminal(terminal, "cache", "off", self.path)
        gate.wait_for_tool()
        terminal.shows(r"unpinning \[[#.]+\] +\d+%  .* of 80.0 MiB.*")
        gate.let_go()
        self.ends(process, None, "", 0)


class Status(Cache):
    def test_nothing_pinned(self):
        self.prints(self.text("nothing is pinned", switch="never set"), "cache", "status", self.path)
        self.succeeds("cache", "off", self.path)
        self.prints(self.text("nothing is pinned", switch="off"), "cache", "status", self.path)
        write(self.switch_file, "metadata_cache=\"1\"\n")
        self.prints(self.text(f"nothing is pinned, although the switch is on; {self.command_of('rescan')} pins it, and "
                              f"{self.command_of('check')} says whether that can be"), "cache", "status", self.path)

    def test_pinning(self):
        gate = self.held_up()
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        engine = f"process {self.engine()}"
        self.prints(self.text("being pinned: 4 KiB in 1 range", engine=engine), "cache", "status", self.path)
        later = self.held_up(run=5)
        gate.let_go()
        later.wait_for_tool()
        self.assertRegex(self.succeeds("cache", "status", self.path), r"\nbeing pinned: \d+%, \d.* of 80 MiB\n")
        self.kill_engine(later)
        self.prints(self.text(f"pinned in part, and nobody is at it: {self.amount()}; {self.command_of('rescan')} goes on, "
                              f"{self.command_of('off')} takes it back"), "cache", "status", self.path)

    def test_pinned(self):
        self.succeeds("cache", "on", self.path)
        self.prints(self.text("pinned: " + self.amount()), "cache", "status", self.path)
        write(self.switch_file, "metadata_cache=\"0\"\n")
        self.prints(self.text(f"pinned: {self.amount()}, although the switch is not on; {self.command_of('rescan')} "
                              "unpins it", switch="off"), "cache", "status", self.path)

    def test_unpinning(self):
        self.succeeds("cache", "on", self.path)
        gate = self.held_up(run=3)
        self.succeeds("cache", "off", "--no-wait", self.path)
        gate.wait_for_tool()
        text = self.succeeds("cache", "status", self.path)
        self.assertRegex(text, r"\nbeing unpinned: \S+ MiB in \d ranges are left\n")
        self.assertEqual(self.status()["state"], "unpinning")
        left = re.search(r"unpinned: (.*) are left", text)[1]
        self.kill_engine(gate)
        self.prints(self.text(f"unpinned in part, and nobody is at it: {left} are left; {self.command_of('rescan')} goes "
                              "on", switch="off"), "cache", "status", self.path)
        self.prints(f"nothing is pinned of {self.path}: the switch is off\n", "cache", "rescan", self.path)
        self.assertEqual(self.pinned(), [])

    def test_needs_no_root(self):
        self.prints(self.text("nothing is pinned", switch="never set", limit=None), "cache", "status", self.path,
                    user="nobody")
        self.succeeds("cache", "on", self.path)
        before = tree()
        self.prints(self.text("pinned: " + self.amount(), limit=None), "cache", "status", self.path, user="nobody")
        self.prints(self.text("pinned: " + self.amount(), limit=None), "cache", "status", "--watch", self.path,
                    user="nobody")
        self.assertEqual(tree(), before)
        os.chmod(os.path.dirname(self.mapping), 0o700)
        status, out, err = self.run_tool("cache", "status", self.path, user="nobody")
        self.assertEqual((out, status), ("", 1))
        self.assertTrue(err.startswith(f"zevotune: cannot tell how the metadata cache of {self.path} is: "), err)
        self.assertTrue(err.endswith("; perhaps root can tell (sudo)\n"), err)


class Stop(Cache):
    def stopped(self, engine, how, state, *arguments):
        self.prints(f"process {engine}, which worked on {self.path}, {how}\nthe switch is still on\n{state}\n",
                    "cache", "stop", self.path, *arguments)

    def test_nothing_runs(self):
        self.prints(f"no engine works on {self.path}: there is nothing to stop\nthe switch was never set\nnothing is "
                    "pinned\n", "cache", "stop", self.path)
        shown = self.status()
        self.prints_json(shown | {"stopped_pid": None, "killed": False}, "cache", "stop", self.path)

    def test_an_engine_that_waits_for_its_pin_tool_is_killed(self):
        gate = self.held_up()
        process = self.start("cache", "on", self.path)
        gate.wait_for_tool()
        self.stopped(self.engine(), "did not end within 5 seconds when it was asked to, and was killed",
                     f"pinned in part, and nobody is at it: 4 KiB in 1 range; {self.command_of('rescan')} goes on, "
                     f"{self.command_of('off')} takes it back")
        out, err = process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, 1)
        self.assertEqual(err.decode(), f"zevotune: cannot pin the metadata of \"{self.path}\": the pass was ended by "
                         f"SIGKILL, as \"zevotune cache stop\" does it{self.goes_on}\n")
        self.assertRegex(out.decode(), r"\A(pinning: \d:\d\d so far\n)*\Z")
        gate.let_go()
        self.succeeds("cache", "rescan", self.path)
        self.assertEqual(self.pinned(), self.ranges())

    def test_an_engine_that_reads_ends_when_it_is_asked_to(self):
        self.succeeds("config", "set", "btrfs_metadata_cache_read_throttle_wait_mult", "100000")
        process = self.start("cache", "on", self.path)
        until(lambda: self.runs() >= 5, "the reading of a large chunk")
        terminal = Terminal(100)
        self.addCleanup(terminal.close)
        engine = self.engine()
        stop = self.start_on_terminal(terminal, "cache", "stop", self.path)
        terminal.shows(rf"asking process {engine} to end  0:0\d")
        self.ends(stop, None, "", 0)
        terminal.shows(f"process {engine}, which worked on {self.path}, has ended when it was asked to")
        _, err = process.communicate(timeout=PATIENCE)
        self.assertIn(b"the pass was ended by SIGTERM", err)
        self.assertEqual(process.returncode, 1)

    def test_json(self):
        gate = self.held_up()
        self.succeeds("cache", "on", "--no-wait", self.path)
        gate.wait_for_tool()
        engine = self.engine()
        result = json.loads(self.succeeds("cache", "stop", "--json", self.path))
        self.assertEqual(result, self.status() | {"stopped_pid": engine, "killed": True})
        self.assertEqual(result["state"], "pinning_stopped")


class Check(Cache):
    UNPINNABLE = "declared in " + DECLARATIONS + " with 0x4 and 0x2 among its \"flags\""

    def refused(self, why, reason, cache="cache-1"):
        """By "check" and by "on", which changes nothing."""
        status, out, err = self.run_tool("cache", "check", self.path)
        self.assertEqual((err, out, status), ("", f"{self.path}: its metadata cannot be pinned: {why}\n", 1))
        status, out, err = self.run_tool("cache", "check", "--json", self.path)
        self.assertEqual((err, json.loads(out), status), ("", {
            "path": self.path, "supported": False, "can_pin": False, "reason": reason, "why": why, "ssd_cache": cache}, 1))
        before = tree()
        for more in [[], ["--json"], ["--no-wait"]]:
            self.fails(f"cannot pin the metadata of \"{self.path}\": {why}", "cache", "on", self.path, *more)
        self.assertEqual(tree(), before)
        self.assertEqual((self.runs(), os.path.exists(self.mapping)), (0, False))

    def test_supported_also_while_the_switch_was_never_set(self):
        text = f"{self.path}: its metadata can be pinned, in the SSD cache \"cache-1\" of 238 GiB\n"
        self.prints(text, "cache", "check", self.path)
        for name in ["on", "off"]:
            self.succeeds("cache", name, self.path)
            self.prints(text, "cache", "check", self.path)
        self.prints_json({"path": self.path, "supported": True, "can_pin": True, "reason": None, "why": None,
                          "ssd_cache": "cache-1"}, "cache", "check", self.path)

    def test_reasons(self):
        self.succeeds("cache", "check", self.path)  # which makes the configuration
        self.declare(self.path, mode=3)
        self.refused("its SSD cache \"cache-1\" is in a mode that is not known, and nothing is pinned in one that may do "
                     f"anything; see what its own tools say of it, and its \"mode\" in {DECLARATIONS}", 1)
        attach = f"; attach one to {self.device}, or declare the one that there is in {DECLARATIONS}"
        self.declare(self.path, mode=6)
        self.refused("its SSD cache \"cache-1\" is being taken away" + attach, 2)
        self.declare(self.path, mode=0)
        self.refused("its SSD cache \"cache-1\" is still being assembled; try again when it is in service", 3)
        self.declare(self.path, mode=2)
        self.refused("its SSD cache \"cache-1\" is faulty and out of service; repair it first", 3)
        self.declare(self.path, flags=2)
        self.refused("its SSD cache \"cache-1\" cannot pin, as those of the kernel's own cannot; it takes one with a pin "
                     "tool, " + self.UNPINNABLE, 4)
        self.declare(self.path, flags=4)
        self.refused("its SSD cache \"cache-1\" pins files, but no ranges of a device, which is what metadata is; it takes "
                     "one that does, " + self.UNPINNABLE, 5)
        os.remove(DECLARATIONS)
        self.refused("no SSD cache stands in front of it in which metadata could be pinned" + attach, 2, cache=None)
        self.declare(self.path)
        self.succeeds("config", "set", "btrfs_metadata_cache_on", "false")
        self.refused(f"\"btrfs_metadata_cache_on\" in {CONFIG} is not \"true\", which switches it off for all volumes; run "
                     "\"sudo zevotune config set btrfs_metadata_cache_on true\"", 6)

    def test_one_that_is_switched_on_is_supported_but_it_is_said_what_is_in_the_way(self):
        self.succeeds("cache", "on", self.path)
        os.remove(DECLARATIONS)
        self.prints(f"{self.path}: the cache is switched on, but nothing can be pinned now: no SSD "
                    f"cache stands in front of it in which metadata could be pinned; attach one to {self.device}, or "
                    f"declare the one that there is in {DECLARATIONS}\n", "cache", "check", self.path)
        self.succeeds("cache", "off", self.path)

    def test_declarations_that_cannot_be_understood(self):
        self.succeeds("cache", "check", self.path)
        write(DECLARATIONS, "[one]\nnonsense\n")
        for name in ["check", "on"]:
            self.fails(f"cannot tell how the metadata cache of {self.path} is: {DECLARATIONS}:2: declares no SSD cache in a "
                       "way that can be understood; mend it", "cache", name, self.path)

    def test_a_switch_that_cannot_be_understood(self):
        write(self.switch_file, "metadata_cache=\"perhaps\"\n")
        for name in ["check", "on", "status"]:
            self.fails(f"cannot tell how the metadata cache of {self.path} is: {self.switch_file}: is no setting of a "
                       "volume; mend it", "cache", name, self.path)


class WithoutAttribute(Cache):
    def setUp(self):
        super().setUp()
        self.succeeds("cache", "check", self.path)  # which makes the configuration
        self.lacks = f"this kernel has no {self.attribute}, without which "
        self.advice = "; start the machine with a kernel that has it"
        self.cannot_pin = self.lacks + "a pass could be neither completed nor undone" + self.advice

    def switch(self, on):
        write(self.switch_file, f"metadata_cache=\"{int(on)}\"\n")

    def cannot_unpin(self):
        return f"{self.lacks}{self.amount()} that are recorded as pinned cannot be unpinned{self.advice}"

    def refused(self, name, why):
        runs = self.runs()
        for more in [[], ["--no-wait"], ["--json"]]:
            self.fails(f"cannot {ACTIONS[name]} \"{self.path}\": {why}", "cache", name, self.path, *more)
        self.assertEqual(self.runs(), runs)

    def test_nothing_is_pinned(self):
        os.remove(self.attribute)
        status, out, err = self.run_tool("cache", "check", self.path)
        self.assertEqual((err, out, status), ("", f"{self.path}: its metadata cannot be pinned: {self.cannot_pin}\n", 1))
        self.refused("on", self.cannot_pin)
        self.assertFalse(os.path.exists(self.mapping))
        self.switch(True)
        self.refused("rescan", self.cannot_pin)
        # Whoever finds the switch on there can turn it off.
        self.prints(f"switched off; nothing is pinned of {self.path}\n", "cache", "off", self.path)
        self.assertIs(self.status()["switched_on"], False)
        self.prints(f"nothing is pinned of {self.path}: the switch is off\n", "cache", "rescan", self.path)

    def test_a_mapping_file_that_records_nothing_keeps_nobody_from_switching_off(self):
        os.remove(self.attribute)
        for text in ["", "[config]\nstatus = 1\nmax_used_size = 0\n", "[config]\nstatus = 3\nmax_used_size = 0\n"]:
            with self.subTest(text=text):
                self.switch(True)
                write(self.mapping, text)
                for more in [[], ["--no-wait"]]:
                    self.prints(f"switched off; nothing is pinned of {self.path}\n", "cache", "off", self.path, *more)
                self.assertIs(self.status()["switched_on"], False)
                self.prints(f"nothing is pinned of {self.path}: the switch is off\n", "cache", "rescan", self.path)

    def test_what_is_pinned_can_be_unpinned_under_the_right_kernel_only(self):
        self.succeeds("cache", "on", self.path)
        os.remove(self.attribute)
        self.refused("on", self.cannot_pin)
        self.refused("rescan", self.cannot_pin)
        self.refused("off", self.cannot_unpin())
        self.prints(f"{self.path}: the cache is switched on, but nothing can be pinned now: {self.cannot_pin}\n", "cache",
                    "check", self.path)
        self.assertIs(self.status()["switched_on"], True)
        self.switch(False)
        self.refused("rescan", self.cannot_unpin())
        self.assertEqual(self.pinned(), self.ranges())
        write(self.attribute, "1\n")
        self.succeeds("cache", "off", self.path)
        self.assertEqual(self.pinned(), [])

    def test_what_was_pinned_in_a_cache_that_is_gone_can_be_forgotten(self):
        self.succeeds("cache", "on", self.path)
        os.remove(self.attribute)
        os.remove(DECLARATIONS)
        self.refused("off", self.cannot_unpin() + ", or, as the SSD cache that they were pinned in is gone, remove "
                     f"{self.mapping} and run {self.command_of('off')}")
        os.remove(self.mapping)
        self.prints(f"switched off; nothing is pinned of {self.path}\n", "cache", "off", self.path)


class NoVolume(Cache):
    def refused(self, volume, reason):
        for name, action in ACTIONS.items():
            for more in [[], ["--json"]]:
                self.fails(f"cannot {action} \"{volume}\": {reason}", "cache", name, volume, *more)

    def test_what_is_not_there_or_not_mounted(self):
        self.refused("/nowhere", "No such file or directory; name a path on a volume, or its device" + SEE_VOLUMES)
        self.refused("", "No such file or directory; name a path on a volume, or its device" + SEE_VOLUMES)
        device = self.device_on(self.MIB * 256)
        self.refused(device, "it is the device of no mounted volume; mount it, or name the volume's path" + SEE_VOLUMES)

    def device_on(self, size):
        # Not by the overlay, which does not see what comes later.
        program("umount", "/sys")
        self.addCleanup(program, "mount", "-t", "tmpfs", "none", "/sys")  # for the clean-up of the volume's own
        device = Volumes.device(self, size)
        program("mkfs.ext4", "-q", device)
        return device

    def test_what_is_no_btrfs_volume(self):
        device = self.device_on(64 * self.MIB)
        path = self.mount(device)
        for name in [path, device]:
            self.refused(name, "it is not a Btrfs volume" + SEE_VOLUMES)
        for name in [path + "/lost+found", "/proc/version"]:
            self.refused(name, "it does not lie on a Btrfs volume" + SEE_VOLUMES)

    def test_all_but_status_take_root(self):
        for name in ["on", "off", "rescan", "stop", "check"]:
            for volume in [self.path, "/nowhere"]:
                self.fails(f"\"cache {name}\" needs root and has changed nothing; run \"sudo zevotune cache {name} ...\"",
                           "cache", name, volume, user="nobody")

    def test_a_volume_on_several_devices(self):
        program("umount", "/sys")
        self.addCleanup(program, "mount", "-t", "tmpfs", "none", "/sys")
        devices = [Volumes.device(self, 256 * self.MIB) for _ in range(2)]
        program("mkfs.btrfs", "--quiet", "--nodiscard", "--metadata", "raid1", *devices)
        path = self.mount("--options", f"device={devices[0]},device={devices[1]}", devices[0])
        self.declare(path)
        self.succeeds("config", "list")
        self.fails(f"cannot pin the metadata of \"{path}\": it lies on 2 devices, and only of volumes on one device can be "
                   "told what lies where", "cache", "on", path)


if __name__ == "__main__":
    main("zevotune_cache")
