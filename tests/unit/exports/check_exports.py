#!/usr/bin/env python3
"""Checks that a shared library exports exactly the symbols of a list, under the name that programs are linked with."""

import argparse
import pathlib
import re
import subprocess
import sys


def lines_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def exported(nm, library):
    # "name type value size", the name without a version
    return {line.split()[0].split("@")[0] for line in lines_of(nm, "-D", "--defined-only", "-P", library)}


def soname(readelf, library):
    found = re.search(r"\(SONAME\).*\[(.*)\]", "\n".join(lines_of(readelf, "-d", "-W", library)))
    return found.group(1) if found else None


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--nm", default="nm")
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("library")
    parser.add_argument("soname")
    parser.add_argument("symbols", type=pathlib.Path, help="list of symbols, one a line, sorted")
    arguments = parser.parse_args()

    listed = arguments.symbols.read_text().splitlines()
    faults = []
    if listed != sorted(set(listed)):
        faults.append(f"{arguments.symbols} is not sorted, or names a symbol twice")
    present = exported(arguments.nm, arguments.library)
    faults += [f"{name} is not exported" for name in sorted(set(listed) - present)]
    faults += [f"{name} is exported, but not listed" for name in sorted(present - set(listed))]
    name = soname(arguments.readelf, arguments.library)
    if name != arguments.soname:
        faults.append(f"the soname is {name}, not {arguments.soname}")

    for fault in faults:
        print(f"{arguments.library}: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
