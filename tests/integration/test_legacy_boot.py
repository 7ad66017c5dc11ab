# SPDX-License-Identifier: Apache-2.0
"""
Starts disks in an emulated PC with a BIOS and checks that the PC reaches the Windows volume's boot code.

The volume's boot sector has a few bytes of code that print a marker and the sector's hidden-sectors field on the first
serial port. To reach it, the PC needs the boot code that `vorlix hybrid` writes to sector 0, the slot that it marks active
and the start sector that it writes to the volume. If one of them is wrong, the line does not appear.
"""

import os
import subprocess
import tempfile
import unittest

from support import bios, samples
from support.samples import Slice

BOOT_CODE = samples.syslinux_mbr()
BOOT_CODE_SIZE = 440  # bytes of sector 0 before the disk signature and the slots

APPLE = Slice(2, 4136, 2048, samples.APPLE_APFS, "Macintosh HD")
WINDOWS = Slice(3, 6184, 8192, samples.BASIC_DATA, "BOOTCAMP")
EFI = Slice(1, 40, 4096, samples.EFI_SYSTEM, "EFI System Partition")

# Two systems. The second one starts beyond sector 16450560, the limit of cylinder numbers. The four bytes of its first
# sector number, 0x01234568, all differ.
FIRST_OF_TWO = Slice(2, 4136, 8192, samples.BASIC_DATA, "ONE")
BETWEEN = Slice(3, 12328, 2048, samples.APPLE_APFS, "Macintosh HD")
SECOND_OF_TWO = Slice(4, 19088744, 8192, samples.BASIC_DATA, "TWO")


def missing():
    absent = [name for name in ("qemu-system-x86_64", "sgdisk", "mkntfs") if samples.tool(name) is None]
    if BOOT_CODE is None:
        absent.append("syslinux's mbr.bin")
    return ", ".join(absent)


@unittest.skipIf(missing(), f"not installed: {missing()}")
class LegacyBoot(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="legacy-boot-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.disk = os.path.join(self.folder, "mac.img")

    def make_disk(self, *slices):
        last = max(part.first + part.sectors for part in slices)
        samples.make_disk(self.disk, last + 64, slices)
        for part in slices:
            if part.code == samples.BASIC_DATA:
                self.make_system(part)

    def make_system(self, part):
        volume = os.path.join(self.folder, part.name)
        samples.make_ntfs(volume, part.sectors, part.name)
        self.assertEqual(samples.read(volume, bios.HIDDEN_SECTORS, 4), bytes(4))
        bios.make_system(volume, part.name)
        samples.place(self.disk, volume, part.first)

    def write_hybrid(self, partition, *options):
        environment = {**os.environ, "HOME": self.folder}
        result = subprocess.run(
            [os.environ["VORLIX"], "hybrid", self.disk, "--boot-code", BOOT_CODE, "--partition", str(partition), *options],
            env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=60, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)

    def assert_started(self, part):
        text, ended = bios.start(self.disk, self.folder)
        self.assertEqual(bios.started_volumes(text), [(part.name, f"{part.first:08X}")], text)
        self.assertNotIn(bios.NO_SYSTEM, text)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME)

    def assert_not_started(self):
        text, ended = bios.start(self.disk, self.folder)
        self.assertNotIn("volume", text)
        self.assertIn(bios.NO_SYSTEM, text)
        self.assertIn(bios.NO_DEVICE, text)
        self.assertEqual(ended, bios.ENDED_BY_RESET)

    def test_a_volume_in_slot_3_starts_and_finds_its_first_sector(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        self.write_hybrid(3)
        self.assert_started(WINDOWS)

    def test_the_chosen_one_of_two_volumes_starts(self):
        self.make_disk(EFI, FIRST_OF_TWO, BETWEEN, SECOND_OF_TWO)
        self.write_hybrid(2)
        self.assert_started(FIRST_OF_TWO)
        self.write_hybrid(4)
        self.assert_started(SECOND_OF_TWO)

    def test_a_protective_mbr_starts_nothing(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        with open(BOOT_CODE, "rb") as file:  # so that only the slots are missing
            samples.write(self.disk, 0, file.read(BOOT_CODE_SIZE))
        self.assert_not_started()

    def test_another_active_slot_starts_nothing(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        self.write_hybrid(3)
        self.write_hybrid(APPLE.number, "--force")
        self.assert_not_started()


if __name__ == "__main__":
    unittest.main()
