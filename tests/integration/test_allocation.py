# SPDX-License-Identifier: Apache-2.0
"""The bytes in use of volumes, compared with what other tools say of the same volumes."""

import contextlib
import json
import os
import re
import shutil
import struct
import subprocess
import tempfile
import unittest

from support import allocation, samples
from support.allocation import MIB

PROBE = os.environ["VORLIX_ALLOCATION_PROBE"]
HAS_FUSE = os.geteuid() == 0 and os.path.exists("/dev/fuse")
MISSING = [name for name in ("partclone.ntfs", "mkntfs", "mkfs.vfat", "mkfs.exfat", "mcopy") if not samples.tool(name)]


def patch(path, offset, content):
    samples.write(path, offset, content)


def ntfs_record(path, number):
    """Offset of a record of the master file table in a volume of 4096-byte clusters and 1024-byte records."""
    return struct.unpack("<Q", samples.read(path, 48, 8))[0] * 4096 + number * 1024


@unittest.skipIf(MISSING, f"needs {', '.join(MISSING)}")
class Volumes(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vorlix-allocation-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.path = os.path.join(self.folder, "volume.img")

    def found(self):
        result = subprocess.run([PROBE, self.path], capture_output=True, text=True, check=True)
        return json.loads(result.stdout)

    def assert_doubt(self, words):
        found = self.found()
        self.assertIn(words, found["doubt"])
        self.assertEqual(found["used"], [[0, os.path.getsize(self.path)]])

    def assert_equals_partclone(self, kind, end_of_clusters):
        """Equal but for what lies behind the last cluster, which the library keeps."""
        found = self.found()
        self.assertEqual((found["doubt"], found["fileSystem"]), ("", kind))
        used = [tuple(entry) for entry in found["used"]]
        size = os.path.getsize(self.path)
        other = [*allocation.by_partclone(kind, self.path, self.folder), (end_of_clusters, size - end_of_clusters)]
        self.assertEqual(used, allocation.without_overlaps([entry for entry in other if entry[1]]))
        self.assertLess(sum(length for _, length in used), size)
        return found

    def ntfs_end(self):
        boot = samples.read(self.path, 0, 512)
        sector, code = struct.unpack_from("<HB", boot, 11)
        cluster = code if code <= 0x80 else 1 << (256 - code)
        return struct.unpack_from("<Q", boot, 40)[0] // cluster * cluster * sector

    def fat_end(self):
        boot = samples.read(self.path, 0, 512)
        sector, cluster, reserved, tables, root, total, _, table = struct.unpack_from("<HBHBHHBH", boot, 11)
        total = total or struct.unpack_from("<I", boot, 32)[0]
        table = table or struct.unpack_from("<I", boot, 36)[0]
        data = reserved + tables * table + root * 32 // sector
        return (data + (total - data) // cluster * cluster) * sector

    def exfat_end(self):
        boot = samples.read(self.path, 0, 512)
        heap, clusters = struct.unpack_from("<II", boot, 88)
        return (heap << boot[108]) + (clusters << boot[108] + boot[109])


class NTFS(Volumes):
    def test_empty_volumes_of_all_cluster_sizes(self):
        for cluster in ("512", "4096", "65536", "2097152"):
            with self.subTest(cluster=cluster):
                allocation.make("ntfs", self.path, 96 * MIB + 12345 * 512, "-c", cluster)
                self.assertEqual(self.assert_equals_partclone("ntfs", self.ntfs_end())["clusterSize"], int(cluster))
                os.unlink(self.path)

    def test_sectors_of_4096_bytes(self):
        allocation.make("ntfs", self.path, 64 * MIB, "-s", "4096")
        self.assert_equals_partclone("ntfs", self.ntfs_end())

    @unittest.skipUnless(HAS_FUSE, "mounting needs root and FUSE")
    def test_files_written_and_removed(self):
        for cluster in ("512", "4096"):
            with self.subTest(cluster=cluster):
                allocation.make("ntfs", self.path, 128 * MIB, "-c", cluster)
                with allocation.mounted("ntfs", self.path, os.path.join(self.folder, "mount")) as mount:
                    allocation.write_files(mount, 300, cluster)
                found = self.assert_equals_partclone("ntfs", self.ntfs_end())
                self.assertGreater(len(found["used"]), 50)
                os.unlink(self.path)

    def test_agrees_with_the_number_of_clusters_that_ntfsclone_counts(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        patch_file = os.path.join(self.folder, "file")
        with open(patch_file, "wb") as file:
            file.write(os.urandom(3 * MIB))
        samples.run("ntfscp", "-f", self.path, patch_file, "file.bin")
        counted = re.search(r"Space in use\s*:\s*(\d+) MB", samples.run("ntfsclone", "--save-image", "-f", "-o",
                                                                        os.path.join(self.folder, "clone"), self.path))
        used = sum(size for _, size in self.found()["used"]) - (os.path.getsize(self.path) - self.ntfs_end())
        self.assertEqual(int(counted[1]), (used + 999_999) // 1_000_000)

    def test_partition_larger_than_the_file_system(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        with open(self.path, "r+b") as file:
            file.truncate(80 * MIB)
        found = self.found()
        self.assertEqual((found["doubt"], sum(found["used"][-1])), ("", 80 * MIB))
        self.assertLessEqual(found["used"][-1][0], self.ntfs_end())

    def test_file_system_larger_than_the_partition(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        with open(self.path, "r+b") as file:
            file.truncate(48 * MIB)
        self.assert_doubt("larger than the volume")

    def test_dirty_flag(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        record = samples.read(self.path, ntfs_record(self.path, 3), 1024)
        at = record.index(b"\x03\x01\x00\x00", record.index(struct.pack("<I", 0x70)))  # version 3.1, then the flags
        mirror = struct.unpack("<Q", samples.read(self.path, 56, 8))[0] * 4096 + 3 * 1024
        for place in (ntfs_record(self.path, 3), mirror):
            patch(self.path, place + at + 2, b"\x01\x00")
        self.assertIn("0x0001", samples.run("ntfsinfo", "-f", "-m", self.path))
        self.assert_doubt("not unmounted cleanly")

    @unittest.skipUnless(HAS_FUSE, "mounting needs root and FUSE")
    def test_hibernated(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        for start, is_doubt in ((b"wake" + bytes(4092), False), (bytes(4096), False), (b"hibr" + bytes(4092), True),
                                (b"HIBR" + bytes(100_000), True)):
            with self.subTest(start=start[:4]):
                with allocation.mounted("ntfs", self.path, os.path.join(self.folder, "mount"), "remove_hiberfile") as mount:
                    for number in range(200):  # so that the root folder's index has blocks
                        open(os.path.join(mount, f"name {number}"), "wb").close()
                    with open(os.path.join(mount, "hiberfil.sys"), "wb") as file:
                        file.write(start)
                if is_doubt:
                    self.assert_doubt("hibernated Windows")
                else:
                    self.assertEqual(self.found()["doubt"], "")

    def test_journal_in_use(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        told = samples.run("ntfsinfo", "-f", "-v", "-i", "2", self.path)
        offset = int(re.search(r"Runlist:\s+VCN\s+LCN\s+Length\s+0x0\s+0x(\w+)", told)[1], 16) * 4096
        for in_use, flags, words in ((0, 0, "journal has changes"), (0xFFFF, 0, ""), (0, 2, "")):
            page = bytearray(4096)
            page[0:4] = b"RSTR"
            struct.pack_into("<IIH", page, 16, 4096, 4096, 48)
            struct.pack_into("<QHHHH", page, 48, 5, 1, 0xFFFF, in_use, flags)
            patch(self.path, offset, bytes(page))
            patch(self.path, offset + 4096, bytes(page))
            if words:
                self.assert_doubt(words)
            else:
                self.assertEqual(self.found()["doubt"], "")

    def test_damaged_structures(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        intact = samples.read(self.path, 0, os.path.getsize(self.path))
        bitmap = ntfs_record(self.path, 6)
        for name, offset, content in (
                ("boot sector's cluster size", 13, b"\x03"),
                ("boot sector's table", 48, b"\xFF\xFF\xFF\xFF"),
                ("record's letters", ntfs_record(self.path, 0), b"BAAD"),
                ("fixup", ntfs_record(self.path, 0) + 510, b"\x77\x77"),
                ("record of the bitmap", bitmap, b"FILF"),
                ("record's size", bitmap + 24, b"\xFF\xFF\xFF\xFF"),
                ("first attribute's size", bitmap + 56 + 4, b"\0\0\0\0")):
            with self.subTest(name):
                patch(self.path, offset, content)
                found = self.found()
                self.assertNotEqual(found["doubt"], "")
                self.assertEqual(found["used"], [[0, len(intact)]])
                patch(self.path, 0, intact)

    def test_bitmap_without_its_own_clusters(self):
        allocation.make("ntfs", self.path, 64 * MIB)
        table = allocation.by_partclone("ntfs", self.path, self.folder)
        for offset, size in table[1:]:  # the bitmap's content is where its first bits are those of the first clusters
            start = samples.read(self.path, offset, size).find(b"\xF7\x07")
            if start >= 0:
                patch(self.path, offset + start, b"\x00")
                break
        else:
            self.fail("the bitmap's content was not found")
        self.assert_doubt("does not count its own clusters")


class FAT(Volumes):
    KINDS = (("fat12", 4 * MIB, ()), ("fat16", 24 * MIB, ()), ("fat32", 48 * MIB, ("-s", "1")))

    def assert_equals_mshowfat(self):
        """The clusters of all files of a volume with 12 bits an entry, of which partclone counts some at random."""
        listed = subprocess.run(["mshowfat", "-i", self.path, *self.names()], capture_output=True, text=True, check=True)
        boot = samples.read(self.path, 0, 512)
        sector, cluster, reserved, tables, root, _, _, table = struct.unpack_from("<HBHBHHBH", boot, 11)
        first = (reserved + tables * table + root * 32 // sector) * sector
        size, end = cluster * sector, self.fat_end()
        ranges = [(0, first), (end, os.path.getsize(self.path) - end)]
        for start, last in re.findall(r"<(\d+)(?:-(\d+))?>", listed.stdout):
            ranges.append((first + (int(start) - 2) * size, (int(last or start) - int(start) + 1) * size))
        self.assertGreater(len(ranges), 10)
        self.assertEqual([tuple(entry) for entry in self.found()["used"]], allocation.without_overlaps(ranges))

    def names(self):
        listed = subprocess.run(["mdir", "-b", "-i", self.path, "::"], capture_output=True, text=True, check=True)
        return listed.stdout.splitlines()

    def test_12_bits(self):
        allocation.make("fat12", self.path, 4 * MIB)
        self.assertEqual(self.found()["fileSystem"], "fat12")
        allocation.fill_with_mtools(self.path, self.folder, 40, "fat12")
        self.assert_equals_mshowfat()

    def test_16_and_32_bits(self):
        for kind, size, options in self.KINDS[1:]:
            with self.subTest(kind):
                allocation.make(kind, self.path, size, *options)
                self.assert_equals_partclone(kind, self.fat_end())
                allocation.fill_with_mtools(self.path, self.folder, 40, kind)
                self.assertGreater(len(self.assert_equals_partclone(kind, self.fat_end())["used"]), 5)
                os.unlink(self.path)

    def test_dirty(self):
        # The state byte of the boot sector, and the bits of the table's second entry, at bytes 3 (16 bits) and 7.
        cases = {"fat12": [(37, 1)], "fat16": [(37, 1), (None, 3, 0x80), (None, 3, 0x40)],
                 "fat32": [(65, 1), (None, 7, 0x08), (None, 7, 0x04)]}
        for kind, size, options in self.KINDS:
            allocation.make(kind, self.path, size, *options)
            boot = samples.read(self.path, 0, 512)
            reserved, copies = struct.unpack_from("<HB", boot, 14)
            length = struct.unpack_from("<H", boot, 22)[0] or struct.unpack_from("<I", boot, 36)[0]
            for case in cases[kind]:
                with self.subTest(kind=kind, case=case):
                    places = [case[0]] if case[0] else [(reserved + copy * length) * 512 + case[1]
                                                        for copy in range(copies)]
                    for place in places:
                        old = samples.read(self.path, place, 1)[0]
                        patch(self.path, place, bytes([old | 1 if case[0] else old & ~case[2]]))
                    self.assertNotEqual(self.found()["doubt"], "")
                    for place in places:
                        patch(self.path, place, bytes([old]))
                    self.assertEqual(self.found()["doubt"], "")
            os.unlink(self.path)

    def test_tables_that_differ(self):
        allocation.make("fat16", self.path, 24 * MIB)
        reserved = struct.unpack("<H", samples.read(self.path, 14, 2))[0]
        patch(self.path, reserved * 512 + 100, b"\x01")
        self.assert_doubt("differ")

    def test_bad_clusters_are_not_read(self):
        allocation.make("fat32", self.path, 48 * MIB, "-s", "1")
        before = self.found()["used"]
        boot = samples.read(self.path, 0, 512)
        reserved, copies = struct.unpack_from("<HB", boot, 14)
        length = struct.unpack_from("<I", boot, 36)[0]
        for copy in range(copies):
            patch(self.path, (reserved + copy * length) * 512 + 1000 * 4, struct.pack("<I", 0x0FFFFFF7))
        self.assertEqual(self.found()["used"], before)
        self.assert_equals_partclone("fat32", self.fat_end())


class ExFAT(Volumes):
    @unittest.skipUnless(HAS_FUSE and samples.tool("mount.exfat-fuse"), "mounting needs root, FUSE and exfat-fuse")
    def test_files_written_and_removed(self):
        for cluster in ("4096", "131072"):
            with self.subTest(cluster=cluster):
                allocation.make("exfat", self.path, 192 * MIB, "-c", cluster)
                self.assert_equals_partclone("exfat", self.exfat_end())
                with allocation.mounted("exfat", self.path, os.path.join(self.folder, "mount")) as mount:
                    allocation.write_files(mount, 150, cluster)
                self.assert_equals_partclone("exfat", self.exfat_end())
                os.unlink(self.path)

    def test_dirty_and_damaged(self):
        allocation.make("exfat", self.path, 64 * MIB)
        for offset, content, words in ((106, b"\x02", "not unmounted cleanly"), (106, b"\x04", "errors"),
                                       (300, b"\x99", "checksum"), (92, b"\xFF\xFF\xFF", "damaged"),
                                       (72, b"\xFF\xFF\xFF\xFF", "larger"), (110, b"\x02", "")):
            with self.subTest(offset=offset):
                old = samples.read(self.path, offset, len(content))
                patch(self.path, offset, content)
                self.assert_doubt(words)
                patch(self.path, offset, old)
        self.assertEqual(self.found()["doubt"], "")


class Others(Volumes):
    def test_other_file_systems_and_no_volume_at_all(self):
        for name, content in (("zeros", bytes(MIB)), ("noise", os.urandom(MIB)), ("short", b"\xEB\x52\x90NTFS    "),
                              ("MBR", bytes(510) + b"\x55\xAA" + bytes(512))):
            with self.subTest(name):
                with open(self.path, "wb") as file:
                    file.write(content)
                self.assert_doubt("")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)
        with open(self.path, "wb"):
            pass
        self.assertEqual(self.found()["used"], [])


if __name__ == "__main__":
    unittest.main()
