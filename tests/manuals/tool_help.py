"""What the tool says of itself: its commands with their options, as --help prints them."""

import dataclasses
import re
import subprocess


@dataclasses.dataclass
class Command:
    words: tuple  # without the tool's own name
    text: str     # of the help
    options: list
    arguments: list
    commands: list

    @property
    def name(self):
        return " ".join(self.words)

    @property
    def json_fields(self):
        """Fields of --json: names that begin a line or stand in quotes, and what no plain word looks like."""
        text = self.text.partition("\n--json:")[2]
        text = re.split(r"\n(?=\S)", text)[0]
        listed = re.findall(r"^  ([a-z_]+(?:, [a-z_]+)*)  ", text, re.MULTILINE)
        return ({name for names in listed for name in names.split(", ")} | set(re.findall(r'"([a-z_]+)":', text)) |
                set(re.findall(r"\b[a-z]+(?:_[a-z]+)+\b", text)))


def block(text, title):
    """The lines of a list such as "Options:"."""
    return re.findall(rf"^{title}:\n((?:  .*\n)+)", text, re.MULTILINE)


def firsts(text, title):
    return [line.split()[0] for lines in block(text, title) for line in lines.splitlines() if re.match(r"  \S", line)]


def read(tool, words=()):
    """The command of these words, and all below it."""
    text = subprocess.run([tool, *words, "--help"], check=True, capture_output=True, text=True).stdout
    options = [option for entry in firsts(text, "Options") for option in entry.split(",")]
    commands = firsts(text, "Subcommands")
    command = Command(words, text, options, firsts(text, "Positionals"), commands)
    return [command] + [below for name in commands for below in read(tool, (*words, name))]


def config_keys(commands):
    """The keys of "config set" with their defaults."""
    text = next(command.text for command in commands if command.name == "config set")
    return dict(re.findall(r"^  (\S+) \(default: (.*)\)$", text, re.MULTILINE))
