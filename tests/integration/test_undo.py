# SPDX-License-Identifier: Apache-2.0
"""`vorlix undo`: what hybrid, bcd, vbr restore and legacy-boot replaced is there again, to the byte, or nothing is touched."""

import json
import os
import shutil
import unittest

from support import backups, gpt, hive, images, samples, volumes
from support.macs import WINDOWS, WINDOWS_FIRST, ImageTest
from test_boot_records import RecordTest, boot_code
from test_boot_store import BOOT_TREE, STORE, StoreTest, random_bytes, template_bytes

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mdir", "mkntfs", "setpriv")


class Sectors(ImageTest):
    """Changes to sectors of a disk, by `hybrid`."""

    def setUp(self):
        super().setUp()
        self.image = self.mac_image()
        self.original = images.content_hash(self.image)
        self.folder = self.path("saved")

    def changed(self):
        """Writes the hybrid MBR; returns the backup's folder."""
        self.hybrid(self.image, WINDOWS, "--backup", self.folder)
        self.assertNotEqual(images.content_hash(self.image), self.original)
        return backups.folders(self.folder)[-1]

    def undo(self, *arguments, expect=0, saying=()):
        result = self.vorlix_run("undo", *arguments)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stdout + result.stderr)
        return result

    def test_restores_every_byte_and_says_what(self):
        backup = self.changed()
        result = self.undo(backup, "--no-backup")
        self.assertEqual(images.content_hash(self.image), self.original)
        self.assertEqual(result.stdout.splitlines(), [f"Restored   {self.image}s3: the boot sector",
                                                      f"Restored   {self.image}s3: the second boot sector",
                                                      f"Restored   {self.image}: sector 0"])

    def test_an_undo_can_be_undone(self):
        backup = self.changed()
        changed = images.content_hash(self.image)
        other = self.path("other")
        self.undo(backup, "--backup", other)
        self.assertEqual(images.content_hash(self.image), self.original)
        self.undo(backups.folders(other)[0], "--no-backup")
        self.assertEqual(images.content_hash(self.image), changed)

    def test_a_second_time_nothing_is_written(self):
        backup = self.changed()
        self.undo(backup, "--no-backup")
        before = images.snapshot(self.image)
        self.undo(backup, saying=["Nothing to undo"])
        self.assert_unchanged(self.image, before)

    def test_what_somebody_changed_since_is_left_alone(self):
        for offset, what in ((470, "sector 0"), (WINDOWS_FIRST * 512 + 200, "the boot sector")):
            with self.subTest(what=what):
                backup = self.changed()
                gpt.write_at(self.image, offset, b"X")
                before = images.snapshot(self.image)
                self.undo(backup, expect=2, saying=[what, "changed since", backup, "nothing was written"])
                self.assert_unchanged(self.image, before)

    def test_a_part_that_is_restored_already_is_skipped(self):
        mbr = gpt.read_at(self.image, 0, 512)
        backup = self.changed()
        gpt.write_at(self.image, 0, mbr)
        result = self.undo(backup, "--no-backup")
        self.assertNotIn("sector 0", result.stdout)
        self.assertEqual(images.content_hash(self.image), self.original)

    def test_a_dry_run_shows_the_bytes_and_writes_none(self):
        backup = self.changed()
        before = images.snapshot(self.image)
        self.undo(backup, "--dry-run", expect=1, saying=["Dry run", "sector 0, at byte 0", "01E0  - "])
        self.assert_unchanged(self.image, before)
        self.undo(backup, "--no-backup")
        self.undo(backup, "--dry-run", expect=0, saying=["Nothing to undo"])

    def test_a_disk_that_has_another_name_now(self):
        backup = self.changed()
        moved = self.path("elsewhere.img")
        os.rename(self.image, moved)
        self.undo(backup, expect=2, saying=[self.image, "no such device or disk image"])
        self.undo(backup, "--on", moved, "--no-backup")
        self.assertEqual(images.content_hash(moved), self.original)

    def test_another_disk_is_refused(self):
        backup = self.changed()
        other = self.mac_image(name="other.img")
        gpt.write_at(other, 470, b"X")
        before = images.snapshot(other)
        self.undo(backup, "--on", other, expect=2, saying=["changed since"])
        self.assert_unchanged(other, before)

    def test_a_damaged_backup_is_refused(self):
        backup = self.changed()
        before = images.snapshot(self.image)
        for name in ("before.bin", "after.bin", "manifest.json"):
            path = os.path.join(backup, name)
            with open(path, "rb") as file:
                content = file.read()
            for damage in (content[:-1], b"", bytes([content[0] ^ 1]) + content[1:]):
                with self.subTest(name=name, size=len(damage)):
                    with open(path, "wb") as file:
                        file.write(damage)
                    if name == "manifest.json" and damage == content[:-1]:
                        continue  # without the line feed at its end it is the same manifest
                    self.undo(backup, expect=2, saying=["damaged", "nothing was written"])
            with open(path, "wb") as file:
                file.write(content)
        self.assert_unchanged(self.image, before)
        self.undo(backup, "--no-backup")

    def test_what_is_no_backup(self):
        for argument, reason in ((self.path("none") + "/", "manifest.json"), (self.folder + "/x", "manifest.json"),
                                 ("20010101", "no backup of that name")):
            self.undo(argument, expect=2, saying=[argument, reason])


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class StateFolder(RecordTest):
    """Backups in the user's state folder, which are the default."""

    def kept(self):
        return backups.folders(os.path.join(self.state, "vorlix", "backups"))

    def listed(self):
        answer = json.loads(self.vorlix_ok("undo", "--list", "--json").stdout)
        self.assertEqual(answer["version"], 1)
        return [(change["name"], change["state"]) for change in answer["changes"]]

    def test_a_change_is_kept_listed_and_undone_by_the_beginning_of_its_name(self):
        target = self.target()
        original = images.content_hash(target)
        self.assertEqual(self.vorlix_ok("undo", "--list").stdout, "There are no backups.\n")
        result = self.vorlix_ok("vbr", "restore", self.saved(), target)
        (folder,) = self.kept()
        name = os.path.basename(folder)
        self.assertIn(f"Undo       vorlix undo {name}\n", result.stdout)
        self.assertTrue(backups.is_the_users_alone(folder))
        self.assertEqual(self.listed(), [(name, "undoable")])
        self.assertIn(f"boot record of {target}", self.vorlix_ok("undo", "--list").stdout)
        self.vorlix_ok("undo", name[:8], "--no-backup")
        self.assertEqual(images.content_hash(target), original)
        self.assertEqual(self.kept(), [])

    def test_no_backup_keeps_none(self):
        result = self.vorlix_ok("vbr", "restore", self.saved(), self.target(), "--no-backup")
        self.assertEqual(self.listed(), [])
        self.assertNotIn("undo", result.stdout)

    def test_both_options_contradict_each_other(self):
        target = self.target()
        before = images.snapshot(target)
        self.vorlix_refuses("vbr", "restore", self.saved(), target, "--no-backup", "--backup", self.path("saved"),
                            saying=["--backup"])
        self.assert_unchanged(target, before)

    def test_states(self):
        target = self.target()
        self.vorlix_ok("vbr", "restore", self.saved(), target)
        (name,) = (name for name, _ in self.listed())
        area = samples.read(target, 0, 8192)
        samples.write(target, 5000, bytes([area[5000] ^ 0xFF]))
        self.assertEqual(self.listed(), [(name, "changed")])
        samples.write(target, 0, backups.old_bytes(self.kept()[0])["target.ntfs", 0])
        self.assertEqual(self.listed(), [(name, "undone")])
        os.rename(target, self.path("moved"))
        self.assertEqual(self.listed(), [(name, "unreachable")])

    def test_a_name_that_fits_several_is_refused(self):
        target = self.target()
        for seed in (1, 2):
            self.vorlix_ok("vbr", "restore", self.saved(boot_code(seed)), target)
        before = images.snapshot(target)
        self.vorlix_refuses("undo", "20", saying=["several backups"])
        self.assert_unchanged(target, before)

    def test_changes_are_undone_last_first(self):
        target = self.target()
        original = images.content_hash(target)
        for seed in (1, 2):
            self.vorlix_ok("vbr", "restore", self.saved(boot_code(seed)), target)
        first, second = (name for name, _ in self.listed())
        self.vorlix_refuses("undo", first, saying=["changed since"])
        self.vorlix_ok("undo", second, "--no-backup")
        self.vorlix_ok("undo", first, "--no-backup")
        self.assertEqual(images.content_hash(target), original)

    def test_the_newest_hundred_are_kept_when_there_are_more_than_150(self):
        parent = os.path.join(self.state, "vorlix", "backups")
        target = self.target()
        self.vorlix_ok("vbr", "restore", self.saved(), target)
        (folder,) = self.kept()
        for number in range(148):
            copy = os.path.join(parent, f"20010101T000000.{number:09d}-1")
            shutil.copytree(folder, copy)
            self.give(copy, *(os.path.join(copy, name) for name in os.listdir(copy)))
        self.vorlix_ok("vbr", "restore", self.saved(boot_code(9)), target)
        self.assertEqual(len(self.kept()), 150)
        self.vorlix_ok("vbr", "restore", self.saved(boot_code(10)), target)
        names = [os.path.basename(path) for path in self.kept()]
        self.assertEqual(len(names), 100)
        self.assertEqual(names[0], "20010101T000000.000000051-1")
        self.assertIn(os.path.basename(folder), names)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Stores(StoreTest):
    """A store on the EFI System Partition: by an ordinary user on the sectors of the unmounted volume."""

    def put_and_undo(self, tree):
        disk = self.mac(tree=tree)
        original = images.content_hash(disk)
        folder = self.path("saved")
        self.vorlix_ok(*self.bcd(disk, self.file("template", template_bytes()), "standard", "--backup", folder))
        self.assertNotEqual(images.content_hash(disk), original)
        return disk, original, backups.folders(folder)[0]

    def test_a_store_that_was_replaced(self):
        disk, original, backup = self.put_and_undo({**BOOT_TREE, STORE: random_bytes(5000, 8)})
        self.vorlix_ok("undo", backup, "--no-backup")
        self.assertEqual(images.content_hash(disk), original)
        self.assert_nothing_mounted()

    def test_a_store_that_was_not_there(self):
        disk, original, backup = self.put_and_undo(BOOT_TREE)
        self.vorlix_ok("undo", backup, "--no-backup")
        self.assertEqual(images.content_hash(disk), original)

    def test_a_mounted_volume_is_refused(self):
        disk, _, backup = self.put_and_undo(BOOT_TREE)
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        before = images.snapshot(disk)
        self.vorlix_refuses("undo", backup, saying=["mounted at " + folder, "nothing was written"])
        self.assert_unchanged(disk, before)
        self.vorlix_ok("efi", "unmount", disk)
        self.vorlix_ok("undo", backup, "--no-backup")


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class MountedStores(Stores):
    """The same by way of files, since the volume is mounted, here as a mirror."""

    def put_and_undo(self, tree):
        disk = self.mac(tree=tree)
        self.vorlix_ok("efi", "mount", disk)
        folder = self.path("saved")
        self.vorlix_ok(*self.bcd(disk, self.file("template", template_bytes()), "standard", "--backup", folder))
        self.tree = dict(tree)
        return disk, None, backups.folders(folder)[0]

    def assert_restored(self, disk):
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET), self.tree)
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)
        self.assert_nothing_mounted()

    def test_a_store_that_was_replaced(self):
        disk, _, backup = self.put_and_undo({**BOOT_TREE, STORE: random_bytes(5000, 8)})
        (file,) = backups.read(backup)["files"]
        self.assertEqual((file["path"], file["old"]), ("/" + STORE, random_bytes(5000, 8)))
        self.vorlix_ok("undo", backup)
        self.assert_restored(disk)

    def test_a_store_that_was_not_there(self):
        disk, _, backup = self.put_and_undo(BOOT_TREE)
        result = self.vorlix_ok("undo", backup)
        self.assertRegex(result.stdout, "Removed .*BCD\n")
        self.assert_restored(disk)

    def test_a_mounted_volume_is_refused(self):
        """Files are undone on the mounted volume instead, which is written back."""
        disk, _, backup = self.put_and_undo(BOOT_TREE)
        self.vorlix_ok("efi", "mount", disk)
        self.vorlix_ok("undo", backup)
        self.assert_restored(disk)

    def test_a_store_that_somebody_changed_since(self):
        disk, _, backup = self.put_and_undo(BOOT_TREE)
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        with open(os.path.join(folder, STORE), "ab") as file:
            file.write(b"more")
        self.vorlix_refuses("undo", backup, saying=["changed since", "nothing was written"])
        self.vorlix_ok("efi", "unmount", disk)
        self.assertTrue(volumes.read_tree(disk, volumes.EFI_OFFSET)[STORE].endswith(b"more"))


class LegacyBootFiles(ImageTest):
    """Files that `legacy-boot` made, on a folder that stands for a volume."""

    def setUp(self):
        super().setUp()
        self.volume = self.path("volume")
        pcat = os.path.join(self.volume, "Windows", "Boot", "PCAT")
        os.makedirs(os.path.join(pcat, "en-US"))
        os.makedirs(os.path.join(self.volume, "Windows", "Boot", "Fonts"))
        for name in ("PCAT/bootmgr", "PCAT/memtest.exe", "PCAT/en-US/bootmgr.exe.mui", "Fonts/segoe.ttf"):
            with open(os.path.join(self.volume, "Windows", "Boot", name), "wb") as file:
                file.write(name.encode() * 100)
        self.store = self.path("store")
        with open(self.store, "wb") as file:
            file.write(hive.prepared_store(bytes(24576)))
        self.before = self.tree()
        self.vorlix_ok("legacy-boot", self.volume, "--bcd", self.store, "--backup", self.path("saved"))
        self.assertIn("boot/BCD", self.tree())
        (self.backup,) = backups.folders(self.path("saved"))

    def tree(self):
        found = {}
        for folder, folders, files in os.walk(self.volume):
            place = os.path.relpath(folder, self.volume)
            for name in folders:
                found[os.path.normpath(os.path.join(place, name))] = None
            for name in files:
                with open(os.path.join(folder, name), "rb") as file:
                    found[os.path.normpath(os.path.join(place, name))] = file.read()
        return found

    def test_all_that_was_made_is_removed(self):
        made = set(self.tree()) - set(self.before)
        listed = {os.path.relpath(item["path"], self.volume) for item in backups.read(self.backup)["files"]}
        self.assertEqual(listed, made)
        self.vorlix_ok("undo", self.backup)
        self.assertEqual(self.tree(), self.before)

    def test_a_folder_with_other_files_stays(self):
        with open(os.path.join(self.volume, "boot", "mine"), "wb") as file:
            file.write(b"mine")
        result = self.vorlix_ok("undo", self.backup)
        self.assertRegex(result.stdout, "Left .*/boot, which has other files")
        self.assertEqual(self.tree(), {**self.before, "boot": None, "boot/mine": b"mine"})

    def test_nothing_is_removed_if_one_file_was_changed(self):
        with open(os.path.join(self.volume, "boot", "BCD"), "ab") as file:
            file.write(b"more")
        before = self.tree()
        result = self.vorlix_run("undo", self.backup)
        self.assertEqual(result.returncode, 2, result.stdout)
        self.assertIn("changed since", result.stderr)
        self.assertEqual(self.tree(), before)

    def test_an_undo_that_was_interrupted_is_finished(self):
        os.remove(os.path.join(self.volume, "bootmgr"))
        os.remove(os.path.join(self.volume, "boot", "BCD"))
        self.vorlix_ok("undo", self.backup)
        self.assertEqual(self.tree(), self.before)


if __name__ == "__main__":
    images.main()
