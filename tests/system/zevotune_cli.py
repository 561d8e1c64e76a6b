#!/usr/bin/env python3
"""Runs the command line as a user does and compares all that it prints, its exit status and what it leaves behind.

The environment variable ZEVOTUNE holds the tool's path. Runs as root inside of tests/lab/enter only.
"""

import fcntl
import glob
import json
import os
import shutil
import sys
import tempfile

sys.dont_write_bytecode = True  # this folder need not be writable
from zevotune_machine import (  # pylint: disable=wrong-import-position
    CONFIG, CONFIG_DIR, DEFAULTS, LATENCY, LOCAL, LOCAL_GLOBAL, LOCK, LOCK_DIR, PARAMETERS, SHIPPED, SHIPPED_GLOBAL,
    THROUGHPUT, Machine, Volumes, main, parameter, profile, program, read, tree, write)

KNOWN_KEYS = ("profile, lock, btrfs_metadata_cache_on, btrfs_metadata_cache_space_usage_limit, "
              "btrfs_metadata_cache_read_throttle_wait_mult")
COMMANDS = [["list"], ["current"], ["set"], ["apply"], ["undo"], ["plan"], ["verify"],
            ["lint"], ["devices"], ["metadata"], ["config"], ["config", "get"],
            ["config", "set"], ["config", "list"], ["cache"], ["cache", "on"], ["cache", "off"], ["cache", "rescan"],
            ["cache", "status"], ["cache", "stop"], ["cache", "check"]]
IN_PART = "perhaps applied in part; \"sudo zevotune undo\" restores what was"
SEE_LOG = " (the whole chain is in the system's log: journalctl -t zevotune)"




class Usage(Machine):
    def wrong(self, text, command, *arguments):
        before = tree()
        status, out, err = self.run_tool(*arguments)
        self.assertEqual((err, out, status),
                         (f"zevotune: {text}\nRun \"{command} --help\" for more information.\n", "", 2))
        self.assertEqual(tree(), before)

    def test_version(self):
        self.assertRegex(self.succeeds("--version"), r"\Azevotune \d+\.\d+\.\d+\n\Z")

    def test_help_of_the_tool_names_every_command_folder_and_exit_status(self):
        text = self.succeeds("--help")
        self.assertEqual(self.succeeds("-h"), text)
        self.assertIn("Usage: zevotune [OPTIONS] SUBCOMMAND\n", text)
        for name in ["list", "current", "set", "apply", "devices", "metadata", "cache", "config"]:
            self.assertRegex(text, rf"\n  {name} +\S")
        for part in [SHIPPED, LOCAL, SHIPPED_GLOBAL, LOCAL_GLOBAL, "journalctl -t zevotune", "--json", "--version"]:
            self.assertIn(part, text)
        self.assertIn("Exit status: 0 done; 1 failed, with one line on standard error that says what\n"
                      "failed, where, why, and what to do; 2 wrong usage.", text)

    def test_every_command_has_help_with_its_usage_and_json_and_touches_nothing(self):
        before = tree()
        for command in COMMANDS:
            with self.subTest(command=command):
                text = self.succeeds(*command, "--help")
                self.assertIn("Usage: zevotune " + " ".join(command) + " [OPTIONS]", text)
                self.assertIn("--json", text)
                if command not in [["config"], ["cache"]]:
                    self.assertRegex(text, r"\n--json: \S")
                for line in text.splitlines():
                    self.assertLessEqual(len(line), 80, line)
        self.assertEqual(tree(), before)

    def test_help_of_config_set_documents_every_key_with_the_default_that_the_library_writes(self):
        text = self.succeeds("config", "set", "--help")
        self.assertIn("--force", text)
        written = json.loads(self.succeeds("config", "list", "--json"))
        self.assertEqual(written, DEFAULTS)
        for key, value in written.items():
            self.assertIn(f"\n  {key} (default: {value})\n", text)

    def test_help_of_commands_that_take_root_says_so(self):
        for command in [["set"], ["apply"], ["metadata"], ["config", "set"], ["cache", "on"], ["cache", "off"],
                        ["cache", "rescan"], ["cache", "stop"], ["cache", "check"]]:
            self.assertIn("\nTakes root.\n", self.succeeds(*command, "--help"))

    def test_wrong_usage(self):
        self.wrong("A subcommand is required", "zevotune")
        self.wrong("A subcommand is required", "zevotune config", "config")
        self.wrong("there is no command \"lst\"; did you mean \"list\"?", "zevotune", "lst")
        self.wrong("there is no command \"xyzzy\"", "zevotune", "xyzzy", "--json")
        self.wrong("there is no command \"gte\"; did you mean \"get\"?", "zevotune config", "config", "gte")
        self.wrong("there is no option \"--frobnicate\"", "zevotune", "--frobnicate")
        self.wrong("there is no option \"--force\"", "zevotune list", "list", "--force")
        self.wrong("NAME is required", "zevotune set", "set")
        self.wrong("KEY is required", "zevotune config get", "config", "get")
        self.wrong("VALUE is required", "zevotune config set", "config", "set", "lock")
        self.wrong("VOLUME is required", "zevotune metadata", "metadata", "--list")
        self.wrong("A subcommand is required", "zevotune cache", "cache")
        self.wrong("there is no command \"stat\"; did you mean \"status\"?", "zevotune cache", "cache", "stat")
        for command in ["on", "off", "rescan", "status", "stop", "check"]:
            self.wrong("VOLUME is required", f"zevotune cache {command}", "cache", command)
        for command in ["on", "off", "rescan", "stop", "check"]:
            self.wrong("there is no option \"--watch\"", f"zevotune cache {command}", "cache", command, "/", "--watch")
        self.wrong("there is no option \"--no-wait\"", "zevotune cache status", "cache", "status", "--no-wait", "/")
        self.wrong("The following argument was not expected: b", "zevotune cache on", "cache", "on", "a", "b")
        self.wrong("The following argument was not expected: b", "zevotune set", "set", "a", "b")

    def test_names_of_commands_are_names_of_profiles_too(self):
        profile(LOCAL + "/x", "list", "", "vm.swappiness = 33\n")
        self.prints(f"selected and applied list ({LOCAL}/x)\n", "set", "list")

    def test_output_that_cannot_be_written_is_a_failure(self):
        for arguments in [["list"], ["current", "--json"], ["--help"], ["--version"]]:
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                self.assertEqual(self.run_tool(*arguments, stdout=full),
                                 (1, None, "zevotune: cannot write to standard output (No space left on device)\n"))


class List(Machine):
    def entry(self, name, path, index=-1, **more):
        return {"name": name, "index": index, "inherit": None, "title": "", "description": "", "ui": False,
                "path": path, "selected": False} | more

    def both(self, **more):
        return [self.entry("performance_throughput", THROUGHPUT, 0, title="title:throughput",
                           description="desc:throughput", ui=True, **more.get("throughput", {})),
                self.entry("performance_latency", LATENCY, 1, **more.get("latency", {}))]

    def table(self, mark_throughput, mark_latency):
        return ("   INDEX  NAME                    TITLE             FILE\n"
                f"{mark_throughput}  0      performance_throughput  title:throughput  {THROUGHPUT}\n"
                f"{mark_latency}  1      performance_latency                       {LATENCY}\n")

    def test_as_root_marks_the_default_where_there_is_no_configuration_and_makes_none(self):
        before = tree()
        self.prints(self.table("*", " "), "list")
        self.assertEqual(tree(), before)
        self.prints_json(self.both(throughput={"selected": True}), "list")
        self.assertEqual(tree(), before)

    def test_marks_the_selected_profile(self):
        self.configure(profile="performance_latency")
        self.make_lock()
        before = tree()
        for user in ["root", "nobody"]:
            with self.subTest(user=user):
                self.prints(self.table(" ", "*"), "list", user=user)
                self.prints_json(self.both(latency={"selected": True}), "list", user=user)
                self.assertEqual(tree(), before)

    def test_marks_the_default_where_the_configuration_names_none_and_does_not_complete_it(self):
        write(CONFIG, "lock = true\n")
        self.prints(self.table("*", " "), "list")
        self.assertEqual(read(CONFIG), b"lock = true\n")
        self.prints(self.table("*", " "), "list", user="nobody")
        self.assertEqual(read(CONFIG), b"lock = true\n")

    def test_without_root_there_is_no_mark_where_the_configuration_cannot_be_read_and_nothing_is_made(self):
        def check():
            before = tree()
            self.prints(self.table(" ", " "), "list", user="nobody")
            unknown = {"selected": None}
            self.prints_json(self.both(throughput=unknown, latency=unknown), "list", user="nobody")
            self.assertEqual(tree(), before)

        check()
        self.configure(profile="performance_latency")
        os.chmod(CONFIG, 0o600)
        check()

    def test_there_is_no_mark_where_the_configuration_is_broken_or_selects_what_is_not_installed(self):
        self.configure(profile="gone")
        self.prints(self.table(" ", " "), "list")
        self.prints_json(self.both(), "list")
        write(CONFIG, "nonsense\n")
        self.prints(self.table(" ", " "), "list")
        os.remove(CONFIG)
        os.mkdir(CONFIG)
        self.prints(self.table(" ", " "), "list")

    def test_sorts_by_index_and_keeps_columns_aligned(self):
        os.remove(LATENCY)
        profile(LOCAL + "/a", "größer", "index = -20\ninherit = x\n")
        profile(LOCAL + "/b", "z", "index = 100\ninherit =\n")
        self.prints("   INDEX  NAME                    TITLE             FILE\n"
                    f"   -20    größer                                    {LOCAL}/a\n"
                    f"*  0      performance_throughput  title:throughput  {THROUGHPUT}\n"
                    f"   100    z                                         {LOCAL}/b\n", "list")
        self.prints_json([self.entry("größer", LOCAL + "/a", -20, inherit="x"),
                          self.both(throughput={"selected": True})[0],
                          self.entry("z", LOCAL + "/b", 100, inherit="")], "list")

    def test_says_which_of_two_profiles_of_a_name_counts(self):
        os.remove(LATENCY)
        first = profile(LOCAL + "/a", "performance_throughput", "index = -5\n")
        self.prints("   INDEX  NAME                    TITLE             FILE\n"
                    f"*  -5     performance_throughput                    {first}\n"
                    f"   0      performance_throughput  title:throughput  {THROUGHPUT} (hidden by {first})\n", "list")
        self.prints_json([self.entry("performance_throughput", first, -5, selected=True),
                          self.both(throughput={"shadowed_by": first})[0]], "list")
        self.prints(f"selected and applied performance_throughput ({first})\n", "set", "performance_throughput")

    def test_shows_the_header_alone_where_nothing_is_installed(self):
        shutil.rmtree(SHIPPED)
        self.prints("   INDEX  NAME  TITLE  FILE\n", "list")
        self.prints_json([], "list")

    def test_control_characters_and_bytes_that_are_not_utf8_do_no_harm(self):
        shutil.rmtree(SHIPPED)
        path = write(LOCAL + "/x", b"[main]\nname = a\x1b[31m\x7f\tb\nprofile_title_i18n = gr\xfc\xdf\n")
        status, out, err = self.run_tool("list")
        self.assertEqual((out, err, status), ("   INDEX  NAME                TITLE  FILE\n"
                                              f"   -1     a\\x1B[31m\\x7F\\x09b  gr\udcfc\udcdf   {path}\n", "", 0))
        self.prints_json([self.entry("a\x1b[31m\x7f\tb", path, title="gr\ufffd\ufffd")], "list")


class BrokenFile(Machine):
    SYNTAX = ": line is neither a section, a pair in a section nor a comment; mend or remove the file"

    def refused(self, reason, what="the profiles", commands=None):
        for arguments in commands or [["list"], ["list", "--json"], ["set", "performance_latency"]]:
            with self.subTest(arguments=arguments):
                self.fails(f"cannot read {what}: {reason}", *arguments)

    def test_a_line_that_is_nothing(self):
        write(LOCAL + "/x", "[main]\nname = x\nnonsense\n")
        self.refused(f"{LOCAL}/x:3" + self.SYNTAX)
        self.configure()
        self.make_lock()
        self.refused(f"{LOCAL}/x:3" + self.SYNTAX,
                     commands=[["apply"], ["config", "set", "profile", "performance_latency"]])

    def test_a_pair_in_front_of_the_first_section(self):
        write(LOCAL + "/x", "name = x\n[main]\n")
        self.refused(f"{LOCAL}/x:1" + self.SYNTAX)

    def test_no_section_main(self):
        write(SHIPPED + "/x", "[sysctl]\n")
        self.refused(f"{SHIPPED}/x: there is no section [main]; add one or remove the file")

    def test_no_permission(self):
        os.chmod(LATENCY, 0o600)
        self.fails(f"cannot read the profiles: {LATENCY} can only be read by other users; "
                   "run zevotune as root (sudo)", "list", user="nobody")
        os.chmod(LATENCY, 0o644)
        os.chmod(SHIPPED, 0o700)
        self.fails(f"cannot read the profiles: {SHIPPED} can only be read by other users; "
                   "run zevotune as root (sudo)", "list", user="nobody")

    def test_a_file_that_is_too_large_to_be_read(self):
        os.mkdir(LOCAL_GLOBAL[:-len("/global")])
        os.mkdir(LOCAL)
        with open(LOCAL + "/x", "wb") as file:
            file.truncate((256 << 20) + 1)
        status, out, err = self.run_tool("list")
        self.assertEqual((err, out, status), (
            f"zevotune: cannot read the profiles: {LOCAL}/x cannot be read: the disk fails, or it is larger than "
            "256 MiB; mend or remove it\n", "", 1))

    def test_a_global_profile(self):
        write(LOCAL_GLOBAL + "/g", "[main]\n[\n")
        self.refused(f"{LOCAL_GLOBAL}/g:2" + self.SYNTAX, "the global profiles", [["set", "performance_latency"]])
        write(SHIPPED_GLOBAL + "/g", "")
        self.configure()
        self.make_lock()
        self.refused(f"{SHIPPED_GLOBAL}/g: there is no section [main]; add one or remove the file",
                     "the global profiles", [["set", "performance_latency"], ["apply"]])

    def test_a_global_profile_keeps_nobody_from_listing(self):
        write(LOCAL_GLOBAL + "/g", "nonsense\n")
        self.assertIn("performance_latency", self.succeeds("list"))

    def test_a_name_with_control_characters_stays_one_line(self):
        write(LOCAL + "/a\nb", "nonsense")
        self.refused(f"{LOCAL}/a\\x0Ab:1" + self.SYNTAX)


class Current(Machine):
    def test_as_root_makes_the_configuration_with_the_default(self):
        self.prints("performance_throughput\n", "current")
        self.assertEqual(read(CONFIG).decode(), "".join(f'{key}="{value}"\n' for key, value in DEFAULTS.items()))

    def test_prints_the_recorded_name_installed_or_not(self):
        self.configure(profile="gone")
        self.make_lock()
        for user in ["root", "nobody"]:
            self.prints("gone\n", "current", user=user)
            self.prints_json({"profile": "gone"}, "current", user=user)

    def test_is_what_was_set(self):
        self.succeeds("set", "performance_latency")
        self.prints("performance_latency\n", "current")
        self.prints("performance_latency\n", "current", user="nobody")

    def test_needs_no_profiles(self):
        shutil.rmtree(SHIPPED)
        self.prints("performance_throughput\n", "current")


class ReadingWithoutRoot(Machine):
    COMMANDS = [["current"], ["config", "get", "lock"], ["config", "list"], ["current", "--json"]]

    def refused(self, reason):
        for arguments in self.COMMANDS:
            with self.subTest(arguments=arguments):
                self.fails("cannot read the configuration: " + reason, *arguments, user="nobody")

    def test_makes_nothing_where_something_is_missing(self):
        missing = " is missing, and only root makes it; run \"sudo zevotune current\""
        self.refused(CONFIG + missing)

    def test_what_it_tells_to_run_helps(self):
        self.succeeds("current")
        for arguments in self.COMMANDS:
            self.succeeds(*arguments, user="nobody")

    def test_says_which_file_it_may_not_open(self):
        self.configure()
        os.chmod(CONFIG, 0o600)
        self.refused(CONFIG + " can only be read by other users; run zevotune as root (sudo)")

    def test_shows_defaults_for_missing_keys_and_adds_none(self):
        write(CONFIG, "own = 1\nprofile = x\n")
        self.make_lock()
        before = tree()
        self.prints_json(DEFAULTS | {"own": "1", "profile": "x"}, "config", "list", user="nobody")
        self.prints("100\n", "config", "get", "btrfs_metadata_cache_space_usage_limit", user="nobody")
        self.assertEqual(tree(), before)
        as_nobody = self.succeeds("config", "list", user="nobody")
        self.assertEqual(self.succeeds("config", "list"), as_nobody)
        self.assertNotEqual(tree(), before)

    def test_needs_no_lock(self):
        self.configure()
        os.mkdir(LOCK_DIR, 0o700)
        before = tree()
        for arguments in self.COMMANDS:
            self.succeeds(*arguments, user="nobody")
        self.assertEqual(tree(), before)
        self.make_lock()
        with open(LOCK, "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.prints("performance_throughput\n", "current", user="nobody")


class WritingWithoutRoot(Machine):
    def test_is_refused_before_anything_is_touched(self):
        self.configure()
        self.make_lock()
        os.chmod(CONFIG, 0o666)
        os.chmod(CONFIG_DIR, 0o777)
        for arguments in [["set", "performance_latency"], ["set", "gone"], ["apply"],
                          ["config", "set", "lock", "true"], ["config", "set", "--force", "x", "y"],
                          ["set", "--json", "performance_latency"]]:
            command = "config set" if arguments[0] == "config" else arguments[0]
            with self.subTest(arguments=arguments):
                self.fails(f"\"{command}\" needs root and has changed nothing; run \"sudo zevotune {command} ...\"",
                           *arguments, user="nobody")


class Set(Machine):
    def test_selects_and_applies_and_says_so_in_a_line(self):
        profile(LOCAL_GLOBAL + "/g", "g", "", "vm.swappiness = 1\nvm.vfs_cache_pressure = 55\n")
        self.prints(f"selected and applied performance_latency ({LATENCY})\n", "set", "performance_latency")
        self.assertEqual(parameter("swappiness"), "22")
        self.assertEqual(parameter("vfs_cache_pressure"), "55")
        self.assertIn(b'profile="performance_latency"\n', read(CONFIG))

    def test_json(self):
        self.prints_json({"profile": "performance_latency", "path": LATENCY}, "set", "performance_latency")
        self.assertEqual(parameter("swappiness"), "22")

    def test_applies_what_is_inherited(self):
        profile(LOCAL + "/x", "x", "inherit = performance_latency\n", "vm.vfs_cache_pressure = 66\n")
        self.prints(f"selected and applied x ({LOCAL}/x)\n", "set", "x")
        self.assertEqual((parameter("swappiness"), parameter("vfs_cache_pressure")), ("22", "66"))

    def test_unknown_name(self):
        where = f"in {SHIPPED} or {LOCAL}"
        self.fails(f"there is no profile \"latency\" {where}; did you mean \"performance_latency\"?", "set", "latency")
        self.fails(f"there is no profile \"perfromance_throughput\" {where}; did you mean \"performance_throughput\"?",
                   "set", "perfromance_throughput")
        self.fails(f"there is no profile \"quiet\" {where}; \"zevotune list\" shows all", "set", "quiet")
        self.fails(f"there is no profile \"\" {where}; \"zevotune list\" shows all", "set", "")
        self.fails(f"there is no profile \"a\\x0Ab\" {where}; \"zevotune list\" shows all", "set", "a\nb")
        self.fails(f"there is no profile \"10-throughput\" {where}; \"zevotune list\" shows all",
                   "set", "10-throughput")

    def test_profile_without_a_name(self):
        path = write(LOCAL + "/x", "[main]\n[sysctl]\nvm.swappiness = 44\n")
        self.prints(f"selected and applied  ({path})\n", "set", "")
        self.assertEqual(parameter("swappiness"), "44")

    def test_parameters_that_the_kernel_refuses_are_passed_over(self):
        profile(LOCAL + "/x", "x", "", "kernel.pid_max = 99999\nvm.no_such_parameter = 1\nvm.swappiness = 44\n")
        status, out, err = self.run_tool("set", "x")
        self.assertEqual((out, status), (f"selected and applied x ({LOCAL}/x)\n", 0))
        self.assertRegex(err, r"\Asysctl: [^\n]*kernel\.pid_max[^\n]*\n"
                         r"zevotune: the kernel has refused or changed 1 value; \"zevotune verify\" shows which\n\Z")
        self.assertEqual(parameter("swappiness"), "44")

    def test_configuration_that_cannot_be_written(self):
        os.rmdir("/usr/zevo/etc")
        self.fails(f"cannot set \"performance_latency\": {CONFIG_DIR} cannot be made, as /usr/zevo/etc is missing; "
                   f"make that folder; it is not selected{SEE_LOG}", "set", "performance_latency")
        write("/usr/zevo/etc/zevotuned", "")
        self.fails(f"cannot set \"performance_latency\": {CONFIG_DIR} is no folder; move it away; "
                   f"it is not selected{SEE_LOG}", "set", "performance_latency")
        os.remove("/usr/zevo/etc/zevotuned")
        os.makedirs(CONFIG)
        self.fails(f"cannot set \"performance_latency\": {CONFIG} is no regular file; move it away; "
                   f"it is not selected{SEE_LOG}", "set", "performance_latency")

    def test_broken_configuration(self):
        write(CONFIG, "lock = true\n[main]\n")
        self.make_lock()
        self.fails(f"cannot set \"performance_latency\": {CONFIG}:2: line is neither a pair nor a comment; "
                   f"mend the file; it is not selected{SEE_LOG}", "set", "performance_latency")

    def test_configuration_that_cannot_be_replaced(self):
        self.configure()
        self.make_lock()
        os.mkdir(CONFIG_DIR + "/.config.new")
        self.fails(f"cannot set \"performance_latency\": {CONFIG} cannot be written; see whether its file system is "
                   f"full or read-only; it is not selected{SEE_LOG}", "set", "performance_latency")

    def test_lock_file_that_is_none(self):
        self.configure()
        os.mkdir(LOCK_DIR)
        os.symlink("/dev/null", LOCK)
        self.fails(f"cannot set \"performance_latency\": {LOCK} cannot be opened as a lock file; remove it; "
                   f"it is not selected{SEE_LOG}", "set", "performance_latency")
        shutil.rmtree(LOCK_DIR)
        write(LOCK_DIR, "")
        self.fails(f"cannot set \"performance_latency\": {LOCK_DIR} is no folder; move it away; "
                   f"it is not selected{SEE_LOG}", "set", "performance_latency")

    def test_failure_half_way_says_what_is_selected(self):
        base = profile(LOCAL + "/base", "base", "", "vm.swappiness = 77\n")
        profile(LOCAL + "/x", "x", "inherit = base\n")
        self.assertEqual(self.change_half_way(["set", "x"], lambda: write(base, "nonsense\n")), (
            f"zevotune: cannot set \"x\": {base}:1{BrokenFile.SYNTAX}; it is selected, but {IN_PART}"
            f"{SEE_LOG}\n", "", 1))
        self.prints("x\n", "current")
        self.assertEqual(parameter("swappiness"), self.parameters["swappiness"].decode().strip())


class Apply(Machine):
    def test_applies_the_selected_profile(self):
        self.configure(profile="performance_latency")
        self.prints(f"applied performance_latency ({LATENCY})\n", "apply")
        self.assertEqual(parameter("swappiness"), "22")
        self.prints_json({"profile": "performance_latency", "path": LATENCY}, "apply")

    def test_applies_the_default_where_there_is_no_configuration(self):
        self.prints(f"applied performance_throughput ({THROUGHPUT})\n", "apply")
        self.assertEqual(parameter("swappiness"), "11")

    def test_selected_profile_that_is_not_installed(self):
        self.make_lock()
        self.configure(profile="performance_latenci")
        end = " (\"sudo zevotune set NAME\" selects another one)"
        self.fails(f"the selected profile \"performance_latenci\" (in {CONFIG}) is not installed; "
                   f"did you mean \"performance_latency\"?{end}", "apply")
        self.configure(profile="gone")
        self.fails(f"the selected profile \"gone\" (in {CONFIG}) is not installed{end}", "apply")

    def test_broken_configuration(self):
        write(CONFIG, "lock = true\nnonsense\n")
        self.make_lock()
        self.fails(f"cannot read the configuration: {CONFIG}:2: line is neither a pair nor a comment; mend the file",
                   "apply")

    def test_failure_half_way(self):
        self.configure(profile="x")
        path = profile(LOCAL + "/x", "x", "", "vm.swappiness = 77\n")
        self.assertEqual(self.change_half_way(["apply"], lambda: os.remove(path)), (
            f"zevotune: cannot apply \"x\": {path} has just been removed; try again; it is {IN_PART}"
            f"{SEE_LOG}\n", "", 1))


class Inheritance(Machine):
    def refused(self, name, reason):
        self.fails(f"cannot apply \"{name}\": {reason}", "set", name)
        self.configure(profile=name)
        self.make_lock()
        self.fails(f"cannot apply \"{name}\": {reason}", "apply")
        os.remove(CONFIG)
        shutil.rmtree(LOCK_DIR)

    def test_circle(self):
        a = profile(LOCAL + "/a", "A", "inherit = B\n", "vm.swappiness = 99\n")
        b = profile(LOCAL + "/b", "B", "inherit = C\n")
        c = profile(LOCAL + "/c", "C", "inherit = B\n")
        end = "; remove one \"inherit\" of the circle"
        self.refused("A", f"its inheritance never ends: \"A\" ({a}) -> \"B\" ({b}) -> \"C\" ({c}) -> \"B\" ({b}){end}")
        self.refused("C", f"its inheritance never ends: \"C\" ({c}) -> \"B\" ({b}) -> \"C\" ({c}){end}")
        self.assertIn("performance_latency", self.succeeds("set", "performance_latency"))

    def test_profile_that_inherits_from_itself(self):
        path = profile(LOCAL + "/a", "A", "inherit = A\n")
        self.refused("A", f"its inheritance never ends: \"A\" ({path}) -> \"A\" ({path}); "
                     "remove one \"inherit\" of the circle")

    def test_empty_inherit_is_a_name(self):
        path = write(LOCAL + "/a", "[main]\ninherit =\n")
        self.refused("", f"its inheritance never ends: \"\" ({path}) -> \"\" ({path}); "
                     "remove one \"inherit\" of the circle")
        path = profile(LOCAL + "/a", "A", "inherit =\n")
        self.refused("A", f"{path} inherits from \"\", and there is no profile of that name; "
                     "mend or remove its \"inherit\"")

    def test_names_stand_for_the_first_profile_of_the_catalogue(self):
        profile(LOCAL + "/a", "A", "index = 5\ninherit = A\n")
        first = profile(LOCAL + "/b", "A", "index = 4\n")
        self.prints(f"selected and applied A ({first})\n", "set", "A")
        profile(LOCAL + "/a", "A", "index = 3\ninherit = A\n")
        os.remove(CONFIG)
        shutil.rmtree(LOCK_DIR)
        self.refused("A", f"its inheritance never ends: \"A\" ({LOCAL}/a) -> \"A\" ({LOCAL}/a); "
                     "remove one \"inherit\" of the circle")

    def test_global_profile_that_inherits(self):
        for folder in [SHIPPED_GLOBAL, LOCAL_GLOBAL]:
            with self.subTest(folder=folder):
                path = profile(folder + "/g", "g", "inherit = performance_throughput\n")
                self.refused("performance_latency", f"the global profile {path} inherits from "
                             f"\"performance_throughput\" ({THROUGHPUT}), before which all global profiles are applied "
                             "again, without end; remove its \"inherit\"")
                os.remove(path)

    def test_missing_profile(self):
        a = profile(LOCAL + "/a", "A", "inherit = B\n", "vm.swappiness = 99\n")
        b = profile(LOCAL + "/b", "B", "inherit = performance_latenzy\n", "vm.swappiness = 98\n")
        self.refused("A", f"{b} inherits from \"performance_latenzy\", and there is no profile of that name; "
                     "did you mean \"performance_latency\"?")
        os.remove(b)
        self.refused("A", f"{a} inherits from \"B\", and there is no profile of that name; "
                     "mend or remove its \"inherit\"")

    def test_global_profile_that_inherits_from_a_missing_one(self):
        path = profile(LOCAL_GLOBAL + "/g", "g", "inherit = gone\n")
        self.refused("performance_latency", f"{path} inherits from \"gone\", and there is no profile of that name; "
                     "mend or remove its \"inherit\"")


class Config(Machine):
    def test_list(self):
        self.configure(own="some value")
        self.make_lock()
        table = ("KEY                                           VALUE\n"
                 "profile                                       performance_throughput\n"
                 "lock                                          false\n"
                 "btrfs_metadata_cache_on                       true\n"
                 "btrfs_metadata_cache_space_usage_limit        100\n"
                 "btrfs_metadata_cache_read_throttle_wait_mult  0\n"
                 "own                                           some value\n")
        for user in ["root", "nobody"]:
            self.prints(table, "config", "list", user=user)
            self.prints_json(DEFAULTS | {"own": "some value"}, "config", "list", user=user)

    def test_get(self):
        self.configure(own="")
        self.make_lock()
        for user in ["root", "nobody"]:
            self.prints("100\n", "config", "get", "btrfs_metadata_cache_space_usage_limit", user=user)
            self.prints("\n", "config", "get", "own", user=user)
            self.prints_json({"key": "lock", "value": "false"}, "config", "get", "lock", user=user)

    def test_get_of_an_unknown_key_names_the_known_ones(self):
        self.configure(own="1")
        self.make_lock()
        for user in ["root", "nobody"]:
            self.fails(f"there is no key \"lokc\" in {CONFIG}; did you mean \"lock\"? known keys: {KNOWN_KEYS}, own",
                       "config", "get", "lokc", user=user)
            self.fails(f"there is no key \"\" in {CONFIG}; known keys: {KNOWN_KEYS}, own", "config", "get", "",
                       user=user)

    def test_as_root_reading_makes_and_completes_the_configuration(self):
        self.prints("0\n", "config", "get", "btrfs_metadata_cache_read_throttle_wait_mult")
        write(CONFIG, "own = 1\n")
        self.prints_json(DEFAULTS | {"own": "1"}, "config", "list")
        self.assertIn(b'profile="performance_throughput"\n', read(CONFIG))

    def test_set(self):
        self.prints(f"set lock to \"true\" in {CONFIG}\n", "config", "set", "lock", "true")
        self.assertEqual(read(CONFIG), b'lock="true"\n')
        self.prints_json({"key": "lock", "value": "false"}, "config", "set", "lock", "false")
        self.prints("false\n", "config", "get", "lock")

    def test_set_accepts_sensible_values(self):
        for key, values in {"profile": ["performance_latency"], "lock": ["true", "false"],
                            "btrfs_metadata_cache_on": ["false", "true"],
                            "btrfs_metadata_cache_space_usage_limit": ["0", "100", "8589934592"],
                            "btrfs_metadata_cache_read_throttle_wait_mult": ["0", "12"]}.items():
            for value in values:
                self.prints(f"set {key} to \"{value}\" in {CONFIG}\n", "config", "set", key, value)
                self.prints(f"{value}\n", "config", "get", key)

    def test_set_refuses_values_that_make_no_sense_unless_forced(self):
        truth = "true or false"
        limit = "a whole number: percent of the SSD cache up to 100, bytes above"
        pause = "a whole number: pause after reading, in multiples of the reading's time"
        self.make_lock()
        self.configure()
        for key, values, needed in [
                ("lock", ["", "1", "True", "true ", "yes"], truth),
                ("btrfs_metadata_cache_on", ["on", "FALSE"], truth),
                ("btrfs_metadata_cache_space_usage_limit",
                 ["", "x", "5x", "-5", "+5", " 5", "1.5", "0x10", "18446744073709551616"], limit),
                ("btrfs_metadata_cache_read_throttle_wait_mult", ["", "two", "-1", "2 "], pause)]:
            for value in values:
                with self.subTest(key=key, value=value):
                    self.fails(f"cannot set \"{key}\" in {CONFIG} to \"{value}\": it has to be {needed}; "
                               "--force sets it all the same", "config", "set", key, value)
                    self.prints(f"set {key} to \"{value}\" in {CONFIG}\n", "config", "set", "--force", key, value)
                    self.prints(f"{value}\n", "config", "get", key)

    def test_set_refuses_a_profile_that_is_not_installed_unless_forced(self):
        where = f"in {SHIPPED} or {LOCAL}"
        self.fails(f"there is no profile \"latency\" {where}; did you mean \"performance_latency\"? "
                   "(--force records it all the same)", "config", "set", "profile", "latency")
        self.prints(f"set profile to \"latency\" in {CONFIG}\n", "config", "set", "profile", "latency", "--force")
        self.prints("latency\n", "current")

    def test_set_of_the_profile_applies_nothing(self):
        self.succeeds("config", "set", "profile", "performance_latency")
        self.assertEqual(read(PARAMETERS + "/swappiness"), self.parameters["swappiness"])

    def test_set_refuses_misspelt_keys_unless_forced(self):
        self.fails(f"there is no key \"lokc\" in {CONFIG}; did you mean \"lock\"? known keys: {KNOWN_KEYS}; "
                   "--force adds it", "config", "set", "lokc", "true")
        self.prints(f"set lokc to \"true\" in {CONFIG}\n", "config", "set", "lokc", "true", "--force")
        self.assertEqual(read(CONFIG), b'lokc="true"\n')
        self.prints(f"set lokc to \"x\" in {CONFIG}\n", "config", "set", "lokc", "x")  # it is in the file now

    def test_set_keeps_the_other_keys(self):
        self.configure(own="1")
        self.succeeds("config", "set", "lock", "true")
        self.prints_json(DEFAULTS | {"own": "1", "lock": "true"}, "config", "list")

    def test_set_of_a_value_that_begins_with_a_dash(self):
        self.prints(f"set own to \"--x\" in {CONFIG}\n", "config", "set", "--force", "--", "own", "--x")

    def test_set_of_what_a_pair_file_cannot_hold(self):
        self.configure()
        self.make_lock()
        reason = (f"{CONFIG} cannot hold it: it has to be one line, and a key without '=', blanks at its ends, or '#', "
                  "';' or '[' in front")
        self.fails(f"cannot set \"a=b\" to \"1\": {reason}", "config", "set", "--force", "a=b", "1")
        self.fails(f"cannot set \"a\" to \"1\\x0A2\": {reason}", "config", "set", "--force", "a", "1\n2")

    def test_broken_configuration(self):
        write(CONFIG, "# comment\n= 1\n")
        self.make_lock()
        reason = f"{CONFIG}:2: line is neither a pair nor a comment; mend the file"
        for user in ["root", "nobody"]:
            for arguments in [["current"], ["config", "get", "lock"], ["config", "list"]]:
                self.fails("cannot read the configuration: " + reason, *arguments, user=user)
        self.fails("cannot read the configuration: " + reason, "config", "set", "own", "1")
        self.fails(f"cannot set \"lock\" to \"true\": {reason}", "config", "set", "lock", "true")

    def test_configuration_that_is_a_folder(self):
        os.makedirs(CONFIG)
        self.make_lock()
        for user in ["root", "nobody"]:
            self.fails(f"cannot read the configuration: {CONFIG} is no regular file; move it away", "config", "list",
                       user=user)

    def test_lock_that_another_program_holds(self):
        self.configure()
        self.make_lock()
        with open(LOCK, "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.fails(f"cannot read the configuration: another program has held the lock {LOCK} for 5 seconds; "
                       "try again", "config", "list")


class Hardware:
    """A /sys, a /dev and a table of mounts, as the kernel lays them out."""

    # Where disks of each bus are, and the bus's own name.
    PLACES = {"sata": ("pci0/ata1/host0/target0/{}:0/block", "scsi"),
              "usb": ("pci0/usb1/host9/target9/{}:0/block", "scsi"), "nvme": ("pci0/nvme/{}c", "nvme")}

    def __init__(self, folder):
        self.sys = folder + "/sys"
        self.dev = folder + "/dev"
        for path in ["/block", "/class/block", "/dev/block", "/fs/btrfs", "/devices"]:
            os.makedirs(self.sys + path)
        os.makedirs(self.dev + "/mapper")
        write(self.dev + "/mapper/control", "")
        os.chmod(self.dev + "/mapper/control", 0o600)
        self.mountinfo = write(folder + "/mountinfo", "20 1 0:5 / / rw - tmpfs tmpfs rw\n")
        self.number = 0

    def attribute(self, device, name, text):
        return write(f"{self.sys}/class/block/{device}/{name}", text + "\n")

    def link(self, path, target):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        os.symlink(os.path.relpath(target, os.path.realpath(os.path.dirname(path))), path)

    def device(self, name, folder, whole=True):
        self.number += 1
        os.makedirs(folder)
        for index in ["class/block/" + name, f"dev/block/8:{self.number}"] + ["block/" + name] * whole:
            self.link(f"{self.sys}/{index}", folder)
        self.attribute(name, "dev", f"8:{self.number}")
        self.attribute(name, "size", "1024")

    def disk(self, name, bus, rotational, schedulers, tunables="", partitions=0):
        place, subsystem = self.PLACES[bus]
        folder = f"{self.sys}/devices/" + place.format(name)
        self.device(name, f"{folder}/{name}")
        device = folder.removesuffix("/block")
        self.link(f"{folder}/{name}/device", device)
        self.link(device + "/subsystem", f"{self.sys}/bus/{subsystem}")
        write(device + "/type", "0\n")
        self.attribute(name, "queue/rotational", rotational)
        self.attribute(name, "queue/scheduler", schedulers)
        for tunable in tunables.split():
            self.attribute(name, "queue/iosched/" + tunable, "1")
        for i in range(1, partitions + 1):
            self.device(f"{name}{i}", f"{folder}/{name}/{name}{i}", whole=False)
            self.attribute(f"{name}{i}", "partition", str(i))

    def virtual(self, name, slaves):
        self.device(name, f"{self.sys}/devices/virtual/block/{name}")
        for slave in slaves:
            self.link(f"{self.sys}/class/block/{name}/slaves/{slave}", f"{self.sys}/class/block/{slave}")

    def array(self, name, level, count, members, state="clean"):
        self.virtual(name, members)
        self.attribute(name, "md/level", level)
        self.attribute(name, "md/raid_disks", count)
        self.attribute(name, "md/array_state", state)

    def mapped(self, name, people, slaves):
        self.virtual(name, slaves)
        self.attribute(name, "dm/name", people)

    def mount(self, path, file_system, source, number, uuid=None):
        with open(self.mountinfo, "a", encoding="utf-8") as table:
            table.write(f"{21 + self.number} 20 {number} / {path} rw - {file_system} {source} rw\n")
        self.number += 1
        if uuid:
            device = os.path.basename(source)
            for path in glob.glob(f"{self.sys}/class/block/*/dm/name"):
                if read(path).decode() == device + "\n":
                    device = path.split("/")[-3]
            self.link(f"{self.sys}/fs/btrfs/{uuid}/devices/{device}", f"{self.sys}/class/block/{device}")


class Devices(Machine):
    UUID = "01234567-89ab-cdef-0123-456789abcdef"
    TUNABLES = "async_depth fifo_batch front_merges prio_aging_expire read_expire write_expire writes_starved"
    MOUNTED = ('mount --bind "$1" /sys && mount --bind "$2" /dev && mount --bind "$3" /proc/$$/task/$$/mountinfo && '
               'shift 3 && exec "$@"')

    def setUp(self):
        super().setUp()
        self.locale = "C.UTF-8"
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        self.hardware = Hardware(folder)

    def command(self, arguments, user):
        """With the hardware in the places of the machine's own, for this one process."""
        hardware = self.hardware
        return ["unshare", "--mount", "sh", "-c", self.MOUNTED, "sh", hardware.sys, hardware.dev, hardware.mountinfo,
                *super().command(arguments, user)]

    def run_tool(self, *arguments, **options):
        return super().run_tool(*arguments, env=os.environ | {"LC_ALL": self.locale}, **options)

    def big_machine(self):
        hardware = self.hardware
        hardware.disk("sda", "sata", "0", "[mq-deadline] none", self.TUNABLES, partitions=2)
        hardware.disk("sdb", "sata", "1", "none mq-deadline kyber [bfq]", "slice_idle low_latency", partitions=2)
        hardware.disk("sdc", "usb", "0", "[none]")
        hardware.disk("nvme0n1", "nvme", "0", "none")
        hardware.array("md0", "raid5", "3", ["sda2", "sdb2"])
        hardware.array("md1", "raid1", "2", ["nvme0n1", "sdc"])
        hardware.array("md2", "raid1", "2", ["sdb1"], state="inactive")
        hardware.mapped("dm-0", "vg1-volume1", ["sda1"])
        hardware.mount("/srv", "ext4", "/dev/nvme0n1", read(f"{hardware.sys}/block/nvme0n1/dev").decode().strip())
        hardware.mount("/volume1", "btrfs", "/dev/mapper/vg1-volume1", "0:40", self.UUID)
        hardware.mount("/volume2", "btrfs", "/dev/md0", "0:41", self.UUID[::-1])

    BIG = """volumes
├─ /srv  ext4 on /dev/nvme0n1, SSDs only
│  ├─ /dev/nvme0n1  SSD
│  └─ [volume] leaves it alone: not Btrfs
├─ /volume1  btrfs on /dev/mapper/vg1-volume1, SSDs only
│  ├─ /dev/sda  SSD
│  └─ [volume] changes it
└─ /volume2  btrfs on /dev/md0
   ├─ /dev/sda  SSD
   ├─ /dev/sdb  rotating
   └─ [volume] leaves it alone: not on SSDs only
RAID arrays
├─ /dev/md0  raid5, 3 disks, of which only 2 in use
│  ├─ /dev/sda2 on /dev/sda
│  ├─ /dev/sdb2 on /dev/sdb
│  └─ [raid_cfq_5] and [raid_cfq_default] change its disks' tunables
├─ /dev/md1  raid1, 2 disks
│  ├─ /dev/nvme0n1
│  ├─ /dev/sdc
│  └─ [raid_cfq_1] and [raid_cfq_default] change its disks' tunables
└─ /dev/md2  raid1, not active
   ├─ /dev/sdb1 on /dev/sdb
   └─ [raid_cfq_...] leave it alone: not active
disks
├─ /dev/nvme0n1  NVMe SSD  [none]
│  ├─ no tunables
│  └─ [disk] sets its scheduler to one of these
├─ /dev/sda  SATA SSD  [mq-deadline] none
│  ├─ tunables: async_depth fifo_batch front_merges prio_aging_expire
│  │    read_expire write_expire writes_starved
│  └─ [disk] sets its scheduler to one of these
├─ /dev/sdb  SATA rotating disk  none mq-deadline kyber [bfq]
│  ├─ tunables: low_latency slice_idle
│  └─ [disk] leaves it alone: no SSD
└─ /dev/sdc  external SSD  [none]
   ├─ no tunables
   └─ [disk] leaves it alone: external
"""

    def disk(self, device, kind, ssd, scheduler, schedulers, **more):
        return {"device": device, "kernel_name": device[5:], "type": kind, "ssd": ssd, "scheduler": scheduler,
                "schedulers": schedulers, "tunables": [], "sections": [], "error": None} | more

    def test_shows_volumes_arrays_and_disks_to_everybody_and_changes_nothing(self):
        self.big_machine()
        before = tree()
        for user in ["root", "nobody"]:
            with self.subTest(user=user):
                self.prints(self.BIG, "devices", user=user)
        self.assertEqual(tree(), before)

    def test_draws_in_ascii_where_the_locale_is_not_utf8(self):
        self.big_machine()
        ascii_tree = self.BIG.replace("├─", "|-").replace("└─", "`-").replace("│", "|")
        for locale in ["C", "xx_XX.UTF-8"]:  # the second one does not exist
            self.locale = locale
            self.prints(ascii_tree, "devices")

    def test_json(self):
        self.big_machine()
        ssd = {"device": "/dev/sda", "ssd": True, "error": None}
        none = {"sections": [], "error": None}
        self.prints_json({
            "volumes": [
                none | {"path": "/srv", "file_system": "ext4", "uuid": None, "device": "/dev/nvme0n1",
                        "alternative_device": None, "disks": [ssd | {"device": "/dev/nvme0n1"}], "ssd_only": True},
                none | {"path": "/volume1", "file_system": "btrfs", "uuid": self.UUID, "device": "/dev/dm-0",
                        "alternative_device": "/dev/mapper/vg1-volume1", "disks": [ssd], "ssd_only": True,
                        "sections": ["volume"]},
                none | {"path": "/volume2", "file_system": "btrfs", "uuid": self.UUID[::-1], "device": "/dev/md0",
                        "alternative_device": None, "disks": [ssd, ssd | {"device": "/dev/sdb", "ssd": False}],
                        "ssd_only": False}],
            "arrays": [
                {"device": "/dev/md0", "level": "raid5", "disks": 3, "active": True, "lacking": 1, "broken": False,
                 "members": [{"device": "/dev/sda2", "disk": "/dev/sda", "failed": False, "error": None},
                             {"device": "/dev/sdb2", "disk": "/dev/sdb", "failed": False, "error": None}],
                 "sections": ["raid_cfq_5", "raid_cfq_default"]},
                {"device": "/dev/md1", "level": "raid1", "disks": 2, "active": True, "lacking": 0, "broken": False,
                 "members": [{"device": "/dev/nvme0n1", "disk": "/dev/nvme0n1", "failed": False, "error": None},
                             {"device": "/dev/sdc", "disk": "/dev/sdc", "failed": False, "error": None}],
                 "sections": ["raid_cfq_1", "raid_cfq_default"]},
                {"device": "/dev/md2", "level": "raid1", "disks": 0, "active": False, "lacking": 0, "broken": False,
                 "members": [{"device": "/dev/sdb1", "disk": "/dev/sdb", "failed": False, "error": None}],
                 "sections": []}],
            "disks": [
                self.disk("/dev/nvme0n1", "nvme", True, "none", ["none"], sections=["disk"]),
                self.disk("/dev/sda", "sata", True, "mq-deadline", ["mq-deadline", "none"], sections=["disk"],
                          tunables=self.TUNABLES.split()),
                self.disk("/dev/sdb", "sata", False, "bfq", ["none", "mq-deadline", "kyber", "bfq"],
                          tunables=["low_latency", "slice_idle"]),
                self.disk("/dev/sdc", "external", True, "none", ["none"])],
        }, "devices")

    def test_says_none_where_there_is_nothing(self):
        self.prints("volumes: none\nRAID arrays: none\ndisks: none\n", "devices")
        self.prints_json({"volumes": [], "arrays": [], "disks": []}, "devices")

    def test_a_disk_that_fails_is_unknown_and_stops_nothing(self):
        hardware = self.hardware
        hardware.disk("sda", "sata", "perhaps", "[none]")
        hardware.disk("sdb", "sata", "0", "none kyber")
        hardware.disk("sdc", "sata", "0", "[none]")
        hardware.disk("sdd", "sata", "0", "[none]")
        os.remove(f"{hardware.sys}/block/sdc/queue/scheduler")
        os.symlink("iosched", f"{hardware.sys}/block/sdd/queue/iosched")  # a link to itself
        hardware.mount("/volume1", "btrfs", "/dev/sda", "0:40", self.UUID)
        self.prints("""volumes
└─ /volume1  btrfs on /dev/sda
   ├─ /dev/sda  SSD or not is unknown: the kernel's answer in
   │    /sys/class/block/sda/queue/rotational makes no sense; see its log
   │    (dmesg)
   └─ whether [volume] changes it is unknown
RAID arrays: none
disks
├─ /dev/sda  SATA  [none]
│  ├─ SSD or not is unknown: the kernel's answer in
│  │    /sys/class/block/sda/queue/rotational makes no sense; see its log
│  │    (dmesg)
│  ├─ no tunables
│  └─ [disk] leaves it alone: not known as an SSD
├─ /dev/sdb  SATA SSD  none kyber
│  ├─ scheduler is unknown: /sys/block/sdb/queue/scheduler names no active
│  │    scheduler
│  ├─ no tunables
│  └─ [disk] sets its scheduler to one of these
├─ /dev/sdc  SATA SSD
│  ├─ scheduler is unknown: /sys/block/sdc/queue/scheduler cannot be read (No
│  │    such file or directory)
│  ├─ no tunables
│  └─ whether [disk] changes it is unknown
└─ /dev/sdd  SATA SSD  [none]
   ├─ tunables are unknown: /sys/block/sdd/queue/iosched cannot be opened (Too
   │    many levels of symbolic links); see the kernel's log (dmesg), and
   │    whether /proc and /sys are mounted
   └─ [disk] sets its scheduler to one of these
""", "devices")
        nonsense = ("the kernel's answer in /sys/class/block/sda/queue/rotational makes no sense; "
                    "see its log (dmesg)")
        shown = json.loads(self.succeeds("devices", "--json"))
        self.assertEqual(shown["disks"], [
            self.disk("/dev/sda", "sata", None, "none", ["none"], error=nonsense),
            self.disk("/dev/sdb", "sata", True, None, ["none", "kyber"], sections=["disk"],
                      error="/sys/block/sdb/queue/scheduler names no active scheduler"),
            self.disk("/dev/sdc", "sata", True, None, [],
                      error="/sys/block/sdc/queue/scheduler cannot be read (No such file or directory)"),
            self.disk("/dev/sdd", "sata", True, "none", ["none"], sections=["disk"],
                      error="/sys/block/sdd/queue/iosched cannot be opened (Too many levels of symbolic links); "
                      "see the kernel's log (dmesg), and whether /proc and /sys are mounted")])
        self.assertEqual(shown["volumes"][0]["disks"], [{"device": "/dev/sda", "ssd": None, "error": nonsense}])
        self.assertEqual((shown["volumes"][0]["ssd_only"], shown["volumes"][0]["sections"]), (None, []))

    def test_disks_that_only_root_finds_out_are_unknown_with_the_reason(self):
        hardware = self.hardware
        hardware.disk("sda", "sata", "0", "[none]")
        hardware.disk("sdb", "sata", "0", "[none]")
        hardware.mapped("dm-0", "cached", ["sda", "sdb"])
        hardware.mount("/volume1", "btrfs", "/dev/mapper/cached", "0:40", self.UUID)
        control = "/dev/mapper/control"
        for user, reason in [
                ("nobody", f"{control} can only be read by other users; run zevotune as root (sudo)"),
                # As root it can be opened, and is no device mapper.
                ("root", f"{control} cannot be read; see the kernel's log (dmesg)")]:
            with self.subTest(user=user):
                shown = json.loads(self.succeeds("devices", "--json", user=user))
                self.assertEqual(shown["volumes"], [{
                    "path": "/volume1", "file_system": "btrfs", "uuid": self.UUID, "device": "/dev/dm-0",
                    "alternative_device": "/dev/mapper/cached", "disks": None, "ssd_only": None, "sections": [],
                    "error": reason}])
                self.assertEqual([disk["device"] for disk in shown["disks"]], ["/dev/sda", "/dev/sdb"])
        self.assertTrue(self.succeeds("devices", user="nobody").startswith("""volumes
└─ /volume1  btrfs on /dev/mapper/cached
   ├─ disks are unknown: /dev/mapper/control can only be read by other users;
   │    run zevotune as root (sudo)
   └─ whether [volume] changes it is unknown
RAID arrays: none
"""))

    def test_a_volume_whose_device_is_gone(self):
        self.hardware.mount("/volume1", "xfs", "/dev/sdz1", "8:99")
        shown = json.loads(self.succeeds("devices", "--json"))
        self.assertEqual([(volume["device"], volume["disks"], volume["error"]) for volume in shown["volumes"]],
                         [("/dev/sdz1", None, "its disk is gone, or it has just been unmounted")])

    def test_names_of_disks_have_the_slash_that_the_kernel_writes_otherwise(self):
        hardware = self.hardware
        hardware.disk("cciss!c0d0", "sata", "1", "[none]")
        hardware.array("md0", "raid1", "2", ["cciss!c0d0"])
        shown = json.loads(self.succeeds("devices", "--json"))
        self.assertEqual(shown["arrays"][0]["members"],
                         [{"device": "/dev/cciss/c0d0", "disk": "/dev/cciss/c0d0", "failed": False, "error": None}])
        hardware.attribute("md0", "md/dev-cciss!c0d0/state", "faulty")
        self.assertTrue(json.loads(self.succeeds("devices", "--json"))["arrays"][0]["members"][0]["failed"])
        self.assertEqual((shown["disks"][0]["device"], shown["disks"][0]["kernel_name"]),
                         ("/dev/cciss/c0d0", "cciss!c0d0"))

    def test_control_characters_in_names_do_no_harm(self):
        self.hardware.disk("sda", "sata", "0", "[none]")
        self.hardware.mount("/a\x1b[31m\\012b", "btrfs", "/dev/sda", "0:40", self.UUID)
        self.assertIn("\n└─ /a\\x1B[31m\\x0Ab  btrfs on /dev/sda, SSDs only\n", self.succeeds("devices"))
        self.assertEqual(json.loads(self.succeeds("devices", "--json"))["volumes"][0]["path"], "/a\x1b[31m\nb")

    def test_what_an_array_lacks(self):
        hardware = self.hardware
        hardware.disk("sda", "sata", "1", "[none]", partitions=3)
        hardware.disk("sdb", "sata", "1", "[none]", partitions=3)
        members = ["sda1", "sda2", "sdb1"]
        hardware.array("md0", "raid5", "3", members)
        folder = f"{hardware.sys}/class/block/md0/md"
        for state_of_array, degraded, states, lacking, failed, broken, line in [
                ("clean", "0", ["in_sync", "in_sync", "in_sync"], 0, [], False, "raid5, 3 disks"),
                ("active", "1", ["in_sync", "faulty", "in_sync"], 1, [1], False, "raid5, 3 disks, of which only 2 in use"),
                # One that is being rebuilt on.
                ("active", "1", ["in_sync", "spare", "in_sync"], 1, [], False, "raid5, 3 disks, of which only 2 in use"),
                ("clean", "2", ["faulty,blocked", "want_replacement,faulty", "in_sync"], 2, [0, 1], False,
                 "raid5, 3 disks, of which only 1 in use"),
                # Has no such file, as its level knows no such state.
                ("broken", None, ["in_sync", "faulty", None], 1, [1], True, "raid5, 3 disks, of which only 2 in use, broken"),
                ("clean", None, ["not_faulty", "x", ""], 0, [], False, "raid5, 3 disks"),
                ("clean", "7", ["in_sync", "in_sync", "in_sync"], 3, [], False, "raid5, 3 disks, of which only 0 in use"),
                ("clean", "-1", ["in_sync", "in_sync", "in_sync"], 0, [], False, "raid5, 3 disks"),
                ("clean", "18446744073709551615", ["in_sync", "in_sync", "in_sync"], 3, [], False,
                 "raid5, 3 disks, of which only 0 in use"),
                ("clean", "18446744073709551616", ["in_sync", "in_sync", "in_sync"], 0, [], False, "raid5, 3 disks")]:
            with self.subTest(degraded=degraded, states=states):
                shutil.rmtree(folder)
                hardware.attribute("md0", "md/level", "raid5")
                hardware.attribute("md0", "md/raid_disks", "3")
                hardware.attribute("md0", "md/array_state", state_of_array)
                if degraded:
                    hardware.attribute("md0", "md/degraded", degraded)
                for member, state in zip(members, states):
                    if state is not None:
                        hardware.attribute("md0", f"md/dev-{member}/state", state)
                shown = json.loads(self.succeeds("devices", "--json"))["arrays"][0]
                self.assertEqual((shown["lacking"], shown["broken"], [one["failed"] for one in shown["members"]]),
                                 (lacking, broken, [number in failed for number in range(3)]))
                self.assertIn(f" /dev/md0  {line}\n", self.succeeds("devices"))

    def test_what_cannot_be_listed_at_all_is_a_failure(self):
        unreadable = " cannot be read; see the kernel's log (dmesg), and whether /proc and /sys are mounted"
        nonsense = " makes no sense; see its log (dmesg)"

        def refused(line, user="root"):
            for arguments in [["devices"], ["devices", "--json"]]:
                self.fails(line, *arguments, user=user)

        hardware = self.hardware
        hardware.array("md0", "raid1", "several", [])
        refused("cannot list the RAID arrays: the kernel's answer in /sys/class/block/md0/md/raid_disks" + nonsense)
        shutil.rmtree(hardware.sys + "/block")
        refused("cannot list the RAID arrays: /sys/block cannot be opened (No such file or directory); "
                "see the kernel's log (dmesg), and whether /proc and /sys are mounted")
        os.chmod(hardware.mountinfo, 0o600)
        refused("cannot list the volumes: /proc/thread-self/mountinfo" + unreadable, user="nobody")


class Metadata(Volumes):
    """On Btrfs volumes of the real kernel."""

    SEE_VOLUMES = ' ("zevotune devices" lists the volumes)'

    def shown(self, device, path, size, superblocks):
        chunks = self.chunks(device)
        self.assertTrue(chunks)
        on_device = sum(chunk["size"] * len(chunk["device_offsets"]) for chunk in chunks)
        return {"path": path, "device": device, "device_size": size,
                "uuid": program("blkid", "--probe", "--output", "value", "--match-tag", "UUID", device),
                "chunks": [chunk | {"pinned": False} for chunk in chunks],
                "superblocks": [{"copy": i + 1, "size": 4096, "device_offset": offset, "pinned": False}
                                for i, offset in enumerate(superblocks)],
                "totals": {"chunks": len(chunks), "logical_size": sum(chunk["size"] for chunk in chunks),
                           "size_on_device": on_device, "counted_by_kernel": on_device, "pinned": 0}}

    def test_json_is_what_btrfs_itself_shows(self):
        for size, options, superblocks in [
                (256 * self.MIB, ["--metadata", "single"], [65536, 64 * self.MIB]),
                (256 * self.MIB, ["--metadata", "dup"], [65536, 64 * self.MIB]),
                (64 * self.MIB, ["--mixed"], [65536]),
                (300 * self.GIB, [], [65536, 64 * self.MIB, 256 * self.GIB])]:
            with self.subTest(size=size, options=options):
                path, device = self.volume(size, *options)
                before = tree()
                self.prints_json(self.shown(device, path, size, superblocks), "metadata", path)
                self.assertEqual(tree(), before)

    def test_takes_every_name_of_a_volume(self):
        path, device = self.volume(256 * self.MIB)
        write(path + "/folder/file", "text")
        os.symlink(device, self.folder + "/link")
        text = self.succeeds("metadata", path)
        self.assertTrue(text.startswith(f"{path}  on {device}, 256 MiB\n"), text)
        for name in [device, path + "/", path + "/folder", path + "/folder/file", self.folder + "/link"]:
            with self.subTest(name=name):
                self.prints(text, "metadata", name)

    def test_lists_a_few_chunks_with_a_map(self):
        path, device = self.volume(256 * self.MIB)
        text = self.succeeds("metadata", path)
        for chunk in self.chunks(device):
            self.assertRegex(text, rf"\n{chunk['logical_offset']} +\d+ MiB +{chunk['type']} +{chunk['profile']} +"
                             + ", ".join(map(str, chunk["device_offsets"])) + "\n")
        self.assertRegex(text, r"\n     0 B \|s[.#*+-]{63}\|\n  64 MiB \|[Ss][.#*+-]{63}\|\n 128 MiB \|")
        self.assertTrue(text.endswith("a cell: 1 MiB  . no metadata  - to 1/3  + to 2/3  * more  # all\n"
                                      "s superblock copy  S both\n"), text)

    def test_draws_in_unicode_where_the_locale_is_utf8(self):
        path, _ = self.volume(256 * self.MIB)
        plain = self.succeeds("metadata", path)
        self.locale = "C.UTF-8"
        shaded = plain.splitlines()
        for i, line in enumerate(shaded):
            if line.endswith("|"):
                shaded[i] = line.translate(str.maketrans(".-+*#", "·░▒▓█"))
            elif line.startswith("a cell"):
                shaded[i] = "a cell: 1 MiB  · no metadata  ░ to 1/3  ▒ to 2/3  ▓ more  █ all"
        self.prints("\n".join(shaded) + "\n", "metadata", path)

    def test_is_as_wide_as_the_terminal(self):
        path, _ = self.volume(256 * self.MIB)
        for columns, cells in [(132, 112), (40, 16), (10, 8), (0, 64)]:  # 0: a terminal that does not tell
            with self.subTest(columns=columns):
                status, text, err = self.run_on_terminal(columns, "metadata", path)
                self.assertEqual((status, err), (0, ""))
                rows = [line for line in text.splitlines() if line.endswith("|")]
                self.assertEqual(len(rows[0]), 9 + 2 + cells)

    def test_sums_up_many_chunks_unless_the_list_is_asked_for(self):
        path, device = self.volume(100 * self.GIB)
        # Behind every data chunk the volume makes one for metadata.
        for i in range(8):
            program("fallocate", "--length", "1G", f"{path}/data{i}")
            write(f"{path}/file{i}", "")
            program("sync", "--file-system", path)
        chunks = self.chunks(device)
        self.assertGreater(len(chunks), 6)
        self.assertEqual(json.loads(self.succeeds("metadata", path, "--json"))["chunks"],
                         [chunk | {"pinned": False} for chunk in chunks])
        text = self.succeeds("metadata", path)
        self.assertRegex(text, r"\nCHUNKS  OF SIZE  TYPE +PROFILE  ON THE DEVICE\n\d+ +\S+ [GM]iB +metadata  DUP ")
        self.assertIn("\n(--list shows each of them)\n", text)
        rows = self.succeeds("metadata", path, "--list").split("DEVICE OFFSETS\n")[1].split("\n\n")[0].splitlines()
        self.assertEqual([int(row.split()[0]) for row in rows], [chunk["logical_offset"] for chunk in chunks])

    def refused(self, volume, reason, user="root"):
        for arguments in [["metadata", volume], ["metadata", "--json", volume]]:
            self.fails(f"cannot show the metadata of \"{volume}\": {reason}", *arguments, user=user)

    def test_a_volume_on_several_devices(self):
        devices = [self.device(256 * self.MIB), self.device(256 * self.MIB)]
        program("mkfs.btrfs", "--quiet", "--nodiscard", "--metadata", "raid1", *devices)
        # Without udev nobody tells the kernel which devices belong together; naming them does.
        path = self.mount("--options", f"device={devices[0]},device={devices[1]}", devices[0])
        self.refused(path, "it lies on 2 devices, and only of volumes on one device can be told what lies where")

    def test_what_is_no_btrfs_volume(self):
        device = self.device(64 * self.MIB)
        program("mkfs.ext4", "-q", device)
        path = self.mount(device)
        for name in [path, device]:
            self.refused(name, "it is not a Btrfs volume" + self.SEE_VOLUMES)
        for name in [path + "/", path + "/lost+found", self.folder, "/proc/version"]:
            self.refused(name, "it does not lie on a Btrfs volume" + self.SEE_VOLUMES)

    def test_what_is_not_there_or_not_mounted(self):
        self.refused("/nowhere", "No such file or directory; name a path on a volume, or its device" + self.SEE_VOLUMES)
        self.refused("", "No such file or directory; name a path on a volume, or its device" + self.SEE_VOLUMES)
        device = self.device(256 * self.MIB)
        program("mkfs.btrfs", "--quiet", "--nodiscard", device)
        self.refused(device, "it is the device of no mounted volume; mount it, or name the volume's path" +
                     self.SEE_VOLUMES)

    def test_without_what_the_kernel_asks_for(self):
        path, device = self.volume(256 * self.MIB)
        for name in [path, device]:
            self.refused(name, "the kernel tells root alone where it lies; run zevotune as root (sudo)", user="nobody")
        self.prefix = ["setpriv", "--bounding-set", "-sys_admin"]
        self.refused(path, f"the kernel does not say where on {device} it lies; the system's log says why "
                     "(journalctl -t zevotune)")

    def test_where_the_mounted_volumes_cannot_be_told(self):
        path, _ = self.volume(256 * self.MIB)
        table = write(self.folder + "/mountinfo", "20 1 0:5 / / rw - tmpfs tmpfs rw\n")
        self.prefix = ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" /proc/$$/task/$$/mountinfo && exec "$@"',
                       table]
        self.refused(path, "the device of its file system is gone, or it has just been unmounted")
        os.chmod(table, 0o600)
        self.fails("cannot list the volumes' devices: /proc/thread-self/mountinfo cannot be read; "
                   "see the kernel's log (dmesg), and whether /proc and /sys are mounted",
                   "metadata", path, user="nobody")

    def test_a_device_that_has_no_name_any_more(self):
        path, device = self.volume(256 * self.MIB)
        self.prefix = ["unshare", "--mount", "sh", "-c", 'mount --bind /dev/null "$0" && exec "$@"', device]
        self.fails(f"cannot tell the size of {device} (Inappropriate ioctl for device); see whether it is there",
                   "metadata", path)


if __name__ == "__main__":
    main("zevotune_cli")
