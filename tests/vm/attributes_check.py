"""The attributes that an appliance's kernel gives to Btrfs, with a kernel behind them: the section "volume" of a profile, and whole passes of the
metadata cache."""

import errno
import os
import time

from cached import CachedVolume, chunks_of
from guest import MIB, Guest, load, main, program, read, scsi_disks, until, write

ERROR = "/sys/module/attributes/parameters/error"
THREADS = "zevo_writeback_thread_max"


class Attributes(Guest):
    def setUp(self):
        super().setUp()
        load("btrfs", "attributes")
        self.ssd, self.other_ssd, self.hdd = ("/dev/" + name for name in scsi_disks())
        self.addCleanup(write, ERROR, "0")

    def volume(self, *devices, size="600M", profile="dup"):
        program("mkfs.btrfs", "--quiet", "--force", "--nodiscard", "--metadata", profile, "--data", "single",
                *(["--byte-count", size] if size else []), *devices)
        program("btrfs", "device", "scan", *devices)
        # Rare commits, as each has the kernel look for chunks that it can give back while they are empty.
        path = self.mount(devices[0], "-o", "metadata_ratio=1,commit=300")
        volume = CachedVolume(self, devices[0], path)
        self.threads = f"/sys/fs/btrfs/{volume.uuid}/{THREADS}"
        return volume


class Writeback(Attributes):
    def apply(self, value, status=0):
        self.profile("threads", f"[volume]\n{THREADS} = {value}\n")
        return self.tool("set", "threads", status=status)

    def test_volumes_of_ssds_alone_get_the_limit(self):
        ssd, mixed = self.volume(self.ssd), self.volume(self.other_ssd, self.hdd, profile="raid1")
        for volume in [ssd, mixed]:
            volume.add_attributes()
        # There is one processor, which is the most for any number.
        for value in ["auto", "1", "32"]:
            with self.subTest(value):
                write(f"/sys/fs/btrfs/{ssd.uuid}/{THREADS}", "7")
                self.apply(value)
                self.assertEqual([read(f"/sys/fs/btrfs/{volume.uuid}/{THREADS}") for volume in [ssd, mixed]], ["1", "8"])
                self.tool("verify")
                self.tool("undo")
                self.assertEqual(read(f"/sys/fs/btrfs/{ssd.uuid}/{THREADS}"), "7")

    def test_what_the_kernel_refuses_fails_the_section(self):
        volume = self.volume(self.ssd)
        volume.add_attributes()
        for value, written in [("0", "0"), ("-1", "-1"), ("word", "0")]:
            with self.subTest(value):
                self.apply(value, status=1)
                self.logged(r"utils\.cpp:N Failed to set writeback thread max errno Invalid argument\..*")
                self.logged(rf"utils\.cpp:N Fail to TuneApplyProfileVolumeWriteBackThreadBySpaceInfo \[{volume.path}\]")
                self.logged(r"utils\.cpp:N Failed to Apply Profile \[.*\] Volume.*")
                self.assertEqual(read(self.threads), "8")

    def test_a_write_that_fails_fails_the_section(self):
        self.volume(self.ssd).add_attributes()
        write(ERROR, str(errno.EIO))
        self.apply("1", status=1)
        self.logged(r"utils\.cpp:N Failed to set writeback thread max errno Input/output error\..*")
        write(ERROR, "0")
        self.assertEqual(read(self.threads), "8")
        self.apply("1")
        self.assertEqual(read(self.threads), "1")

    def test_a_kernel_without_it_fails_the_section(self):
        self.volume(self.ssd)
        self.apply("1", status=1)
        self.logged(rf"utils\.cpp:N Can't open file {self.threads}\[.*")


class Cache(Attributes):
    def cached(self):
        volume = self.volume(self.ssd).begin()
        volume.add_attributes()
        return volume

    def test_a_life(self):
        volume = self.cached()
        self.assertIn("pinned the metadata of " + volume.path, self.tool("cache", "on", volume.path))
        volume.is_pinned()
        before = len(volume.runs())
        self.tool("cache", "rescan", volume.path)
        self.assertEqual(len(volume.runs()), before)
        volume.grow()
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()
        # Chunks that a balance has moved are others.
        chunks = chunks_of(volume.device)
        program("btrfs", "balance", "start", "--force", "-m", volume.path)
        self.assertNotEqual(chunks_of(volume.device), chunks)
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()
        self.tool("cache", "off", volume.path)
        volume.is_off()
        self.assertEqual(self.log.lines, [])

    def test_refused_when_all_is_pinned(self):
        volume = self.cached()
        for error in [errno.EINVAL, errno.EIO]:
            with self.subTest(error):
                write(ERROR, str(error))
                self.tool("cache", "on", volume.path, status=1)
                self.logged(r"btrfs_metadata_cache\.cpp:N Failed to TuneBtrfsVolumeMetadataCacheEnable true with "
                            rf"\[{volume.path}\]\[.*")
                self.assertEqual((volume.sections()["config"]["status"], read(volume.attribute)), (1, "0"))
                self.assertEqual(volume.recorded(), {name: (*chunk, True) for name, chunk in volume.wanted().items()})
                volume.is_recorded()
                volume.is_quiet()
        # Nothing is pinned or read twice, only the kernel told at last.
        before = len(volume.runs())
        write(ERROR, "0")
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()
        self.assertEqual(len(volume.runs()), before)

    def test_refused_when_it_is_switched_off(self):
        volume = self.cached()
        self.tool("cache", "on", volume.path)
        pinned = volume.pinned().ranges()
        write(ERROR, str(errno.EIO))
        self.tool("cache", "off", volume.path, status=1)
        self.logged(rf"btrfs_metadata_cache\.cpp:N Failed to TuneBtrfsVolumeMetadataCacheEnable false with \[{volume.path}\]\[.*")
        self.assertEqual((volume.sections()["config"]["status"], volume.pinned().ranges()), (3, pinned))
        volume.is_recorded()
        volume.is_quiet()
        write(ERROR, "0")
        self.tool("cache", "off", volume.path)
        volume.is_off()

    def test_a_kernel_without_it_pins_nothing(self):
        volume = self.volume(self.ssd).begin()
        self.assertIn("this kernel has no " + volume.attribute, self.tool("cache", "on", volume.path, status=1))
        self.assertEqual((volume.runs(), volume.sections()), ([], None))

    def test_gone_between_two_passes(self):
        # Mounted again, by a kernel without the attribute.
        volume = self.cached()
        self.tool("cache", "on", volume.path)
        program("umount", volume.path)
        program("mount", "-o", "metadata_ratio=1,commit=300", volume.device, volume.path)
        self.assertFalse(os.path.exists(volume.attribute))
        self.tool("cache", "off", volume.path, status=1)
        volume.is_recorded()
        volume.add_attributes()
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()

    def test_stopped_by_force(self):
        volume = self.cached()
        volume.at_run(3, "sleep 60")
        self.tool("cache", "on", "--no-wait", volume.path)
        until(lambda: len(volume.runs()) == 3, "the third run of the pin tool")
        began = time.monotonic()
        self.tool("cache", "stop", volume.path)
        self.assertLess(time.monotonic() - began, 30)
        volume.is_recorded()
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()

    def test_the_limit_is_kept(self):
        volume = self.cached()
        self.tool("config", "set", "btrfs_metadata_cache_space_usage_limit", str(20 * MIB))
        self.tool("cache", "on", volume.path)
        volume.is_recorded()
        pinned = sum(size for _, size in volume.pinned().ranges())
        self.assertTrue(0 < pinned <= 20 * MIB)
        self.tool("cache", "off", volume.path)
        volume.is_off()


main()
