# SPDX-License-Identifier: Apache-2.0
"""NTFS volumes of image files that nobody has mounted: `windows`, `bootable`, `check`, `backup` as an ordinary user.

mkntfs, ntfscp and ntfs_mkdir make the volumes. No byte of an image changes, and no folder is left.
"""

import json
import os
import signal
import struct
import subprocess
import tempfile
import time
import unittest

from support import hives, images, samples, tools, volumes
from test_windows import HIVE, SETUP_LOG, answer

MISSING = volumes.missing(*hives.NEEDED, "mkntfs", "ntfscp", "sgdisk", "setpriv")
WINDOWS = volumes.WINDOWS
SIZE = WINDOWS.sectors * 512


@unittest.skipUnless(os.uname().sysname == "Linux", "other systems mount every volume")
@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class UnmountedNtfs(volumes.VolumeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        hives.companion(cls.vorlix)

    def setUp(self):
        super().setUp()
        self.temporary = self.path("temporary")
        os.mkdir(self.temporary, 0o700)
        self.give(self.temporary)

    def prefix(self):
        return (*super().prefix(), "env", f"TMPDIR={self.temporary}")

    def hive(self, release="Windows 10"):
        with open(hives.make_software_hive(self.path("hive"), hives.RELEASES[release]), "rb") as file:
            return file.read()

    def disk(self, tree, name="mac.img"):
        """A disk whose Windows slice holds the tree. Returns the slice's name."""
        path = self.path(name)
        images.sparse_copy(volumes.partitioned_disk(), path)
        volume = volumes.make_ntfs(path + ".ntfs", SIZE, tree, start=WINDOWS.first)
        with open(volume, "rb") as file:
            tools.write_sparse(path, WINDOWS.first * 512, file.read())
        self.give(path)
        os.chmod(path, 0o444)
        return f"{path}s{WINDOWS.number}"

    def run_unchanged(self, *arguments):
        """Runs a command on a slice, its second argument, and expects that nothing changes and nothing is left."""
        path = arguments[1].removesuffix(f"s{WINDOWS.number}")
        before = images.snapshot(path)
        result = self.vorlix_run(*arguments)
        self.assert_unchanged(path, before)
        self.assert_nothing_mounted()
        self.assertEqual(os.listdir(self.temporary), [])
        return result

    def test_which_windows_it_holds(self):
        volume = self.disk({HIVE: self.hive(), SETUP_LOG: b"x Detected boot environment: EFI\r\n"})
        result = self.run_unchanged("windows", volume, "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)), (0, answer("Windows 10", "EFI")), result.stderr)

    def test_names_in_any_case(self):
        volume = self.disk({"WINDOWS/SYSTEM32/CONFIG/Software": self.hive("Windows 7"),
                            "WINDOWS/panther/SetupAct.log": b"Detected boot environment: BIOS\r\n"})
        result = self.run_unchanged("windows", volume, "--json")
        self.assertEqual((result.returncode, json.loads(result.stdout)), (0, answer("Windows 7", "BIOS")), result.stderr)

    def test_no_windows(self):
        for number, (tree, words) in enumerate((({"a": b"b"}, "no Windows\n"), ({"Windows": None}, "no Windows\n"),
                                                ({"SOURCES/boot.WIM": b"x"}, "no installed Windows, only its installer\n"))):
            with self.subTest(tree=tree):
                volume = self.disk(tree, f"{number}.img")
                result = self.run_unchanged("windows", volume)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (1, "", f"vorlix: {volume}: {words}"))

    def test_whether_it_can_be_started(self):
        for number, (tree, status) in enumerate((({"Windows/System32": None}, 0), ({"NTLDR": b"x"}, 0), ({"Windows": None}, 1),
                                                 ({"System/library": None}, 0), ({"other": b""}, 1))):
            with self.subTest(tree=tree):
                result = self.run_unchanged("bootable", self.disk(tree, f"{number}.img"))
                self.assertEqual((result.returncode, result.stderr), (status, ""))

    def test_a_damaged_volume_is_refused(self):
        volume = self.disk({"Windows/System32": None})
        path = volume.removesuffix(f"s{WINDOWS.number}")
        os.chmod(path, 0o644)
        start = WINDOWS.first * 512
        boot = samples.read(path, start, 512)
        table = start + struct.unpack_from("<Q", boot, 48)[0] * boot[13] * 512
        samples.write(path, table + 5 * 1024, bytes(1024))  # the record of the root folder
        for command in ("windows", "bootable"):
            result = self.run_unchanged(command, volume)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertIn("damaged NTFS", result.stderr)

    def test_without_the_companion(self):
        for prefix in ("/usr/local", "/usr"):
            installed = os.path.join(prefix, "libexec/vorlix-1/ntfs_reader")
            if os.path.exists(installed):
                self.skipTest(f"{installed} is installed")
        volume = self.disk({"Windows/System32": None})
        place = self.path("place")
        os.mkdir(place)
        self.vorlix = volumes.copy_command(self.vorlix, place)
        os.remove(os.path.join(place, "tools/bin/ntfs_reader"))
        result = self.run_unchanged("bootable", volume)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("not mounted, and ntfs_reader, which reads NTFS without that, is not installed", result.stderr)

    def test_what_a_killed_command_leaves_is_removed_by_the_next_one(self):
        volume = self.disk({HIVE: self.hive(), "Windows/System32/ntoskrnl.exe": b"x"})
        place = self.path("place")
        os.mkdir(place)
        whole, self.vorlix = self.vorlix, volumes.copy_command(self.vorlix, place)
        # In the place of the companion that reads the hive: a program that goes on until it is killed.
        started = os.path.join(self.temporary, "started")
        companion = os.path.join(place, "tools/bin/registry_lookup")
        with open(companion, "w", encoding="utf-8") as script:
            script.write(f"#!/bin/sh\necho $$ >'{started}.new'\nmv '{started}.new' '{started}'\nexec sleep 60\n")
        running = subprocess.Popen([*self.prefix(), self.vorlix, "windows", volume], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            self.wait_for(lambda: os.path.exists(started))
            with open(started, encoding="ascii") as file:
                lookup = int(file.read())
            (left,) = [name for name in os.listdir(self.temporary) if name != "started"]
            # A command beside it leaves the folder of one that runs, and removes only its own.
            self.vorlix = whole
            self.assertEqual(self.vorlix_run("bootable", volume).returncode, 0)
            self.assertEqual(sorted(os.listdir(self.temporary)), sorted(["started", left]))
        finally:
            running.kill()
            running.wait()
        os.kill(lookup, signal.SIGKILL)
        os.remove(started)
        self.assertEqual(os.listdir(self.temporary), [left])  # SIGKILL leaves it
        # Not what others have under such a name: a file, a link.
        kept = os.path.join(self.temporary, "kept")
        os.mkdir(kept)
        self.give(kept)
        os.symlink("kept", os.path.join(self.temporary, "vorlix-view-link"))
        with open(os.path.join(self.temporary, "vorlix-view-file"), "wb"):
            pass
        self.assertEqual(self.vorlix_run("bootable", volume).returncode, 0)
        self.assertEqual(sorted(os.listdir(self.temporary)), ["kept", "vorlix-view-file", "vorlix-view-link"])

    def wait_for(self, condition):
        end = time.monotonic() + images.TIME_LIMIT
        while not condition():
            self.assertLess(time.monotonic(), end, "never happened")
            time.sleep(0.01)

    def test_a_backup_needs_no_mount(self):
        volume = self.disk({"Windows/System32": None, "hiberfil.sys": b"hibr".ljust(8192, b"\0")})
        with tempfile.TemporaryDirectory(dir=self.folder) as folder:
            self.give(folder)
            result = self.run_unchanged("backup", volume, os.path.join(folder, "backup"))
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("a hibernated Windows will go on with what it had in memory", result.stdout + result.stderr)


@unittest.skipUnless(volumes.IS_ROOT, "only the super-user mounts NTFS")
class AsRoot(UnmountedNtfs):
    """The super-user's commands do not mount either."""

    AS_ROOT = True

    def test_a_read_only_mount_changes_nothing(self):
        if not os.path.exists("/dev/fuse") or volumes.missing("ntfs-3g"):
            self.skipTest("no /dev/fuse, or ntfs-3g is not installed")
        volume = self.disk({"Windows/System32": None})
        path = volume.removesuffix(f"s{WINDOWS.number}")
        before = images.snapshot(path)
        folder = self.mount(volume, "--read-only")
        self.addCleanup(self.vorlix_run, "unmount", volume)
        self.assertEqual(os.listdir(os.path.join(folder, "Windows")), ["System32"])
        with self.assertRaises(OSError):
            os.mkdir(os.path.join(folder, "new"))
        self.vorlix_ok("mount", volume, "--read-only")
        self.vorlix_refuses("mount", volume, "--read-write", saying=("read-only",))
        self.vorlix_refuses("mount", volume, "--read-write", "--read-only")
        self.vorlix_ok("unmount", volume)
        self.assert_unchanged(path, before)


if __name__ == "__main__":
    images.main()
