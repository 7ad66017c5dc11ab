# SPDX-License-Identifier: Apache-2.0
"""bcd on a real EFI System Partition, read back with mtools."""

import os
import subprocess
import uuid

from bed.guest import MAC, SECOND, GuestTest, blkid, digest, disk_guid, mounted, mounts_of, node
from support import samples

EFI = f"{SECOND}1"
WINDOWS = 2
STORE = "EFI/Microsoft/Boot/BCD"

# Where the identifiers go, by mode.
PARTITION_SLOTS = {"standard": (10492, 10740), "mdt": (8792, 10200, 14124), "sccm": (8424, 9872)}
DISK_SLOTS = {"standard": (5828, 7900, 9372, 10516, 10764), "mdt": (8816, 10224, 11908, 11932, 14148),
              "sccm": (8448, 9896, 11660, 19284)}


def template_bytes(size=24576):
    """No two neighbours of these bytes are alike, and none is like what it will be replaced with for long."""
    return bytes((at * 7 + at // 256) % 251 for at in range(size))


def store_on_volume():
    """The store as mtools reads it from the partition; None when there is none."""
    result = subprocess.run(["mcopy", "-n", "-i", node(EFI), f"::/{STORE}", "-"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    return result.stdout if result.returncode == 0 else None


class BootConfigurationTest(GuestTest):
    def setUp(self):
        super().setUp()
        self.template = self.path("template")
        with open(self.template, "wb") as file:
            file.write(template_bytes())
        with mounted(EFI) as point:
            os.makedirs(os.path.join(point, "EFI/Microsoft/Boot"), exist_ok=True)
            with open(os.path.join(point, STORE), "wb") as file:
                file.write(b"the store of before")

    def bcd(self, mode, *options, status=0):
        return self.vorlix("bcd", node(SECOND), "--partition", str(WINDOWS), "--template", self.template, "--mode", mode,
                           *options, status=status)

    def test_each_mode_puts_the_identifiers_in_its_places_alone(self):
        partition = uuid.UUID(blkid(node(f"{SECOND}{WINDOWS}"))["PART_ENTRY_UUID"]).bytes_le
        disk = uuid.UUID(disk_guid(SECOND)).bytes_le
        for mode in ("standard", "mdt", "sccm"):
            with self.subTest(mode=mode):
                expected = bytearray(template_bytes())
                for slots, identifier in ((PARTITION_SLOTS[mode], partition), (DISK_SLOTS[mode], disk)):
                    for offset in slots:
                        expected[offset:offset + 16] = identifier
                self.bcd(mode)
                self.assertEqual(mounts_of(node(EFI)), [])
                found = store_on_volume()
                differing = [at for at, pair in enumerate(zip(expected, found or b"")) if pair[0] != pair[1]]
                self.assertEqual(differing[:8], [])
                self.assertEqual(len(found), len(expected))
        samples.run("fsck.vfat", "-n", node(EFI))

    def test_another_disk_and_the_windows_volume_are_not_touched(self):
        before = digest(node(MAC)), digest(node(f"{SECOND}{WINDOWS}"))
        self.bcd("standard")
        self.assertEqual((digest(node(MAC)), digest(node(f"{SECOND}{WINDOWS}"))), before)

    def test_a_dry_run_writes_nothing(self):
        before = digest(node(SECOND))
        self.bcd("standard", "--dry-run", status=1)
        self.assertEqual(digest(node(SECOND)), before)
        self.assertEqual(mounts_of(node(EFI)), [])

    def test_the_store_of_before_is_saved(self):
        backup = self.path("backup")
        self.bcd("mdt", "--backup", backup)
        saved = []
        for name in os.listdir(backup):
            with open(os.path.join(backup, name), "rb") as file:
                saved.append(file.read())
        self.assertEqual(saved, [b"the store of before"])

    def test_without_its_folder_no_store_is_made(self):
        with mounted(EFI) as point:
            os.remove(os.path.join(point, STORE))
            os.rmdir(os.path.join(point, "EFI/Microsoft/Boot"))
        self.bcd("standard", status=2)
        self.assertEqual(mounts_of(node(EFI)), [])
        self.assertIsNone(store_on_volume())

    def test_without_a_template_the_store_stays(self):
        os.remove(self.template)
        self.bcd("standard", status=2)
        self.assertEqual(mounts_of(node(EFI)), [])
        self.assertEqual(store_on_volume(), b"the store of before")

    def test_an_efi_partition_mounted_by_someone_else_is_used_where_it_is(self):
        place = self.path("efi")
        os.mkdir(place)
        samples.run("mount", node(EFI), place)
        self.bcd("sccm")
        for point, _, _ in mounts_of(node(EFI)):
            self.assertEqual(point, place)
            samples.run("umount", point)
        self.assertEqual(store_on_volume()[:8424], template_bytes()[:8424])
