# SPDX-License-Identifier: Apache-2.0
"""`vorlix show` and `vorlix check` on disk images made by sgdisk, sfdisk, mkntfs and mformat."""

import os
import shutil
import subprocess

from support import gpt, images, tools
from support.macs import MAC, WINDOWS, WINDOWS_FIRST, WINDOWS_SIZE, ImageTest


class Show(ImageTest):
    def assert_agrees_with_other_tools(self, path, numbers, image=None):
        shown = self.show(path)
        other = tools.sfdisk_table(path)
        table = shown["gpt"]
        self.assertEqual(shown["blockSize"], other["sectorsize"])
        self.assertEqual(shown["size"], os.path.getsize(image or path))
        self.assertEqual(table["diskGUID"], other["id"])
        self.assertEqual((table["firstUsableLBA"], table["lastUsableLBA"]), (other["firstlba"], other["lastlba"]))
        self.assertEqual([entry["number"] for entry in table["entries"]], numbers)
        self.assertEqual(len(other["partitions"]), len(numbers))
        for entry, part, again in zip(table["entries"], other["partitions"], tools.sgdisk_entries(path, numbers)):
            self.assertTrue(part["node"].endswith(str(entry["number"])))
            self.assertEqual((entry["typeGUID"], entry["partitionGUID"]), (part["type"], part["uuid"]))
            self.assertEqual((entry["firstLBA"], entry["lastLBA"]), (part["start"], part["start"] + part["size"] - 1))
            self.assertEqual(entry["size"], part["size"] * other["sectorsize"])
            self.assertEqual(entry["name"], part.get("name", ""))
            self.assertTrue(again["Partition GUID code"].startswith(entry["typeGUID"]))
            self.assertEqual(again["Partition unique GUID"], entry["partitionGUID"])
            self.assertEqual(again["Attribute flags"], entry["attributes"])
            self.assertEqual(again["First sector"].split()[0], str(entry["firstLBA"]))
        return shown

    def test_agrees_with_sfdisk_and_sgdisk(self):
        path = self.mac_image(extra=["-n", "7:640000:640007", "-t", "7:8300"])
        tools.sgdisk(path, "-c", "3:BOOTCAMP ÄЖ水", "-A", "3:set:60", "-A", "1:set:0", "-A", "7:set:2")
        before = images.snapshot(path)
        shown = self.assert_agrees_with_other_tools(path, [1, 2, 3, 4, 7])
        self.assertEqual((shown["gpt"]["entryLBA"], shown["gpt"]["entryCount"]), (2, 128))
        self.assertEqual(shown["mbr"]["kind"], "protective")
        self.assertEqual((shown["gpt"]["headerLBA"], shown["gptDamage"]), (1, []))
        self.assertEqual(shown["mbr"]["slots"][0]["type"], "EE")
        self.assertFalse(shown["mbr"]["equalsHybrid"])
        self.assert_unchanged(path, before)

    def test_blocks_of_4096_bytes(self):
        path = self.path("big blocks.img")
        with open(path, "wb") as file:
            file.truncate(256 << 20)
        with tools.loop_device(path, 4096) as device:
            layout = {1: (6, 25605, gpt.EFI_SYSTEM), 2: (25606, 40000, gpt.HFS_PLUS), 3: (40960, 43519, gpt.BASIC_DATA)}
            tools.sgdisk(device, "-a", "1", *tools.partition_options(layout), "-c", "3:Windows")
            shown = self.assert_agrees_with_other_tools(device, [1, 2, 3], path)
            self.assertEqual(shown["blockSize"], 4096)
        of_the_image = self.show(path)
        self.assertEqual(of_the_image["blockSize"], 4096)
        self.assertEqual(of_the_image["gpt"], shown["gpt"])
        self.assertEqual(of_the_image["mbr"], shown["mbr"])

    def test_a_table_of_16384_entries(self):
        layout = {1: (5000, 6000, gpt.EFI_SYSTEM), 3: (7000, 8000, gpt.BASIC_DATA), 16384: (9000, 9999, gpt.LINUX)}
        path = tools.sgdisk_image(self.path("many.img"), layout, table_length=16384)
        shown = self.assert_agrees_with_other_tools(path, [1, 3, 16384])
        self.assertEqual(shown["gpt"]["entryCount"], 16384)

    def test_reads_the_hybrid_mbr_of_sgdisk(self):
        path = self.mac_image()
        tools.sgdisk(path, "--hybrid", "2:3:EE")
        shown = self.show(path)["mbr"]
        slots = {s["slot"]: (s["active"], s["firstLBA"], s["sectors"], int(s["type"], 16)) for s in shown["slots"]}
        others = tools.fdisk_slots(path)
        self.assertEqual({number: slot for number, slot in slots.items() if slot[3]}, others)
        self.assertEqual(shown["kind"], "hybrid")
        self.assertFalse(shown["equalsHybrid"])
        self.assertEqual([s["equalsHybrid"] for s in shown["slots"]], [False, False, False, False])

    def test_text_for_people(self):
        path = self.mac_image()
        before = images.snapshot(path)
        text = self.vorlix_ok("show", path).stdout
        for word in (path, "512", "409640", "602112"):
            self.assertIn(word, text)
        self.assert_unchanged(path, before)

    def test_a_disk_without_a_gpt(self):
        path = self.path("mbr.img")
        with open(path, "wb") as file:
            file.truncate(64 << 20)
        images.run_tool("sfdisk", "-q", path, stdin="label: dos\nlabel-id: 0xC0FFEE01\nstart=2048,size=4096,type=7,bootable\n")
        shown = self.show(path)
        self.assertIsNone(shown["gpt"])
        self.assertEqual((shown["mbr"]["kind"], shown["gptDamage"]), ("DOS", []))
        self.assertIn("MBR         DOS, active slot 1, disk signature C0FFEE01\n", self.vorlix_ok("show", path).stdout)
        self.assertEqual((shown["mbr"]["activeSlot"], shown["mbr"]["diskSignature"]), (1, "C0FFEE01"))
        self.assertEqual((shown["mbr"]["slots"][0]["firstLBA"], shown["mbr"]["slots"][0]["sectors"]), (2048, 4096))
        self.assertIsNone(shown["mbr"]["slots"][0]["hybrid"])
        self.assertFalse(shown["mbr"]["equalsHybrid"])


    def test_a_volume_on_the_whole_disk(self):
        for kind, make in (("fat", tools.fat_volume), ("ntfs", tools.ntfs_volume)):
            with self.subTest(kind):
                path = self.path(kind + ".img")
                make(path, 8 << 20)
                self.assertEqual(self.show(path)["mbr"]["kind"], "volume")
                text = self.vorlix_ok("show", path).stdout
                self.assertIn("MBR         a volume's boot sector, no partition table\n", text)
                self.assertNotIn("Slot", text)

    def test_kinds_of_mbr(self):
        path = self.mac_image()
        self.assertIn("MBR         protective,", self.vorlix_ok("show", path).stdout)
        self.vorlix_ok("hybrid", path, "--boot-code", self.boot_code, "--guard")
        self.assertIn("MBR         guard,", self.vorlix_ok("show", path).stdout)
        self.hybrid(path, WINDOWS)
        self.assertIn("MBR         hybrid,", self.vorlix_ok("show", path).stdout)
        gpt.write_at(path, 0, bytes(512))
        self.assertIn("MBR         none (no 55 AA signature)\n", self.vorlix_ok("show", path).stdout)


class LargeDisks(ImageTest):
    """Sparse images of more than a terabyte."""

    def large_image(self, first, layout=None):
        """An image whose entry 3 starts at `first` and holds an NTFS volume of 4 MiB."""
        path = self.path("large.img")
        size = (first + (1 << 20)) * 512
        layout = layout or {1: MAC[1], 2: MAC[2], 3: (first, first + 8191, gpt.BASIC_DATA)}
        try:
            tools.sgdisk_image(path, layout, size=size)
        except OSError as error:
            self.skipTest(f"the file system cannot hold a sparse file of {size} bytes: {error}")
        tools.write_sparse(path, first * 512, tools.start_volume_for(path, 3, 4 << 20))
        return path

    def test_first_lba_past_2_to_the_31(self):
        first = (1 << 31) + 2048
        path = self.large_image(first)
        expected = self.expected_sector0(path, WINDOWS)
        before = gpt.read_at(path, first * 512, 512)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)
        self.assertEqual(tools.fdisk_slots(path)[3], (True, first, 8192, 0x07))
        self.assert_patched(path, first * 512, before, first)
        self.assertTrue(self.show(path)["mbr"]["equalsHybrid"])
        self.assertEqual(self.vorlix_run("check", path, "--partition", 3).returncode, 0)
        self.assertEqual(self.hybrid(path, WINDOWS, "--dry-run").returncode, 0)

    def test_first_lba_just_below_2_to_the_32(self):
        first = (1 << 32) - 8192
        path = self.large_image(first)
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)
        self.assertEqual(tools.fdisk_slots(path)[3], (True, first, 8192, 0x07))
        self.assertEqual(gpt.read_at(path, first * 512 + 28, 4).hex(" "), "00 e0 ff ff")

    def test_first_lba_past_2_to_the_32_is_refused(self):
        for first in (1 << 32, (1 << 32) + 2048):
            with self.subTest(first=first):
                path = self.large_image(first)
                before = images.snapshot(path)
                result = self.hybrid(path, WINDOWS, expect=2)
                self.assertIn(str(first), result.stderr)
                self.assertIn("nothing was written", result.stderr)
                self.assert_unchanged(path, before)
                self.assertEqual(self.show(path)["gpt"]["entries"][2]["firstLBA"], first)

    def test_an_entry_that_an_mbr_slot_cannot_hold_is_refused(self):
        """A slot holds 32 bits of the sector number, and would point into another partition."""
        far = (1 << 32) + 2048
        for entry in ((far, far + 999), ((1 << 32) - 1000, 1 << 32), (MAC[4][0], (1 << 32) + MAC[4][0] - 1)):
            with self.subTest(entry=entry):
                path = self.large_image(far + 4096, {1: MAC[1], 2: MAC[2], 3: MAC[3], 4: (*entry, gpt.HFS_PLUS)})
                tools.write_sparse(path, WINDOWS_FIRST * 512, tools.ntfs_volume(self.path("ntfs"), WINDOWS_SIZE))
                before = images.snapshot(path)
                for options in ((), ("--force",), ("--dry-run",)):
                    result = self.hybrid(path, WINDOWS, *options, expect=2)
                    self.assertIn(f"GPT entry 4, sectors {entry[0]} to {entry[1]}", result.stderr)
                    self.assertIn("nothing was written", result.stderr)
                check = self.vorlix_run("check", path, "--partition", WINDOWS)
                self.assertEqual(check.returncode, 1, check.stderr)
                self.assertIn("GPT entry 4", check.stdout)
                self.assert_unchanged(path, before)

    def test_a_fifth_entry_past_2_to_the_32_is_no_obstacle(self):
        far = (1 << 32) + 2048
        path = self.large_image(far, {1: MAC[1], 2: MAC[2], 3: MAC[3], 5: (far, far + 999, gpt.HFS_PLUS)})
        tools.write_sparse(path, WINDOWS_FIRST * 512, tools.ntfs_volume(self.path("ntfs"), WINDOWS_SIZE))
        expected = self.expected_sector0(path, WINDOWS)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, expected)

    def test_blocks_of_4096_bytes_past_2_to_the_31(self):
        first = (1 << 31) + 256
        entries = [
            gpt.Entry(gpt.EFI_SYSTEM, 6, 51205),
            gpt.Entry(gpt.APFS, 51206, first - 1),
            gpt.Entry(gpt.BASIC_DATA, first, first + 1023),
        ]
        path = self.path("large blocks.img")
        try:
            gpt.Table(4096, first + 65536, entries).write(path)
        except OSError as error:
            self.skipTest(f"the file system cannot hold a sparse file of 8 TiB: {error}")
        tools.write_sparse(path, first * 4096, tools.ntfs_volume(self.path("ntfs"), 4 << 20, 4096))
        before = gpt.read_at(path, first * 4096, 512)
        self.hybrid(path, WINDOWS)
        self.assert_sector0(path, gpt.sector0(self.BOOT_CODE, gpt.hybrid_slots(entries, WINDOWS)))
        self.assert_patched(path, first * 4096, before, first)


class Check(ImageTest):
    def check(self, path, partition, expect):
        before = images.snapshot(path)
        result = self.vorlix_run("check", path, "--partition", partition)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        self.assert_unchanged(path, before)
        return result

    def test_a_fresh_disk_needs_a_change_and_then_none(self):
        path = self.mac_image()
        self.check(path, WINDOWS, 1)
        self.hybrid(path, WINDOWS)
        self.check(path, WINDOWS, 0)
        gpt.write_at(path, MAC[4][0] * 512, gpt.read_at(path, WINDOWS_FIRST * 512, 512))
        self.check(path, 4, 1)  # another slot is active

    def test_each_thing_that_can_be_wrong(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        wrong = {
            "slot 2 has another size": (446 + 16 + 12, b"\x01"),
            "slot 1 is active as well": (446, b"\x80"),
            "no slot is active": (446 + 2 * 16, b"\x00"),
            "slot 3 has another type": (446 + 2 * 16 + 4, b"\x0B"),
            "the signature is gone": (510, b"\0\0"),
            "the hidden-sectors field": (WINDOWS_FIRST * 512 + 28, b"\xFF"),
        }
        for what, (offset, data) in wrong.items():
            with self.subTest(what):
                right = gpt.read_at(path, offset, len(data))
                gpt.write_at(path, offset, data)
                self.check(path, WINDOWS, 1)
                gpt.write_at(path, offset, right)
                self.check(path, WINDOWS, 0)

    def test_boot_code_that_is_not_there(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        self.assertIn("Boot code    ok ", self.check(path, WINDOWS, 0).stdout)
        gpt.write_at(path, 0, bytes(440))
        self.assertRegex(self.check(path, WINDOWS, 1).stdout, "Boot code +change .*zeros")
        self.hybrid(path, WINDOWS)
        sector = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        for offset in (0, WINDOWS_SIZE - 512):  # both boot sectors must stay equal
            gpt.write_at(path, WINDOWS_FIRST * 512 + offset, sector[:84] + bytes(426) + sector[510:])
        result = self.check(path, WINDOWS, 1)
        self.assertRegex(result.stdout, "Volume code +change .*zeros")
        self.assertEqual(result.stdout.count("change"), 1, result.stdout)

    def test_which_boot_code_and_serial_there_are_is_not_its_business(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        gpt.write_at(path, 0, b"\xEB\xFE" + bytes(444))
        for offset in (0, WINDOWS_SIZE - 512):
            gpt.write_at(path, WINDOWS_FIRST * 512 + offset + 72, bytes(8))
        self.check(path, WINDOWS, 0)

    def test_errors(self):
        path = self.mac_image()
        self.check(path, 5, 2)
        path = tools.sgdisk_image(self.path("unused.img"), {1: MAC[1], 3: MAC[3]})
        message = self.check(path, 2, 2).stderr
        self.assertEqual(message, f"vorlix: {path}: GPT entry 2 is not in use\n")
        for offset in (512, tools.MAC_SIZE - 512):
            gpt.write_at(path, offset, bytes(8))
        self.assertIn("GPT", self.check(path, WINDOWS, 2).stderr)


class OrdinaryUser(ImageTest):
    def prefix(self):
        """The words that make a command run without privileges."""
        if os.geteuid() != 0:
            return []
        user = str(images.NOBODY)
        return [images.tool("setpriv"), "--reuid", user, "--regid", user, "--clear-groups", "--no-new-privs"]

    def hand_over(self, *paths):
        """Lets an ordinary user reach the folder and own the files."""
        os.chmod(self.folder, 0o755)
        if os.geteuid() == 0:
            for path in paths:
                os.chown(path, images.NOBODY, images.NOBODY)
        copy = self.path("vorlix")
        shutil.copy(self.vorlix, copy)
        os.chmod(copy, 0o755)
        return copy

    def run_as_user(self, command, *arguments):
        return subprocess.run(
            [*self.prefix(), command, *map(str, arguments)],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=60,
        )

    def test_an_image_needs_no_privilege(self):
        path = self.mac_image()
        command = self.hand_over(path)
        expected = self.expected_sector0(path, WINDOWS)
        before = gpt.read_at(path, WINDOWS_FIRST * 512, 512)
        result = self.run_as_user(command, "hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_sector0(path, expected)
        self.assert_patched(path, WINDOWS_FIRST * 512, before, WINDOWS_FIRST)
        self.assertEqual(self.run_as_user(command, "check", path, "--partition", WINDOWS).returncode, 0)

    def test_reading_and_a_dry_run_need_no_write_permission(self):
        path = self.mac_image()
        os.chmod(path, 0o444)
        command = self.hand_over()
        before = images.snapshot(path)
        self.assertEqual(self.run_as_user(command, "show", path, "--json").returncode, 0)
        result = self.run_as_user(
            command, "hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS, "--dry-run"
        )
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(self.run_as_user(command, "check", path, "--partition", WINDOWS).returncode, 1)
        self.assert_unchanged(path, before)

    def test_a_read_only_image_is_refused_and_unchanged(self):
        path = self.mac_image()
        os.chmod(path, 0o444)
        command = self.hand_over()
        before = images.snapshot(path)
        result = self.run_as_user(command, "hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS)
        self.assertEqual(result.returncode, 2)
        self.assertIn(path, result.stderr)
        self.assertIn("nothing was written", result.stderr)
        self.assert_unchanged(path, before)


class LoopDevices(ImageTest):
    def run_on_loop_device(self, sector_size):
        path = self.path("disk.img")
        with open(path, "wb") as file:
            file.truncate(256 << 20)
        layout = {1: (40, 20479, gpt.EFI_SYSTEM), 3: (20480, 24575, gpt.BASIC_DATA)}
        offset = layout[3][0] * sector_size
        with tools.loop_device(path, sector_size) as device:
            tools.sgdisk(device, "-a", "1", *tools.partition_options(layout))
            volume = tools.start_volume_for(device, 3, 4096 * sector_size, sector_size)
            tools.write_sparse(device, offset, volume)
            expected = self.expected_sector0(device, 3)
            self.hybrid(device, 3)
            self.assert_sector0(device, expected)
            self.assert_patched(device, offset, volume[:512], layout[3][0])
            self.assertEqual(self.vorlix_run("check", device, "--partition", 3).returncode, 0)
        self.assert_sector0(path, expected)
        self.assert_patched(path, offset, volume[:512], layout[3][0])

    def test_512_bytes_a_block(self):
        self.run_on_loop_device(512)

    def test_4096_bytes_a_block(self):
        self.run_on_loop_device(4096)


if __name__ == "__main__":
    images.main()
