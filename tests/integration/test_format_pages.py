#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""docs/formats: what the offsets of the tables give on images of general tools, compared with what those tools print."""

import json
import os
import pathlib
import plistlib
import random
import re
import subprocess
import unittest
import uuid

from support import hive, samples, volumes

PAGES = pathlib.Path(os.environ["VORLIX_SOURCE"]) / "docs" / "formats"
PROBE = os.environ["VORLIX_ARCHIVE_PROBE"]
MISSING = volumes.missing("sgdisk", "sfdisk", "mkntfs", "ntfsinfo", "mkfs.vfat", "fsck.vfat", "blkid", "mkfs.exfat",
                          "dump.exfat", "plistutil", "mtype")
START = 300032  # the LBA where a volume is said to begin
SERIAL = 0x12345678


def rows(page, section):
    """The rows of the first table of a section, as lists of cells."""
    text = (PAGES / page).read_text().split(f"\n## {section}\n")[1].split("\n## ")[0]
    found = []
    for line in text.splitlines():
        if line.startswith("|"):
            found.append([cell.strip() for cell in line.strip("|").split("|")])
        elif found:
            break
    return found[2:]


class Layout:
    """The fields of a table: byte offset, size, field."""

    def __init__(self, page, section):
        self.fields = {row[2]: (int(row[0]), int(row[1])) for row in rows(page, section)}

    def bytes(self, content, name, at=0):
        offset, size = self.fields[name]
        return content[at + offset:at + offset + size]

    def number(self, content, name, at=0):
        return int.from_bytes(self.bytes(content, name, at), "little")

    def guid(self, content, name, at=0):
        return str(uuid.UUID(bytes_le=self.bytes(content, name, at))).upper()


def found(pattern, text):
    match = re.search(pattern, text)
    if match is None:
        raise AssertionError(f"no {pattern} in:\n{text}")
    return match.group(1)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class FormatPages(volumes.VolumeTest):
    def new_file(self, name, size):
        path = self.path(name)
        with open(path, "xb") as file:
            file.truncate(size)
        return path

    def disk(self):
        path = self.path("disk.img")
        samples.make_disk(path, 131072, [samples.Slice(1, 40, 10240, "EF00", "EFI"), samples.Slice(2, 10280, 39721, "0700", "WIN"),
                                         samples.Slice(5, 50001, 40000, "8E00", "more")])
        samples.run("sgdisk", "--hybrid=2:5", path)
        return path

    def check_no_gaps(self, page, section, end):
        """The fields follow one another from byte 0 to the end."""
        at = 0
        for offset, size in Layout(page, section).fields.values():
            self.assertEqual(offset, at, f"{page}, {section}")
            at += size
        self.assertEqual(at, end)

    def test_tables_of_whole_structures_have_no_gaps(self):
        for page, section, end in [("mbr.md", "Sector 0", 512), ("mbr.md", "Slot", 16), ("gpt.md", "Header", 92),
                                   ("gpt.md", "Entry", 128), ("boot-records.md", "Boot record of a volume", 8108)]:
            self.check_no_gaps(page, section, end)

    def test_sector_0_and_slots_as_sfdisk_prints_them(self):
        path = self.disk()
        sector = pathlib.Path(path).read_bytes()[:512]
        top, slot = Layout("mbr.md", "Sector 0"), Layout("mbr.md", "Slot")
        self.assertEqual(top.bytes(sector, "signature"), b"\x55\xaa")
        parts = json.loads(samples.run("sfdisk", "--json", "-Y", "dos", path))["partitiontable"]
        self.assertEqual(int(parts["id"], 16), top.number(sector, "disk signature"))
        begin = top.fields["slots"][0]
        self.assertEqual(len(parts["partitions"]), 3)
        for number, part in enumerate(parts["partitions"]):
            at = begin + 16 * number
            self.assertEqual(slot.number(sector, "first LBA", at), part["start"])
            self.assertEqual(slot.number(sector, "block count", at), part["size"])
            self.assertEqual(slot.number(sector, "type", at), int(part["type"], 16))
            self.assertEqual(slot.number(sector, "flag", at) == 0x80, part.get("bootable", False))
            packed = slot.number(sector, "start sector and cylinder", at)
            if part["start"] >= 63:  # sgdisk has 0/0/1 for the protective entry
                cylinder = packed >> 8 | (packed & 0xC0) << 2
                lba = cylinder * 16065 + slot.number(sector, "start head", at) * 63 + (packed & 63) - 1
                self.assertEqual(lba, part["start"])

    def test_types_of_the_hybrid_mbr_as_sfdisk_prints_them(self):
        windows = samples.Slice(3, 16424, 16384, samples.BASIC_DATA, "WIN")
        volume = self.path("ntfs.img")
        samples.make_ntfs(volume, windows.sectors, "WIN")
        self.assertEqual(len(self.type_rows()), 9)
        for kind, _, mbr_type in self.type_rows():
            path = self.path(f"{kind}.img")
            samples.make_disk(path, 40000, [samples.Slice(1, 40, 8192, "EF00", "EFI"), samples.Slice(2, 8232, 8192, kind, "x"), windows])
            samples.place(path, volume, windows.first)
            result = self.vorlix_run("hybrid", self.give(path), "--partition", 3, "--no-backup", "--force")
            self.assertIn(result.returncode, (0, 1), result.stderr)
            parts = json.loads(samples.run("sfdisk", "--json", "-Y", "dos", path))["partitiontable"]["partitions"]
            written = {part["start"]: part["type"].upper().zfill(2) for part in parts}
            expected = mbr_type.split(",")[0] if "only where" not in mbr_type else "00"
            self.assertEqual(written.get(8232 if expected != "EE" else 1, "00"), expected, kind)

    @staticmethod
    def type_rows():
        text = (PAGES / "mbr.md").read_text().split("| GPT type | name | MBR type |")[1].split("\n\n")[0]
        return [[cell.strip() for cell in line.strip("|").split("|")] for line in text.splitlines()[2:]
                if re.match(r"\| [0-9A-F]{8}-", line)]

    def test_gpt_as_sgdisk_prints_it(self):
        path = self.disk()
        content = pathlib.Path(path).read_bytes()
        header, entry = Layout("gpt.md", "Header"), Layout("gpt.md", "Entry")
        printed = samples.run("sgdisk", "--print", path)
        self.assertEqual(header.bytes(content, "signature", 512), b"EFI PART")
        self.assertEqual(header.guid(content, "disk GUID", 512), found(r"GUID\): (\S+)", printed))
        self.assertEqual(header.number(content, "entry count", 512), int(found(r"holds up to (\d+)", printed)))
        self.assertEqual(header.number(content, "first usable LBA", 512), int(found(r"usable sector is (\d+),", printed)))
        self.assertEqual(header.number(content, "last usable LBA", 512), int(found(r"last usable sector is (\d+)", printed)))
        self.assertEqual(header.number(content, "own LBA", 512), 1)
        self.assertEqual(header.number(content, "other LBA", 512), 131071)
        self.assertEqual(header.number(content, "entry size", 512), 128)
        table = header.number(content, "entries LBA", 512) * 512
        for number in (1, 2, 5):
            text = samples.run("sgdisk", f"--info={number}", path)
            at = table + (number - 1) * 128
            self.assertEqual(entry.guid(content, "type GUID", at), found(r"GUID code: (\S+)", text))
            self.assertEqual(entry.guid(content, "partition GUID", at), found(r"unique GUID: (\S+)", text))
            self.assertEqual(entry.number(content, "first LBA", at), int(found(r"First sector: (\d+)", text)))
            self.assertEqual(entry.number(content, "last LBA", at), int(found(r"Last sector: (\d+)", text)))
            self.assertEqual(entry.number(content, "attributes", at), int(found(r"flags: (\S+)", text), 16))
            name = entry.bytes(content, "name", at).decode("utf-16-le").rstrip("\0")
            self.assertEqual(name, found(r"name: '(.*)'", text))

    def test_ntfs_as_mkntfs_made_it(self):
        path = self.new_file("ntfs.img", 32 << 20)
        samples.run("mkntfs", "-F", "-Q", "-q", "-s", "512", "-c", "8192", "-p", str(START), "-S", "63", "-H", "255", path)
        sector = pathlib.Path(path).read_bytes()[:512]
        ntfs = Layout("boot-sectors.md", "NTFS")
        printed = samples.run("ntfsinfo", "--mft", path)
        self.assertEqual(ntfs.bytes(sector, "name"), b"NTFS    ")
        self.assertEqual(ntfs.number(sector, "bytes per sector"), 512)
        self.assertEqual(ntfs.number(sector, "sectors per cluster"), 16)
        self.assertEqual(ntfs.number(sector, "hidden sectors"), START)
        self.assertEqual(ntfs.number(sector, "sector count"), (32 << 20) // 512 - 1)
        self.assertEqual(ntfs.number(sector, "MFT cluster"), int(found(r"LCN of Data Attribute for FILE_MFT:\s+(\d+)", printed)))
        self.assertEqual(ntfs.number(sector, "MFT mirror cluster"),
                         int(found(r"LCN of Data Attribute for File_MFTMirr:\s+(\d+)", printed)))
        self.assertEqual(1 << 256 - ntfs.number(sector, "record size"), int(found(r"MFT Record Size:\s+(\d+)", printed)))
        self.assertEqual(f"{ntfs.number(sector, 'serial'):016X}", samples.run("blkid", "-o", "value", "-s", "UUID", "-p", path).strip())
        self.assertEqual(sum(ntfs.fields["boot code"]), ntfs.fields["signature"][0])
        self.assertEqual(pathlib.Path(path).read_bytes()[-512:], sector, "the second boot sector")

    def test_fat_as_mkfs_vfat_made_it(self):
        for bits, (size, options) in volumes.FAT_KINDS.items():
            path = self.new_file(f"fat{bits}.img", size)
            samples.run("mkfs.vfat", "-F", str(bits), *options, "-h", str(START), "-i", f"{SERIAL:08x}", path)
            content = pathlib.Path(path).read_bytes()
            common = Layout("boot-sectors.md", "FAT12 and FAT16")
            fat = Layout("boot-sectors.md", "FAT32") if bits == 32 else common
            printed = samples.run("fsck.vfat", "-n", "-v", path)
            self.assertEqual(common.number(content, "bytes per sector"), int(found(r"(\d+) bytes per logical sector", printed)))
            self.assertEqual(common.number(content, "sectors per cluster") * 512, int(found(r"(\d+) bytes per cluster", printed)))
            self.assertEqual(common.number(content, "reserved sectors"), int(found(r"(\d+) reserved sector", printed)))
            self.assertEqual(common.number(content, "tables"), int(found(r"(\d+) FATs", printed)))
            self.assertEqual(common.number(content, "medium"), int(found(r"Media byte 0x(\w+)", printed), 16))
            self.assertEqual(fat.number(content, "sectors per table") * 512, int(found(r"(\d+) bytes per FAT ", printed)))
            self.assertEqual(common.number(content, "hidden sectors"), START)
            count = common.number(content, "short sector count") or common.number(content, "long sector count")
            self.assertEqual(count, int(found(r"(\d+) sectors total", printed)))
            if bits != 32:
                self.assertEqual(common.number(content, "root entries"), int(found(r"(\d+) root directory entries", printed)))
            self.assertEqual(fat.number(content, "serial mark"), 0x29)
            self.assertEqual(fat.number(content, "serial"), SERIAL)
            self.assertEqual(fat.bytes(content, "type").decode(), f"FAT{bits}".ljust(8))
            if bits == 32:
                self.assertEqual(fat.number(content, "root cluster"), int(found(r"Root directory start at cluster (\d+)", printed)))
                second = fat.number(content, "second boot sector") * 512
                self.assertEqual(content[second:second + 512], content[:512])

    def test_exfat_as_mkfs_exfat_made_it(self):
        path = self.new_file("exfat.img", 32 << 20)
        samples.run("mkfs.exfat", path)
        sector = pathlib.Path(path).read_bytes()[:512]
        exfat = Layout("boot-sectors.md", "exFAT")
        printed = samples.run("dump.exfat", path)
        self.assertEqual(exfat.bytes(sector, "name"), b"EXFAT   ")
        for name, pattern in [("sector count", r"Volume Length\(sectors\):\s+(\d+)"),
                              ("table sector", r"FAT Offset\(sector offset\):\s+(\d+)"),
                              ("sectors per table", r"FAT Length\(sectors\):\s+(\d+)"),
                              ("heap sector", r"Cluster Heap Offset \(sector offset\):\s+(\d+)"),
                              ("cluster count", r"Cluster Count:\s+(\d+)"),
                              ("root cluster", r"Root Cluster \(cluster offset\):\s+(\d+)")]:
            self.assertEqual(exfat.number(sector, name), int(found(pattern, printed)), name)
        # Older versions of dump.exfat print the binary logarithms, newer ones the numbers.
        for name, logarithm, number in [("sector shift", r"Sector Size Bits:\s+(\d+)", r"Bytes per Sector:\s+(\d+)"),
                                        ("cluster shift", r"Sector per Cluster bits:\s+(\d+)",
                                         r"Sectors per Cluster:\s+(\d+)")]:
            if "Sector Size Bits" in printed:
                self.assertEqual(exfat.number(sector, name), int(found(logarithm, printed)), name)
            else:
                self.assertEqual(1 << exfat.number(sector, name), int(found(number, printed)), name)
        self.assertEqual(exfat.number(sector, "serial"), int(found(r"Volume Serial:\s+(0x\w+)", printed), 16))

    def test_saved_records_are_the_bytes_that_the_page_names(self):
        volume = self.new_file("ntfs.img", 8 << 20)
        samples.run("mkntfs", "-F", "-Q", "-q", "-s", "512", "-p", str(START), "-S", "63", "-H", "255", volume)
        disk = self.disk()
        samples.write(disk, 0, bytes(range(200)))  # boot code
        for command, source, first, count in [("vbr", volume, 84, 8108), ("boot-code", disk, 0, 446)]:
            saved = self.path(command)
            result = self.vorlix_run(command, "save", self.give(source), saved)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(pathlib.Path(saved).read_bytes(), pathlib.Path(source).read_bytes()[first:first + count])
        record = Layout("boot-records.md", "Boot record of a volume")
        self.assertEqual(record.bytes(pathlib.Path(self.path("vbr")).read_bytes(), "signature"), b"\x55\xaa")

    def test_store_slots_are_where_the_guids_stand_that_sgdisk_prints(self):
        folders = {"EFI": None, "EFI/Microsoft": None, "EFI/Microsoft/Boot": None}
        modes = {row[0]: row[2:] for row in rows("store-slots.md", "Offsets")}
        self.assertEqual(list(modes), list(hive.ELEMENTS))
        for mode, offsets in modes.items():
            disk = self.give(volumes.make_mac(self.path(f"{mode}.img"), folders))
            template = self.file(f"{mode}.template", hive.prepared_store(random.Random(1).randbytes(24576), mode))
            result = self.vorlix_run("bcd", disk, "--partition", volumes.WINDOWS.number, "--template", template, "--mode", mode,
                                     "--no-backup")
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
            store = volumes.mtools("mtype", disk, "::/EFI/Microsoft/Boot/BCD", offset=volumes.EFI_OFFSET)
            info = samples.run("sgdisk", "--print", f"--info={volumes.WINDOWS.number}", disk)
            for pattern, places in zip((r"unique GUID: (\S+)", r"Disk identifier \(GUID\): (\S+)"), offsets):
                guid = uuid.UUID(found(pattern, info)).bytes_le
                at = [match.start() for match in re.finditer(re.escape(guid), store)]
                self.assertEqual(at, sorted(map(int, places.split(", "))), f"{mode}, {pattern}")

    def archive(self, command, record):
        path = self.path("record.archive")
        subprocess.run([PROBE, command, path], input=json.dumps(record), text=True, check=True)
        return path

    def test_keys_of_archives_as_plistutil_prints_them(self):
        identifier = "01234567-89AB-CDEF-0123-456789ABCDEF"
        records = {
            "Volume record": ("encode", {"filePath": "/x", "volumeUUID": identifier}, "QDVolume"),
            "Disk record": ("encode-info", {}, "QDDiskInfo"),
        }
        for section, (command, record, name) in records.items():
            path = self.archive(command, record)
            content = pathlib.Path(path).read_bytes()
            text = samples.run("plistutil", "-i", path)
            archive = plistlib.loads(text.encode(), fmt=plistlib.FMT_XML)
            self.assertEqual([archive[row[0]] for row in rows("keyed-archives.md", "Archive")[:2]], ["NSKeyedArchiver", 100000])
            objects = archive["$objects"]
            self.assertEqual(objects[0], "$null")
            root = objects[archive["$top"]["root"]["CF$UID"]]
            written = [row[0] for row in rows("keyed-archives.md", section) if row[1] != "not written"]
            self.assertEqual([key for key in root if key != "$class"], written)
            self.assertEqual(objects[root["$class"]["CF$UID"]]["$classes"], [name, "NSObject"])
            for key, as_written, _ in rows("keyed-archives.md", section):
                if as_written == "inline boolean":
                    self.assertIsInstance(root[key], bool)
            trailer = {row[2]: (int(row[0].split("- ")[1]), int(row[1])) for row in rows("keyed-archives.md", "Container")
                       if row[0].startswith("end")}
            at = {field: int.from_bytes(content[len(content) - back:len(content) - back + size], "big")
                  for field, (back, size) in trailer.items()}
            self.assertLess(at["root"], at["object count"])
            self.assertEqual(at["offset table"] + at["object count"] * at["offset size"] + 32, len(content))
            os.unlink(path)


if __name__ == "__main__":
    unittest.main()
