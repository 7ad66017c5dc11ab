# SPDX-License-Identifier: Apache-2.0
"""How often `vorlix bcd` and `vorlix list` look, and that a store is put on a FAT slice without a mirror and without
any other program."""

import fcntl
import os
import re
import unittest

from support import backups, images, samples, tools, volumes
from test_boot_store import BOOT_TREE, STORE, StoreTest, identifiers, patched, random_bytes, template_bytes

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mdir", "setpriv", "strace")
MOST_OPENS = 19  # of the image; it was 42, with a mirror, a copy and three processes

NAMES = "openat,open,execve,mkdir,rename,renameat,pwrite64"


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Counted(StoreTest):
    def traced(self, *arguments):
        """Runs the command as an ordinary user. Returns the result and the lines of its trace."""
        log = self.file("trace", b"")
        result = self.vorlix_run(*arguments, prefix=(*self.prefix(), *volumes.strace("-f", "-o", log, "-e", f"trace={NAMES}")))
        with open(log, encoding="utf-8", errors="replace") as lines:
            return result, [line for line in lines if "= -1 ENOENT" not in line]

    def assert_without_mirror(self, lines, disk, most=MOST_OPENS):
        programs = [line for line in lines if "execve(" in line and "vorlix" not in line and "/env" not in line]
        self.assertEqual(programs, [])
        self.assertEqual([line for line in lines if "/making" in line or "/leaving" in line or '/copy"' in line], [])
        opens = [line for line in lines if "open" in line and f'"{disk}"' in line]
        self.assertGreater(len(opens), 0)
        self.assertLessEqual(len(opens), most, "".join(opens))

    def test_a_store_is_replaced_without_a_mirror(self):
        old = random_bytes(5000, 8)
        for bits in (12, 16):
            with self.subTest(bits=bits):
                disk = self.mac(f"{bits}.img", {**BOOT_TREE, STORE: old}, efi_bits=bits)
                outside = volumes.hash_outside_efi(disk)
                template = self.file("template", template_bytes())
                saved = self.path(f"saved{bits}")
                result, lines = self.traced(*self.bcd(disk, template, "standard", "--backup", saved))
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assert_without_mirror(lines, disk)
                self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)), {**BOOT_TREE, STORE: old})
                self.assertEqual(volumes.hash_outside_efi(disk), outside)
                self.assertEqual(len(backups.folders(saved)), 1)

    def test_a_new_store_is_made_without_a_mirror(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        result, lines = self.traced(*self.bcd(disk, template, "mdt"))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_without_mirror(lines, disk)
        self.assert_store(disk, patched(template_bytes(), "mdt", identifiers(disk)))

    def test_a_store_that_is_there_already_is_only_read(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template))
        before = images.snapshot(disk)
        result, lines = self.traced(*self.bcd(disk, template))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("already, not written", result.stdout)
        self.assert_without_mirror(lines, disk)
        self.assert_unchanged(disk, before)

    def test_a_dry_run_mirrors_nothing(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        result, lines = self.traced(*self.bcd(disk, template, "standard", "--dry-run"))
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assert_without_mirror(lines, disk)
        self.assertEqual(os.listdir(self.state), [])

    def test_a_folder_that_is_full_grows(self):
        """The record of a new store needs another cluster of the folder."""
        tree = {**BOOT_TREE, **{f"EFI/Microsoft/Boot/F{number:03}.TXT": b"x" for number in range(80)}}
        disk = self.mac(tree=tree)
        template = self.file("template", template_bytes())
        store = patched(template_bytes(), "standard", identifiers(disk))
        for number in range(80, 120):  # whatever the size of a cluster, one of these runs meets its end
            self.vorlix_ok(*self.bcd(disk, template))
            self.assert_store(disk, store, tree)
            volumes.mtools("mdel", disk, f"::/{STORE}", offset=volumes.EFI_OFFSET)
            if number % 8 == 0:
                added = {f"EFI/Microsoft/Boot/F{more:03}.TXT": b"x" for more in range(number, number + 8)}
                volumes.put_tree(disk, added, volumes.EFI_OFFSET)
                tree.update(added)

    def test_fat32(self):
        """Sizes that need more, fewer and as many clusters; the tools agree on what is free."""
        first, last = 2048, 90111
        volume = self.path("efi")
        with open(volume, "wb") as file:
            file.truncate((last + 1 - first) * samples.SECTOR)
        images.run_tool("mkfs.vfat", "-F", "32", "-s", "1", "-h", str(first), volume)
        volumes.put_tree(volume, BOOT_TREE)
        disk = self.path("fat32.img")
        with open(disk, "wb") as file:
            file.truncate(60 << 20)
        tools.sgdisk(disk, "-a", "1", "-n", f"1:{first}:{last}", "-t", "1:EF00", "-n", f"3:{last + 1}:110000", "-t", "3:0700")
        samples.place(disk, volume, first)
        os.remove(volume)
        self.give(disk)
        offset, size = first * samples.SECTOR, (last + 1 - first) * samples.SECTOR
        for seed, length in enumerate((24576, 200000, 24600, 24576)):
            with self.subTest(length=length):
                template = self.file("template", template_bytes(length, seed))
                result, lines = self.traced(*self.bcd(disk, template, "mdt"))
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assert_without_mirror(lines, disk)
                found = volumes.read_tree(disk, offset)
                self.assertTrue(found.pop(STORE) == patched(template_bytes(length, seed), "mdt", identifiers(disk)))
                self.assertTrue(found == BOOT_TREE, sorted(found))
                volumes.check_fat(disk, offset, size)

    def test_what_stands_beside_the_store_stays_as_it_is(self):
        """Attributes, times and long names of all files; of the store its attributes and its place."""
        tree = {**BOOT_TREE, "EFI/Microsoft/Boot/a long name of a file.txt": b"long", STORE: b"old"}
        disk = self.mac(tree=tree)
        volumes.mtools("mattrib", disk, "+r", "+h", "+s", f"::/{STORE}", offset=volumes.EFI_OFFSET)
        volumes.mtools("mattrib", disk, "+h", "::/EFI/Boot/bootx64.efi", offset=volumes.EFI_OFFSET)
        self.give(disk)
        listing = lambda: volumes.mtools("mdir", disk, "-/", "-a", "::/", offset=volumes.EFI_OFFSET).decode()  # noqa: E731
        rest = lambda text: [line for line in text.splitlines() if not re.match(r"BCD|.*bytes|.*file", line)]  # noqa: E731
        before = rest(listing())
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template))
        self.assertEqual(rest(listing()), before)
        attributes = volumes.mtools("mattrib", disk, f"::/{STORE}", offset=volumes.EFI_OFFSET).decode().split("::")[0]
        self.assertEqual(attributes.replace(" ", ""), "ASHR")
        self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)), tree)

    def test_a_short_name_that_another_file_has_is_refused_by_its_name(self):
        """A file may have "BCD" as its short name and quite another long one."""
        long = "EFI/Microsoft/Boot/Bcd of another.bin"
        disk = self.mac(tree={**BOOT_TREE, long: b"another"})
        with open(disk, "r+b") as file:
            content = file.read()
            at = content.find(b"BCDOFA~1BIN", volumes.EFI_OFFSET)
            self.assertGreater(at, 0)
            short = b"BCD        "
            total = 0
            for byte in short:
                total = ((total << 7 | total >> 1) + byte) & 0xFF
            file.seek(at)
            file.write(short)
            place = at - 32
            while content[place + 11] == 0x0F:  # the parts of the long name carry a sum of the short one
                file.seek(place + 13)
                file.write(bytes([total]))
                place -= 32
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET)[long], b"another")
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template), "short name of /EFI/Microsoft/Boot/Bcd of another.bin", "none was made")

    def test_a_disk_that_another_process_has_locked(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old"})
        template = self.file("template", template_bytes())
        with open(disk, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.refuse(disk, self.bcd(disk, template), disk, "nothing was written")


@unittest.skipIf(volumes.missing("strace"), "strace is not installed")
class Listing(StoreTest):
    def looks(self, *options):
        log = self.file("trace", b"")
        result = self.vorlix_run("list", *options, prefix=volumes.strace("-o", log, "-e", "trace=openat"))
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(log, encoding="utf-8", errors="replace") as lines:
            return sum("/proc/self/mountinfo" in line for line in lines)

    def test_the_mount_table_is_read_once_a_look(self):
        """One listing for every form of the command: the default one makes no second. Each mounted volume is looked at, and
        other tests mount some meanwhile, so the counts have to agree once in several attempts."""
        for _ in range(12):
            counts = [self.looks(*options) for options in (("--all",), (), ("--windows",))]
            self.assertGreater(counts[0], 0)
            if counts == [counts[0]] * 3:
                return
        self.fail(f"the forms of the command look at the mount table {counts} times")


if __name__ == "__main__":
    images.main()
