# SPDX-License-Identifier: Apache-2.0
"""Boot code saved from volumes (`vorlix vbr`) and restored to others, and boot code of disks (`vorlix boot-code`)."""

import fcntl
import functools
import os
import random
import re
import subprocess
import unittest

from support import backups, bios, images, samples, tools, volumes
from support.samples import Slice

MISSING = volumes.missing("mkntfs", "ntfsfix", "ntfsinfo", "sgdisk", "blkid", "dd", "mkfs.vfat", "setpriv")
NO_BIOS = volumes.missing("qemu-system-x86_64") or ("" if samples.syslinux_mbr() else "syslinux's mbr.bin")

PARAMETERS = 84  # bytes of a boot area that a restore keeps
BOOT_AREA = 8192
SAVED = BOOT_AREA - PARAMETERS
BOOT_CODE = 446

SOURCE_SECTORS = 16384
TARGET_SECTORS = 40960


@functools.lru_cache(maxsize=None)
def ntfs_template(sectors):
    path = os.path.join(volumes.template_folder(), f"{sectors}.ntfs")
    samples.make_ntfs(path, sectors, "WINDOWS")
    return path


def boot_code(seed):
    """Bytes 84 to 8191 of a boot area: random bytes, with the signature of a boot sector."""
    content = bytearray(random.Random(seed).randbytes(SAVED))
    content[510 - PARAMETERS : 512 - PARAMETERS] = b"\x55\xAA"
    return bytes(content)


class RecordTest(volumes.VolumeTest):
    def ntfs(self, name, sectors):
        path = self.path(name)
        images.sparse_copy(ntfs_template(sectors), path)
        return self.give(path)

    def source(self, same_first_sector=False):
        """Makes an NTFS volume with unique boot code. Returns its path and the bytes to be saved."""
        path = self.ntfs("source.ntfs", SOURCE_SECTORS)
        content = boot_code(1)
        if same_first_sector:
            content = samples.read(path, PARAMETERS, 512 - PARAMETERS) + content[512 - PARAMETERS :]
        samples.write(path, PARAMETERS, content)
        return path, content

    def target(self, name="target.ntfs"):
        return self.ntfs(name, TARGET_SECTORS)

    def saved(self, content=None, name="saved.vbr"):
        """Makes a file of the user with a saved boot record."""
        return self.file(name, boot_code(7) if content is None else content)

    def assert_restored(self, path, before, content, offset=0):
        """Bytes 84 to 8191 at `offset` are the saved ones; every other byte is as in the copy `before`."""
        expected = self.path("expected")
        images.sparse_copy(before, expected)
        samples.write(expected, offset + PARAMETERS, content)
        self.assertEqual(samples.read(path, offset, PARAMETERS), samples.read(before, offset, PARAMETERS))
        self.assertEqual(images.content_hash(path), images.content_hash(expected))

    def copy_of(self, path):
        copy = path + ".before"
        images.sparse_copy(path, copy)
        return copy

    def refuse(self, path, arguments, *saying):
        """The command fails with this message and leaves the device unchanged."""
        before = images.snapshot(path)
        message = self.vorlix_refuses(*arguments, saying=saying)
        self.assert_unchanged(path, before)
        return message


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Save(RecordTest):
    def test_bytes_84_to_8191_of_a_volume(self):
        source, content = self.source()
        before = images.snapshot(source)
        file = self.path("saved.vbr")
        result = self.vorlix_ok("vbr", "save", source, file)
        self.assertIn(file, result.stdout)
        self.assertEqual(samples.read(file, 0, BOOT_AREA), content)
        images.run_tool("cmp", "-n", SAVED, file, source, 0, PARAMETERS)
        self.assert_unchanged(source, before)

    def test_a_slice_of_a_disk(self):
        source, content = self.source()
        disk = volumes.make_mac(self.path("mac.img"))
        samples.place(disk, source, volumes.WINDOWS.first)
        self.give(disk)
        before = images.snapshot(disk)
        file = self.path("saved.vbr")
        self.vorlix_ok("vbr", "save", disk + "s3", file)
        self.assertEqual(samples.read(file, 0, BOOT_AREA), content)
        self.assert_unchanged(disk, before)

    def test_other_kinds_of_volumes_and_the_smallest_device(self):
        fat = self.give(volumes.make_fat(self.path("fat.img")))
        smallest = self.file("smallest", random.Random(3).randbytes(BOOT_AREA))
        for device in (fat, smallest):
            with self.subTest(device=device):
                self.vorlix_ok("vbr", "save", device, device + ".vbr")
                self.assertEqual(samples.read(device + ".vbr", 0, BOOT_AREA), samples.read(device, PARAMETERS, SAVED))

    def test_a_file_that_exists_is_refused_and_stays(self):
        source, _ = self.source()
        kept = self.file("kept", b"something else")
        empty = self.file("empty", b"")
        elsewhere = self.path("elsewhere")
        link = self.path("link")
        os.symlink(elsewhere, link)
        for command in (["vbr", "save"], ["boot-code", "save"]):
            for file in (kept, empty, link, self.folder, source):
                with self.subTest(command=command, file=file):
                    self.refuse(source, [*command, source, file], file, "exists")
        self.assertEqual(samples.read(kept, 0, 100), b"something else")
        self.assertEqual(os.path.getsize(empty), 0)
        self.assertFalse(os.path.exists(elsewhere))

    def test_devices_that_are_too_short(self):
        for size in (0, 1, PARAMETERS, BOOT_AREA - 1):
            with self.subTest(size=size):
                device = self.file("device", b"\xEB" * size)
                file = self.path("saved.vbr")
                self.refuse(device, ["vbr", "save", device, file], device, "8192")
                self.assertFalse(os.path.exists(file))
        for size in (0, BOOT_CODE - 1):
            with self.subTest(size=size):
                device = self.file("device", b"\xEB" * size)
                file = self.path("saved.mbr")
                self.refuse(device, ["boot-code", "save", device, file], device, "446")
                self.assertFalse(os.path.exists(file))

    def test_devices_that_are_not_there(self):
        """If the library cannot open the disk of an MBR, it ends the process; the command reports the reason first."""
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        closed = self.file("closed", bytes(BOOT_AREA), 0)
        for device, reason in ((self.path("missing"), "No such file"), (disk + "s4", ""), (self.folder, ""),
                               (closed, "Permission denied")):
            for command in ("vbr", "boot-code"):
                with self.subTest(device=device, command=command):
                    file = self.path("saved")
                    message = self.vorlix_refuses(command, "save", device, file, saying=[f"vorlix: {device}", reason])
                    self.assertNotIn("library's log", message)
                    self.assertFalse(os.path.exists(file))

    def test_places_where_no_file_can_be_made(self):
        source, _ = self.source()
        closed = self.path("closed")
        os.mkdir(closed, 0o555)
        for file in (self.path("no folder/saved"), os.path.join(closed, "saved")):
            for command in ("vbr", "boot-code"):
                with self.subTest(file=file, command=command):
                    self.refuse(source, [command, "save", source, file])
                    self.assertFalse(os.path.exists(file))

    def test_a_volume_that_may_only_be_read(self):
        source, content = self.source()
        os.chmod(source, 0o444)
        self.vorlix_ok("vbr", "save", source, self.path("saved.vbr"))
        self.assertEqual(samples.read(self.path("saved.vbr"), 0, BOOT_AREA), content)
        self.vorlix_ok("boot-code", "save", source, self.path("saved.mbr"))

    def test_a_disk_is_no_volume_and_a_slice_is_no_disk(self):
        source, content = self.source()
        gpt_disk = volumes.make_mac(self.path("mac.img"))
        samples.place(gpt_disk, source, volumes.WINDOWS.first)
        self.give(gpt_disk)
        mbr_disk = self.file("mbr.img", bytes(16 << 20))
        images.run_tool("sfdisk", "-q", mbr_disk, stdin="label: dos\n2048,16384,7\n")
        for disk in (gpt_disk, mbr_disk):
            with self.subTest(disk=disk):
                file = disk + ".vbr"
                self.refuse(disk, ["vbr", "save", disk, file], disk, "partition table", "nothing was written")
                self.assertFalse(os.path.exists(file))
                self.vorlix_ok("vbr", "save", "--force", disk, file)
                self.assertEqual(samples.read(file, 0, BOOT_AREA), samples.read(disk, PARAMETERS, SAVED))
        file = self.path("saved.mbr")
        self.refuse(gpt_disk, ["boot-code", "save", gpt_disk + "s3", file], gpt_disk + "s3", "slice", "nothing was written")
        self.assertFalse(os.path.exists(file))
        self.vorlix_ok("boot-code", "save", "--force", gpt_disk + "s3", file)
        self.assertEqual(samples.read(file, 0, 512), samples.read(source, 0, BOOT_CODE))

    @unittest.skipIf(volumes.missing("prlimit"), "prlimit is not installed")
    def test_a_save_that_fails_leaves_nothing_in_the_way(self):
        source, content = self.source()
        for command, size in (("vbr", SAVED), ("boot-code", BOOT_CODE)):
            with self.subTest(command=command):
                file = self.path(command)
                limited = (*self.prefix(), "prlimit", "--fsize=100")
                result = self.vorlix_run(command, "save", source, file, prefix=limited)
                self.assertEqual(result.returncode, 2)
                self.assertIn(f"{file}: File too large; no file was created", result.stderr)
                self.assertEqual([name for name in os.listdir(self.folder) if command in name], [])
                self.vorlix_ok(command, "save", source, file)
                self.assertEqual(os.path.getsize(file), size)

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_a_save_that_is_cut_off(self):
        """After a kill at any call on the file, either the complete file exists or none, and the next save succeeds."""
        source, content = self.source()
        kills = 0
        for call, most in (("write", 3), ("fsync", 2), ("renameat2", 1), ("flock", 1)):
            for number in range(1, most + 1):
                with self.subTest(call=call, number=number):
                    file = self.path("saved.vbr")
                    trace = volumes.strace("-o", "/dev/null", "-e", f"inject={call}:signal=SIGKILL:when={number}")
                    result = self.vorlix_run("vbr", "save", source, file, prefix=(*self.prefix(), *trace))
                    kills += result.returncode != 0
                    if not os.path.exists(file):
                        self.vorlix_ok("vbr", "save", source, file)
                    self.assertEqual(samples.read(file, 0, BOOT_AREA), content)
                    os.remove(file)
                    self.assertEqual([name for name in os.listdir(self.folder) if "saved" in name], [])
        self.assertGreaterEqual(kills, 5)

    def test_a_file_is_on_the_medium_before_it_is_told(self):
        if volumes.missing("strace"):
            self.skipTest("strace is not installed")
        source, _ = self.source()
        log = self.file("calls", b"")
        trace = volumes.strace("-y", "-o", log, "-e", "trace=fsync,renameat2,write")
        self.vorlix_run("vbr", "save", source, self.path("saved.vbr"), prefix=(*self.prefix(), *trace))
        with open(log, encoding="utf-8", errors="replace") as lines:
            calls = [line for line in lines if "vorlix-new" in line or "Saved " in line or f"<{self.folder}>" in line]
        self.assertEqual([call.split("(")[0] for call in calls], ["write", "fsync", "renameat2", "fsync", "write"])

    def test_the_boot_code_of_a_disk(self):
        disk = volumes.make_mac(self.path("mac.img"))
        samples.write(disk, 0, random.Random(5).randbytes(BOOT_CODE))
        self.give(disk)
        before = images.snapshot(disk)
        file, other = self.path("saved.mbr"), self.path("by dd")
        result = self.vorlix_ok("boot-code", "save", disk, file)
        self.assertIn(file, result.stdout)
        images.run_tool("dd", "status=none", f"if={disk}", f"of={other}", "bs=446", "count=1")
        self.assertEqual(samples.read(file, 0, 512), samples.read(other, 0, 512))
        self.assertEqual(os.path.getsize(file), BOOT_CODE)
        self.assert_unchanged(disk, before)

    def test_a_disk_that_another_process_has_for_itself(self):
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        before = images.snapshot(disk)
        with open(disk, "rb") as holder:
            fcntl.flock(holder, fcntl.LOCK_EX)
            result = self.vorlix_run("boot-code", "save", disk, self.path("saved.mbr"))
            self.assertEqual(result.returncode, 2, result.stderr)
            self.assertIn(f"vorlix: {disk}", result.stderr)
            self.assertFalse(os.path.exists(self.path("saved.mbr")))
            fcntl.flock(holder, fcntl.LOCK_SH)
            self.vorlix_ok("boot-code", "save", disk, self.path("saved.mbr"))
        self.assert_unchanged(disk, before)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Restore(RecordTest):
    def assert_sound(self, path):
        """ntfsfix finds a mountable volume. It does not judge the second copy of the boot sector."""
        result = subprocess.run([images.tool("ntfsfix"), "--no-action", path], capture_output=True, text=True, timeout=60,
                                check=False)
        self.assertIn("Mounting volume... OK", result.stdout)
        self.assertIn("Processing of $MFT and $MFTMirr completed successfully", result.stdout)
        self.assertIn(result.stdout.split("Checking the alternate boot sector... ")[1].split()[0], ("OK", "BAD"))
        images.run_tool("ntfsinfo", "--mft", path)

    def test_onto_a_volume_of_another_size(self):
        """Also with an unchanged first sector, so that the second copy at the volume's end still matches it."""
        for same_first_sector in (True, False):
            with self.subTest(same_first_sector=same_first_sector):
                source, content = self.source(same_first_sector)
                file = self.path(f"saved{same_first_sector}.vbr")
                self.vorlix_ok("vbr", "save", source, file)
                target = self.target()
                self.assertNotEqual(samples.read(target, 0, PARAMETERS), samples.read(source, 0, PARAMETERS))
                before = self.copy_of(target)
                probed = tools.blkid_probe(target, 0, os.path.getsize(target))
                result = self.vorlix_ok("vbr", "restore", file, target)
                self.assertIn(target, result.stdout)
                self.assert_restored(target, before, content)
                self.assertEqual(tools.blkid_probe(target, 0, os.path.getsize(target)), probed)
                self.assert_sound(target)
                if same_first_sector:
                    images.run_tool("ntfsfix", "--no-action", target)

    def test_onto_a_slice_leaves_the_rest_of_the_disk(self):
        disk = volumes.make_mac(self.path("mac.img"))
        samples.place(disk, ntfs_template(SOURCE_SECTORS), volumes.WINDOWS.first)
        self.give(disk)
        before = self.copy_of(disk)
        content = boot_code(7)
        self.vorlix_ok("vbr", "restore", self.saved(), disk + "s3")
        self.assert_restored(disk, before, content, volumes.WINDOWS.first * 512)
        volume = self.path("volume")
        with open(volume, "wb") as copy:
            copy.write(samples.read(disk, volumes.WINDOWS.first * 512, SOURCE_SECTORS * 512))
        self.assert_sound(volume)

    def test_files_that_are_no_saved_boot_record(self):
        target = self.target()
        for size in (0, 446, SAVED - 1, SAVED + 1, BOOT_AREA, BOOT_AREA + 1):
            with self.subTest(size=size):
                file = self.saved(bytes(size))
                self.refuse(target, ["vbr", "restore", file, target], file)
        self.refuse(target, ["vbr", "restore", self.path("missing"), target], self.path("missing"), "No such file")
        self.refuse(target, ["vbr", "restore", self.folder, target], self.folder)
        closed = self.saved(name="closed")
        os.chmod(closed, 0)
        self.refuse(target, ["vbr", "restore", closed, target], closed, "Permission denied")

    def test_files_that_can_start_nothing(self):
        target = self.target()
        unsigned = bytearray(boot_code(7))
        unsigned[426] = 0
        no_code = bytes(426) + b"\x55\xAA" + random.Random(1).randbytes(SAVED - 428)
        for name, content, reason in (("zeros", bytes(SAVED), "55 AA"), ("unsigned", bytes(unsigned), "55 AA"),
                                      ("no code", no_code, "no code")):
            with self.subTest(name):
                file = self.saved(content, name)
                self.refuse(target, ["vbr", "restore", file, target], file, reason, "nothing was written")
                self.refuse(target, ["vbr", "restore", file, target, "--dry-run"], file, reason, "nothing was written")
                before = self.copy_of(target)
                result = self.vorlix_ok("vbr", "restore", file, target, "--force")
                self.assertIn(f"{file}: warning: ", result.stderr)
                self.assert_restored(target, before, content)
        made_by_tools = self.saved(samples.read(ntfs_template(SOURCE_SECTORS), PARAMETERS, SAVED), "mkntfs")
        self.vorlix_ok("vbr", "restore", made_by_tools, target)

    def test_the_copy_in_the_last_sector_is_told_to_be_none_any_more(self):
        target = self.target()
        last = os.path.getsize(target) - 512
        copy = samples.read(target, last, 512)
        self.assertEqual(copy, samples.read(target, 0, 512))
        self.assertIn("no copy any more", self.vorlix_ok("vbr", "restore", self.saved(), target).stdout)
        self.assertEqual(samples.read(target, last, 512), copy)
        self.assertNotIn("no copy any more", self.vorlix_ok("vbr", "restore", self.saved(), target).stdout)

    def test_volumes_that_are_not_ntfs(self):
        file = self.saved()
        fat = self.give(volumes.make_fat(self.path("fat.img"), 32))
        zeros = self.file("zeros", bytes(BOOT_AREA))
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        for device in (fat, zeros, disk, disk + "s1", disk + "s2"):
            with self.subTest(device=device):
                self.refuse(re.sub(r"s\d$", "", device), ["vbr", "restore", file, device], device, "NTFS")
        with self.subTest(device="exFAT"):
            exfat = self.file("exfat.img", bytes(4 << 20))
            images.run_tool("mkfs.exfat", exfat)
            self.refuse(exfat, ["vbr", "restore", file, exfat], exfat, "NTFS")

    def test_devices_that_are_too_short_or_not_there(self):
        file = self.saved()
        for size in (0, 512, BOOT_AREA - 1):
            with self.subTest(size=size):
                device = self.file("device", samples.read(ntfs_template(SOURCE_SECTORS), 0, size))
                self.refuse(device, ["vbr", "restore", file, device], device, "8192")
        missing = self.path("missing")
        self.vorlix_refuses("vbr", "restore", file, missing, saying=[missing, "No such file"])
        self.assertFalse(os.path.exists(missing))

    def test_a_volume_that_may_only_be_read(self):
        target = self.target()
        os.chmod(target, 0o444)
        self.refuse(target, ["vbr", "restore", self.saved(), target], target, "nothing was written")

    def test_a_dry_run_shows_the_bytes_and_writes_none(self):
        target = self.target()
        os.chmod(target, 0o444)
        before = images.snapshot(target)
        old = samples.read(target, 0, BOOT_AREA)
        content = bytearray(old[PARAMETERS:])
        content[0] ^= 0xFF  # offset 84
        content[1000] ^= 0xFF  # offset 1084
        content[-1] ^= 0xFF  # offset 8191
        file = self.saved(bytes(content))
        result = self.vorlix_run("vbr", "restore", file, target, "--dry-run", "--backup", self.path("saved"))
        self.assertEqual(result.returncode, 1, result.stderr)
        rows = re.findall(r"^ +([0-9A-F]+) +- ([0-9A-F ]+)\n +\+ ([0-9A-F ]+)$", result.stdout, re.MULTILINE)
        self.assertEqual([int(row[0], 16) for row in rows], [80, 1072, 8176])
        new = old[:PARAMETERS] + bytes(content)
        for row, gone, come in rows:
            at = int(row, 16)
            self.assertEqual(bytes.fromhex(gone), old[at : at + 16])
            self.assertEqual(bytes.fromhex(come), new[at : at + 16])
        same = self.saved(old[PARAMETERS:], "same.vbr")
        result = self.vorlix_run("vbr", "restore", same, target, "--dry-run")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("no byte would change", result.stdout)
        self.assert_unchanged(target, before)
        self.assertFalse(os.path.exists(self.path("saved")))

    def test_dd_restores_what_was_replaced(self):
        target = self.target()
        original = images.content_hash(target)
        area = samples.read(target, 0, BOOT_AREA)
        folder = self.path("saved")
        result = self.vorlix_ok("vbr", "restore", self.saved(), target, "--backup", folder)
        self.assertNotEqual(images.content_hash(target), original)
        (backup,) = backups.folders(folder)
        self.assertIn(f"vorlix undo {backup}\n", result.stdout)
        self.assertEqual(backups.old_bytes(backup), {("target.ntfs", 0): area})
        for command in backups.restore_by_hand(backup):
            images.run_tool(*command, f"of={target}")
        self.assertEqual(images.content_hash(target), original)

    def test_again_changes_nothing(self):
        target = self.target()
        file = self.saved()
        self.vorlix_ok("vbr", "restore", file, target)
        after = images.content_hash(target)
        self.vorlix_ok("vbr", "restore", file, target)
        self.assertEqual(images.content_hash(target), after)


@unittest.skipIf(MISSING or NO_BIOS, f"not installed: {MISSING or NO_BIOS}")
class Start(RecordTest):
    """Restored boot code runs on another disk, with the parameters of that disk's volume."""

    EFI = Slice(1, 40, 2048, samples.EFI_SYSTEM, "EFI System Partition")
    ORIGIN = Slice(3, 2088, 8192, samples.BASIC_DATA, "ORIGIN")
    GOAL = Slice(3, 70000, 16384, samples.BASIC_DATA, "GOAL")

    def disk(self, name, part):
        path = self.path(name)
        samples.make_disk(path, part.first + part.sectors + 64, (self.EFI, part))
        volume = self.path(part.name)
        samples.make_ntfs(volume, part.sectors, part.name)
        if part is self.ORIGIN:
            bios.make_system(volume, part.name)
        samples.place(path, volume, part.first)
        self.give(path)
        return path

    def test_restored_boot_code_starts_with_the_parameters_of_its_new_volume(self):
        origin, goal = self.disk("origin.img", self.ORIGIN), self.disk("goal.img", self.GOAL)
        file = self.path("saved.vbr")
        self.vorlix_ok("vbr", "save", origin + "s3", file)

        self.assertNotIn(b"volume ORIGIN", samples.read(goal, self.GOAL.first * 512, BOOT_AREA))
        self.vorlix_ok("vbr", "restore", file, goal + "s3")
        self.vorlix_ok("hybrid", goal, "--boot-code", samples.syslinux_mbr(), "--partition", 3)
        text, ended = bios.start(goal, self.folder)
        self.assertEqual(bios.started_volumes(text), [("ORIGIN", f"{self.GOAL.first:08X}")], text)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME)


@unittest.skipUnless(volumes.IS_ROOT, "loop devices and mounting NTFS need root")
@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class AsRoot(RecordTest):
    AS_ROOT = True

    def mounted(self, device):
        """Mounts a device by ntfs-3g and unmounts it at the end, even after a failure."""
        if not os.path.exists("/dev/fuse") or volumes.missing("ntfs-3g"):
            self.skipTest("no ntfs-3g or no /dev/fuse on this machine")
        place = self.path("mounted")
        os.mkdir(place)
        images.run_tool("ntfs-3g", device, place)
        self.addCleanup(subprocess.run, [images.tool("umount"), "--lazy", place], capture_output=True, check=False)
        return place

    def test_a_loop_device(self):
        source, content = self.source()
        target = self.target()
        before = self.copy_of(target)
        file = self.path("saved.vbr")
        with tools.loop_device(source, 512) as device:
            self.vorlix_ok("vbr", "save", device, file)
        with tools.loop_device(target, 512) as device:
            self.vorlix_ok("vbr", "restore", file, device)
        self.assert_restored(target, before, content)

    def test_a_mounted_volume_is_unmounted_first(self):
        target = self.target()
        with tools.loop_device(target, 512) as device:
            place = self.mounted(device)
            self.assertTrue(os.path.ismount(place))
            result = self.vorlix_run("vbr", "restore", self.saved(), device)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertFalse(os.path.ismount(place))
        self.assertEqual(samples.read(target, PARAMETERS, SAVED), boot_code(7))
        images.run_tool("ntfsinfo", "--mft", target)

    def test_a_mounted_volume_in_use_is_left_alone(self):
        target = self.target()
        with tools.loop_device(target, 512) as device:
            place = self.mounted(device)
            boot_area = samples.read(device, 0, BOOT_AREA)
            with open(os.path.join(place, "open"), "wb"):
                self.vorlix_refuses("vbr", "restore", self.saved(), device, saying=[device, "nothing was written"])
                self.assertTrue(os.path.ismount(place))
            self.assertEqual(samples.read(device, 0, BOOT_AREA), boot_area)
            tools.unmount(place)

    def test_a_write_protected_device(self):
        target = self.target()
        before = images.snapshot(target)
        with tools.loop_device(target, 512) as device:
            images.run_tool("blockdev", "--setro", device)
            try:
                self.vorlix_refuses("vbr", "restore", self.saved(), device, saying=[device, "nothing was written"])
                self.vorlix_ok("boot-code", "save", device, self.path("saved.mbr"))
            finally:  # otherwise the loop device would keep it for the next file
                images.run_tool("blockdev", "--setrw", device)
        self.assert_unchanged(target, before)


if __name__ == "__main__":
    images.main()
