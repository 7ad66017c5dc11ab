# SPDX-License-Identifier: Apache-2.0
"""`windows` on real volumes: registry_lookup reads the version from hives that hivex's shell wrote."""

import json
import os
import shutil

from bed.guest import NOTES, OLD_PC, PC, VORLIX, GuestTest, node, read_text, write_text
from support import hives, samples

WINDOWS, INSTALLER, EXFAT = f"{PC}3", f"{PC}5", f"{OLD_PC}2"
PROGRAM = os.path.join(os.path.dirname(VORLIX), "tools", "bin", "registry_lookup")

# The line that Windows Setup writes, between other lines.
SETUP_LOG = ("2024-05-04 10:00:00, Info       IBS    A line before\r\n"
             "2024-05-04 10:00:01, Info       IBS    Callback_BootEnvironmentDetect: Detected boot environment: EFI\r\n"
             "2024-05-04 10:00:02, Info       IBS    A line after\r\n")


def find(folder, *names):
    """Finds a path below a folder, with names in any case."""
    for name in names:
        (entry,) = [entry for entry in os.listdir(folder) if entry.lower() == name.lower()]
        folder = os.path.join(folder, entry)
    return folder


class WindowsTest(GuestTest):
    @classmethod
    def setUpClass(cls):
        if not os.path.exists(PROGRAM):
            raise RuntimeError(f"{PROGRAM} is not built")

    def install(self, point, release, windows, system32):
        if "noHives" in NOTES:
            self.skipTest(NOTES["noHives"])
        config = os.path.join(point, windows, system32, "config")
        if not os.path.exists(config):
            self.assertNotIn("windows", [name.lower() for name in os.listdir(point)])
            self.addCleanup(shutil.rmtree, os.path.join(point, windows))
            os.makedirs(config)
        shutil.copy(NOTES["hives"][release], os.path.join(config, "SOFTWARE"))

    def windows(self, volume):
        return json.loads(self.vorlix("windows", volume, "--json").stdout)

    def expected(self, release, product, started_by=None):
        """The product has the library's name for it; the rest comes from the hive."""
        values = hives.RELEASES[release]
        return {"version": 1, "product": product, "edition": values["EditionID"], "currentBuildNumber": values["CurrentBuildNumber"],
                "buildLabEx": values["BuildLabEx"], "bootenv": started_by}

    def test_folders_in_upper_case_on_ntfs(self):
        point = self.mount_at(WINDOWS, "Größe mit Leerzeichen")
        self.install(point, "Windows 11", "WINDOWS", "SYSTEM32")
        for volume in (point, node(WINDOWS), f"{PC}s3"):
            with self.subTest(volume=volume):
                self.assertEqual(self.windows(volume), self.expected("Windows 11", "Windows 10"))

    def test_each_release_on_exfat(self):
        point = self.mount_at(EXFAT, "exfat")
        for release, product in (("Windows 7", "Windows 7"), ("Windows 8.1", "Windows 8+"),
                                 ("Windows 10", "Windows 10")):
            with self.subTest(release=release):
                self.install(point, release, "Windows", "System32")
                self.assertEqual(self.windows(point), self.expected(release, product))

    def test_how_set_up_was_started(self):
        point = self.mount_at(EXFAT, "exfat")
        self.install(point, "Windows 10", "Windows", "System32")
        os.mkdir(os.path.join(point, "Windows", "Panther"))
        with open(os.path.join(point, "Windows", "Panther", "setupact.log"), "wb") as log:
            log.write(SETUP_LOG.encode())
        self.assertEqual(self.windows(point), self.expected("Windows 10", "Windows 10", "EFI"))
        self.assertRegex(self.vorlix("windows", point).stdout, r"(?m)^Started by +EFI$")

    def test_a_volume_that_cannot_be_written_is_enough(self):
        point = self.mount_at(WINDOWS, "windows")
        self.install(point, "Windows 10", "Windows", "System32")
        locked = self.path("locked")
        os.mkdir(locked)
        samples.run("mount", "--bind", point, locked)
        samples.run("mount", "-o", "remount,bind,ro", locked)
        self.assertEqual(self.windows(locked), self.expected("Windows 10", "Windows 10"))

    def test_an_installer_is_no_installed_windows(self):
        point = self.mount_at(INSTALLER, "installer")
        os.makedirs(os.path.join(point, "SOURCES"), exist_ok=True)
        write_text(os.path.join(point, "SOURCES", "BOOT.WIM"), "an image\n")
        result = self.vorlix("windows", node(INSTALLER), status=1)
        self.assertEqual((result.stdout, result.stderr),
                         ("", f"vorlix: {node(INSTALLER)}: no installed Windows, only its installer\n"))

    def test_a_volume_that_is_not_mounted_is_read_without_mounting_it(self):
        self.assertIn("no Windows", self.vorlix("windows", node(WINDOWS), status=1).stderr)
        self.assertNotIn(node(WINDOWS) + " ", read_text("/proc/self/mounts"))

    def test_a_hive_that_is_none_is_refused(self):
        point = self.mount_at(WINDOWS, "windows")
        self.install(point, "Windows 10", "Windows", "System32")
        hive = os.path.join(point, "Windows", "System32", "config", "SOFTWARE")
        write_text(hive, "no hive\n")
        self.assertIn("its registry has no product name", self.vorlix("windows", point, status=2).stderr)
        self.assertEqual(read_text(hive), "no hive\n")
