#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Archives of volume records: plistlib and plistutil read ours, and we read those of an independent writer."""

import base64
import json
import os
import pathlib
import plistlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import uuid

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support.keyed_archive import FileURL, Growable, Inline, Reader, Styled, Writer  # noqa: E402

PROBE = os.environ["VORLIX_ARCHIVE_PROBE"]
DATA = pathlib.Path(__file__).resolve().parents[1] / "data/archives"

FULL = {
    "mbr": {"hex": "33c08ed0bc007c"},
    "partitionID": "C12A7328-F81F-11D2-BA4B-00A0C93EC93B",
    "filePath": "/Volumes/Caf\u00e9 \u2603 \U0001f600",
    "device": "/dev/disk2s3",
    "drivePath": "/dev/disk2",
    "info": "first\nsecond",
    "diskName": "WINDOWS",
    "usageDescription": [
        {"text": "Start ", "attributes": {"Font": "Helvetica", "Size": 12}},
        {"text": "\U0001f600\u2603", "attributes": {}},
        {"text": " end", "attributes": {"Link": {"path": "/a b"}, "On": True, "Raw": {"hex": "00ff"},
                                        "ID": {"uuid": "00112233-4455-6677-8899-AABBCCDDEEFF"}, "More": {"Deep": -1}}},
    ],
    "isVM": True,
    "vmUsername": "user",
    "vmPassword": "p\u00e4ss",
    "humanSize": "1.50 GB",
    "fileSystemType": "ntfs",
    "freeSpace": "1000",
    "totalSize": "1500000000",
    "isBootable": True,
    "isRemovable": False,
    "volumeUUID": "00112233-4455-6677-8899-AABBCCDDEEFF",
    "mediaUUID": "FFEEDDCC-BBAA-9988-7766-554433221100",
    "mediaContentUUID": "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7",
}
KEYS = ["mbr", "partitionID", "filePath", "device", "drivePath", "info", "diskName", "usageDescription", "isVM",
        "vmUsername", "vmPassword", "humanSize", "fileSystemType", "freeSpace", "totalSize", "isBootable", "isRemovable",
        "volumeUUID", "mediaUUID", "mediaContentUUID"]
NEVER_WRITTEN = {"volumeType": "disk", "showLine": True, "hasWindows": True, "hasWindows8orGreater": True,
                 "isWritable": True, "mediaSize": "2 GB", "installedOS": "Windows", "networkShare": "//server/share",
                 "bootResourcePath": "/boot", "bootMgrPath": "/bootmgr"}
# The entries in an archive of FULL.
WRITTEN = {
    "mbr": Growable(bytes.fromhex("33c08ed0bc007c")),
    "partitionID": Growable(FULL["partitionID"]),
    "filePath": FULL["filePath"],
    "device": "/dev/disk2s3",
    "drivePath": "/dev/disk2",
    "info": Growable("first\nsecond"),
    "diskName": "WINDOWS",
    "usageDescription": Styled("Start \U0001f600\u2603 end", (
        (6, {"Font": "Helvetica", "Size": 12}),
        (3, {}),
        (4, {"ID": uuid.UUID(FULL["volumeUUID"]), "Link": FileURL("/a b"), "More": {"Deep": -1}, "On": True,
             "Raw": b"\x00\xff"}))),
    "isVM": Inline(True),
    "vmUsername": "user",
    "vmPassword": base64.b64encode("p\u00e4ss".encode()).decode(),
    "humanSize": "1.50 GB",
    "fileSystemType": "ntfs",
    "freeSpace": "1000",
    "totalSize": "1500000000",
    "isBootable": True,
    "isRemovable": False,
    "volumeUUID": uuid.UUID(FULL["volumeUUID"]),
    "mediaUUID": uuid.UUID(FULL["mediaUUID"]),
    "mediaContentUUID": uuid.UUID(FULL["mediaContentUUID"]),
}
# The fields of the record decoded from that archive.
DECODED = {key: value for key, value in FULL.items() if key not in ("vmPassword", "fileSystemType")} | {
    "usageDescription": {
        "text": "Start \U0001f600\u2603 end",
        "runs": [{"location": 0, "length": 6, "attributes": FULL["usageDescription"][0]["attributes"]},
                 {"location": 6, "length": 3, "attributes": {}},
                 {"location": 9, "length": 4, "attributes": FULL["usageDescription"][2]["attributes"]}]},
    "showLine": False, "hasWindows": False, "hasWindows8orGreater": False, "isWritable": False, "filesystemSize": 0}
EMPTY = {"isVM": False, "isBootable": False, "isRemovable": False, "showLine": False, "hasWindows": False,
         "hasWindows8orGreater": False, "isWritable": False, "filesystemSize": 0}


class Archives(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.file = pathlib.Path(folder.name) / "volume.archive"

    def encode(self, fields, *options):
        subprocess.run([PROBE, "encode", self.file, *options], input=json.dumps(fields), text=True, check=True)
        return self.file.read_bytes()

    def decode(self, data):
        """Returns the decoded record's fields; None if the library decodes no record."""
        self.file.write_bytes(data)
        result = subprocess.run([PROBE, "decode", self.file], text=True, capture_output=True)
        self.assertIn(result.returncode, (0, 1), result.stderr)
        return json.loads(result.stdout) if result.returncode == 0 else None


class Encoded(Archives):
    def test_a_full_record_is_as_the_container_is_described(self):
        entries = Reader(self.encode(FULL | NEVER_WRITTEN)).record("QDVolume")
        self.assertEqual(entries, WRITTEN)
        self.assertIs(type(entries["isBootable"]), bool)

    def test_an_empty_record_has_every_entry_absent_or_false(self):
        entries = Reader(self.encode({})).record("QDVolume")
        flags = {"isVM": Inline(False), "isBootable": False, "isRemovable": False}
        self.assertEqual(entries, {key: None for key in KEYS} | flags)

    def test_each_field_alone(self):
        for key in KEYS:
            with self.subTest(key):
                entries = Reader(self.encode({key: FULL[key]})).record("QDVolume")
                flags = {"isVM": Inline(False), "isBootable": False, "isRemovable": False}
                self.assertEqual(entries, {other: None for other in KEYS} | flags | {key: WRITTEN[key]})

    def test_a_copys_buffer_and_partition_id_are_immutable(self):
        entries = Reader(self.encode(FULL, "copy")).record("QDVolume")
        self.assertEqual(entries, WRITTEN | {"mbr": WRITTEN["mbr"].value, "partitionID": FULL["partitionID"]})

    def test_styled_text_of_one_run_and_of_none(self):
        for runs in ([], [{"text": "all", "attributes": {"Size": 1}}], [{"text": "all", "attributes": {}}]):
            with self.subTest(runs):
                styled = Reader(self.encode({"usageDescription": runs})).record("QDVolume")["usageDescription"]
                expected = Styled("all", ((3, runs[0]["attributes"]),)) if runs else Styled("", ())
                self.assertEqual(styled, expected)

    def test_lists_and_fractions_among_attributes(self):
        attributes = {"Half": 0.5, "List": [16, "Preboot", {"In": [True]}, []]}
        entries = Reader(self.encode({"usageDescription": [{"text": "all", "attributes": attributes}]})).record("QDVolume")
        self.assertEqual(entries["usageDescription"], Styled("all", ((3, attributes),)))
        archive = Writer().record("QDVolume", {"usageDescription": Styled("all", ((3, attributes),))})
        self.assertEqual(self.decode(archive)["usageDescription"]["runs"][0]["attributes"], attributes)

    def test_a_long_run_takes_several_groups(self):
        runs = [{"text": "x" * 20000, "attributes": {"Size": 1}}, {"text": "y", "attributes": {}}]
        styled = Reader(self.encode({"usageDescription": runs})).record("QDVolume")["usageDescription"]
        self.assertEqual([length for length, _ in styled.runs], [20000, 1])

    def test_equal_texts_are_one_object(self):
        top = plistlib.loads(self.encode({"filePath": "same", "device": "same", "diskName": "same"}))
        self.assertEqual(top["$objects"].count("same"), 1)

    @unittest.skipIf(shutil.which("plistutil") is None, "plistutil is not installed")
    def test_plistutil_reads_it(self):
        self.encode(FULL)
        xml = subprocess.run(["plistutil", "-i", self.file, "-f", "xml"], check=True, capture_output=True).stdout
        self.assertIn(b"<key>$archiver</key>\n\t<string>NSKeyedArchiver</string>", xml)
        for key in KEYS:
            self.assertIn(f"<key>{key}</key>".encode(), xml)
        self.assertIn(FULL["filePath"].encode(), xml)

    @unittest.skipIf(shutil.which("file") is None, "file is not installed")
    def test_file_knows_its_type(self):
        self.encode(FULL)
        told = subprocess.run(["file", "-b", self.file], check=True, capture_output=True, text=True).stdout
        self.assertIn("binary property list", told)


class Decoded(Archives):
    def test_a_full_record(self):
        self.assertEqual(self.decode(Writer().record("QDVolume", WRITTEN)), DECODED)

    def test_a_record_without_entries(self):
        self.assertEqual(self.decode(Writer().record("QDVolume", {})), EMPTY)

    def test_each_entry_alone(self):
        for key in KEYS:
            with self.subTest(key):
                expected = EMPTY | ({key: DECODED[key]} if key in DECODED else {})
                self.assertEqual(self.decode(Writer().record("QDVolume", {key: WRITTEN[key]})), expected)

    def test_immutable_and_growable_kinds_are_the_same_to_a_reader(self):
        entries = WRITTEN | {"mbr": WRITTEN["mbr"].value, "info": WRITTEN["info"].value, "device": Growable("/dev/disk2s3")}
        self.assertEqual(self.decode(Writer().record("QDVolume", entries)), DECODED)

    def test_unknown_entries_are_passed_over(self):
        entries = WRITTEN | {"later": None, "future": "text", "count": Inline(7), "real": 0.5}
        self.assertEqual(self.decode(Writer().record("QDVolume", entries)), DECODED)

    def test_the_volume_type_is_read(self):
        self.assertEqual(self.decode(Writer().record("QDVolume", {"volumeType": "disk"})), EMPTY | {"volumeType": "disk"})

    def test_the_map_name_gives_no_file_system_type(self):
        self.assertEqual(self.decode(Writer().record("QDVolume", {"MVMapName": "ntfs"})), EMPTY)

    def test_entries_of_other_kinds_are_absent(self):
        wrong = {key: {"a": "dictionary"} for key in KEYS}
        self.assertEqual(self.decode(Writer().record("QDVolume", wrong)), EMPTY)

    def test_a_record_of_another_class_is_none(self):
        self.assertIsNone(self.decode(Writer().record("QDDiskInfo", WRITTEN)))

    def test_what_is_no_archive_is_none(self):
        self.assertIsNone(self.decode(b""))
        self.assertIsNone(self.decode(plistlib.dumps({"$archiver": "NSKeyedArchiver"}, fmt=plistlib.FMT_BINARY)))
        self.assertIsNone(self.decode(b"<plist><dict/></plist>"))


class Fixtures(Archives):
    """Stored archives stay readable, and today's archives have the same objects in the same places."""

    def test_the_fixtures_are_read(self):
        expected = {"QDVolume-full-1.archive": DECODED, "QDVolume-empty-1.archive": EMPTY,
                    "QDVolume-copy-1.archive": DECODED, "QDVolume-python-1.archive": DECODED}
        self.assertEqual({path.name for path in DATA.glob("QDVolume-*.archive")}, set(expected))
        for name, fields in expected.items():
            with self.subTest(name):
                self.assertEqual(self.decode((DATA / name).read_bytes()), fields)

    def test_what_is_written_is_as_in_the_fixtures(self):
        for name, fields, options in (("full", FULL, []), ("empty", {}, []), ("copy", FULL, ["copy"])):
            with self.subTest(name):
                fixture = plistlib.loads((DATA / f"QDVolume-{name}-1.archive").read_bytes())
                self.assertEqual(plistlib.loads(self.encode(fields, *options)), fixture)


if __name__ == "__main__":
    unittest.main()
