# SPDX-License-Identifier: Apache-2.0
"""`vorlix backup`: what it saves, read by zstd and bmaptool; what it refuses; what is left of it after a failure."""

import contextlib
import dataclasses
import fcntl
import glob
import hashlib
import json
import os
import plistlib
import random
import shutil
import signal
import struct
import subprocess
import time
import unittest

from support import allocation, images, samples, volumes
from support.allocation import MIB

HAS_FUSE = os.geteuid() == 0 and os.path.exists("/dev/fuse")
IS_ROOT = os.geteuid() == 0
MISSING = volumes.missing("zstd", "bmaptool", "mkntfs", "mkfs.vfat", "mkfs.exfat", "sgdisk", "mcopy", "partclone.ntfs")
WINDOWS = samples.Slice(3, 40960, 32 * 2048, samples.BASIC_DATA, "BOOTCAMP")
DISK_SECTORS = 110592
STORE = b"regf" + bytes(range(256)) * 40
LARGEST_MEMORY = 128 << 10  # KiB
ENDED_BY_ERROR = 2


@unittest.skipIf(MISSING, f"needs {MISSING}")
class BackupTest(images.CommandTest):
    def ntfs_with_files(self, name="windows", size=32 * MIB, largest=9 * MIB):
        path = self.path(name)
        allocation.make("ntfs", path, size)
        with open(self.path("content"), "wb") as file:
            file.write(random.Random(7).randbytes(largest) + bytes(MIB) + b"text " * 200_000)
        samples.run("ntfscp", "-f", path, self.path("content"), "file.bin")
        return path

    def mac(self, volume):
        """A disk image with an EFI System Partition that holds a store, and a volume as slice 3."""
        path = self.path("mac.img")
        windows = dataclasses.replace(WINDOWS, sectors=os.path.getsize(volume) // 512)
        samples.make_disk(path, DISK_SECTORS, [volumes.EFI, volumes.APPLE, windows])
        esp = self.path("esp")
        allocation.make("fat16", esp, volumes.EFI.sectors * 512)
        with open(self.path("BCD"), "wb") as file:
            file.write(STORE)
        environment = {**os.environ, "MTOOLS_SKIP_CHECK": "1"}
        for folder in ("::EFI", "::EFI/Microsoft", "::EFI/Microsoft/Boot"):
            subprocess.run(["mmd", "-i", esp, folder], env=environment, check=True, capture_output=True)
        subprocess.run(["mcopy", "-i", esp, self.path("BCD"), "::EFI/Microsoft/Boot/bcd"], env=environment, check=True,
                       capture_output=True)
        samples.place(path, esp, volumes.EFI.first)
        samples.place(path, volume, WINDOWS.first)
        samples.write(path, 0, bytes(range(200)))  # boot code
        return path

    def backup(self, volume, name="backup", *options):
        folder = self.path(name)
        self.vorlix_ok("backup", volume, folder, *options)
        self.assertFalse(os.path.exists(folder + ".new"))
        return folder

    def manifest(self, folder):
        with open(os.path.join(folder, "manifest.json"), "rb") as file:
            return json.load(file)

    def restored_by_zstd(self, folder):
        return subprocess.run(["zstd", "-dc", os.path.join(folder, "volume.img.zst")], check=True, capture_output=True).stdout

    def restored_by_bmaptool(self, folder):
        target = self.path("bmaptool.img")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(target)
        samples.run("bmaptool", "copy", os.path.join(folder, "volume.img.zst"), target)
        with open(target, "rb") as file:
            return file.read()

    def expected(self, volume, used):
        """The volume with zeros for all that is not used."""
        with open(volume, "rb") as file:
            content = file.read()
        result = bytearray(len(content))
        for offset, size in used:
            result[offset : offset + size] = content[offset : offset + size]
        return bytes(result)

    def assert_verified(self, folder, status, words=""):
        result = self.vorlix_run("backup", "--verify", folder)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        self.assertIn(words, result.stdout + result.stderr)

    def assert_nothing_left(self, name="backup"):
        self.assertEqual([entry for entry in os.listdir(self.folder_of_backups()) if entry.startswith(name)], [])

    def folder_of_backups(self):
        return os.path.dirname(self.path("backup"))


class Saved(BackupTest):
    def test_slice_of_a_mac(self):
        volume = self.ntfs_with_files()
        disk = self.mac(volume)
        before = images.snapshot(disk)
        folder = self.backup(disk + "s3")
        self.assert_unchanged(disk, before)

        size = os.path.getsize(volume)
        end = struct.unpack("<Q", samples.read(volume, 40, 8))[0] // 8 * 4096
        used = [*allocation.by_partclone("ntfs", volume, self.folder_of_backups()), (end, size - end)]
        wanted = self.expected(volume, used)
        self.assertEqual(self.restored_by_zstd(folder), wanted)
        self.assertEqual(self.restored_by_bmaptool(folder), wanted)

        manifest = self.manifest(folder)
        self.assertEqual(manifest["missing"], {})
        self.assertEqual((manifest["volume"]["size"], manifest["volume"]["fileSystem"]), (size, "ntfs"))
        self.assertFalse(manifest["saved"]["everything"])
        self.assertEqual(sorted(entry["file"] for entry in manifest["files"].values()),
                         sorted(name for name in os.listdir(folder) if name != "manifest.json"))
        for key, name, offset, count in (("bootCode", "boot-code.bin", 0, 446), ("partitionTable", "partition-table.bin", 0, 34 * 512),
                                         ("partitionTableCopy", "partition-table-copy.bin", (DISK_SECTORS - 33) * 512, 33 * 512)):
            with self.subTest(key):
                self.assertEqual(manifest["files"][key]["diskOffset"], offset)
                with open(os.path.join(folder, name), "rb") as file:
                    self.assertEqual(file.read(), samples.read(disk, offset, count))
        for name, offset, count in (("boot-record.bin", 0, 8192), ("boot-record-copy.bin", size - 512, 512)):
            with open(os.path.join(folder, name), "rb") as file:
                self.assertEqual(file.read(), samples.read(volume, offset, count))
        with open(os.path.join(folder, "BCD"), "rb") as file:
            self.assertEqual(file.read(), STORE)
        with open(os.path.join(folder, "identity.json"), encoding="utf-8") as file:
            shown = json.loads(self.vorlix_ok("identify", disk + "s3", "--json").stdout)
            self.assertEqual({"version": 1, **json.load(file)}, shown)
        with open(os.path.join(folder, "volume.archive"), "rb") as file:
            self.assertEqual(plistlib.load(file)["$archiver"], "NSKeyedArchiver")
        shown = json.loads(self.vorlix_ok("archive", "show", os.path.join(folder, "volume.archive"), "--json").stdout)["fields"]
        self.assertEqual((shown["device"], shown["drivePath"], shown["totalSize"]), (disk + "s3", disk, str(size)))
        self.assert_verified(folder, 0, "Whole")

    def test_independent_frames_with_sizes_and_checksums(self):
        volume = self.ntfs_with_files(size=128 * MIB)
        folder = self.backup(volume)
        listed = samples.run("zstd", "-lv", os.path.join(folder, "volume.img.zst"))
        self.assertIn("# Zstandard Frames: 32", listed)
        self.assertIn("# Skippable Frames: 1", listed)
        self.assertIn(f"Decompressed Size: {128} MiB ({128 * MIB} B)", listed)
        self.assertIn("Check: XXH64", listed)
        # The table in the last frame leads to each frame.
        with open(os.path.join(folder, "volume.img.zst"), "rb") as file:
            image = file.read()
        count, descriptor, magic = struct.unpack("<IBI", image[-9:])
        self.assertEqual((count, descriptor, magic), (32, 0, 0x8F92EAB1))
        offset = 0
        for number, (packed, size) in enumerate(struct.iter_unpack("<II", image[-9 - count * 8 : -9])):
            if number == 1:
                block = subprocess.run(["zstd", "-dc"], input=image[offset : offset + packed], check=True,
                                       capture_output=True).stdout
                self.assertEqual(block, self.restored_by_zstd(folder)[4 * MIB : 8 * MIB])
            self.assertEqual(size, 4 * MIB)
            offset += packed

    @unittest.skipUnless(HAS_FUSE, "mounting needs root and FUSE")
    def test_mounted_trees_are_equal(self):
        for kind, size in (("ntfs", 32 * MIB), ("exfat", 32 * MIB)):
            with self.subTest(kind):
                volume = self.path(kind)
                allocation.make(kind, volume, size)
                with allocation.mounted(kind, volume, self.path("mount")) as mount:
                    allocation.write_files(mount, 40, kind)
                folder = self.backup(volume, "backup-" + kind)
                self.assertFalse(self.manifest(folder)["saved"]["everything"])
                self.assertEqual(self.restored_by_bmaptool(folder), self.restored_by_zstd(folder))
                with allocation.mounted(kind, volume, self.path("one"), "ro") as one, \
                        allocation.mounted(kind, self.path("bmaptool.img"), self.path("two"), "ro") as two:
                    samples.run("diff", "-r", one, two)
                    self.assertGreater(len(os.listdir(os.path.join(two, "Folder ä"))), 10)

    def test_fat(self):
        for kind, size, options in (("fat12", 3 * MIB, ()), ("fat16", 17 * MIB, ()), ("fat32", 40 * MIB, ("-s", "1"))):
            with self.subTest(kind):
                volume = self.path(kind)
                allocation.make(kind, volume, size, *options)
                allocation.fill_with_mtools(volume, self.folder_of_backups(), 20, kind)
                folder = self.backup(volume, "backup-" + kind)
                self.assertEqual(self.manifest(folder)["volume"]["fileSystem"], kind)
                self.assertEqual(self.restored_by_bmaptool(folder), self.restored_by_zstd(folder))
                with open(self.path("restored"), "wb") as file:
                    file.write(self.restored_by_zstd(folder))
                samples.run("fsck.fat", "-n", self.path("restored"))
                one, two = (subprocess.run(["mdir", "-a", "-/", "-i", image, "::"], capture_output=True, check=True).stdout
                            for image in (volume, self.path("restored")))
                self.assertEqual(one, two)
                self.assert_verified(folder, 0)

    def test_everything_for_a_doubt(self):
        volume = self.ntfs_with_files()
        with open(volume, "r+b") as file:
            file.seek(10 * MIB)
            self.assertEqual(file.read(MIB), bytes(MIB), "in use")
            file.seek(10 * MIB)
            file.write(b"removed file's content")
        record = struct.unpack("<Q", samples.read(volume, 48, 8))[0] * 4096 + 3 * 1024
        flags = samples.read(volume, record, 1024).index(b"\x03\x01\x00\x00", 0x100) + 2
        samples.write(volume, record + flags, b"\x01")
        folder = self.path("backup")
        self.assertIn("all of it, free space too: the volume was not unmounted cleanly",
                      self.vorlix_ok("backup", volume, folder).stdout)
        with open(volume, "rb") as file:
            self.assertEqual(self.restored_by_zstd(folder), file.read())
        saved = self.manifest(folder)["saved"]
        self.assertEqual((saved["everything"], saved["reason"]), (True, "the volume was not unmounted cleanly"))
        self.assert_verified(folder, 0)

    def test_sizes_that_are_no_whole_frames_or_blocks(self):
        for size in (1, 511, 513, 4 * MIB, 4 * MIB + 1, 9 * MIB + 4097):
            with self.subTest(size=size):
                volume = self.path(f"odd-{size}")
                content = random.Random(size).randbytes(size)
                with open(volume, "wb") as file:
                    file.write(content)
                folder = self.backup(volume, f"backup-{size}")
                self.assertEqual(self.restored_by_zstd(folder), content)
                self.assertEqual(self.restored_by_bmaptool(folder), content)
                self.assert_verified(folder, 0)

    def test_dry_run_and_progress_as_json(self):
        volume = self.ntfs_with_files()
        folder = self.path("backup")
        self.assertIn("in use", self.vorlix_ok("backup", "--dry-run", volume, folder).stdout)
        self.assert_nothing_left()
        lines = [json.loads(line) for line in self.vorlix_ok("backup", "--progress", "json", volume, folder).stdout.splitlines()]
        self.assertEqual([lines[0]["phase"], lines[-1]["phase"]], ["plan", "saved"])
        self.assertEqual((lines[-2]["phase"], lines[-2]["done"]), ("saving", lines[0]["bytes"]))
        self.assertEqual(lines[-2]["total"], lines[0]["bytes"])
        lines = self.vorlix_ok("backup", "--verify", folder, "--progress", "json").stdout.splitlines()
        self.assertEqual(json.loads(lines[-1]), {"version": 1, "phase": "verified", "whole": True, "findings": []})

    @unittest.skipIf(images.SANITIZED, "sanitizers take memory of their own")
    def test_memory_stays_below_128_mib(self):
        volume = self.path("large")
        block = random.Random(1).randbytes(8 * MIB)
        with open(volume, "wb") as file:
            for _ in range(24):
                file.write(block)
        process = subprocess.Popen([self.vorlix, "backup", volume, self.path("backup")], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        peak = 0  # the kernel's own mark: what wait4() tells begins with the memory of this process
        while process.poll() is None:
            with contextlib.suppress(OSError, IndexError), open(f"/proc/{process.pid}/status", encoding="ascii") as file:
                peak = max(peak, int(file.read().split("VmHWM:")[1].split()[0]))
            time.sleep(0.01)
        self.assertEqual(process.returncode, 0)
        self.assertGreater(peak, 16 << 10)
        self.assertLess(peak, LARGEST_MEMORY)
        print(f"    at most {peak >> 10} MiB")

    def test_other_commands_do_not_load_what_packs(self):
        traced = samples.run("ldd", self.vorlix)
        self.assertNotIn("libzstd", traced)
        self.assertNotIn("libcrypto", traced)


class Refused(BackupTest):
    def assert_refused(self, words, *arguments):
        result = self.vorlix_run("backup", *arguments)
        self.assertEqual(result.returncode, ENDED_BY_ERROR, result.stdout)
        self.assertIn(words, result.stderr)

    def test_names(self):
        volume = self.ntfs_with_files()
        os.mkdir(self.path("backup"))
        self.assert_refused("already exists", volume, self.path("backup"))
        self.assertEqual(os.listdir(self.path("backup")), [])
        os.rmdir(self.path("backup"))
        os.symlink("/nowhere", self.path("backup"))
        self.assert_refused("already exists", volume, self.path("backup"))
        os.unlink(self.path("backup"))
        self.assert_refused("no such device", self.path("absent"), self.path("backup"))
        self.assert_refused("No such file", volume, self.path("absent/backup"))
        self.assert_refused("name the slice", self.mac(volume), self.path("backup"))
        self.assert_refused("", self.path("mac.imgs7"), self.path("backup"))
        self.assert_refused("required", volume)
        self.assert_nothing_left()

    def test_truncated_volume(self):
        """Half of a volume is no backup of it."""
        volume = self.ntfs_with_files()
        os.truncate(volume, 20 * MIB)
        self.assert_refused("larger than the volume: it is truncated", volume, self.path("backup"))
        self.assert_refused("it is truncated", volume, self.path("backup"), "--dry-run")
        self.assert_nothing_left()
        self.backup(volume, "backup", "--force")

    def test_leftovers(self):
        volume = self.ntfs_with_files()
        leftover = self.path("backup") + ".new"
        os.mkdir(leftover)
        with open(os.path.join(leftover, "somebody's file"), "wb"):
            pass
        self.assert_refused("stands in the way", volume, self.path("backup"))
        self.assertEqual(os.listdir(leftover), ["somebody's file"])
        os.rename(os.path.join(leftover, "somebody's file"), os.path.join(leftover, "volume.img.zst"))
        with open(os.path.join(leftover, "volume.img.zst"), "r+b") as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            self.assert_refused("another process writes this backup", volume, self.path("backup"))
        self.backup(volume)

    def test_locked_disk(self):
        volume = self.ntfs_with_files()
        with open(volume, "r+b") as file:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            self.assert_refused("locked by another process", volume, self.path("backup"))
            fcntl.flock(file, fcntl.LOCK_SH)
            self.backup(volume)

    @unittest.skipUnless(HAS_FUSE, "mounting needs root and FUSE")
    def test_mounted_volume(self):
        volume = self.ntfs_with_files()
        with allocation.mounted("ntfs", volume, self.path("mount")):
            self.assert_refused("mounted for writing", volume, self.path("backup"))
            self.assert_nothing_left()
            result = self.vorlix_run("backup", "--force", volume, self.path("forced"))
            self.assertEqual((result.returncode, "mounted for writing" in result.stderr), (0, True))
            self.assertIn("mounted for writing", self.manifest(self.path("forced"))["saved"]["warnings"][0])
        with allocation.mounted("ntfs", volume, self.path("mount"), "ro"):
            self.backup(volume)


class Interrupted(BackupTest):
    def start(self, volume, name="backup"):
        return subprocess.Popen([self.vorlix, "backup", volume, self.path(name)], stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE)

    def test_killed_at_any_moment(self):
        volume = self.ntfs_with_files()
        started = time.monotonic()
        self.backup(volume, "whole")
        duration = time.monotonic() - started
        moments = random.Random(3)
        killed = 0
        for _ in range(25):
            process = self.start(volume)
            time.sleep(moments.random() * duration)
            process.kill()
            process.communicate()
            if os.path.exists(self.path("backup")):  # then it is whole
                self.assert_verified(self.path("backup"), 0)
                shutil.rmtree(self.path("backup"))
            else:
                killed += 1
        self.assertGreater(killed, 3)
        self.backup(volume)
        self.assert_verified(self.path("backup"), 0)

    def test_ended_by_a_signal(self):
        volume = self.path("large")
        block = random.Random(1).randbytes(8 * MIB)  # two frames, which know nothing of others
        with open(volume, "wb") as file:
            for _ in range(30):
                file.write(block)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.start(volume)
            while not glob.glob(self.path("backup") + ".new/volume.img.zst"):
                time.sleep(0.005)
            process.send_signal(number)
            _, errors = process.communicate()
            self.assertEqual(process.returncode, ENDED_BY_ERROR)
            self.assertIn(b"cancelled; nothing was saved", errors)
            self.assert_nothing_left()

    @unittest.skipUnless(IS_ROOT, "mounting needs root")
    def test_no_room(self):
        volume = self.ntfs_with_files()
        small = self.path("small")
        os.mkdir(small)
        for room in ("4k", "1m", "9m"):
            with self.subTest(room=room):
                samples.run("mount", "-t", "tmpfs", "-o", f"size={room}", "tmpfs", small)
                try:
                    result = self.vorlix_run("backup", volume, os.path.join(small, "backup"))
                    self.assertEqual(result.returncode, ENDED_BY_ERROR)
                    self.assertIn("No space left", result.stderr)
                    self.assertIn("nothing was saved", result.stderr)
                    self.assertEqual(os.listdir(small), [])
                finally:
                    samples.run("umount", small)

    @unittest.skipUnless(samples.tool("strace"), "needs strace")
    @unittest.skipIf(images.SANITIZED, "the leak detector does not work under strace")
    def test_calls_that_fail(self):
        volume = self.ntfs_with_files(size=32 * MIB)
        cases = [("mkdir", "EACCES", 1), *(("fsync", "EIO", number) for number in range(1, 14)),
                 *(("pwrite64", "ENOSPC", number) for number in (1, 2, 3, 5, 8, 9, 10, 11, 12)), ("renameat2", "EIO", 1)]
        failed = named = 0
        for call, error, number in cases:
            with self.subTest(call=call, number=number):
                command = volumes.strace("-f", "-o", "/dev/null", "-e", f"trace={call}", "-e",
                                         f"inject={call}:error={error}:when={number}")
                result = self.vorlix_run("backup", volume, self.path("backup"), prefix=command)
                if result.returncode == 0:  # fewer calls than that
                    self.assert_verified(self.path("backup"), 0)
                    shutil.rmtree(self.path("backup"))
                    continue
                failed += 1
                self.assertEqual(result.returncode, ENDED_BY_ERROR, result.stderr)
                if os.path.exists(self.path("backup")):  # it had its name already, and the sync of the folder above failed
                    self.assertIn("is there and whole, but may not be on the medium", result.stderr)
                    self.assert_verified(self.path("backup"), 0)
                    shutil.rmtree(self.path("backup"))
                    named += 1
                else:
                    self.assertIn("nothing was saved", result.stderr)
                self.assert_nothing_left()
        self.assertGreater(failed, 15)
        self.assertGreater(named, 0)

    @unittest.skipUnless(samples.tool("strace"), "needs strace")
    @unittest.skipIf(images.SANITIZED, "the leak detector does not work under strace")
    def test_volume_that_cannot_be_read(self):
        volume = self.ntfs_with_files(size=32 * MIB)
        command = volumes.strace("-f", "-P", volume, "-o", "/dev/null", "-e", "trace=pread64", "-e",
                                 "inject=pread64:error=EIO:when=40+")
        result = self.vorlix_run("backup", volume, self.path("backup"), prefix=command)
        if result.returncode == 0:
            self.skipTest("the volume is read with fewer calls")
        self.assertEqual(result.returncode, ENDED_BY_ERROR)
        self.assertIn("Input/output error", result.stderr)
        self.assert_nothing_left()


class Verified(BackupTest):
    def test_every_file_cut_changed_or_gone(self):
        folder = self.backup(self.mac(self.ntfs_with_files(size=12 * MIB, largest=MIB)) + "s3")  # three frames
        choice = random.Random(11)
        for name in sorted(os.listdir(folder)):
            path = os.path.join(folder, name)
            with open(path, "rb") as file:
                intact = file.read()
            places = {0, len(intact) - 1, *(choice.randrange(len(intact)) for _ in range(3 if images.SANITIZED else 12))}
            changes = [intact[:place] + bytes([intact[place] ^ 1 << choice.randrange(8)]) + intact[place + 1 :]
                       for place in places]
            changes += [intact[:place] for place in (0, 1, len(intact) // 2, len(intact) - 1)] + [intact + b"\0"]
            for number, content in enumerate(changes):
                with self.subTest(file=name, change=number):
                    with open(path, "wb") as file:
                        file.write(content)
                    self.assert_verified(folder, 1, name)
            os.unlink(path)
            self.assert_verified(folder, 2 if name == "manifest.json" else 1)
            with open(path, "wb") as file:
                file.write(intact)
        self.assert_verified(folder, 0)

    def test_consistent_forgery_of_the_image_alone(self):
        """A frame packed anew is found by the block map, even if the manifest's sums were right."""
        folder = self.backup(self.ntfs_with_files())
        image = os.path.join(folder, "volume.img.zst")
        with open(image, "rb") as file:
            content = file.read()
        table = 9 + 8 * os.path.getsize(self.path("windows")) // (4 * MIB)  # sizes of two words for each frame, and the end
        first = struct.unpack("<I", content[-table:][:4])[0]
        block = bytearray(self.restored_by_zstd(folder)[: 4 * MIB])
        block[5000] ^= 1
        frame = subprocess.run(["zstd", "-3", "-c", "--check"], input=bytes(block), check=True, capture_output=True).stdout
        forged = bytearray(frame + content[first:])
        struct.pack_into("<I", forged, len(forged) - table, len(frame))
        with open(image, "wb") as file:
            file.write(forged)
        path = os.path.join(folder, "manifest.json")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        manifest = json.loads(text)
        for old, new in ((manifest["files"]["image"]["sha256"], hashlib.sha256(forged).hexdigest()),
                         (f'"size": {len(content)},', f'"size": {len(forged)},'), (manifest["sha256"], "0" * 64)):
            text = text.replace(old, new)
        text = text.replace("0" * 64, hashlib.sha256(text.encode()).hexdigest())
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        self.assert_verified(folder, 1, "frame 0 has another content than the block map says")

    def test_what_is_no_backup(self):
        self.assert_verified(self.path("absent"), 2, "no such folder")
        os.mkdir(self.path("empty"))
        self.assert_verified(self.path("empty"), 2, "is no backup")
        for text in ("", "{}", "[]", '{"format": "vorlix-backup", "version": 2}', '{"format": "vorlix-backup", "version": 1}'):
            with open(self.path("empty/manifest.json"), "w", encoding="ascii") as file:
                file.write(text)
            self.assert_verified(self.path("empty"), 1, "manifest.json")


if __name__ == "__main__":
    images.main()
