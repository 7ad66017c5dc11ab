# SPDX-License-Identifier: Apache-2.0
"""`vorlix restore`: volumes from images of every kind, checked by cmp and fdisk; what is refused; resuming, undo."""

import fcntl
import functools
import gzip
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

from support import bios, gpt, images, samples, tools, volumes
from support.samples import Slice

MISSING = volumes.missing("sgdisk", "sfdisk", "mkntfs", "ntfscp", "ntfsclone", "mkfs.vfat", "gzip", "xz", "zstd", "bzip2",
                          "zip", "bmaptool", "setpriv")
NO_BIOS = volumes.missing("qemu-system-x86_64")

MIB = 1 << 20
EFI = volumes.EFI
WINDOWS = Slice(3, 40960, 16 * 2048, samples.BASIC_DATA, "BOOTCAMP")
DISK_SECTORS = 40960 + 17 * 2048 + 64
SECOND = WINDOWS.sectors * 512 - 512  # offset of the second boot sector of an NTFS volume that fills the slice
PACKERS = {"gz": ["gzip", "-k"], "xz": ["xz", "-k", "-0"], "zst": ["zstd", "-q"], "bz2": ["bzip2", "-k", "-1"]}


@functools.lru_cache(maxsize=None)
def templates():
    """The disk, the image and the content of its file that each test gets copies of."""
    disk, image, content = (os.path.join(volumes.template_folder(), name) for name in ("restore.img", "win.img", "content"))
    samples.make_disk(disk, DISK_SECTORS, [EFI, volumes.APPLE, WINDOWS])
    samples.write(disk, WINDOWS.first * 512, random.Random(3).randbytes(2 * MIB))  # of an earlier volume
    samples.make_ntfs(image, WINDOWS.sectors, "WINDOWS")
    with open(content, "wb") as file:
        file.write(random.Random(7).randbytes(2 * MIB) + bytes(MIB) + b"text " * 100_000)
    samples.run("ntfscp", "-f", image, content, "file.bin")
    volumes.add_start_files(image, disk)
    return disk, image, content


@functools.lru_cache(maxsize=None)
def gzipped_template():
    _, image, _ = templates()
    images.run_tool("gzip", "-k", image)
    return image + ".gz"


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class RestoreTest(volumes.VolumeTest):
    """A disk with an empty slice 3, and an NTFS volume with files that fits it exactly."""

    def setUp(self):
        super().setUp()
        self.disk, self.image = self.path("mac.img"), self.path("win.img")
        self.untouched = self.path("untouched.img")
        disk, image, content = templates()
        for template, path in ((disk, self.disk), (disk, self.untouched), (image, self.image), (content, self.path("content"))):
            images.sparse_copy(template, path)
        self.give(self.disk, self.image)

    def gzipped(self):
        """Makes and returns the image packed, of a test that has not changed it."""
        return self.give(shutil.copy(gzipped_template(), self.image + ".gz"))

    def restore(self, source, *options, disk=None, expect=0, saying=()):
        result = self.vorlix_run("restore", source, disk or self.disk, "--partition", 3, "--yes", *options)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stdout + result.stderr)
        return result

    def expected_volume(self, image=None):
        """The volume as it must be on the disk: the image with the sector where it begins, in both boot sectors."""
        with open(image or self.image, "rb") as file:
            volume = bytearray(file.read())
        first = WINDOWS.first.to_bytes(4, "little")
        volume[28:32] = first
        volume[SECOND : SECOND + 512] = volume[:512]
        return bytes(volume)

    def assert_restored(self, expected=None, disk=None):
        disk = disk or self.disk
        found = samples.read(disk, WINDOWS.first * 512, WINDOWS.sectors * 512)
        expected = expected or self.expected_volume()
        if found != expected:
            self.assertEqual([at for at in range(0, len(expected), 512) if found[at : at + 512] != expected[at : at + 512]], [])

    def assert_rest_unchanged(self, but_sector_0=True):
        """Everything outside the slice is as before."""
        end = (WINDOWS.first + WINDOWS.sectors) * 512
        start = 512 if but_sector_0 else 0
        for offset, count in ((start, WINDOWS.first * 512 - start), (end, DISK_SECTORS * 512 - end)):
            self.assertEqual(samples.read(self.disk, offset, count), samples.read(self.untouched, offset, count))

    def assert_untouched(self):
        self.assertEqual(images.content_hash(self.disk), images.content_hash(self.untouched))

    def journals(self):
        folder = os.path.join(self.state, "vorlix", "journals")
        return os.listdir(folder) if os.path.isdir(folder) else []


class Kinds(RestoreTest):
    def test_a_raw_image_and_the_mbr_that_starts_it(self):
        result = self.restore(self.image, saying=["Restored", "read back and compared", "Undo       vorlix undo"])
        self.assert_restored()
        self.assert_rest_unchanged()
        slots = tools.fdisk_slots(self.disk)
        self.assertEqual(slots[3], (True, WINDOWS.first, WINDOWS.sectors, 0x07))
        self.assertEqual([number for number, slot in slots.items() if slot[0]], [3])
        self.assertEqual(slots[1][3], 0xEE)
        self.assertIn("No problems found", tools.sgdisk(self.disk, "-v"))
        self.assertEqual(self.journals(), [])
        self.assertNotIn("warning", result.stderr)

    def test_packed_images(self):
        for suffix, packer in PACKERS.items():
            with self.subTest(suffix=suffix):
                images.run_tool(*packer, self.image)
                images.sparse_copy(self.untouched, self.disk)
                self.restore(f"{self.image}.{suffix}")
                self.assert_restored()
        images.run_tool("zip", "-q", "-j", self.path("win.zip"), self.image)
        images.sparse_copy(self.untouched, self.disk)
        self.restore(self.path("win.zip"))
        self.assert_restored()

    def test_an_image_of_ntfsclone(self):
        clone = self.path("win.clone")
        images.run_tool("ntfsclone", "--save-image", "-f", "-o", clone, self.image)
        by_itself = self.path("restored")
        images.run_tool("ntfsclone", "--restore-image", "-o", by_itself, clone)
        self.restore(clone)
        found = samples.read(self.disk, WINDOWS.first * 512, WINDOWS.sectors * 512)
        self.assertEqual(found[:512], self.expected_volume()[:512])
        with open(self.path("there.img"), "wb") as file:
            file.write(found)
        # What ntfsclone restores, where the file system uses it: its own check of the result.
        images.run_tool("ntfsfix", "-n", self.path("there.img"))
        samples.run("sh", "-c", f"ntfscat -f {self.path('there.img')} file.bin > {self.path('there')}")
        self.assertEqual(samples.read(self.path("there"), 0, 8 * MIB), samples.read(self.path("content"), 0, 8 * MIB))

    def test_a_backup_of_ours(self):
        self.restore(self.image)
        self.vorlix_ok("backup", self.disk + "s3", self.path("backup"))
        images.sparse_copy(self.untouched, self.disk)
        self.restore(self.path("backup"))
        there = self.path("there.img")
        with open(there, "wb") as file:
            file.write(samples.read(self.disk, WINDOWS.first * 512, WINDOWS.sectors * 512))
        samples.run("sh", "-c", f"ntfscat -f {there} file.bin > {self.path('there')}")
        self.assertEqual(samples.read(self.path("there"), 0, 8 * MIB), samples.read(self.path("content"), 0, 8 * MIB))
        self.assertEqual(samples.read(there, 0, 512), self.expected_volume()[:512])

    def test_with_a_block_map_the_source_is_verified(self):
        images.run_tool("bmaptool", "create", "-o", self.image + ".bmap", self.image)
        result = self.restore(self.image)
        self.assertNotIn("no block map", result.stdout)
        self.assert_restored_where_mapped()
        samples.write(self.image, 600, b"damage")
        images.sparse_copy(self.untouched, self.disk)
        self.restore(self.image, expect=2, saying=["vorlix restore --resume"])

    def test_a_block_map_of_more_ranges_than_a_large_volume_has_frames(self):
        """Backups have a range for each frame of 4 MiB at least: 400 001 of them are 1.6 TiB."""
        ranges = 400_001
        large = self.path("large.img")
        with open(large, "xb") as file:
            file.truncate(ranges * 512)
        lines = "".join(f"        <Range> {number} </Range>\n" for number in range(ranges))
        text = (f'<?xml version="1.0" ?>\n<bmap version="2.0">\n    <ImageSize> {ranges * 512} </ImageSize>\n'
                f"    <BlockSize> 512 </BlockSize>\n    <BlocksCount> {ranges} </BlocksCount>\n"
                f"    <MappedBlocksCount> {ranges} </MappedBlocksCount>\n    <ChecksumType> sha256 </ChecksumType>\n"
                f"    <BmapFileChecksum> {64 * '0'} </BmapFileChecksum>\n    <BlockMap>\n{lines}    </BlockMap>\n</bmap>\n")
        text = text.replace(64 * "0", hashlib.sha256(text.encode()).hexdigest())
        self.file("large.img.bmap", text.encode())
        disk = self.path("large.disk")
        samples.make_disk(disk, 40960 + 401_000 + 64, [EFI, Slice(3, 40960, 400_128, samples.BASIC_DATA, "BOOTCAMP")])
        self.give(disk)
        self.restore(large, "--dry-run", "--force", disk=disk, expect=1, saying=["Dry run", "204.80 MB"])

    def assert_restored_where_mapped(self):
        self.assertEqual(samples.read(self.disk, WINDOWS.first * 512, 512), self.expected_volume()[:512])

    def test_standard_input(self):
        command = [*self.prefix(), self.vorlix, "restore", "-", self.disk, "--partition", "3", "--yes"]
        with open(self.image, "rb") as file:
            packed = gzip.compress(file.read(), 1)
        result = subprocess.run(command[:-1], input=packed, capture_output=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"--yes", result.stderr)
        self.assert_untouched()
        result = subprocess.run(command, input=packed, capture_output=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_restored()

    def test_a_smaller_volume_and_its_second_boot_sector(self):
        small = self.path("small.img")
        samples.make_ntfs(small, WINDOWS.sectors // 2, "SMALL")
        self.restore(small, expect=1, saying=["has no bootmgr in its root"])
        found = samples.read(self.disk, WINDOWS.first * 512, WINDOWS.sectors * 512)
        self.assertEqual(found[28:32], WINDOWS.first.to_bytes(4, "little"))
        self.assertEqual(found[SECOND:], found[:512])

    def test_without_a_start(self):
        self.restore(self.image, "--start", "none")
        self.assert_restored()
        self.assert_rest_unchanged(but_sector_0=False)

    def test_progress_for_programs(self):
        result = self.restore(self.image, "--progress", "json")
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual({item["phase"] for item in objects}, {"restoring", "comparing"})
        self.assertEqual(max(item["done"] for item in objects), WINDOWS.sectors * 512)

    @unittest.skipIf(NO_BIOS, f"not installed: {NO_BIOS}")
    def test_a_pc_starts_the_restored_volume(self):
        bios.make_system(self.image, "BOOTCAMP")
        self.restore(self.image)
        text, ended = bios.start(self.disk, self.folder)
        self.assertEqual(bios.started_volumes(text), [("BOOTCAMP", f"{WINDOWS.first:08X}")], text)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME)


class Refusals(RestoreTest):
    def refuse(self, source, *options, saying=()):
        self.restore(source, *options, expect=2, saying=[*saying, "nothing was written"])
        self.assert_untouched()
        self.assertEqual(self.journals(), [])

    def test_a_dry_run_shows_the_plan_and_writes_nothing(self):
        before = images.snapshot(self.disk)
        result = self.restore(self.image, "--dry-run", expect=1, saying=["Dry run", "Lost", "MBR slot 3", "NTFS"])
        self.assertIn(self.disk + "s3", result.stdout)
        self.assert_unchanged(self.disk, before)
        self.assertFalse(os.path.isdir(os.path.join(self.state, "vorlix")))

    def test_without_a_terminal_yes_is_needed(self):
        result = self.vorlix_run("restore", self.image, self.disk, "--partition", 3)
        self.assertEqual(result.returncode, 2)
        self.assertIn("--yes", result.stderr)
        self.assert_untouched()

    def test_sources_that_do_not_fit(self):
        large = self.path("large.img")
        samples.make_ntfs(large, WINDOWS.sectors + 2048, "LARGE")
        self.refuse(large, saying=["has room for"])
        with open(large, "r+b") as file:
            file.truncate(WINDOWS.sectors * 256)
        self.refuse(large, "--force", saying=["has room for"])  # its file system is as large as before

    def test_a_truncated_image(self):
        with open(self.image, "r+b") as file:
            file.truncate(WINDOWS.sectors * 256)
        self.refuse(self.image, saying=["truncated", "--force"])

    def test_what_is_no_volume(self):
        text = self.file("text", b"a text file\n" * 1000)
        self.refuse(text, saying=["--force"])
        self.refuse(self.file("empty", b""), saying=["empty"])
        self.refuse(self.path("missing"), saying=["missing"])

    def test_entries_that_are_not_for_windows(self):
        for number, words in ((1, "EFI System"), (2, "Apple"), (4, "not in use")):
            result = self.vorlix_run("restore", self.image, self.disk, "--partition", number, "--yes")
            self.assertEqual(result.returncode, 2)
            self.assertIn(words, result.stderr)
        self.assert_untouched()

    def test_a_damaged_gpt(self):
        gpt.write_at(self.disk, 512 + 57, b"\xFF")
        images.sparse_copy(self.disk, self.untouched)
        self.refuse(self.image, saying=["--force"])

    def test_a_source_on_the_same_disk(self):
        self.restore(self.image)
        images.sparse_copy(self.disk, self.untouched)
        self.restore(self.disk + "s3", expect=2, saying=["on the disk that it would be restored to", "nothing was written"])
        self.assert_untouched()

    def test_a_damaged_packed_image_leaves_a_volume_that_nothing_takes_for_whole(self):
        size = os.path.getsize(self.gzipped())
        with open(self.image + ".gz", "r+b") as file:
            file.truncate(size // 2)
        result = self.restore(self.image + ".gz", expect=2, saying=["truncated", "no boot sector yet"])
        self.assertEqual(samples.read(self.disk, WINDOWS.first * 512, 512), bytes(512))
        self.assert_rest_unchanged(but_sector_0=False)
        name = re.search(r"vorlix undo (\S+)`", result.stderr).group(1)
        self.vorlix_ok("undo", name)
        self.assertEqual(self.journals(), [])


class Interrupted(RestoreTest):
    def interrupted_one(self):
        """A journal of a restore whose source cannot be read to its end."""
        self.packed = self.gzipped()
        with open(self.packed, "rb") as file:
            whole = file.read()
        with open(self.packed, "r+b") as file:
            file.truncate(len(whole) * 3 // 4)
        self.restore(self.packed, expect=2)
        (name,) = self.journals()
        return name, whole

    def test_it_goes_on_by_name_once_the_source_is_whole(self):
        name, whole = self.interrupted_one()
        self.vorlix_refuses("restore", "--resume", name, saying=["truncated"])
        with open(self.packed, "wb") as file:
            file.write(whole)
        self.vorlix_ok("restore", "--resume", name[:15])
        self.assert_restored()
        self.assert_rest_unchanged()

    def test_another_disk_of_that_name_is_left_alone(self):
        name, whole = self.interrupted_one()
        with open(self.packed, "wb") as file:
            file.write(whole)
        right = self.path("right.img")
        os.rename(self.disk, right)
        images.sparse_copy(self.untouched, self.disk)
        self.give(self.disk)
        samples.write(self.disk, WINDOWS.first * 512, b"\xEB\x52\x90NTFS    another volume in the same tables")
        before = images.content_hash(self.disk)
        for command in (["restore", "--resume", name], ["restore", "--resume", name, "--no-verify"], ["undo", name]):
            way_out = ["forgets the restore"] if command[0] == "undo" else []
            self.vorlix_refuses(*command, saying=["the boot sector was changed since", *way_out])
            self.assertEqual(images.content_hash(self.disk), before, command)
            self.assertEqual(self.journals(), [name])
        os.replace(right, self.disk)
        self.vorlix_ok("restore", "--resume", name)
        self.assert_restored()
        self.assert_rest_unchanged()

    def test_another_source_is_refused(self):
        name, _ = self.interrupted_one()
        other = self.path("other.img")
        samples.make_ntfs(other, WINDOWS.sectors // 2, "OTHER")
        self.restore(other, expect=2, saying=["was interrupted", name])
        self.vorlix_refuses("restore", other, "--resume", name, saying=["is not the source"])

    def test_a_restore_to_another_disk_is_no_obstacle(self):
        name, _ = self.interrupted_one()
        other = self.path("other.disk")
        images.sparse_copy(self.untouched, other)
        self.give(other)
        journal = os.open(os.path.join(self.state, "vorlix", "journals", name), os.O_RDONLY)
        fcntl.flock(journal, fcntl.LOCK_EX)  # as a process that is still at work has it
        self.addCleanup(os.close, journal)
        self.restore(self.image, disk=other)
        self.assert_restored(disk=other)
        self.assertEqual(self.journals(), [name])
        self.restore(self.image, expect=2, saying=["nothing was written"])

    def test_other_commands_do_not_write_to_the_disk_meanwhile(self):
        name, _ = self.interrupted_one()
        before = images.snapshot(self.disk)
        self.vorlix_refuses("hybrid", self.disk, "--partition", 3, "--force",
                            saying=[f"vorlix restore --resume {name}", f"vorlix undo {name}"])
        self.assertIn(name, self.vorlix_run("show", self.disk).stderr)
        self.assert_unchanged(self.disk, before)

    def test_a_signal_ends_it_at_a_safe_place(self):
        slow = self.gzipped()
        command = [*self.prefix(), self.vorlix, "restore", slow, self.disk, "--partition", "3", "--yes"]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True)
        end = time.monotonic() + 30
        while not self.journals() and process.poll() is None and time.monotonic() < end:
            time.sleep(0.001)
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=60)
        if process.returncode == 0:
            self.skipTest("the restore was complete before the signal came")
        self.assertEqual(process.returncode, 2, errors)
        self.assertIn("--resume", errors)
        self.restore(slow)
        self.assert_restored()

    def test_a_complete_restore_can_be_undone_but_for_its_content(self):
        result = self.restore(self.image)
        name = re.search(r"vorlix undo (\S+)\n", result.stdout).group(1)
        result = self.vorlix_ok("undo", name)
        self.assertIn("Lost       what the restore overwrote", result.stdout)
        for place in (0, WINDOWS.first * 512):
            self.assertEqual(samples.read(self.disk, place, 512), samples.read(self.untouched, place, 512))



if __name__ == "__main__":
    images.main()
