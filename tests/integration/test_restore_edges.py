# SPDX-License-Identifier: Apache-2.0
"""`vorlix restore` at the edges of numbers: disks beyond 2 TiB, sectors of 4096 bytes, slices that end where a disk ends."""

import os
import unittest

from support import gpt, images, samples, tools, volumes
from support.samples import Slice

MISSING = volumes.missing("sgdisk", "mkntfs", "ntfsfix", "setpriv")
TWO_TIB = 2**32  # in sectors of 512 bytes
SECTORS = 16384  # of the volume
HIDDEN_SECTORS = slice(28, 32)
EFI = Slice(1, 40, 2048, samples.EFI_SYSTEM, "EFI System Partition")
BACKUP_GPT = 33  # sectors at the end of a disk: the second copy of 128 entries, and its header


NO_BOOT_FILES = 1  # the status: restored, but there are no boot files on the volume


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class EdgeTest(volumes.VolumeTest):
    def sparse(self, make, *arguments):
        """Makes a sparse disk image. Skips the test if the file system cannot hold one of that size."""
        path = self.path("disk.img")
        try:
            make(path, *arguments)
        except OSError as error:
            self.skipTest(f"the file system cannot hold a sparse file of that size: {error}")
        return self.give(path)

    def disk_with(self, first, sectors, disk_sectors):
        return self.sparse(samples.make_disk, disk_sectors, [EFI, Slice(3, first, sectors, samples.BASIC_DATA, "BOOTCAMP")])

    def image(self, sectors=SECTORS, sector_size=512):
        path = self.path("win.img")
        with open(path, "xb") as file:
            file.truncate(sectors * 512)
        samples.run("mkntfs", "-F", "-Q", "-q", "-s", str(sector_size), "-p", "63", "-S", "63", "-H", "255", path)
        samples.write(path, sectors * 512 - 3 * sector_size, b"the end of the content")
        return self.give(path)

    def restore(self, image, disk, *options, expect=0, saying=()):
        result = self.vorlix_run("restore", image, disk, "--partition", 3, "--yes", *options)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stdout + result.stderr)

    def refuse(self, image, disk, *options, saying=()):
        before = images.snapshot(disk)
        self.restore(image, disk, *options, expect=2, saying=[*saying, "nothing was written"])
        self.assert_unchanged(disk, before)

    def assert_restored(self, disk, offset, image, hidden, sector_size=512):
        """The slice has the image's bytes, with this hidden-sectors field, also in the copy in its last sector."""
        size = os.path.getsize(image)
        with open(image, "rb") as file:
            wanted = bytearray(file.read())
        wanted[HIDDEN_SECTORS] = hidden.to_bytes(4, "little")
        wanted[size - sector_size : size - sector_size + 512] = wanted[:512]
        found = samples.read(disk, offset, size)
        different = [at for at in range(0, size, 512) if found[at : at + 512] != wanted[at : at + 512]]
        self.assertEqual(different, [])
        volume = self.path("restored")
        with open(volume, "wb") as file:
            file.write(found)
        images.run_tool("ntfsfix", "-n", volume)


class LargeDisks(EdgeTest):
    def test_a_slice_beyond_32_bits(self):
        first = TWO_TIB + 40960
        disk = self.disk_with(first, SECTORS, first + SECTORS + 2048)
        self.assertGreater(os.path.getsize(disk), 2 << 40)
        image = self.image()
        self.refuse(image, disk, saying=[f"sectors {first} to", "beyond the 32 bits of an MBR slot", "--start none"])
        self.refuse(image, disk, "--force", saying=["beyond the 32 bits"])
        sector_0 = samples.read(disk, 0, 512)
        before = int.from_bytes(samples.read(image, 28, 4), "little")
        self.restore(image, disk, "--start", "none")
        self.assert_restored(disk, first * 512, image, before)  # the field has no room for the place, and stays
        self.assertEqual(samples.read(disk, 0, 512), sector_0)
        low = 40960  # where a number cut to 32 bits would point
        self.assertEqual(samples.read(disk, low * 512, SECTORS * 512).strip(b"\0"), b"")
        self.assertIn("No problems found", tools.sgdisk(disk, "-v"))

    def test_a_slice_across_the_limit(self):
        first = TWO_TIB - 8192
        disk = self.disk_with(first, SECTORS, first + SECTORS + 2048)
        image = self.image()
        self.refuse(image, disk, saying=["beyond the 32 bits of an MBR slot", "--start none"])
        self.restore(image, disk, "--start", "none")
        self.assert_restored(disk, first * 512, image, first)

    def test_the_last_slice_within_32_bits(self):
        first = TWO_TIB - SECTORS
        disk = self.disk_with(first, SECTORS, TWO_TIB + 4096)
        image = self.image()
        self.restore(image, disk, expect=NO_BOOT_FILES)
        self.assert_restored(disk, first * 512, image, first)
        self.assertEqual(gpt.read_at(disk, 446 + 2 * 16 + 8, 8), first.to_bytes(4, "little") + SECTORS.to_bytes(4, "little"))

    def test_undo_beyond_32_bits(self):
        first = TWO_TIB + 40960
        disk = self.disk_with(first, SECTORS, first + SECTORS + 2048)
        places = (first * 512, (first + SECTORS - 1) * 512)
        for place in places:
            samples.write(disk, place, bytes(range(256)) * 2)
        image = self.image()
        self.restore(image, disk, "--start", "none")
        (backup,) = os.listdir(os.path.join(self.state, "vorlix", "backups"))
        self.vorlix_ok("undo", backup)
        for place in places:
            self.assertEqual(samples.read(disk, place, 512), bytes(range(256)) * 2)


class LargeSectors(EdgeTest):
    FIRST = 1024

    def disk(self, blocks=8192, last=None):
        last = self.FIRST + SECTORS // 8 - 1 if last is None else last
        entries = [gpt.Entry(gpt.EFI_SYSTEM, 6, 1000), None, gpt.Entry(gpt.BASIC_DATA, self.FIRST, last, name="BOOTCAMP")]
        path = self.path("disk.img")
        return self.give(gpt.Table(4096, blocks, entries).write(path))

    def test_a_volume_for_such_sectors(self):
        disk, image = self.disk(), self.image(sector_size=4096)
        self.restore(image, disk, expect=NO_BOOT_FILES)
        self.assert_restored(disk, self.FIRST * 4096, image, self.FIRST, sector_size=4096)
        slot = gpt.read_at(disk, 446 + 2 * 16, 16)
        self.assertEqual((slot[0], slot[4]), (0x80, 0x07))
        self.assertEqual(slot[8:], self.FIRST.to_bytes(4, "little") + (SECTORS // 8).to_bytes(4, "little"))

    def test_a_volume_for_other_sectors(self):
        self.refuse(self.image(), self.disk(), saying=["sectors of 512 bytes", "4096"])

    def test_at_the_last_usable_block(self):
        blocks = self.FIRST + SECTORS // 8 + 5  # 4 blocks of entries and the header
        disk, image = self.disk(blocks), self.image(sector_size=4096)
        copy = gpt.read_at(disk, (blocks - 5) * 4096, 5 * 4096)
        self.restore(image, disk, expect=NO_BOOT_FILES)
        self.assert_restored(disk, self.FIRST * 4096, image, self.FIRST, sector_size=4096)
        self.assertEqual(gpt.read_at(disk, (blocks - 5) * 4096, 5 * 4096), copy)


class Ends(EdgeTest):
    FIRST = 4096

    def test_at_the_last_usable_sector(self):
        """The second boot sector then stands right before the second copy of the GPT."""
        disk_sectors = self.FIRST + SECTORS + BACKUP_GPT
        disk, image = self.disk_with(self.FIRST, SECTORS, disk_sectors), self.image()
        end = (self.FIRST + SECTORS) * 512
        copy = samples.read(disk, end, BACKUP_GPT * 512)
        self.assertEqual(copy[-512:-504], b"EFI PART")
        self.restore(image, disk, expect=NO_BOOT_FILES)
        self.assert_restored(disk, self.FIRST * 512, image, self.FIRST)
        self.assertEqual(samples.read(disk, end, BACKUP_GPT * 512), copy)
        self.assertIn("No problems found", tools.sgdisk(disk, "-v"))

    def reaching(self, last, blocks):
        entries = [gpt.Entry(gpt.EFI_SYSTEM, 40, 2047), None, gpt.Entry(gpt.BASIC_DATA, self.FIRST, last, name="BOOTCAMP")]
        return self.give(gpt.Table(blocks=blocks, entries=entries).write(self.path("disk.img")))

    def test_to_the_end_of_the_disk(self):
        """Such a slice has the second copy of the GPT in it, which a restore would overwrite."""
        blocks = self.FIRST + SECTORS
        disk = self.reaching(blocks - 1, blocks)
        self.assertNotIn("No problems found", tools.sgdisk(disk, "-v"))
        self.refuse(self.image(), disk, saying=["GPT damaged", "--force"])

    def test_beyond_the_end_of_the_disk(self):
        blocks = self.FIRST + SECTORS
        disk = self.reaching(blocks, blocks)
        image = self.image(SECTORS + 1)
        self.refuse(image, disk)
        self.refuse(image, disk, "--force")

    def test_a_volume_that_is_one_sector_too_large(self):
        disk = self.disk_with(self.FIRST, SECTORS, self.FIRST + SECTORS + BACKUP_GPT)
        self.refuse(self.image(SECTORS + 1), disk, saying=["has room for"])
        self.assertIn("No problems found", tools.sgdisk(disk, "-v"))


if __name__ == "__main__":
    images.main()
