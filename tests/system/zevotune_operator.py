#!/usr/bin/env python3
"""Plans, verifies, undoes and checks profiles with the command line as an operator does, and an unlucky or hostile one.

Compares all that is printed, the exit status and what is left behind. The environment variable ZEVOTUNE holds the
tool's path. Runs as root inside of tests/lab/enter only.
"""

import errno
import fcntl
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # this folder need not be writable
from zevotune_cli import IN_PART, SEE_LOG, Hardware  # pylint: disable=wrong-import-position
from zevotune_machine import (  # pylint: disable=wrong-import-position
    CONFIG, LATENCY, LOCAL, LOCAL_GLOBAL, PARAMETERS, SHIPPED, SHIPPED_GLOBAL, THROUGHPUT, Machine, Volumes, main,
    parameter, profile, program, read, runs, tree, write)

STATE_DIR = "/run/zevotuned"
STATE = STATE_DIR + "/undo.json"
SYNTAX = ": line is neither a section, a pair in a section nor a comment; mend or remove the file"
WHERE = f"in {SHIPPED} or {LOCAL}"
NOTHING_TO_UNDO = (f"there is nothing to undo: {STATE} is missing, which \"zevotune set\" and \"apply\" make and "
                   "\"undo\" and every boot remove")
# What every test starts with, whatever machine it runs on.
VALUES = {"swappiness": "60", "vfs_cache_pressure": "100", "dirty_ratio": "20", "dirty_bytes": "0",
          "dirty_background_ratio": "10", "dirty_background_bytes": "0", "page-cluster": "3"}


def left():
    """All that the tool may write to. That the folder of the kept values is made does not count."""
    entries = tree()
    if os.path.isdir(STATE_DIR) and not os.path.islink(STATE_DIR):
        paths = [os.path.join(STATE_DIR, name) for name in os.listdir(STATE_DIR)]
    else:
        paths = [STATE_DIR] * os.path.lexists(STATE_DIR)
    for path in paths:
        status = os.lstat(path)
        regular = stat.S_ISREG(status.st_mode)
        entries[path] = (status.st_mode, status.st_uid, status.st_ino, read(path) if regular else None)
    return entries


def values():
    return {name: parameter(name) for name in VALUES}


def kept():
    return json.loads(read(STATE))


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.remove(path)


class Operator(Machine):
    def setUp(self):
        super().setUp()
        remove(STATE_DIR)
        self.addCleanup(remove, STATE_DIR)
        for name, value in VALUES.items():
            write(f"{PARAMETERS}/{name}", value + "\n")

    def says(self, expected, *arguments, status=0, err="", user="root", **options):
        """All that is printed."""
        real_status, out, real_err = self.run_tool(*arguments, user=user, **options)
        self.assertEqual((out, real_err, real_status), (expected, err and f"zevotune: {err}\n", status))

    def says_json(self, expected, *arguments, status=0, err="", user="root"):
        real_status, out, real_err = self.run_tool(*arguments, "--json", user=user)
        self.assertEqual((real_err, real_status), (err and f"zevotune: {err}\n", status))
        self.assertTrue(out.isascii())
        self.assertEqual(json.loads(out), expected)

    def fails(self, line, *arguments, user="root", touching=False):
        before = left()
        self.says("", *arguments, status=1, err=line, user=user)
        if not touching:
            self.assertEqual(left(), before)

    def start_half_way(self, *arguments, **options):
        """Starts the tool on a profile that is applied, and stops it before the last parameter of the global one."""
        os.mkfifo(PARAMETERS + "/pipe")
        profile(SHIPPED_GLOBAL + "/g", "g", "", "vm.swappiness = 1\nvm.pipe = 1\n")
        started = subprocess.Popen(self.command(list(arguments), "root"), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(self.end, started)
        deadline = time.monotonic() + 60
        while not runs(["/sbin/sysctl", "-we", "vm.pipe", "1"]):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.005)
        return started

    def end(self, started):
        """Of a test that has failed before it has let the tool go on, neither that nor sysctl is to wait for ever."""
        started.kill()
        if os.path.exists(PARAMETERS + "/pipe"):
            os.close(os.open(PARAMETERS + "/pipe", os.O_RDWR | os.O_NONBLOCK))
        started.communicate()

    def let_go(self):
        self.assertEqual(read(PARAMETERS + "/pipe"), b"1\n")
        os.remove(PARAMETERS + "/pipe")
        os.remove(SHIPPED_GLOBAL + "/g")

    def restrict(self, name, mode):
        """Who may read or write a parameter, for this test."""
        path = f"{PARAMETERS}/{name}"
        self.addCleanup(os.chmod, path, os.stat(path).st_mode)
        os.chmod(path, mode)

    def keep(self, *entries, version=1, name="x", selected_before="x", applied=True):
        """Leaves kept values as an earlier command would."""
        return write(STATE, json.dumps({
            "version": version, "profile": name, "selected_before": selected_before, "applied": applied,
            "values": [{"target": target, "path": path, "before": before, "wanted": wanted, "after": after}
                       for target, path, before, wanted, after in entries]}))


def planned(target, value, now, **more):
    path = "/proc/sys/" + target.replace(".", "/")
    return {"target": target, "path": path, "value": value, "now": now, "now_unknown": None, "changes": now != value,
            "known": True, "overwritten_later": False, "note": None} | more


class Plan(Operator):
    def test_shows_what_set_then_writes_and_writes_nothing(self):
        profile(LOCAL_GLOBAL + "/g", "g", "", "vm.swappiness = 10\nvm.vfs_cache_pressure = 0x64\n")
        base = profile(LOCAL + "/base", "base", "vm_memory_max = 1048576\n",
                       "vm.dirty_ratio = 50\nvm.no_such_parameter = 1\n")
        path = profile(LOCAL + "/x", "x", "inherit = base\n", "vm.swappiness = 33\nvm.dirty_background_bytes = 8192\n"
                       "[sysctl2]\na = b\n")
        unknown = "(this kernel does not have it)"
        text = f"""LINE    TARGET                     {"NOW":30}  TO COME  NOTE
global profile "g", {LOCAL_GLOBAL}/g
 [sysctl]
4       vm.swappiness              {"60":30}  10       overwritten below
5       vm.vfs_cache_pressure      {"100":30}  as now   overwritten below
profile "x", {path}
global profile "g", {LOCAL_GLOBAL}/g
 [sysctl]
4       vm.swappiness              {"60":30}  10       overwritten below
5       vm.vfs_cache_pressure      {"100":30}  as now
inherited profile "base", {base}
 [sysctl]
5       vm.dirty_bytes             {"0":30}  524288   50% of vm_memory_max (1 MiB), as there are \
MEMORY of memory; makes vm.dirty_ratio 0
6       vm.no_such_parameter       {unknown}  1        this kernel does not have it
profile "x", {path}
 [sysctl]
5       vm.swappiness              {"60":30}  33
6       vm.dirty_background_bytes  {"0":30}  8192     makes vm.dirty_background_ratio 0
 [sysctl2]
       not sysctl2: no section of this name is known
3 values would change, 1 would stay as it is, 3 would be overwritten on the way, 1 is not known to this kernel
"""
        before = left()
        for user in ["root", "nobody"]:
            out = self.succeeds("plan", "x", user=user)
            self.assertEqual(re.sub(r"there are [\d.]+ [MGT]iB of", "there are MEMORY of", out), text)
        self.assertEqual(left(), before)
        self.assertFalse(os.path.exists(STATE_DIR))
        self.succeeds("set", "x")
        # Nothing links a ratio and its bytes in here.
        self.assertEqual(values(), VALUES | {"swappiness": "33", "vfs_cache_pressure": "0x64", "dirty_bytes": "524288",
                                             "dirty_background_bytes": "8192"})

    def test_json(self):
        path = profile(LOCAL + "/x", "x", "inherit = performance_latency\n",
                       "vm.vfs_cache_pressure = 100\nvm.gone = 1\n[new]\na = b\n")
        before = left()
        latency = {"role": "inherited", "profile": "performance_latency", "path": LATENCY}
        own = {"role": "selected", "profile": "x", "path": path}
        expected = {"profile": "x", "failure": None, "sections": [
            own | {"section": "main", "line": 1, "keys": [], "passed_over": []},
            latency | {"section": "main", "line": 1, "keys": [], "passed_over": []},
            latency | {"section": "sysctl", "line": 4, "passed_over": [], "keys": [
                {"key": "vm.swappiness", "value": "22", "line": 5, "passed_over": [],
                 "writes": [planned("vm.swappiness", "22", "60")]}]},
            own | {"section": "sysctl", "line": 4, "passed_over": [], "keys": [
                {"key": "vm.vfs_cache_pressure", "value": "100", "line": 5, "passed_over": [],
                 "writes": [planned("vm.vfs_cache_pressure", "100", "100")]},
                {"key": "vm.gone", "value": "1", "line": 6, "passed_over": [],
                 "writes": [planned("vm.gone", "1", None, now_unknown="this kernel does not have it", known=False,
                                    changes=False)]}]},
            own | {"section": "new", "line": 7, "keys": [],
                   "passed_over": [{"what": "new", "why": "no section of this name is known"}]}]}
        for user in ["root", "nobody"]:
            self.prints_json(expected, "plan", "x", user=user)
        self.assertEqual(left(), before)

    def test_a_profile_that_changes_nothing(self):
        path = profile(LOCAL + "/x", "x", "", "")
        self.prints("LINE    TARGET  NOW  TO COME  NOTE\n"
                    f"profile \"x\", {path}\n [sysctl]\n       nothing on this machine\n0 values would change\n",
                    "plan", "x")
        write(path, "[main]\nname = x\n")
        self.prints(f"LINE    TARGET  NOW  TO COME  NOTE\nprofile \"x\", {path}\n0 values would change\n", "plan", "x")

    def test_values_that_not_everybody_may_read(self):
        self.restrict("swappiness", 0o600)
        def text(now):
            return (f"LINE    TARGET         {'NOW':{len(now)}}  TO COME  NOTE\n"
                    f"profile \"performance_latency\", {LATENCY}\n [sysctl]\n"
                    f"5       vm.swappiness  {now:3}  22\n1 value would change\n")

        self.prints(text("(only root can read it)"), "plan", "performance_latency", user="nobody")
        self.prints(text("60"), "plan", "performance_latency")
        self.restrict("swappiness", 0o200)
        command = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search", self.tool, "plan",
                   "performance_latency"]
        self.assertEqual(subprocess.run(command, capture_output=True, text=True, check=True).stdout,
                         text("(it can only be written)"))

    def test_unknown_name(self):
        for arguments in [["plan"], ["verify"]]:
            self.fails(f"there is no profile \"latency\" {WHERE}; did you mean \"performance_latency\"?",
                       *arguments, "latency")
            self.fails(f"there is no profile \"a\\x0Ab\\x1B[m\" {WHERE}; \"zevotune list\" shows all",
                       *arguments, "a\nb\x1b[m", user="nobody")
        self.fails(f"there is no profile \"\" {WHERE}; \"zevotune list\" shows all", "plan", "")

    def test_broken_files(self):
        path = write(LOCAL + "/x", "[main]\nname = x\nnonsense\n")
        for arguments in [["plan", "performance_latency"], ["plan", "--json", "x"], ["verify"], ["verify", "x"],
                          ["list", "--names"]]:
            self.fails(f"cannot read the profiles: {path}:3{SYNTAX}", *arguments)
        os.remove(path)
        path = write(LOCAL_GLOBAL + "/g", "[main]\n[\n")
        for command in ["plan", "verify"]:
            self.fails(f"cannot read the global profiles: {path}:2{SYNTAX}", command, "performance_latency")

    def test_inheritance(self):
        a = profile(LOCAL + "/a", "A", "inherit = B\n")
        b = profile(LOCAL + "/b", "B", "inherit = A\n")
        gone = profile(LOCAL + "/c", "C", "inherit = performance_latenci\n")
        self.configure(profile="C")
        self.make_lock()
        for arguments in [["plan", "A"], ["verify", "A"], ["plan", "A", "--json"]]:
            self.fails(f"cannot apply \"A\": its inheritance never ends: \"A\" ({a}) -> \"B\" ({b}) -> \"A\" ({a}); "
                       "remove one \"inherit\" of the circle", *arguments, user="nobody")
        for arguments in [["plan", "C"], ["verify"]]:
            self.fails(f"cannot apply \"C\": {gone} inherits from \"performance_latenci\", and there is no profile of "
                       "that name; did you mean \"performance_latency\"?", *arguments)
        path = profile(SHIPPED_GLOBAL + "/g", "g", "inherit = performance_latency\n")
        for command in ["plan", "verify"]:
            self.fails(f"cannot apply \"performance_latency\": the global profile {path} inherits from "
                       f"\"performance_latency\" ({LATENCY}), before which all global profiles are applied again, "
                       "without end; remove its \"inherit\"", command, "performance_latency")

    def test_names_with_utf8_and_control_characters(self):
        path = profile(LOCAL + "/x\ny\x1b", "größer\x1b[31m\x07", "", "vm.swappiness = a\x1bb\nvm.\x7f\x1b = 1\n")
        out = self.succeeds("plan", "größer\x1b[31m\x07")
        shown = path.replace("\n", "\\x0A").replace("\x1b", "\\x1B")
        self.assertEqual(out, f"""LINE    TARGET         NOW                             TO COME  NOTE
profile "größer\\x1B[31m\\x07", {shown}
 [sysctl]
4       vm.swappiness  {"60":30}  a\\x1Bb
5       vm.\\x7F\\x1B    (this kernel does not have it)  1        this kernel does not have it
1 value would change, 1 is not known to this kernel
""")


class Verify(Operator):
    def row(self, target, now, value, state, file, line):
        return {"target": target, "path": "/proc/sys/" + target.replace(".", "/"), "now": now, "value": value,
                "state": state, "file": file, "line": line}

    def test_after_set_all_hold_for_everybody(self):
        profile(LOCAL_GLOBAL + "/g", "g", "", "vm.swappiness = 1\nvm.vfs_cache_pressure = 0x37\n")
        self.succeeds("set", "performance_latency")
        text = f"""TARGET                 NOW   PROFILE  STATE  FROM
vm.vfs_cache_pressure  0x37  0x37     holds  {LOCAL_GLOBAL}/g:5
vm.swappiness          22    22       holds  {LATENCY}:5
"performance_latency": 2 of 2 values hold
"""
        expected = {"profile": "performance_latency", "holds": True, "values": [
            self.row("vm.vfs_cache_pressure", "0x37", "0x37", "holds", LOCAL_GLOBAL + "/g", 5),
            self.row("vm.swappiness", "22", "22", "holds", LATENCY, 5)]}
        before = left()
        for user in ["root", "nobody"]:
            for name in [[], ["performance_latency"]]:
                self.prints(text, "verify", *name, user=user)
                self.prints_json(expected, "verify", *name, user=user)
        self.assertEqual(left(), before)
        # The same number in another notation.
        write(PARAMETERS + "/vfs_cache_pressure", "55\n")
        self.assertIn("vm.vfs_cache_pressure  55   0x37     holds", self.succeeds("verify"))

    def test_of_another_profile(self):
        self.succeeds("set", "performance_latency")
        self.says(f"TARGET         NOW  PROFILE  STATE    FROM\nvm.swappiness  22   11       differs  {THROUGHPUT}:8\n"
                  "\"performance_throughput\": 0 of 1 value holds\n", "verify", "performance_throughput", status=1)

    def test_tells_what_was_changed_from_what_the_kernel_has_refused(self):
        path = profile(LOCAL + "/x", "x", "", "vm.swappiness = 44\nkernel.pid_max = 99999\nvm.gone = 1\n"
                       "vm.vfs_cache_pressure = 66\n")
        status, out, err = self.run_tool("set", "x")
        self.assertEqual((status, out), (0, f"selected and applied x ({path})\n"))
        self.assertRegex(err, "1 value; \"zevotune verify\" shows which\n\\Z")
        write(PARAMETERS + "/swappiness", "45\n")
        pid_max = read("/proc/sys/kernel/pid_max").decode().strip()
        wide = max(len(pid_max), len("(this kernel does not have it)"))
        text = f"""TARGET                 {"NOW":{wide}}  PROFILE  {{}}FROM
vm.swappiness          {"45":{wide}}  44       {{}}{path}:4
kernel.pid_max         {pid_max:{wide}}  99999    {{}}{path}:5
vm.gone                {"(this kernel does not have it)":{wide}}  1        {{}}{path}:6
vm.vfs_cache_pressure  {"66":{wide}}  66       {{}}{path}:7
"x": 1 of 3 values hold, 1 not known to this kernel
"""
        for user, changed, refused in [
                ("root", "changed since it was applied", "refused by the kernel"),
                ("nobody", "differs", "differs")]:
            width = 2 + max(map(len, [changed, "this kernel does not have it"]))
            states = ["STATE", changed, refused, "this kernel does not have it", "holds"]
            self.says(text.format(*(f"{state:{width}}" for state in states)), "verify", status=1, user=user)
        states = {"root": ["changed", "refused", "unknown", "holds"],
                  "nobody": ["differs", "differs", "unknown", "holds"]}
        for user, names in states.items():
            self.says_json({"profile": "x", "holds": False, "values": [
                self.row("vm.swappiness", "45", "44", names[0], path, 4),
                self.row("kernel.pid_max", pid_max, "99999", names[1], path, 5),
                self.row("vm.gone", None, "1", names[2], path, 6),
                self.row("vm.vfs_cache_pressure", "66", "66", names[3], path, 7)]}, "verify", status=1, user=user)
        # After a boot nobody knows any more.
        os.remove(STATE)
        self.says(text.format(*(f"{state:30}" for state in ["STATE", "differs", "differs",
                                                            "this kernel does not have it", "holds"])),
                  "verify", status=1)

    def test_a_file_that_has_changed_since_differs(self):
        self.succeeds("set", "performance_latency")
        profile(LATENCY, "performance_latency", "index = 1\n", "vm.swappiness = 23\n")
        self.assertIn("  23       differs  ", self.run_tool("verify")[1])

    def test_values_that_cannot_be_read(self):
        self.succeeds("set", "performance_latency")
        self.restrict("swappiness", 0o600)
        self.says("TARGET         NOW                      PROFILE  STATE           FROM\n"
                  f"vm.swappiness  (only root can read it)  22       cannot be read  {LATENCY}:5\n"
                  "\"performance_latency\": 0 of 1 value holds\n", "verify", status=1, user="nobody")
        self.says_json({"profile": "performance_latency", "holds": False, "values": [
            self.row("vm.swappiness", None, "22", "unread", LATENCY, 5)]}, "verify", status=1, user="nobody")
        os.remove(PARAMETERS + "/page-cluster")
        os.mkfifo(PARAMETERS + "/page-cluster")
        self.addCleanup(os.remove, PARAMETERS + "/page-cluster")
        profile(LOCAL + "/x", "x", "", "vm.page-cluster = 1\n")
        self.assertIn("vm.page-cluster  (Invalid argument)  1        cannot be read  ",
                      self.run_tool("verify", "x")[1])

    def test_where_nothing_can_fail_everything_holds(self):
        profile(LOCAL + "/x", "x", "", "")
        self.prints("\"x\": 0 of 0 values hold\n", "verify", "x")
        self.prints_json({"profile": "x", "holds": True, "values": []}, "verify", "x")
        path = profile(LOCAL + "/x", "x", "", "vm.gone = 1\n")
        self.prints("TARGET   NOW                             PROFILE  STATE                         FROM\n"
                    f"vm.gone  (this kernel does not have it)  1        this kernel does not have it  {path}:4\n"
                    "\"x\": 0 of 0 values hold, 1 not known to this kernel\n", "verify", "x")

    def test_without_a_configuration_or_with_a_broken_one(self):
        self.fails(f"cannot read the configuration: {CONFIG} is missing, and only root makes it; "
                   "run \"sudo zevotune current\"", "verify", user="nobody")
        self.assertIn("\"performance_throughput\": 0 of 1", self.run_tool("verify")[1])
        self.configure(profile="performance_latenci")
        self.make_lock()
        for user in ["root", "nobody"]:
            self.fails(f"the selected profile \"performance_latenci\" (in {CONFIG}) is not installed; did you mean "
                       "\"performance_latency\"? (\"sudo zevotune set NAME\" selects another one)", "verify", user=user)
        write(CONFIG, "nonsense\n")
        self.fails(f"cannot read the configuration: {CONFIG}:1: line is neither a pair nor a comment; mend the file",
                   "verify")


class Keeping(Operator):
    """What "set" and "apply" leave for "undo"."""

    def test_the_state_file_holds_what_was_overwritten_and_is_read_by_root_alone(self):
        path = profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.gone = 1\nvm.dirty_bytes = 8192\n")
        for umask in [0, 0o022, 0o077, 0o777]:
            for command, out in [(["set", "x"], f"selected and applied x ({path})\n"),
                                 (["apply"], f"applied x ({path})\n")]:
                with self.subTest(umask=umask, command=command):
                    remove(STATE_DIR)
                    for name in ["swappiness", "dirty_bytes"]:
                        write(f"{PARAMETERS}/{name}", VALUES[name] + "\n")
                    os.umask(umask)
                    try:
                        self.prints(out, *command)
                    finally:
                        os.umask(0o022)
                    status = os.lstat(STATE)
                    self.assertEqual((stat.filemode(status.st_mode), status.st_uid), ("-rw-------", 0))
                    self.assertEqual(os.listdir(STATE_DIR), ["undo.json"])
                    self.assertEqual(os.lstat(STATE_DIR).st_mode & 0o022, 0)
                    self.assertEqual(kept(), {
                        "version": 1, "profile": "x",
                        "selected_before": "x" if command == ["apply"] or umask else "performance_throughput",
                        "applied": True,
                        "values": [
                            {"target": "vm.swappiness", "path": PARAMETERS + "/swappiness", "before": "60",
                             "wanted": "5", "after": "5"},
                            {"target": "vm.dirty_bytes", "path": PARAMETERS + "/dirty_bytes", "before": "0",
                             "wanted": "8192", "after": "8192"},
                            {"target": "vm.dirty_ratio", "path": PARAMETERS + "/dirty_ratio", "before": "20",
                             "wanted": None, "after": "20"}]})

    def test_what_another_program_has_left_as_temporary_file_does_no_harm(self):
        os.mkdir(STATE_DIR)
        victim = write(LOCAL + "/.victim", "untouched")
        for make in [lambda path: os.symlink(victim, path), lambda path: write(path, "left"), os.mkfifo]:
            make(STATE_DIR + "/.undo.json.new")
            self.succeeds("set", "performance_latency")
            self.assertEqual(os.listdir(STATE_DIR), ["undo.json"])
            self.assertEqual((read(victim), kept()["profile"]), (b"untouched", "performance_latency"))
        os.mkdir(STATE_DIR + "/.undo.json.new")
        self.fails(f"cannot remove {STATE_DIR}/.undo.json.new (Is a directory)", "set", "performance_throughput")

    def test_nothing_is_applied_where_nothing_can_be_kept(self):
        def refused(reason):
            self.fails(reason, "set", "performance_latency")
            self.fails(reason, "apply")

        self.configure()
        self.make_lock()
        no_folder = f"cannot make the folder {STATE_DIR}, in which it is kept what \"undo\" restores"
        write(STATE_DIR, "a file")
        refused(no_folder)
        os.remove(STATE_DIR)
        os.symlink("/nowhere", STATE_DIR)
        refused(no_folder)
        os.remove(STATE_DIR)
        os.symlink("/usr/zevo", STATE_DIR)
        refused(f"cannot open {STATE_DIR} (Not a directory)")
        os.remove(STATE_DIR)
        os.makedirs(STATE)
        refused(f"{STATE} could have been written by others than root; look at it and remove it")

    def on(self, *options):
        """The folder of the kept values as a file system of its own."""
        os.makedirs(STATE_DIR, exist_ok=True)
        program("mount", "-t", "tmpfs", "-o", ",".join(options), "tmpfs", STATE_DIR)
        self.addCleanup(subprocess.run, ["umount", STATE_DIR], stderr=subprocess.DEVNULL, check=False)

    def test_on_a_read_only_file_system(self):
        self.on("size=64k")
        self.succeeds("set", "performance_latency")
        program("mount", "-o", "remount,ro", STATE_DIR)
        new = STATE_DIR + "/.undo.json.new"
        self.succeeds("current")
        self.fails(f"cannot remove {new} (Read-only file system)", "set", "performance_throughput")
        self.fails(f"cannot remove {new} (Read-only file system)", "apply")
        # The values can be restored, though that cannot be remembered.
        self.says("TARGET         FROM  TO  STATE\nvm.swappiness  22    60  restored\n"
                  "undone in part: the application of \"performance_latency\"; \"performance_throughput\" is selected "
                  "again\n", "undo", status=1, err=f"cannot remove {STATE} (Read-only file system)")
        self.assertEqual(values(), VALUES)
        program("mount", "-o", "remount,rw", STATE_DIR)
        self.says("TARGET         FROM  TO  STATE\nvm.swappiness  60    60  as before already\n"
                  "undone: the application of \"performance_latency\"\n", "undo")

    def fill(self):
        with open(STATE_DIR + "/filler", "ab", buffering=0) as file:
            try:
                while file.write(b"x" * 4096):
                    pass
            except OSError as reason:
                self.assertEqual(reason.errno, errno.ENOSPC)

    def test_on_a_full_file_system(self):
        self.on("size=64k")
        self.fill()
        full = f"cannot write {STATE_DIR}/.undo.json.new (No space left on device)"
        self.fails(full, "set", "performance_latency")
        os.remove(STATE_DIR + "/filler")
        self.succeeds("set", "performance_latency")
        self.succeeds("current")
        self.fill()
        for arguments in [["set", "performance_throughput"], ["apply"]]:
            self.fails(full, *arguments)
        self.says("TARGET         FROM  TO  STATE\nvm.swappiness  22    60  restored\nundone: the application of "
                  "\"performance_latency\"; \"performance_throughput\" is selected again\n", "undo")
        self.assertEqual((values(), os.listdir(STATE_DIR)), (VALUES, ["filler"]))

    def test_a_file_system_that_fills_up_during_the_application(self):
        self.on("size=64k")
        started = self.start_half_way("set", "performance_latency")
        self.fill()
        self.let_go()
        self.assertEqual(started.communicate(timeout=60),
                         (f"selected and applied performance_latency ({LATENCY})\n", ""))
        self.assertEqual((sorted(os.listdir(STATE_DIR)), started.returncode), (["filler", "undo.json"], 0))
        self.assertEqual([value["after"] for value in kept()["values"]], [None])
        self.assertIn("vm.swappiness  22    60  restored\n", self.succeeds("undo"))
        self.assertEqual(values(), VALUES)

    def test_a_profile_set_again_keeps_the_first_values_but_not_those_changed_by_others(self):
        profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.vfs_cache_pressure = 6\n")
        for arguments in [["set", "x"], ["set", "x"], ["apply"]]:
            self.succeeds(*arguments)
            self.assertEqual([(value["before"], value["after"]) for value in kept()["values"]],
                             [("60", "5"), ("100", "6")])
        write(PARAMETERS + "/swappiness", "77\n")
        self.succeeds("apply")
        self.assertEqual([value["before"] for value in kept()["values"]], ["77", "100"])
        self.succeeds("undo")
        self.assertEqual(values(), VALUES | {"swappiness": "77"})

    def test_what_a_profile_no_longer_sets_is_restored_all_the_same(self):
        profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.vfs_cache_pressure = 6\n")
        self.succeeds("set", "x")
        profile(LOCAL + "/x", "x", "", "vm.vfs_cache_pressure = 7\n")
        self.succeeds("apply")
        self.assertEqual(values(), VALUES | {"swappiness": "5", "vfs_cache_pressure": "7"})
        self.succeeds("undo")
        self.assertEqual(values(), VALUES)

    def test_a_parameter_outside_of_the_kernels_folders_is_neither_kept_nor_in_the_way(self):
        path = write(STATE_DIR + "/target", "1\n")
        profile(LOCAL + "/x", "x", "", "vm/../../.." + path + " = 2\nvm.swappiness = 5\n")
        status, _, err = self.run_tool("set", "x")
        self.assertEqual((status, read(path)), (0, b"1\n"))
        self.assertIn("zevotune: the kernel has refused or changed 1 value; ", err)
        self.assertEqual([value["path"] for value in kept()["values"]], [PARAMETERS + "/swappiness"])
        self.succeeds("undo")
        self.assertEqual(values(), VALUES)

    def test_without_root_nothing_happens(self):
        self.succeeds("set", "performance_latency")
        for arguments in [["undo"], ["undo", "--json"], ["set", "performance_throughput"], ["apply"]]:
            self.fails(f"\"{arguments[0]}\" needs root and has changed nothing; "
                       f"run \"sudo zevotune {arguments[0]} ...\"", *arguments, user="nobody")

    def test_a_failure_before_anything_is_changed_leaves_what_was_kept_before(self):
        broken = f"cannot set \"performance_throughput\": {CONFIG}:1: line is neither a pair nor a comment; " \
                 f"mend the file; it is not selected{SEE_LOG}"
        write(CONFIG, "nonsense\n")
        self.make_lock()
        self.fails(broken, "set", "performance_throughput")
        self.assertFalse(os.path.exists(STATE))
        os.remove(CONFIG)
        self.succeeds("set", "performance_latency")
        before = kept()
        write(CONFIG, "nonsense\n")
        self.fails(broken, "set", "performance_throughput", touching=True)
        self.assertEqual(kept(), before)
        self.assertEqual(os.listdir(STATE_DIR), ["undo.json"])


class Undo(Operator):
    def test_restores_and_selects_again(self):
        path = profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.page-cluster = 3\nvm.dirty_bytes = 8192\n")
        self.succeeds("set", "performance_latency")
        self.succeeds("set", "x")
        self.prints("""TARGET           FROM  TO  STATE
vm.swappiness    5     22  restored
vm.page-cluster  3     3   as before already
vm.dirty_bytes   8192  0   restored
vm.dirty_ratio   20    20  as before already
undone: the application of "x"; "performance_latency" is selected again
""", "undo")
        self.assertEqual(values(), VALUES | {"swappiness": "22"})
        self.assertEqual(os.listdir(STATE_DIR), [])
        self.prints("performance_latency\n", "current")
        self.assertTrue(os.path.exists(path))

    def test_json(self):
        self.succeeds("set", "performance_latency")
        self.says_json({"profile": "performance_latency", "selected_again": "performance_throughput", "values": [
            {"target": "vm.swappiness", "path": PARAMETERS + "/swappiness", "before": "60", "found": "22",
             "now": "60", "restored": True}]}, "undo")
        self.assertEqual(values(), VALUES)

    def test_twice_or_without_anything_to_undo(self):
        for arguments in [["undo"], ["undo", "--json"]]:
            self.fails(NOTHING_TO_UNDO, *arguments)
        self.succeeds("set", "performance_latency")
        self.succeeds("undo")
        self.fails(NOTHING_TO_UNDO, "undo")
        self.succeeds("set", "performance_latency")
        remove(STATE_DIR)  # as a boot does
        self.fails(NOTHING_TO_UNDO, "undo")
        self.assertEqual(parameter("swappiness"), "22")

    def test_after_apply_selects_nothing(self):
        self.configure(profile="performance_latency")
        self.succeeds("apply")
        self.prints("TARGET         FROM  TO  STATE\nvm.swappiness  22    60  restored\n"
                    "undone: the application of \"performance_latency\"\n", "undo")
        self.prints("performance_latency\n", "current")

    def test_after_somebody_else_has_changed_a_value(self):
        profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.vfs_cache_pressure = 6\nvm.page-cluster = 7\n")
        self.succeeds("set", "x")
        write(PARAMETERS + "/swappiness", "77\n")
        write(PARAMETERS + "/vfs_cache_pressure", "0144\n")  # as before, in octal
        self.prints("""TARGET                 FROM  TO   STATE
vm.swappiness          77    60   restored
vm.vfs_cache_pressure  0144  100  as before already
vm.page-cluster        7     3    restored
undone: the application of "x"; "performance_throughput" is selected again
""", "undo")
        self.assertEqual(values(), VALUES | {"vfs_cache_pressure": "0144"})

    def test_after_another_profile_was_selected_that_one_stays(self):
        self.succeeds("set", "performance_latency")
        profile(LOCAL + "/x", "x")
        self.succeeds("config", "set", "profile", "x")
        self.says_json({"profile": "performance_latency", "selected_again": None, "values": [
            {"target": "vm.swappiness", "path": PARAMETERS + "/swappiness", "before": "60", "found": "22",
             "now": "60", "restored": True}]}, "undo")
        self.prints("x\n", "current")

    def test_selects_again_what_is_no_longer_installed(self):
        self.succeeds("set", "performance_latency")
        os.remove(THROUGHPUT)
        self.assertIn("; \"performance_throughput\" is selected again\n", self.succeeds("undo"))
        self.prints("performance_throughput\n", "current")

    def test_names_that_are_not_utf8_come_back_as_they_were(self):
        write(LOCAL + "/x", b"[main]\nname = gr\xfc\xdf\n[sysctl]\nvm.swappiness = 5\n")
        self.succeeds("set", os.fsdecode(b"gr\xfc\xdf"))
        self.succeeds("set", "performance_latency")
        self.succeeds("undo")
        self.assertIn(b'profile="gr\xfc\xdf"\n', read(CONFIG))

    def test_after_the_profile_is_gone_or_broken(self):
        self.succeeds("set", "performance_latency")
        write(LATENCY, "nonsense")
        self.assertIn("vm.swappiness  22    60  restored\n", self.succeeds("undo"))
        self.assertEqual(values(), VALUES)

    def test_a_value_that_cannot_be_restored_yet(self):
        profile(LOCAL + "/x", "x", "", "vm.swappiness = 5\nvm.vfs_cache_pressure = 6\n")
        self.succeeds("set", "x")
        os.remove(PARAMETERS + "/swappiness")
        again = f"1 value could not be restored; \"zevotune undo\" tries again, and removing {STATE} forgets it"
        self.says("""TARGET                 FROM  TO   STATE
vm.swappiness          -     60   not restored: this kernel does not have it
vm.vfs_cache_pressure  6     100  restored
undone in part: the application of "x"; "performance_throughput" is selected again
""", "undo", status=1, err=again)
        self.says_json({"profile": "x", "selected_again": None, "values": [
            {"target": "vm.swappiness", "path": PARAMETERS + "/swappiness", "before": "60", "found": None,
             "now": None, "restored": False},
            {"target": "vm.vfs_cache_pressure", "path": PARAMETERS + "/vfs_cache_pressure", "before": "100",
             "found": "100", "now": "100", "restored": True}]}, "undo", status=1, err=again)
        write(PARAMETERS + "/swappiness", "5\n")
        self.assertIn("vm.swappiness          5     60   restored\n", self.succeeds("undo"))
        self.assertEqual(values(), VALUES)
        self.fails(NOTHING_TO_UNDO, "undo")

    def test_values_that_the_kernel_refuses(self):
        self.configure()
        pid_max = read("/proc/sys/kernel/pid_max").decode().strip()
        self.keep(("kernel.pid_max", "/proc/sys/kernel/pid_max", "12345", "1", "1"),
                  ("a", "/proc/sys/kernel", "1", None, None), ("b\x1b", "/sys/gone", "1\n\x07", None, None))
        status, out, err = self.run_tool("undo")
        wide = max(len(pid_max), 4)
        self.assertEqual((out, status), (f"""TARGET          {"FROM":{wide}}  TO         STATE
kernel.pid_max  {pid_max:{wide}}  12345      not restored: the kernel keeps {pid_max}
a               {"-":{wide}}  1          not restored: Is a directory
b\\x1B           {"-":{wide}}  1\\x0A\\x07  not restored: this kernel does not have it
undone in part: the application of "x"
""", 1))
        self.assertRegex(err, r"kernel\.pid_max(?s:.*)zevotune: 3 values could not be restored; \"zevotune undo\" "
                         rf"tries again, and removing {STATE} forgets it\n\Z")

    def test_after_an_application_that_has_failed_half_way(self):
        self.configure(profile="performance_latency")
        path = profile(LOCAL + "/x", "x", "", "vm.swappiness = 77\n")
        started = self.start_half_way("set", "x")
        os.remove(path)
        self.let_go()
        self.assertEqual(started.communicate(timeout=60), (
            "", f"zevotune: cannot set \"x\": {path} has just been removed; try again; it is selected, but {IN_PART}"
            f"{SEE_LOG}\n"))
        self.assertEqual(values(), VALUES | {"swappiness": "1"})
        self.prints("TARGET         FROM  TO  STATE\nvm.swappiness  1     60  restored\n"
                    "undone: the application of \"x\"; \"performance_latency\" is selected again\n", "undo")
        self.assertEqual((values(), os.listdir(STATE_DIR)), (VALUES, []))
        self.prints("performance_latency\n", "current")

    def test_after_a_command_that_was_killed(self):
        self.succeeds("set", "performance_throughput")
        started = self.start_half_way("set", "performance_latency")
        started.send_signal(signal.SIGKILL)
        started.wait(60)
        self.assertEqual(kept()["values"], [{"target": "vm.swappiness", "path": PARAMETERS + "/swappiness",
                                             "before": "11", "wanted": "22", "after": None}])
        self.let_go()
        self.assertEqual(parameter("swappiness"), "1")
        # Nobody knows whether the kernel had it.
        self.assertIn("  22       differs  ", self.run_tool("verify")[1])
        self.prints("TARGET         FROM  TO  STATE\nvm.swappiness  1     11  restored\nundone: the application of "
                    "\"performance_latency\"; \"performance_throughput\" is selected again\n", "undo")
        self.assertEqual((values(), os.listdir(STATE_DIR)), (VALUES | {"swappiness": "11"}, []))

    def test_a_profile_set_again_after_a_kill_keeps_what_was_there_before(self):
        started = self.start_half_way("set", "performance_latency")
        started.kill()
        started.wait(60)
        self.let_go()
        self.succeeds("set", "performance_latency")
        self.succeeds("undo")
        self.assertEqual(values(), VALUES)

    def test_selecting_again_that_fails(self):
        self.succeeds("set", "performance_latency")
        os.mkdir(os.path.dirname(CONFIG) + "/.config.new")
        self.says("TARGET         FROM  TO  STATE\nvm.swappiness  22    60  restored\n"
                  "undone in part: the application of \"performance_latency\"\n", "undo", status=1,
                  err=f"cannot select \"performance_throughput\" again: {CONFIG} cannot be written; see whether its "
                  "file system is full or read-only")
        self.assertEqual((values(), kept()["profile"]), (VALUES, "performance_latency"))
        os.rmdir(os.path.dirname(CONFIG) + "/.config.new")
        self.assertIn("; \"performance_throughput\" is selected again\n", self.succeeds("undo"))
        self.prints("performance_throughput\n", "current")


class StateFile(Operator):
    """Kept values that cannot be those of an earlier command."""

    DIFFERS = (f"TARGET         NOW  PROFILE  STATE    FROM\nvm.swappiness  60   11       differs  {THROUGHPUT}:8\n"
               "\"performance_throughput\": 0 of 1 value holds\n")

    def refused(self, reason, commands=("undo", "apply", "set")):
        for command in commands:
            with self.subTest(command=command):
                self.fails(reason, command, *["performance_latency"] * (command == "set"))
        # It only tells why a value does not hold, and others than root need not look at it.
        self.says(self.DIFFERS, "verify", status=1, err=reason)
        self.says(self.DIFFERS, "verify", status=1, user="nobody")

    def setUp(self):
        super().setUp()
        self.configure()
        self.make_lock()

    ENTRY = ("vm.swappiness", PARAMETERS + "/swappiness", "1", "2", "3")

    def test_damaged(self):
        good = json.loads(read(self.keep(self.ENTRY)))
        entry = good["values"][0]
        damaged = [b"", b"\0", b"nonsense", b"[]", b"{}", b"null", b"1", read(STATE)[:-2], b"[" * 5000, b"\xff\xfe{}",
                   good | {"version": 2}, good | {"version": "1"}, good | {"version": None}, good | {"profile": 1},
                   good | {"selected_before": None}, good | {"applied": 1},
                   good | {"values": {}}, good | {"values": [1]},
                   good | {"values": [entry, []]}]
        damaged += [{key: good[key] for key in good if key != gone} for gone in good]
        damaged += [good | {"values": [{key: entry[key] for key in entry if key != gone}]}
                    for gone in ["target", "path", "before"]]
        damaged += [good | {"values": [entry | {key: 1}]} for key in entry]
        for text in damaged:
            with self.subTest(text=text):
                write(STATE, text if isinstance(text, bytes) else json.dumps(text))
                self.refused(f"{STATE} is damaged, or of another version; remove it", ["undo"])
        self.refused(f"{STATE} is damaged, or of another version; remove it")
        os.remove(STATE)
        self.succeeds("set", "performance_latency")

    def test_nothing_but_files_of_the_kernel_is_written_to(self):
        victim = write(LOCAL + "/.victim", "untouched")
        for path in [victim, "/proc/sys/vm/../../.." + victim, "/sys/../" + victim, "/proc/self/../.." + victim,
                     "proc/sys/vm/swappiness", "", "/proc/sysrq-trigger", "/sys"]:
            with self.subTest(path=path):
                self.keep(("target", path, "written", None, None))
                self.refused(f"{STATE} is damaged, or of another version; remove it", ["undo"])

    def test_that_others_could_have_written(self):
        reason = f"{STATE} could have been written by others than root; look at it and remove it"
        for mode, owner in [(0o660, 0), (0o602, 0), (0o666, 0), (0o600, 65534)]:
            with self.subTest(mode=mode, owner=owner):
                os.chmod(self.keep(self.ENTRY), mode)
                os.chown(STATE, owner, 0)
                self.refused(reason, ["undo", "set"])
        self.refused(reason)
        os.remove(STATE)
        os.mkfifo(STATE, 0o600)
        self.refused(reason)

    def test_a_link(self):
        elsewhere = LOCAL + "/.undo"
        self.keep(self.ENTRY)
        write(elsewhere, read(STATE))
        for target in [elsewhere, "/nowhere"]:
            remove(STATE)
            os.symlink(target, STATE)
            self.refused(f"cannot open {STATE} (Too many levels of symbolic links)")

    def test_too_large(self):
        self.keep(self.ENTRY)
        with open(STATE, "ab") as file:
            file.write(b" " * (16 << 20))
        self.refused(f"cannot read {STATE} (File too large)", ["undo", "set"])

    def test_a_folder_that_is_gone_or_none(self):
        self.fails(NOTHING_TO_UNDO, "undo")
        remove(STATE_DIR)
        write(STATE_DIR, "a file")
        for arguments in [["undo"], ["apply"], ["set", "performance_latency"]]:
            self.fails(f"cannot make the folder {STATE_DIR}, in which it is kept what \"undo\" restores", *arguments)
        self.says(self.DIFFERS, "verify", status=1)


class Together(Operator):
    WAITED = ("another \"zevotune set\", \"apply\" or \"undo\" has been running for 5 seconds; try again when it has "
              "ended")

    def test_one_at_a_time(self):
        self.succeeds("set", "performance_throughput")
        self.succeeds("current")
        started = self.start_half_way("set", "performance_latency")
        before = left()
        waiting = [subprocess.Popen(self.command(arguments, "root"), stdin=subprocess.DEVNULL, text=True,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                   for arguments in [["set", "performance_throughput"], ["apply"], ["undo"]]]
        begin = time.monotonic()
        for other in waiting:
            self.assertEqual(other.communicate(timeout=60), ("", f"zevotune: {self.WAITED}\n"))
            self.assertEqual(other.returncode, 1)
        self.assertGreater(time.monotonic() - begin, 4)
        self.assertEqual(left(), before)
        self.let_go()
        self.assertEqual(started.communicate(timeout=60),
                         (f"selected and applied performance_latency ({LATENCY})\n", ""))

    def test_commands_that_write_nothing_do_not_wait(self):
        self.succeeds("set", "performance_latency")
        folder = os.open(STATE_DIR, os.O_RDONLY)
        self.addCleanup(os.close, folder)
        fcntl.flock(folder, fcntl.LOCK_EX)
        self.fails(self.WAITED, "undo")
        begin = time.monotonic()
        for arguments in [["plan", "performance_throughput"], ["verify"], ["list", "--names"], ["lint", LATENCY]]:
            self.succeeds(*arguments)
        self.assertLess(time.monotonic() - begin, 4)

    def test_the_next_one_goes_on_when_the_first_one_has_ended(self):
        started = self.start_half_way("set", "performance_latency")
        other = subprocess.Popen(self.command(["undo"], "root"), stdin=subprocess.DEVNULL, text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(other.kill)
        time.sleep(0.5)
        self.assertIsNone(other.poll())
        self.let_go()
        started.communicate(timeout=60)
        out, err = other.communicate(timeout=60)
        self.assertEqual((err, other.returncode), ("", 0))
        self.assertIn("vm.swappiness  22    60  restored\n", out)
        self.assertEqual(values(), VALUES)

    def test_many_at_once_leave_one_of_them_whole(self):
        profiles = ["performance_throughput", "performance_latency"]
        commands = [["set", profiles[i % 2]] for i in range(6)]
        started = [subprocess.Popen(self.command(command, "root"), stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE) for command in commands]
        for one in started:
            one.communicate(timeout=60)
            self.assertEqual(one.returncode, 0)
        selected = self.succeeds("current").strip()
        self.assertEqual(kept()["profile"], selected)
        self.assertEqual(parameter("swappiness"), {profiles[0]: "11", profiles[1]: "22"}[selected])
        self.assertEqual(os.listdir(STATE_DIR), ["undo.json"])


class Names(Operator):
    def test_each_name_once_for_everybody_and_nothing_is_touched(self):
        profile(LOCAL + "/a", "performance_throughput", "index = -5\n")
        profile(LOCAL + "/b", "größer", "index = 7\n")
        before = left()
        for user in ["root", "nobody"]:
            self.prints("performance_throughput\nperformance_latency\ngrößer\n", "list", "--names", user=user)
            self.prints_json(["performance_throughput", "performance_latency", "größer"], "list", "--names", user=user)
        self.assertEqual(left(), before)

    def test_without_profiles(self):
        shutil.rmtree(SHIPPED)
        self.prints("", "list", "--names")
        self.prints_json([], "list", "--names")

    def test_control_characters_and_empty_names(self):
        shutil.rmtree(SHIPPED)
        profile(LOCAL + "/a", "a\tb\x1b[31m c", "index = 1\n")
        write(LOCAL + "/b", "[main]\nindex = 2\n")
        self.prints("a\\x09b\\x1B[31m c\n\n", "list", "--names")
        self.prints_json(["a\tb\x1b[31m c", ""], "list", "--names")

    def test_needs_no_configuration(self):
        write(CONFIG, "nonsense\n")
        self.prints("performance_throughput\nperformance_latency\n", "list", "--names")

    def test_wrong_usage(self):
        status, out, err = self.run_tool("list", "--name")
        self.assertEqual((status, out), (2, ""))
        self.assertEqual(err, "zevotune: there is no option \"--name\"\n"
                         "Run \"zevotune list --help\" for more information.\n")


class Lint(Operator):
    """On a machine with one SSD, so that its schedulers are known."""

    MOUNTED = 'mount --bind "$1" /sys && shift && exec "$@"'

    def setUp(self):
        super().setUp()
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)
        self.hardware = Hardware(self.folder)
        self.hardware.disk("sda", "sata", "0", "[mq-deadline] none", "read_expire new_tunable")

    def command(self, arguments, user):
        return ["unshare", "--mount", "sh", "-c", self.MOUNTED, "sh", self.hardware.sys,
                *super().command(arguments, user)]

    def file(self, text, name="x"):
        path = write(f"{self.folder}/{name}", text)
        return path

    def finds(self, findings, *paths, text=None):
        """Findings are line, severity and text; all in one file unless they begin with another path."""
        before = left()
        status = 1 if any(finding[-2] == "error" for finding in findings) else 0
        findings = [finding if len(finding) == 4 else (paths[0], *finding) for finding in findings]
        lines = "".join(f"{path}:{line or ''}{':' * bool(line)} {severity}: {what}\n"
                        for path, line, severity, what in findings)
        for user in ["root", "nobody"]:
            self.says(text or lines, "lint", *paths, status=status, user=user)
            self.says_json([{"file": path, "line": line or None, "severity": severity, "text": what}
                            for path, line, severity, what in findings], "lint", *paths, status=status, user=user)
        self.assertEqual(left(), before)

    def test_files_without_mistakes(self):
        self.finds([], THROUGHPUT, LATENCY)
        self.finds([], self.file("; a comment\n[main]\nname = x\nindex = -7\nui = false\nvm_memory_max = 8589934592\n"
                                 "profile_title_i18n = t\nprofile_desc_i18n =\ninherit = performance_latency\n"
                                 "[sysctl]\nvm.swappiness = 0x10\nvm/vfs_cache_pressure = 50\n"
                                 "[volume]\nzevo_writeback_thread_max = auto\n[disk]\nssd_scheduler = none\n"
                                 "[raid_cfq_1]\nread_expire = 1\nnew_tunable = -1\n[raid_cfq_5]\n[raid_cfq_default]\n"))

    def test_every_kind_of_mistake(self):
        path = self.file("""stray = 1
[main]
index = 0x10
ui = yes
nam = x
vm_memory_max = 8G
nonsense
[sysctl]
vm.swapiness = 1
vm.swappiness = 201
vm.swappiness = a lot
vm.dirty_bytes = 4096
vm.dirty_ratio = 5 5
[sysctl]
[sysctls]
[volume]
zevo_writeback_thread_max = 0x10
zevo_writeback_threads = 1
[disk]
ssd_scheduler = mq-deadlin
ssd_scheduler = kyber
hdd_scheduler = none
[raid_cfq_default]
read_expires =
fifo_batch = fast
""")
        error, warning = "error", "warning"
        unreadable = "neither a section, a pair in a section nor a comment: the file cannot be read as a profile"
        self.finds([
            (1, error, unreadable),
            (2, error, "[main] has no \"name\", by which a profile is selected"),
            (3, warning, "\"index\" is to be a decimal number; \"0x10\" sorts as what it begins with, or as 0"),
            (3, warning, f"the index 0 is that of {THROUGHPUT} as well: which of the two is listed first is not "
             "settled"),
            (4, warning, "\"ui\" is to be true or false; \"yes\" counts as false"),
            (5, warning, "[main] knows no key \"nam\", and ignores it; did you mean \"name\"?"),
            (6, error, "\"vm_memory_max\" is to be a number of bytes; \"8G\" counts as what it begins with, or as 0"),
            (7, error, unreadable),
            (9, warning, "this kernel has no parameter \"vm.swapiness\", and it is passed over; "
             "did you mean \"vm.swappiness\"?"),
            (10, error, "the kernel refuses \"201\" for \"vm.swappiness\": the most is 200"),
            (11, warning, "\"vm.swappiness\" occurs more than once in [sysctl]: the value of line 11 counts"),
            (11, error, "the kernel refuses \"a lot\" for \"vm.swappiness\": these are not all numbers"),
            (12, warning, "the kernel takes \"vm.dirty_bytes\" or \"vm.dirty_ratio\": whichever is applied later sets "
             "the other one to 0"),
            (12, error, "the kernel refuses \"4096\" for \"vm.dirty_bytes\": the least is 8192"),
            (13, warning, "the kernel takes only 1 number for \"vm.dirty_ratio\""),
            (14, warning, "[sysctl] occurs more than once: each time it is applied with the keys of all of them"),
            (15, warning, "no section [sysctls] is known, and it is ignored; did you mean \"sysctl\"?"),
            (17, error, "\"zevo_writeback_thread_max\" is to be \"auto\" or a decimal number from 1, not \"0x10\""),
            (18, warning, "[volume] knows no key \"zevo_writeback_threads\", and ignores it; "
             "did you mean \"zevo_writeback_thread_max\"?"),
            (20, warning, "there is no known scheduler \"mq-deadlin\"; did you mean \"mq-deadline\"?"),
            (21, warning, "\"ssd_scheduler\" occurs more than once in [disk]: the value of line 21 counts"),
            (21, warning, "no disk of this machine offers the scheduler \"kyber\""),
            (22, warning, "[disk] knows no key \"hdd_scheduler\", and ignores it; did you mean \"ssd_scheduler\"?"),
            (24, warning, "no known scheduler has a tunable \"read_expires\": disks without it are passed over; "
             "did you mean \"read_expire\"?"),
            (24, error, "\"read_expires\" is empty, and ends the application on a machine with such an array"),
            (25, error, "the kernel refuses \"fast\" for \"fifo_batch\": it is no number")], path)

    def test_parameters_that_can_only_be_read(self):
        self.restrict("swappiness", 0o444)
        self.finds([(4, "error", "the kernel refuses it: \"vm.swappiness\" can only be read")],
                   self.file("[main]\nname = x\n[sysctl]\nvm.swappiness = 1\n"))

    def test_without_main(self):
        self.finds([(0, "error", "there is no section [main], without which it is no profile")],
                   self.file("[sysctl]\nvm.swappiness = 1\n"))
        self.finds([(0, "error", "there is no section [main], without which it is no profile")], self.file(""))
        self.finds([(2, "error", "\"name\" is empty, by which a profile is selected")], self.file("[main]\nname =\n"))

    def test_among_what_is_installed(self):
        path = self.file("[main]\nname = performance_latency\nindex = 1\n")
        also = f" is that of {LATENCY} as well: only the one that is listed first is ever used"
        self.finds([(2, "error", "the name \"performance_latency\"" + also)], path)
        self.file("[main]\nname = x\nindex = 1\ninherit = performance_latenci\n")
        self.finds([(3, "warning", f"the index 1 is that of {LATENCY} as well: which of the two is listed first is "
                     "not settled"),
                    (4, "error", f"{path} inherits from \"performance_latenci\", and there is no profile of that "
                     "name; did you mean \"performance_latency\"?")], path)

    def test_files_that_inherit_from_each_other(self):
        a = self.file("[main]\nname = a\ninherit = b\n", "a")
        b = self.file("[main]\nname = b\ninherit = a\n", "b")
        end = "; remove one \"inherit\" of the circle"
        self.finds([(a, 3, "error", f"its inheritance never ends: \"a\" ({a}) -> \"b\" ({b}) -> \"a\" ({a}){end}"),
                    (b, 3, "error", f"its inheritance never ends: \"b\" ({b}) -> \"a\" ({a}) -> \"b\" ({b}){end}")],
                   a, b)
        self.finds([(a, 3, "error", f"{a} inherits from \"b\", and there is no profile of that name; mend or remove "
                     "its \"inherit\"")], a)

    def test_global_profiles(self):
        path = write(LOCAL_GLOBAL + "/g", "[main]\n[sysctl]\nvm.swappiness = 1\n")
        self.finds([], path)
        write(path, "[main]\nname = performance_latency\nindex = 1\ninherit = performance_latency\n")
        self.finds([(4, "error", "a global profile must not inherit: before every profile that is inherited all "
                     "global ones are applied, without end")], path)
        # A name or index of a global profile is in nobody's way.
        self.finds([], LATENCY)

    def test_a_file_that_is_named_twice_is_looked_at_once(self):
        path = self.file("[main]\n")
        os.symlink(path, self.folder + "/link")
        finding = (1, "error", "[main] has no \"name\", by which a profile is selected")
        self.finds([finding], path, path, self.folder + "/./x", self.folder + "/link")
        os.makedirs(LOCAL)
        os.symlink(path, LOCAL + "/x")
        self.file("[main]\nname = x\nindex = 4\n")
        self.finds([], path, LOCAL + "/x")

    def test_installed_files_that_are_no_profiles_or_not_for_everybody_are_in_nobodys_way(self):
        profile(LOCAL + "/other", "x")
        os.chmod(LOCAL + "/other", 0o600)
        os.symlink("loop", LOCAL + "/loop")
        os.symlink("/nowhere", LOCAL + "/gone")
        os.mkdir(LOCAL + "/folder")
        os.mkfifo(LOCAL + "/pipe")
        profile(LOCAL + "/.hidden", "x")
        write(LOCAL + "/broken", b"\0nonsense")
        path = self.file("[main]\nname = x\n")
        self.says("", "lint", path, user="nobody")
        also = f"the name \"x\" is that of {LOCAL}/other as well: only the one that is listed first is ever used"
        self.says(f"{path}:2: error: {also}\n", "lint", path, status=1)

    def test_paths_with_blanks_newlines_and_control_characters(self):
        for name in ["a b", "a\nb", "\x1b[31mred", "-x", "größe", "a:1: error: b", " "]:
            with self.subTest(name=name):
                path = self.file("[main]\n", name)
                shown = path.replace("\n", "\\x0A").replace("\x1b", "\\x1B")
                what = "[main] has no \"name\", by which a profile is selected"
                self.finds([(1, "error", what)], path, text=f"{shown}:1: error: {what}\n")
        self.says("-x:1: error: [main] has no \"name\", by which a profile is selected\n", "lint", "--", "-x",
                  status=1, cwd=self.folder)

    def test_bytes_that_are_not_utf8(self):
        path = write(os.fsencode(self.folder) + b"/\xff", b"[main]\nname = \xfc\n[\xe4]\n")
        status, out, err = self.run_tool("lint", os.fsdecode(path))
        self.assertEqual((os.fsencode(out), err, status),
                         (path + b":3: warning: no section [\xe4] is known, and it is ignored\n", "", 0))
        self.assertTrue(self.succeeds("lint", "--json", os.fsdecode(path)).isascii())

    def test_line_ends_of_other_systems_and_a_byte_order_mark(self):
        self.finds([], self.file(b"\xef\xbb\xbf[main]\r\nname = x\r\n\r\n[sysctl]\r\nvm.swappiness = 1\r\n"))
        self.finds([(3, "error", "neither a section, a pair in a section nor a comment: the file cannot be read as a "
                     "profile")], self.file(b"[main]\nname = x\na\0 = b\n[sysctl]\nvm.swappiness = 1\n"))

    def test_what_cannot_be_read(self):
        path = self.file("[main]\nname = x\n")
        os.chmod(path, 0o600)
        self.fails(f"{path} cannot be read (Permission denied)", "lint", path, user="nobody")
        for name, reason in [("/nowhere", "No such file or directory"), (self.folder, "Is a directory"),
                             ("/dev/null", "Invalid argument"), (path + "/x", "Not a directory"),
                             ("", "No such file or directory"), ("/a\nb", "No such file or directory")]:
            with self.subTest(name=name):
                for arguments in [[name], [path, name, "--json"]]:
                    self.fails(name.replace("\n", "\\x0A") + f" cannot be read ({reason})", "lint", *arguments)
        with open(path, "wb") as file:
            file.truncate((256 << 20) + 1)
        self.fails(f"{path} cannot be read (File too large)", "lint", path)

    def test_wrong_usage(self):
        status, out, err = self.run_tool("lint")
        self.assertEqual((status, out, err), (2, "", "zevotune: FILE is required\n"
                                              "Run \"zevotune lint --help\" for more information.\n"))


class Devices(Operator):
    """Schedulers and tunables, on a machine with two SSDs, of which one is in an array with a rotating disk."""

    MOUNTED = Lint.MOUNTED.replace("mount", 'mount --bind "$2" /proc/$$/task/$$/mountinfo && mount', 1).replace(
        "shift", "shift 2")

    def setUp(self):
        super().setUp()
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        self.hardware = Hardware(folder)
        self.hardware.disk("sda", "sata", "0", "[mq-deadline] none", "read_expire")
        self.hardware.disk("sdb", "sata", "1", "[mq-deadline] none", "read_expire")
        self.hardware.disk("sdc", "sata", "0", "[none]")
        self.hardware.array("md0", "raid1", "2", ["sda", "sdb"])
        self.hardware.mount("/srv", "ext4", "/dev/sdc", "8:3")

    def command(self, arguments, user):
        return ["unshare", "--mount", "sh", "-c", self.MOUNTED, "sh", self.hardware.sys, self.hardware.mountinfo,
                *super().command(arguments, user)]

    def tunables(self):
        return [read(f"{self.hardware.sys}/block/{disk}/queue/iosched/read_expire") for disk in ["sda", "sdb"]]

    def test_tunables_from_plan_to_undo(self):
        path = write(LOCAL + "/x", "[main]\nname = x\n[disk]\nssd_scheduler = kyber\nnew = 1\n"
                     "[raid_cfq_1]\nread_expire = 7\nquantum = 8\n[raid_cfq_5]\nread_expire = 9\n"
                     "[volume]\nzevo_writeback_thread_max = 1\n")
        before = left()
        for user in ["root", "nobody"]:
            self.prints(f"""LINE    TARGET                                    NOW  TO COME  NOTE
profile "x", {path}
 [disk]
       not ssd_scheduler of /dev/sda: it does not offer this scheduler
       not ssd_scheduler of /dev/sdb: it is no SSD
       not ssd_scheduler of /dev/sdc: it does not offer this scheduler
       not new: [disk] knows no such key
 [raid_cfq_1]
7       /sys/block/sda/queue/iosched/read_expire  1    7
7       /sys/block/sdb/queue/iosched/read_expire  1    7
       not quantum of /dev/sda: its disk's scheduler has no such tunable
       not quantum of /dev/sdb: its disk's scheduler has no such tunable
 [raid_cfq_5]
       not /dev/md0: its level is none of this section's
 [volume]
       not /srv: it is not Btrfs
2 values would change
""", "plan", "x", user=user)
        self.assertEqual((left(), self.tunables()), (before, [b"1\n", b"1\n"]))

        self.prints(f"selected and applied x ({path})\n", "set", "x")
        self.assertEqual(self.tunables(), [b"7\n", b"7\n"])
        self.prints(f"""TARGET                                    NOW  PROFILE  STATE  FROM
/sys/block/sda/queue/iosched/read_expire  7    7        holds  {path}:7
/sys/block/sdb/queue/iosched/read_expire  7    7        holds  {path}:7
"x": 2 of 2 values hold
""", "verify")

        write(f"{self.hardware.sys}/block/sda/queue/iosched/read_expire", "8\n")
        self.assertIn("\n/sys/block/sda/queue/iosched/read_expire  8    7        changed since it was applied  ",
                      self.run_tool("verify")[1])
        self.prints("""TARGET                                    FROM  TO  STATE
/sys/block/sda/queue/iosched/read_expire  8     1   restored
/sys/block/sdb/queue/iosched/read_expire  7     1   restored
undone: the application of "x"; "performance_throughput" is selected again
""", "undo")
        self.assertEqual(self.tunables(), [b"1\n", b"1\n"])

    def test_the_plan_of_another_scheduler_tells_what_comes_of_the_tunables(self):
        path = write(LOCAL + "/x", "[main]\nname = x\n[raid_cfq_1]\nread_expire = 7\n[disk]\nssd_scheduler = none\n"
                     "[raid_cfq_default]\nread_expire = 8\n")
        self.prints(f"""LINE    TARGET                                    NOW          TO COME  NOTE
profile "x", {path}
 [raid_cfq_1]
4       /sys/block/sda/queue/iosched/read_expire  1            7        overwritten below
4       /sys/block/sdb/queue/iosched/read_expire  1            7        overwritten below
 [disk]
6       /sys/block/sda/queue/scheduler            mq-deadline  none
6       /sys/block/sdc/queue/scheduler            none         as now
       not /dev/sdb: it is no SSD
 [raid_cfq_default]
8       /sys/block/sdb/queue/iosched/read_expire  1            8
       not /dev/sda: its disk's scheduler has no such tunable
2 values would change, 1 would stay as it is, 2 would be overwritten on the way
""", "plan", "x")


    def test_value_that_is_refused_ends_the_application(self):
        refuses = f"{self.hardware.sys}/block/sdb/queue/iosched/read_expire"
        os.remove(refuses)
        os.symlink("/dev/full", refuses)
        write(LOCAL + "/x", "[main]\nname = x\n[raid_cfq_1]\nread_expire = 7\n[sysctl]\nvm.swappiness = 5\n")
        self.assertEqual(self.run_tool("set", "x"), (
            1, "", f"zevotune: cannot set \"x\": the kernel has refused a value; it is selected, but {IN_PART}{SEE_LOG}\n"))
        self.assertEqual(parameter("swappiness"), "60")
        # What came behind was not even asked for.
        self.assertEqual({value["target"]: value["state"] for value in json.loads(self.run_tool("verify", "--json")[1])["values"]},
                         {"/sys/block/sda/queue/iosched/read_expire": "holds",
                          "/sys/block/sdb/queue/iosched/read_expire": "unread", "vm.swappiness": "differs"})
        self.assertFalse(kept()["applied"])
        self.succeeds("undo")
        self.assertEqual(read(f"{self.hardware.sys}/block/sda/queue/iosched/read_expire"), b"1\n")


class Terminal(Operator):
    """How output looks on terminals, and everywhere else."""

    SEQUENCE = re.compile(r"\x1b\[(?:\d+)?m")

    def setUp(self):
        super().setUp()
        profile(LOCAL + "/x", "x", "vm_memory_max = 1048576\n", "vm.swappiness = 5\nvm.dirty_ratio = 50\nvm.gone = 1\n"
                "vm.vfs_cache_pressure = 100\n")
        self.faulty = write(LOCAL + "/.faulty", "[main]\nnam = x\n")
        self.succeeds("set", "x")
        write(PARAMETERS + "/swappiness", "6\n")
        self.commands = [["plan", "x"], ["verify"], ["lint", self.faulty], ["list"], ["undo"]]

    def environment(self, **more):
        return {key: value for key, value in os.environ.items() if key not in ["NO_COLOR", "TERM", "LC_ALL"]} | more

    def on_terminal(self, columns, *arguments, **environment):
        status, text, err = self.run_on_terminal(columns, *arguments, env=self.environment(**environment))
        self.assertEqual((status, err), (1 if arguments[0] in ["verify", "lint"] else 0, ""))
        return text

    def plain(self, *arguments, **environment):
        """As in a pipe; "undo" can be repeated."""
        state = read(STATE)
        out = self.run_tool(*arguments, env=self.environment(**environment))[1]
        self.again(state)
        return out

    def again(self, state):
        write(STATE, state)
        write(PARAMETERS + "/swappiness", "6\n")
        write(PARAMETERS + "/dirty_bytes", "524288\n")
        self.succeeds("config", "set", "profile", "x")

    def test_colours_only_where_a_terminal_shows_them(self):
        for arguments in self.commands:
            with self.subTest(arguments=arguments):
                state = read(STATE)
                plain = self.plain(*arguments, TERM="xterm")
                self.assertNotIn("\x1b", plain)
                coloured = self.on_terminal(1000, *arguments, TERM="xterm")
                self.again(state)
                self.assertEqual("\x1b" in coloured, arguments not in [["list"], ["undo"]])
                self.assertEqual(self.SEQUENCE.sub("", coloured), plain)
                for environment in [{"TERM": "dumb"}, {"TERM": ""}, {}, {"TERM": "xterm", "NO_COLOR": "1"}]:
                    self.assertEqual(self.on_terminal(1000, *arguments, **environment), plain, environment)
                    self.again(state)
                self.assertEqual(self.on_terminal(1000, *arguments, TERM="xterm", NO_COLOR=""), coloured)
                self.again(state)

    def test_every_colour_is_taken_back_in_its_line(self):
        for arguments in self.commands:
            state = read(STATE)
            for line in self.on_terminal(80, *arguments, TERM="xterm").splitlines():
                self.assertRegex(line, r"\A(?:[^\x1b]|\x1b\[(?:2|3[123])m[^\x1b]+\x1b\[0m)*\Z")
            self.again(state)

    def test_json_has_neither_colours_nor_broken_lines(self):
        for arguments in self.commands:
            state = read(STATE)
            piped = self.plain(*arguments, "--json")
            self.assertEqual(self.on_terminal(40, *arguments, "--json", TERM="xterm"), piped)
            self.again(state)

    def test_tables_are_broken_to_the_terminals_width(self):
        broken = 0
        for arguments in self.commands:
            if arguments[0] == "lint":
                continue
            plain = self.plain(*arguments)
            state = read(STATE)
            indent = plain.splitlines()[0].rstrip().rfind(" ") + 1  # where the last column begins
            for columns in [60, 80, 100, 200]:
                with self.subTest(arguments=arguments, columns=columns):
                    text = self.on_terminal(columns, *arguments, TERM="dumb")
                    self.again(state)
                    self.assertEqual(text.split(), plain.split())
                    if columns < indent + 20:
                        self.assertEqual(text, plain)
                        continue
                    broken += text != plain
                    for line in text.splitlines():
                        # Nothing but one word sticks out of a row; lines between and below the rows are none.
                        if len(line) > columns and line[indent - 2:indent] == "  ":
                            self.assertNotIn(" ", line[indent:].strip(), line)
        self.assertGreater(broken, 0)

    def test_ascii_alone_whatever_the_locale(self):
        for arguments in self.commands:
            texts = {self.plain(*arguments, LC_ALL=locale) for locale in ["C", "C.UTF-8", "nonsense", ""]}
            self.assertEqual(len(texts), 1)
            self.assertTrue(texts.pop().isascii())

    def test_output_that_cannot_be_written_is_a_failure(self):
        reason = "zevotune: cannot write to standard output (No space left on device)\n"
        for arguments in self.commands + [["list", "--names"]]:
            for json_flag in [[], ["--json"]]:
                with self.subTest(arguments=arguments, json=json_flag), open("/dev/full", "wb") as full:
                    state = read(STATE)
                    self.assertEqual(self.run_tool(*arguments, *json_flag, stdout=full), (1, None, reason))
                    if arguments == ["undo"]:
                        self.assertEqual((parameter("swappiness"), os.path.exists(STATE)), ("60", False))
                        self.again(state)

    def test_output_that_nobody_reads(self):
        reader, writer = os.pipe()
        os.close(reader)
        status, _, _ = self.run_tool("undo", stdout=writer)
        os.close(writer)
        self.assertEqual((status, parameter("swappiness"), os.path.exists(STATE)), (-signal.SIGPIPE, "60", False))


class WithVolume(Volumes):
    """An application that fails on what the machine's own kernel does not have."""

    def setUp(self):
        super().setUp()
        remove(STATE_DIR)
        self.addCleanup(remove, STATE_DIR)
        write(PARAMETERS + "/swappiness", "60\n")

    def test_plan_set_verify_and_undo(self):
        path, device = self.volume(256 * self.MIB)
        uuid = program("blkid", "--probe", "--output", "value", "--match-tag", "UUID", device)
        attribute = f"/sys/fs/btrfs/{uuid}/zevo_writeback_thread_max"
        if os.path.exists(attribute):
            self.skipTest(f"the kernel has {attribute}")
        file = write(LOCAL + "/x", "[main]\nname = x\n[sysctl]\nvm.swappiness = 5\n[volume]\n"
                     "zevo_writeback_thread_max = 1\n[sysctl2]\na = b\n")
        would_fail = f"applying \"x\" would fail there: this kernel has no {attribute}"
        before = tree()
        status, out, err = self.run_tool("plan", "x")
        self.assertEqual((err, status), (f"zevotune: {would_fail}\n", 1))
        unknown = "this kernel does not have it"
        wide = len(attribute)
        # Whatever else is mounted is left alone.
        self.assertEqual(re.sub(r"       not /.*\n", "", out),
                         f"""LINE    {"TARGET":{wide + 2}}{"NOW":30}  TO COME  NOTE
profile "x", {file}
 [sysctl]
4       {"vm.swappiness":{wide}}  {"60":30}  5
 [volume]
6       {attribute}  ({unknown})  1        {unknown}
1 value would change, 1 is not known to this kernel
""")
        status, out, err = self.run_tool("plan", "x", "--json")
        self.assertEqual((err, status), (f"zevotune: {would_fail}\n", 1))
        plan = json.loads(out)
        self.assertEqual(plan["failure"], f"this kernel has no {attribute}")
        self.assertEqual([section["section"] for section in plan["sections"]], ["main", "sysctl", "volume"])
        self.assertEqual(tree(), before)

        status, out, err = self.run_tool("set", "x")
        self.assertEqual((err, out, status), (f"zevotune: cannot set \"x\": this kernel has no {attribute}; it is "
                                              f"selected, but {IN_PART}{SEE_LOG}\n", "", 1))
        self.assertEqual(parameter("swappiness"), "5")
        status, out, err = self.run_tool("verify")
        self.assertEqual((err, status), (f"zevotune: what comes behind cannot be verified, as {would_fail}\n", 1))
        self.assertEqual(out, f"""{"TARGET":{wide}}  {"NOW":30}  PROFILE  {"STATE":28}  FROM
{"vm.swappiness":{wide}}  {"5":30}  5        {"holds":28}  {file}:4
{attribute}  ({unknown})  1        {unknown}  {file}:6
"x": 1 of 1 value holds, 1 not known to this kernel
""")
        self.assertEqual(self.run_tool("undo"), (
            0, "TARGET         FROM  TO  STATE\nvm.swappiness  5     60  restored\n"
            "undone: the application of \"x\"; \"performance_throughput\" is selected again\n", ""))
        self.assertEqual((parameter("swappiness"), os.listdir(STATE_DIR)), ("60", []))


if __name__ == "__main__":
    main("zevotune_operator")
