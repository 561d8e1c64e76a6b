"""Inside of a virtual machine: its disks, the system's log, the command line, and a table of what was checked.

Every file NAME_check.py holds test cases of the class Guest and calls main(). The machine is thrown away, so they change
its kernel's parameters, arrays and devices as they like. They start nowhere else.
"""

import glob
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

MIB = 1 << 20
GIB = 1 << 30
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.append(HERE + "/../system")  # what checks share with the tests of the command line
from waiting import until  # pylint: disable=wrong-import-position,unused-import
TOOL = os.environ.get("ZEVOTUNE", "")
SHIPPED = "/usr/zevo/share/zevotuned"
LOCAL = "/usr/local/share/zevotuned/profiles"
JOB = "/job"
PATIENCE = 120


def read(path):
    with open(path, encoding="utf-8", errors="surrogateescape") as file:
        return file.read().strip()


def write(path, text):
    """To a file that is there, as the kernel's are; a folder's new file otherwise."""
    if not path.startswith(("/sys/", "/proc/")):
        os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    return path


def program(*words, wanted=0, text=None):
    """Returns what it prints."""
    result = subprocess.run(words, check=False, capture_output=True, text=True, timeout=PATIENCE, input=text,
                            env=os.environ | {"DM_DISABLE_UDEV": "1"})
    if result.returncode != wanted:
        raise RuntimeError(f"{words} ended with status {result.returncode}: {result.stdout}{result.stderr}")
    return result.stdout.strip()


def load(*modules):
    for module in modules:
        program("modprobe", module)


def scsi_disks():
    """Their kernel names, in the order of the host's list. Waits for all of them, as they come by and by."""
    load("virtio_scsi", "sd_mod")
    disks = {}

    def are_there():
        disks.clear()
        for path in glob.glob("/sys/block/sd*"):
            target = os.path.basename(os.path.realpath(path + "/device")).split(":")[2]
            disks[int(target)] = os.path.basename(path)
        return len(disks) == int(os.environ["SCSI_DISKS"])
    until(are_there, "SCSI disks")
    return [disks[target] for target in sorted(disks)]


class Log:
    """The system's log: who logs blocks once a dozen lines wait, so that a thread takes them."""

    def __init__(self):
        self.lines = []
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        threading.Thread(target=self.take, daemon=True).start()

    def take(self):
        while True:
            text = self.socket.recv(65536).decode("utf-8", "surrogateescape")
            # <11>Nov 22 09:00:00 zevotune[123]: utils.cpp:12 Failed ...
            if line := re.match(r"<\d+>.{15} [^\[]*\[\d+\]: (.*)", text, re.DOTALL):
                self.lines.append(line[1].rstrip("\n"))
                with open(JOB + "/log", "a", encoding="utf-8", errors="surrogateescape") as file:
                    file.write(self.lines[-1] + "\n")

    def texts(self):
        """Without the positions in the code, which move."""
        return [re.sub(r"\.cpp:\d+", ".cpp:N", line) for line in self.lines]


class Guest(unittest.TestCase):
    """Starts every check with the shipped profiles, nothing selected, and an empty log."""

    maxDiff = None
    log = None

    def setUp(self):
        for folder in ["/usr/zevo", "/usr/local/share/zevotuned", "/run/zevotuned", "/run/lock/zevotuned"]:
            shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(HERE + "/../../profiles/stock", SHIPPED)
        os.makedirs("/usr/zevo/etc")
        os.makedirs("/run/lock", exist_ok=True)
        os.makedirs(LOCAL)
        Guest.log = Guest.log or Log()
        Guest.log.lines.clear()

    def run_tool(self, status, *arguments):
        result = subprocess.run([TOOL, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                                timeout=PATIENCE)
        self.assertEqual(result.returncode, status, (arguments, result.stdout, result.stderr, self.log.lines))
        return result

    def tool(self, *arguments, status=0):
        """Returns what it prints, on both outputs."""
        result = self.run_tool(status, *arguments)
        return result.stdout + result.stderr

    def json(self, *arguments, status=0):
        return json.loads(self.run_tool(status, *arguments, "--json").stdout)

    def profile(self, name, text):
        write(f"{LOCAL}/{name}", f"[main]\nname = {name}\n{text}")

    def logged(self, pattern):
        """One line of the log, which may be on its way."""
        until(lambda: any(re.fullmatch(pattern, line) for line in self.log.texts()), lambda: (pattern, self.log.texts()))

    def folder(self):
        path = tempfile.mkdtemp(dir="/run")
        self.addCleanup(os.rmdir, path)
        return path

    def mount(self, device, *options):
        path = self.folder()
        program("mount", *options, device, path)
        self.addCleanup(program, "umount", path)
        return path

    def loop(self, size):
        image, path = tempfile.mkstemp(dir="/run")
        os.truncate(image, size)
        os.close(image)
        self.addCleanup(os.remove, path)
        device = program("losetup", "--find", "--show", path)
        self.addCleanup(program, "losetup", "--detach", device)
        return device


class Table(unittest.TextTestResult):
    """Writes a line for each check: how long it took, what came of it, and what it is."""

    def startTest(self, test):
        super().startTest(test)
        self.began = time.monotonic()
        self.broken = len(self.failures) + len(self.errors)

    def stopTest(self, test):
        super().stopTest(test)
        good = self.broken == len(self.failures) + len(self.errors)
        report(time.monotonic() - self.began, good, test.id().split(".")[-1].removeprefix("test_").replace("_", " "))


def report(seconds, good, what):
    with open(JOB + "/table", "a", encoding="utf-8") as table:
        table.write(f"{seconds:6.1f} s  {'ok' if good else 'FAILED':6}  {what}\n")


def start():
    """Ends whoever is not in a virtual machine of ours."""
    if "zevotuned-vm" not in read("/proc/cmdline").split() or not os.path.isdir(JOB):
        sys.exit("this changes the machine that it runs on; tests/vm/run starts one for it")
    print(program("uname", "-a"))
    sys.stdout.flush()


def main():
    start()
    result = unittest.main(testRunner=unittest.TextTestRunner(resultclass=Table, stream=sys.stdout), exit=False).result
    sys.exit(0 if result.wasSuccessful() and not result.skipped and result.testsRun else 1)
