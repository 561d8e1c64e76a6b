"""Btrfs volumes behind an SSD cache that is declared, and the end states that the pin engine promises for them.

What is pinned is told by the runs of the pin tool, what there is to pin by Btrfs' own tool, what is recorded by the mapping
file. Nothing of that is asked of the library.
"""

import fcntl
import glob
import os
import re
import shutil

from guest import HERE, JOB, MIB, program, read, write

from chunk_tree import metadata_chunks  # found by guest

TOOL = "/usr/zevo/sbin/zevocachepinfiletool"
RUNS = JOB + "/pin-tool"
BLOCK = 4096
MARKED, IN_CACHE = 1, 2


def chunks_of(device):
    """Metadata and system chunks, by address: size and offsets on the device."""
    program("sync")
    dump = program("btrfs", "inspect-internal", "dump-tree", "--tree", "chunk", device)
    return {chunk["logical_offset"]: (chunk["size"], chunk["device_offsets"]) for chunk in metadata_chunks(dump)}


def install_tool():
    os.makedirs(os.path.dirname(TOOL), exist_ok=True)
    shutil.copy(HERE + "/pin_tool.sh", TOOL)


class Blocks:
    """Bits for each block of a device."""

    def __init__(self, size):
        self.bits = bytearray(size // BLOCK)

    def change(self, offset, size, clear, then):
        part = slice(offset // BLOCK, (offset + size + BLOCK - 1) // BLOCK)
        self.bits[part] = self.bits[part].translate(bytes(value & ~clear | then for value in range(256)))

    def ranges(self):
        """Of what has any bit."""
        return [(match.start() * BLOCK, (match.end() - match.start()) * BLOCK)
                for match in re.finditer(rb"[^\0]+", self.bits)]

    def __sub__(self, other):
        left = Blocks(0)
        left.bits = bytearray(a if not b else 0 for a, b in zip(self.bits, other.bits))
        return left


class CachedVolume:
    """A Btrfs that is mounted, by a test case."""

    def __init__(self, test, device, path):
        self.test = test
        self.device = device
        self.path = path
        self.size = int(program("blockdev", "--getsize64", device))
        self.uuid = program("blkid", "--probe", "--output", "value", "--match-tag", "UUID", device)
        self.attribute = f"/sys/fs/btrfs/{self.uuid}/metadata_cache_enable"
        self.mapping = path + "/@eaDir/zevo_btrfs_metadata_mapping_config"

    def begin(self):
        """With an SSD cache, and nothing pinned in it."""
        install_tool()
        shutil.rmtree(RUNS, ignore_errors=True)
        os.mkdir(RUNS)
        write(RUNS + "/lines", "")
        self.declare()
        return self

    def declare(self, mode=4):
        write("/usr/zevo/etc/flash_cache.conf", f"[one]\nvolume = {self.path}\nid = ssd_1\nmode = {mode}\nflags = 0x6\n"
              "size = 256000000000\nreference = cache-1\n")

    def add_attributes(self):
        """As this kernel has none of its own. They go at each unmounting."""
        program("modprobe", "attributes")
        write("/sys/module/attributes/parameters/add", self.uuid)

    def runs(self):
        return re.findall(r"^--(\S+) --mount-path (\S+) --start-sector (\d+) --num-sectors (\d+)$", read(RUNS + "/lines"),
                          re.MULTILINE)

    def at_run(self, number, script, when="after"):
        """Of those to come, the first one being 1."""
        write(f"{RUNS}/{when}.{len(self.runs()) + number}", script)

    def forget_scripts(self):
        """Those that have not been run, or were run in vain as the machine went down."""
        for path in glob.glob(RUNS + "/before.*") + glob.glob(RUNS + "/after.*"):
            os.remove(path)

    def pinned(self):
        blocks = Blocks(self.size)
        for action, path, start, count in self.runs():
            self.test.assertEqual(path, self.path)
            clear, then = {"set-bitmap": (0, MARKED | IN_CACHE), "unset-bitmap": (MARKED, 0), "unpin-range": (IN_CACHE, 0)}[action]
            blocks.change(int(start) * 512, int(count) * 512, clear, then)
        return blocks

    def sections(self):
        """Of the mapping file: a dictionary for each; none without the file."""
        if not os.path.exists(self.mapping):
            return None
        sections = {}
        for line in read(self.mapping).splitlines():
            if header := re.fullmatch(r"\[(\w+)\]", line.strip()):
                keys = sections.setdefault(header[1], {})
            elif pair := re.fullmatch(r'(\w+)\s*=\s*"?(\d+)"?', line.strip()):
                keys[pair[1]] = int(pair[2])
            else:
                self.test.assertEqual(line.strip(), "")
        return sections

    def recorded(self):
        """By address: size, offsets on the device, and whether it is known to be pinned and read."""
        return {int(name): (keys["size"], [keys[f"stripe_offset_{i}"] for i in range(keys["stripe_count"])],
                            keys["status"] == 1)
                for name, keys in (self.sections() or {}).items() if name != "config"}

    def blocks_of(self, chunks):
        blocks = Blocks(self.size)
        for size, stripes, *_ in chunks:
            for stripe in stripes:
                blocks.change(stripe, size, 0, MARKED)
        return blocks

    def wanted(self):
        """All that is to be pinned."""
        copies = {number: (BLOCK, [offset]) for number, offset in [(1, 64 * 1024), (2, 64 * MIB), (3, 256 << 30)]
                  if offset + BLOCK <= self.size}
        return copies | chunks_of(self.device)

    def is_quiet(self):
        """Nothing is left of an engine: no pid file, progress, marker of the cache, and no lock."""
        folder = "/run/zevotuned/metadata_cache"
        self.test.assertEqual([name for name in os.listdir(folder) if os.path.isfile(f"{folder}/{name}")], [])
        self.test.assertEqual(os.listdir("/run/zevo/space_build") if os.path.exists("/run/zevo/space_build") else [], [])
        with open(f"/run/lock/zevotuned/metadata_cache/{self.uuid}.lock", "rb") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)

    def is_pinned(self):
        """All of it, and nothing else; recorded as it is; and the kernel knows."""
        wanted = self.wanted()
        self.test.assertEqual(self.recorded(), {name: (*chunk, True) for name, chunk in wanted.items()})
        self.test.assertEqual(self.sections()["config"]["status"], 2)
        self.test.assertEqual(self.pinned().ranges(), self.blocks_of(wanted.values()).ranges())
        self.test.assertEqual(read(self.attribute), "1")
        self.is_quiet()

    def is_off(self):
        """Nothing is pinned or recorded, and the kernel knows."""
        self.test.assertEqual((self.pinned().ranges(), self.sections(), read(self.attribute)), ([], None, "0"))
        self.is_quiet()

    def is_recorded(self):
        """Whatever has happened: what is pinned is recorded, and what is recorded as pinned is. Returns how much is."""
        recorded = self.recorded()
        pinned = self.pinned()
        self.test.assertEqual((pinned - self.blocks_of(recorded.values())).ranges(), [])
        done = [chunk for chunk in recorded.values() if chunk[2]]
        self.test.assertEqual((self.blocks_of(done) - pinned).ranges(), [])
        return len(recorded), len(done)

    def grow(self):
        """Until there are more chunks for metadata. Mounted with metadata_ratio=1, each one for data brings one."""
        before = chunks_of(self.device)
        for number in range(40):
            program("fallocate", "--length", "32M", f"{self.path}/data{number}")
            write(f"{self.path}/file{number}", "")
            program("sync", "--file-system", self.path)
            if len(chunks_of(self.device)) > len(before):
                return
        self.test.fail("no chunk has come")
