# SPDX-License-Identifier: Apache-2.0
"""`vorlix restore` of images of WIMs: what wimcapture made is there again, as wimdir and the tools of ntfs-3g tell;
what is refused before the disk is written; kills, resuming, undo."""

import functools
import json
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest

from support import gpt, images, samples, sparse, tools, volumes
from support.samples import Slice

MISSING = volumes.missing("sgdisk", "mkntfs", "ntfscat", "ntfscp", "ntfsfix", "ntfsinfo", "ntfsresize", "wimcapture",
                          "wimapply", "wimdir", "wimsplit", "wiminfo", "setpriv")
MIB = 1 << 20
WINDOWS = Slice(3, 40960, 96 * 2048, samples.BASIC_DATA, "BOOTCAMP")
DISK_SECTORS = 40960 + 97 * 2048 + 64
SECOND = WINDOWS.sectors * 512 - 512  # offset of the second boot sector
LONG = "a name of 250 letters ".ljust(250, "l")

# What wimdir prints of a file and what has to come back. What is where in the WIM does not matter.
KEPT = re.compile(r"^(Full Path|Short Name|Attributes|Security Descriptor|Creation Time|Last Write Time|Link Count|Reparse "
                  r"Tag|Hash|Uncompressed size|\t\w+ data stream|\tNamed)")


def wim_content(path, index):
    """What wimdir tells of an image, without where it lies in the WIM."""
    result = subprocess.run([images.tool("wimdir"), path, str(index), "--detailed"], capture_output=True, text=True,
                            timeout=60, check=True)
    lines = [line.rstrip() for line in result.stdout.splitlines() if KEPT.match(line)]
    assert len(lines) > 10, result.stdout
    return lines


def xml_of(path):
    """The list of images of a WIM, and where it lies: (text, offset, size)."""
    header = samples.read(path, 0, 208)
    size, offset = struct.unpack("<Q", header[72:79] + b"\0")[0], struct.unpack("<Q", header[80:88])[0]
    return samples.read(path, offset, size).decode("utf-16"), offset, size


def replace_xml(path, text):
    """Puts another list of images at the end of a WIM."""
    content = b"\xFF\xFE" + text.encode("utf-16-le")
    at = os.path.getsize(path)
    samples.write(path, at, content)
    samples.write(path, 72, struct.pack("<Q", len(content))[:7] + b"\x02" + struct.pack("<QQ", at, len(content)))


def make_tree(folder, large=6 * MIB):
    """A tree with hard links, long names, equal, large, small and empty files."""
    os.makedirs(os.path.join(folder, "Windows", "System32"))
    os.makedirs(os.path.join(folder, "empty folder"))
    chance = random.Random(5)
    for path, content in (("Windows/System32/one", b"hello"), ("large", chance.randbytes(large)),
                          ("text", b"some text " * 100_000), (LONG, b"long"), ("nothing", b""),
                          ("Grüße 日本", b"names"), ("zeros", bytes(MIB))):
        with open(os.path.join(folder, path), "wb") as file:
            file.write(content)
    os.link(os.path.join(folder, "Windows/System32/one"), os.path.join(folder, "two"))
    with open(os.path.join(folder, "copy"), "wb") as file, open(os.path.join(folder, "large"), "rb") as source:
        file.write(source.read())
    os.symlink("Windows/System32/one", os.path.join(folder, "link"))
    return folder


@functools.lru_cache(maxsize=None)
def disk_template():
    path = os.path.join(volumes.template_folder(), "wim.img")
    samples.make_disk(path, DISK_SECTORS, [volumes.EFI, volumes.APPLE, WINDOWS])
    samples.write(path, WINDOWS.first * 512, random.Random(3).randbytes(2 * MIB))
    return path


@functools.lru_cache(maxsize=None)
def two_images(options, large, number):
    """A WIM with the images "First one" and "The <second>", of NTFS volumes whose file `text` has a second stream."""
    place = tempfile.mkdtemp(prefix=f"wim{number}-", dir=volumes.template_folder())
    path, volume, applied, stream = (os.path.join(place, name) for name in ("two.wim", "ntfs", "applied.wim", "stream"))
    samples.make_ntfs(volume, 64 * 2048, "SOURCE")
    images.run_tool("wimcapture", make_tree(os.path.join(place, "tree"), large), applied, "--norpfix", "--compress=none")
    images.run_tool("wimapply", applied, "1", volume)
    images.run_tool("wimcapture", volume, path, "First one", *options)
    with open(stream, "wb") as file:
        file.write(b"the second stream" * 1000)
    images.run_tool("ntfscp", "-f", "-N", "second", volume, stream, "text")
    images.run_tool("wimappend", volume, path, "The <second>", *(["--solid"] if "--solid" in options else []))
    return path


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class WimTest(volumes.VolumeTest):
    """A disk with an earlier volume's bytes on slice 3, and a WIM with two images."""

    def setUp(self):
        super().setUp()
        self.disk, self.untouched = self.path("mac.img"), self.path("untouched.img")
        for path in (self.disk, self.untouched):
            images.sparse_copy(disk_template(), path)
        self.give(self.disk)
        self.scratch = self.path("scratch")
        os.mkdir(self.scratch)
        self.give(self.scratch)

    def tree(self):
        """A folder of its own with the files of make_tree()."""
        return make_tree(self.path("tree"))

    def wim(self, name="two.wim", *options, large=6 * MIB, number=0):
        """A copy of what two_images() makes. Those of different numbers have been captured one by one."""
        path = shutil.copy(two_images(options, large, number), self.path(name))
        os.chmod(path, 0o644)
        return path

    def restore(self, source, *options, disk=None, expect=1, saying=()):
        """Restores. The status is 1 on success: boot code of Windows is missing."""
        result = self.vorlix_run("restore", source, disk or self.disk, "--partition", 3, "--yes", "--scratch",
                                 self.scratch, *options)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stdout + result.stderr)
        self.assertEqual(os.listdir(self.scratch), [])
        return result

    def volume(self, disk=None, first=WINDOWS.first * 512, size=WINDOWS.sectors * 512):
        """The restored volume as a file, found sound by independent tools."""
        path = self.path("volume.img")
        sparse.copy(disk or self.disk, path, first, size)
        images.run_tool("ntfsfix", "-n", path)
        images.run_tool("ntfsresize", "-i", "-f", path)
        return path

    def assert_restored(self, wim, index, disk=None):
        path = self.volume(disk)
        start = samples.read(path, 0, 512)
        self.assertEqual(samples.read(path, SECOND, 512), start)
        self.assertEqual(struct.unpack("<I", start[28:32])[0], WINDOWS.first)
        self.assertEqual(struct.unpack("<HH", start[24:28]), (63, 255))
        self.assertEqual(struct.unpack("<Q", start[40:48])[0], WINDOWS.sectors - 1)
        again = self.path("again.wim")
        if os.path.exists(again):
            os.remove(again)
        images.run_tool("wimcapture", path, again, "--compress=none")
        self.assertEqual(wim_content(again, 1), wim_content(wim, index))
        return path

    def assert_rest_unchanged(self):
        end = (WINDOWS.first + WINDOWS.sectors) * 512
        for offset, count in ((512, WINDOWS.first * 512 - 512), (end, DISK_SECTORS * 512 - end)):
            self.assertEqual(samples.read(self.disk, offset, count), samples.read(self.untouched, offset, count))

    def assert_untouched(self):
        self.assertEqual(images.content_hash(self.disk), images.content_hash(self.untouched))
        self.assertEqual(self.journals(), [])

    def journals(self):
        folder = os.path.join(self.state, "vorlix", "journals")
        return os.listdir(folder) if os.path.isdir(folder) else []


class Images(WimTest):
    def test_an_image_becomes_the_volume(self):
        wim = self.wim()
        result = self.restore(wim, "--index", 2, saying=[
            'image 2 "The <second>"', "read back and compared", "Undo       vorlix undo",
            f"vorlix vbr restore FILE {self.disk}s3"])
        self.assertNotIn("Start  ", result.stdout)
        path = self.assert_restored(wim, 2)
        self.assert_rest_unchanged()
        self.assertEqual(tools.fdisk_slots(self.disk)[3], (True, WINDOWS.first, WINDOWS.sectors, 0x07))
        for options, expected in ((["two"], b"hello"), ([LONG], b"long"), (["text"], b"some text " * 100_000),
                                  (["-n", "second", "text"], b"the second stream" * 1000)):
            found = subprocess.run([images.tool("ntfscat"), "-f", *options[:-1], path, options[-1]], capture_output=True,
                                   timeout=60, check=True)
            self.assertEqual(found.stdout, expected)
        one, two = (subprocess.run([images.tool("ntfsinfo"), "-f", "-q", "-F", name, path], capture_output=True,
                                   text=True, timeout=60, check=True).stdout for name in ("two", "Windows/System32/one"))
        self.assertEqual(*(re.search(r"Dumping Inode (\d+)", text)[1] for text in (one, two)))
        self.assertEqual(self.journals(), [])

    def test_each_compression(self):
        for number, options in enumerate((["--compress=XPRESS", "--check"], ["--compress=LZX", "--chunk-size=128K"],
                                          ["--compress=LZMS"], ["--solid", "--check"], ["--compress=none"])):
            with self.subTest(options=options):
                wim = self.wim(f"{number}.{'esd' if '--solid' in options else 'wim'}", *options, large=MIB)
                images.sparse_copy(self.untouched, self.disk)
                # By the version in the header, which wimcapture raises for LZMS, too.
                is_esd = "--solid" in options or "--compress=LZMS" in options
                self.restore(wim, "--index", 1, saying=["(ESD, " if is_esd else "(WIM, "])
                self.assert_restored(wim, 1)

    def test_one_image_needs_no_index(self):
        wim = self.path("one.wim")
        images.run_tool("wimcapture", self.tree(), wim, "Only")
        result = self.restore(wim, "--start", "none", expect=0, saying=['image 1 "Only"'])
        self.assertNotIn("Missing", result.stdout)
        self.assertEqual(samples.read(self.disk, 0, 512), samples.read(self.untouched, 0, 512))
        self.volume()

    def test_the_plan_writes_nothing(self):
        before = images.snapshot(self.disk)
        self.restore(self.wim(), "--index", 1, "--dry-run", saying=["Dry run", "First one", self.scratch, "MBR slot 3"])
        self.assert_unchanged(self.disk, before)
        self.assertFalse(os.path.isdir(os.path.join(self.state, "vorlix")))

    def test_progress_for_programs(self):
        result = self.restore(self.wim(), "--index", 1, "--progress", "json")
        objects = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual(list(dict.fromkeys(item["phase"] for item in objects)), ["applying", "restoring", "comparing"])
        applied = [item["done"] for item in objects if item["phase"] == "applying"]
        self.assertGreater(applied[-1], 6 * MIB)
        self.assertEqual(applied[-1], [item["total"] for item in objects if item["phase"] == "applying"][-1])

    def test_what_is_free_is_not_written(self):
        """The bytes of an earlier volume stay where the new one has nothing, so that not all of a large slice is read."""
        samples.write(self.disk, (WINDOWS.first + 80 * 2048) * 512, b"an earlier volume")
        self.restore(self.wim(), "--index", 1)
        self.assertEqual(samples.read(self.disk, (WINDOWS.first + 80 * 2048) * 512, 17), b"an earlier volume")
        self.volume()

    def test_sectors_of_4096_bytes(self):
        disk = self.path("4k.img")
        entries = [gpt.Entry(gpt.EFI_SYSTEM, 6, 2053), None, gpt.Entry(gpt.BASIC_DATA, 4096, 4096 + 96 * 256 - 1)]
        gpt.Table(block_size=4096, blocks=4096 + 98 * 256, entries=entries).write(disk)
        self.give(disk)
        wim = self.wim()
        self.restore(wim, "--index", 1, disk=disk)
        path = self.volume(disk, 4096 * 4096, 96 * MIB)
        start = samples.read(path, 0, 512)
        self.assertEqual(struct.unpack("<HBHBHHBHHHI", start[11:32])[0], 4096)
        self.assertEqual(struct.unpack("<I", start[28:32])[0], 4096)
        found = subprocess.run([images.tool("ntfscat"), "-f", path, "two"], capture_output=True, timeout=60, check=True)
        self.assertEqual(found.stdout, b"hello")

    def test_a_complete_restore_can_be_undone_but_for_its_content(self):
        result = self.restore(self.wim(), "--index", 1)
        name = re.search(r"vorlix undo (\S+)\n", result.stdout).group(1)
        self.vorlix_ok("undo", name)
        for place in (0, WINDOWS.first * 512):
            self.assertEqual(samples.read(self.disk, place, 512), samples.read(self.untouched, place, 512))


class Refusals(WimTest):
    def refuse(self, source, *options, saying=()):
        self.restore(source, *options, expect=2, saying=[*saying, "nothing was written"])
        self.assert_untouched()

    def test_several_images_need_an_index(self):
        wim = self.wim()
        self.refuse(wim, saying=["--index", '1 "First one"', '2 "The <second>"'])
        self.refuse(wim, "--index", 3, saying=["no image 3", '2 "The <second>"'])
        raw = self.path("raw.img")
        samples.make_ntfs(raw, 8 * 2048, "RAW")
        self.refuse(self.give(raw), "--index", 1, saying=["is no WIM"])

    def test_mkntfs_that_goes_on_after_a_failed_write(self):
        """It exits with 0 if it could not write the second boot sector."""
        programs = self.path("programs")
        os.mkdir(programs)
        program = os.path.join(programs, "mkntfs")
        with open(program, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\n{images.tool("mkntfs")} "$@"\necho "Error writing to x: No space" >&2\n'
                       'echo "This is not a major problem" >&2\n')
        os.chmod(program, 0o755)
        result = self.vorlix_run("restore", self.wim(), self.disk, "--partition", 3, "--index", 1, "--yes", "--scratch", self.scratch,
                                 prefix=(*self.prefix(), "env", f"PATH={programs}:/usr/bin:/bin"))
        self.assertEqual(result.returncode, 2, result.stdout)
        self.assertIn("mkntfs failed: Error writing to x: No space; nothing was written", result.stderr)
        self.assert_untouched()

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_failed_writes_to_the_scratch_file(self):
        """libntfs-3g goes on after some of them, such as those of copies of its structures."""
        options = ("--partition", 3, "--index", 1, "--yes", "--scratch", self.scratch)
        wim, other, log = self.wim(), self.path("other.img"), self.file("writes", b"")
        images.sparse_copy(self.disk, other)
        self.vorlix_run("restore", wim, self.give(other), *options, prefix=(*self.prefix(), *volumes.strace("-y", "-o", log, "-e", "trace=pwrite64")))
        with open(log, encoding="utf-8", errors="replace") as file:
            places = ["(deleted)" in line for line in file if line.startswith("pwrite64(")]
        writes = places.index(False)
        self.assertGreater(writes, 20)
        for number in range(1, writes + 1, writes // (6 if images.SANITIZED else 20)):
            with self.subTest(number=number):
                trace = volumes.strace("-o", "/dev/null", "-e", "trace=pwrite64", "-e", f"inject=pwrite64:error=EIO:when={number}")
                result = self.vorlix_run("restore", wim, self.disk, *options, prefix=(*self.prefix(), *trace))
                self.assertEqual(result.returncode, 2, result.stdout)
                self.assertIn("nothing was written", result.stderr)
                self.assert_untouched()

    def test_parts_of_wims(self):
        wim = self.wim()
        images.run_tool("wimsplit", wim, self.path("part.swm"), "5")
        self.assertTrue(os.path.exists(self.path("part2.swm")))
        for part in ("part.swm", "part2.swm"):
            self.refuse(self.path(part), "--index", 1, saying=["split", "wimjoin"])
        tree = self.tree()
        with open(os.path.join(tree, "added"), "wb") as file:
            file.write(b"added")
        delta = self.path("delta.wim")
        images.run_tool("wimcapture", tree, delta, "Delta", f"--delta-from={wim}", "--norpfix")
        self.refuse(delta, saying=["delta"])

    def test_an_encrypted_one(self):
        wim = self.wim()
        text = xml_of(wim)[0].lstrip("\ufeff")
        replace_xml(wim, text.replace("</WIM>", "<ESD><ENCRYPTED>x</ENCRYPTED></ESD></WIM>"))
        self.refuse(wim, "--index", 1, saying=["encrypted"])

    def test_packed_and_piped_ones(self):
        wim = self.wim()
        images.run_tool("gzip", "-k", wim)
        self.refuse(wim + ".gz", "--index", 1, saying=["unpacked"])
        command = [*self.prefix(), self.vorlix, "restore", "-", self.disk, "--partition", "3", "--yes", "--index", "1"]
        with open(wim, "rb") as file:
            result = subprocess.run(command, stdin=file, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 2)
        self.assertIn("pipe", result.stderr)
        self.assert_untouched()

    def test_too_small_a_slice(self):
        tree = self.tree()
        with open(os.path.join(tree, "too large"), "wb") as file:
            for _ in range(100):
                file.write(b"x" * MIB)
        wim = self.path("large.wim")
        images.run_tool("wimcapture", tree, wim, "Large", "--compress=XPRESS")
        self.refuse(wim, saying=["does not fit", "--force"])
        # The list may be wrong, or the user know better. Then the scratch volume is full.
        self.refuse(wim, "--force", saying=["the image does not fit the volume"])

    @unittest.skipUnless(volumes.IS_ROOT, "small file systems need root")
    def test_no_room_for_the_scratch_file(self):
        tree = self.path("tree")
        os.mkdir(tree)
        with open(os.path.join(tree, "large"), "wb") as file:
            for _ in range(86):
                file.write(b"x" * MIB)
        wim = self.path("large.wim")
        images.run_tool("wimcapture", tree, wim, "Large", "--compress=XPRESS")
        mounted = subprocess.run([images.tool("mount"), "-t", "tmpfs", "-o", "size=40m,mode=1777", "tmpfs", self.scratch],
                                 capture_output=True, text=True, check=False)
        if mounted.returncode != 0:
            self.skipTest(mounted.stderr)
        self.addCleanup(images.run_tool, "umount", self.scratch)
        self.refuse(wim, saying=["room", "--scratch", self.scratch])
        # A list that tells of less than there is passes the first look.
        replace_xml(wim, re.sub(r"<TOTALBYTES>\d+", "<TOTALBYTES>1", xml_of(wim)[0].lstrip("\ufeff")))
        images.run_tool("mount", "-o", "remount,size=83m", self.scratch)
        self.refuse(wim, saying=[self.scratch + ": No space left on device"])

    def test_folders_that_are_none(self):
        wim = self.wim()
        for folder, word in ((self.path("missing"), "No such file"), (wim, "Not a directory")):
            result = self.vorlix_refuses("restore", wim, self.disk, "--partition", 3, "--yes", "--index", 1, "--scratch",
                                         folder, saying=[folder, word])
            self.assertIn("nothing was written", result)
        self.assert_untouched()

    def test_damaged_wims(self):
        """Cut off or with wrong bits, a WIM is refused before the disk is written, or what it has is right."""
        wim = self.wim("good.wim", "--check")
        size = os.path.getsize(wim)
        with open(wim, "rb") as file:
            good = file.read()
        chance = random.Random(17)
        for cut in (0, 7, 100, 208, 5000, size // 2, size - 1):
            with self.subTest(cut=cut):
                self.refuse(self.file("cut.wim", good[:cut]), "--index", 1)
        for _ in range(16):
            damaged = bytearray(good)
            at = chance.randrange(208, size) if chance.random() < 0.7 else chance.randrange(0, 208)
            damaged[at] ^= 1 << chance.randrange(8)
            path = self.file("damaged.wim", bytes(damaged))
            result = self.vorlix_run("restore", path, self.disk, "--partition", 3, "--yes", "--index", 1, "--scratch",
                                     self.scratch)
            with self.subTest(at=at):
                self.assertIn(result.returncode, (1, 2), result.stderr)
                if result.returncode == 2:
                    self.assertIn("nothing was written", result.stderr)
                    self.assert_untouched()
                    continue
                self.assertLess(at, 208)  # the rest is under the integrity table
                self.assert_restored(wim, 1)
                images.sparse_copy(self.untouched, self.disk)

    def test_a_wrong_content_without_an_integrity_table(self):
        wim = self.wim("plain.wim", "--compress=none")
        with open(wim, "r+b") as file:
            at = file.read().find(b"some text some text")
            file.seek(at)
            file.write(b"S")
        self.assertGreater(at, 0)
        self.refuse(wim, "--index", 1, saying=["plain.wim"])


class Interrupted(WimTest):
    def start(self, wim, **options):
        command = [*self.prefix(), self.vorlix, "restore", wim, self.disk, "--partition", "3", "--yes", "--index", "2",
                   "--scratch", self.scratch, "--progress", "json"]
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, text=True, **options)

    def kill(self, process):
        process.send_signal(signal.SIGKILL)
        process.wait(timeout=60)
        self.assertEqual(os.listdir(self.scratch), [])

    def killed_after(self, wim, delay):
        process = self.start(wim, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(delay)
        self.kill(process)

    def applies(self, process):
        """Waits until the restore makes the volume in its scratch file, before it touches the disk."""
        while process.poll() is None and "scratch" not in "".join(self.open_files(process.pid)):
            time.sleep(0.001)
        self.assertIsNone(process.returncode)

    def test_killed_while_the_volume_is_made_nothing_was_written(self):
        wim = self.wim()
        for _ in range(20):  # a kill that comes late finds a journal
            images.sparse_copy(self.untouched, self.disk)
            process = self.start(wim, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.applies(process)
            self.kill(process)
            if not self.journals():
                break
            shutil.rmtree(os.path.join(self.state, "vorlix", "journals"))
        self.assert_untouched()

    def test_killed_at_random_moments_it_begins_again_and_the_volume_is_whole(self):
        wim = self.wim()
        started = time.monotonic()
        self.restore(wim, "--index", 2)
        takes = time.monotonic() - started
        chance = random.Random(19)
        for moment in (None, *(chance.random() for _ in range(9))):
            images.sparse_copy(self.untouched, self.disk)
            if moment is None:
                self.interrupted_one(wim)
            else:
                self.killed_after(wim, moment * takes)
            if images.content_hash(self.disk) == images.content_hash(self.untouched) and not self.journals():
                continue
            # The same command again. Where the journal of the structures was left, they are settled, too.
            self.restore(wim, "--index", 2)
            self.assert_restored(wim, 2)
            self.assert_rest_unchanged()
            self.assertEqual(self.journals(), [])

    def interrupted_one(self, wim):
        """Kills a restore whose journal is there. Returns the journal's name."""
        for _ in range(20):
            images.sparse_copy(self.untouched, self.disk)
            process = self.start(wim, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while process.poll() is None and not [name for name in self.journals() if not name.endswith(".new")]:
                time.sleep(0.001)
            self.kill(process)
            names = [name for name in self.journals() if re.fullmatch(r"[\dT.]+Z?\.?\d*-\d+", name)]
            if len(names) == 1:
                return names[0]
        self.fail("every restore was complete before it was killed")

    def test_it_goes_on_by_name_with_its_image(self):
        wim = self.wim()
        name = self.interrupted_one(wim)
        with open(os.path.join(self.state, "vorlix", "journals", name, "manifest.json"), encoding="utf-8") as file:
            self.assertEqual(json.load(file)["content"]["image"], 2)
        self.restore(wim, "--index", 1, expect=2, saying=["image 2", "was interrupted", name])
        other = self.wim("other.wim", number=1)
        self.vorlix_refuses("restore", other, "--resume", name, "--scratch", self.scratch, saying=["is not the source"])
        result = self.vorlix_run("restore", "--resume", name, "--scratch", self.scratch)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("applied anew", result.stdout)
        self.assertRegex(result.stdout, "Missing    the code in the boot sector of .* only prints a message")
        self.assert_restored(wim, 2)
        self.assert_rest_unchanged()
        self.assertEqual(self.journals(), [])

    def test_undo_gives_the_small_structures_back(self):
        name = self.interrupted_one(self.wim())
        self.vorlix_ok("undo", name)
        for place in (0, WINDOWS.first * 512, WINDOWS.first * 512 + SECOND):
            self.assertEqual(samples.read(self.disk, place, 512), samples.read(self.untouched, place, 512))
        self.assertEqual(self.journals(), [])

    def test_a_signal_while_applying_ends_it_with_nothing_written(self):
        tree = self.tree()
        with open(os.path.join(tree, "more"), "wb") as file:
            file.write(random.Random(23).randbytes(24 * MIB))
        wim = self.path("more.wim")
        images.run_tool("wimcapture", tree, wim, "One", "--compress=XPRESS")
        images.run_tool("wimappend", tree, wim, "Two")
        os.chmod(wim, 0o644)
        process = self.start(wim, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.applies(process)
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=60)
        self.assertEqual(process.returncode, 2, errors)
        self.assertIn("stopped", errors)
        self.assertIn("nothing was written", errors)
        self.assert_untouched()
        self.assertEqual(os.listdir(self.scratch), [])

    @staticmethod
    def open_files(pid):
        folder = f"/proc/{pid}/fd"
        try:
            return [os.readlink(os.path.join(folder, name)) for name in os.listdir(folder)]
        except OSError:
            return []


@unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
class AsRoot(WimTest):
    AS_ROOT = True

    def test_a_loop_device_and_the_mounted_volume(self):
        wim = self.wim()
        with tools.loop_device(self.disk, 512) as device:
            self.restore(wim, "--index", 2, "--no-backup", disk=device)
        path = self.assert_restored(wim, 2)
        if not os.path.exists("/dev/fuse") or volumes.missing("ntfs-3g"):
            self.skipTest("restored and compared, but not mounted: no ntfs-3g or no /dev/fuse on this machine")
        place = self.path("mounted")
        os.mkdir(place)
        images.run_tool("ntfs-3g", "-o", "ro,streams_interface=windows", path, place)
        try:
            with open(os.path.join(place, "text:second"), "rb") as file:
                self.assertEqual(file.read(), b"the second stream" * 1000)
            with open(os.path.join(place, "large"), "rb") as file:
                self.assertEqual(file.read(), random.Random(5).randbytes(6 * MIB))
            one, two = (os.stat(os.path.join(place, name)) for name in ("Windows/System32/one", "two"))
            self.assertEqual((one.st_ino, one.st_nlink), (two.st_ino, 2))
        finally:
            tools.unmount(place)


if __name__ == "__main__":
    images.main()
