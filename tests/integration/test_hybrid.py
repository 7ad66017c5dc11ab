# SPDX-License-Identifier: Apache-2.0
"""`vorlix hybrid` on disk images by sgdisk, sfdisk, mkntfs and mformat: what it writes, saves and leaves unchanged."""

import os
import re

from support import backups, gpt, images, tools
from support.macs import MAC, WINDOWS, WINDOWS_FIRST, WINDOWS_SIZE, ImageTest


class Hybrid(ImageTest):
    def test_writes_the_mbr_and_patches_the_volume(self):
        path = self.mac_image()
        table = tools.sfdisk_table(path)
        before = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)
        self.assert_patched(path, WINDOWS_FIRST * 512, before, WINDOWS_FIRST)
        self.assertEqual(
            tools.fdisk_slots(path),
            {
                1: (False, 1, 409639, 0xEE),
                2: (False, 409640, 190361, 0xFF),
                3: (True, 602112, 20480, 0x07),
                4: (False, 622592, 8192, 0xAB),
            },
        )
        self.assertEqual(tools.sfdisk_table(path), table)
        self.assertIn("No problems found", tools.sgdisk(path, "-v"))
        self.assertIn("No errors detected", images.run_tool("sfdisk", "--verify", path))

    def test_the_volume_is_still_ntfs_and_has_the_serial_that_was_written(self):
        path = self.mac_image()
        before = tools.blkid_probe(path, WINDOWS_FIRST * 512, WINDOWS_SIZE)
        self.hybrid(path, WINDOWS)
        after = tools.blkid_probe(path, WINDOWS_FIRST * 512, WINDOWS_SIZE)
        serial = int.from_bytes(gpt.read_at(path, WINDOWS_FIRST * 512 + 72, 8), "little")
        self.assertEqual((before["TYPE"], after["TYPE"]), ("ntfs", "ntfs"))
        self.assertEqual(after["UUID"], f"{serial:016X}")
        self.assertNotEqual(after["UUID"], before["UUID"])

    def test_a_fat_volume_has_its_serial_elsewhere(self):
        """At the offset of NTFS's serial, FAT12 and FAT16 have boot code."""
        path = tools.sgdisk_image(self.path("fat.img"), MAC)
        volume = tools.fat_volume(self.path("fat"), WINDOWS_SIZE)
        tools.write_sparse(path, WINDOWS_FIRST * 512, volume)
        before = tools.blkid_probe(path, WINDOWS_FIRST * 512, WINDOWS_SIZE)
        self.hybrid(path, WINDOWS)
        now = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        start = WINDOWS_FIRST.to_bytes(4, "little")
        self.assertEqual(now.hex(), (volume[:28] + start + volume[32:39] + now[39:43] + volume[43:512]).hex())
        after = tools.blkid_probe(path, WINDOWS_FIRST * 512, WINDOWS_SIZE)
        self.assertEqual(after.pop("UUID"), f"{now[42]:02X}{now[41]:02X}-{now[40]:02X}{now[39]:02X}")
        self.assertNotEqual(before.pop("UUID"), f"{now[42]:02X}{now[41]:02X}-{now[40]:02X}{now[39]:02X}")
        self.assertEqual(after, before)

    def test_a_hybrid_mbr_of_another_tool_is_replaced(self):
        path = self.mac_image()
        tools.sgdisk(path, "--hybrid", "2:3:EE")
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)
        self.assertTrue(self.show(path)["mbr"]["equalsHybrid"])

    def test_an_unused_entry_leaves_its_slot_empty(self):
        path = self.mac_image(layout={n: MAC[n] for n in (1, 3, 4)})
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)
        self.assertEqual(gpt.read_at(path, 446 + 16, 16), bytes(16))
        self.assertEqual(sorted(tools.fdisk_slots(path)), [1, 3, 4])

    def test_a_table_of_16384_entries(self):
        layout = {1: (5000, 409639, gpt.EFI_SYSTEM), 3: MAC[3], 16384: (630784, 640000, gpt.LINUX)}
        path = self.mac_image(layout=layout, table_length=16384)
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)

    def test_the_first_entry_must_be_the_efi_system_partition(self):
        layout = {1: (409640, 600000, gpt.APFS), 2: (40, 409639, gpt.EFI_SYSTEM), 3: MAC[3]}
        path = self.mac_image(layout=layout)
        before = images.snapshot(path)
        result = self.hybrid(path, WINDOWS, expect=2)
        self.assertIn(path, result.stderr)
        self.assertIn("EFI System", result.stderr)
        self.assertIn("nothing was written", result.stderr)
        self.assert_unchanged(path, before)

    def test_each_slot_can_be_the_active_one(self):
        for number in (1, 2, 3, 4):
            with self.subTest(slot=number):
                path = tools.sgdisk_image(self.path(f"active{number}.img"), MAC)
                first, last, _ = MAC[number]
                size = min((last - first + 1) * 512, 8 << 20)
                tools.write_sparse(path, first * 512, tools.ntfs_volume(self.path("ntfs"), size // (1 << 20) << 20))
                expected = self.expected_sector0(path, number)
                self.hybrid(path, number, *(() if number == WINDOWS else ("--force",)))
                self.assert_sector0(path, expected)
                slots = tools.fdisk_slots(path)
                self.assertEqual([n for n, slot in slots.items() if slot[0]], [number])
                shown = self.show(path)["mbr"]
                self.assertEqual((shown["activeSlot"], shown["equalsHybrid"]), (number, True))
                self.assertEqual(gpt.read_at(path, first * 512 + 28, 4), first.to_bytes(4, "little"))

    def test_the_active_slot_moves(self):
        path = self.mac_image()
        tools.write_sparse(path, MAC[4][0] * 512, tools.ntfs_volume(self.path("ntfs"), 4 << 20))
        self.hybrid(path, 3)
        self.hybrid(path, 4, "--force")
        self.assertEqual([n for n, slot in tools.fdisk_slots(path).items() if slot[0]], [4])
        self.assertEqual(self.show(path)["mbr"]["activeSlot"], 4)

    def test_a_second_run_changes_the_serial_alone(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        first = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        digest = images.content_hash(path)
        self.hybrid(path, WINDOWS)
        second = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.assertEqual(second[:72] + second[80:], first[:72] + first[80:])
        self.assertNotEqual(second[72:80], first[72:80])
        for offset in (WINDOWS_FIRST * 512, WINDOWS_FIRST * 512 + WINDOWS_SIZE - 512):
            self.assertEqual(gpt.read_at(path, offset, 512), second)
            gpt.write_at(path, offset, first)
        self.assertEqual(images.content_hash(path), digest)

    def test_right_slots_with_other_boot_code_get_the_given_one(self):
        """The disk signature after the boot code stays, because systems identify the disk by it."""
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        slots = gpt.read_at(path, 446, 66)
        gpt.write_at(path, 0, bytes(440) + b"\xC0\xFF\xEE\x01\x5A\x5A")
        dry = self.hybrid(path, WINDOWS, "--dry-run", expect=1)
        self.assertIn("boot code differs", dry.stdout)
        result = self.hybrid(path, WINDOWS)
        self.assertIn("(boot code differed)", result.stdout)
        self.assertEqual(gpt.read_at(path, 0, 512).hex(),
                         (self.BOOT_CODE[:440] + b"\xC0\xFF\xEE\x01\x5A\x5A" + slots).hex())
        self.assertIn("MBR        right already, not written", self.hybrid(path, WINDOWS).stdout)

    def test_another_disk_signature_alone_is_no_reason_to_write(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        gpt.write_at(path, 440, b"\xC0\xFF\xEE\x01\x5A\x5A")
        before = gpt.read_at(path, 0, 512)
        self.assertIn("right already, not written", self.hybrid(path, WINDOWS).stdout)
        self.assertEqual(gpt.read_at(path, 0, 512), before)

    def test_a_missing_signature_is_written_again(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        before = gpt.read_at(path, 0, 512)
        gpt.write_at(path, 510, bytes(2))
        self.assertIn("(the 55 AA signature differed)", self.hybrid(path, WINDOWS).stdout)
        self.assertEqual(gpt.read_at(path, 0, 512), before)

    def test_boot_code_of_440_bytes_leaves_the_disk_signature_zero(self):
        path = self.mac_image()
        with open(self.boot_code, "wb") as file:
            file.write(self.BOOT_CODE[:440])
        self.hybrid(path, WINDOWS)
        self.assertEqual(gpt.read_at(path, 0, 446), self.BOOT_CODE[:440] + bytes(6))
        self.assertEqual(self.show(path)["mbr"]["diskSignature"], "00000000")

    def test_type(self):
        path = self.mac_image()
        expected = self.expected_sector0(path, WINDOWS, 0x0C)
        self.hybrid(path, WINDOWS, "--type", "0C")
        self.assert_sector0(path, expected)
        self.assertEqual(tools.fdisk_slots(path)[3][3], 0x0C)

    def test_a_type_that_is_none_is_refused(self):
        path = self.mac_image()
        before = images.snapshot(path)
        for text in ("100", "GG", "-1", "7x"):
            self.hybrid(path, WINDOWS, f"--type={text}", expect=2)
        self.assert_unchanged(path, before)

    def test_a_type_that_would_unprotect_the_disk_is_refused(self):
        path = self.mac_image()
        before = images.snapshot(path)
        self.assertIn("nothing was written", self.hybrid(path, 1, "--type", "07", expect=2).stderr)
        self.assert_unchanged(path, before)

    def test_volume_and_start(self):
        path = self.mac_image()
        other = self.path("volume.img")
        volume = tools.ntfs_volume(other, 4 << 20)
        in_place = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.hybrid(path, WINDOWS, "--volume", other, "--start", "305419896")
        self.assert_patched(other, 0, volume[:512], 0x12345678)
        self.assertEqual(gpt.read_at(other, 28, 4), bytes([0x78, 0x56, 0x34, 0x12]))
        self.assertEqual(gpt.read_at(path, WINDOWS_FIRST * 512, 512), in_place)

    def test_a_start_beyond_32_bits_is_refused(self):
        path = self.mac_image()
        before = images.snapshot(path)
        for start in ("4294967296", "-1", "x", "18446744073709551616"):
            self.hybrid(path, WINDOWS, f"--start={start}", expect=2)
        self.assert_unchanged(path, before)

    def test_partition_numbers_that_are_none_are_refused(self):
        path = self.mac_image()
        before = images.snapshot(path)
        for number in ("0", "5", "-1", "x", "4294967297"):
            self.hybrid(path, number, expect=2)
        self.assertEqual(self.vorlix_run("hybrid", path, "--boot-code", self.boot_code).returncode, 2)
        self.assert_unchanged(path, before)


class WrongPlaces(ImageTest):
    def refuse(self, disk, *options, saying):
        """The command refuses and writes neither to the disk nor to any other file in its folder."""
        names = sorted(os.listdir(self.folder))
        before = {name: images.snapshot(self.path(name)) for name in names}
        result = self.vorlix_run("hybrid", disk, "--boot-code", self.boot_code, "--partition", WINDOWS, *options)
        self.assertEqual(result.returncode, 2, result.stdout)
        for words in (*saying, "nothing was written"):
            self.assertIn(words, result.stderr)
        self.assertEqual({name: images.snapshot(self.path(name)) for name in sorted(os.listdir(self.folder))}, before)

    def test_a_file_under_the_name_of_the_slice(self):
        path = self.mac_image()
        gpt.write_at(path, 0, bytes(512))
        with open(path + "s3", "wb") as file:
            file.write(gpt.read_at(path, WINDOWS_FIRST * 512, 1 << 20))
        self.refuse(path, saying=[path + "s3", "stands beside"])

    def test_the_disk_as_its_volume(self):
        path = self.mac_image()
        gpt.write_at(path, 0, bytes(512))
        self.refuse(path, "--volume", path, saying=[path, "whole disk"])

    def test_a_slice_in_the_gpt_itself(self):
        table = gpt.Table(blocks=131072, entries=[gpt.Entry(gpt.EFI_SYSTEM, 41, 20479), None,
                                                  gpt.Entry(gpt.BASIC_DATA, 20, 40)])
        path = table.write(self.path("odd.img"))
        self.refuse(path, saying=[path + "s3", "starts at sector 20"])
        self.refuse(path, "--force", saying=[path + "s3", "starts at sector 20"])

    def test_another_slice_as_the_volume(self):
        """Its boot record would get the start sector of another slice."""
        path = self.mac_image()
        tools.write_sparse(path, MAC[4][0] * 512, tools.ntfs_volume(self.path("ntfs"), 4 << 20))
        for options in ((), ("--force",)):
            self.refuse(path, "--volume", path + "s4", *options, saying=[path + "s4", str(MAC[4][0] * 512)])


class Guard(ImageTest):
    def test_writes_a_guard_mbr_and_leaves_the_volume_alone(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        volume = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard")
        last_usable = tools.sfdisk_table(path)["lastlba"]
        self.assert_sector0(path, gpt.sector0(self.BOOT_CODE, gpt.guard_slots(tools.entries_by_sfdisk(path), last_usable)))
        self.assertEqual(gpt.read_at(path, 446, 16).hex(" "), "00 fe ff ff ee fe ff ff 01 00 00 00 ff ff 0f 00")
        self.assertEqual(tools.fdisk_slots(path), {1: (False, 1, tools.MAC_SIZE // 512 - 1, 0xEE)})
        self.assertEqual(gpt.read_at(path, WINDOWS_FIRST * 512, 512), volume)
        self.assertEqual(self.show(path)["mbr"]["kind"], "guard")

    def test_a_partition_and_a_type_change_nothing_about_it(self):
        path, other = self.mac_image(), self.path("other.img")
        images.sparse_copy(path, other)
        self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard")
        self.hybrid(other, WINDOWS, "--guard", "--type", "0C")
        self.assertEqual(images.content_hash(path), images.content_hash(other))


class DryRun(ImageTest):
    ROW = re.compile(r"^  ([0-9A-F]{3})  - ((?:[0-9A-F]{2} ?){16})\n       \+ ((?:(?:[0-9A-F]{2}|\?\?) ?){16})$", re.M)

    def applied(self, section, sector):
        """Applies the printed changes to a sector and checks the printed old bytes against it. None stands for unknown."""
        result = list(sector)
        for row, old, new in self.ROW.findall(section):
            at = int(row, 16)
            self.assertEqual(bytes.fromhex(old), sector[at : at + 16])
            result[at : at + 16] = [None if byte == "??" else int(byte, 16) for byte in new.split()]
        return result

    def test_writes_nothing_and_tells_what_would_change(self):
        path = self.mac_image()
        expected = self.expected_sector0(path, WINDOWS)
        mbr, volume = gpt.read_at(path, 0, 512), gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        before = images.snapshot(path)
        result = self.hybrid(path, WINDOWS, "--dry-run", "--bytes", expect=1)
        self.assert_unchanged(path, before)
        of_mbr, of_volume = result.stdout.split("boot sector (")
        self.assertEqual(self.applied(of_mbr, mbr), list(expected))
        would_be = self.applied(of_volume, volume)
        self.assertEqual(would_be[28:32], list(WINDOWS_FIRST.to_bytes(4, "little")))
        self.assertEqual(would_be[72:80], [None] * 8)
        self.assertEqual(would_be[:28] + would_be[32:72] + would_be[80:], list(volume[:28] + volume[32:72] + volume[80:]))

    def test_nothing_would_change_after_a_run(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        before = images.snapshot(path)
        self.hybrid(path, WINDOWS, "--dry-run", expect=0)
        self.assert_unchanged(path, before)

    def test_a_wrong_field_alone_is_a_change(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        gpt.write_at(path, WINDOWS_FIRST * 512 + 28, bytes(4))
        self.hybrid(path, WINDOWS, "--dry-run", expect=1)

    def test_a_wrong_slot_alone_is_a_change(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        gpt.write_at(path, 446 + 3 * 16 + 12, b"\x01")
        self.hybrid(path, WINDOWS, "--dry-run", expect=1)

    def test_saves_no_backup(self):
        path, folder = self.mac_image(), self.path("saved")
        os.mkdir(folder)
        self.hybrid(path, WINDOWS, "--dry-run", "--backup", folder, expect=1)
        self.assertEqual(os.listdir(folder), [])


class Backup(ImageTest):
    def test_saves_the_old_bytes_and_dd_restores_them(self):
        path, folder = self.mac_image(), self.path("saved")
        digest = images.content_hash(path)
        mbr, volume = gpt.read_at(path, 0, 512), gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        self.hybrid(path, WINDOWS, "--backup", folder)
        self.assertNotEqual(images.content_hash(path), digest)
        (backup,) = backups.folders(folder)
        self.assertEqual(backups.old_bytes(backup), {("mac.img", 0): mbr, ("mac.imgs3", 0): volume,
                                                     ("mac.imgs3", WINDOWS_SIZE - 512): volume})
        for command in backups.restore_by_hand(backup):
            images.run_tool(*command, f"of={path}")
        self.assertEqual(images.content_hash(path), digest)

    def test_files_are_the_users_alone(self):
        path, folder = self.mac_image(), self.path("saved")
        self.hybrid(path, WINDOWS, "--backup", folder)
        self.assertTrue(backups.is_the_users_alone(backups.folders(folder)[0]))

    def test_each_run_has_a_backup_of_its_own(self):
        path, folder = self.mac_image(), self.path("saved")
        before = []
        for _ in range(3):  # each gives the volume a new serial
            before.append(gpt.read_at(path, WINDOWS_FIRST * 512, 512))
            self.hybrid(path, WINDOWS, "--backup", folder)
        self.assertEqual([backups.old_bytes(backup)["mac.imgs3", 0] for backup in backups.folders(folder)], before)

    def test_other_files_in_the_folder_are_left_alone(self):
        """A folder without a manifest is no leftover of ours, whatever it is called."""
        path, folder = self.mac_image(), self.path("saved")
        for name in ("mine", "mine.new", "20261122T010203", "20261122T010203.000000000-x.new"):
            os.makedirs(os.path.join(folder, name))
            with open(os.path.join(folder, name, "before.bin"), "wb") as file:
                file.write(b"mine")
        self.hybrid(path, WINDOWS, "--backup", folder)
        self.assertEqual(len(os.listdir(folder)), 5)
        for name in ("mine", "mine.new", "20261122T010203", "20261122T010203.000000000-x.new"):
            with open(os.path.join(folder, name, "before.bin"), "rb") as file:
                self.assertEqual(file.read(), b"mine")

    def test_a_backup_that_an_interrupted_run_left_incomplete_is_removed(self):
        path, folder = self.mac_image(), self.path("saved")
        os.makedirs(os.path.join(folder, "20261122T010203.000000000-7.new"))
        with open(os.path.join(folder, "20261122T010203.000000000-7.new", "before.bin"), "wb") as file:
            file.write(bytes(512))
        self.hybrid(path, WINDOWS, "--backup", folder)
        self.assertEqual(len(backups.folders(folder)), 1)

    def test_nothing_to_write_makes_no_backup(self):
        path, folder = self.mac_image(), self.path("saved")
        self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard")
        result = self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard", "--backup", folder)
        self.assertFalse(os.path.exists(folder))
        self.assertNotIn("undo", result.stdout)

    def test_with_a_file_in_the_place_of_the_folder_nothing_is_written(self):
        path = self.mac_image()
        before = images.snapshot(path)
        result = self.hybrid(path, WINDOWS, "--backup", self.boot_code, expect=2)
        self.assertIn(self.boot_code, result.stderr)
        self.assertIn("nothing was written", result.stderr)
        self.assert_unchanged(path, before)

    def test_a_guard_mbr_saves_sector_0_alone(self):
        path, folder = self.mac_image(), self.path("saved")
        self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard", "--backup", folder)
        self.assertEqual(list(backups.old_bytes(backups.folders(folder)[0])), [("mac.img", 0)])


if __name__ == "__main__":
    images.main()
