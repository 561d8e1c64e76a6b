"""A machine for the command line's tests: what it starts with, how the tool is run on it, and volumes of the real kernel.

The environment variable ZEVOTUNE holds the tool's path. Runs as root inside of tests/lab/enter only.
"""

import concurrent.futures
import fcntl
import json
import os
import re
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

sys.dont_write_bytecode = True  # this folder need not be writable
from chunk_tree import metadata_chunks  # pylint: disable=wrong-import-position

MARKER = "/run/zevotuned-lab"
SHIPPED = "/usr/zevo/share/zevotuned/profiles"
LOCAL = "/usr/local/share/zevotuned/profiles"
SHIPPED_GLOBAL = "/usr/zevo/share/zevotuned/global"
LOCAL_GLOBAL = "/usr/local/share/zevotuned/global"
CONFIG_DIR = "/usr/zevo/etc/zevotuned"
CONFIG = CONFIG_DIR + "/config"
LOCK_DIR = "/run/lock/zevotuned"
LOCK = LOCK_DIR + "/config.lock"
PARAMETERS = "/proc/sys/vm"
FOLDERS = ["/usr/zevo", "/usr/local/share", "/run/lock"]

THROUGHPUT = SHIPPED + "/10-throughput"
LATENCY = SHIPPED + "/20-latency"
DEFAULTS = {
    "profile": "performance_throughput",
    "lock": "false",
    "btrfs_metadata_cache_on": "true",
    "btrfs_metadata_cache_space_usage_limit": "100",
    "btrfs_metadata_cache_read_throttle_wait_mult": "0",
}


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else text.encode())
    return path


def read(path):
    with open(path, "rb") as file:
        return file.read()


def runs(command):
    """Whether a process of this command line runs."""
    line = "\0".join(command).encode() + b"\0"
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                if file.read() == line:
                    return True
        except OSError:
            pass  # it has ended
    return False


def parameter(name):
    return read(f"{PARAMETERS}/{name}").decode().strip()


def profile(path, name, main="", sysctl=""):
    return write(path, f"[main]\nname = {name}\n{main}[sysctl]\n{sysctl}")


def tree():
    """Everything that the tool may write to: names, modes, owners and contents."""
    entries = {}
    for top in FOLDERS + [PARAMETERS]:
        for folder, _, files in os.walk(top):
            for path in [folder] + [os.path.join(folder, name) for name in files]:
                status = os.lstat(path)
                content = read(path) if stat.S_ISREG(status.st_mode) else None
                entries[path] = (status.st_mode, status.st_uid, status.st_ino, content)
    return entries


class Machine(unittest.TestCase):
    """Starts every test on a machine with two profiles, on which the tool has never run."""

    maxDiff = None
    tool = os.environ.get("ZEVOTUNE", "")

    @classmethod
    def setUpClass(cls):
        cls.parameters = {name: read(f"{PARAMETERS}/{name}") for name in os.listdir(PARAMETERS)}
        # Where everybody can run it; the folder that it was built in need not be open to others.
        cls.public = tempfile.mkdtemp()
        os.chmod(cls.public, 0o755)
        shutil.copy(cls.tool, cls.public + "/zevotune")
        libraries = subprocess.run(["ldd", cls.tool], check=True, capture_output=True, text=True).stdout
        for path in re.findall(r"=> (\S*/lib(?:zevotuned|zevostorage|vunkcore)\.so\S*)", libraries):
            shutil.copy(path, cls.public)
        os.chmod(cls.public + "/zevotune", 0o755)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.public)

    def setUp(self):
        os.umask(0o022)
        for top in FOLDERS:
            for entry in os.scandir(top):
                if entry.is_dir(follow_symlinks=False):
                    shutil.rmtree(entry.path)
                else:
                    os.remove(entry.path)
        for name in os.listdir(PARAMETERS):
            if name not in self.parameters:
                os.remove(f"{PARAMETERS}/{name}")
        for name, value in self.parameters.items():
            write(f"{PARAMETERS}/{name}", value)
        os.mkdir("/usr/zevo/etc")
        profile(THROUGHPUT, "performance_throughput", "index = 0\nui = true\nprofile_title_i18n = title:throughput\n"
                "profile_desc_i18n = desc:throughput\n", "vm.swappiness = 11\n")
        profile(LATENCY, "performance_latency", "index = 1\n", "vm.swappiness = 22\n")

    def command(self, arguments, user):
        if user == "root":
            return [self.tool] + arguments
        return ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "env",
                "LD_LIBRARY_PATH=" + self.public, self.public + "/zevotune"] + arguments

    def run_tool(self, *arguments, user="root", **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": 60} | options
        result = subprocess.run(self.command(list(arguments), user), stdin=subprocess.DEVNULL, **options)
        return result.returncode, *(None if text is None else text.decode("utf-8", "surrogateescape")
                                    for text in (result.stdout, result.stderr))

    def run_on_terminal(self, columns, *arguments, **options):
        """Like run_tool. The terminal stays open until it was read to a mark behind the tool's text: what is written
        just before the last side is closed can get lost in the kernel."""
        master, slave = os.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        with (open(master, "rb") as shown, open(slave, "wb", buffering=0) as terminal,
              concurrent.futures.ThreadPoolExecutor() as readers):
            reader = readers.submit(lambda: b"".join(iter(lambda: shown.read(1), b"\0")))
            try:
                status, _, err = self.run_tool(*arguments, stdout=terminal, **options)
            finally:
                terminal.write(b"\0")
            text = reader.result(timeout=60)
        return status, text.decode().replace("\r\n", "\n"), err

    def succeeds(self, *arguments, user="root", err=""):
        """Returns what is printed."""
        status, out, real_err = self.run_tool(*arguments, user=user)
        self.assertEqual((real_err, status), (err, 0))
        return out

    def prints(self, out, *arguments, user="root"):
        self.assertEqual(self.succeeds(*arguments, user=user), out)

    def prints_json(self, value, *arguments, user="root"):
        """In every place that --json may have, and as ASCII."""
        texts = {self.succeeds(*arguments[:i], "--json", *arguments[i:], user=user) for i in range(len(arguments) + 1)}
        self.assertEqual(len(texts), 1)
        text = texts.pop()
        self.assertTrue(text.isascii())
        self.assertTrue(text.endswith("\n"))
        self.assertEqual(json.loads(text), value)

    def fails(self, line, *arguments, user="root", touching=False):
        """With this one line on standard error, nothing on standard output, and nothing on the machine changed."""
        before = tree()
        status, out, err = self.run_tool(*arguments, user=user)
        self.assertEqual((err, out, status), (f"zevotune: {line}\n", "", 1))
        if not touching:
            self.assertEqual(tree(), before)

    def change_half_way(self, arguments, change):
        """Makes a change while the tool applies a global profile. Returns what it printed and its exit status."""
        os.mkfifo(PARAMETERS + "/pipe")
        profile(SHIPPED_GLOBAL + "/g", "g", "", "vm.pipe = 1\n")
        started = subprocess.Popen(self.command(arguments, "root"), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(started.kill)
        # sysctl, which takes its argument apart in place, waits for somebody to read from the pipe, and the tool for sysctl.
        deadline = time.monotonic() + 60
        while not runs(["/sbin/sysctl", "-we", "vm.pipe", "1"]):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.005)
        change()
        self.assertEqual(read(PARAMETERS + "/pipe"), b"1\n")
        out, err = started.communicate(timeout=60)
        return err, out, started.returncode

    def configure(self, **pairs):
        write(CONFIG, "".join(f"{key} = {value}\n" for key, value in (DEFAULTS | pairs).items()))

    def make_lock(self):
        write(LOCK, "")


def program(*words):
    """Returns what it prints."""
    result = subprocess.run(words, check=False, capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{words} ended with status {result.returncode}: {result.stderr}")
    return result.stdout.strip()


class Volumes(Machine):
    """With loop devices, and file systems of the real kernel on them."""

    MIB = 1 << 20
    GIB = 1 << 30

    @classmethod
    def setUpClass(cls):
        try:
            os.close(os.open("/dev/loop-control", os.O_RDWR))
        except OSError as reason:
            raise unittest.SkipTest(f"there are no loop devices here: {reason}")
        super().setUpClass()
        # The lab's /sys is an overlay, which takes a loop device that has gone and come back for a stale one.
        program("mount", "--bind", "/run/lab/kernel-sys", "/sys")
        cls.addClassCleanup(program, "umount", "/sys")

    def setUp(self):
        super().setUp()
        self.locale = "C"
        self.prefix = []
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)

    def command(self, arguments, user):
        return self.prefix + super().command(arguments, user)

    def run_tool(self, *arguments, **options):
        return super().run_tool(*arguments, **{"env": os.environ | {"LC_ALL": self.locale}} | options)

    def device(self, size):
        """A loop device on a sparse file."""
        image, path = tempfile.mkstemp(dir=self.folder)
        os.truncate(image, size)
        os.close(image)
        device = program("losetup", "--find", "--show", path)
        self.addCleanup(subprocess.run, ["losetup", "--detach", device], stderr=subprocess.DEVNULL, check=False)
        return device

    def mount(self, *words):
        path = tempfile.mkdtemp(dir=self.folder)
        os.chmod(path, 0o755)
        program("mount", *words, path)
        self.addCleanup(program, "umount", path)
        return path

    def volume(self, size, *options, mount="metadata_ratio=1"):
        device = self.device(size)
        program("mkfs.btrfs", "--quiet", "--nodiscard", *options, device)
        return self.mount("--options", mount, device), device

    def chunks(self, device):
        """As Btrfs' own tool shows them."""
        program("sync")
        return metadata_chunks(program("btrfs", "inspect-internal", "dump-tree", "--tree", "chunk", device))


def main(name):
    if not os.path.exists(MARKER):
        sys.exit(f"{name}: {MARKER} is missing: run this with tests/lab/enter, or it changes this machine")
    if os.geteuid() != 0:
        sys.exit(f"{name}: needs root inside of tests/lab/enter")
    if not os.access(Machine.tool, os.X_OK):
        sys.exit(f"{name}: the environment variable ZEVOTUNE has to hold the path of zevotune")
    unittest.main()
