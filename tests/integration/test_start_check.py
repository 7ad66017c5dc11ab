# SPDX-License-Identifier: Apache-2.0
"""
`vorlix check`: each way in which a disk fails to start has its code, and a disk without it has not.

Other tools make the disks (sgdisk, mkntfs, mkfs.vfat, mtools) and the faults (sgdisk, dd-like writes of bytes). The tables
that a sound disk has are computed by support/gpt.py from what sfdisk reads.
"""

import contextlib
import functools
import json
import os
import struct
import subprocess
import unittest

from support import gpt, hive, images, samples, tools, volumes
from test_boot_store import BOOT_TREE, STORE, identifiers

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "mkntfs", "mmd", "mcopy", "setpriv")

WINDOWS = volumes.WINDOWS
START = WINDOWS.first * 512
SIZE = WINDOWS.sectors * 512
LAST = START + SIZE - 512  # the second boot sector
DISK_END = volumes.DISK_SECTORS * 512
SIGNATURE = b"\xC0\xFF\xEE\x01"
BOOT_CODE = b"\x90" * 440 + SIGNATURE + b"\0\0"
LEGACY_TREE = {"bootmgr": b"loader" * 99, "Boot": None}


@functools.lru_cache(maxsize=None)
def ntfs(more=()):
    """
    The volume of a Windows that sound() starts, with its boot manager and a store, and more files as pairs of path and bytes.

    The store names the volume twice, so that it still does after a test has changed the MBR or the GPT's identifiers.
    """
    guids = identifiers(volumes.partitioned_disk())
    store = bytearray(hive.store_naming((guids["P"], guids["D"]), (guids["P"], guids["D"])))
    second = hive.device_element(struct.pack("<Q", START).ljust(16, b"\0"), SIGNATURE.ljust(16, b"\0"), True)
    at = store.rfind(hive.device_element(guids["P"], guids["D"], False))
    store[at:at + len(second)] = second
    path = volumes.make_ntfs(os.path.join(volumes.template_folder(), f"start{ntfs.cache_info().currsize}.ntfs"), SIZE,
                             {"BOOTMGR": b"loader", "Boot/BCD": bytes(store), **dict(more)}, start=WINDOWS.first)
    with open(path, "rb") as file:
        return file.read()


def bare_ntfs(*options, boot_code=True):
    """A volume without files. Without boot code of our own it has that of mkntfs."""
    path = os.path.join(volumes.template_folder(), "bare.ntfs")
    with open(path, "wb") as file:
        file.truncate(SIZE)
    images.run_tool("mkntfs", "-F", "-f", "-q", "-p", WINDOWS.first, "-H", "255", "-S", "63", *options, path)
    if boot_code:
        samples.put_boot_code(path)
    with open(path, "rb") as file:
        return file.read()


@functools.lru_cache(maxsize=None)
def fat(tree):
    """A FAT volume with these files, whose boot sector fits the place of the Windows volume."""
    path = os.path.join(volumes.template_folder(), f"start{fat.cache_info().currsize}.fat")
    with open(path, "wb") as file:
        file.truncate(SIZE)
    images.run_tool("mkfs.vfat", "-F", 16, "-s", 1, "-h", WINDOWS.first, path)
    samples.put_boot_code(path)
    volumes.put_tree(path, dict(tree))
    with open(path, "rb") as file:
        return file.read()


class StartTest(volumes.VolumeTest):
    def sound(self, name="mac.img", tree=None, volume=None):
        """A disk that a BIOS starts: boot code, hybrid MBR, and a volume with right boot sectors."""
        path = self.give(volumes.make_mac(self.path(name), BOOT_TREE if tree is None else tree))
        tools.write_sparse(path, START, volume or ntfs())
        self.write_mbr(path)
        return path

    def write_mbr(self, path, active=WINDOWS.number):
        gpt.write_at(path, 0, gpt.sector0(BOOT_CODE, gpt.hybrid_slots(tools.entries_by_sfdisk(path), active)))

    def report(self, path, *options, status):
        before = images.snapshot(path)
        result = self.vorlix_run("check", path, "--json", *options)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        self.assert_unchanged(path, before)
        self.assert_nothing_mounted()
        document = json.loads(result.stdout)
        self.assertEqual(document["version"], 1)
        self.assertEqual(document["starts"], status == 0)
        return document

    def assert_nothing_mounted(self):
        self.assertEqual(self.mounted_folders(), self.mounted_before)

    def assert_sound(self, path, *options):
        document = self.report(path, *(options or ("--partition", WINDOWS.number)), status=0)
        self.assertEqual([item for item in document["findings"] if item["state"] == "fault"], [])
        return document

    def assert_faults(self, path, expected, *options):
        """Exactly these codes are faults. Each says why, and names a command."""
        document = self.report(path, *(options or ("--partition", WINDOWS.number)), status=1)
        faults = [item for item in document["findings"] if item["state"] == "fault"]
        self.assertEqual(sorted(item["code"] for item in faults), sorted(expected))
        for item in faults:
            self.assertTrue(item["text"] and item["why"] and item["command"], item)
        return document

    @contextlib.contextmanager
    def changed(self, path, *writes):
        """The disk with other bytes at some offsets, for as long as the block takes."""
        before = [(offset, gpt.read_at(path, offset, len(data))) for offset, data in writes]
        for offset, data in writes:
            gpt.write_at(path, offset, data)
        yield
        for offset, data in before:
            gpt.write_at(path, offset, data)

    def assert_each(self, path, wrong, *options):
        self.assert_sound(path, *options)
        for expected, writes in wrong:
            with self.subTest(expected), self.changed(path, *writes):
                self.assert_faults(path, expected, *options)
        self.assert_sound(path, *options)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Legacy(StartTest):
    def slot(self, number):
        return 446 + 16 * (number - 1)

    def test_mbr_and_boot_code(self):
        path = self.sound()
        boot_sector = volumes.make_fat(self.path("fat"))
        self.assert_each(path, [
            (["mbr-missing"], [(510, bytes(2))]),
            (["mbr-is-volume"], [(0, samples.read(boot_sector, 0, 446))]),
            (["mbr-differs"], [(self.slot(2) + 12, struct.pack("<I", 77))]),
            (["mbr-differs", "active-none"], [(self.slot(3), b"\0")]),
            (["mbr-differs", "active-several"], [(self.slot(2), b"\x80")]),
            (["mbr-differs", "active-other"], [(self.slot(3), b"\0"), (self.slot(2), b"\x80")]),
            (["boot-code-missing"], [(0, bytes(440))]),
        ])

    def test_boot_sector(self):
        path = self.sound()
        boot = gpt.read_at(path, START, 512)
        self.assertEqual(gpt.read_at(path, LAST, 512), boot)

        def both(sector):
            return [(START, sector), (LAST, sector)]

        self.assert_each(path, [
            (["boot-sector-signature"], both(boot[:510] + bytes(2))),
            (["hidden-sectors"], both(boot[:28] + struct.pack("<I", 63) + boot[32:])),
            (["second-differs"], [(LAST + 28, struct.pack("<I", 63))]),
            (["second-lost"], [(LAST, bytes(512))]),
            (["volume-code-missing"], both(boot[:84] + bytes(426) + boot[510:])),
            (["volume-blank"], [(START, bytes(512))]),
            (["volume-not-windows"], [(START, boot[:3] + b"EXFAT   " + boot[11:])]),
        ])

    def test_boot_code_that_only_prints_a_message(self):
        """As the tools that make file systems write it. Code with the same text that is not it counts as boot code."""
        path = self.sound()
        sound = gpt.read_at(path, START, 512)
        made = bare_ntfs(boot_code=False)[:512]
        self.assertIn(b"This is not a bootable disk", made)
        with_message = sound[:84] + made[84:510] + sound[510:]
        with self.changed(path, (START, with_message), (LAST, with_message)):
            document = self.assert_faults(path, ["volume-code-message"])
            (fault,) = [item for item in document["findings"] if item["state"] == "fault"]
            self.assertEqual(fault["area"], "volume-code")
            self.assertIn("vorlix vbr restore FILE", fault["command"])
            efi = self.report(path, "--partition", WINDOWS.number, "--start", "efi", status=1)
            self.assertNotIn("volume-code", [item["area"] for item in efi["findings"]])
        text = made[made.index(b"This is"):510]
        loader = sound[:84] + b"\xfa\x33\xc0\x8e\xd0\xbc\x00\x7c\xfb\x68\xc0\x07\x1f\x1e\x68\x66\x00\xcb".ljust(200, b"\x90") + text
        loader = loader[:510].ljust(510, b"\0") + sound[510:]
        with self.changed(path, (START, loader), (LAST, loader)):
            self.assert_sound(path)

    def test_boot_code_of_mkfs_fat(self):
        for bits, options in ((16, ()), (32, ()), (16, ("text",))):
            with self.subTest(bits=bits, options=options):
                volume = self.path("volume.fat")
                with open(volume, "wb") as file:
                    file.truncate(SIZE)
                message = self.path("message")
                with open(message, "w", encoding="ascii") as file:
                    file.write("Take this disk out.\n")
                images.run_tool("mkfs.vfat", "-F", bits, "-s", 1, "-h", WINDOWS.first,
                                *(("-m", message) if options else ()), volume)
                with open(volume, "rb") as file:
                    path = self.sound(name=f"{bits}{len(options)}.img", volume=file.read())
                self.assertIn("volume-code-message", [item.get("code") for item in self.report(
                    path, "--partition", WINDOWS.number, status=1)["findings"]])

    def test_type_of_the_partition(self):
        path = self.sound()
        for code, expected in (("AF00", ["mbr-differs", "volume-type"]), ("0700", [])):
            tools.sgdisk(path, "-t", f"3:{code}")
            gpt.write_at(path, 0, gpt.sector0(BOOT_CODE, gpt.hybrid_slots([*tools.entries_by_sfdisk(path)[:2], gpt.Entry(
                gpt.BASIC_DATA, WINDOWS.first, WINDOWS.first + WINDOWS.sectors - 1)], WINDOWS.number)))
            if expected:
                self.assert_faults(path, expected)
            else:
                self.assert_sound(path)

    def test_gpt(self):
        path = self.sound()
        header = gpt.read_at(path, DISK_END - 512, 512)
        self.assertEqual(header[:8], b"EFI PART")
        entries = struct.unpack_from("<Q", header, 72)[0] * 512
        self.assert_each(path, [
            (["gpt-header-checksum", "gpt-backup-differs"], [(512 + 57, b"\xA5")]),
            (["gpt-entries-checksum"], [(1024 + 3 * 128 + 60, b"\xA5")]),
            (["gpt-backup-damaged"], [(DISK_END - 512 + 57, b"\xA5")]),
            (["gpt-backup-entries"], [(entries + 3 * 128 + 60, b"\xA5")]),
            (["gpt-backup-missing"], [(DISK_END - 512, bytes(512))]),
            (["gpt-primary-missing"], [(512, bytes(512))]),
        ])

    def test_entries_that_overlap(self):
        far = gpt.Entry(gpt.BASIC_DATA, WINDOWS.first, WINDOWS.first + WINDOWS.sectors - 1)
        for apple, expected in (((30000, WINDOWS.first), ["gpt-overlap", "slots-overlap"]), ((30000, WINDOWS.first - 1), [])):
            entries = [gpt.Entry(gpt.EFI_SYSTEM, 40, 20479), gpt.Entry(gpt.APFS, *apple), far]
            path = gpt.Table(entries=entries).write(self.path("overlap.img"))
            self.give(path)
            tools.write_sparse(path, START, ntfs())
            gpt.write_at(path, 0, gpt.sector0(BOOT_CODE, gpt.hybrid_slots(entries, WINDOWS.number)))
            if expected:
                self.assert_faults(path, expected)
            else:
                self.assert_sound(path)

    def large(self, name, *entries, blocks):
        path = self.path(name)
        try:
            gpt.Table(blocks=blocks, entries=list(entries)).write(path)
        except OSError as error:
            self.skipTest(f"the file system cannot hold a sparse file of {blocks * 512} bytes: {error}")
        gpt.write_at(path, 0, gpt.sector0(BOOT_CODE, gpt.hybrid_slots(list(entries), WINDOWS.number)))
        return self.give(path)

    def test_entries_beyond_32_bits(self):
        """The low half of sector 2**32 + 40000 is a place inside another partition."""
        efi, apple = gpt.Entry(gpt.EFI_SYSTEM, 40, 20479), gpt.Entry(gpt.APFS, 20480, WINDOWS.first - 1)
        here = gpt.Entry(gpt.BASIC_DATA, WINDOWS.first, WINDOWS.first + WINDOWS.sectors - 1)
        blocks = 2**32 + 200000
        for number, first in enumerate((2**32 + 40000, 2**32 - 4096)):
            path = self.large(f"fourth{number}.img", efi, apple, here, gpt.Entry(gpt.BASIC_DATA, first, first + 2047), blocks=blocks)
            tools.write_sparse(path, START, ntfs())
            if first > 2**32:
                self.assert_faults(path, ["phantom-slot"])
            else:
                self.assert_sound(path)
        far = gpt.Entry(gpt.BASIC_DATA, 2**32 + 40000, 2**32 + 40000 + WINDOWS.sectors - 1)
        self.assert_faults(self.large("third.img", efi, apple, far, blocks=blocks), ["phantom-slot", "volume-beyond-32-bits"])

    def test_a_disk_that_was_cut_short(self):
        path = self.sound()
        os.truncate(path, START)
        self.assert_faults(path, ["gpt-disk-truncated", "gpt-backup-missing", "gpt-entry-beyond-disk", "volume-beyond-disk"])

    def test_a_disk_that_was_cut_short_within_the_volume(self):
        """Nothing else of the volume is looked at, and no command can mend it, least of all one that writes to it."""
        path = self.sound()
        os.truncate(path, START + 4096 * 512)
        document = self.assert_faults(
            path, ["gpt-disk-truncated", "gpt-backup-missing", "gpt-entry-beyond-disk", "volume-beyond-disk"])
        self.assertEqual({item["command"] for item in document["findings"] if item["state"] == "fault"},
                         {"copy the whole disk or image again, to one that is large enough"})

    def test_a_disk_that_is_only_too_short_for_the_second_table(self):
        path = self.sound()
        os.truncate(path, DISK_END - 60 * 512)
        document = self.assert_faults(path, ["gpt-disk-truncated", "gpt-backup-missing"])
        self.assertEqual({item["command"] for item in document["findings"] if item["state"] == "fault"}, {f"gdisk {path}"})

    def test_no_slot_for_the_volume(self):
        path = self.path("five.img")
        with open(path, "wb") as file:
            file.truncate(DISK_END)
        last = WINDOWS.first + WINDOWS.sectors - 1
        tools.sgdisk(path, "-a", "1", "-n", "1:40:20479", "-t", "1:EF00", "-n", f"5:{WINDOWS.first}:{last}", "-t", "5:0700")
        self.give(path)
        tools.write_sparse(path, START, ntfs())
        document = self.report(path, "--partition", 5, status=1)
        self.assertIn("volume-without-slot", [item.get("code") for item in document["findings"]])
        tools.sgdisk(path, "--transpose=5:3")
        self.write_mbr(path)
        self.assert_sound(path)

    def test_the_efi_system_partition_is_not_first(self):
        path = self.sound()
        tools.sgdisk(path, "--transpose=1:2")
        self.assert_faults(path, ["first-entry-not-efi"])
        tools.sgdisk(path, "--transpose=1:2")
        self.write_mbr(path)  # sgdisk writes a protective one
        self.assert_sound(path)

    def test_boot_files_on_a_fat_volume(self):
        guids = identifiers(self.sound())
        place = struct.pack("<Q", START).ljust(16, b"\0")
        signature = BOOT_CODE[440:444].ljust(16, b"\0")
        right = hive.store_naming((place, signature), mbr=True)
        damaged = right[:508] + bytes([right[508] ^ 1]) + right[509:]
        cases = [
            ([], {**LEGACY_TREE, "Boot/BCD": right}),
            ([], {**LEGACY_TREE, "Boot/BCD": hive.store_naming((guids["P"], guids["D"]))}),
            (["boot-manager-missing"], {"BOOT": None, "BOOT/bcd": right}),
            (["boot-manager-missing"], {"bootmgr": None, "Boot": None, "Boot/BCD": right}),  # a folder is no boot manager
            (["legacy-store-missing"], {"bootmgr": b"loader"}),
            (["legacy-store-missing"], LEGACY_TREE),
            (["legacy-store-damaged"], {**LEGACY_TREE, "Boot/BCD": damaged}),
            (["legacy-store-empty"], {**LEGACY_TREE, "Boot/BCD": hive.store_naming()}),
            (["legacy-store-disk"], {**LEGACY_TREE, "Boot/BCD": hive.store_naming((place, b"\x11" * 16), mbr=True)}),
            (["legacy-store-partition"], {**LEGACY_TREE, "Boot/BCD": hive.store_naming((bytes(16), signature), mbr=True)}),
        ]
        for number, (expected, tree) in enumerate(cases):
            with self.subTest(expected=expected, number=number):
                path = self.sound(f"disk{number}.img", volume=fat(tuple(tree.items())))
                if expected:
                    self.assert_faults(path, expected)
                else:
                    self.assert_sound(path)

    def test_what_cannot_be_seen_is_not_called_right(self):
        document = self.assert_sound(self.sound(volume=bare_ntfs("-c", 512)))
        unseen = {item["area"]: item["text"] for item in document["findings"] if item["state"] == "unseen"}
        self.assertIn("its clusters have 512 bytes", unseen["boot-files"])
        self.assertNotIn("volume-state", unseen)  # the file system's records tell
        self.assertEqual([item for item in document["findings"] if item["area"] == "boot-files" and item["state"] == "ok"], [])

    def test_boot_files_of_a_volume_that_is_not_mounted(self):
        path = self.sound(volume=bare_ntfs())
        self.assert_faults(path, ["boot-manager-missing", "legacy-store-missing"])
        document = self.assert_sound(self.sound("full.img"))
        texts = {item["area"]: item["text"] for item in document["findings"] if item["state"] == "ok"}
        self.assertIn("bootmgr is on", texts["boot-files"])
        self.assertIn("names this disk", texts["legacy-store"])

    def test_a_windows_with_boot_files_of_its_own_mends_missing_ones(self):
        """The command that check names is the one that makes them from these files."""
        tree = {"Windows/Boot/PCAT/bootmgr": b"manager", "Windows/System32/winload.exe": b"loader",
                "Windows/System32/config/BCD-Template": b"template"}
        own = f"--partition {WINDOWS.number} --from-windows --firmware bios"
        for number, (files, words) in enumerate(((tree, own), ({**tree, "BOOTMGR": b"loader"}, own),
                                                 (dict(list(tree.items())[:2]), "vorlix legacy-boot "))):
            with self.subTest(files=files):
                volume = volumes.make_ntfs(self.path("volume.ntfs"), SIZE, files, start=WINDOWS.first)
                with open(volume, "rb") as file:
                    path = self.sound(f"{number}.img", volume=file.read())
                expected = ["legacy-store-missing"] + ([] if "BOOTMGR" in files else ["boot-manager-missing"])
                document = self.assert_faults(path, expected)
                for fault in document["findings"]:
                    if fault.get("code") in expected:
                        self.assertIn(words, fault["command"])

    def test_without_a_partition(self):
        path = self.sound()
        self.assertEqual(self.assert_sound(path, "--start", "auto")["partition"], WINDOWS.number)
        with self.changed(path, (self.slot(3), b"\0")):
            self.assertEqual(self.report(path, status=1)["partition"], WINDOWS.number)  # the only one of the type
        tools.sgdisk(path, "-t", "2:0700")
        gpt.write_at(path, self.slot(3), b"\0")
        document = self.report(path, status=1)
        self.assertIsNone(document["partition"])
        self.assertIn({"area": "volume", "state": "unseen", "text": "GPT entries 2, 3 may hold Windows; --partition names one"},
                      document["findings"])

    def test_a_relative_name(self):
        self.sound(volume=fat(tuple({**LEGACY_TREE}.items())))
        result = subprocess.run([*self.prefix(), self.vorlix, "check", "mac.img", "--json"], cwd=self.folder,
                                capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual([item["code"] for item in json.loads(result.stdout)["findings"] if item["state"] == "fault"],
                         ["legacy-store-missing"])

    def test_text(self):
        path = self.sound()
        text = self.vorlix_ok("check", path).stdout
        self.assertRegex(text, "(?m)^Active slot  ok      slot 3 alone$")
        self.assertNotIn("change", text)
        with self.changed(path, (0, bytes(440))):
            result = self.vorlix_run("check", path)
            self.assertEqual(result.returncode, 1)
            self.assertIn(f"Boot code    change  nothing but zeros in sector 0 of {path}\n", result.stdout)
            self.assertIn(f"to mend: vorlix hybrid {path} --partition 3\n", result.stdout)

    def test_the_command_of_a_finding_mends_it(self):
        path = self.sound(volume=ntfs())
        for offset, data in ((0, bytes(440)), (self.slot(3), b"\0"), (START + 28, bytes(4)), (510, bytes(2))):
            with self.subTest(offset=offset):
                gpt.write_at(path, offset, data)
                document = self.report(path, "--partition", WINDOWS.number, status=1)
                fault = next(item for item in document["findings"] if item["state"] == "fault")
                words = fault["command"].split()
                self.assertEqual(words[:2], ["vorlix", "hybrid"])
                self.vorlix_ok(*words[1:])
                self.assert_sound(path)


@unittest.skipIf(MISSING or volumes.missing("ntfscp", "ntfscat"), f"not installed: {MISSING or 'ntfs-3g'}")
class State(StartTest):
    """Dirty and hibernated volumes, which need no mount to be seen."""

    def test_a_dirty_ntfs_volume(self):
        """The flags are in the volume's record, the fourth of the master file table, in its attribute 0x70."""
        path = self.sound()
        boot = ntfs()[:512]
        cluster = struct.unpack_from("<H", boot, 11)[0] * boot[13]
        record = START + struct.unpack_from("<Q", boot, 48)[0] * cluster + 3 * 1024
        content = gpt.read_at(path, record, 1024)
        self.assertEqual(content[:4], b"FILE")
        at = struct.unpack_from("<H", content, 20)[0]
        while struct.unpack_from("<I", content, at)[0] != 0x70:
            at += struct.unpack_from("<I", content, at + 4)[0]
        flags = record + at + struct.unpack_from("<H", content, at + 20)[0] + 10
        self.assert_each(path, [(["volume-unclean"], [(flags, b"\x01")])])

    def test_a_hibernated_windows(self):
        for number, (mark, expected) in enumerate(((b"HIBR", ["volume-hibernated"]), (b"wake", []))):
            volume, content = self.path(f"volume{number}"), self.path(f"content{number}")
            with open(volume, "wb") as file:
                file.write(ntfs())
            with open(content, "wb") as file:
                file.write(mark.ljust(8192, b"\0"))
            images.run_tool("ntfscp", "-f", volume, content, "hiberfil.sys")
            with open(volume, "rb") as file:
                path = self.sound(f"hibernated{number}.img", volume=file.read())
            if expected:
                document = self.assert_faults(path, expected)
                self.assertIn("hibernated", next(item["text"] for item in document["findings"] if item["state"] == "fault"))
            else:
                self.assert_sound(path)

    def test_a_dirty_fat_volume(self):
        """Bit 15 of the second entry of a FAT16 table is set if the volume was unmounted cleanly."""
        content = fat(tuple({**LEGACY_TREE, "Boot/BCD": hive.store_naming((bytes(16), bytes(16)))}.items()))
        path = self.sound(volume=content)
        table = struct.unpack_from("<H", content, 14)[0] * 512
        self.assertEqual(content[table + 2:table + 4], b"\xFF\xFF")
        second = table + struct.unpack_from("<H", content, 22)[0] * 512
        self.assert_faults(path, ["legacy-store-disk"])
        with self.changed(path, (START + table + 3, b"\x7F"), (START + second + 3, b"\x7F")):
            self.assert_faults(path, ["legacy-store-disk", "volume-unclean"])


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class EFI(StartTest):
    OPTIONS = ("--partition", WINDOWS.number, "--start", "efi")

    def disk(self, tree, name="mac.img"):
        """A disk with a protective MBR and a volume, for a start by EFI."""
        path = self.give(volumes.make_mac(self.path(name), tree))
        tools.write_sparse(path, START, ntfs())
        return path

    def guids(self):
        return identifiers(volumes.partitioned_disk())  # make_mac() copies it

    def test_each_fault(self):
        guids = self.guids()
        other = b"\x77" * 16
        right = hive.store_naming((guids["P"], guids["D"]), (other, guids["D"]))
        without = {path: content for path, content in BOOT_TREE.items() if path != "EFI/Microsoft/Boot/bootmgfw.efi"}
        cases = [
            ([], {**BOOT_TREE, STORE: right}),
            ([], {path.upper(): content for path, content in {**BOOT_TREE, STORE: right}.items()}),
            (["store-missing"], BOOT_TREE),
            (["efi-manager-missing"], {**without, STORE: right}),
            (["efi-manager-missing", "store-missing"], {"EFI": None}),
            (["store-damaged"], {**BOOT_TREE, STORE: b"regf" + right[4:-4096]}),
            (["store-damaged"], {**BOOT_TREE, STORE: b"no hive"}),
            (["store-empty"], {**BOOT_TREE, STORE: hive.store_naming()}),
            (["store-disk"], {**BOOT_TREE, STORE: hive.store_naming((guids["P"], other))}),
            (["store-partition"], {**BOOT_TREE, STORE: hive.store_naming((other, guids["D"]))}),
        ]
        for number, (expected, tree) in enumerate(cases):
            with self.subTest(expected=expected, number=number):
                path = self.disk(tree, f"disk{number}.img")
                if expected:
                    self.assert_faults(path, expected, *self.OPTIONS)
                else:
                    self.assert_sound(path, *self.OPTIONS)

    def test_notes_are_no_faults(self):
        guids = self.guids()
        tree = {**BOOT_TREE, STORE: hive.store_naming((guids["P"], guids["D"]), (b"\x77" * 16, b"\x66" * 16))}
        del tree["EFI/Boot/bootx64.efi"]
        document = self.assert_sound(self.disk(tree), *self.OPTIONS)
        notes = [item["code"] for item in document["findings"] if item["state"] == "note"]
        self.assertEqual(notes, ["efi-fallback-missing", "store-other-disk"])

    def test_a_store_that_bcd_wrote(self):
        path = self.disk(BOOT_TREE)
        for mode in hive.ELEMENTS:
            template = self.file(f"{mode}.template", hive.prepared_store(bytes(24576), mode))
            self.vorlix_ok("bcd", path, "--partition", WINDOWS.number, "--template", template, "--mode", mode)
            self.assert_sound(path, *self.OPTIONS)
            tools.sgdisk(path, "-G")  # new identifiers
            self.assert_faults(path, ["store-disk"], *self.OPTIONS)

    def test_no_efi_system_partition(self):
        path = self.disk(BOOT_TREE)
        tools.sgdisk(path, "-t", "1:0700")
        self.assert_faults(path, ["efi-partition-missing"], *self.OPTIONS)

    def test_a_gpt_that_the_mbr_does_not_protect(self):
        guids = self.guids()
        path = self.disk({**BOOT_TREE, STORE: hive.store_naming((guids["P"], guids["D"]))})
        self.assert_each(path, [(["mbr-unprotected"], [(446 + 4, b"\x07")]), (["mbr-unprotected"], [(510, bytes(2))])],
                         *self.OPTIONS)

    def test_what_is_judged_follows_from_the_disk(self):
        guids = self.guids()
        tree = {**BOOT_TREE, STORE: hive.store_naming((guids["P"], guids["D"]))}
        protective = self.disk(tree, "protective.img")
        self.assertEqual(self.assert_sound(protective)["judged"], {"legacy": False, "efi": True})
        hybrid = self.sound("hybrid.img", tree=tree)
        self.assertEqual(self.assert_sound(hybrid)["judged"], {"legacy": True, "efi": True})
        self.assertEqual(self.assert_sound(self.sound("legacy.img"))["judged"], {"legacy": True, "efi": False})
        self.assert_faults(protective, ["mbr-differs", "active-none", "boot-code-missing"], "--start", "both", "--partition", 3)

    def test_an_efi_system_partition_without_a_file_system(self):
        path = self.path("blank.img")
        images.sparse_copy(volumes.partitioned_disk(), path)
        tools.write_sparse(path, START, ntfs())
        self.give(path)
        document = self.assert_sound(path, *self.OPTIONS)
        self.assertIn("efi-files", [item["area"] for item in document["findings"] if item["state"] == "unseen"])


@unittest.skipUnless(volumes.IS_ROOT, "loop devices and mounting NTFS need root")
@unittest.skipIf(MISSING or volumes.missing("ntfs-3g"), f"not installed: {MISSING or 'ntfs-3g'}")
class Mounted(StartTest):
    AS_ROOT = True

    def test_a_mounted_volume(self):
        """Its boot files are seen, and whether it holds a hibernated Windows."""
        if not os.path.exists("/dev/fuse"):
            self.skipTest("no /dev/fuse on this machine")
        path = self.sound(volume=bare_ntfs())
        place = self.path("mounted")
        os.mkdir(place)
        device = images.run_tool("losetup", "--find", "--show", "--offset", START, "--sizelimit", SIZE, path).strip()
        self.addCleanup(subprocess.run, [images.tool("losetup"), "-d", device], check=False)
        images.run_tool("ntfs-3g", device, place)
        self.addCleanup(subprocess.run, [images.tool("umount"), "--lazy", place], capture_output=True, check=False)

        def codes(status):
            result = self.vorlix_run("check", path, "--partition", WINDOWS.number, "--json")
            self.assertEqual(result.returncode, status, result.stdout + result.stderr)
            return [item["code"] for item in json.loads(result.stdout)["findings"] if item["state"] == "fault"]

        self.assertEqual(codes(1), ["boot-manager-missing", "legacy-store-missing"])
        os.mkdir(os.path.join(place, "Boot"))
        signature = BOOT_CODE[440:444].ljust(16, b"\0")
        for name, content in (("BOOTMGR", b"loader"),
                              ("Boot/BCD", hive.store_naming((struct.pack("<Q", START).ljust(16, b"\0"), signature), mbr=True)),
                              ("hiberfil.sys", b"wake")):
            with open(os.path.join(place, name), "wb") as file:
                file.write(content)
        self.assertEqual(codes(0), [])
        with open(os.path.join(place, "hiberfil.sys"), "wb") as file:
            file.write(b"HIBR" + bytes(4092))
        self.assertEqual(codes(1), ["volume-hibernated"])


if __name__ == "__main__":
    images.main()
