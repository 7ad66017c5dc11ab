# SPDX-License-Identifier: Apache-2.0
"""`mount`, `unmount` and `efi` on real volumes, checked with the kernel's mount table and mount(8)."""

import errno
import os
import unittest

from bed import disks
from bed.guest import LOCKED, MAC, NOTES, SECOND, GuestTest, mounted, mounts_of, node, read_text, write_text
from support import samples

EFI, HFS_PLUS, WINDOWS, EXCHANGE, DATA = (f"{MAC}{number}" for number in (1, 2, 3, 4, 5))


class MountTest(GuestTest):
    def assert_mounted_once(self, name, point, kinds):
        found = mounts_of(node(name))
        self.assertEqual([place for place, _, _ in found], [point])
        self.assertIn(found[0][1], kinds)

    def assert_not_mounted(self, name):
        self.assertEqual(mounts_of(node(name)), [])


class OfEachVolume:
    """Tests for each kind of volume. `name`: the device; `kinds`: the kernel's file systems that may mount it."""

    def test_the_volumes_files_are_seen_where_the_command_says(self):
        with mounted(self.name) as point:
            write_text(os.path.join(point, "hello.txt"), f"seen on {self.name}\n")
        point = self.mount(node(self.name))
        self.assert_mounted_once(self.name, point, self.kinds)
        self.assertEqual(read_text(os.path.join(point, "hello.txt")), f"seen on {self.name}\n")
        self.vorlix("unmount", node(self.name))
        self.assert_not_mounted(self.name)

    def test_what_is_written_is_there_when_mounted_again(self):
        point = self.mount(node(self.name), "--read-write")
        self.assert_mounted_once(self.name, point, self.kinds)
        os.makedirs(os.path.join(point, "written"), exist_ok=True)
        write_text(os.path.join(point, "written", "Grüße.txt"), f"written on {self.name}\n")
        self.vorlix("unmount", node(self.name))
        self.assert_not_mounted(self.name)
        with mounted(self.name, "-o", "ro,utf8" if self.kinds == ("vfat",) else "ro") as point:
            self.assertEqual(read_text(os.path.join(point, "written", "Grüße.txt")), f"written on {self.name}\n")
        point = self.mount(node(self.name))
        self.assertEqual(read_text(os.path.join(point, "written", "Grüße.txt")), f"written on {self.name}\n")

    def test_a_volume_in_use_stays_mounted(self):
        point = self.mount(node(self.name), "--read-write")
        path = os.path.join(point, "open.txt")
        write_text(path, "still here\n")
        with open(path, encoding="utf-8") as file:
            self.assertIn("it stays mounted", self.refused("unmount", node(self.name)))
            self.assert_mounted_once(self.name, point, self.kinds)
            self.assertEqual(file.read(), "still here\n")
        self.vorlix("unmount", node(self.name))
        self.assert_not_mounted(self.name)

    def test_mounted_by_someone_else_it_is_found_and_unmounted(self):
        place = self.path("somewhere else")
        os.mkdir(place)
        samples.run("mount", node(self.name), place)
        self.assertEqual(self.mount(node(self.name)), place)
        self.assert_mounted_once(self.name, place, self.kinds)
        self.vorlix("unmount", node(self.name))
        self.assert_not_mounted(self.name)
        self.assertTrue(os.path.isdir(place))  # the command did not create the folder and must not remove it

    def test_mounting_it_twice_leaves_one_mount(self):
        first = self.mount(node(self.name))
        self.assertEqual(self.mount(node(self.name)), first)
        self.assert_mounted_once(self.name, first, self.kinds)


class FatVolumeTest(OfEachVolume, MountTest):
    name = DATA
    kinds = ("vfat",)


class ExfatVolumeTest(OfEachVolume, MountTest):
    name = EXCHANGE
    kinds = ("exfat",)


class NtfsVolumeTest(OfEachVolume, MountTest):
    name = WINDOWS
    kinds = ("fuseblk", "ntfs3")


class HfsPlusVolumeTest(MountTest):
    @unittest.skipIf("noHFSPlus" in NOTES, NOTES.get("noHFSPlus"))
    def test_the_volumes_files_are_seen_where_the_command_says(self):
        point = self.mount(node(HFS_PLUS))
        self.assert_mounted_once(HFS_PLUS, point, ("hfsplus",))
        self.assertEqual(read_text(os.path.join(point, disks.HFS_PLUS_FILE)), disks.HFS_PLUS_TEXT)
        self.vorlix("unmount", node(HFS_PLUS))
        self.assert_not_mounted(HFS_PLUS)


class NamesTest(MountTest):
    def test_every_form_of_a_name_is_the_same_volume(self):
        points = []
        for name in (DATA, node(DATA), f"{MAC}s5", f"/dev/{MAC}s5"):
            with self.subTest(name=name):
                points.append(self.mount(name))
                self.assert_mounted_once(DATA, points[-1], ("vfat",))
                self.vorlix("unmount", name)
                self.assert_not_mounted(DATA)

    def test_two_volumes_are_mounted_side_by_side(self):
        points = {name: self.mount(node(name)) for name in (DATA, EXCHANGE)}
        self.assertNotEqual(points[DATA], points[EXCHANGE])
        self.vorlix("unmount", node(DATA))
        self.assert_not_mounted(DATA)
        self.assert_mounted_once(EXCHANGE, points[EXCHANGE], ("exfat",))

    def test_an_unknown_name_is_refused(self):
        before = read_text("/proc/self/mountinfo")
        for command in ("mount", "unmount"):
            for name in ("vdz9", "/dev/vdz9", f"{MAC}s9"):
                with self.subTest(command=command, name=name):
                    self.assertIn(name, self.refused(command, name))
        self.assertEqual(read_text("/proc/self/mountinfo"), before)

    def test_a_disk_without_a_volume_of_its_own_is_refused(self):
        self.refused("mount", node(MAC))
        self.assert_not_mounted(MAC)

    def test_unmounting_what_is_not_mounted_is_refused(self):
        self.assertIn("not mounted", self.refused("unmount", node(DATA)))


class LockedDiskTest(MountTest):
    name = f"{LOCKED}1"

    def test_it_is_mounted_for_reading(self):
        point = self.mount(node(self.name))
        self.assertIn("ro", mounts_of(node(self.name))[0][2])
        self.assertIn("make_disks", read_text(os.path.join(point, "disks.py")))
        with self.assertRaises(OSError) as refusal:
            write_text(os.path.join(point, "new.txt"), "")
        self.assertEqual(refusal.exception.errno, errno.EROFS)

    def test_it_is_not_mounted_for_writing(self):
        self.refused("mount", node(self.name), "--read-write")
        self.assert_not_mounted(self.name)


class EFITest(MountTest):
    def test_the_first_slice_is_mounted_and_unmounted(self):
        printed = self.vorlix("efi", "mount", node(SECOND)).stdout
        self.assert_mounted_once(f"{SECOND}1", printed.rstrip("\n"), ("vfat",))
        self.assert_not_mounted(EFI)
        self.vorlix("efi", "unmount", node(SECOND))
        self.assert_not_mounted(f"{SECOND}1")

    def test_in_use_it_stays_mounted(self):
        point = self.vorlix("efi", "mount", SECOND).stdout.rstrip("\n")
        descriptor = os.open(point, os.O_RDONLY | os.O_DIRECTORY)
        try:
            self.refused("efi", "unmount", SECOND)
            self.assert_mounted_once(f"{SECOND}1", point, ("vfat",))
        finally:
            os.close(descriptor)
        self.vorlix("efi", "unmount", SECOND)
        self.assert_not_mounted(f"{SECOND}1")
