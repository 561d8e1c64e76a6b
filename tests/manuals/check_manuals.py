#!/usr/bin/env python3
"""Checks that manual pages, completions and guides have everything that there is, and nothing else: the tool's
commands, options, keys and JSON fields, the library's functions, the log's lines. Completions are asked for in real
shells.

Exit status: 0 all is there, 1 something is not, 77 something could not be looked at, and nothing else is wrong.
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # this folder need not be writable
import roff  # pylint: disable=wrong-import-position
import shells  # pylint: disable=wrong-import-position
import tool_help  # pylint: disable=wrong-import-position

COMMON_OPTIONS = {"-h", "--help", "--json"}

# What the stubs say: findmnt as it writes a blank, and a name that a shell does not take as it is.
PROFILES = ["plain", "night backup", "performance_latency"]
VOLUMES = ["/srv/all films", "/srv/tank:1", "/volume1"]
FINDMNT_VOLUMES = [path.replace(" ", "\\x20") for path in VOLUMES]
COMPLAINT = "the stub fails"


class Findings:
    def __init__(self):
        self.faults = []
        self.skips = []

    def compare(self, where, what, expected, present):
        """Both are names; each is to hold what the other one holds."""
        self.faults += [f"{where}: {what} {name} is missing" for name in sorted(set(expected) - set(present))]
        self.faults += [f"{where}: there is no {what} {name}" for name in sorted(set(present) - set(expected))]

    def expect(self, where, question, expected, present):
        if expected != present:
            self.faults.append(f"{where}: {question!r} gives {present!r}, not {expected!r}")


def check_tool_page(findings, page, commands):
    sections = roff.sections(page)
    parts = {}
    for heading, lines in roff.divided(sections["COMMANDS"], "SS").items():
        words = heading.split()
        name = " ".join(word for word in words if re.fullmatch("[a-z]+", word))
        parts[name] = (words, lines)
    findings.compare(page, "command", {command.name for command in commands[1:]}, parts)

    top = set(roff.terms(sections["OPTIONS"]))
    findings.compare(page, "option", commands[0].options, top)
    for command in commands[1:]:
        words, lines = parts.get(command.name, ([], []))
        where = f"{page}, {command.name}"
        own = set(command.options) - COMMON_OPTIONS
        explained = roff.terms(lines)
        findings.compare(where, "option", own, {word for word in explained if word.startswith("-")})
        findings.compare(where, "option of the heading", own, {word.strip("[]") for word in words if "-" in word})
        findings.compare(where, "argument", {argument.rstrip(".") for argument in command.arguments},
                         {word.strip("[].") for word in words if word.strip("[].").isupper()})
        bold = " ".join(roff.plain(line) for line in lines if line.startswith(".B"))
        documented = set(re.findall(r"\b[a-z_]+\b", bold))
        findings.compare(where, "JSON field", command.json_fields, command.json_fields & documented)


def check_library_page(findings, page, symbols):
    functions = {}
    for symbol in symbols.read_text().split():
        mangled = re.match(r"_Z(\d+)", symbol)
        functions[symbol[mangled.end():][:int(mangled[1])] if mangled else symbol] = symbol
    sections = roff.sections(page)
    declared = re.findall(r"\b(\w+)\(", "\n".join(roff.plain(line) for line in sections["SYNOPSIS"]))
    findings.compare(f"{page}, synopsis", "function", functions, declared)
    described = re.findall(r"\b(\w+) \(\)", "\n".join(
        roff.plain(line) for before, line in zip(sections["DESCRIPTION"], sections["DESCRIPTION"][1:])
        if before == ".TP"))
    findings.compare(f"{page}, description", "function", functions, described)
    listed = re.findall(r"^_Z\w+$", "\n".join(sections["DESCRIPTION"]), re.MULTILINE)
    findings.compare(f"{page}, symbols", "symbol", {symbol for symbol in functions.values() if symbol.startswith("_Z")},
                     listed)


def check_config_page(findings, page, keys):
    parts = roff.divided(roff.sections(page)["DESCRIPTION"], "SS")["Keys"]
    findings.compare(page, "key", keys, roff.terms(parts))
    text = " ".join(roff.plain(line) for line in parts)
    for key, default in keys.items():
        own = text.partition(f" {key} ")[2].partition(".TP")[0]
        if not re.search(rf"Default: {re.escape(default)}\b", own):
            findings.faults.append(f"{page}: the default of {key}, {default}, is not given")


def check_roff(findings, pages):
    if shutil.which("groff") is None:
        findings.skips.append("groff is not installed: the pages' syntax is not checked")
        return
    for page in pages:
        said = subprocess.run(["groff", "-man", "-ww", "-z", "-Tutf8", str(page)], capture_output=True, text=True,
                              check=False).stderr
        findings.faults += said.splitlines()


def check_log_lines(findings, root):
    """The guide has every text that the library logs, between backquotes, and no text that it does not log."""
    logged = set()
    for source in sorted((root / "src").rglob("*.cpp")):
        for call in re.finditer(r'\bLOG_(?:ERROR\w*|NOTABLE)\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)', source.read_text()):
            text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', call[1]))
            logged.add(" ".join(text.replace("\\n", "").split()))
    page = root / "docs/troubleshooting.md"
    lines = page.read_text().partition("\n## Every line\n")[2].partition("\n## ")[0]
    quoted = {" ".join(text.split()) for text in re.findall("`([^`]+)`", lines)}
    explained = {text for text in quoted if text in logged or re.match(r"(?i)(fail|VUNKC\w+ fail|%s:%d )", text)}
    findings.compare(page, "log line", logged, explained)
    if len(logged) < 100:
        findings.faults.append(f"{root / 'src'}: only {len(logged)} log lines are found: looked for wrongly")


def make_stubs(folder):
    programs = folder / "bin"
    programs.mkdir()

    def stub(name, script):
        program = programs / name
        program.write_text(f"#!/bin/sh\n[ ! -e '{folder}/fail' ] || {{ echo '{COMPLAINT}' >&2; exit 1; }}\n{script}\n")
        program.chmod(0o755)

    def says(lines):
        return "printf '%s\\n' " + " ".join(f"'{line}'" for line in lines)

    stub("zevotune", f"[ \"$*\" != 'list --names' ] || {says(PROFILES)}")
    stub("findmnt", f"case \"$*\" in *btrfs*) {says(FINDMNT_VOLUMES)} ;; esac")
    (folder / "mine.profile").touch()
    (folder / "my profile").touch()


def check_words(findings, where, shell, commands, keys):
    for command in commands:
        line = " ".join(("zevotune", *command.words))
        findings.compare(f"{where}, {line}", "option", command.options,
                         set(shell.offered(line, "--")) | set(shell.offered(line, "-")))
        if command.commands:
            findings.compare(f"{where}, {line}", "command", command.commands, shell.offered(line))
        elif command.arguments[:1] == ["NAME"]:
            findings.expect(where, line, sorted(PROFILES), shell.offered(line))
        elif command.arguments[:1] == ["VOLUME"]:
            findings.expect(where, line, sorted(VOLUMES), shell.offered(line))
        elif command.arguments[:1] == ["KEY"]:
            findings.compare(f"{where}, {line}", "key", keys, shell.offered(line))
        elif command.arguments[:1] == ["FILE"]:
            findings.expect(where, line, ["mine.profile", "my profile"], shell.offered(line, "m"))
        elif command.arguments:
            findings.faults.append(f"{where}: this test does not know the argument {command.arguments[0]} of {line}")


def check_typing(findings, where, shell):
    for typed, completed in [
            ("zevotune li", "zevotune li"),
            ("zevotune lis", "zevotune list "),
            ("zevotune --json verif", "zevotune --json verify "),
            ("zevotune set ni", "zevotune set night\\ backup "),
            ("zevotune set 'night b", "zevotune set 'night backup' "),
            ("zevotune verify \"night b", "zevotune verify \"night backup\" "),
            ("zevotune plan --json pl", "zevotune plan --json plain "),
            ("zevotune set plain pl", "zevotune set plain pl"),
            ("zevotune cache on /srv/a", "zevotune cache on /srv/all\\ films "),
            ("zevotune metadata /srv/all\\ f", "zevotune metadata /srv/all\\ films "),
            ("zevotune cache status /srv/tank:", "zevotune cache status /srv/tank:1 "),
            ("zevotune cache stop /us", "zevotune cache stop /usr/"),
            ("zevotune lint mine.profile my", "zevotune lint mine.profile my\\ profile "),
            ("zevotune config set profile perf", "zevotune config set profile performance_latency "),
            ("zevotune config set lock t", "zevotune config set lock true "),
            ("zevotune nonsense pl", "zevotune nonsense pl")]:
        findings.expect(where, typed, completed, shell.complete(typed))


def check_failing(findings, where, shell, folder):
    (folder / "fail").touch()
    findings.expect(where, "a profile, and the tool fails", [], shell.offered("zevotune set"))
    findings.expect(where, "a volume, and findmnt fails", [], shell.offered("zevotune cache on", "/srv/a"))
    for program in (folder / "bin").iterdir():
        program.unlink()
    if shutil.which("zevotune") is None:
        findings.expect(where, "a profile without the tool", [], shell.offered("zevotune set"))
    for complaint in [COMPLAINT, "not found", "rror"]:
        if complaint in shell.screen.decode(errors="replace"):
            findings.faults.append(f"{where}: {complaint!r} shows on the screen: {shell.screen!r}")


def check_completion(findings, where, start, commands, keys):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        make_stubs(folder)
        shell = start(folder)
        try:
            check_words(findings, where, shell, commands, keys)
            check_typing(findings, where, shell)
            check_failing(findings, where, shell, folder)
        finally:
            shell.close()


def check_completions(findings, folder, commands, keys):
    of_bash, of_zsh = folder / "zevotune.bash", folder / "_zevotune"
    check_completion(findings, of_bash, lambda home: shells.bash(home, of_bash, False), commands, keys)
    if shells.BASH_COMPLETION.exists():
        check_completion(findings, f"{of_bash} with bash-completion", lambda home: shells.bash(home, of_bash, True),
                         commands, keys)
    else:
        findings.skips.append("bash-completion is not installed: bash is tried without it only")
    if shutil.which("zsh") is not None:
        check_completion(findings, of_zsh, lambda home: shells.zsh(home, of_zsh), commands, keys)
    else:
        findings.skips.append("zsh is not installed: its completion is not tried")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("tool", type=pathlib.Path, help="the built zevotune")
    parser.add_argument("symbols", type=pathlib.Path, help="list of the library's symbols, one a line")
    parser.add_argument("root", type=pathlib.Path, help="the repository")
    arguments = parser.parse_args()
    root = arguments.root.resolve()

    commands = tool_help.read(arguments.tool.resolve())
    keys = tool_help.config_keys(commands)
    findings = Findings()
    check_tool_page(findings, root / "man/zevotune.1", commands)
    check_library_page(findings, root / "man/libzevotuned.3", arguments.symbols)
    check_config_page(findings, root / "man/zevotuned-config.5", keys)
    check_roff(findings, sorted((root / "man").glob("*.[1-9]")))
    check_log_lines(findings, root)
    check_completions(findings, root / "completions", commands, keys)

    for fault in findings.faults:
        print(fault, file=sys.stderr)
    for skip in findings.skips:
        print(f"skipped: {skip}")
    print(f"{len(commands) - 1} commands, {len(keys)} keys: {len(findings.faults)} faults")
    return 1 if findings.faults else 77 if findings.skips else 0


if __name__ == "__main__":
    sys.exit(main())
