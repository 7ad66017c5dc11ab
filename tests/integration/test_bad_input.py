# SPDX-License-Identifier: Apache-2.0
"""Disks that are missing, damaged, hostile or in use: a clear refusal, nothing written, time and memory bounded.

If VORLIX_SANITIZED is set, the address space is not limited: sanitizers reserve terabytes of it.
"""

import contextlib
import fcntl
import json
import os
import socket
import struct
import subprocess
import sys

from support import gpt, images, tools

TIME_LIMIT = 20  # seconds; the commands take milliseconds
BLOCKS = 131072  # 64 MiB
WINDOWS = 3


def usual_entries():
    return [
        gpt.Entry(gpt.EFI_SYSTEM, 40, 20479),
        gpt.Entry(gpt.APFS, 20480, 40959),
        gpt.Entry(gpt.BASIC_DATA, 40960, 61439, name="Windows"),
        gpt.Entry(gpt.APPLE_BOOT, 61440, 65535),
    ]


class BadInput(images.CommandTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        reason = ""
        if images.SANITIZED:
            reason = "sanitizers reserve terabytes of address space"
        elif sys.platform != "linux":
            reason = "this system does not hold a process to its address-space limit"
        cls.memory_limit = None if reason else images.MEMORY_LIMIT
        if reason:
            print(f"no memory limit: {reason}", file=sys.stderr)

    def run_bounded(self, *arguments):
        if arguments[:1] == ("show",) and len(arguments) > 1:  # what one command reads of a disk, the listing of disks reads as well
            listing = self.vorlix_run("disks", arguments[1], "--json", timeout=TIME_LIMIT, memory_limit=self.memory_limit)
            self.assertIn(listing.returncode, (0, 2), listing.stderr)
            (disk,) = json.loads(listing.stdout)["disks"]
            self.assertEqual(listing.returncode == 2, bool(disk["error"] or disk["gptDamage"]), disk)
        return self.vorlix_run(*arguments, timeout=TIME_LIMIT, memory_limit=self.memory_limit)

    def image(self, name="disk.img", **changes):
        """A valid image except for `changes`, with an NTFS boot sector at entry 3."""
        table = gpt.Table(**{"blocks": BLOCKS, "entries": usual_entries(), **changes})
        path = table.write(self.path(name))
        entry = table.entries[WINDOWS - 1] if len(table.entries) >= WINDOWS else None
        if entry and entry.first < table.blocks:
            boot_sector = b"\xEB\x52\x90NTFS    ".ljust(510, b"\x11") + b"\x55\xAA"
            gpt.write_at(path, entry.first * table.block_size, boot_sector)
        return path

    def hybrid_arguments(self, disk, *options, boot_code=None):
        return ["hybrid", disk, "--boot-code", boot_code or self.boot_code, "--partition", WINDOWS, *options]

    def assert_error(self, result, *words):
        """The status is 2, and the last line of standard error is a message with all the words. Returns the message."""
        self.assertEqual(result.returncode, 2, result.stdout + result.stderr)
        message = result.stderr.splitlines()[-1]
        self.assertTrue(message.startswith("vorlix: "), result.stderr)
        for word in words:
            self.assertIn(str(word), message)
        return message

    def refuse_hybrid(self, disk, *words, names=None, options=(), boot_code=None, unchanged=()):
        """`hybrid` names `names` (by default the disk), says that nothing was written, and wrote nothing."""
        before = {path: images.snapshot(path) for path in unchanged}
        result = self.run_bounded(*self.hybrid_arguments(disk, *options, boot_code=boot_code))
        self.assert_error(result, names or disk, "nothing was written", *words)
        for path, state in before.items():
            self.assert_unchanged(path, state)

    def refuse_everywhere(self, disk, *words, unchanged=()):
        """Every command refuses the disk."""
        self.refuse_hybrid(disk, *words, unchanged=unchanged)
        before = {path: images.snapshot(path) for path in unchanged}
        for arguments in (["show", disk], ["show", disk, "--json"], ["check", disk, "--partition", WINDOWS]):
            result = self.run_bounded(*arguments)
            self.assert_error(result, disk, *words)
            self.assertEqual(result.stdout, "")
        for path, state in before.items():
            self.assert_unchanged(path, state)


class WhatIsNoDisk(BadInput):
    def test_a_disk_that_is_not_there(self):
        path = self.path("missing.img")
        self.refuse_everywhere(path, "No such file or directory")
        self.assertFalse(os.path.exists(path))

    def test_a_slice_that_is_not_there(self):
        path = self.image(entries=usual_entries()[:2] + [None] + usual_entries()[3:])
        self.refuse_everywhere(path + "s3", f"{path} has no slice 3", unchanged=[path])
        self.assertEqual(sorted(os.listdir(self.folder)), ["boot.bin", "disk.img"])

    def test_a_folder(self):
        self.refuse_everywhere(self.folder, "Is a directory")

    def test_a_pipe_and_a_socket_and_a_character_device(self):
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(self.path("socket"))
            for path in (pipe, self.path("socket"), "/dev/null", "/dev/zero"):
                with self.subTest(path):
                    self.refuse_everywhere(path)

    def test_an_empty_file(self):
        path = self.path("empty.img")
        with open(path, "wb"):
            pass
        self.refuse_everywhere(path, unchanged=[path])

    def test_files_shorter_than_a_sector(self):
        for size in (1, 100, 511):
            path = self.path(f"{size} bytes")
            with open(path, "wb") as file:
                file.write(b"\x55" * size)
            self.refuse_everywhere(path, size, unchanged=[path])

    def test_a_sector_without_a_gpt(self):
        for size in (512, 1024, 4096, 1 << 20):
            path = self.path(f"{size} bytes")
            with open(path, "wb") as file:
                file.write(gpt.protective_sector0(2048))
                file.truncate(size)
            self.refuse_hybrid(path, "GPT", unchanged=[path])
            self.assertIsNone(self.show(path)["gpt"])

    def test_a_path_of_any_length(self):
        path = self.image("a name of more than thirty characters " + "x" * 150)
        self.assertEqual(self.run_bounded(*self.hybrid_arguments(path)).returncode, 0)
        missing = self.path("y" * 255)
        self.refuse_hybrid(missing, "No such file or directory")
        self.refuse_hybrid(self.path("z" * 256), "too long")


class DamagedTables(BadInput):
    def test_a_table_that_is_cut_off(self):
        path = self.image()
        for size in (1024 - 1, 1024, 1024 + 128, 1024 + 2 * 128, 1024 + 2 * 128 + 40):
            with self.subTest(size=size):
                os.truncate(path, size)
                self.refuse_hybrid(path, names=path, unchanged=[path])
                result = self.run_bounded("show", path, "--json")
                self.assertEqual(result.returncode, 0, result.stderr)
                json.loads(result.stdout)
            path = self.image()

    def test_a_header_that_is_cut_off(self):
        path = self.image()
        for size in (512, 513, 520, 512 + 72, 512 + 84):
            os.truncate(path, size)
            self.refuse_hybrid(path, unchanged=[path])
            self.assertEqual(self.run_bounded("show", path, "--json").returncode, 0)
            path = self.image()

    def test_a_disk_that_ends_before_its_partitions(self):
        path = self.image()
        os.truncate(path, 34 * 512)
        self.refuse_hybrid(path, unchanged=[path], names=path + "s3")

    def test_a_header_that_claims_2_to_the_32_entries(self):
        path = self.image(claimed_count=0xFFFFFFFF)
        before = gpt.read_at(path, 0, 1024)
        shown = self.run_bounded("show", path, "--json")
        self.assertEqual(shown.returncode, 0, shown.stderr)
        table = json.loads(shown.stdout)["gpt"]
        self.assertEqual(table["entryCount"], 0xFFFFFFFF)
        self.assertEqual([entry["firstLBA"] for entry in table["entries"][:4]], [40, 20480, 40960, 61440])
        self.refuse_hybrid(path, "GPT damaged", "4294967295 entries", unchanged=[path])
        result = self.run_bounded(*self.hybrid_arguments(path, "--force"))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("4294967295 entries", result.stderr)
        self.assertEqual(gpt.read_at(path, 0, 512), gpt.sector0(self.BOOT_CODE, gpt.hybrid_slots(usual_entries(), WINDOWS)))
        self.assertEqual(gpt.read_at(path, 512, 512), before[512:])

    def test_a_header_that_claims_2_to_the_32_entries_of_a_sparse_terabyte(self):
        path = self.image(claimed_count=0xFFFFFFFF, blocks=1 << 31)
        self.assertEqual(self.run_bounded("show", path, "--json").returncode, 0)
        self.assertEqual(self.run_bounded(*self.hybrid_arguments(path, "--force")).returncode, 0)

    def test_a_header_that_claims_no_entries(self):
        path = self.image(claimed_count=0)
        self.refuse_hybrid(path, unchanged=[path])
        self.assertEqual(self.show(path)["gpt"]["entries"], [])

    def test_a_header_that_claims_fewer_entries_than_the_partition_number(self):
        for count in (1, 2):
            path = self.image(claimed_count=count)
            self.refuse_hybrid(path, WINDOWS, unchanged=[path])
            self.assertEqual(len(self.show(path)["gpt"]["entries"]), count)

    def test_entries_past_the_end_of_the_disk(self):
        for lba in (BLOCKS, BLOCKS + 1, 1 << 32, 1 << 55, (1 << 55) + 2, (1 << 63) - 1, 1 << 63, (1 << 64) - 1):
            with self.subTest(lba=lba):
                path = self.image(claimed_entry_lba=lba)
                self.refuse_hybrid(path, unchanged=[path])
                result = self.run_bounded("show", path, "--json")
                self.assertEqual(result.returncode, 0, result.stderr)
                shown = json.loads(result.stdout)["gpt"]
                self.assertEqual((shown["entryLBA"], shown["entries"]), (lba, []))

    def test_a_slice_past_the_end_of_the_disk(self):
        for first in (BLOCKS, BLOCKS + 2048, 1 << 31, (1 << 32) - 1):
            with self.subTest(first=first):
                entries = usual_entries()
                entries[WINDOWS - 1] = gpt.Entry(gpt.BASIC_DATA, first, first + 2047)
                path = self.image(entries=entries)
                self.refuse_hybrid(path, names=path + "s3", unchanged=[path])
                self.refuse_hybrid(path, "truncated", names=path + "s3", options=["--force"], unchanged=[path])
                self.assertEqual(os.path.getsize(path), BLOCKS * 512)

    def test_a_slice_that_ends_before_it_starts(self):
        entries = usual_entries()
        entries[WINDOWS - 1] = gpt.Entry(gpt.BASIC_DATA, 40960, 40959)
        path = self.image(entries=entries)
        self.refuse_hybrid(path, "before it begins", unchanged=[path])
        self.refuse_hybrid(path, names=path + "s3", options=["--force"], unchanged=[path])
        self.assertEqual(self.run_bounded("show", path, "--json").returncode, 0)

    def test_numbers_as_large_as_they_can_be(self):
        largest = (1 << 64) - 1
        entries = usual_entries()
        entries[1] = gpt.Entry(gpt.HFS_PLUS, 0, largest, attributes=largest)
        entries[3] = gpt.Entry(gpt.HFS_PLUS, largest, largest)
        path = self.image(entries=entries)
        result = self.run_bounded("show", path, "--json")
        self.assertEqual(result.returncode, 0, result.stderr)
        shown = json.loads(result.stdout)["gpt"]["entries"]
        self.assertEqual((shown[1]["lastLBA"], shown[1]["attributes"]), (largest, "F" * 16))
        self.assertEqual((shown[3]["firstLBA"], shown[3]["size"]), (largest, 512))
        self.assertEqual(self.run_bounded("show", path).returncode, 0)

    def test_names_that_are_no_text(self):
        names = {"\ud800": "�", "a\udfffb": "a�b", "\ud83d" * 36: "�" * 36, "x" * 36: "x" * 36, "\x1b[2J\n": "\x1b[2J\n"}
        for raw, shown in names.items():
            entries = usual_entries()
            entries[WINDOWS - 1].name = raw
            path = self.image(entries=entries)
            result = self.run_bounded("show", path, "--json")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(json.loads(result.stdout)["gpt"]["entries"][WINDOWS - 1]["name"], shown)

    def test_a_name_cannot_command_the_terminal(self):
        entries = usual_entries()
        entries[WINDOWS - 1].name = "\x1b[2J\x07\nDisk        forged"
        result = self.run_bounded("show", self.image(entries=entries))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("\x1b", result.stdout)
        self.assertNotIn("\x07", result.stdout)
        self.assertNotIn("\nDisk        forged", result.stdout)

    def test_the_name_of_a_file_cannot_command_the_terminal(self):
        """In every command, on success and on refusal."""
        name = "\x1b[2J\x07\nvorlix: forged\x9b"
        disk = self.image(name=name + ".img")
        volume = disk + "s3"
        file = self.path(name + ".saved")
        missing = self.path(name + " that is not there")
        commands = [
            ("show", disk),
            ("check", disk, "--partition", WINDOWS),
            (*self.hybrid_arguments(disk), "--dry-run"),
            self.hybrid_arguments(disk),
            ("identify", volume),
            ("vbr", "save", volume, file),
            ("vbr", "restore", file, volume, "--dry-run"),
            ("vbr", "restore", file, volume),
            ("boot-code", "save", disk, file + "2"),
            ("boot-type", disk),
            ("mount", volume),
            ("unmount", volume),
            ("efi", "mount", disk),
            ("bcd", disk, "--partition", WINDOWS, "--template", missing, "--mode", "standard"),
            ("legacy-boot", missing, "--bcd", missing),
            ("image-size", missing),
            ("archive", "show", missing),
            ("bootable", missing),
            ("windows", missing),
            ("startup-disk", missing, "--dry-run"),
            ("find", "--label", name),
            ("find", "--node", missing),
            ("run", "--", missing),
            ("show", disk, name),
            *(("show", missing), ("check", missing, "--partition", WINDOWS), self.hybrid_arguments(missing)),
        ]
        for command in commands:
            with self.subTest(command=command[:2]):
                result = self.vorlix_run(*command)
                self.assertIn(result.returncode, (0, 1, 2), result.stderr)
                shown = result.stdout + result.stderr
                self.assertNotRegex(shown, "[\x00-\x08\x0b-\x1f\x7f\x80-\x9f]")
                self.assertNotRegex(shown, "(?m)^vorlix: forged")
                if command[0] != "boot-type":  # one word
                    self.assertIn("forged", shown)

    def test_noise_behind_a_signature(self):
        noise = bytes((37 * i + i // 251) % 256 for i in range(64 * 512))
        for at in (512, 4096):
            path = self.path(f"noise{at}.img")
            with open(path, "wb") as file:
                file.write(noise[:at] + b"EFI PART" + noise[at + 8 :])
            result = self.run_bounded("show", path, "--json")
            self.assertEqual(result.returncode, 0, result.stderr)
            json.loads(result.stdout)
            self.refuse_hybrid(path, unchanged=[path])

    def test_a_volume_of_another_kind(self):
        path = self.image()
        gpt.write_at(path, 40960 * 512, b"NXSB" * 128)
        self.refuse_hybrid(path, names=path + "s3", unchanged=[path])

    def test_an_unused_entry(self):
        path = self.image(entries=usual_entries()[:2])
        self.refuse_hybrid(path, WINDOWS, unchanged=[path])

    def test_another_type_at_the_first_entry(self):
        for entry in (None, gpt.Entry(gpt.APFS, 40, 20479), gpt.Entry(gpt.UFS, 40, 20479)):
            path = self.image(entries=[entry] + usual_entries()[1:])
            self.refuse_hybrid(path, "EFI System", unchanged=[path])
            self.refuse_hybrid(path, "EFI System", options=["--guard"], unchanged=[path])


class BadFiles(BadInput):
    def test_boot_code_that_is_missing_or_a_folder_or_too_short(self):
        path = self.image()
        short = self.path("short.bin")
        for size in (0, 10, 439):
            with open(short, "wb") as file:
                file.write(b"\x90" * size)
            self.refuse_hybrid(path, size, names=short, boot_code=short, unchanged=[path])
        missing = self.path("missing.bin")
        self.refuse_hybrid(path, "No such file or directory", names=missing, boot_code=missing, unchanged=[path])
        self.refuse_hybrid(path, names=self.folder, boot_code=self.folder, unchanged=[path])

    def test_boot_code_that_never_ends(self):
        path = self.image()
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        for boot_code in (pipe, "/dev/zero", "/dev/null"):
            self.refuse_hybrid(path, names=boot_code, boot_code=boot_code, unchanged=[path])

    def test_a_volume_that_is_missing_or_a_folder_or_too_short(self):
        path = self.image()
        short = self.path("short volume")
        with open(short, "wb") as file:
            file.write(b"\xEB\x52\x90NTFS    " + bytes(50))
        for volume in (self.path("missing volume"), self.folder, short, path + "s9"):
            self.refuse_hybrid(path, names=volume, options=["--volume", volume], unchanged=[path])
        self.assertEqual(os.path.getsize(short), 61)

    def test_a_folder_for_the_backup_that_is_a_file(self):
        path = self.image()
        self.refuse_hybrid(path, names=self.boot_code, options=["--backup", self.boot_code], unchanged=[path, self.boot_code])

    def test_wrong_arguments(self):
        path = self.image()
        before = images.snapshot(path)
        for arguments in (
            [],
            ["erase", path],
            ["show"],
            ["show", path, path],
            ["show", path, "--unknown"],
            ["hybrid", path],
            ["hybrid", path, "--partition", "3", "--boot-code", ""],
            ["hybrid", path, "--partition", "3", "--boot-code", self.boot_code, "--keep-boot-code"],
            ["check", path, "--start", "never"],
            ["check", path, "--partition", "three"],
        ):
            result = self.run_bounded(*arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertNotEqual(result.stderr, "", arguments)
        self.assert_unchanged(path, before)


class OtherProcesses(BadInput):
    HOLDER = """
import fcntl, os, sys
descriptor = os.open(sys.argv[1], os.O_RDWR)
fcntl.flock(descriptor, int(sys.argv[2]) | fcntl.LOCK_NB)
print("held", flush=True)
sys.stdin.read()
"""

    @contextlib.contextmanager
    def lock_elsewhere(self, path, kind):
        """Another process holds a lock on the disk."""
        command = [sys.executable, "-c", self.HOLDER, path, str(int(kind))]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as holder:
            try:
                self.assertEqual(holder.stdout.readline(), "held\n")
                yield
            finally:
                holder.stdin.close()

    def test_a_shared_lock_is_no_obstacle(self):
        path = self.image()
        with self.lock_elsewhere(path, fcntl.LOCK_SH):
            result = self.run_bounded(*self.hybrid_arguments(path))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(gpt.read_at(path, 0, 512), gpt.sector0(self.BOOT_CODE, gpt.hybrid_slots(usual_entries(), WINDOWS)))
        self.assertEqual(gpt.read_at(path, 40960 * 512 + 28, 4), struct.pack("<I", 40960))

    def test_an_exclusive_lock_refuses_at_once(self):
        path = self.image()
        with self.lock_elsewhere(path, fcntl.LOCK_EX):
            self.refuse_hybrid(path, "locked by another process", unchanged=[path])
            self.refuse_hybrid(path, "locked by another process", options=["--guard"], unchanged=[path])

    def test_an_exclusive_lock_does_not_keep_from_reading(self):
        path = self.image()
        with self.lock_elsewhere(path, fcntl.LOCK_EX):
            self.assertEqual(self.run_bounded("show", path).returncode, 0)
            self.assertEqual(self.run_bounded("check", path, "--partition", WINDOWS).returncode, 1)
            self.assertEqual(self.run_bounded(*self.hybrid_arguments(path, "--dry-run")).returncode, 1)

    def test_the_lock_is_given_back(self):
        path = self.image()
        self.assertEqual(self.run_bounded(*self.hybrid_arguments(path)).returncode, 0)
        with open(path, "rb+") as file:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)


class Permissions(BadInput):
    def run_as_user(self, *arguments):
        """Runs the command line without root's right to override permissions."""
        prefix = ()
        if os.geteuid() == 0:
            user = str(images.NOBODY)
            prefix = (images.tool("setpriv"), "--reuid", user, "--regid", user, "--clear-groups", "--no-new-privs")
        os.chmod(self.folder, 0o755)
        command = self.path("vorlix")
        if not os.path.exists(command):
            images.sparse_copy(self.vorlix, command)
            os.chmod(command, 0o755)
        return subprocess.run(
            [*prefix, command, *map(str, arguments)],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=TIME_LIMIT,
        )

    def test_an_image_that_may_not_be_written(self):
        path = self.image()
        os.chmod(path, 0o444)
        before = images.snapshot(path)
        result = self.run_as_user(*self.hybrid_arguments(path))
        self.assert_error(result, path, "Permission denied", "nothing was written")
        self.assert_unchanged(path, before)

    def test_a_volume_that_may_not_be_written(self):
        path, volume = self.image(), self.path("volume.img")
        with open(volume, "wb") as file:
            file.write(gpt.read_at(path, 40960 * 512, 512).ljust(1 << 20, b"\0"))
        if os.geteuid() == 0:
            os.chown(path, images.NOBODY, images.NOBODY)
        os.chmod(volume, 0o444)
        before = images.snapshot(volume), images.snapshot(path)
        result = self.run_as_user(*self.hybrid_arguments(path, "--volume", volume))
        self.assert_error(result, volume, "Permission denied", "nothing was written")
        self.assert_unchanged(volume, before[0])
        self.assert_unchanged(path, before[1])

    def test_an_image_that_may_not_be_read(self):
        path = self.image()
        os.chmod(path, 0o000)
        for arguments in (["show", path], ["check", path, "--partition", WINDOWS], self.hybrid_arguments(path)):
            self.assert_error(self.run_as_user(*arguments), path, "Permission denied")

    def test_a_folder_for_the_backup_that_may_not_be_written(self):
        path, folder = self.image(), self.path("saved")
        os.mkdir(folder, 0o555)
        if os.geteuid() == 0:
            os.chown(path, images.NOBODY, images.NOBODY)
        before = images.snapshot(path)
        result = self.run_as_user(*self.hybrid_arguments(path, "--backup", folder))
        self.assert_error(result, folder, "nothing was written")
        self.assert_unchanged(path, before)

    def test_a_write_protected_device(self):
        path = self.image()
        with tools.loop_device(path, 512) as device:
            images.run_tool("blockdev", "--setro", device)
            result = self.run_bounded(*self.hybrid_arguments(device))
            images.run_tool("blockdev", "--setrw", device)
            self.assert_error(result, device, "nothing was written")
        self.assertEqual(gpt.read_at(path, 0, 512), gpt.protective_sector0(BLOCKS))


if __name__ == "__main__":
    images.main()
