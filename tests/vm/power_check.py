"""The power fails in the middle of passes, and the machine boots again: each boot goes through one more entry of PLAN.

The SSD cache's state, which the pin tool keeps on the host, survives; so do the volume and the settings. Everything else of the
guest is new after each boot.
"""

import os
import sys
import time

import guest
from cached import CachedVolume, install_tool
from guest import JOB, Guest, load, program, read, scsi_disks, write

CUT = "echo b >/proc/sysrq-trigger\nsleep 60\n"
CUT_SOON = "(sleep 0.3; echo b >/proc/sysrq-trigger) &\n"

# The command, and before or after which run of the pin tool the power fails; the last one of each life is not disturbed.
PLAN = [
    ("on", (1, "before", CUT)),
    ("on", (2, "after", CUT)),
    ("rescan", (2, "before", CUT_SOON)),
    ("rescan", None),
    ("off", (3, "after", CUT)),
    ("off", None),
]


class Power(Guest):
    def runTest(self):
        """What is left of the boot before, and the next entry."""
        phase = int(read(JOB + "/phase")) if os.path.exists(JOB + "/phase") else 0
        load("btrfs", "attributes")
        disk = "/dev/" + scsi_disks()[0]
        os.makedirs(JOB + "/etc", exist_ok=True)
        program("mount", "--bind", JOB + "/etc", "/usr/zevo/etc")
        path = "/run/volume"
        os.mkdir(path)
        if phase == 0:
            program("mkfs.btrfs", "--quiet", "--nodiscard", "--metadata", "dup", "--byte-count", "600M", disk)
        program("mount", "-o", "metadata_ratio=1", disk, path)
        volume = CachedVolume(self, disk, path)
        if phase == 0:
            volume.begin()
        install_tool()
        volume.forget_scripts()
        volume.add_attributes()
        began = time.monotonic()
        recorded, done = volume.is_recorded()

        command, cut = PLAN[phase]
        # A rescan needs a switch that is on, and the settings have survived.
        if cut:
            write(JOB + "/phase", str(phase + 1))
            write(JOB + "/again", "")
            run, when, script = cut
            volume.at_run(run, script, when)
            guest.report(time.monotonic() - began, True, f"{recorded} recorded, {done} of them as pinned; the power fails {when} "
                         f"run {run} of the pin tool of \"cache {command}\"")
            program("sync")
            self.tool("cache", command, path)
            self.fail("the power has not failed")
        self.tool("cache", command, path)
        if command == "off":
            volume.is_off()
        else:
            volume.is_pinned()
        guest.report(time.monotonic() - began, True, f"{recorded} recorded, {done} of them as pinned; \"cache {command}\" brings all of "
                     "it in line")
        if phase + 1 < len(PLAN):
            write(JOB + "/phase", str(phase + 1))
            write(JOB + "/again", "")


guest.start()
outcome = Power().run()
for _, text in outcome.failures + outcome.errors:
    print(text)
    guest.report(0, False, text.strip().splitlines()[-1])
    if os.path.exists(JOB + "/again"):
        os.remove(JOB + "/again")
sys.exit(0 if outcome.wasSuccessful() else 1)
