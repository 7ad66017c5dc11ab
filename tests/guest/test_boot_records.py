# SPDX-License-Identifier: Apache-2.0
"""`vbr` and `boot-code` on block devices."""

import os

from bed.guest import LOCKED, MAC, SECOND, GuestTest, digest, mounted, mounts_of, node, read_text, write_text
from support import samples

SOURCE, TARGET = node(f"{MAC}3"), node(f"{SECOND}2")  # NTFS volumes of different sizes
BOOT_CODE = 84  # offset of the boot code, after an NTFS volume's parameters
BOOT_AREA = 8192


class SaveTest(GuestTest):
    def test_a_saved_boot_record_is_the_boot_area_behind_the_parameters(self):
        before = digest(node(MAC))
        self.vorlix("vbr", "save", SOURCE, self.path("vbr"))
        self.assertEqual(samples.read(self.path("vbr"), 0, BOOT_AREA),
                         samples.read(SOURCE, BOOT_CODE, BOOT_AREA - BOOT_CODE))
        self.assertEqual(digest(node(MAC)), before)

    def test_saved_boot_code_is_the_start_of_sector_0(self):
        before = digest(node(MAC))
        self.vorlix("boot-code", "save", node(MAC), self.path("code"))
        self.assertEqual(samples.read(self.path("code"), 0, BOOT_AREA), samples.read(node(MAC), 0, 446))
        self.assertEqual(digest(node(MAC)), before)

    def test_boot_code_is_saved_from_a_disk_that_cannot_be_written(self):
        self.vorlix("boot-code", "save", node(LOCKED), self.path("code"))
        self.assertEqual(samples.read(self.path("code"), 0, BOOT_AREA), samples.read(node(LOCKED), 0, 446))

    def test_a_file_that_exists_is_left_alone(self):
        write_text(self.path("file"), "precious")
        self.refused("vbr", "save", SOURCE, self.path("file"))
        self.refused("boot-code", "save", node(MAC), self.path("file"))
        self.assertEqual(read_text(self.path("file")), "precious")


class RestoreTest(GuestTest):
    def setUp(self):
        super().setUp()
        before = samples.read(TARGET, 0, BOOT_AREA)
        self.addCleanup(lambda: samples.write(TARGET, 0, before))
        self.own = before[:BOOT_CODE]
        self.rest = digest(TARGET, BOOT_AREA)
        # Real boot code for the volume's first sector, and recognisable bytes for the area after it.
        saved = bytearray(samples.read(SOURCE, BOOT_CODE, BOOT_AREA - BOOT_CODE))
        saved[600:632] = b"behind the volume's first sector"
        self.saved = bytes(saved)
        with open(self.path("vbr"), "wb") as file:
            file.write(self.saved)

    def assert_restored(self):
        now = samples.read(TARGET, 0, BOOT_AREA)
        self.assertEqual(now[:BOOT_CODE], self.own)
        self.assertEqual(now[BOOT_CODE:], self.saved)

    def test_the_boot_record_goes_behind_the_volumes_own_parameters(self):
        self.vorlix("vbr", "restore", self.path("vbr"), TARGET)
        self.assert_restored()
        self.assertEqual(digest(TARGET, BOOT_AREA), self.rest)
        samples.run("ntfsfix", "--no-action", TARGET)
        with mounted(f"{SECOND}2", "-o", "ro") as point:
            os.listdir(point)

    def test_a_mounted_volume_is_unmounted_first(self):
        place = self.path("windows")
        os.mkdir(place)
        samples.run("mount", TARGET, place)
        self.vorlix("vbr", "restore", self.path("vbr"), TARGET)
        self.assertEqual(mounts_of(TARGET), [])
        self.assert_restored()

    def test_a_volume_in_use_is_not_written(self):
        place = self.path("windows")
        os.mkdir(place)
        samples.run("mount", TARGET, place)
        descriptor = os.open(place, os.O_RDONLY | os.O_DIRECTORY)
        try:
            self.refused("vbr", "restore", self.path("vbr"), TARGET)
            self.assertEqual([point for point, _, _ in mounts_of(TARGET)], [place])
            self.assertEqual(samples.read(TARGET, 0, BOOT_CODE), self.own)
            self.assertNotEqual(samples.read(TARGET, BOOT_CODE, BOOT_AREA - BOOT_CODE), self.saved)
        finally:
            os.close(descriptor)

    def test_a_short_file_is_refused(self):
        os.truncate(self.path("vbr"), 8107)
        before = digest(TARGET)
        self.refused("vbr", "restore", self.path("vbr"), TARGET)
        self.assertEqual(digest(TARGET), before)
