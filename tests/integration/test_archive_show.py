#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command `archive show`, compared with plistlib on the same archives, and on hostile archives."""

import json
import os
import pathlib
import plistlib
import random
import subprocess
import sys
import uuid
from plistlib import UID

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support import images  # noqa: E402
from support.keyed_archive import FileURL, Growable, Inline, Reader, Styled, Writer  # noqa: E402

PROBE = os.environ["VORLIX_ARCHIVE_PROBE"]
DATA = pathlib.Path(__file__).resolve().parents[1] / "data/archives"
IDENTIFIER = "00112233-4455-6677-8899-AABBCCDDEEFF"
REFUSAL = "holds no archive of a volume or disk record"

VOLUME_FIELDS = ["diskName", "filePath", "device", "drivePath", "humanSize", "totalSize", "freeSpace", "fileSystemType",
                 "volumeType", "usageDescription", "partitionID", "info", "mbr", "isVM", "vmUsername", "isBootable",
                 "isRemovable", "volumeUUID", "mediaUUID", "mediaContentUUID"]
INFO_FIELDS = ["volumeKind", "volumeMountable", "volumeName", "volumePath", "volumeType", "volumeUUID"]
NEVER_READ = ("fileSystemType",)  # written, but not under the key that is read
FLAGS = ("isVM", "isBootable", "isRemovable", "volumeMountable")
INFO = {"volumeKind": "ntfs", "volumeMountable": Inline(True), "volumeName": "BOOTCAMP",
        "volumePath": FileURL("/Volumes/Caf\u00e9 \u2603"), "volumeType": "NTFS", "volumeUUID": uuid.UUID(IDENTIFIER)}
# The same fields in the form of the probe's input.
INFO_TOLD = {"volumeKind": "ntfs", "volumeMountable": True, "volumeName": "BOOTCAMP",
             "volumePath": {"path": "/Volumes/Caf\u00e9 \u2603"}, "volumeType": "NTFS", "volumeUUID": {"uuid": IDENTIFIER}}


def as_json(value):
    """Converts an entry that plistlib read to the form of the command's JSON."""
    if isinstance(value, (Inline, Growable)):
        return as_json(value.value)
    if isinstance(value, FileURL):
        return value.path
    if isinstance(value, Styled):
        return value.text
    if isinstance(value, uuid.UUID):
        return str(value).upper()
    if isinstance(value, bytes):
        return value.hex().upper()
    return value


def as_xml(archive):
    """Converts an archive to XML, which has no element for references."""
    def plain(value):
        if isinstance(value, UID):
            return {"CF$UID": value.data}
        if isinstance(value, dict):
            return {key: plain(item) for key, item in value.items()}
        return [plain(item) for item in value] if isinstance(value, list) else value
    return plistlib.dumps(plain(plistlib.loads(archive)), fmt=plistlib.FMT_XML)


class ArchiveShow(images.CommandTest):
    def archive(self, content, name="record.archive"):
        path = self.path(name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def show_bounded(self, path, *options):
        limit = None if images.SANITIZED else images.MEMORY_LIMIT
        result = self.vorlix_run("archive", "show", path, *options, timeout=30, memory_limit=limit)
        self.assertIn(result.returncode, (0, 2), f"{path}: {result.returncode} {result.stderr}")
        return result

    def fields(self, content, name):
        """Returns the fields of an archive's record, which must have class `name`."""
        result = self.show_bounded(self.archive(content), "--json")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        document = json.loads(result.stdout)
        self.assertEqual(list(document), ["version", "schema", "class", "fields"])
        self.assertEqual((document["schema"], document["class"]), (1, name))
        self.assertEqual(list(document["fields"]), VOLUME_FIELDS if name == "QDVolume" else INFO_FIELDS)
        return document["fields"]

    def assert_agrees_with_plistlib(self, content, name):
        entries = Reader(content).record(name)
        expected = {key: as_json(entries.get(key)) for key in (VOLUME_FIELDS if name == "QDVolume" else INFO_FIELDS)}
        expected |= {key: None for key in NEVER_READ if key in expected}
        expected |= {key: bool(expected[key]) for key in FLAGS if key in expected}
        self.assertEqual(self.fields(content, name), expected)

    def assert_refused(self, content):
        path = self.archive(content)
        before = images.snapshot(path)
        for options in ((), ("--json",)):
            result = self.show_bounded(path, *options)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertEqual(result.stderr, f"vorlix: {path}: {REFUSAL}\n")
        self.assert_unchanged(path, before)


class Shown(ArchiveShow):
    def test_the_fixtures_agree_with_plistlib(self):
        names = sorted(path.name for path in DATA.glob("*.archive"))
        self.assertGreaterEqual(len(names), 7)
        for name in names:
            with self.subTest(name):
                self.assert_agrees_with_plistlib((DATA / name).read_bytes(), name.split("-")[0])

    def test_archives_of_an_independent_writer(self):
        self.assertEqual(self.fields(Writer().record("QDDiskInfo", INFO), "QDDiskInfo"),
                         {"volumeKind": "ntfs", "volumeMountable": True, "volumeName": "BOOTCAMP",
                          "volumePath": "/Volumes/Caf\u00e9 \u2603", "volumeType": "NTFS", "volumeUUID": IDENTIFIER})
        volume = self.fields(Writer().record("QDVolume", {"diskName": "WINDOWS", "volumeType": "disk", "isVM": Inline(True),
                                                          "mbr": Growable(b"\x33\xc0"), "info": Growable("a\nb")}), "QDVolume")
        self.assertEqual({key: value for key, value in volume.items() if value},
                         {"diskName": "WINDOWS", "volumeType": "disk", "isVM": True, "mbr": "33C0", "info": "a\nb"})

    def test_records_without_entries(self):
        self.assertEqual(self.fields(Writer().record("QDVolume", {}), "QDVolume"),
                         {key: False if key in FLAGS else None for key in VOLUME_FIELDS})
        self.assertEqual(self.fields(Writer().record("QDDiskInfo", {}), "QDDiskInfo"),
                         {key: False if key in FLAGS else None for key in INFO_FIELDS})

    def test_the_librarys_own_disk_record_has_its_entries_in_order(self):
        path = self.path("info.archive")
        for fields, expected in ((INFO_TOLD, INFO), ({}, {key: Inline(False) if key in FLAGS else None for key in INFO})):
            subprocess.run([PROBE, "encode-info", path], input=json.dumps(fields), text=True, check=True)
            with open(path, "rb") as file:
                entries = Reader(file.read()).record("QDDiskInfo")
            self.assertEqual(entries, expected)
            self.assertEqual(list(entries), INFO_FIELDS)

    def test_what_is_written_of_a_disk_record_is_as_in_the_fixtures(self):
        path = self.path("info.archive")
        for name, fields in (("full", INFO_TOLD), ("empty", {})):
            subprocess.run([PROBE, "encode-info", path], input=json.dumps(fields), text=True, check=True)
            with open(path, "rb") as file:
                self.assertEqual(plistlib.load(file), plistlib.loads((DATA / f"QDDiskInfo-{name}-1.archive").read_bytes()))

    def test_in_xml_as_in_binary(self):
        for name in sorted(path.name for path in DATA.glob("*.archive")):
            with self.subTest(name):
                content = (DATA / name).read_bytes()
                kind = name.split("-")[0]
                self.assertEqual(self.fields(as_xml(content), kind), self.fields(content, kind))

    def test_a_number_that_nothing_holds_is_absent_alone(self):
        for number in (1 << 63, (1 << 64) - 1):
            content = Writer().record("QDVolume", {"diskName": "WINDOWS", "isBootable": number, "isRemovable": True,
                                                   "isVM": Inline(number)})
            for kind, archive in (("binary", content), ("XML", as_xml(content))):
                with self.subTest(number=number, kind=kind):
                    fields = self.fields(archive, "QDVolume")
                    self.assertEqual({key: value for key, value in fields.items() if value},
                                     {"diskName": "WINDOWS", "isRemovable": True})

    def test_as_text(self):
        result = self.vorlix_ok("archive", "show", self.archive(Writer().record("QDDiskInfo", INFO)))
        self.assertEqual(result.stdout, "QDDiskInfo\n"
                                        "  volumeKind        ntfs\n"
                                        "  volumeMountable   yes\n"
                                        "  volumeName        BOOTCAMP\n"
                                        "  volumePath        /Volumes/Caf\u00e9 \u2603\n"
                                        "  volumeType        NTFS\n"
                                        f"  volumeUUID        {IDENTIFIER}\n")

    def test_absent_fields_are_left_out_of_the_text(self):
        result = self.vorlix_ok("archive", "show", self.archive(Writer().record("QDVolume", {})))
        self.assertEqual(result.stdout, "QDVolume\n  isVM              no\n  isBootable        no\n  isRemovable       no\n")

    def test_a_field_cannot_command_the_terminal(self):
        text = "\x1b[2J\x07\nQDVolume\x9b"
        content = Writer().record("QDVolume", {"diskName": text, "info": Growable(text)})
        result = self.vorlix_ok("archive", "show", self.archive(content))
        self.assertIn("  diskName          ?[2J??QDVolume?\n", result.stdout)
        self.assertEqual(len(result.stdout.splitlines()), 6)
        self.assertEqual(self.fields(content, "QDVolume")["diskName"], text)

    def test_a_password_is_not_shown(self):
        content = Writer().record("QDVolume", {"vmUsername": "user", "vmPassword": "c2VjcmV0"})
        for options in ((), ("--json",)):
            shown = self.vorlix_ok("archive", "show", self.archive(content), *options).stdout
            self.assertIn("user", shown)
            self.assertNotIn("c2VjcmV0", shown)
            self.assertNotIn("secret", shown)


class Hostile(ArchiveShow):
    ROOT = {"$archiver": "NSKeyedArchiver", "$version": 100000, "$top": {"root": UID(1)}}
    CLASS = {"$classname": "QDVolume", "$classes": ["QDVolume", "NSObject"]}

    def container(self, *objects, **members):
        """An archive with these objects after the null object; QDVolume's class follows them."""
        top = {**self.ROOT, "$objects": ["$null", *objects, self.CLASS], **members}
        return plistlib.dumps(top, fmt=plistlib.FMT_BINARY)

    def volume(self, entries, *objects):
        """An archive of a volume with these entries; the objects have the numbers 2 and up."""
        return self.container({**entries, "$class": UID(2 + len(objects))}, *objects)

    def test_the_helper_makes_good_archives(self):
        self.assertEqual(self.fields(self.volume({"diskName": UID(2)}, "WINDOWS"), "QDVolume")["diskName"], "WINDOWS")

    def test_what_is_no_archive(self):
        noise = random.Random(4).randbytes(100000)
        for content in (b"", b"bplist00", noise, b"bplist00" + noise, b"<plist><dict/></plist>", b"\0" * 40,
                        plistlib.dumps({}, fmt=plistlib.FMT_BINARY), plistlib.dumps([], fmt=plistlib.FMT_BINARY),
                        plistlib.dumps("QDVolume", fmt=plistlib.FMT_BINARY)):
            with self.subTest(content[:20]):
                self.assert_refused(content)

    def test_archives_of_other_classes(self):
        self.assert_refused(Writer().record("QDDisk", {"diskName": "x"}))
        self.assert_refused(Writer().record("NSString", {"NS.string": "x"}))

    def test_roots_that_lead_nowhere(self):
        good = {"diskName": UID(0), "$class": UID(2)}
        for root in (UID(0), UID(2), UID(3), UID(4096), UID((1 << 32) - 1), 1, "root", None):
            with self.subTest(root):
                self.assert_refused(self.container(good, **{"$top": {"root": root} if root is not None else {}}))

    def test_class_references_that_lead_nowhere(self):
        for reference in (UID(0), UID(1), UID(3), UID((1 << 32) - 1), 2, "QDVolume", {}):
            with self.subTest(reference):
                self.assert_refused(self.container({"$class": reference}))
        self.assert_refused(self.container({}))

    def test_objects_that_are_no_list(self):
        for objects in ({}, "x", 1, []):
            with self.subTest(objects):
                self.assert_refused(self.container(**{"$objects": objects}))

    def test_fields_that_lead_nowhere_or_in_circles_are_absent(self):
        cyclic_text = {"NS.string": UID(2), "$class": UID(3)}
        text_class = {"$classname": "NSMutableString", "$classes": ["NSMutableString", "NSString", "NSObject"]}
        for entries, objects in (({"diskName": UID(1)}, ()), ({"diskName": UID(9999)}, ()), ({"mbr": UID(1)}, ()),
                                 ({"diskName": UID(2)}, (cyclic_text, text_class)), ({"diskName": 7}, ()),
                                 ({"volumeUUID": UID(2)}, (b"short",)), ({"isBootable": UID(1)}, ())):
            with self.subTest(entries):
                shown = self.fields(self.volume(entries, *objects), "QDVolume")
                self.assertEqual({key: value for key, value in shown.items() if value}, {})

    def test_styled_text_in_circles_costs_little(self):
        styled = {"NSString": UID(3), "NSAttributes": UID(4), "$class": UID(5)}
        attributes = {"NS.keys": [UID(3)] * 1000, "NS.objects": [UID(4)] * 1000, "$class": UID(6)}
        classes = [{"$classname": name, "$classes": [name, "NSObject"]} for name in ("NSAttributedString", "NSDictionary")]
        content = self.volume({"usageDescription": UID(2), "diskName": UID(3)}, styled, "text", attributes, *classes)
        self.assertEqual(self.fields(content, "QDVolume")["diskName"], "text")

    def test_dictionaries_that_unfold_without_end_cost_little(self):
        # Each of 60 dictionaries refers 20 times to the next.
        styled = {"NSString": UID(3), "NSAttributes": UID(4), "$class": UID(64)}
        nested = [{"NS.keys": [UID(3)] * 20, "NS.objects": [UID(5 + i)] * 20, "$class": UID(65)} for i in range(60)]
        classes = [{"$classname": name, "$classes": [name, "NSObject"]} for name in ("NSAttributedString", "NSDictionary")]
        content = self.volume({"usageDescription": UID(2), "diskName": UID(3)}, styled, "text", *nested, *classes)
        self.assertEqual(self.fields(content, "QDVolume")["diskName"], "text")

    def test_a_property_list_nested_without_end(self):
        deep = []
        for _ in range(400):
            deep = [deep]
        result = self.show_bounded(self.archive(self.volume({"diskName": deep, "device": UID(2)}, "x")), "--json")
        if result.returncode == 2:
            self.assertIn(REFUSAL, result.stderr)
        else:
            self.assertEqual(json.loads(result.stdout)["fields"]["diskName"], None)

    def test_every_truncation_is_refused(self):
        content = (DATA / "QDVolume-full-1.archive").read_bytes()
        for length in range(0, len(content), 61):
            self.assert_refused(content[:length])
        self.assert_refused(content[:-1])

    def test_changed_bytes_never_crash(self):
        content = (DATA / "QDVolume-full-1.archive").read_bytes()
        chance = random.Random(11)
        for _ in range(150):
            changed = bytearray(content)
            for _ in range(chance.randint(1, 4)):
                changed[chance.randrange(len(changed))] = chance.randrange(256)
            result = self.show_bounded(self.archive(changed), "--json")
            if result.returncode == 2:
                self.assertIn(REFUSAL, result.stderr)
            else:
                self.assertEqual(json.loads(result.stdout)["class"], "QDVolume")

    def test_a_header_that_claims_more_than_there_is(self):
        content = bytearray((DATA / "QDVolume-full-1.archive").read_bytes())
        for at in (-24, -16, -8):  # number of objects, top object, place of the offset table; 8 bytes each, big-endian
            for value in (1 << 63, (1 << 64) - 1, 1 << 32, 1 << 40):
                changed = content[:]
                changed[len(changed) + at : len(changed) + at + 8 or None] = value.to_bytes(8, "big")
                with self.subTest(at=at, value=value):
                    self.assert_refused(changed)


class Files(ArchiveShow):
    def assert_error(self, path, reason):
        result = self.show_bounded(path)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr, f"vorlix: {path}: {reason}\n")

    def test_a_missing_file_a_folder_and_what_never_ends(self):
        self.assert_error(self.path("missing"), "No such file or directory")
        self.assert_error(self.folder, "not a regular file")
        os.mkfifo(self.path("pipe"))
        self.assert_error(self.path("pipe"), "not a regular file")
        self.assert_error("/dev/zero", "not a regular file")

    def test_a_file_of_more_than_16_mib_is_not_read(self):
        path = self.archive(b"bplist00")
        os.truncate(path, (16 << 20) + 1)
        self.assert_error(path, "larger than the limit of 16.78 MB (16777216 bytes)")
        os.truncate(path, 1 << 40)
        self.assert_error(path, "larger than the limit of 16.78 MB (16777216 bytes)")

    def test_wrong_arguments(self):
        for arguments in (["archive"], ["archive", "show"], ["archive", "list"], ["archive", "show", "a", "b"]):
            result = self.vorlix_run(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            self.assertNotEqual(result.stderr, "", arguments)


if __name__ == "__main__":
    images.main()
