#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The JSON of every command, on real disks, against the schemas in docs/json."""

import gzip
import json
import os
import pathlib
import re
import subprocess
import unittest

from support import hive, hives, images, samples, tools, volumes

try:
    import jsonschema
    NO_SCHEMAS = ""
except ImportError:
    NO_SCHEMAS = "Python's jsonschema is not installed"

MISSING = NO_SCHEMAS or volumes.missing("sgdisk", "mkntfs", "mkfs.vfat", "mmd", "mcopy", "setpriv")
SOURCE = pathlib.Path(os.environ.get("VORLIX_SOURCE", pathlib.Path(__file__).resolve().parents[2]))
SCHEMAS = SOURCE / "docs" / "json"
ARCHIVES = SOURCE / "tests" / "data" / "archives"
WINDOWS = volumes.WINDOWS


def schema(name):
    with open(SCHEMAS / f"{name}.schema.json", encoding="utf-8") as file:
        return json.load(file)


def objects_within(value):
    """Every object in a JSON value, with the names of the members that lead to it."""
    if isinstance(value, dict):
        yield value
        for member in value.values():
            yield from objects_within(member)
    elif isinstance(value, list):
        for element in value:
            yield from objects_within(element)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Json(volumes.VolumeTest):
    def validated(self, name, document):
        jsonschema.Draft202012Validator(schema(name)).validate(document)
        if document is not None:
            self.assertEqual(document["version"], 1)
        return document

    def answer(self, name, *arguments, status=0):
        """Runs a command, whose only output must be one JSON document that the schema accepts."""
        result = self.vorlix_run(*arguments)
        self.assertEqual(result.returncode, status, f"{arguments}: {result.stdout}{result.stderr}")
        return self.validated(name, json.loads(result.stdout))

    def lines(self, *arguments):
        """The objects of a command that prints one a line, each validated as a step or as a progress."""
        shown = [json.loads(line) for line in self.vorlix_ok(*arguments).stdout.splitlines()]
        for item in shown:
            self.validated("progress" if "done" in item else "backup", item)
        return shown

    def disk(self, name="mac.img", tree=None):
        path = self.path(name)
        images.sparse_copy(volumes.partitioned_disk(), path)
        volume = volumes.make_ntfs(path + ".ntfs", WINDOWS.sectors * 512, tree or {"file": b"x"}, start=0)
        with open(volume, "rb") as file:
            samples.write(path, WINDOWS.first * 512, file.read())
        return self.give(path)

    def test_schemas_are_schemas_and_tell_the_types(self):
        names = sorted(path.name for path in SCHEMAS.glob("*.schema.json"))
        self.assertGreater(len(names), 20)
        for name in names:
            document = schema(name.removesuffix(".schema.json"))
            jsonschema.Draft202012Validator.check_schema(document)
            self.assertEqual(document["$schema"], "https://json-schema.org/draft/2020-12/schema")
            for part in objects_within(document):
                if "properties" in part:
                    self.assertIs(part["additionalProperties"], False, name)

    def test_a_schema_refuses_what_is_wrong(self):
        shown = self.answer("show", "show", self.disk(), "--json")
        for change in ({"size": str(shown["size"])}, {"version": 2}, {"other": 1}, {"disk": ""}):
            with self.assertRaises(jsonschema.ValidationError):
                self.validated("show", {**shown, **change})
        del shown["mbr"]
        with self.assertRaises(jsonschema.ValidationError):
            self.validated("show", shown)

    def test_disks(self):
        disk = self.disk()
        blank = self.file("blank.img", bytes(1 << 20))
        shown = self.answer("show", "show", disk, "--json")
        self.assertIsInstance(shown["gpt"]["entries"][0]["firstLBA"], int)
        self.assertIsNone(self.answer("show", "show", blank, "--json")["gpt"])
        self.answer("check", "check", disk, "--partition", WINDOWS.number, "--json", status=1)
        self.answer("identify", "identify", f"{disk}s{WINDOWS.number}", "--json")
        self.assertIsNone(self.answer("identify", "identify", blank, "--json", status=1)["diskGUID"])
        self.answer("boot-type", "boot-type", disk, "--json")

    def test_disks_and_what_is_on_them(self):
        disk = self.disk()
        blank = self.file("blank.img", bytes(1 << 20))
        (shown,) = self.answer("disks", "disks", disk, "--json")["disks"]
        self.assertEqual([type(shown[key]) for key in ("size", "image")], [int, bool])
        self.assertIsNone(shown["partitions"][1]["kind"])
        self.assertEqual(self.answer("disks", "disks", blank, "--json")["disks"][0]["partitions"], [])
        self.assertIsNotNone(self.answer("disks", "disks", self.path("absent"), "--json", status=2)["disks"][0]["error"])
        os.truncate(disk, 1 << 20)
        self.assertTrue(self.answer("disks", "disks", disk, "--json", status=2)["disks"][0]["gptDamage"])
        result = self.vorlix_run("disks", "--json")  # status 2 where a disk of this machine is damaged
        self.validated("disks", json.loads(result.stdout))

    @unittest.skipIf(volumes.missing("hivexsh"), "not installed: hivexsh")
    def test_a_windows_on_a_disk(self):
        hives.companion(self.vorlix)
        with open(hives.make_software_hive(self.path("hive"), hives.RELEASES["Windows 10"]), "rb") as file:
            disk = self.disk(tree={"Windows/System32/config/SOFTWARE": file.read()})
        windows = self.answer("disks", "disks", disk, "--json")["disks"][0]["partitions"][2]
        self.assertEqual((windows["product"], windows["start"]["starts"]), ("Windows 10", False))

    @unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
    def test_a_disk_on_a_loop_device(self):
        with tools.loop_device(self.disk(), 512) as device:
            command = subprocess.run([self.vorlix, "disks", device, "--json"], stdin=subprocess.DEVNULL, capture_output=True,
                                     text=True, timeout=images.TIME_LIMIT, check=True)
            (shown,) = self.validated("disks", json.loads(command.stdout))["disks"]
            self.assertEqual(len(shown["partitions"]), 3)

    def test_volumes(self):
        fat = self.give(volumes.make_fat(self.path("fat.img"), 16, "SAME"))
        twin = self.give(volumes.make_fat(self.path("twin.img"), 16, "SAME"))
        self.answer("list", "list", "--all", "--json")
        self.assertIsNone(self.answer("find", "find", "--label", "SAME", "--json", status=1))
        self.mount(fat)
        self.mount(twin)
        listed = self.answer("list", "list", "--json")["volumes"]
        self.assertIn(fat, [volume["device"] for volume in listed])
        found = self.answer("find", "find", "--label", "SAME", "--json")
        self.assertEqual([other["device"] for other in found["others"]], [twin])
        self.answer("bootable", "bootable", fat, "--json", status=1)
        self.assertIsNone(self.answer("windows", "windows", fat, "--json", status=1))
        result = self.vorlix_run("boot-camp", "--json")
        self.validated("boot-camp", json.loads(result.stdout))

    @unittest.skipIf(volumes.missing("hivexsh"), "not installed: hivexsh")
    def test_windows(self):
        hives.companion(self.vorlix)
        with open(hives.make_software_hive(self.path("hive"), hives.RELEASES["Windows 10"]), "rb") as file:
            content = file.read()
        folder = self.path("root")
        os.makedirs(os.path.join(folder, "Windows/System32/config"))
        with open(os.path.join(folder, "Windows/System32/config/SOFTWARE"), "wb") as file:
            file.write(content)
        shown = self.answer("windows", "windows", folder, "--json")
        self.assertEqual((shown["product"], shown["bootenv"]), ("Windows 10", None))
        os.unlink(os.path.join(folder, "Windows/System32/config/SOFTWARE"))
        shown = self.answer("windows", "windows", folder, "--json", status=2)
        self.assertIsNone(shown["product"])  # unknown, and not an empty text

    def test_archives(self):
        names = sorted(ARCHIVES.rglob("*.archive"))
        self.assertTrue(names)
        classes = {self.answer("archive-show", "archive", "show", path, "--json")["class"] for path in names}
        self.assertEqual(classes, {"QDVolume", "QDDiskInfo"})

    def test_one_fact(self):
        self.answer("sip", "sip", "--json")
        shown = self.answer("check-caller", "check-caller", os.getpid(), "--json", status=1) if os.geteuid() != 0 else None
        if shown is None:  # as another user, the command may look at its own processes only
            with subprocess.Popen([*self.prefix(), "cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
                process.stdin.write(b"ready\n")  # an echo proves that the process has changed its user and is "cat" by now
                process.stdin.flush()
                self.assertEqual(process.stdout.readline(), b"ready\n")
                shown = self.answer("check-caller", "check-caller", process.pid, "--json", status=1)
                process.stdin.close()
        self.assertIs(shown["signed"], False)
        packed = self.file("image.gz", gzip.compress(bytes(5000)))
        self.assertEqual(self.answer("image-size", "image-size", packed, "--json")["size"], 5000)
        result = self.vorlix_run("log", "--once", "--json")
        if result.returncode == 0:
            self.validated("log", json.loads(result.stdout))
        else:
            self.assertIn("quandrel.log", result.stderr)

    def test_the_log_s_lines_are_those_of_the_file(self):
        result = self.vorlix_run("log", "--once", "--lines", 3)
        if result.returncode != 0 or not result.stdout:
            self.skipTest("there is no log that this user may read")
        shown = self.answer("log", "log", "--once", "--lines", 3, "--json")
        self.assertLessEqual(len(shown["lines"]), 3)

    def test_plans(self):
        disk = self.disk()
        volume = f"{disk}s{WINDOWS.number}"
        before = images.snapshot(disk)
        arguments = ("hybrid", disk, "--boot-code", self.boot_code, "--partition", WINDOWS.number)
        plan = self.answer("hybrid-dry-run", *arguments, "--dry-run", "--json", status=1)
        self.assertEqual((plan["volume"]["hiddenSectors"], plan["volume"]["newHiddenSectors"]), (0, WINDOWS.first))
        self.assertEqual(plan["sector0"]["slots"][WINDOWS.number - 1]["then"]["firstLBA"], WINDOWS.first)
        self.assertIsNone(self.answer("hybrid-dry-run", "hybrid", disk, "--guard", "--dry-run", "--json",
                                      status=self.vorlix_run("hybrid", disk, "--guard", "--dry-run").returncode)["volume"])
        template = self.file("template", hive.prepared_store(bytes(24576), "standard"))
        self.answer("bcd-dry-run", "bcd", disk, "--partition", WINDOWS.number, "--template", template, "--mode", "standard",
                    "--dry-run", "--json", status=1)
        saved = self.path("saved.vbr")
        self.vorlix_ok("vbr", "save", volume, saved)
        plan = self.answer("vbr-restore-dry-run", "vbr", "restore", saved, volume, "--dry-run", "--json")
        self.assertEqual((plan["changeNeeded"], plan["changes"]), (False, []))
        self.answer("startup-disk-dry-run", "startup-disk", volume, "--type", "legacy", "--dry-run", "--json")
        image = disk + ".ntfs"
        self.give(image)
        plan = self.answer("restore-dry-run", "restore", image, disk, "--partition", WINDOWS.number, "--dry-run", "--json",
                           status=1)
        self.assertEqual((plan["fileSystem"], plan["sourceSize"]), ("NTFS", WINDOWS.sectors * 512))
        self.assertIsNone(self.answer("restore-dry-run", "restore", image, disk, "--partition", WINDOWS.number, "--start",
                                      "none", "--dry-run", "--json", status=1)["mbr"])
        self.assert_unchanged(disk, before)

    def test_undo(self):
        disk = self.disk()
        self.assertEqual(self.answer("undo-list", "undo", "--list", "--json")["changes"], [])
        self.vorlix_ok("hybrid", disk, "--boot-code", self.boot_code, "--partition", WINDOWS.number)
        (change,) = self.answer("undo-list", "undo", "--list", "--json")["changes"]
        plan = self.answer("undo-dry-run", "undo", change["name"], "--dry-run", "--json", status=1)
        self.assertEqual(plan["changes"][-1]["device"], disk)
        self.vorlix_ok("undo", change["folder"], "--no-backup")
        self.assertEqual(self.vorlix_run("undo", change["name"], "--json").returncode, 2)

    def test_the_files_of_a_legacy_start(self):
        folder = self.path("volume")
        for name in ("Windows/Boot/PCAT", "Windows/Boot/Fonts"):
            os.makedirs(os.path.join(folder, name))
            with open(os.path.join(folder, name, "file"), "wb") as file:
                file.write(b"x")
        with open(os.path.join(folder, "Windows/Boot/PCAT/bootmgr"), "wb") as file:
            file.write(b"x")
        store = self.file("BCD", b"x")
        result = self.vorlix_run("legacy-boot", folder, "--bcd", store, "--dry-run", "--json")
        self.assertEqual(result.returncode, 1, result.stderr)
        plan = self.validated("legacy-boot-dry-run", json.loads(result.stdout))
        self.assertTrue(plan["items"])
        self.assertIsNone(plan["bootFolder"])
        os.mkdir(os.path.join(folder, "BOOT"))
        plan = self.answer("legacy-boot-dry-run", "legacy-boot", folder, "--bcd", store, "--dry-run", "--json")
        self.assertEqual((plan["items"], plan["changeNeeded"]), ([], False))

    def test_backups(self):
        volume = f"{self.disk()}s{WINDOWS.number}"
        folder = self.path("saved")
        (plan,) = self.lines("backup", "--dry-run", "--json", volume, folder)
        self.assertEqual(plan["phase"], "plan")
        self.assertEqual([item["phase"] for item in self.lines("backup", "--json", volume, folder)], ["plan", "saved"])
        (verified,) = self.lines("backup", "--verify", folder, "--json")
        self.assertIs(verified["whole"], True)
        self.assertIn("verifying", [item["phase"] for item in self.lines("backup", "--verify", folder, "--progress", "json")])

    def test_every_command_that_looks_or_plans_has_it(self):
        """Of the commands in the help text, only those that change something and have no dry run lack --json, and the one that
        prints a script for a shell."""
        without = {"mount", "unmount", "efi", "vbr save", "boot-code", "run", "completion"}
        text = self.vorlix_ok("--help").stdout
        section = re.search(r"(?ms)^Commands:\n(.*?)(?:\n\n|\Z)", text).group(1)
        for name in re.findall(r"(?m)^  ([a-z][a-z-]*)", section):
            words = {"vbr": ["vbr", "restore"], "archive": ["archive", "show"]}.get(name, [name])
            has_json = "--json" in self.vorlix_ok(*words, "--help").stdout
            self.assertEqual(has_json, name not in without, name)


if __name__ == "__main__":
    images.main()
