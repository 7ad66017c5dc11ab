#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The examples, as an ordinary user on real images: what they print and write, compared with general tools."""

import atexit
import functools
import gzip
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from support import samples, volumes

EXAMPLES = pathlib.Path(os.environ["VORLIX_EXAMPLES"])
MISSING = volumes.missing("sgdisk", "sfdisk", "mkntfs", "ntfscp", "ntfsinfo", "mkfs.vfat", "fsck.vfat", "setpriv")
NTFS = samples.Slice(3, 36904, 16384, samples.BASIC_DATA, "BOOTCAMP")


@functools.lru_cache(maxsize=None)
def examples_for_user():
    """The folder of the examples; a copy with the library and its modules if an ordinary user cannot reach it."""
    started = subprocess.run([*volumes.user_prefix(), "env", EXAMPLES / "simulated_test"], capture_output=True, check=False)
    if started.returncode == 0:
        return EXAMPLES
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vorlix-examples-"))
    atexit.register(shutil.rmtree, folder)
    os.chmod(folder, 0o755)
    build = pathlib.Path(os.environ["VORLIX"]).parent
    for source in (*map(EXAMPLES.joinpath, ("show_disk", "restore_volume", "simulated_test")), *build.glob("libvorlix.so*")):
        shutil.copy(source, folder)
    for modules in build.glob("vorlix-*"):
        shutil.copytree(modules, folder / modules.name)
    return folder


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Examples(volumes.VolumeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.folder_of_examples = examples_for_user()

    def run_example(self, name, *arguments, expect=0):
        result = subprocess.run([*self.prefix(), f"LD_LIBRARY_PATH={self.folder_of_examples}",
                                 self.folder_of_examples / name, *arguments],
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return result

    def disk(self):
        path = self.path("mac.img")
        samples.make_disk(path, volumes.DISK_SECTORS, [volumes.EFI, volumes.APPLE, NTFS])
        return self.give(path)

    def test_show_disk_prints_what_sgdisk_and_sfdisk_print(self):
        disk = self.disk()
        samples.run("sgdisk", "--hybrid=2:3", disk)
        before = pathlib.Path(disk).read_bytes()
        output = self.run_example("show_disk", disk).stdout
        slots = re.findall(r"^ +\d +(?:yes|no) +([0-9A-F]{2}) +(\d+) +(\d+)$", output, re.MULTILINE)
        parts = json.loads(samples.run("sfdisk", "--json", "-Y", "dos", disk))["partitiontable"]["partitions"]
        self.assertEqual([(int(kind, 16), int(first), int(count)) for kind, first, count in slots if kind != "00"],
                         [(int(part["type"], 16), part["start"], part["size"]) for part in parts])
        entries = re.findall(r"^ *(\d+) +(\d+) +\d+  GPT part - (\S+)$", output, re.MULTILINE)
        expected = []
        for number in (1, 2, 3):
            text = samples.run("sgdisk", f"--info={number}", disk)
            expected.append(tuple(re.search(pattern, text).group(1) for pattern in
                                  (r"First sector: (\d+)", r"Last sector: (\d+)", r"GUID code: (\S+)")))
        self.assertEqual(entries, expected)
        self.assertEqual(pathlib.Path(disk).read_bytes(), before)

    def restored(self, image, source):
        """Restores to slice 3 of a disk. Returns the disk's bytes before and after, and the slice's."""
        disk = self.disk()
        before = pathlib.Path(disk).read_bytes()
        result = self.run_example("restore_volume", source, disk + "s3")
        self.assertIn(f"{os.path.getsize(image)} bytes, read back and compared\n", result.stdout)
        self.assertRegex(result.stderr, r"writing   +\d+ %")
        self.assertRegex(result.stderr, r"comparing +\d+ %\n$")
        after = pathlib.Path(disk).read_bytes()
        first, end = NTFS.first * 512, (NTFS.first + NTFS.sectors) * 512
        self.assertEqual(after[:first], before[:first], "what is before the slice")
        self.assertEqual(after[end:], before[end:], "what is behind the slice")
        return after[first:end]

    def test_a_packed_ntfs_volume_is_restored_with_the_place_where_it_is(self):
        image = self.path("win.img")
        samples.make_ntfs(image, NTFS.sectors, "WIN")
        content = self.path("content")
        pathlib.Path(content).write_bytes(os.urandom(1 << 20))
        samples.run("ntfscp", "-f", image, content, "file.bin")
        packed = self.path("win.img.gz")
        pathlib.Path(packed).write_bytes(gzip.compress(pathlib.Path(image).read_bytes(), 1))
        volume = self.restored(image, self.give(packed))
        expected = bytearray(pathlib.Path(image).read_bytes())
        for sector in (0, len(expected) - 512):
            expected[sector + 28:sector + 32] = NTFS.first.to_bytes(4, "little")
        self.assertEqual(volume, bytes(expected))
        copy = self.path("restored.img")
        pathlib.Path(copy).write_bytes(volume)
        self.assertIn("Volume Name: WIN", samples.run("ntfsinfo", "--mft", copy))

    def test_a_fat_volume_is_restored(self):
        image = volumes.make_fat(self.path("fat.img"), 12, "FATTY", NTFS.sectors * 512)
        volumes.put_tree(image, {"file.txt": b"content"})
        volume = self.restored(image, self.give(image))
        copy = self.path("restored.img")
        pathlib.Path(copy).write_bytes(volume)
        self.assertEqual(volume[28:32], NTFS.first.to_bytes(4, "little"))
        self.assertIn(f"{NTFS.first} hidden sectors", samples.run("fsck.vfat", "-n", "-v", copy))
        self.assertEqual(volumes.read_tree(copy), {"file.txt": b"content"})

    def test_nothing_is_written_where_the_volume_does_not_fit_or_is_none(self):
        disk = self.disk()
        before = pathlib.Path(disk).read_bytes()
        large = self.path("large.img")
        samples.make_ntfs(large, NTFS.sectors + 64, "LARGE")
        noise = self.path("noise.img")
        pathlib.Path(noise).write_bytes(b"no volume" * 1000)
        for source in (large, noise, self.path("absent.img")):
            result = self.run_example("restore_volume", self.give(source) if os.path.exists(source) else source, disk + "s3",
                                      expect=1)
            self.assertRegex(result.stderr, r"^restore_volume: .+\n$")
        self.assertEqual(pathlib.Path(disk).read_bytes(), before)

    def test_the_list_has_the_mounted_volumes_of_the_mount_table(self):
        output = self.run_example("restore_volume").stdout
        with open("/proc/self/mountinfo", encoding="utf-8") as table:
            mounted = {line.split()[4] for line in table}
        for line in output.splitlines():
            self.assertIn(line.split("\t")[2], mounted)

    def test_the_hosts_own_test_passes(self):
        self.assertEqual(self.run_example("simulated_test").stdout, "all tests passed\n")


if __name__ == "__main__":
    unittest.main()
