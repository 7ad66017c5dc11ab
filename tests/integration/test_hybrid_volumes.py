# SPDX-License-Identifier: Apache-2.0
"""Volumes and boot code that `hybrid` accepts, and the volume's second boot sector, judged by ntfsfix and fsck.vfat."""

import os
import subprocess

from support import gpt, images, tools, volumes
from support.macs import MAC, WINDOWS, WINDOWS_FIRST, WINDOWS_SIZE, ImageTest

FAT32_FIRST = 602112
FAT32_SIZE = 40 << 20  # with one sector a cluster, enough for FAT32


class WhatIsTaken(ImageTest):
    def refuse_unless_forced(self, path, *words, partition=WINDOWS, boot_code=None):
        """Without --force, the command refuses and writes nothing. With it, it writes the MBR; returns that run's output."""
        arguments = ["hybrid", path, "--boot-code", boot_code or self.boot_code, "--partition", partition]
        before = images.snapshot(path)
        for options in ((), ("--dry-run",)):
            result = self.vorlix_run(*arguments, *options)
            self.assertEqual(result.returncode, 2, result.stdout)
            for word in (*words, "--force", "nothing was written"):
                self.assertIn(word, result.stderr)
        self.assert_unchanged(path, before)
        forced = self.vorlix_ok(*arguments, "--force")
        self.assertTrue(tools.fdisk_slots(path)[partition][0])
        return forced.stdout

    def test_a_blank_slice(self):
        path = tools.sgdisk_image(self.path("blank.img"), MAC)
        output = self.refuse_unless_forced(path, path + "s3", "is blank")
        self.assertIn("left as it is", output)
        self.assertEqual(gpt.read_at(path, WINDOWS_FIRST * 512, 512), bytes(512))

    def test_a_slice_of_another_type(self):
        path = self.mac_image()
        tools.sgdisk(path, "-t", f"3:{gpt.LINUX}")
        self.refuse_unless_forced(path, path + "s3", "not Microsoft basic data")

    def test_a_volume_of_another_kind_is_never_patched(self):
        for name, make in (("ext4", ("mkfs.ext4", "-q", "-F")), ("exfat", ("mkfs.exfat",))):
            with self.subTest(name):
                path = tools.sgdisk_image(self.path(name + ".img"), MAC)
                volume = self.path(name)
                with open(volume, "wb") as file:
                    file.truncate(WINDOWS_SIZE)
                images.run_tool(*make, volume)
                with open(volume, "rb") as file:
                    tools.write_sparse(path, WINDOWS_FIRST * 512, file.read())
                before = volumes.region_hash(path, WINDOWS_FIRST * 512, WINDOWS_SIZE)
                self.refuse_unless_forced(path, path + "s3", "NTFS or FAT")
                self.assertEqual(volumes.region_hash(path, WINDOWS_FIRST * 512, WINDOWS_SIZE), before)

    def test_the_efi_system_partition(self):
        path = self.mac_image()
        tools.write_sparse(path, MAC[1][0] * 512, tools.fat_volume(self.path("fat"), 16 << 20))
        self.refuse_unless_forced(path, path + "s1", "EFI System Partition", partition=1)

    def test_boot_code_of_zeros(self):
        path, empty = self.mac_image(), self.path("empty.bin")
        for content in (bytes(440), bytes(440) + b"\xC0\xFF\xEE\x01\0\0", bytes(512)):
            with open(empty, "wb") as file:
                file.write(content)
            self.refuse_unless_forced(path, empty, "zero", boot_code=empty)

    def test_check_calls_them_changes(self):
        path = tools.sgdisk_image(self.path("blank.img"), MAC)
        result = self.vorlix_run("check", path, "--partition", WINDOWS)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertRegex(result.stdout, "(?m)^Volume +change .*is blank")

    def test_a_name_that_shows_another_disk(self):
        """A link with the name of a slice, or of the volume, leads to another disk."""
        path, other = self.mac_image(), self.mac_image("other.img")
        os.symlink(other, path + "s3")
        before = images.snapshot(path), images.snapshot(other)
        self.assertIn("nothing was written", self.hybrid(path, WINDOWS, expect=2).stderr)
        self.assertEqual((images.snapshot(path), images.snapshot(other)), before)


class SecondBootSector(ImageTest):
    LAST = WINDOWS_FIRST * 512 + WINDOWS_SIZE - 512

    def ntfs_judgement(self, path):
        """ntfsfix's report about the volume's two boot sectors."""
        copy = self.path("copy.ntfs")
        with open(copy, "wb") as file:
            file.truncate(WINDOWS_SIZE)
        tools.write_sparse(copy, 0, gpt.read_at(path, WINDOWS_FIRST * 512, WINDOWS_SIZE))
        result = subprocess.run([images.tool("ntfsfix"), "-n", copy], capture_output=True, text=True, timeout=60)
        return "Checking the alternate boot sector... OK" in result.stdout and result.returncode == 0

    def test_ntfs(self):
        path = self.mac_image()
        self.assertTrue(self.ntfs_judgement(path))
        result = self.hybrid(path, WINDOWS)
        self.assertIn(f"second boot sector, at byte {WINDOWS_SIZE - 512}, likewise", result.stdout)
        self.assertTrue(self.ntfs_judgement(path))
        first = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.assertEqual(gpt.read_at(path, self.LAST, 512), first)
        self.assertEqual(first[28:32], WINDOWS_FIRST.to_bytes(4, "little"))
        self.assertRegex(self.vorlix_ok("check", path, "--partition", WINDOWS).stdout, "(?m)^Second copy +ok ")

    def test_one_that_an_earlier_patch_left_behind(self):
        path = self.mac_image()
        old = gpt.read_at(path, self.LAST, 512)
        self.hybrid(path, WINDOWS)
        gpt.write_at(path, self.LAST, old)
        self.assertFalse(self.ntfs_judgement(path))
        check = self.vorlix_run("check", path, "--partition", WINDOWS)
        self.assertEqual(check.returncode, 1)
        self.assertRegex(check.stdout, "(?m)^Second copy +change ")
        self.hybrid(path, WINDOWS, "--dry-run", expect=1)
        self.hybrid(path, WINDOWS)
        self.assertTrue(self.ntfs_judgement(path))

    def test_what_is_no_copy_is_left_alone(self):
        for what in (bytes(512), b"precious".ljust(512, b"!")):
            path = self.mac_image()
            gpt.write_at(path, self.LAST, what)
            result = self.hybrid(path, WINDOWS)
            self.assertIn("no copy", result.stdout)
            self.assertNotIn("likewise", result.stdout)
            self.assertEqual(gpt.read_at(path, self.LAST, 512), what)
            self.assertEqual(self.vorlix_run("check", path, "--partition", WINDOWS).returncode, 1)

    def test_a_volume_that_ends_before_its_partition(self):
        """A volume restored into a larger partition has its copy right after its end. The partition's last sector is unused."""
        path = tools.sgdisk_image(self.path("smaller.img"), MAC)
        size = WINDOWS_SIZE - (1 << 20)
        tools.write_sparse(path, WINDOWS_FIRST * 512, tools.start_volume_for(path, WINDOWS, size))
        self.hybrid(path, WINDOWS)
        first = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.assertEqual(gpt.read_at(path, WINDOWS_FIRST * 512 + size - 512, 512), first)
        self.assertEqual(gpt.read_at(path, self.LAST, 512), bytes(512))
        self.assertEqual(self.vorlix_run("check", path, "--partition", WINDOWS).returncode, 0)

    def fat32_image(self):
        layout = {1: MAC[1], 2: MAC[2], 3: (FAT32_FIRST, FAT32_FIRST + FAT32_SIZE // 512 - 1, gpt.BASIC_DATA)}
        path = tools.sgdisk_image(self.path("fat32.img"), layout)
        volume = volumes.make_fat(self.path("volume.fat"), 32, "WINDOWS")
        with open(volume, "rb") as file:
            tools.write_sparse(path, FAT32_FIRST * 512, file.read())
        return path

    def test_fat32(self):
        path = self.fat32_image()
        volumes.check_fat(path, FAT32_FIRST * 512, FAT32_SIZE)
        before = gpt.read_at(path, FAT32_FIRST * 512, 512)
        self.assertEqual(before[50:52], b"\x06\0")
        self.hybrid(path, WINDOWS)
        volumes.check_fat(path, FAT32_FIRST * 512, FAT32_SIZE)
        now = gpt.read_at(path, FAT32_FIRST * 512, 512)
        self.assertEqual(gpt.read_at(path, FAT32_FIRST * 512 + 6 * 512, 512), now)
        start = FAT32_FIRST.to_bytes(4, "little")
        self.assertEqual(now.hex(), (before[:28] + start + before[32:67] + now[67:71] + before[71:]).hex())
        self.assertNotEqual(now[67:71], before[67:71])

    def test_fat32_that_names_a_sector_of_its_data(self):
        path = self.fat32_image()
        gpt.write_at(path, FAT32_FIRST * 512 + 50, b"\xFE\xFF")
        end = FAT32_FIRST * 512 + 0xFFFE * 512
        self.assertLess(end, FAT32_FIRST * 512 + FAT32_SIZE)  # inside the volume, but not a copy
        gpt.write_at(path, end, b"precious".ljust(512, b"!"))
        self.assertIn("no copy", self.hybrid(path, WINDOWS).stdout)
        self.assertEqual(gpt.read_at(path, end, 512), b"precious".ljust(512, b"!"))


if __name__ == "__main__":
    images.main()
