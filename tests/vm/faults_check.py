"""Devices that fail under a pass of the metadata cache: refused reads and writes, lost writes, and disks that are pulled.

Whatever fails, nothing may be pinned that is not recorded, and once the device is back the next pass has to reach what an undisturbed
one does. Most faults come at several runs of the pin tool, which divide a pass into its steps.
"""

import glob
import os

from cached import CachedVolume
from guest import MIB, Guest, load, main, program, read, scsi_disks, write

SIZE = 600 * MIB
SECTORS = SIZE // 512
# Suspending waits for nothing: neither for writes that never end, nor for a file system to come to rest.
SWITCH = """DM_DISABLE_UDEV=1
export DM_DISABLE_UDEV
dmsetup suspend --noflush --nolockfs fault
dmsetup load fault --table '{table}'
dmsetup resume fault
"""


class Faults(Guest):
    def setUp(self):
        super().setUp()
        load("btrfs", "dm_mod", "dm_flakey", "attributes")
        self.disks = ["/dev/" + name for name in scsi_disks()]

    def format(self, device):
        program("mkfs.btrfs", "--quiet", "--force", "--nodiscard", "--metadata", "dup", "--byte-count", str(SIZE), device)
        path = self.mount(device, "-o", "metadata_ratio=1,commit=300")
        volume = CachedVolume(self, device, path).begin()
        volume.add_attributes()
        return volume

    def mount_again(self, volume):
        """What a failing device leaves is a file system that takes no more writes."""
        program("umount", volume.path)
        program("mount", "-o", "metadata_ratio=1,commit=300", volume.device, volume.path)
        volume.add_attributes()

    def goes_on(self, volume):
        self.tool("cache", "rescan", volume.path)
        volume.is_pinned()
        self.tool("cache", "off", volume.path)
        volume.is_off()


class Mapped(Faults):
    """With a device of the device mapper between, whose table is changed while it is in use."""

    def setUp(self):
        super().setUp()
        self.linear = f"0 {SECTORS} linear {self.disks[0]} 0"
        program("dmsetup", "create", "fault", "--table", self.linear)
        self.addCleanup(program, "dmsetup", "remove", "--retry", "fault")

    def switch(self, table):
        program("sh", "-c", SWITCH.format(table=table))

    def fails_at(self, volume, run, table, when="after"):
        """A pass that meets the fault at a run of the tool. The device is well again when this returns."""
        volume.at_run(run, SWITCH.format(table=table), when)
        self.tool("cache", "on", volume.path, status=1)
        volume.is_quiet()
        self.switch(self.linear)
        self.mount_again(volume)

    def test_reads_and_writes_are_refused(self):
        volume = self.format("/dev/mapper/fault")
        for run, when in [(1, "before"), (4, "before"), (4, "after")]:
            with self.subTest(run=run, when=when):
                self.log.lines.clear()
                self.fails_at(volume, run, f"0 {SECTORS} error", when)
                # Superblocks are read from the page cache, through which Btrfs has just written them for the record.
                self.logged(r"btrfs_metadata_cache\.cpp:N Failed to set section \[1\] in .*" if run == 1 else
                            r"btrfs_metadata_cache\.cpp:N Failed to read start:\d+, count:\d+ with device "
                            r"\[/dev/mapper/fault\]\. errno\[5\]")
                volume.is_recorded()
                self.goes_on(volume)

    def test_writes_alone_are_refused(self):
        volume = self.format("/dev/mapper/fault")
        for run in [1, 4]:
            with self.subTest(run=run):
                self.fails_at(volume, run, f"0 {SECTORS} flakey {self.disks[0]} 0 0 3600 1 error_writes")
                volume.is_recorded()
                self.goes_on(volume)

    def test_writes_are_lost(self):
        # A device that says that it has written what it has not: records are lost behind pins, and the next pass pins again.
        volume = self.format("/dev/mapper/fault")
        volume.at_run(2, SWITCH.format(table=f"0 {SECTORS} flakey {self.disks[0]} 0 0 3600 1 drop_writes"))
        self.tool("cache", "on", volume.path)
        before = len(volume.recorded())
        program("umount", volume.path)
        self.switch(self.linear)
        program("mount", "-o", "metadata_ratio=1,commit=300", volume.device, volume.path)
        volume.add_attributes()
        self.assertLess(len(volume.recorded()), before)
        self.goes_on(volume)

    def test_fails_while_it_is_unpinned(self):
        volume = self.format("/dev/mapper/fault")
        self.tool("cache", "on", volume.path)
        volume.at_run(3, SWITCH.format(table=f"0 {SECTORS} error"))
        self.tool("cache", "off", volume.path, status=1)
        volume.is_quiet()
        self.switch(self.linear)
        self.mount_again(volume)
        volume.is_recorded()
        self.tool("cache", "off", volume.path)
        volume.is_off()


class Pulled(Faults):
    def pull(self, disk):
        return f"echo 1 >/sys/block/{os.path.basename(disk)}/device/delete\n"

    def put_back(self):
        """All disks that are missing; their names may be others then. Returns all of them."""
        for scan in glob.glob("/sys/class/scsi_host/*/scan"):
            write(scan, "- - -")
        return ["/dev/" + name for name in scsi_disks()]

    def test_a_disk_is_pulled_under_a_pass(self):
        volume = self.format(self.disks[1])
        volume.at_run(3, self.pull(self.disks[1]))
        self.tool("cache", "on", volume.path, status=1)
        volume.is_quiet()
        self.assertFalse(os.path.exists("/sys/block/" + os.path.basename(self.disks[1])))
        devices = self.json("devices")
        self.assertNotIn(self.disks[1], [disk["device"] for disk in devices["disks"]])
        program("umount", volume.path)
        volume.device = self.put_back()[1]
        program("mount", "-o", "metadata_ratio=1,commit=300", volume.device, volume.path)
        volume.add_attributes()
        volume.is_recorded()
        self.goes_on(volume)

    def test_an_array_goes_on_without_one(self):
        load("raid1")
        members = self.disks[2:4]
        program("mdadm", "--create", "/dev/md/one", "--run", "--assume-clean", "--level=1", "--metadata=1.2", "--size=700M",
                "--raid-devices=2", *members)
        self.addCleanup(program, "mdadm", "--stop", "/dev/md/one")
        volume = self.format(os.path.realpath("/dev/md/one"))
        volume.at_run(3, self.pull(members[0]))
        self.tool("cache", "on", volume.path)
        self.assertEqual(read(f"/sys/block/{os.path.basename(volume.device)}/md/degraded"), "1")
        volume.is_pinned()
        self.goes_on(volume)


main()
