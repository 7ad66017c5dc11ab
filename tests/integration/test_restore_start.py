# SPDX-License-Identifier: Apache-2.0
"""`vorlix restore --start`: the restored volume's boot files and a store on the EFI System Partition, before sector 0."""

import json
import os
import re
import shutil

import test_boot_files
from support import images, samples, tools, volumes

WINDOWS = volumes.WINDOWS


class RestoredStart(test_boot_files.BootFilesTest):
    """A disk whose slice 3 is blank, and an image of a volume with a Windows."""

    def setUp(self):
        super().setUp()
        whole = self.disk(name="whole.img")
        self.image = self.path("volume.img")
        with open(self.image, "wb") as file:
            file.write(samples.read(whole, self.OFFSET, WINDOWS.sectors * samples.SECTOR))
        os.remove(whole)
        self.give(self.image)
        self.target = self.give(volumes.make_mac(self.path("mac.img"), {}))
        self.untouched = self.path("untouched.img")
        images.sparse_copy(self.target, self.untouched)

    def restore(self, *options, expect=0, saying=()):
        result = self.vorlix_run("restore", self.image, self.target, "--partition", WINDOWS.number, "--yes", *options)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stdout + result.stderr)
        return result

    def sector_0(self, disk=None):
        return samples.read(disk or self.target, 0, samples.SECTOR)

    def journals(self):
        folder = os.path.join(self.state, "vorlix", "journals")
        return os.listdir(folder) if os.path.isdir(folder) else []

    def fill_system_partition(self):
        """Leaves less room than the files need."""
        listing = volumes.mtools("mdir", self.target, "::/", offset=volumes.EFI_OFFSET).decode()
        free = re.search(r"([0-9][0-9 ]*) bytes free", listing)
        volumes.put_tree(self.target, {"filler": bytes(int(free.group(1).replace(" ", "")) - 8192)}, volumes.EFI_OFFSET)

    def test_efi_puts_the_start_files_and_leaves_sector_0(self):
        result = self.restore("--start", "efi", saying=["Files ", "Start      the disk starts as far as can be told"])
        self.assert_efi_start(self.target)
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))
        self.assertEqual(self.journals(), [])
        self.assertEqual(result.stdout.count("vorlix undo"), 1)  # of all

    def test_both_is_what_a_volume_with_boot_files_gets(self):
        # A FAT volume has no bootmgr in its root here, which a BIOS start needs.
        for options in ([], ["--start", "both"]):
            with self.subTest(options=options):
                images.sparse_copy(self.untouched, self.target)
                self.restore(*options, expect=1, saying=["Missing", "has no bootmgr in its root"])
                self.assert_efi_start(self.target)
                self.assertEqual(tools.fdisk_slots(self.target)[WINDOWS.number][:3],
                                 (True, WINDOWS.first, WINDOWS.sectors))

    def test_legacy_and_none_leave_the_system_partition(self):
        for way, status in (("legacy", 1), ("none", 0)):
            with self.subTest(way=way):
                images.sparse_copy(self.untouched, self.target)
                self.restore("--start", way, expect=status)
                self.assertEqual(self.efi_files(self.target), {})

    def test_a_volume_without_boot_files_says_what_is_missing(self):
        tree = {path: content for path, content in self.tree.items() if "BCD-Template" not in path}
        whole = self.disk(tree=tree, name="other.img")
        with open(self.image, "wb") as file:
            file.write(samples.read(whole, self.OFFSET, WINDOWS.sectors * samples.SECTOR))
        self.restore("--start", "efi", expect=1, saying=["Missing", "vorlix bcd"])
        self.assertEqual(self.efi_files(self.target), {})
        self.assertEqual(self.journals(), [])

    def test_without_a_system_partition_nothing_is_written(self):
        images.run_tool("sgdisk", "-t", "1:0700", self.target)
        images.sparse_copy(self.target, self.untouched)
        self.restore("--start", "efi", expect=2, saying=["is no EFI System Partition", "nothing was written"])
        self.assertEqual(images.content_hash(self.target), images.content_hash(self.untouched))

    def test_a_system_partition_that_cannot_be_read_is_found_before_anything_is_written(self):
        samples.write(self.target, volumes.EFI_OFFSET, bytes(samples.SECTOR))
        images.sparse_copy(self.target, self.untouched)
        why = "no file system is recognised"
        for way in ("efi", "both"):
            self.restore("--start", way, expect=2, saying=[why, "--start legacy and --start none", "nothing was written"])
            self.assertEqual(images.content_hash(self.target), images.content_hash(self.untouched))
        self.assertEqual(self.journals(), [])
        self.assert_restored_without_efi(why)

    def assert_restored_without_efi(self, why):
        """Without --start, the volume is restored, and what is missing is said before and afterwards."""
        shown = self.restore("--dry-run", expect=1, saying=["EFI        no start files: ", why])
        self.assertNotIn("boot files of the volume", shown.stdout)
        said = self.restore(expect=1, saying=["Missing    the start files for EFI", why, "--from-windows"])
        self.assertNotIn("as far as can be told", said.stdout)
        self.assertTrue(tools.fdisk_slots(self.target)[WINDOWS.number][0])
        self.assertEqual(self.journals(), [])

    def test_without_the_program_for_stores_that_is_found_before_anything_is_written(self):
        folder = self.path("copy")
        os.mkdir(folder, 0o755)
        self.vorlix = volumes.copy_command(self.vorlix, folder)
        os.remove(os.path.join(folder, "tools", "bin", "boot_store"))
        why = "boot_store is not installed"
        self.restore("--start", "both", expect=2, saying=[why, "nothing was written"])
        self.assertEqual(images.content_hash(self.target), images.content_hash(self.untouched))
        self.assert_restored_without_efi(why)
        self.assertEqual(self.efi_files(self.target), {})

    def test_a_windows_that_does_not_start_by_efi_gets_no_files(self):
        """A 32-bit one has the boot manager for EFI among its files, and no loader."""
        tree = {path: content for path, content in self.tree.items() if not path.endswith("winload.efi")}
        whole = self.disk(tree=tree, name="other.img")
        with open(self.image, "wb") as file:
            file.write(samples.read(whole, self.OFFSET, WINDOWS.sectors * samples.SECTOR))
        self.restore(expect=1)
        self.assertEqual(self.efi_files(self.target), {})
        self.assertEqual(self.journals(), [])

    def test_a_dry_run_says_where_the_files_go(self):
        self.restore("--start", "both", "--dry-run", expect=1, saying=["EFI        boot files", "s1"])
        self.assertEqual(images.content_hash(self.target), images.content_hash(self.untouched))

    def test_when_the_files_have_no_room_the_restore_stops_before_sector_0_and_goes_on_later(self):
        self.fill_system_partition()
        result = self.restore("--start", "both", expect=2, saying=["no room", "vorlix restore --resume", "vorlix undo"])
        self.assertNotIn("nothing was written", result.stderr)
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))
        (name,) = self.journals()
        self.assertIn("interrupted; restore --resume goes on", self.vorlix_ok("undo", "--list").stdout)
        (listed,) = json.loads(self.vorlix_ok("undo", "--list", "--json").stdout)["changes"]
        self.assertEqual((listed["name"], listed["state"]), (name, "interrupted"))
        for words in (("--backup", self.path("elsewhere")), ("--no-backup",)):
            self.vorlix_refuses("restore", "--resume", name, *words, saying=["where it was begun to"])
        self.vorlix_refuses("hybrid", self.target, "--partition", WINDOWS.number, "--force", saying=[name])
        images.run_tool("mdel", "-i", f"{self.target}@@{volumes.EFI_OFFSET}", "::filler")
        resumed = self.vorlix_run("restore", "--resume", name)
        self.assertEqual(resumed.returncode, 1, resumed.stdout + resumed.stderr)
        self.assertIn("has no bootmgr in its root", resumed.stdout)
        self.assert_efi_start(self.target)
        self.assertTrue(tools.fdisk_slots(self.target)[WINDOWS.number][0])
        self.assertEqual(self.journals(), [])

    def test_files_that_stayed_in_a_mirror_are_on_the_disk_when_it_goes_on(self):
        """Under their names they were there already, for a look at the mirror."""
        folder = self.path("failing")
        os.mkdir(folder)
        with open(os.path.join(folder, "mcopy"), "w", encoding="utf-8") as script:
            script.write("#!/bin/sh\nexit 1\n")
        os.chmod(script.name, 0o755)
        options = ["--partition", WINDOWS.number, "--yes", "--start", "both"]
        cut = self.vorlix_run("restore", self.image, self.target, *options,
                              prefix=[*self.prefix(), "env", f"PATH={folder}:{images.SYSTEM_PATH}"])
        self.assertEqual(cut.returncode, 2, cut.stdout + cut.stderr)
        for words in ("not finished", "the changes stay in", "vorlix restore --resume"):
            self.assertIn(words, cut.stderr)
        self.assertNotIn("nothing was written", cut.stderr)
        self.assertEqual(self.efi_files(self.target), {})
        self.restore("--start", "both", expect=1)
        self.assert_efi_start(self.target)
        self.assertEqual(self.journals(), [])

    def test_a_stopped_one_can_go_on_without_the_files(self):
        self.fill_system_partition()
        self.restore("--start", "both", expect=2)
        (name,) = self.journals()
        self.vorlix_run("restore", "--resume", name, "--start", "legacy")
        self.assertEqual(sorted(self.efi_files(self.target)), ["filler"])
        self.assertTrue(tools.fdisk_slots(self.target)[WINDOWS.number][0])
        self.assertEqual(self.journals(), [])

    def restore_onto_a_disk_exchanged_in_the_pause(self, *options):
        """The first mcopy of the pause puts a copy of the image in the image's place, under the same name. The files are
        then written to the first one, whose name is returned."""
        right, folder = self.path("right.img"), self.path("exchanging")
        os.mkdir(folder)
        with open(os.path.join(folder, "mcopy"), "w", encoding="utf-8") as script:
            script.write(f"""#!/bin/sh
if [ ! -e '{right}' ]; then
  ln '{self.target}' '{right}' && cp --sparse=always '{self.target}' '{right}.copy' && mv '{right}.copy' '{self.target}'
fi || exit 1
exec {images.tool("mcopy")} "$@"
""")
        os.chmod(script.name, 0o755)
        result = self.vorlix_run("restore", self.image, self.target, "--partition", WINDOWS.number, "--yes", "--start",
                                 "both", *options, prefix=[*self.prefix(), "env", f"PATH={folder}:{images.SYSTEM_PATH}"])
        self.assertEqual(result.returncode, 2, result.stdout + result.stderr)
        for words in ("is another disk than before", "vorlix restore --resume"):
            self.assertIn(words, result.stderr)
        self.assertTrue(os.path.exists(right), "nothing was exchanged")
        self.assert_efi_start(right)
        return right

    def test_a_disk_that_is_exchanged_in_the_pause_is_left_alone_and_the_right_one_can_go_on(self):
        right = self.restore_onto_a_disk_exchanged_in_the_pause()
        # The other disk is as it was copied: without the files, which had been begun, and with the old sector 0.
        self.assertEqual(self.efi_files(self.target), {})
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))
        self.assertEqual(self.sector_0(right), self.sector_0(self.untouched))
        (name,) = self.journals()
        os.replace(right, self.target)
        resumed = self.vorlix_run("restore", "--resume", name)
        self.assertEqual(resumed.returncode, 1, resumed.stdout + resumed.stderr)  # no bootmgr in the root
        self.assert_efi_start(self.target)
        self.assertTrue(tools.fdisk_slots(self.target)[WINDOWS.number][0])
        self.assertEqual(self.journals(), [])

    def test_undo_gives_a_stopped_one_up(self):
        self.fill_system_partition()
        first = samples.read(self.target, self.OFFSET, samples.SECTOR)
        self.restore("--start", "both", expect=2)
        (name,) = self.journals()
        self.assertNotEqual(samples.read(self.target, self.OFFSET, samples.SECTOR), first)
        self.vorlix_ok("undo", name)
        self.assertEqual(samples.read(self.target, self.OFFSET, samples.SECTOR), first)
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))

    def test_undo_gives_one_up_that_was_stopped_behind_the_files(self):
        right = self.restore_onto_a_disk_exchanged_in_the_pause()
        os.replace(right, self.target)
        (name,) = self.journals()
        shown = self.vorlix_run("undo", name, "--dry-run")
        self.assertEqual(shown.returncode, 1, shown.stderr)
        self.assertIn("EFI/Microsoft/Boot/BCD would be removed", shown.stdout)
        self.assert_efi_start(self.target)
        self.assertIn("EFI/Microsoft/Boot/BCD", self.vorlix_ok("undo", name).stdout)
        self.assert_undone()
        self.assertEqual((self.journals(), self.backups()), ([], []))

    def test_giving_it_up_finds_the_backup_of_the_files_in_a_folder_of_ones_choice(self):
        saved = self.path("saved")
        os.mkdir(saved)
        self.give(saved)
        right = self.restore_onto_a_disk_exchanged_in_the_pause("--backup", saved)
        os.replace(right, self.target)
        self.vorlix_ok("undo", *self.journals())
        self.assert_undone()
        self.assertEqual(self.journals(), [])

    def backups(self):
        folder = os.path.join(self.state, "vorlix", "backups")
        return sorted(os.listdir(folder)) if os.path.isdir(folder) else []

    def name_to_undo(self, result):
        (name,) = re.findall(r"^Undo +vorlix undo (.+)$", result.stdout, re.M)
        return name

    def assert_undone(self, disk=None):
        disk = disk or self.target
        self.assertEqual(self.sector_0(disk), self.sector_0(self.untouched))
        for offset in (self.OFFSET, self.OFFSET + (WINDOWS.sectors - 1) * samples.SECTOR):
            self.assertEqual(samples.read(disk, offset, samples.SECTOR), samples.read(self.untouched, offset, samples.SECTOR))
        self.assertEqual(self.efi_files(disk), {})

    def test_one_undo_takes_back_everything_but_the_content(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        self.assertEqual(len(self.backups()), 2)
        listed = self.vorlix_ok("undo", "--list").stdout
        self.assertIn(f", part of {name}", listed)
        changes = json.loads(self.vorlix_ok("undo", "--list", "--json").stdout)["changes"]
        self.assertEqual([change["partOf"] for change in changes], [None, name])
        shown = self.vorlix_run("undo", name, "--dry-run")
        self.assertEqual(shown.returncode, 1, shown.stderr)
        self.assertIn("sector 0", shown.stdout)
        self.assertIn("EFI/Microsoft/Boot/BCD would be removed", shown.stdout)
        self.assert_efi_start(self.target)
        said = self.vorlix_ok("undo", name, "--no-backup").stdout
        self.assertIn("Lost       what the restore overwrote", said)
        self.assert_undone()
        self.assertEqual(self.backups(), [])

    def test_an_undo_that_is_killed_when_the_files_are_gone_from_the_mirror_goes_on(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        folder = self.path("killing")
        os.mkdir(folder)
        for tool in ("mdel", "mrd", "mdeltree"):
            with open(os.path.join(folder, tool), "w", encoding="utf-8") as script:
                script.write("#!/bin/sh\nkill -9 $PPID\n")
            os.chmod(script.name, 0o755)
        killed = self.vorlix_run("undo", name, prefix=[*self.prefix(), "env", f"PATH={folder}:{images.SYSTEM_PATH}"])
        self.assertEqual(killed.returncode, -9, killed.stdout + killed.stderr)
        self.assertIn("EFI/Microsoft/Boot/BCD", self.efi_files(self.target))
        self.vorlix_ok("undo", name, "--no-backup")
        self.assert_undone()
        self.assertEqual(self.backups(), [])

    def test_a_mirror_that_was_emptied_by_mistake_is_refused_by_undo_too(self):
        volumes.put_tree(self.target, {"letter.txt": b"dear reader"}, volumes.EFI_OFFSET)
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        mirror = self.vorlix_ok("mount", f"{self.target}s1").stdout.split()[-1]
        for entry in os.listdir(mirror):
            path = os.path.join(mirror, entry)
            shutil.rmtree(path) if os.path.isdir(path) else os.remove(path)
        self.vorlix_refuses("undo", name, saying=["all files are gone"])
        self.assertEqual(self.efi_files(self.target)["letter.txt"], b"dear reader")

    def test_one_undo_of_backups_in_a_folder_of_ones_choice(self):
        saved = self.path("saved")
        os.mkdir(saved)
        self.give(saved)
        name = self.name_to_undo(self.restore("--start", "both", "--backup", saved, expect=1))
        self.assertTrue(name.startswith(saved), name)
        self.assertEqual((len(os.listdir(saved)), self.backups()), (2, []))
        self.vorlix_ok("undo", name, "--no-backup")
        self.assert_undone()
        self.assertEqual(len(os.listdir(saved)), 2)

    def test_a_resumed_restore_keeps_its_backups_where_the_first_run_did(self):
        saved = self.path("saved")
        os.mkdir(saved)
        self.give(saved)
        self.fill_system_partition()
        self.restore("--start", "both", "--backup", saved, expect=2)
        images.run_tool("mdel", "-i", f"{self.target}@@{volumes.EFI_OFFSET}", "::filler")
        name = self.name_to_undo(self.vorlix_run("restore", "--resume", *self.journals()))
        self.assertTrue(name.startswith(saved), name)
        self.vorlix_ok("undo", name, "--no-backup")
        self.assert_undone()

    def test_undo_of_a_disk_that_has_another_name_now(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        moved = self.path("moved.img")
        os.rename(self.target, moved)
        self.vorlix_ok("undo", name, "--on", moved, "--no-backup")
        self.assert_undone(moved)

    def test_a_file_that_was_changed_since_refuses_the_undo_until_its_part_is_left_out(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        restored = self.path("restored.img")
        images.sparse_copy(self.target, restored)
        images.run_tool("mdel", "-i", f"{self.target}@@{volumes.EFI_OFFSET}", "::EFI/Microsoft/Boot/BCD")
        volumes.put_tree(self.target, {"EFI/Microsoft/Boot/BCD": b"written by a boot manager"}, volumes.EFI_OFFSET)
        refused = self.vorlix_refuses("undo", name, saying=["was changed since", "nothing is undone", "leaves this part out"])
        self.assertEqual(self.sector_0(), self.sector_0(restored))
        (part,) = set(self.backups()) - {name}
        self.assertIn(part, refused)
        shutil.rmtree(os.path.join(self.state, "vorlix", "backups", part))
        self.vorlix_ok("undo", name, "--no-backup")
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))
        self.assertEqual(self.efi_files(self.target)["EFI/Microsoft/Boot/BCD"], b"written by a boot manager")

    def test_a_system_partition_that_cannot_be_read_refuses_the_undo_until_its_part_is_left_out(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        samples.write(self.target, volumes.EFI_OFFSET, bytes(samples.SECTOR))
        restored = images.content_hash(self.target)
        (part,) = set(self.backups()) - {name}
        folder = os.path.join(self.state, "vorlix", "backups", part)
        self.vorlix_refuses("undo", name, saying=[f"; removing {folder} leaves this part out; nothing was written"])
        self.assertEqual(images.content_hash(self.target), restored)
        shutil.rmtree(folder)
        self.vorlix_ok("undo", name, "--no-backup")
        self.assertEqual(self.sector_0(), self.sector_0(self.untouched))

    def test_undo_removes_a_file_that_a_killed_run_had_not_renamed_yet(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        images.run_tool("mdel", "-i", f"{self.target}@@{volumes.EFI_OFFSET}", "::EFI/Boot/bootx64.efi")
        volumes.put_tree(self.target, {"EFI/Boot/bootx64.efi.vorlix-new": b"half of it"}, volumes.EFI_OFFSET)
        self.vorlix_ok("undo", name, "--no-backup")
        self.assert_undone()

    def test_a_part_that_cannot_be_read_refuses_the_undo(self):
        name = self.name_to_undo(self.restore("--start", "both", expect=1))
        (part,) = set(self.backups()) - {name}
        folder = os.path.join(self.state, "vorlix", "backups", part)
        restored = images.content_hash(self.target)
        for path in (folder, os.path.join(folder, "manifest.json")):
            mode = os.stat(path).st_mode
            os.chmod(path, 0)
            message = self.vorlix_refuses("undo", name, saying=["may be a part of this change", "nothing was written"])
            self.assertIn(part, message)
            self.assertEqual(images.content_hash(self.target), restored)
            os.chmod(path, mode)
        self.vorlix_ok("undo", name, "--no-backup")
        self.assert_undone()

    def test_without_a_backup_there_is_nothing_to_undo_with(self):
        result = self.restore("--start", "both", "--no-backup", expect=1)
        self.assertNotIn("vorlix undo", result.stdout)
        self.assertEqual(self.backups(), [])


if __name__ == "__main__":
    images.main()
