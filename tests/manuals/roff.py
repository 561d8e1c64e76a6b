"""Manual pages, as much of them as a test has to read."""

import re


def plain(line):
    """A line of a page's source without requests, fonts and escapes."""
    line = re.sub(r"^\.(?:B|I|BR|BI|RB|RI|IR|IB|SS|SH)\s+", "", line)
    line = re.sub(r"\\f[A-Z]", "", line).replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")
    return line.replace('"', "")


def divided(lines, request):
    """The lines behind each heading of a kind: {heading: [line...]}."""
    parts, heading = {}, None
    for line in lines:
        if line.startswith(f".{request} "):
            heading = plain(line).strip()
            parts[heading] = []
        elif heading is not None:
            parts[heading].append(line)
    return parts


def sections(path):
    return divided(path.read_text().splitlines(), "SH")


def terms(lines):
    """What a list explains: the words of each line that stands behind .TP."""
    found = []
    for before, line in zip(lines, lines[1:]):
        if before.split() and before.split()[0] == ".TP":
            found += re.split(r"[ ,]+", plain(line).strip())
    return found
