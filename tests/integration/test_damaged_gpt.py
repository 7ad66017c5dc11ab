# SPDX-License-Identifier: Apache-2.0
"""GPTs that are damaged, missing or too large for their disk: what is reported, and that nothing is written."""

import os

from support import gpt, images, tools
from support.macs import MAC, WINDOWS, WINDOWS_FIRST, WINDOWS_SIZE, ImageTest

LAST = tools.MAC_SIZE - 512  # offset of the backup header
SECOND_ENTRIES = LAST - 32 * 512


class DamageTest(ImageTest):
    def codes(self, path):
        return [finding["code"] for finding in self.show(path)["gptDamage"]]

    def assert_refused_unless_forced(self, path, *words):
        """Without --force, nothing is written. With it, the result is the same as for an undamaged GPT."""
        before = images.snapshot(path)
        commands = (
            ("hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS),
            ("hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS, "--dry-run"),
            ("hybrid", path, "--boot-code", self.boot_code, "--guard"),
        )
        for command in commands:
            result = self.vorlix_run(*command)
            self.assertEqual(result.returncode, 2, result.stdout)
            for word in (path, "GPT damaged", "--force", "nothing was written", *words):
                self.assertIn(word, result.stderr)
        check = self.vorlix_run("check", path, "--partition", WINDOWS)
        self.assertEqual(check.returncode, 1, check.stderr)
        self.assertRegex(check.stdout, "(?m)^GPT +change  ")
        text = self.vorlix_ok("show", path).stdout
        self.assertIn("GPT damaged: ", text)
        self.assert_unchanged(path, before)
        forced = self.hybrid(path, WINDOWS, "--force")
        self.assertIn("GPT damaged: ", forced.stderr)


class Damage(DamageTest):
    def test_a_sound_table(self):
        path = self.mac_image()
        self.assertEqual(self.codes(path), [])
        self.assertNotIn("damaged", self.vorlix_ok("show", path).stdout)

    @staticmethod
    def is_damaged_to_sgdisk(path):
        """Returns whether sgdisk reports damage. It repairs what it can before it counts problems, and says so."""
        text = tools.sgdisk(path, "-v")
        return "corrupt GPT" in text or "No problems found" not in text

    def test_each_kind_of_damage(self):
        """vorlix reports every problem that sgdisk reports."""
        wrong = {
            "header-checksum": (512 + 57, "backup-differs"),
            "entries-checksum": (1024 + 3 * 128 + 60,),
            "backup-damaged": (LAST + 57,),
            "backup-entries": (SECOND_ENTRIES + 3 * 128 + 60,),
        }
        for code, (offset, *others) in wrong.items():
            with self.subTest(code):
                path = self.mac_image(code + ".img")
                self.assertFalse(self.is_damaged_to_sgdisk(path))
                byte = gpt.read_at(path, offset, 1)[0]
                gpt.write_at(path, offset, bytes([byte ^ 1]))
                self.assertTrue(self.is_damaged_to_sgdisk(path))
                self.assertEqual(self.codes(path), [code, *others])
                self.assert_refused_unless_forced(path)

    def test_the_second_copy_missing(self):
        path = self.mac_image()
        gpt.write_at(path, LAST, bytes(512))
        self.assertEqual(self.codes(path), ["backup-missing"])
        self.assert_refused_unless_forced(path, "second header")

    def test_entries_that_overlap(self):
        for layout, is_hard in (({2: (409640, 602112, gpt.APFS)}, True),
                                ({5: (640000, 640100, gpt.LINUX), 6: (640100, 640200, gpt.LINUX)}, False)):
            with self.subTest(layout=layout):
                entries = [gpt.Entry(kind, first, last) for first, last, kind in MAC.values()] + [None] * 2
                for number, (first, last, kind) in layout.items():
                    entries[number - 1] = gpt.Entry(kind, first, last)
                path = gpt.Table(blocks=tools.MAC_SIZE // 512, entries=entries).write(self.path("overlap.img"))
                tools.write_sparse(path, WINDOWS_FIRST * 512, tools.ntfs_volume(self.path("ntfs"), WINDOWS_SIZE))
                self.assertEqual(self.codes(path), ["overlap"])
                self.assertTrue(self.is_damaged_to_sgdisk(path))
                if not is_hard:
                    self.assert_refused_unless_forced(path, "entries 5 and 6 overlap")
                    continue
                before = images.snapshot(path)
                for options in ((), ("--force",)):
                    result = self.hybrid(path, WINDOWS, *options, expect=2)
                    self.assertIn("GPT entries 2 and 3 overlap", result.stderr)
                    self.assertNotIn("--force", result.stderr)
                self.assert_unchanged(path, before)

    def test_a_truncated_image(self):
        path = self.mac_image()
        os.truncate(path, (WINDOWS_FIRST + 100) * 512)
        self.assertIn("disk-truncated", self.codes(path))
        self.assertIn("truncated", self.vorlix_ok("show", path).stdout)
        os.truncate(path, WINDOWS_FIRST * 512 - 512)
        check = self.vorlix_run("check", path, "--partition", WINDOWS)
        self.assertEqual(check.returncode, 1, check.stderr)
        self.assertRegex(check.stdout, "(?m)^Volume +change .*truncated")
        for command in (("show", path + "s3"), ("identify", path + "s3"),
                        ("hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS, "--force")):
            with self.subTest(command=command[0]):
                result = self.vorlix_run(*command)
                self.assertEqual(result.returncode, 2)
                if command[0] == "identify":  # looks in the device registry, which has no such slice
                    continue
                self.assertIn("truncated", result.stderr)
                self.assertNotIn("No such file", result.stderr)

    def test_a_command_that_only_reads_does_not_say_that_it_wrote_nothing(self):
        for command in (("show", self.path("missing")), ("check", self.path("missing"), "--partition", 3)):
            result = self.vorlix_run(*command)
            self.assertEqual((result.returncode, result.stderr),
                             (2, f"vorlix: {self.path('missing')}: No such file or directory\n"))


class LostHeader(DamageTest):
    def lose(self, path):
        gpt.write_at(path, 512, bytes(512))

    def test_the_table_is_that_of_the_second_copy(self):
        for block_size in (512, 4096):
            with self.subTest(block_size=block_size):
                entries = [gpt.Entry(gpt.EFI_SYSTEM, 40, 2047), None, gpt.Entry(gpt.BASIC_DATA, 2048, 4095, name="Win")]
                table = gpt.Table(block_size=block_size, blocks=8192, entries=entries)
                path = table.write(self.path(f"{block_size}.img"))
                before = self.show(path)
                gpt.write_at(path, block_size, bytes(block_size))
                shown = self.show(path)
                self.assertEqual(shown["blockSize"], block_size)
                self.assertEqual(shown["gpt"]["entries"], before["gpt"]["entries"])
                self.assertEqual(shown["gpt"]["headerLBA"], 8191)
                self.assertEqual([finding["code"] for finding in shown["gptDamage"]], ["primary-missing"])
                self.assertIn("second copy", self.vorlix_ok("show", path).stdout)

    def test_slices_are_found_by_it(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        # A hybrid MBR whose slot 3 points somewhere else. No command may use it.
        gpt.write_at(path, 446 + 2 * 16 + 8, (640000).to_bytes(4, "little"))
        self.lose(path)
        saved = self.path("saved.vbr")
        self.vorlix_ok("vbr", "save", path + "s3", saved)
        with open(saved, "rb") as file:
            self.assertEqual(file.read(), gpt.read_at(path, WINDOWS_FIRST * 512 + 84, 8108))
        dry = self.hybrid(path, WINDOWS, "--force", "--dry-run", expect=1)
        self.assertEqual(dry.stderr.count("is gone; its slices are those of the second copy"), 1, dry.stderr)
        self.assert_refused_unless_forced(path, "second copy")
        self.assertEqual(gpt.read_at(path, WINDOWS_FIRST * 512 + 28, 4), WINDOWS_FIRST.to_bytes(4, "little"))

    def test_a_protected_disk_without_any_gpt_is_not_written_to(self):
        path = self.mac_image()
        self.hybrid(path, WINDOWS)
        saved = self.path("saved.vbr")
        self.vorlix_ok("vbr", "save", f"{path}s{WINDOWS}", saved)
        self.lose(path)
        gpt.write_at(path, LAST, bytes(512))
        self.assertEqual(self.codes(path), ["gpt-missing"])
        self.assertIsNone(self.show(path)["gpt"])
        before = images.content_hash(path)
        result = self.vorlix_run("vbr", "restore", "--force", saved, f"{path}s1")
        self.assertEqual(result.returncode, 2, result.stdout)
        result = self.vorlix_run("vbr", "restore", saved, f"{path}s{WINDOWS}")
        self.assertEqual(result.returncode, 2, result.stdout)
        self.assertIn("GPT", result.stderr)
        self.assertIn("has no GPT", self.hybrid(path, WINDOWS, "--force", expect=2).stderr)
        self.assertEqual(images.content_hash(path), before)

    def test_a_dos_disk_with_a_left_over_copy_keeps_its_own_slices(self):
        path = self.mac_image()
        self.lose(path)
        slot = gpt.Slot(0, 0x07, WINDOWS_FIRST + 8, 2048)
        gpt.write_at(path, 0, gpt.sector0(b"", [slot, gpt.Slot(), gpt.Slot(), gpt.Slot()]))
        gpt.write_at(path, (WINDOWS_FIRST + 8) * 512, b"here".ljust(510, b"\0") + b"\x55\xAA")
        shown = self.show(path)
        self.assertEqual((shown["gpt"], shown["mbr"]["kind"], shown["gptDamage"]), (None, "DOS", []))
        self.assertEqual(self.show(path + "s1")["size"], 2048 * 512)


if __name__ == "__main__":
    images.main()
