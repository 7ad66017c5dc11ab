# SPDX-License-Identifier: Apache-2.0
"""`show`, `hybrid` and `check` on block devices with partitions that the kernel found."""

import json
import os

from bed.guest import LOCKED, MAC, SECOND, SLICES, GuestTest, blkid, digest, disk_guid, node, partition_entry
from support import samples

HIDDEN_SECTORS = 0x1C  # offset in the boot sector of an NTFS volume
WINDOWS = 3  # GPT entry of the Windows volume on the Mac disk
GPT_END = 34 * samples.SECTOR  # end of MBR, header and entries


def slot(sector0, number):
    return sector0[446 + 16 * (number - 1):446 + 16 * number]


def slot_place(sector0, number):
    """Flag, type, first sector and number of sectors of an MBR slot."""
    raw = slot(sector0, number)
    return raw[0], raw[4], int.from_bytes(raw[8:12], "little"), int.from_bytes(raw[12:16], "little")


def kernel_number(name, attribute):
    with open(f"/sys/class/block/{name}/{attribute}", encoding="ascii") as file:
        return int(file.read())


class ShowTest(GuestTest):
    def test_the_tables_are_those_the_kernel_and_sgdisk_see(self):
        shown = json.loads(self.vorlix("show", node(MAC), "--json").stdout)
        self.assertEqual(shown["size"], kernel_number(MAC, "size") * samples.SECTOR)
        self.assertEqual(shown["gpt"]["diskGUID"], disk_guid(MAC))
        self.assertEqual([entry["number"] for entry in shown["gpt"]["entries"]], [part.number for part in SLICES[MAC]])
        for entry in shown["gpt"]["entries"]:
            with self.subTest(entry=entry["number"]):
                name = f"{MAC}{entry['number']}"
                self.assertEqual(entry["firstLBA"], kernel_number(name, "start"))
                self.assertEqual(entry["size"], kernel_number(name, "size") * samples.SECTOR)
                tool = partition_entry(MAC, entry["number"])
                self.assertEqual(entry["typeGUID"], tool["type"])
                self.assertEqual(entry["partitionGUID"], tool["guid"])

    def test_a_kernel_name_is_enough(self):
        shown = json.loads(self.vorlix("show", SECOND, "--json").stdout)
        self.assertEqual(shown["gpt"]["diskGUID"], disk_guid(SECOND))


class HybridTest(GuestTest):
    def setUp(self):
        super().setUp()
        self.boot_code = samples.syslinux_mbr()
        if self.boot_code is None:
            self.skipTest("syslinux's mbr.bin is not installed")
        volume = node(f"{MAC}{WINDOWS}")
        last = (kernel_number(f"{MAC}{WINDOWS}", "size") - 1) * samples.SECTOR
        self.before = [(device, offset, samples.read(device, offset, samples.SECTOR))
                       for device, offset in ((node(MAC), 0), (volume, 0), (volume, last))]
        self.addCleanup(self.put_back)

    def put_back(self):
        for device, offset, sector in self.before:
            if samples.read(device, offset, samples.SECTOR) != sector:
                samples.write(device, offset, sector)
                os.sync()

    def hybrid(self, *options, disk=MAC, status=0):
        return self.vorlix("hybrid", node(disk), "--boot-code", self.boot_code, "--partition", str(WINDOWS), *options,
                           status=status)

    def test_the_mbr_and_the_volume_are_right_for_legacy_start_afterwards(self):
        self.vorlix("check", node(MAC), "--partition", str(WINDOWS), status=1)
        self.hybrid()
        found = self.vorlix("check", node(MAC), "--partition", str(WINDOWS), status=1).stdout
        self.assertIn("equals the hybrid MBR", found)
        self.assertIn("has no bootmgr in its root", found)  # a volume without files

        now = samples.read(node(MAC), 0, samples.SECTOR)
        self.assertEqual(now[:440], samples.read(self.boot_code, 0, 440).ljust(440, b"\0"))
        self.assertEqual(now[510:], b"\x55\xAA")
        entries = {number: partition_entry(MAC, number) for number in (1, 2, 3, 4)}
        self.assertEqual(slot_place(now, 1), (0x00, 0xEE, 1, entries[1]["last"]))
        for number, flag, kind in ((2, 0x00, 0xAF), (3, 0x80, 0x07), (4, 0x00, 0x07)):
            entry = entries[number]
            self.assertEqual(slot_place(now, number), (flag, kind, entry["first"], entry["last"] - entry["first"] + 1))
        boot_sector = samples.read(node(f"{MAC}{WINDOWS}"), 0, samples.SECTOR)
        self.assertEqual(int.from_bytes(boot_sector[HIDDEN_SECTORS:HIDDEN_SECTORS + 4], "little"), entries[3]["first"])

    def test_the_gpt_and_the_kernels_partitions_stay(self):
        gpt = digest(node(MAC), samples.SECTOR, GPT_END - samples.SECTOR)
        guids = {part.number: blkid(node(f"{MAC}{part.number}"))["PART_ENTRY_UUID"] for part in SLICES[MAC]}
        self.hybrid()
        self.assertEqual(digest(node(MAC), samples.SECTOR, GPT_END - samples.SECTOR), gpt)
        # The kernel rereads the tables on request and finds the same partitions.
        samples.run("blockdev", "--rereadpt", node(MAC))
        for part in SLICES[MAC]:
            self.assertEqual(blkid(node(f"{MAC}{part.number}"))["PART_ENTRY_UUID"], guids[part.number])
            self.assertEqual(kernel_number(f"{MAC}{part.number}", "start"), part.first)

    def test_another_disk_is_not_touched(self):
        before = digest(node(SECOND))
        self.hybrid()
        self.assertEqual(digest(node(SECOND)), before)

    def test_a_dry_run_writes_nothing(self):
        before = digest(node(MAC))
        self.hybrid("--dry-run", status=1)
        self.assertEqual(digest(node(MAC)), before)

    def test_a_disk_that_cannot_be_written_is_refused(self):
        before = digest(node(LOCKED))
        result = self.vorlix("hybrid", node(LOCKED), "--boot-code", self.boot_code, "--partition", "2", status=2)
        self.assertRegex(result.stderr, rf"(?m)^vorlix: {node(LOCKED)}: .+; nothing was written$")
        self.assertEqual(digest(node(LOCKED)), before)
