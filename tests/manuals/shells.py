"""Shells on a terminal of their own, in which the completion of zevotune is loaded and the tab key pressed."""

import os
import pathlib
import pty
import select
import shlex
import subprocess
import time

BASH_COMPLETION = pathlib.Path("/usr/share/bash-completion/bash_completion")

# Control-X A puts all completions of the word at the cursor into the line; Control-X P hands the line over.
BASH_START = """
PS1='> ' HISTFILE=
bind 'set bell-style none'
bind '"\\C-xa": insert-completions'
hand_over() { printf '%s\\0' "$READLINE_LINE" >>"$LINES_FILE"; READLINE_LINE= READLINE_POINT=0; }
bind -x '"\\C-xp": hand_over'
"""
ZSH_START = """
PS1='> ' HISTFILE=
bindkey -e
unsetopt beep
fpath=("${COMPLETION:h}" $fpath)
autoload -Uz compinit && compinit -u -D
insert_all() { compstate[insert]=all }
complete_all() { comppostfuncs=(insert_all); _main_complete }
zle -C complete-all complete-word complete_all
bindkey '^Xa' complete-all
hand_over() { printf '%s\\0' "$BUFFER" >>"$LINES_FILE"; BUFFER= }
zle -N hand_over
bindkey '^Xp' hand_over
"""


class Shell:
    """A shell that is asked for completions. Programs of the folder bin come before all others."""

    def __init__(self, command, folder, environment):
        self.lines_file = folder / "lines"
        self.lines_file.write_bytes(b"")
        self.screen = b""
        controller, terminal = pty.openpty()
        self.process = subprocess.Popen(
            command, stdin=terminal, stdout=terminal, stderr=terminal, start_new_session=True, cwd=folder,
            env={"PATH": f"{folder / 'bin'}:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(folder), "TERM": "dumb",
                 "LC_ALL": "C.UTF-8", "LINES_FILE": str(self.lines_file), "INPUTRC": "/dev/null", **environment})
        os.close(terminal)
        self.terminal = controller
        self.handed_over = 0

    def complete(self, text, key=b"\t"):
        """The line after the tab key has been pressed at its end."""
        os.write(self.terminal, text.encode() + key + b"\x18p")
        end = time.monotonic() + 30
        while True:
            lines = self.lines_file.read_bytes().split(b"\0")[:-1]
            if len(lines) > self.handed_over:
                self.handed_over = len(lines)
                return lines[-1].decode()
            if time.monotonic() > end or self.process.poll() is not None:
                raise RuntimeError(f"{self.process.args[0]} does not answer to {text!r}; its screen: {self.screen!r}")
            if select.select([self.terminal], [], [], 0.02)[0]:
                try:
                    self.screen += os.read(self.terminal, 65536)
                except OSError:
                    time.sleep(0.02)

    def offered(self, text, word=""):
        """All completions of a word without blanks at the end of a line."""
        line = self.complete(text + " " + word, b"\x18a")
        words = shlex.split(line[len(text) + 1:])
        return sorted(words) if words != [word] else []

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.terminal)


def bash(folder, completion, with_package):
    start = BASH_START + (f". {BASH_COMPLETION}\n" if with_package else "") + f". '{completion}'\n"
    (folder / "bashrc").write_text(start)
    return Shell(["bash", "--noprofile", "--rcfile", str(folder / "bashrc"), "-i"], folder, {})


def zsh(folder, completion):
    (folder / ".zshrc").write_text(ZSH_START)
    return Shell(["zsh", "-d", "-i"], folder, {"ZDOTDIR": str(folder), "COMPLETION": str(completion)})
