# SPDX-License-Identifier: Apache-2.0
"""`legacy-boot` on a real NTFS volume and on FAT, where "BOOT" and "boot" are the same name."""

import os
import shutil

from bed.guest import MAC, GuestTest, digest, mounted, node, read_text, write_text

SOURCES = {"Windows/Boot/PCAT/bootmgr": "the boot manager\n", "Windows/Boot/PCAT/en-US/bootmgr.exe.mui": "its words\n",
           "Windows/Boot/Fonts/segmono_boot.ttf": "a font\n"}
COPIES = {"boot/bootmgr": "the boot manager\n", "boot/en-US/bootmgr.exe.mui": "its words\n",
          "boot/Fonts/segmono_boot.ttf": "a font\n", "boot/BCD": "a store\n", "bootmgr": "the boot manager\n"}


class OfEachVolume:
    def setUp(self):
        super().setUp()
        self.store = self.path("store")
        write_text(self.store, "a store\n")
        with mounted(self.name) as point:
            for path, text in SOURCES.items():
                os.makedirs(os.path.dirname(os.path.join(point, path)), exist_ok=True)
                write_text(os.path.join(point, path), text)
        self.addCleanup(self.clear)

    def clear(self):
        with mounted(self.name) as point:
            for folder in ("Windows", "boot"):
                shutil.rmtree(os.path.join(point, folder), ignore_errors=True)
            if os.path.exists(os.path.join(point, "bootmgr")):
                os.remove(os.path.join(point, "bootmgr"))

    def assert_set_up(self):
        with mounted(self.name, "-o", "ro") as point:
            for path, text in {**COPIES, **SOURCES}.items():
                self.assertEqual(read_text(os.path.join(point, path)), text, path)

    def test_the_boot_managers_files_are_laid_out(self):
        self.mount(node(self.name), "--read-write")
        self.vorlix("legacy-boot", node(self.name), "--bcd", self.store)
        self.vorlix("unmount", node(self.name))
        self.assert_set_up()

    def test_a_folder_where_it_is_mounted_names_the_volume(self):
        with mounted(self.name) as point:
            self.vorlix("legacy-boot", point, "--bcd", self.store)
        self.assert_set_up()

    def test_a_second_run_changes_nothing(self):
        with mounted(self.name) as point:
            self.vorlix("legacy-boot", point, "--bcd", self.store)
            write_text(os.path.join(point, "boot", "BCD"), "changed since\n")
            self.vorlix("legacy-boot", point, "--bcd", self.store)
            self.assertEqual(read_text(os.path.join(point, "boot", "BCD")), "changed since\n")

    def test_a_store_that_is_missing_is_refused(self):
        with mounted(self.name) as point:
            self.refused("legacy-boot", point, "--bcd", self.path("nothing"))
            self.assertFalse(os.path.exists(os.path.join(point, "boot")))

    def test_a_volume_that_is_not_mounted_is_refused(self):
        before = digest(node(self.name))
        self.assertIn("not mounted", self.refused("legacy-boot", node(self.name), "--bcd", self.store))
        self.assertEqual(digest(node(self.name)), before)


class NtfsVolumeTest(OfEachVolume, GuestTest):
    name = f"{MAC}3"


class FatVolumeTest(OfEachVolume, GuestTest):
    name = f"{MAC}5"
