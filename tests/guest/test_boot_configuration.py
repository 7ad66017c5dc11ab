# SPDX-License-Identifier: Apache-2.0
"""`bcd` on a real EFI System Partition, read back with mtools."""

import os
import shutil
import subprocess
import uuid

from bed.guest import MAC, SECOND, GuestTest, blkid, digest, disk_guid, mounted, mounts_of, node
from support import hive, samples

EFI = f"{SECOND}1"
WINDOWS = 2
STORE = "EFI/Microsoft/Boot/BCD"

# Byte offsets of the partition's identifiers in the store, by mode.
PARTITION_SLOTS = {"standard": (10492, 10740), "mdt": (8792, 10200, 14124), "sccm": (8424, 9872)}
DISK_SLOTS = {"standard": (5828, 7900, 9372, 10516, 10764), "mdt": (8816, 10224, 11908, 11932, 14148),
              "sccm": (8448, 9896, 11660, 19284)}


def template_bytes(size=24576):
    """A template for every mode. Adjacent bytes mostly differ, and differ from the identifiers that replace them."""
    return hive.prepared_store(bytes((at * 7 + at // 256) % 251 for at in range(size)), *hive.ELEMENTS)


def store_on_volume():
    """The store that mtools reads from the partition; None if there is none."""
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

    def test_a_store_is_replaced_whatever_its_spelling(self):
        with mounted(EFI) as point:
            shutil.rmtree(os.path.join(point, "EFI"))
            os.makedirs(os.path.join(point, "EFI/MICROSOFT/BOOT"))
            with open(os.path.join(point, "EFI/MICROSOFT/BOOT/bcd"), "wb") as file:
                file.write(b"the store of before")
        self.addCleanup(self.clear)
        self.bcd("mdt")
        with mounted(EFI) as point:
            self.assertEqual(os.listdir(os.path.join(point, "EFI")), ["MICROSOFT"])
            self.assertEqual(os.listdir(os.path.join(point, "EFI/MICROSOFT/BOOT")), ["bcd"])
        self.assertEqual(store_on_volume()[:8792], template_bytes()[:8792])

    def clear(self):
        with mounted(EFI) as point:
            shutil.rmtree(os.path.join(point, "EFI"))

    def test_a_full_partition_keeps_the_store(self):
        filler = "filler"
        with mounted(EFI) as point:
            status = os.statvfs(point)
            with open(os.path.join(point, filler), "wb") as file:
                os.posix_fallocate(file.fileno(), 0, (status.f_bavail - 4) * status.f_frsize)
        try:
            self.assertIn("no room", self.refused("bcd", node(SECOND), "--partition", str(WINDOWS), "--template",
                                                  self.template, "--mode", "mdt"))
            self.assertEqual(store_on_volume(), b"the store of before")
            self.assertEqual(mounts_of(node(EFI)), [])
        finally:
            with mounted(EFI) as point:
                os.remove(os.path.join(point, filler))

    def test_another_disk_and_the_windows_volume_are_not_touched(self):
        before = digest(node(MAC)), digest(node(f"{SECOND}{WINDOWS}"))
        self.bcd("standard")
        self.assertEqual((digest(node(MAC)), digest(node(f"{SECOND}{WINDOWS}"))), before)

    def test_a_dry_run_writes_nothing(self):
        before = digest(node(SECOND))
        self.bcd("standard", "--dry-run", status=1)
        self.assertEqual(digest(node(SECOND)), before)
        self.assertEqual(mounts_of(node(EFI)), [])

    def test_the_store_of_before_is_saved_and_undo_restores_it(self):
        backup = self.path("backup")
        self.bcd("mdt", "--backup", backup)
        self.assertNotEqual(store_on_volume(), b"the store of before")
        (name,) = os.listdir(backup)
        with open(os.path.join(backup, name, "before.bin"), "rb") as file:
            self.assertEqual(file.read(), b"the store of before")
        self.vorlix("undo", os.path.join(backup, name))
        self.assertEqual(store_on_volume(), b"the store of before")
        self.assertEqual(mounts_of(node(EFI)), [])

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
        self.assertEqual([point for point, _, _ in mounts_of(node(EFI))], [place])
        self.assertEqual(os.listdir(os.path.join(place, "EFI/Microsoft/Boot")), ["BCD"])
        samples.run("umount", place)
        self.assertEqual(store_on_volume()[:8424], template_bytes()[:8424])
