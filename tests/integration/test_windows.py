# SPDX-License-Identifier: Apache-2.0
"""`windows`: which Windows a volume holds, read from hives that hivex's shell writes."""

import json
import os
import shutil
import unittest

from support import hives, images, volumes

MISSING = volumes.missing(*hives.NEEDED)
MISSING_FOR_VOLUMES = volumes.missing("mkfs.vfat", "mcopy", "mmd", "setpriv")

# The product names that hosts get instead of the names in the registry.
PRODUCTS = {
    "Windows 7": "Windows 7",
    "Windows 8.1": "Windows 8+",
    "Windows 10": "Windows 10",
    "Windows 11": "Windows 10",
    "Windows Server 2012 R2": "Windows Server 2012 R2 Standard",
}
HIVE = "Windows/System32/config/SOFTWARE"
SETUP_LOG = "Windows/Panther/setupact.log"
NOTHING = {"version": 1, "product": None, "edition": None, "currentBuildNumber": None, "buildLabEx": None, "bootenv": None}
NO_LOG = "vorlix: the log /tmp/quandrel.log cannot be opened; continuing without it\n"


def answer(release, bootenv=None):
    values = hives.RELEASES[release]
    return {
        "version": 1,
        "product": PRODUCTS[release],
        "edition": values["EditionID"],
        "currentBuildNumber": values["CurrentBuildNumber"],
        "buildLabEx": values["BuildLabEx"],
        "bootenv": bootenv,
    }


class WindowsTest(volumes.VolumeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        hives.companion(cls.vorlix)

    def hive(self, values, name="hive"):
        return hives.make_software_hive(self.path(name), values)

    def hive_bytes(self, release):
        path = self.hive(hives.RELEASES[release], f"hive of {release}")
        with open(path, "rb") as file:
            return file.read()

    def put(self, root, tree):
        """Makes a folder with the files of a volume, in the form of folder_tree()."""
        root = self.path(root)
        for path, content in tree.items():
            place = os.path.join(root, path)
            os.makedirs(place if content is None else os.path.dirname(place), exist_ok=True)
            if content is not None:
                with open(place, "wb") as file:
                    file.write(content)
        return root

    def windows(self, volume):
        """Returns the JSON. There must be no message, except for a log that belongs to another user."""
        result = self.vorlix_ok("windows", volume, "--json")
        self.assertIn(result.stderr, ("", NO_LOG))
        return json.loads(result.stdout)

    def unknown(self, volume, saying):
        """The volume holds a Windows without a readable version: status 2, in both forms. Returns the JSON."""
        text = self.vorlix_run("windows", volume)
        self.assertEqual(text.returncode, 2, text.stderr)
        self.assertNotIn("Product", text.stdout)
        result = self.vorlix_run("windows", volume, "--json")
        self.assertEqual(result.returncode, 2)
        for message in (text.stderr, result.stderr):
            self.assertIn(f"vorlix: {volume}: {saying}", message)
        return json.loads(result.stdout)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Folders(WindowsTest):
    """The command accepts any folder as a volume."""

    def test_releases_by_the_names_that_hosts_know(self):
        for release in hives.RELEASES:
            with self.subTest(release=release):
                root = self.put(release, {HIVE: self.hive_bytes(release)})
                before = images.snapshot(os.path.join(root, HIVE))
                self.assertEqual(self.windows(root), answer(release))
                self.assert_unchanged(os.path.join(root, HIVE), before)

    def test_a_text_for_people(self):
        root = self.put("root", {HIVE: self.hive_bytes("Windows 8.1"),
                                 SETUP_LOG: b"x Detected boot environment: BIOS\n"})
        self.assertEqual(self.vorlix_ok("windows", root).stdout.splitlines(), [
            "Product    Windows 8+",
            "Edition    Professional",
            "Build      9600",
            "Build lab  9600.17415.amd64fre.winblue_r4.141028-1500",
            "Started by BIOS",
        ])

    def test_windows_11_is_told_by_its_build(self):
        values = hives.RELEASES["Windows 11"]
        for number, (build, product, expected) in enumerate((
                ("22631", "Windows 10 Home", True), ("22000", "Windows 10 Pro", True), ("21999", "Windows 10 Pro", False),
                ("26100", "Windows Server 2025 Standard", False), ("none", "Windows 10 Pro", False))):
            with self.subTest(build=build, product=product):
                hive = self.hive({**values, "ProductName": product, "CurrentBuildNumber": build}, f"hive{number}")
                with open(hive, "rb") as file:
                    root = self.put(f"root{number}", {HIVE: file.read()})
                text = self.vorlix_ok("windows", root).stdout
                self.assertEqual("Windows 11" in text, expected, text)

    def test_folders_in_upper_case_are_found(self):
        root = self.put("root", {"WINDOWS/SYSTEM32/config/SOFTWARE": self.hive_bytes("Windows 7")})
        self.assertEqual(self.windows(root), answer("Windows 7"))

    def test_names_that_no_list_has_pass_through(self):
        for number, name in enumerate(("Windows Vista (TM) Ultimate", "Microsoft Windows XP", "Система Ж 水", "x" * 300)):
            with self.subTest(name=name[:40]), open(self.hive({"ProductName": name}, f"hive{number}"), "rb") as file:
                root = self.put(f"root{number}", {HIVE: file.read()})
                self.assertEqual(self.windows(root), {**NOTHING, "product": name})

    def test_names_in_any_case_and_before_they_were_names(self):
        for number, (name, product) in enumerate((("WINDOWS 10 pro", "Windows 10"), ("Evaluation of winblue", "Windows 8+"),
                                                  ("windows 7 N", "Windows 7"), ("Windows 8", "Windows 8+"))):
            with self.subTest(name=name), open(self.hive({"ProductName": name}, f"hive{number}"), "rb") as file:
                root = self.put(f"root{number}", {HIVE: file.read()})
                self.assertEqual(self.windows(root)["product"], product)

    def test_values_cannot_act_on_a_terminal(self):
        name = "Windows \x1b[31mred\x07 \x9b1m"
        with open(self.hive({"ProductName": name, "EditionID": "one\ntwo"}), "rb") as file:
            root = self.put("root", {HIVE: file.read()})
        text = self.vorlix_ok("windows", root).stdout
        for character in ("\x1b", "\x07", "\x9b"):
            self.assertNotIn(character, text)
        self.assertEqual(len(text.splitlines()), 2, text)
        self.assertEqual(self.windows(root)["product"], name)

    def test_the_setup_log(self):
        """grep's lines without line feeds, from the first report on; an empty string if they hold no report."""
        for number, (log, expected) in enumerate((
                (b"2020-01-02 Info  Callback_BootEnvironmentDetect: Detected boot environment: EFI\r\n", "EFI"),
                (b"first\r\nx Detected boot environment: BIOS\r\nlast\r\n", "BIOS"),
                (b"Detected boot environment: BIOS", "BIOS"),
                (b"1 Detected boot environment: BIOS\r\nother\r\n2 Detected boot environment: EFI\r\n",
                 "BIOS2 Detected boot environment: EFI"),
                (b"a boot environment\r\nDetected boot environment: EFI\r\n", "EFI"),
                (b"the boot environment was not detected\r\n", ""),
                (b"detected boot environment: EFI\r\n", ""),
                (b"nothing of interest\r\n", ""),
                (b"", ""))):
            with self.subTest(log=log):
                root = self.put(f"root{number}", {HIVE: self.hive_bytes("Windows 10"), SETUP_LOG: log})
                self.assertEqual(self.windows(root), answer("Windows 10", expected or None))

    def test_hives_that_tell_nothing(self):
        good = self.hive_bytes("Windows 10")
        no_name = dict(hives.RELEASES["Windows 10"])
        del no_name["ProductName"]
        elsewhere = hives.make_hive(self.path("elsewhere"), {"Microsoft": {"ProductName": "Windows 10"}})
        with open(elsewhere, "rb") as file:
            without_key = file.read()
        cases = {"cut": good[:5000], "not a hive": b"x" * 8192, "empty": b"", "header only": good[:4096],
                 "zeros behind": good[:4096] + bytes(len(good) - 4096), "without the key": without_key}
        for name, content in cases.items():
            with self.subTest(hive=name):
                root = self.put(name, {HIVE: content})
                self.assertEqual(self.unknown(root, "its registry has no product name"), NOTHING)
        with open(self.hive(no_name, "no name"), "rb") as file:
            root = self.put("no name root", {HIVE: file.read()})
        self.assertEqual(self.unknown(root, "its registry has no product name") | {"product": "Windows 10"},
                         answer("Windows 10"))

    def test_a_volume_without_a_hive(self):
        for number, tree in enumerate(({"Windows/System32": None}, {"Windows/System32/config": None}, {HIVE: None},
                                       {"Windows/System32": b"a file"})):
            with self.subTest(tree=tree):
                self.assertEqual(self.unknown(self.put(f"root{number}", tree), "its registry has no product name"), NOTHING)

    def test_the_setup_log_is_read_without_a_hive(self):
        root = self.put("root", {"Windows/System32": None, SETUP_LOG: b"Detected boot environment: EFI\r\n"})
        self.assertEqual(self.unknown(root, "its registry has no product name"), {**NOTHING, "bootenv": "EFI"})

    def test_a_hive_that_may_not_be_read(self):
        root = self.put("root", {HIVE: self.hive_bytes("Windows 10")})
        os.chmod(os.path.join(root, HIVE), 0)
        self.give(os.path.join(root, HIVE))
        self.assertEqual(self.unknown(root, "its registry has no product name"), NOTHING)

    def test_no_windows(self):
        for number, (tree, words) in enumerate((
                ({"file": b""}, "no Windows\n"),
                ({"Windows": None}, "no Windows\n"),
                ({"Windows": b"a file"}, "no Windows\n"),
                ({"a/Windows/System32": None}, "no Windows\n"),
                ({"Windows.old/System32": None}, "no Windows\n"),
                ({"SOURCES/BOOT.WIM": b"image"}, "no installed Windows, only its installer\n"),
                ({"sources/install.wim": b"image"}, "no Windows\n"))):
            with self.subTest(tree=tree):
                root = self.put(f"root{number}", tree)
                for options, output in (([], ""), (["--json"], "null\n")):
                    result = self.vorlix_run("windows", root, *options)
                    self.assertEqual((result.returncode, result.stdout), (1, output))
                    self.assertEqual(result.stderr, f"vorlix: {root}: {words}")

    def test_what_is_no_volume(self):
        for volume, words in ((self.path("missing"), "no such device"), ("", "no such device"),
                              (self.boot_code, "not mounted"), ("sdzzz9", "no such device")):
            with self.subTest(volume=volume):
                for options in ([], ["--json"]):
                    result = self.vorlix_run("windows", volume, *options)
                    self.assertEqual((result.returncode, result.stdout), (2, ""))
                    self.assertIn(f"vorlix: {volume}: {words}", result.stderr)

    def test_without_the_companion(self):
        for prefix in ("/usr/local", "/usr"):
            installed = os.path.join(prefix, "libexec/vorlix-1/registry_lookup")
            if os.path.exists(installed):
                self.skipTest(f"{installed} is installed")
        root = self.put("root", {HIVE: self.hive_bytes("Windows 10"), SETUP_LOG: b"Detected boot environment: EFI\r\n"})
        alone = self.path("alone")
        os.mkdir(alone)
        self.vorlix = shutil.copy(self.vorlix, alone)
        self.assertEqual(self.unknown(root, "registry_lookup is not installed"), {**NOTHING, "bootenv": "EFI"})

    def test_a_companion_that_is_no_program(self):
        root = self.put("root", {HIVE: self.hive_bytes("Windows 10")})
        place = self.path("place")
        os.mkdir(place)
        self.vorlix = volumes.copy_command(self.vorlix, place)
        companion = os.path.join(place, "tools/bin/registry_lookup")
        os.remove(companion)
        with open(companion, "wb"):
            pass
        self.assertEqual(self.unknown(root, "its registry has no product name"), NOTHING)


    def test_a_setup_log_of_several_starts(self):
        """The text shows the first report; the JSON has all the text from there on."""
        log = b"x Detected boot environment: EFI\r\ny Detected boot environment: BIOS\r\n"
        root = self.put("root", {HIVE: self.hive_bytes("Windows 10"), SETUP_LOG: log})
        self.assertRegex(self.vorlix_ok("windows", root).stdout, r"(?m)^Started by +EFI$")
        self.assertEqual(self.windows(root)["bootenv"], "EFIy Detected boot environment: BIOS")

    def test_a_pipe_in_the_place_of_the_setup_log(self):
        root = self.put("root", {HIVE: self.hive_bytes("Windows 10"), os.path.dirname(SETUP_LOG): None})
        os.mkfifo(os.path.join(root, SETUP_LOG))
        self.assertEqual(self.windows(root), answer("Windows 10"))

    @unittest.skipIf(volumes.missing("setpriv"), "setpriv is not installed")
    def test_folders_that_may_not_be_read(self):
        root = self.put("root", {HIVE: b""})
        self.give(root, os.path.join(root, "Windows"))
        for folder in (os.path.join(root, "Windows"), root):
            os.chmod(folder, 0)
            for options in ((), ("--json",)):
                message = self.vorlix_refuses("windows", root, *options)
                self.assertEqual(message.removeprefix(NO_LOG), f"vorlix: {folder}: Permission denied; nothing was read\n")
            os.chmod(folder, 0o700)


@unittest.skipIf(MISSING or MISSING_FOR_VOLUMES, f"not installed: {MISSING} {MISSING_FOR_VOLUMES}")
class Volumes(WindowsTest):
    def test_a_volume_by_its_device_and_its_folder_mounted_or_not(self):
        tree = {"Windows": None, "Windows/System32": None, "Windows/System32/config": None,
                HIVE: self.hive_bytes("Windows 11"), "Windows/Panther": None,
                SETUP_LOG: b"Detected boot environment: EFI\r\n"}
        device = self.give(volumes.make_mac(self.path("mac.img"), tree)) + "s1"
        self.assertEqual(self.windows(device), answer("Windows 11", "EFI"))
        self.assert_nothing_mounted()
        folder = self.mount(device, "--read-write")
        for name in (device, folder, "/dev/" + device, os.path.relpath(device)):
            with self.subTest(name=name):
                self.assertEqual(self.windows(name), answer("Windows 11", "EFI"))
        self.vorlix_ok("unmount", device)
        self.assert_nothing_mounted()


if __name__ == "__main__":
    images.main()
