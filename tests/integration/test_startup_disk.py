# SPDX-License-Identifier: Apache-2.0
"""`startup-disk`: the command that it runs for each type of start, and its messages if it cannot run the command."""

import json
import os
import unittest

from support import gpt, images, tools, volumes

MISSING = volumes.missing("sgdisk", "setpriv")
BLESS = "/usr/sbin/bless"
TYPES = ("legacy", "efi", "mac", "volume-efi")
# Slice 2 starts at a head other than 0, and slot 2 of the hybrid MBR holds that head.
LAYOUT = {1: (40, 2047, gpt.EFI_SYSTEM), 2: (2048, 4095, gpt.APFS), 3: (4096, 8191, gpt.BASIC_DATA)}


def bless(device, *options):
    return " ".join([BLESS, "-device", device, "-setBoot", *options]) + "\n"


class StartupDiskTest(volumes.VolumeTest):
    def disk(self, name="mac.img"):
        return self.give(tools.sgdisk_image(self.path(name), LAYOUT, size=8 << 20))

    def dry_run(self, device, *options):
        result = self.vorlix_ok("startup-disk", device, "--dry-run", *options)
        self.assertEqual(result.stderr, "")
        return result.stdout

    def assert_commands(self, name, device, first_slice):
        """Checks the command for each type. `device`: the path of the device `name`; `first_slice`: its disk's slice 1."""
        for kind, place, options in (("legacy", device, ()), ("mac", device, ()), ("efi", first_slice, ()),
                                     ("volume-efi", device, ("-nextonly",))):
            with self.subTest(name=name, kind=kind):
                self.assertEqual(self.dry_run(name, "--type", kind), bless(place, *options, "-nextonly"))
                self.assertEqual(self.dry_run(name, "--type", kind, "--permanent"), bless(place, *options))


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class DryRun(StartupDiskTest):
    def test_the_command_for_each_type(self):
        disk = self.disk()
        before = images.snapshot(disk)
        for number in (1, 2, 3):
            self.assert_commands(f"{disk}s{number}", f"{disk}s{number}", f"/dev/{disk}s1")
        self.assert_commands(disk, disk, f"/dev/{disk}s1")
        self.assert_unchanged(disk, before)
        self.assert_nothing_mounted()

    def test_names_as_people_type_them(self):
        disk = self.disk()
        for name in (os.path.relpath(disk) + "s3", f"/dev/{disk}s3"):
            words = self.dry_run(name, "--type", "legacy").split(" ")
            self.assertEqual(os.path.realpath(words[2]), os.path.realpath(disk + "s3"))
            self.assertEqual(" ".join(words), bless(words[2], "-nextonly"))

    def test_the_disk_says_how_it_starts(self):
        """A guard MBR means EFI; one whose slot 2 is in use, legacy."""
        disk = self.disk()
        self.assertEqual(self.dry_run(disk + "s3"), bless(f"/dev/{disk}s1", "-nextonly"))
        tools.sgdisk(disk, "--hybrid", "2:3:EE")
        self.assertNotEqual(gpt.read_at(disk, 446 + 16 + 1, 1), b"\0")
        self.assertEqual(self.dry_run(disk + "s3"), bless(disk + "s3", "-nextonly"))
        self.assertEqual(self.dry_run(disk + "s3", "--type", "efi"), bless(f"/dev/{disk}s1", "-nextonly"))

    def test_what_has_no_mbr_says_nothing(self):
        """The content of the first sector does not matter."""
        text = self.file("text", b"root:x:0:0:root:/root:/bin/sh\n" * 100)
        ntfs = self.file("ntfs", b"\xEB\x52\x90NTFS    ".ljust(510, b"\0") + b"\x55\xAA" + bytes(1 << 20))
        for device in (self.file("zeros", bytes(1 << 20)), text, ntfs):
            self.vorlix_refuses("startup-disk", device, "--dry-run",
                                saying=[f"vorlix: {device}: ", "holds no MBR", "--type", "the startup disk was not set"])
            self.assertEqual(self.dry_run(device, "--type", "legacy"), bless(device, "-nextonly"))
        self.vorlix_refuses("startup-disk", self.file("empty", b""), "--dry-run", saying=["not even one sector"])

    @unittest.skipIf(volumes.missing("mkfs.vfat", "mcopy"), "mkfs.vfat or mtools is not installed")
    def test_a_mounted_volume_by_the_folder_it_is_mounted_at(self):
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        folder = self.mount(disk + "s1", "--read-write")
        self.assert_commands(folder, disk + "s1", f"/dev/{disk}s1")
        self.assert_commands(disk + "s1", disk + "s1", f"/dev/{disk}s1")
        self.vorlix_ok("unmount", disk + "s1")

    def test_names_that_a_shell_does_not_take_as_they_are(self):
        for name in ("a disk.img", "a;touch made.img", "$(touch made).img", "a`touch made`.img", "a'b.img", "a&b.img", "ä.img"):
            disk = self.disk(name)
            for kind in TYPES:
                with self.subTest(name=name, kind=kind):
                    message = self.vorlix_refuses("startup-disk", disk + "s3", "--type", kind, "--dry-run")
                    self.assertIn("a shell", message)
                    self.assertIn("the startup disk was not set", message)

    def test_wrong_words(self):
        disk = self.disk()
        for arguments in ((), (disk, "--type", "bios"), (disk, "--type", ""), (disk, "--type", "4"), (disk, disk),
                          (disk, "--next-only")):
            with self.subTest(arguments=arguments):
                result = self.vorlix_run("startup-disk", *arguments, "--dry-run")
                self.assertEqual((result.returncode, result.stdout), (2, ""))

    def test_devices_that_are_not_there(self):
        disk = self.disk()
        for device in (self.path("missing"), disk + "s9", "sdzzz9", self.folder, ""):
            with self.subTest(device=device):
                result = self.vorlix_run("startup-disk", device, "--dry-run")
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                why = f"{disk} has no slice 9" if device == disk + "s9" else "no such device"
                self.assertIn(f"vorlix: {device}: {why}", result.stderr)

    def test_the_running_system_s_own_volume(self):
        listed = json.loads(self.vorlix_ok("list", "--all", "--json").stdout)["volumes"]
        root = [volume for volume in listed if volume["mountPath"] == "/"]
        if not root:
            self.skipTest("the root file system is not on a disk")
        for name in ("/", root[0]["device"]):
            message = self.vorlix_refuses("startup-disk", name, "--dry-run")
            self.assertEqual(message, f"vorlix: {name}: it is the running system's own volume; the startup disk was not set\n")


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class AsOrdinaryUser(StartupDiskTest):
    def test_nothing_is_run(self):
        disk = self.disk()
        for kind in TYPES:
            message = self.vorlix_refuses("startup-disk", disk + "s3", "--type", kind)
            self.assertIn("only root as the real user can do this; the startup disk was not set", message)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
@unittest.skipUnless(volumes.IS_ROOT, "needs root")
@unittest.skipIf(os.path.exists(BLESS), f"{BLESS} exists and would really set the startup disk")
class WithoutTheTool(StartupDiskTest):
    AS_ROOT = True

    def test_says_that_there_is_none(self):
        disk = self.disk()
        before = images.snapshot(disk)
        for kind in TYPES:
            for options in ((), ("--permanent",)):
                with self.subTest(kind=kind, options=options):
                    result = self.vorlix_run("startup-disk", disk + "s3", "--type", kind, *options)
                    self.assertEqual((result.returncode, result.stdout), (2, ""))
                    self.assertIn(f"vorlix: {disk}s3: this system has no {BLESS}; the startup disk was not set", result.stderr)
        self.assert_unchanged(disk, before)

    def test_a_name_is_no_command(self):
        made = self.path("made")
        for number, name in enumerate(("a;touch made", "$(touch made)", "`touch made`", "a\ntouch made", "a|touch made")):
            disk = self.disk(name)
            result = self.vorlix_run("startup-disk", disk + "s3", "--type", "legacy",
                                     prefix=("env", "-C", self.folder))
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertNotIn("bless", result.stderr)
            self.assertFalse(os.path.exists(made), name)

    def test_devices_of_the_kernel_s(self):
        image = self.disk("disk.img")
        with tools.loop_device(image, 512) as device:
            for name in (device + "s3", os.path.basename(device) + "s3"):
                self.assert_commands(name, device + "s3", device + "s1")
            self.assert_commands(device, device, device + "s1")


if __name__ == "__main__":
    images.main()
