"""Volumes on what storage is stacked of: which disks they lie on, which SSD cache stands in front, and where their metadata is.

What is expected is what each check has built, and what the kernel, dmsetup and Btrfs' own tools say of that; never what
the tool says elsewhere. Devices are left standing, for the machine is thrown away, and no part of a disk is used twice.
"""

import ctypes
import fcntl
import glob
import os
import re
import stat
import struct
import subprocess
import uuid

from guest import GIB, MIB, TOOL, Guest, load, main, program, read, scsi_disks, until, write

from chunk_tree import metadata_chunks  # found by guest

PART = 176 * MIB  # Btrfs with two copies of its metadata takes 109 MiB, and LUKS and LVM take some more
DECLARATIONS = "/usr/zevo/etc/flash_cache.conf"
CANNOT_PIN, NO_CACHE = 4, 2
WRITE_THROUGH, WRITE_BACK, READ_ONLY = 1, 4, 5
TWO_DEVICES = "it lies on 2 devices, and only of volumes on one device can be told what lies where"
BLKFLSBUF, BLKPG, BLKPG_ADD_PARTITION = 0x1261, 0x1269, 1
# No udev is there to wait for, nor a daemon to monitor anything.
LVM = ("activation{udev_sync=0 udev_rules=0 monitoring=0} devices{obtain_device_list_from_udev=0 use_devicesfile=0} "
       "backup{backup=0 archive=0}")


class Space(ctypes.Structure):
    """ZEVOSPACEINFO"""


Space._fields_ = [("device", ctypes.c_char_p), ("alternative", ctypes.c_char_p), ("path", ctypes.c_char_p),
                  ("uuid", ctypes.c_char_p), ("next", ctypes.POINTER(Space))]


class Cache(ctypes.Structure):
    """ZEVOFLASHCACHECONFIG"""
    _fields_ = [("mode", ctypes.c_int), ("id", ctypes.c_char_p), ("reference", ctypes.c_char_p),
                ("size", ctypes.c_ulonglong)]


def kernel_name(node):
    """Of a device node, by its number."""
    number = os.stat(node).st_rdev
    return os.path.basename(os.readlink(f"/sys/dev/block/{os.major(number)}:{os.minor(number)}"))


def size_of(node):
    return int(read(f"/sys/class/block/{kernel_name(node)}/size")) * 512


def add_partition(disk, number, start, size):
    """No program that writes partition tables is here, and the kernel takes a partition without one."""
    record = ctypes.create_string_buffer(struct.pack("qqi64s64s", start, size, number, b"", b""))
    with open(disk, "rb") as file:
        fcntl.ioctl(file, BLKPG, struct.pack("iiiP", BLKPG_ADD_PARTITION, 0, len(record), ctypes.addressof(record)))


def lvm(*words, devices):
    return program("lvm", *words, "--config", LVM, "--devices", ",".join(devices))


def mapped(name, *targets):
    """A device-mapper device: its node."""
    program("dmsetup", "create", name, text="\n".join(targets) + "\n")
    return "/dev/mapper/" + name


def linear(*parts):
    """Targets that lay parts of disks end to end."""
    start = 0
    targets = []
    for part in parts:
        sectors = size_of(part) // 512
        targets.append(f"{start} {sectors} linear {part} 0")
        start += sectors
    return targets


def reload(name, *targets):
    """Gives a device in use another table."""
    program("dmsetup", "load", name, text="\n".join(targets) + "\n")
    program("dmsetup", "resume", name)


def mode_in_use(name):
    """How the kernel itself calls a dm-cache's mode; its table holds what was asked for, letter for letter."""
    words = program("dmsetup", "status", name).split()
    return [word for word in words if word in ("writethrough", "writeback", "passthrough")]


def cache_blocks(name):
    """How many bytes of data the kernel says a dm-cache has room for."""
    block_size, blocks = program("dmsetup", "status", name).split()[5:7]
    return int(block_size) * 512 * int(blocks.split("/")[1])


def encrypted(part, name):
    write("/run/key", "a passphrase")
    program("cryptsetup", "--batch-mode", "luksFormat", "--type", "luks2", "--pbkdf", "pbkdf2", "--pbkdf-force-iterations",
            "1000", "--key-file", "/run/key", part)
    program("cryptsetup", "open", "--key-file", "/run/key", part, name)
    return "/dev/mapper/" + name


def btrfs(*devices, kind="dup"):
    """Makes a file system with this profile of metadata, or "mixed" with data: its UUID."""
    identity = str(uuid.uuid4())
    profiles = {"mixed": ["--mixed", "--metadata", "dup", "--data", "dup"],
                "raid1": ["--metadata", "raid1", "--data", "raid1"]}.get(kind, ["--metadata", kind, "--data", "single"])
    program("mkfs.btrfs", "--quiet", "--force", "--nodiscard", "--uuid", identity, *profiles, *devices)
    return identity


def chunks(device):
    """Those of metadata, as Btrfs' own tool shows them."""
    os.sync()
    with open(device, "rb") as file:
        fcntl.ioctl(file, BLKFLSBUF)  # what an earlier look has left in memory is not what Btrfs has written since
    dump = program("btrfs", "inspect-internal", "dump-tree", "--tree", "chunk", device)
    return [chunk | {"pinned": False} for chunk in metadata_chunks(dump)]


def superblocks(device):
    """Those that stand on the device, at the places that Btrfs has for them."""
    found = []
    with open(device, "rb") as file:
        places = [64 << 10, 64 * MIB, 256 * GIB]
        for copy, offset in enumerate(place for place in places if place + 4096 <= size_of(device)):
            file.seek(offset + 64)
            if file.read(8) == b"_BHRfS_M":
                found.append({"copy": copy + 1, "size": 4096, "device_offset": offset, "pinned": False})
    return found


class Volumes(Guest):
    @classmethod
    def setUpClass(cls):
        disks = ["/dev/" + name for name in scsi_disks()]
        cls.rotating, cls.flash = disks[:4], disks[4:]
        cls.used = {disk: MIB for disk in disks}
        cls.ssds = set(cls.flash)
        cls.count = 0
        load("btrfs", "ext4", "loop", "raid1", "raid456", "dm_mod", "dm_cache", "dm_cache_smq", "dm_writecache", "dm_crypt",
             "xts", "algif_skcipher", "bcache")
        path = re.search(r"=> (\S*/libzevostorage\.so\S*)", program("ldd", TOOL))[1]
        cls.storage = ctypes.CDLL(path)

    @classmethod
    def part(cls, disk, size=PART):
        """A partition that nobody has used."""
        number = 1
        while os.path.exists(f"{disk}{number}"):
            number += 1
        add_partition(disk, number, cls.used[disk], size)
        cls.used[disk] += size
        return f"{disk}{number}"

    @classmethod
    def array(cls, level, *parts):
        cls.count += 1
        node = f"/dev/md{10 + cls.count}"
        program("mdadm", "--create", node, "--run", "--assume-clean", "--quiet", f"--level={level}",
                f"--raid-devices={len(parts)}", *parts)
        until(lambda: os.path.exists(node), node)
        return node

    def mounted(self, device, *, kind="dup", options="defaults"):
        """A new file system, mounted: its path and its UUID."""
        identity = btrfs(device, kind=kind)
        return self.mount(device, "--options", options), identity

    def volume(self, path):
        found = [volume for volume in self.json("devices")["volumes"] if volume["path"] == path]
        self.assertEqual(len(found), 1, path)
        return found[0]

    def lies_on(self, path, identity, device, disks, file_system="btrfs"):
        """What "zevotune devices" says of a volume: all of it. Of several devices any may be the one that is named."""
        ssd_only = set(disks) <= self.ssds
        volume = self.volume(path)
        if isinstance(device, list):
            device = next((one for one in device if "/dev/" + kernel_name(one) == volume["device"]), device[0])
        volume["disks"].sort(key=lambda disk: disk["device"])
        self.assertEqual(volume, {
            "path": path, "file_system": file_system, "uuid": identity, "device": "/dev/" + kernel_name(device),
            "alternative_device": device if device.startswith("/dev/mapper/") else None,
            "disks": [{"device": disk, "ssd": disk in self.ssds, "error": None} for disk in sorted(disks)],
            "ssd_only": ssd_only, "sections": ["volume"] if ssd_only and file_system == "btrfs" else [], "error": None})
        return device

    def cache_of(self, path):
        """What the library finds in front of a volume, as zevostorage/flash_cache.h has it; None when there is none."""
        spaces = ctypes.POINTER(Space)()
        self.assertEqual(self.storage.ZEVOSpaceInfoEnum(1, ctypes.byref(spaces)), 0)
        space = spaces
        while space and space[0].path != path.encode():
            space = space[0].next
        self.assertTrue(space, path)
        cache = ctypes.POINTER(Cache)()
        found = self.storage.ZEVOFlashCacheConfigTmpGet(space, 2, ctypes.byref(cache))
        self.assertIn(found, (0, 1))
        self.assertEqual(self.storage.ZEVOFlashCachePinIsVolumeSupport(path.encode()), 0)
        result = None
        if found:
            flags = ctypes.c_uint(1)
            self.assertEqual(self.storage.ZEVOFlashCacheSupportFlagsGet(cache, ctypes.byref(flags)), 0)
            self.assertEqual(flags.value, 0)
            self.assertRegex(cache[0].id.decode(), r"^ssd_\d+$")
            result = (cache[0].mode, cache[0].reference.decode(), cache[0].size)
            self.cache_id = cache[0].id
            self.storage.ZEVOFlashCacheConfigFree(cache)
        self.storage.ZEVOSpaceInfoFree(spaces)
        return result

    def has_cache(self, path, mode, name, size):
        self.assertEqual(self.cache_of(path), (mode, name, size))

    def cannot_pin(self, path, cache):
        why = (f"its SSD cache \"{cache}\" cannot pin, as those of the kernel's own cannot; it takes one with a pin tool, "
               f"declared in {DECLARATIONS} with 0x4 and 0x2 among its \"flags\"")
        self.assertEqual(self.json("cache", "check", path, status=1),
                         {"path": path, "supported": False, "can_pin": False, "reason": CANNOT_PIN, "why": why,
                          "ssd_cache": cache})

    def lacks_a_cache(self, path, device):
        self.assertIsNone(self.cache_of(path))
        why = (f"no SSD cache stands in front of it in which metadata could be pinned; attach one to {device}, or declare "
               f"the one that there is in {DECLARATIONS}")
        self.assertEqual(self.json("cache", "check", path, status=1),
                         {"path": path, "supported": False, "can_pin": False, "reason": NO_CACHE, "why": why,
                          "ssd_cache": None})

    def layer_is(self, path, device):
        """The volume's own layer of virtual devices; None on a disk or a partition."""
        name = ctypes.create_string_buffer(b"unchanged", 128)
        result = self.storage.ZEVOVSpaceLayerPathGet(1, path.encode(), name, 128)
        expected = (-1, b"unchanged") if device is None else (0, f"/dev/{kernel_name(device)}".encode())
        self.assertEqual((result, name.value), expected)

    def metadata_is_there(self, path, identity, device):
        """Where on its device, as Btrfs' own tool says it."""
        expected = chunks(device)
        copies = superblocks(device)
        self.assertGreaterEqual(len(expected), 2)
        self.assertEqual([copy["copy"] for copy in copies], [1, 2, 3] if size_of(device) > 256 * GIB else [1, 2])
        on_device = sum(chunk["size"] * len(chunk["device_offsets"]) for chunk in expected)
        shown = self.json("metadata", path)
        self.assertEqual(shown, {
            "path": path, "uuid": identity, "device": device, "device_size": size_of(device), "superblocks": copies,
            "chunks": expected, "totals": {
                "chunks": len(expected), "logical_size": sum(chunk["size"] for chunk in expected),
                "size_on_device": on_device, "counted_by_kernel": on_device, "pinned": 0}})
        return shown

    def metadata_is_refused(self, path, reason):
        self.assertEqual(self.tool("metadata", path, status=1), f"zevotune: cannot show the metadata of \"{path}\": {reason}\n")

    def test_partitions_with_each_profile_of_metadata(self):
        for disk, kind, profile in [(self.flash[0], "dup", "DUP"), (self.rotating[0], "single", "single"),
                                    (self.flash[0], "mixed", "DUP")]:
            device = self.part(disk)
            path, identity = self.mounted(device, kind=kind)
            self.lies_on(path, identity, device, [disk])
            self.lacks_a_cache(path, device)
            self.layer_is(path, None)
            found = self.metadata_is_there(path, identity, device)["chunks"]
            self.assertEqual({chunk["profile"] for chunk in found}, {profile})
            self.assertEqual({chunk["type"] for chunk in found},
                             {"system", "mixed" if kind == "mixed" else "metadata"})

    def test_new_chunks_of_metadata(self):
        device = self.part(self.rotating[0], 1024 * MIB)
        path, identity = self.mounted(device, options="metadata_ratio=1")
        before = self.metadata_is_there(path, identity, device)["chunks"]
        for number in range(20):
            with open(f"{path}/data{number}", "wb") as file:
                os.posix_fallocate(file.fileno(), 0, 10 * MIB)
        after = self.metadata_is_there(path, identity, device)["chunks"]
        self.assertGreater(len(after), len(before))

    def test_loop_device_under_a_name_of_ones_own(self):
        device = self.loop(257 * GIB)  # of a file that has holes; with the last copy of the superblock
        node = "/run/a node"
        os.mknod(node, 0o600 | stat.S_IFBLK, os.stat(device).st_rdev)
        identity = btrfs(device)
        path = self.mount(node)
        # A device that is made of no other counts as a disk.
        ssd = read(f"/sys/block/{kernel_name(device)}/queue/rotational") == "0"
        volume = self.volume(path)
        self.assertEqual((volume["device"], volume["disks"], volume["ssd_only"]),
                         (device, [{"device": device, "ssd": ssd, "error": None}], ssd))
        self.metadata_is_there(path, identity, device)

    def test_ext4_on_a_partition_of_an_array(self):
        disks = [self.flash[0], self.rotating[1]]
        array = self.array(1, *(self.part(disk, 64 * MIB) for disk in disks))
        device = array + "p1"
        add_partition(array, 1, MIB, 48 * MIB)
        program("mkfs.ext4", "-q", device)
        path = self.mount(device)
        self.lies_on(path, None, device, disks, "ext4")
        self.layer_is(path, None)
        self.assertIsNone(self.cache_of(path))
        self.metadata_is_refused(path, "it is not a Btrfs volume (\"zevotune devices\" lists the volumes)")

    def test_mounted_in_many_places(self):
        device = self.part(self.flash[1])
        top, identity = self.mounted(device)
        program("btrfs", "subvolume", "create", top + "/sub")
        os.mkdir(top + "/folder")
        write(top + "/file", "")
        paths = {}
        for name, source, options in [("sub", device, ["--options", "subvol=sub"]), ("bind", top + "/folder", ["--bind"]),
                                      ("again", device, [])]:
            paths[name] = self.mount(source, *options)
        os.mkdir("/run/0")
        self.addCleanup(os.rmdir, "/run/0")
        program("mount", device, "/run/0")
        self.addCleanup(subprocess.run, ["umount", "/run/0"], stderr=subprocess.DEVNULL, check=False)
        write("/run/a-file", "")
        program("mount", "--bind", top + "/file", "/run/a-file")
        self.addCleanup(program, "umount", "/run/a-file")

        # Of one device: the root's mount with the shortest path.
        named = self.json("devices")["volumes"]
        self.assertEqual([volume["path"] for volume in named if volume["uuid"] == identity], ["/run/0"])
        self.lies_on("/run/0", identity, device, [self.flash[1]])
        shown = self.metadata_is_there("/run/0", identity, device)
        for path in [paths["sub"], "/run/a-file", device]:
            self.assertEqual(self.json("metadata", path), shown)
        program("umount", "/run/0")
        first = min(top, paths["again"])
        self.lies_on(first, identity, device, [self.flash[1]])

        # A mount that another one stands on cannot be reached any more.
        for path in [top, paths["again"]]:
            program("mount", "-t", "tmpfs", "hides", path)
        self.lies_on(min(paths["sub"], paths["bind"]), identity, device, [self.flash[1]])
        for path in [top, paths["again"]]:
            program("umount", path)
        self.lies_on(first, identity, device, [self.flash[1]])

    def test_lengths_of_two_disks_that_are_renamed(self):
        disks = self.flash[:2]
        node = mapped("before", *linear(*(self.part(disk, 96 * MIB) for disk in disks)))
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, disks)
        program("dmsetup", "rename", "before", "after")
        other = mapped("before", *linear(self.part(self.rotating[1], 16 * MIB)))
        self.addCleanup(program, "dmsetup", "remove", other)
        # Btrfs goes on calling it by the name that another device has now, until somebody tells it otherwise.
        self.lies_on(path, identity, "/dev/mapper/after", disks)
        self.metadata_is_there(path, identity, "/dev/mapper/after")
        # As udev's rules do.
        program("btrfs", "device", "scan", "/dev/mapper/after")
        self.lies_on(path, identity, "/dev/mapper/after", disks)
        self.metadata_is_there(path, identity, "/dev/mapper/after")

    def test_arrays_and_lvm_and_luks_on_them(self):
        mirror = self.array(1, self.part(self.flash[0]), self.part(self.flash[1]))
        path, identity = self.mounted(mirror)
        self.lies_on(path, identity, mirror, self.flash[:2])
        self.layer_is(path, mirror)
        self.assertIsNone(self.cache_of(path))
        self.metadata_is_there(path, identity, mirror)

        mixed = [self.flash[2], self.rotating[0], self.rotating[1]]
        array = self.array(5, *(self.part(disk, 256 * MIB) for disk in mixed))
        lvm("vgcreate", "stack", array, devices=[array])
        for name in ["plain", "vault"]:
            lvm("lvcreate", "--yes", "--wipesignatures", "n", "--zero", "n", "--size", f"{PART >> 20}m", "--name", name, "stack",
                devices=[array])
        path, identity = self.mounted("/dev/mapper/stack-plain")
        self.lies_on(path, identity, "/dev/mapper/stack-plain", mixed)
        self.layer_is(path, "/dev/mapper/stack-plain")
        self.assertIsNone(self.cache_of(path))

        path, identity = self.mounted(encrypted("/dev/mapper/stack-vault", "vault-open"))
        self.lies_on(path, identity, "/dev/mapper/vault-open", mixed)
        self.metadata_is_there(path, identity, "/dev/mapper/vault-open")

    def test_luks(self):
        node = encrypted(self.part(self.flash[2]), "luks-open")
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, [self.flash[2]])
        self.layer_is(path, node)
        self.assertIsNone(self.cache_of(path))
        self.metadata_is_there(path, identity, node)

    def cache_target(self, origin, cache, metadata, features):
        return f"0 {size_of(origin) // 512} cache {metadata} {cache} {origin} 128 {features} smq 0"

    def test_dm_cache(self):
        origin = self.part(self.rotating[0])
        cache, metadata = self.part(self.flash[0], 64 * MIB), self.part(self.flash[1], 16 * MIB)
        node = mapped("cached", self.cache_target(origin, cache, metadata, "1 writethrough"))
        path, identity = self.mounted(node)
        # Only what is cached is part of the space.
        self.lies_on(path, identity, node, [self.rotating[0]])
        self.metadata_is_there(path, identity, node)
        self.assertEqual(cache_blocks("cached"), 64 * MIB)
        self.has_cache(path, WRITE_THROUGH, "cached", 64 * MIB)
        self.cannot_pin(path, "cached")
        self.layer_is(path, node)
        first_id = self.cache_id

        reload("cached", self.cache_target(origin, cache, metadata, "1 PassThrough"))
        self.assertEqual(mode_in_use("cached"), ["passthrough"])
        self.has_cache(path, READ_ONLY, "cached", 64 * MIB)
        self.assertEqual(self.cache_id, first_id)

        # The cache is taken away: another table, and the same volume.
        reload("cached", f"0 {size_of(origin) // 512} linear {origin} 0")
        self.lies_on(path, identity, node, [self.rotating[0]])
        self.lacks_a_cache(path, node)
        self.metadata_is_there(path, identity, node)

        # And another one is put in front, without a mode: the kernel's default.
        program("dd", "if=/dev/zero", f"of={metadata}", "bs=1M", "count=1", "conv=fsync")
        reload("cached", self.cache_target(origin, cache, metadata, "0"))
        self.assertEqual(mode_in_use("cached"), ["writeback"])
        self.has_cache(path, WRITE_BACK, "cached", 64 * MIB)
        self.cannot_pin(path, "cached")
        self.lies_on(path, identity, node, [self.rotating[0]])

    def test_dm_cache_on_rotating_disks(self):
        # The wrong way round: what caches does not count, rotating or not.
        origin = self.part(self.flash[1])
        cache, metadata = self.part(self.rotating[1], 64 * MIB), self.part(self.rotating[2], 16 * MIB)
        node = mapped("upside-down", self.cache_target(origin, cache, metadata, "1 writethrough"))
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, [self.flash[1]])
        self.has_cache(path, WRITE_THROUGH, "upside-down", 64 * MIB)

        # And with all of them on one disk, which is still a disk of the space.
        cache, metadata = self.part(self.flash[1], 32 * MIB), self.part(self.flash[1], 16 * MIB)
        reload("upside-down", self.cache_target(origin, cache, metadata, "1 writeback"))
        self.lies_on(path, identity, node, [self.flash[1]])
        self.has_cache(path, WRITE_BACK, "upside-down", 32 * MIB)

    def test_dm_writecache_above_dm_cache_below_dm_crypt(self):
        origin = self.part(self.rotating[1], 192 * MIB)
        lower = mapped("lower", self.cache_target(origin, self.part(self.flash[0], 64 * MIB), self.part(self.flash[0], 16 * MIB),
                                                  "1 writethrough"))
        cache = self.part(self.flash[1], 32 * MIB)
        upper = mapped("upper", f"0 {size_of(lower) // 512} writecache s {lower} {cache} 4096 0")
        node = mapped("top", f"0 {size_of(upper) // 512} crypt aes-xts-plain64 {'0' * 64} 0 {upper} 0")
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, [self.rotating[1]])
        # Of several the first one on the way down.
        self.has_cache(path, WRITE_BACK, "upper", 32 * MIB)
        self.cannot_pin(path, "upper")
        self.metadata_is_there(path, identity, node)

    def test_caches_of_lvm(self):
        slow, fast = self.part(self.rotating[2], 640 * MIB), self.part(self.flash[3], 256 * MIB)
        devices = [slow, fast]
        plain = ["--wipesignatures", "n", "--zero", "n"]
        lvm("vgcreate", "vg-1", slow, fast, devices=devices)

        def create(name, size, part, *words):
            lvm("lvcreate", "--yes", "--size", f"{size}m", "--name", name, *words, "vg-1", part, devices=devices)

        def convert(name, *words):
            lvm("lvconvert", "--yes", *words, "vg-1/" + name, devices=devices)

        for name in ["pooled", "single"]:
            create(name, 176, slow, *plain)
        create("pool", 48, fast, "--type", "cache-pool")
        create("volume", 64, fast, *plain)
        convert("pooled", "--type", "cache", "--cachepool", "pool", "--cachemode", "writeback")
        convert("single", "--type", "cache", "--cachevol", "volume", "--cachemode", "writethrough")
        ids = set()
        mounted = {}
        for name, mode, size in [("pooled", WRITE_BACK, 48 * MIB), ("single", WRITE_THROUGH, None)]:
            # In whose name a hyphen of LVM's stands twice.
            node = f"/dev/mapper/vg--1-{name}"
            mounted[name] = path, identity = self.mounted(node)
            self.lies_on(path, identity, node, [self.rotating[2]])
            # LVM puts a single volume's metadata in front of its data.
            self.has_cache(path, mode, f"vg--1-{name}", size or cache_blocks(f"vg--1-{name}"))
            self.cannot_pin(path, f"vg--1-{name}")
            ids.add(self.cache_id)
        self.assertEqual(len(ids), 2)

        # LVM takes a cache away under a file system that is mounted.
        convert("single", "--uncache")
        path, identity = mounted["single"]
        self.lies_on(path, identity, "/dev/mapper/vg--1-single", [self.rotating[2]])
        self.lacks_a_cache(path, "/dev/mapper/vg--1-single")
        self.metadata_is_there(path, identity, "/dev/mapper/vg--1-single")

    def backing(self, *words):
        """A bcache device: its node, and the folder of its backing device."""
        known = set(glob.glob("/sys/block/bcache*"))
        program("make-bcache", *words)
        for device in [word for word in words if word.startswith("/dev/")]:
            write("/sys/fs/bcache/register", device)
        new = until(lambda: set(glob.glob("/sys/block/bcache*")) - known, "a bcache device")
        name = os.path.basename(new.pop())
        return until(lambda: os.path.exists("/dev/" + name) and "/dev/" + name, name), f"/sys/block/{name}/bcache"

    def test_bcache(self):
        backing, cache, identity_of_set = self.part(self.rotating[1]), self.part(self.flash[2], 96 * MIB), str(uuid.uuid4())
        node, folder = self.backing("-B", backing)
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, [self.rotating[1]])
        self.assertIsNone(self.cache_of(path))
        self.layer_is(path, node)

        program("make-bcache", "-C", cache, "--cset-uuid", identity_of_set, "--bucket", "64k")
        write("/sys/fs/bcache/register", cache)
        until(lambda: os.path.isdir("/sys/fs/bcache/" + identity_of_set), "a set")
        write(folder + "/attach", identity_of_set)
        ids = set()
        for mode, expected in [("writethrough", WRITE_THROUGH), ("writeback", WRITE_BACK), ("writearound", READ_ONLY),
                               ("none", READ_ONLY)]:
            write(folder + "/cache_mode", mode)
            self.assertIn(f"[{mode}]", read(folder + "/cache_mode"))
            self.has_cache(path, expected, identity_of_set, 96 * MIB)
            ids.add(self.cache_id)
        self.assertEqual(len(ids), 1)
        self.cannot_pin(path, identity_of_set)
        self.lies_on(path, identity, node, [self.rotating[1]])
        self.metadata_is_there(path, identity, node)

        # A volume that lies in the cache alone.
        write(f"/sys/fs/bcache/{identity_of_set}/flash_vol_create", str(32 * MIB))
        flash = until(lambda: [name for name in glob.glob("/sys/block/bcache*") if not os.path.islink(name + "/bcache")], "it")
        flash_node = "/dev/" + os.path.basename(flash[0])
        until(lambda: os.path.exists(flash_node), flash_node)
        program("mkfs.ext4", "-q", flash_node)
        flash_path = self.mount(flash_node)
        self.lies_on(flash_path, None, flash_node, [self.flash[2]], "ext4")
        self.assertIsNone(self.cache_of(flash_path))

        write(folder + "/detach", "1")
        until(lambda: read(folder + "/state") == "no cache", "detached")
        self.lacks_a_cache(path, node)
        self.lies_on(path, identity, node, [self.rotating[1]])
        self.metadata_is_there(path, identity, node)

    def test_bcache_on_a_rotating_disk(self):
        backing, cache, identity_of_set = self.part(self.flash[2]), self.part(self.rotating[2], 96 * MIB), str(uuid.uuid4())
        node, folder = self.backing("-B", backing, "-C", cache, "--cset-uuid", identity_of_set, "--bucket", "64k")
        until(lambda: os.path.islink(folder + "/cache"), "attached")
        path, identity = self.mounted(node)
        self.lies_on(path, identity, node, [self.flash[2]])
        self.has_cache(path, WRITE_THROUGH, identity_of_set, 96 * MIB)
        # The whole set goes, and the backing device goes on without.
        write(f"/sys/fs/bcache/{identity_of_set}/unregister", "1")
        until(lambda: read(folder + "/state") == "no cache", "without a set")
        self.lacks_a_cache(path, node)
        self.lies_on(path, identity, node, [self.flash[2]])

    def test_btrfs_on_two_devices(self):
        disks = self.flash[2:4]
        parts = [self.part(disk) for disk in disks]
        identity = btrfs(*parts, kind="raid1")
        path = self.mount(parts[1])
        device = self.lies_on(path, identity, parts, disks)
        self.lacks_a_cache(path, device)
        self.metadata_is_refused(path, TWO_DEVICES)

    def test_btrfs_of_one_device_that_is_cached_and_one_that_is_not(self):
        cached = mapped("half", self.cache_target(self.part(self.rotating[2]), self.part(self.flash[3], 64 * MIB),
                                                  self.part(self.flash[3], 16 * MIB), "1 writethrough"))
        plain = self.part(self.flash[3])
        identity = btrfs(cached, plain, kind="raid1")
        path = self.mount(plain)
        self.lies_on(path, identity, [cached, plain], [self.rotating[2], self.flash[3]])
        self.has_cache(path, WRITE_THROUGH, "half", 64 * MIB)

    def test_btrfs_that_has_moved_to_another_device(self):
        old, new = self.part(self.rotating[2]), self.part(self.flash[3])
        path, identity = self.mounted(old)
        program("btrfs", "device", "add", "--nodiscard", "--force", new, path)
        self.lies_on(path, identity, [old, new], [self.rotating[2], self.flash[3]])
        program("btrfs", "device", "remove", old, path)
        self.lies_on(path, identity, new, [self.flash[3]])
        self.metadata_is_there(path, identity, new)

    def test_btrfs_of_which_a_device_is_missing(self):
        left, lost = self.part(self.flash[3]), self.part(self.rotating[2])
        identity = btrfs(left, lost, kind="raid1")
        path = self.mount(left)
        self.lies_on(path, identity, [left, lost], [self.flash[3], self.rotating[2]])
        program("umount", path)
        program("btrfs", "device", "scan", "--forget")
        program("wipefs", "--quiet", "--all", "--force", lost)
        program("mount", "--options", "degraded", left, path)
        self.assertEqual(sorted(read(name) for name in glob.glob(f"/sys/fs/btrfs/{identity}/devinfo/*/missing")), ["0", "1"])
        self.lies_on(path, identity, left, [self.flash[3]])
        self.metadata_is_refused(path, TWO_DEVICES)

    def test_disk_that_is_pulled_out(self):
        disk = self.rotating[3]
        alone, half, other, ext4 = self.part(disk), self.part(disk), self.part(self.flash[3]), self.part(disk)
        path, identity = self.mounted(alone)
        both = btrfs(other, half, kind="raid1")
        both_path = self.mount(half)
        program("mkfs.ext4", "-q", ext4)
        ext4_path = self.mount(ext4)
        self.lies_on(path, identity, alone, [disk])
        self.lies_on(both_path, both, [half, other], [disk, self.flash[3]])
        write(f"/sys/block/{os.path.basename(disk)}/device/delete", "1")
        until(lambda: not os.path.exists("/sys/class/block/" + os.path.basename(disk)), "a disk that is gone")
        for gone in [path, ext4_path]:
            volume = self.volume(gone)
            self.assertEqual((volume["disks"], volume["ssd_only"], volume["error"]),
                             (None, None, "its disk is gone, or it has just been unmounted"))
        self.lies_on(both_path, both, other, [self.flash[3]])


main()
