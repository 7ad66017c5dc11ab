# SPDX-License-Identifier: Apache-2.0
"""`startup-disk` with a substitute for bless, which records its arguments and ends with a given status."""

import os
import unittest

from bed.guest import MAC, NOTES, OLD_PC, PC, GuestTest, node, read_text, write_text
from support import images, samples

BLESS = "/usr/sbin/bless"
CSRUTIL = "/usr/bin/csrutil"
WINDOWS, OLD_WINDOWS, HFS_PLUS = f"{PC}3", f"{OLD_PC}2", f"{MAC}2"
EFI = f"/dev/{PC}s1"

# The arguments of bless for each type: for the next start only, and permanently.
TYPES = {
    "legacy": ((node(WINDOWS), "-nextonly"), (node(WINDOWS),)),
    "efi": ((EFI, "-nextonly"), (EFI,)),
    "mac": ((node(WINDOWS), "-nextonly"), (node(WINDOWS),)),
    "volume-efi": ((node(WINDOWS), "-nextonly", "-nextonly"), (node(WINDOWS), "-nextonly")),
}


def arguments_for(device, *options):
    return ["-device", device, "-setBoot", *options]


class StartupDiskTest(GuestTest):
    def setUp(self):
        super().setUp()
        self.assertFalse(os.path.exists(BLESS))
        self.record = self.path("record")
        os.chmod(self.folder, 0o755)
        self.install()

    def install(self, status=0):
        self.make_program(BLESS, f"printf '%s\\n' run \"$@\" >>'{self.record}'\nexit {status}\n")

    def make_program(self, path, script):
        write_text(path, f"#!/bin/sh\n{script}")
        os.chmod(path, 0o755)
        self.addCleanup(lambda: os.path.exists(path) and os.remove(path))

    def take_runs(self):
        """The arguments of each run of bless since the last call."""
        if not os.path.exists(self.record):
            return []
        runs = [run.splitlines() for run in read_text(self.record).split("run\n")[1:]]
        os.remove(self.record)
        return runs

    def assert_told(self, command, *arguments):
        result = self.vorlix("startup-disk", *command)
        self.assertEqual(self.take_runs(), [list(arguments)])
        self.assertEqual(result.stdout, f"startup disk set: {' '.join([BLESS, *arguments])}\n")
        self.assertEqual(result.stderr, "")

    def test_bless_is_told_the_device_of_each_type(self):
        for kind, (once, for_good) in TYPES.items():
            with self.subTest(type=kind):
                self.assert_told((node(WINDOWS), "--type", kind), *arguments_for(*once))
                self.assert_told((node(WINDOWS), "--type", kind, "--permanent"), *arguments_for(*for_good))

    def test_the_disk_says_which_type_it_is(self):
        """The protective MBR of a GPT has an empty second slot; an MBR with two partitions does not."""
        self.assertEqual(samples.read(node(PC), 446 + 16, 16), bytes(16))
        self.assertNotEqual(samples.read(node(OLD_PC), 446 + 16 + 1, 1), bytes(1))
        self.assert_told((node(WINDOWS),), *arguments_for(EFI, "-nextonly"))
        self.assert_told((node(OLD_WINDOWS),), *arguments_for(node(OLD_WINDOWS), "-nextonly"))

    @unittest.skipIf("noHFSPlus" in NOTES, NOTES.get("noHFSPlus"))
    def test_a_mounted_mac_volume_is_of_its_own_type(self):
        self.mount_at(HFS_PLUS, "mac")
        self.assert_told((node(HFS_PLUS),), *arguments_for(node(HFS_PLUS), "-nextonly"))

    def test_a_mounted_volume_is_named_by_its_folder_too(self):
        point = self.mount_at(OLD_WINDOWS, "Größe mit Leerzeichen")
        self.assert_told((point, "--permanent"), *arguments_for(node(OLD_WINDOWS)))

    def test_a_bless_that_fails_is_told_of(self):
        self.install(status=3)
        self.assertIn("bless failed", self.refused("startup-disk", node(WINDOWS)))
        self.assertEqual(self.take_runs(), [arguments_for(EFI, "-nextonly")])

    def test_a_bless_that_is_not_there_is_told_of(self):
        os.remove(BLESS)
        self.assertIn("this system has no /usr/sbin/bless", self.refused("startup-disk", node(WINDOWS)))

    def test_a_dry_run_shows_the_command_alone(self):
        for kind, (once, for_good) in TYPES.items():
            with self.subTest(type=kind):
                options = ("startup-disk", node(WINDOWS), "--type", kind, "--dry-run")
                self.assertEqual(self.vorlix(*options).stdout, f"{' '.join([BLESS, *arguments_for(*once)])}\n")
                self.assertEqual(self.vorlix(*options, "--permanent").stdout,
                                 f"{' '.join([BLESS, *arguments_for(*for_good)])}\n")
        self.assertEqual(self.take_runs(), [])

    def test_an_ordinary_user_runs_nothing(self):
        for kind in TYPES:
            with self.subTest(type=kind):
                sentence = self.refused("startup-disk", node(WINDOWS), "--type", kind, user=images.NOBODY,
                                        group=images.NOBODY, extra_groups=[])
                self.assertIn("only root as the real user", sentence)
        self.assertEqual(self.take_runs(), [])

    def test_rights_without_being_the_real_user_do_not_do(self):
        def lend_rights():
            os.setresuid(images.NOBODY, 0, 0)

        sentence = self.refused("startup-disk", node(WINDOWS), preexec_fn=lend_rights)
        self.assertIn("only root as the real user", sentence)
        self.assertEqual(self.take_runs(), [])

    def test_system_integrity_protection_is_warned_of(self):
        for state, warns in (("enabled", True), ("disabled", False)):
            with self.subTest(state=state):
                self.make_program(CSRUTIL, f"echo 'System Integrity Protection status: {state}.'\n")
                result = self.vorlix("startup-disk", node(WINDOWS))
                self.assertEqual("System Integrity Protection is on" in result.stderr, warns, result.stderr)
                self.assertEqual(self.take_runs(), [arguments_for(EFI, "-nextonly")])  # only a warning, not an error
