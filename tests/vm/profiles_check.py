"""Kernel parameters, as the kernel itself takes, refuses, corrects and links them.

What a recorded or copied /proc/sys cannot show: nobody but the kernel clears the other one of a ratio and its bytes, knows a
range, or gives less than it was asked for.
"""

import os
import shutil

from guest import SHIPPED, Guest, main, read, write

SECTION = "[sysctl]\n"


def parameter(name):
    return " ".join(read("/proc/sys/" + name.replace(".", "/")).split())


def parameters():
    """All of vm that can be read."""
    names = sorted(os.listdir("/proc/sys/vm"))
    return {name: parameter("vm." + name) for name in names if os.stat("/proc/sys/vm/" + name).st_mode & 0o444}


class Profiles(Guest):
    def setUp(self):
        super().setUp()
        self.before = parameters()

    def states(self, status=0):
        return {entry["target"]: entry["state"] for entry in self.json("verify", status=status)["values"]}

    def undo(self, status=0):
        """Everything is as it was."""
        out = self.tool("undo", status=status)
        self.assertEqual(parameters(), self.before)
        return out

    def alone(self, name, text):
        """A profile without the global one that ships, whose parameters take time."""
        shutil.rmtree(SHIPPED + "/global", ignore_errors=True)
        self.profile(name, text)

    def test_shipped_profiles_leave_what_their_plans_say_and_undo_takes_it_back(self):
        for name in ["performance_latency", "performance_throughput"]:
            with self.subTest(name):
                plan = self.json("plan", name)
                last = {write["target"]: write["value"] for section in plan["sections"] for key in section["keys"]
                        for write in key["writes"]}
                self.assertGreater(len(last), 5)
                self.tool("set", name)
                self.assertEqual({target: parameter(target) for target in last}, last)
                self.assertEqual(set(self.states().values()), {"holds"})
                self.assertEqual(self.log.lines, [])
                self.undo()

    def test_apply_brings_back_what_a_boot_has_reset(self):
        self.tool("set", "performance_latency")
        write("/proc/sys/vm/dirty_ratio", "20")
        self.assertEqual(self.states(status=1)["vm.dirty_ratio"], "changed")
        self.tool("apply")
        self.assertEqual(parameter("vm.dirty_ratio"), "10")
        self.undo()

    def test_ratio_and_bytes_clear_each_other(self):
        self.alone("bytes", SECTION + "vm.dirty_bytes = 104857600\nvm.dirty_background_bytes = 52428800\n")
        plan = self.tool("plan", "bytes")
        self.assertIn("makes vm.dirty_ratio 0", plan)
        self.assertIn("makes vm.dirty_background_ratio 0", plan)
        self.tool("set", "bytes")
        self.assertEqual([parameter("vm." + name) for name in ["dirty_bytes", "dirty_ratio", "dirty_background_bytes",
                                                               "dirty_background_ratio"]], ["104857600", "0", "52428800", "0"])
        self.assertEqual(set(self.states().values()), {"holds"})
        self.undo()

    def test_memory_beyond_the_limit_turns_ratios_into_bytes(self):
        self.alone("limit", "vm_memory_max = 104857600\n" + SECTION + "vm.dirty_ratio = 50\n")
        self.tool("set", "limit")
        self.assertEqual((parameter("vm.dirty_bytes"), parameter("vm.dirty_ratio")), ("52428800", "0"))
        self.undo()

    def test_refused_values_are_logged_and_the_others_applied(self):
        self.alone("wrong", SECTION + "vm.dirty_ratio = 101\nvm.dirty_background_ratio = -1\nvm.vfs_cache_pressure = word\n"
                   "vm.swappiness = 201\nvm.watermark_scale_factor = 20\n")
        out = self.tool("set", "wrong")
        self.assertIn("the kernel has refused or changed 4 values", out)
        for key, value in [("dirty_ratio", "101"), ("dirty_background_ratio", "-1"), ("vfs_cache_pressure", "word"), ("swappiness", "201")]:
            self.logged(rf"utils\.cpp:N Failed to sysctl \[vm\.{key}={value}\]\.\[0x1900 program\.cpp:N\]")
        self.assertEqual(self.states(status=1), {
            "vm.dirty_ratio": "refused", "vm.dirty_background_ratio": "refused", "vm.vfs_cache_pressure": "refused",
            "vm.swappiness": "refused", "vm.watermark_scale_factor": "holds"})
        self.undo()

    def test_a_key_that_can_only_be_read_is_seen_by_verify_alone(self):
        # sysctl prints an error and ends with status 0, so that nothing is logged.
        self.alone("readonly", SECTION + "kernel.osrelease = 7\nvm.swappiness = 44\n")
        self.assertIn("refused or changed 1 value", self.tool("set", "readonly"))
        self.assertEqual(self.log.lines, [])
        self.assertEqual(self.states(status=1), {"kernel.osrelease": "refused", "vm.swappiness": "holds"})
        self.undo()

    def test_a_key_that_can_only_be_written_is_written_and_not_restored(self):
        self.alone("writeonly", SECTION + "vm.drop_caches = 1\nvm.swappiness = 46\n")
        self.tool("set", "writeonly")
        self.assertEqual(self.states(status=1)["vm.swappiness"], "holds")
        self.assertNotIn("drop_caches", self.undo())

    def test_keys_that_do_not_exist_are_passed_over(self):
        self.alone("missing", SECTION + "vm.no_such = 1\nno.folder.at.all = 2\nvm.swappiness = 47\n")
        self.assertIn("2 are not known to this kernel", self.tool("plan", "missing"))
        self.tool("set", "missing")
        self.assertEqual(self.log.lines, [])
        self.assertEqual(parameter("vm.swappiness"), "47")
        self.tool("verify")
        self.undo()

    def test_other_ways_to_write_a_number_hold(self):
        self.alone("forms", SECTION + "vm.swappiness = 0x14\nvm.lowmem_reserve_ratio = 128 128 32 0 0\n"
                   "kernel.printk = 3 4 1 7\nnet.ipv4.conf.lo.rp_filter = 1\n")
        self.tool("set", "forms")
        self.assertEqual([parameter(name) for name in ["vm.swappiness", "kernel.printk", "net.ipv4.conf.lo.rp_filter"]],
                         ["20", "3 4 1 7", "1"])
        self.assertEqual(set(self.states().values()), {"holds"})
        self.undo()
        self.assertEqual(parameter("net.ipv4.conf.lo.rp_filter"), "0")

    def test_what_the_kernel_corrects_is_said(self):
        # Pipes have sizes that are powers of two.
        size = parameter("fs.pipe-max-size")
        self.alone("corrected", SECTION + "fs.pipe-max-size = 1000000\n")
        write("/proc/sys/fs/pipe-max-size", "65536")
        self.assertIn("refused or changed 1 value", self.tool("set", "corrected"))
        self.assertEqual(self.states(status=1), {"fs.pipe-max-size": "refused"})
        self.assertEqual(parameter("fs.pipe-max-size"), "1048576")
        self.undo()
        self.assertEqual(parameter("fs.pipe-max-size"), "65536")
        write("/proc/sys/fs/pipe-max-size", size)

    def test_what_cannot_go_back_is_said_and_the_rest_restored(self):
        # Once on, it stays on until the next boot.
        self.alone("oneway", SECTION + "vm.swappiness = 45\nkernel.kexec_load_disabled = 1\n")
        self.tool("set", "oneway")
        self.assertIn("not restored: the kernel keeps 1", self.undo(status=1))
        self.assertEqual(parameter("kernel.kexec_load_disabled"), "1")
        self.logged(r"utils\.cpp:N Failed to sysctl \[kernel/kexec_load_disabled=0\]\.\[0x1900 program\.cpp:N\]")


main()
