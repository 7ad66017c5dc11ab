# SPDX-License-Identifier: Apache-2.0
"""
`vorlix disks`: disks and what is on them, mounted or not.

Sizes, types, kinds and labels are compared with what sfdisk, blkid and lsblk say of disks that sgdisk, sfdisk and mkfs made. The
verdict on a start is that of `vorlix check`, whose own tests make the faults.
"""

import functools
import json
import os
import re
import subprocess
import unittest

import test_start_check as start_check
import test_words as words
from support import gpt, hive, hives, images, samples, tools, volumes

MISSING = start_check.MISSING or volumes.missing(*hives.NEEDED, "mkfs.ext4", "lsblk")
HIVE = "Windows/System32/config/SOFTWARE"
WINDOWS = volumes.WINDOWS
KINDS = {"vfat": "msdos"}  # blkid's names that people of Windows and macOS do not use


@functools.lru_cache(maxsize=None)
def software(release):
    path = hives.make_software_hive(os.path.join(volumes.template_folder(), f"{release}.hive"), hives.RELEASES[release])
    with open(path, "rb") as file:
        return file.read()


def windows_volume(release="Windows 10"):
    return start_check.ntfs(((HIVE, software(release)),))


def efi_tree(guids):
    """The files of a start by EFI, with a store that names the volume."""
    return {**start_check.BOOT_TREE, start_check.STORE: hive.store_naming((guids["P"], guids["D"]))}


class DisksTest(start_check.StartTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        hives.companion(cls.vorlix)

    def survey(self, *paths, status=0):
        """The disks of the JSON. No byte of an image changes, nothing is mounted and nothing is left."""
        before = {path: images.snapshot(path) for path in paths if os.path.isfile(path)}
        result = self.vorlix_run("disks", *paths, "--json")
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        for path, state in before.items():
            self.assert_unchanged(path, state)
        self.assert_nothing_mounted()
        document = json.loads(result.stdout)
        self.assertEqual(document["version"], 1)
        return document["disks"]

    def one(self, path, status=0):
        (disk,) = self.survey(path, status=status)
        self.assertEqual(disk["name"], path)
        return disk

    def text(self, *paths, status=0):
        result = self.vorlix_run("disks", *paths)
        self.assertEqual((result.returncode, result.stderr), (status, ""), result.stdout)
        return result.stdout

    def row(self, text, name):
        """The cells of the row of a disk or partition."""
        (line,) = [line for line in text.splitlines() if re.match(rf"(?:[|`]-|[├└]─)?{re.escape(name)}  ", line)]
        return re.split(r"  +", line)

    def assert_partitions(self, disk, path):
        """Numbers, sizes and types are those of sfdisk, kinds and labels those of blkid."""
        table = tools.sfdisk_table(path)
        expected = []
        for part in table["partitions"]:
            number = int(part["node"][len(path):].lstrip("p"))
            size = part["size"] * table.get("sectorsize", 512)
            kind = part["type"].upper()
            found = subprocess.run([images.tool("blkid"), "-p", "-o", "export", "-O", str(part["start"] * 512), "-S", str(size), path],
                                   capture_output=True, text=True, check=False)  # status 2: nothing is recognised
            facts = dict(line.split("=", 1) for line in found.stdout.splitlines() if "=" in line)
            volume = facts.get("TYPE")
            expected.append((number, f"{path}s{number}", size, kind if "-" in kind else kind.zfill(2), KINDS.get(volume, volume),
                             facts.get("LABEL")))
        self.assertGreater(len(expected), 0)
        self.assertEqual([(part["number"], part["device"], part["size"], part["type"], part["kind"], part["label"])
                          for part in disk["partitions"]], expected)

    def assert_verdict(self, path, partition):
        """What the row says is what `check` says of this partition."""
        result = self.vorlix_run("check", path, "--partition", partition["number"], "--json")
        report = json.loads(result.stdout)
        start = partition["start"]
        self.assertEqual((start["starts"], start["judged"]), (report["starts"], report["judged"]))
        self.assertEqual(start["starts"], result.returncode == 0)
        faults = [item["code"] for item in report["findings"] if item["state"] == "fault"]
        self.assertEqual(start["faults"], list(dict.fromkeys(faults)))
        self.assertEqual(start["command"], f"vorlix check {path} --partition {partition['number']}")
        return start


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Images(DisksTest):
    def test_a_disk_that_a_bios_starts(self):
        path = self.sound(volume=windows_volume())
        disk = self.one(path)
        self.assertEqual((disk["table"], disk["image"], disk["size"], disk["gptDamage"], disk["error"]),
                         ("hybrid MBR", True, os.path.getsize(path), [], None))
        self.assertEqual(tools.fdisk_slots(path)[3][0], True)  # fdisk sees the hybrid MBR, too
        self.assert_partitions(disk, path)
        efi, apple, windows = disk["partitions"]
        self.assertEqual([part["typeName"] for part in disk["partitions"]], ["EFI System", "Apple APFS", "Microsoft basic data"])
        self.assertEqual((efi["windows"], efi["start"], apple["windows"], apple["start"]), (None, None, None, None))
        self.assertEqual((windows["windows"], windows["product"], windows["edition"], windows["currentBuildNumber"]),
                         ("installed", "Windows 10", "Professional", "19045"))
        start = self.assert_verdict(path, windows)
        self.assertEqual((start["starts"], start["judged"], start["faults"], start["unseen"]),
                         (True, {"legacy": True, "efi": False}, [], []))
        text = self.text(path)
        self.assertEqual(self.row(text, path)[1:], ["26.1M", "GPT, hybrid MBR"])
        self.assertEqual(self.row(text, "mac.imgs1")[1:], ["16M", "EFI System", "FAT", "EFI", "not mounted", "-"])
        self.assertEqual(self.row(text, "mac.imgs3")[1:], ["8M", "Microsoft basic data", "NTFS", "not mounted", "Windows 10", "legacy"])
        self.assertTrue(text.endswith(f"\n\nMore: vorlix check {path} --partition 3\n"), text)

    def test_what_keeps_it_from_starting(self):
        path = self.sound(volume=windows_volume())
        with self.changed(path, (446 + 16 * 2, b"\0"), (0, bytes(440))):  # no active slot, no boot code
            (windows,) = [part for part in self.one(path)["partitions"] if part["windows"]]
            start = self.assert_verdict(path, windows)
            self.assertEqual((start["starts"], start["faults"]), (False, ["mbr-differs", "active-none", "boot-code-missing"]))
            self.assertEqual(self.row(self.text(path), "mac.imgs3")[-1], "no: mbr-differs (+2)")
        self.assertEqual(self.row(self.text(path), "mac.imgs3")[-1], "legacy")

    def test_a_disk_that_efi_starts(self):
        guids = start_check.identifiers(volumes.partitioned_disk())
        path = self.give(volumes.make_mac(self.path("mac.img"), efi_tree(guids)))
        tools.write_sparse(path, start_check.START, windows_volume("Windows 11"))
        disk = self.one(path)
        self.assertEqual(disk["table"], "GPT")
        self.assert_partitions(disk, path)
        windows = disk["partitions"][2]
        start = self.assert_verdict(path, windows)
        self.assertEqual((start["starts"], start["judged"]), (True, {"legacy": False, "efi": True}))
        self.assertEqual(windows["product"], "Windows 10")  # as `windows --json` has it
        self.assertEqual(self.row(self.text(path), "mac.imgs3")[-2:], ["Windows 11", "EFI"])
        self.write_mbr(path)
        gpt.write_at(path, 0, start_check.BOOT_CODE[:440])
        self.assertEqual(self.row(self.text(path), "mac.imgs3")[-1], "legacy, EFI")
        self.assert_verdict(path, self.one(path)["partitions"][2])

    def test_two_installations_are_judged_each_for_itself(self):
        """Both volumes have a store that names entry 3 alone."""
        path = self.path("two.img")
        second = samples.Slice(4, 53400, WINDOWS.sectors, samples.BASIC_DATA, "SECOND")
        samples.make_disk(path, 70000, (volumes.EFI, volumes.APPLE, WINDOWS, second))
        self.give(path)
        for part in (WINDOWS, second):
            tools.write_sparse(path, part.first * 512, windows_volume())
        disk = self.one(path)
        self.assert_partitions(disk, path)
        starts = [self.assert_verdict(path, part) for part in disk["partitions"] if part["windows"] == "installed"]
        self.assertEqual(len(starts), 2)
        self.assertIn("hidden-sectors", starts[1]["faults"])
        self.assertNotIn("hidden-sectors", starts[0]["faults"])

    def test_volumes_without_windows(self):
        trees = {"none": {"Windows": None, "file": b"x"}, "installer": {"sources/boot.wim": b"x"}}
        for word, tree in trees.items():
            with self.subTest(word):
                volume = volumes.make_ntfs(self.path(f"{word}.ntfs"), start_check.SIZE, tree, start=WINDOWS.first)
                with open(volume, "rb") as file:
                    path = self.sound(f"{word}.img", volume=file.read())
                windows = self.one(path)["partitions"][2]
                self.assertEqual((windows["windows"], windows["product"], windows["start"]), (word, None, None))
                self.assertEqual(self.row(self.text(path), f"{word}.imgs3")[-1], "-")
                self.assertNotIn("More:", self.text(path))

    def test_a_volume_that_cannot_be_looked_into(self):
        path = self.sound(volume=start_check.bare_ntfs("-c", 512))
        windows = self.one(path)["partitions"][2]
        self.assertEqual((windows["windows"], windows["start"]), (None, None))
        self.assertTrue(windows["whyUnseen"].startswith("its clusters have 512 bytes"), windows["whyUnseen"])
        text = self.text(path)
        self.assertEqual(self.row(text, "mac.imgs3")[-2:], ["?", "?"])
        self.assertIn("its clusters have 512 bytes", text)

    def test_a_plain_gpt(self):
        path = self.path("plain.img")
        samples.make_disk(path, volumes.DISK_SECTORS, (volumes.EFI, volumes.APPLE))
        self.give(path)
        disk = self.one(path)
        self.assertEqual(disk["table"], "GPT")
        self.assert_partitions(disk, path)
        self.assertEqual(self.row(self.text(path), "plain.imgs2")[1:], ["2M", "Apple APFS", "-"])

    def test_an_mbr(self):
        path = self.path("old.img")
        with open(path, "xb") as file:
            file.truncate(48 << 20)
        images.run_tool("sfdisk", "-q", path, stdin="label: dos\n2048,16384,7,*\n20480,32768,83\n")
        tools.write_sparse(path, 2048 * 512, windows_volume("Windows 7"))
        linux = self.path("ext4")
        with open(linux, "xb") as file:
            file.truncate(16 << 20)
        images.run_tool("mkfs.ext4", "-q", "-L", "rescue", linux)
        samples.place(path, linux, 20480)
        self.give(path)
        disk = self.one(path)
        self.assertEqual(disk["table"], "MBR")
        self.assert_partitions(disk, path)
        windows, rescue = disk["partitions"]
        self.assertEqual((rescue["kind"], rescue["label"], rescue["windows"]), ("ext4", "rescue", None))
        self.assertEqual((windows["product"], windows["start"], windows["whyNotJudged"]), ("Windows 7", None, "no GPT"))
        text = self.text(path)
        self.assertEqual(self.row(text, "old.imgs1")[1:],
                         ["8M", "NTFS or exFAT", "NTFS", "not mounted", "Windows 7", "not judged: no GPT"])
        self.assertEqual(self.row(text, "old.imgs2")[1:], ["16M", "Linux", "ext4", "rescue", "not mounted", "-"])

    def test_disks_without_a_table(self):
        blank = self.file("blank.img", bytes(1 << 20))
        self.assertEqual([self.one(blank)[key] for key in ("table", "partitions", "error")], ["none", [], None])
        self.assertEqual(self.row(self.text(blank), blank)[1:], ["1M", "no table"])
        fat = self.give(volumes.make_fat(self.path("fat.img"), 16, "WHOLE"))
        disk = self.one(fat)
        self.assertEqual(disk["table"], "none")
        (volume,) = disk["partitions"]
        self.assertEqual([volume[key] for key in ("number", "device", "size", "type", "kind", "label", "windows")],
                         [None, fat, os.path.getsize(fat), None, "msdos", "WHOLE", "none"])
        self.assertEqual(self.row(self.text(fat), "fat.img")[2:], ["whole disk", "FAT", "WHOLE", "not mounted", "-"])

    @unittest.skipIf(volumes.missing("mkfs.exfat"), "mkfs.exfat is not installed")
    def test_an_exfat_volume_without_a_table(self):
        """Its boot sector has a signature and zeros where an MBR has slots."""
        path = self.file("exfat.img", bytes(16 << 20))
        images.run_tool("mkfs.exfat", path)
        self.assertEqual(self.one(path)["table"], "none")
        self.assertEqual(self.row(self.text(path), "exfat.img")[2:4], ["whole disk", "exFAT"])
        self.assertIn("a volume's boot sector, no partition table", self.vorlix_ok("show", path).stdout)

    def test_what_is_wrong_is_in_its_row_and_the_others_are_shown(self):
        good = self.sound(volume=windows_volume())
        short = self.sound("short.img")
        os.truncate(short, (WINDOWS.first + 100) * 512)
        empty = self.file("empty.img", b"")
        absent = self.path("absent.img")
        names = (short, empty, absent, f"{good}s3", good)
        disks = self.survey(*names, status=2)
        self.assertEqual([disk["name"] for disk in disks], list(names))
        self.assertIn("disk-truncated", [item["code"] for item in disks[0]["gptDamage"]])
        self.assertEqual([part["number"] for part in disks[0]["partitions"]], [1, 2, 3])
        self.assertEqual([disk["error"] for disk in disks[1:]],
                         ["holds 0 bytes, not even one sector: it is empty or truncated", "no such device or disk image",
                          f"is a slice; its disk is {good}", None])
        self.assertEqual(disks[4]["partitions"][2]["start"]["starts"], True)
        text = self.text(*names, status=2)
        self.assertEqual(self.row(text, short)[2], "GPT, hybrid MBR, damaged")
        self.assertRegex(text, rf"(?m)^{re.escape(short)}: GPT damaged: .*truncated")
        self.assertEqual(self.row(text, empty)[2], "cannot be read: holds 0 bytes, not even one sector: it is empty or truncated")
        self.assertEqual(self.row(text, "mac.imgs3")[-1], "legacy")

    def test_a_damaged_gpt(self):
        path = self.sound(volume=windows_volume())
        other = samples.read(path, 512 + 57, 1)[0] ^ 0xFF  # of the disk's GUID, which is random
        with self.changed(path, (512 + 57, bytes([other]))):
            disk = self.one(path, status=2)
            self.assertEqual([item["code"] for item in disk["gptDamage"]], ["header-checksum", "backup-differs"])
            self.assertEqual(self.assert_verdict(path, disk["partitions"][2])["faults"],
                             ["gpt-header-checksum", "gpt-backup-differs"])

    def test_a_table_with_very_many_entries(self):
        """The time does not grow with what a table claims; the first entries have all that is known."""
        path = self.path("many.img")
        with open(path, "xb") as file:
            file.truncate(64 << 20)
        images.run_tool("sgdisk", "-S", "600", path)
        images.run_tool("sfdisk", "-q", "--append", "--no-reread", path,
                        stdin="".join(f"start={2048 + 8 * i}, size=8, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n" for i in range(300)))
        partitions = self.one(self.give(path))["partitions"]
        self.assertEqual(len(partitions), 300)
        self.assertEqual([part["number"] for part in partitions if part["whyUnseen"]], list(range(257, 301)))

    def test_no_permission(self):
        path = self.sound(volume=windows_volume())
        closed = self.sound("closed.img")
        os.chmod(closed, 0)
        first, second = self.survey(closed, path, status=2)
        self.assertEqual((first["error"], first["size"], first["table"], first["partitions"]),
                         ("Permission denied", os.path.getsize(closed), None, []))
        self.assertIsNone(second["error"])
        self.assertEqual(self.row(self.text(closed, path, status=2), closed)[1:],
                         ["26.1M", "may not be read: Permission denied, read-only"])

    def test_a_mounted_volume(self):
        path = self.sound(volume=windows_volume())
        folder = self.mount(f"{path}s1")
        shown = json.loads(self.vorlix_ok("disks", path, "--json").stdout)["disks"][0]["partitions"]
        self.assertEqual([part["mountPath"] for part in shown], [folder, None, None])
        self.assertIn(f"  {folder}  ", self.text(path))
        self.vorlix_ok("unmount", f"{path}s1")
        self.assertIsNone(self.one(path)["partitions"][0]["mountPath"])

    def test_names_cannot_act_on_a_terminal(self):
        name = "a\x1b[31m\n\x9b'Ж .img"
        path = self.give(volumes.make_mac(self.path(name), {}))
        label = volumes.make_fat(self.path("label.img"), 16, "LABEL")
        volumes.set_label(label, b"\x1b[5m\x07", b"LABEL")
        text = self.text(path, self.give(label))
        for letter in "\x1b\x07\x9b":
            self.assertNotIn(letter, text)
        self.assertIn("a?[31m?", text)
        self.assertEqual([disk["name"] for disk in self.survey(path, label)], [path, label])

    def test_the_command_for_more_is_one_for_a_shell(self):
        path = self.sound("a 'b' $c.img", volume=windows_volume())
        command = self.one(path)["partitions"][2]["start"]["command"]
        shown = subprocess.run(["sh", "-c", f"printf '%s\\n' {command}"], capture_output=True, text=True, check=True)
        self.assertEqual(shown.stdout.splitlines(), ["vorlix", "check", path, "--partition", "3"])


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Machine(DisksTest):
    """The disks of this machine, as an ordinary user and as root."""

    def machine(self):
        """The disks of this machine. Other tests may attach damaged ones meanwhile, which alone make the status 2."""
        result = self.vorlix_run("disks", "--json")
        disks = json.loads(result.stdout)["disks"]
        damaged = [disk for disk in disks if disk["gptDamage"] or "truncated" in (disk["error"] or "")]
        self.assertEqual(result.returncode, 2 if damaged else 0, result.stdout + result.stderr)
        return disks

    def lsblk(self, *columns):
        output = images.run_tool("lsblk", "--json", "--bytes", "--all", "--output", ",".join(columns))
        return json.loads(output)["blockdevices"]

    def test_the_disks_of_this_machine(self):
        expected = {item["name"]: item for item in self.lsblk("name", "size", "type", "ro")
                    if item["type"] == "disk" and int(item["size"]) > 0 and not re.match("z?ram|nbd", item["name"])}
        if not expected:
            self.skipTest("lsblk shows no disk on this machine")
        found = {disk["name"]: disk for disk in self.machine()}
        for name, item in expected.items():
            self.assertEqual(found[name]["size"], int(item["size"]), name)
            self.assertEqual([part["size"] for part in found[name]["partitions"] if part["number"]],
                             [int(part["size"]) for part in item.get("children", []) if part["type"] == "part"], name)
            readable = self.as_user_can_read(f"/dev/{name}")
            self.assertEqual(found[name]["error"] is None, readable, name)
        self.assertEqual([name for name in found if re.match("z?ram", name)], [])
        self.assertEqual([name for name in found if name.startswith("loop") and found[name]["table"] == "none"], [])

    def test_a_file_with_the_name_of_a_disk_is_no_disk(self):
        names = [disk["name"] for disk in self.machine()]
        if not names:
            self.skipTest("this machine has no disk")
        for name in names:
            self.file(name, b"x" * 3000)
        result = subprocess.run([*self.prefix(), self.vorlix, "disks", "--json"], cwd=self.folder, capture_output=True, text=True,
                                timeout=images.TIME_LIMIT, check=False)
        found = {disk["name"]: disk for disk in json.loads(result.stdout)["disks"]}
        for name in names:
            if name in found and not name.startswith("loop"):  # other tests detach theirs
                self.assertEqual((found[name]["device"], found[name]["image"]), (f"/dev/{name}", False))
                self.assertNotEqual(found[name]["size"], 3000)
                for part in found[name]["partitions"]:
                    self.assertTrue(part["device"].startswith("/dev/"), part)

    def as_user_can_read(self, path):
        return subprocess.run([*self.prefix(), "head", "-c", "1", path], capture_output=True, check=False).returncode == 0

    def test_a_disk_that_may_not_be_read_is_an_error_where_it_is_named(self):
        closed = [disk for disk in self.machine() if disk["error"] in ("Permission denied", "Operation not permitted")]
        if not closed:
            self.skipTest("this user may read all disks of this machine")
        name = closed[0]["name"]
        self.assertRegex(self.vorlix_run("disks").stdout, rf"(?m)^{name}  .* may not be read: {closed[0]['error']}")
        self.assertEqual(self.survey(f"/dev/{name}", status=2), closed[:1])


@unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class MachineAsRoot(Machine):
    AS_ROOT = True

    def test_a_loop_device_with_a_table(self):
        path = self.sound(volume=windows_volume())
        with tools.loop_device(path, 512) as device:
            name = os.path.basename(device)
            for shown in (self.machine(), self.survey(device), self.survey(name)):
                (disk,) = [item for item in shown if item["name"] == name]
                self.assertEqual((disk["device"], disk["table"], disk["image"], disk["error"]), (device, "hybrid MBR", False, None))
                self.assertEqual([part["device"] for part in disk["partitions"]], [f"{device}s{number}" for number in (1, 2, 3)])
                self.assertEqual(self.assert_verdict(device, disk["partitions"][2])["starts"], True)
                self.assertEqual([(part["number"], part["size"]) for part in disk["partitions"]],
                                 [(1, volumes.EFI.sectors * 512), (2, volumes.APPLE.sectors * 512), (3, WINDOWS.sectors * 512)])
                self.assertEqual((disk["partitions"][2]["product"], disk["partitions"][2]["start"]["starts"]), ("Windows 10", True))
            size = images.run_tool("lsblk", "--noheadings", "--nodeps", "--output", "SIZE", device).strip()
            self.assertEqual(self.row(self.text(device), name)[1], size)

    def test_sizes_are_those_of_lsblk(self):
        for size in (1 << 20, 1000 << 10, 46 * (1 << 20) + (1 << 19), 1 << 30, 3 * (1 << 40) + (1 << 38), 1023 << 20):
            path = self.path(f"{size}.img")
            with open(path, "xb") as file:
                file.truncate(size)
            with tools.loop_device(path, 512) as device:
                expected = images.run_tool("lsblk", "--noheadings", "--nodeps", "--output", "SIZE", device).strip()
                self.assertEqual(self.row(self.text(path), path)[1], expected)

    def test_a_loop_device_without_a_table_is_shown_only_where_it_is_named(self):
        path = self.file("blank.img", bytes(1 << 20))
        with tools.loop_device(path, 512) as device:
            name = os.path.basename(device)
            self.assertNotIn(name, [disk["name"] for disk in self.machine()])
            self.assertEqual(self.survey(device)[0]["table"], "none")


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Screens(DisksTest):
    on_terminal = words.WordsTest.on_terminal

    def setUp(self):
        super().setUp()
        self.disk = self.sound(volume=windows_volume())

    def test_it_fits_the_terminal_and_is_whole_in_a_pipe(self):
        whole = self.text(self.disk)
        for columns in (80, 100):
            shown, status = self.on_terminal("disks", self.disk, columns=columns, environment={"LC_ALL": "C"})
            self.assertEqual(status, 0)
            table = words.ESCAPE.sub("", shown).split("\n\n", maxsplit=1)[0]
            self.assertLessEqual(max(map(len, table.splitlines())), columns)
            letters = re.sub(r"\s", "", words.ESCAPE.sub("", shown))
            self.assertEqual(sorted(letters), sorted(re.sub(r"\s", "", whole.replace("├─", "|-").replace("└─", "`-"))))

    def test_marks_follow_the_locale(self):
        for locale, marks in (("C", ["|-", "|-", "`-"]), ("C.UTF-8", ["├─", "├─", "└─"]), ("de_DE.utf8", ["├─", "├─", "└─"]),
                              ("de_DE", ["|-", "|-", "`-"])):
            shown, _ = self.on_terminal("disks", self.disk, columns=300, environment={"LC_ALL": locale})
            self.assertEqual(re.findall(r"(?m)^(\S\S)mac\.imgs\d  ", shown), marks, locale)

    def test_the_verdict_has_a_colour_on_a_terminal_alone(self):
        plain = self.text(self.disk)
        self.assertNotIn("\x1b", plain)
        shown, _ = self.on_terminal("disks", self.disk, columns=300)
        self.assertIn("\x1b[32mlegacy\x1b[0m", shown)
        self.assertEqual(shown.count("\x1b["), 2)
        with self.changed(self.disk, (0, bytes(440))):
            shown, _ = self.on_terminal("disks", self.disk, columns=300)
            self.assertIn("\x1b[31mno: boot-code-missing\x1b[0m", shown)
            shown, _ = self.on_terminal("disks", self.disk, columns=300, environment={"NO_COLOR": "1"})
            self.assertNotIn("\x1b", shown)


if __name__ == "__main__":
    images.main()
