# SPDX-License-Identifier: Apache-2.0
"""`vorlix bcd`: a prepared boot configuration store on the EFI System Partition of a disk, with its identifiers."""

import os
import random
import re
import struct
import subprocess
import unittest
import uuid

from support import gpt, hive, images, samples, tools, volumes

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mtype", "mdir", "setpriv")
NO_HIVEX = volumes.missing("hivexsh", "hivexget")

STORE = "EFI/Microsoft/Boot/BCD"
WINDOWS = volumes.WINDOWS.number

# Byte offsets of the identifiers in the store of each mode: "P" the partition's GUID, "D" the disk's.
SLOTS = {
    "standard": {10492: "P", 10740: "P", 5828: "D", 7900: "D", 9372: "D", 10516: "D", 10764: "D"},
    "mdt": {8792: "P", 8816: "D", 10200: "P", 10224: "D", 14124: "P", 11908: "D", 11932: "D", 14148: "D"},
    "sccm": {8424: "P", 8448: "D", 9872: "P", 9896: "D", 11660: "D", 19284: "D"},
}

# Where the device elements of a store have their partition GUID. The disk's stands 24 bytes on.
ELEMENTS = {
    "standard": (10492, 10740, 5828 - 24, 7900 - 24, 9372 - 24),
    "mdt": (8792, 10200, 14124, 11908),
    "sccm": (8424, 9872, 11660 - 24, 19284 - 24),
}

BOOT_TREE = {
    "EFI": None,
    "EFI/Boot": None,
    "EFI/Boot/bootx64.efi": bytes(range(256)) * 64,
    "EFI/Microsoft": None,
    "EFI/Microsoft/Boot": None,
    "EFI/Microsoft/Boot/bootmgfw.efi": b"boot manager" * 999,
}


def template_bytes(size=24576, seed=1):
    return random.Random(seed).randbytes(size)


def with_elements(mode, size=24576):
    """A template in which every place of the mode belongs to the descriptor of a partition."""
    content = bytearray(template_bytes(size))
    for place in ELEMENTS[mode]:
        element = hive.device_element(bytes([1] * 16), bytes([2] * 16))
        start = place - hive.PARTITION_IN_ELEMENT
        content[start : start + len(element)] = element
    return bytes(content)


def identifiers(path, partition=WINDOWS):
    """The partition's and the disk's GUID, on which independent tools agree, in the order of bytes on disk."""
    entry = uuid.UUID(tools.sgdisk_entry(path, partition)["Partition unique GUID"])
    disk = uuid.UUID(re.search(r"Disk identifier \(GUID\): (\S+)", tools.sgdisk(path, "-p")).group(1))
    table = tools.sfdisk_table(path)
    node = f"{path}{partition}"
    assert [uuid.UUID(part["uuid"]) for part in table["partitions"] if part["node"] in (node, f"{path}p{partition}")] == [entry]
    export = images.run_tool("blkid", "-p", "-o", "export", path)
    assert uuid.UUID(re.search(r"^PTUUID=(\S+)$", export, re.MULTILINE).group(1)) == disk == uuid.UUID(table["id"])
    return {"P": entry.bytes_le, "D": disk.bytes_le}


def patched(template, mode, guids):
    """The template with the identifiers of a mode, and with zeros where it was shorter."""
    store = bytearray(template)
    for offset, which in SLOTS[mode].items():
        store.extend(bytes(max(0, offset + 16 - len(store))))
        store[offset : offset + 16] = guids[which]
    return bytes(store)


class StoreTest(volumes.VolumeTest):
    def mac(self, name="mac.img", tree=None, **options):
        path = volumes.make_mac(self.path(name), BOOT_TREE if tree is None else tree, **options)
        return self.give(path)

    def bcd(self, disk, template, mode="standard", *options, partition=WINDOWS):
        return ["bcd", disk, "--partition", partition, "--template", template, "--mode", mode, *options]

    def assert_store(self, disk, expected, tree=None):
        """The EFI System Partition holds the store and what it held before, and is sound."""
        found = volumes.read_tree(disk, volumes.EFI_OFFSET)
        store = found.pop(STORE)
        self.assertEqual(len(store), len(expected))
        different = [offset for offset, pair in enumerate(zip(store, expected)) if pair[0] != pair[1]]
        self.assertEqual(different, [])
        rest = dict(BOOT_TREE if tree is None else tree)
        rest.pop(STORE, None)
        self.assertTrue(found == rest, sorted(found))
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)

    def refuse(self, disk, arguments, *saying):
        """An error that leaves the disk as it is and nothing mounted. Returns its text."""
        before = images.snapshot(disk)
        message = self.vorlix_refuses(*arguments, saying=saying)
        self.assert_unchanged(disk, before)
        self.assert_nothing_mounted()
        return message


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Written(StoreTest):
    def test_each_mode_on_a_disk_of_its_own(self):
        for seed, mode in enumerate(SLOTS):
            with self.subTest(mode=mode):
                disk = self.mac(f"{mode}.img")
                template = self.file(f"{mode}.template", template_bytes(24576 + seed, seed))
                guids = identifiers(disk)
                self.assertNotEqual(guids["P"], guids["D"])
                outside = volumes.hash_outside_efi(disk)
                result = self.vorlix_ok(*self.bcd(disk, template, mode))
                for which in guids.values():
                    self.assertIn(gpt.guid_text(which), result.stdout)
                self.assert_store(disk, patched(template_bytes(24576 + seed, seed), mode, guids))
                self.assertEqual(volumes.hash_outside_efi(disk), outside)
                self.assertEqual(samples.read(template, 0, 1 << 20), template_bytes(24576 + seed, seed))
                self.assert_nothing_mounted()

    def test_other_widths_of_fat(self):
        disk = self.mac(tree=BOOT_TREE, efi_bits=12)
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template, "sccm"))
        self.assert_store(disk, patched(template_bytes(), "sccm", identifiers(disk)))

    def test_another_partition_of_the_same_disk(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template, "mdt", partition=volumes.APPLE.number))
        expected = patched(template_bytes(), "mdt", identifiers(disk, volumes.APPLE.number))
        self.assertNotEqual(expected, patched(template_bytes(), "mdt", identifiers(disk)))
        self.assert_store(disk, expected)

    def test_short_templates_are_extended_with_zeros(self):
        disk = self.mac()
        guids = identifiers(disk)
        for mode, sizes in {"standard": (0,), "mdt": (11000,), "sccm": (19291,)}.items():
            for size in sizes:
                with self.subTest(mode=mode, size=size):
                    template = self.file("template", template_bytes(size))
                    self.vorlix_ok(*self.bcd(disk, template, mode))
                    expected = patched(template_bytes(size), mode, guids)
                    self.assertEqual(len(expected), max(size, max(SLOTS[mode]) + 16))
                    self.assert_store(disk, expected)

    def test_a_store_that_is_there_is_replaced_and_kept_on_request(self):
        for old in (template_bytes(5000, 8), template_bytes(60000, 9)):
            with self.subTest(size=len(old)):
                tree = {**BOOT_TREE, STORE: old}
                disk = self.mac(f"{len(old)}.img", tree)
                template = self.file("template", template_bytes())
                saved = self.path(f"saved{len(old)}")
                result = self.vorlix_ok(*self.bcd(disk, template, "standard", "--backup", saved))
                self.assertEqual(len(os.listdir(saved)), 1)
                copy = os.path.join(saved, os.listdir(saved)[0])
                self.assertEqual(samples.read(copy, 0, 1 << 20), old)
                self.assertIn(copy, result.stdout)
                self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)), tree)
                self.assert_nothing_mounted()
                message = self.refuse(disk, self.bcd(disk, template, "mdt", "--backup", saved), "File exists")
                self.assertIn(copy, message)
                self.assertEqual(samples.read(copy, 0, 1 << 20), old)

    def test_there_is_nothing_to_keep_where_there_is_no_store(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        saved = self.path("saved")
        result = self.vorlix_ok(*self.bcd(disk, template, "standard", "--backup", saved))
        self.assertFalse(os.path.exists(saved) and os.listdir(saved))
        self.assertNotIn("Saved", result.stdout)
        self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)))

    def test_the_same_store_again(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        for _ in range(2):
            self.vorlix_ok(*self.bcd(disk, template, "mdt"))
            self.assert_store(disk, patched(template_bytes(), "mdt", identifiers(disk)))

    def test_a_partition_that_was_mounted_already_is_unmounted_with_all_that_was_changed(self):
        disk = self.mac()
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        note = os.path.join(folder, "note")
        with open(note, "wb") as file:
            file.write(b"kept")
        self.give(note)
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template))
        self.assert_nothing_mounted()
        tree = {**BOOT_TREE, "note": b"kept"}
        self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)), tree)

    def test_a_dry_run_mounts_and_writes_nothing(self):
        disk = self.mac(tree={})  # not even the folder is needed
        os.chmod(disk, 0o444)
        template = self.file("template", template_bytes(), 0o444)
        before = images.snapshot(disk), images.snapshot(template)
        for mode, slots in SLOTS.items():
            with self.subTest(mode=mode):
                result = self.vorlix_run(*self.bcd(disk, template, mode, "--dry-run", "--backup", self.path("saved")))
                self.assertEqual(result.returncode, 1, result.stderr)
                for which in identifiers(disk).values():
                    self.assertIn(gpt.guid_text(which), result.stdout)
                shown = "".join(re.findall(r"^ +\+ ([0-9A-F ]+)$", result.stdout, re.MULTILINE))
                self.assertGreaterEqual(len(shown.split()), 16 * len(slots))
                rows = {int(row, 16) for row in re.findall(r"^  ([0-9A-F]{4,})  - ", result.stdout, re.MULTILINE)}
                self.assertEqual(rows, {at // 16 * 16 for offset in slots for at in (offset, offset + 15)})
        self.assert_unchanged(disk, before[0])
        self.assert_unchanged(template, before[1])
        self.assert_nothing_mounted()
        self.assertEqual(os.listdir(self.state), [])
        self.assertFalse(os.path.exists(self.path("saved")))


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Refused(StoreTest):
    def test_a_partition_without_the_folder(self):
        template = self.file("template", template_bytes())
        for number, tree in enumerate(({}, {"EFI": None, "EFI/Boot": None}, {"EFI": None, "EFI/Microsoft": b"a file"})):
            with self.subTest(tree=tree):
                disk = self.mac(f"{number}.img", tree)
                self.refuse(disk, self.bcd(disk, template), "EFI/Microsoft/Boot", "no such folder")

    def test_a_folder_in_the_place_of_the_store(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: None})
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template), "BCD")

    def test_templates_that_cannot_be_read(self):
        disk = self.mac()
        self.refuse(disk, self.bcd(disk, self.path("missing")), self.path("missing"), "No such file")
        self.refuse(disk, self.bcd(disk, self.folder), self.folder, "not a regular file")
        closed = self.file("closed", template_bytes(), 0)
        self.refuse(disk, self.bcd(disk, closed), closed, "Permission denied")
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        self.refuse(disk, self.bcd(disk, pipe), pipe, "not a regular file")
        self.refuse(disk, self.bcd(disk, ""), "not")

    def test_a_template_larger_than_any_store(self):
        disk = self.mac()
        template = self.file("template", b"")
        os.truncate(template, (64 << 20) + 1)
        self.refuse(disk, self.bcd(disk, template), template, "larger")

    def test_partitions_and_disks_that_are_not_there(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template, partition=4), disk + "s4", "no such")
        for number in ("0", "129", "-1", "x", ""):
            self.refuse(disk, self.bcd(disk, template, partition=number), "--partition")
        missing = self.path("missing.img")
        self.refuse(disk, self.bcd(missing, template), missing, "no such")
        self.assertFalse(os.path.exists(missing))
        self.refuse(disk, self.bcd(disk + "s1", template), disk + "s1")

    def test_modes_that_are_not_known(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        for mode in ("", "3", "MBR", "-1"):
            self.refuse(disk, self.bcd(disk, template, mode), "--mode")

    def test_a_disk_without_a_gpt_has_no_identifiers(self):
        disk = self.file("mbr.img", b"")
        os.truncate(disk, 32 << 20)
        images.run_tool("sfdisk", "-q", disk, stdin="label: dos\n2048,32768,ef\n34816,16384,7\n")
        volume = volumes.make_fat(self.path("efi"), 16, "EFI", 32768 * 512)
        volumes.put_tree(volume, BOOT_TREE)
        samples.place(disk, volume, 2048)
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template, partition=2), "GUID")

    def test_a_first_slice_that_is_no_fat_volume(self):
        disk = self.path("mac.img")
        samples.make_disk(disk, volumes.DISK_SECTORS, (volumes.EFI, volumes.WINDOWS))
        self.give(disk)
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template), disk + "s1", "no file system")

    def test_an_image_that_may_only_be_read(self):
        disk = self.mac()
        os.chmod(disk, 0o444)
        template = self.file("template", template_bytes())
        self.refuse(disk, self.bcd(disk, template), disk)

    def full(self, tree):
        """A disk whose EFI System Partition has no room left."""
        disk = self.mac(tree=tree)
        listing = volumes.mtools("mdir", disk, "::/", offset=volumes.EFI_OFFSET).decode()
        free = int(listing.split("bytes free")[0].split("\n")[-1].replace(" ", ""))
        volumes.put_tree(disk, {"filler": bytes(free)}, volumes.EFI_OFFSET)
        return self.give(disk)

    def test_a_partition_that_is_full(self):
        """What could not be written to the volume must not be told as written."""
        disk = self.full(BOOT_TREE)
        template = self.file("template", template_bytes())
        message = self.vorlix_refuses(*self.bcd(disk, template), saying=[disk, "Disk full"])
        found = volumes.read_tree(disk, volumes.EFI_OFFSET)
        self.assertNotIn(STORE, found)
        for path, content in BOOT_TREE.items():
            self.assertTrue(found[path] == content, path)
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)
        folder = self.mount(disk + "s1")  # what was to be written is kept there, and the message says where
        self.assertIn(folder, message)
        with open(os.path.join(folder, STORE), "rb") as file:
            self.assertEqual(file.read(), patched(template_bytes(), "standard", identifiers(disk)))

    @unittest.skipIf(volumes.missing("prlimit"), "prlimit is not installed")
    def test_a_store_that_cannot_be_written_whole(self):
        """The old one stays, or none where there was none, and not a part of the new one."""
        for number, tree in enumerate((BOOT_TREE, {**BOOT_TREE, STORE: template_bytes(6000, 7)})):
            with self.subTest(store=STORE in tree):
                disk = self.mac(f"{number}.img", tree)
                template = self.file(f"{number}.template", template_bytes())
                before = images.snapshot(disk)
                # Too little for the store, and too little for the files that are there already.
                for limit, words in ((20480, "could not be written"), (8192, "File too large")):
                    result = self.vorlix_run(*self.bcd(disk, template),
                                             prefix=(*self.prefix(), "prlimit", f"--fsize={limit}"))
                    self.assertEqual(result.returncode, 2, result.stderr)
                    self.assertIn(words, result.stderr)
                    self.assert_unchanged(disk, before)
                    if "stays mounted" in result.stderr:  # the limit holds for the copy that mtools is to change, too
                        self.vorlix_ok("efi", "unmount", disk)
                        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET), tree)
                        before = images.snapshot(disk)
                    self.assert_nothing_mounted()

    def test_a_partition_in_use(self):
        disk = self.mac()
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        template = self.file("template", template_bytes())
        before = images.snapshot(disk)
        user = [*self.prefix(), "sh", "-c", 'cd "$1" && echo ready && read -r wait', "sh", folder]
        with subprocess.Popen(user, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
            self.assertEqual(process.stdout.readline(), "ready\n")
            self.vorlix_refuses(*self.bcd(disk, template), saying=[disk, "in use", str(process.pid)])
            self.assert_unchanged(disk, before)
            process.stdin.close()
        self.vorlix_ok("efi", "unmount", disk)
        self.assert_store(disk, patched(template_bytes(), "standard", identifiers(disk)))


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Templates(StoreTest):
    """What a template holds at the places of a mode is looked at before it is written."""

    WARNING = "warning: what stands at"

    def warning(self, disk, template, mode):
        """The offsets that the warning of a dry run names; None when there is no warning."""
        result = self.vorlix_run(*self.bcd(disk, template, mode, "--dry-run"))
        self.assertEqual(result.returncode, 1, result.stderr)
        if self.WARNING not in result.stderr:
            return None
        return [int(number) for number in re.search(r"stands at ([\d, ]+) does", result.stderr).group(1).split(", ")]

    def test_right_elements_draw_no_warning(self):
        disk = self.mac(tree={})
        for mode in SLOTS:
            with self.subTest(mode=mode):
                template = self.file(f"{mode}.template", with_elements(mode))
                self.assertIsNone(self.warning(disk, template, mode))
                for other in set(SLOTS) - {mode}:
                    self.assertEqual(self.warning(disk, template, other), list(SLOTS[other]))

    def test_a_wrong_element_is_named(self):
        disk = self.mac(tree={})
        for place, named in ((10492, [10492, 10516]), (9372 - 24, [9372])):
            for offset, word in ((-0x10, 5), (-0x08, 0x1E), (0x14, 2)):  # another kind, length and partitioning
                with self.subTest(place=place, offset=offset):
                    content = bytearray(with_elements("standard"))
                    struct.pack_into("<I", content, place + offset, word)
                    template = self.file("template", bytes(content))
                    self.assertEqual(self.warning(disk, template, "standard"), named)

    def test_elements_of_a_disk_with_an_mbr_are_right_too(self):
        content = bytearray(with_elements("standard"))
        for place in ELEMENTS["standard"]:
            struct.pack_into("<I", content, place + 0x14, 1)
        self.assertIsNone(self.warning(self.mac(tree={}), self.file("template", bytes(content)), "standard"))

    def test_other_templates_are_written_all_the_same(self):
        disk = self.mac()
        for content in (b"short", bytes(30000)):
            with self.subTest(size=len(content)):
                template = self.file("template", content)
                result = self.vorlix_ok(*self.bcd(disk, template, "mdt"))
                self.assertIn(template, result.stderr)
                self.assertIn(self.WARNING, result.stderr)
                self.assert_store(disk, patched(content, "mdt", identifiers(disk)))


@unittest.skipIf(MISSING or NO_HIVEX, f"not installed: {MISSING or NO_HIVEX}")
class Hives(StoreTest):
    """Boot configuration stores are registry hives; an independent library reads and writes them."""

    OBJECT = "\\Objects\\{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements"

    def element(self, store, name):
        command = [images.tool("hivexget"), store, f"{self.OBJECT}\\{name}", "Element"]
        return subprocess.run(command, capture_output=True, timeout=30, check=True).stdout

    def store_by_hivex(self, path, elements):
        """A store whose keys and values hivex made, in places of its own choice."""
        with open(path, "wb") as file:
            file.write(hive.empty_hive())
        script = []
        for part in self.OBJECT.strip("\\").split("\\"):
            script += [f"add {part}", f"cd {part}"]
        for name, data in elements.items():
            script += [f"add {name}", f"cd {name}", "setval 1", "Element", f"hex:3:{data.hex(',')}", "cd .."]
        images.run_tool("hivexsh", "-w", path, stdin="\n".join([*script, "commit", ""]))
        return self.give(path)

    def read_back(self, disk):
        path = self.path("BCD")
        with open(path, "wb") as file:
            file.write(volumes.mtools("mtype", disk, f"::/{STORE}", offset=volumes.EFI_OFFSET))
        return path

    def test_a_hive_with_its_elements_elsewhere_draws_a_warning(self):
        disk = self.mac()
        element = hive.device_element(bytes([1] * 16), bytes([2] * 16))
        names = [f"{0x11000000 + number:08x}" for number in range(1, 4)]
        template = self.store_by_hivex(self.path("template"), {name: element for name in names})
        for name in names:
            self.assertEqual(self.element(template, name), element)
        content = samples.read(template, 0, 1 << 20)
        self.assertEqual(content[:4], b"regf")
        result = self.vorlix_ok(*self.bcd(disk, template, "standard"))
        self.assertIn("warning", result.stderr)
        self.assertIn("10492", result.stderr)
        self.assert_store(disk, patched(content, "standard", identifiers(disk)))

    def test_a_hive_made_for_the_mode_names_the_partition_afterwards(self):
        disk = self.mac()
        guids = identifiers(disk)
        places = [place - hive.PARTITION_IN_ELEMENT for place in ELEMENTS["standard"]]
        template = self.file("template", hive.store_with_elements(places))
        names = [f"{0x11000000 + number:08x}" for number in range(1, 6)]
        for name in names:
            self.assertEqual(self.element(template, name), hive.device_element())
        result = self.vorlix_ok(*self.bcd(disk, template, "standard"))
        self.assertNotIn("warning", result.stderr)
        store = self.read_back(disk)
        whole = hive.device_element(guids["P"], guids["D"])
        only_disk = hive.device_element(bytes(16), guids["D"])
        self.assertEqual([self.element(store, name) for name in names], [whole, whole, only_disk, only_disk, only_disk])


@unittest.skipUnless(volumes.IS_ROOT, "needs root")
@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class AsRoot(StoreTest):
    AS_ROOT = True

    def test_an_image(self):
        disk = self.mac()
        outside = volumes.hash_outside_efi(disk)
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template, "mdt"))
        self.assert_store(disk, patched(template_bytes(), "mdt", identifiers(disk)))
        self.assertEqual(volumes.hash_outside_efi(disk), outside)
        self.assert_nothing_mounted()

    def test_a_loop_device(self):
        disk = self.mac()
        guids = identifiers(disk)
        template = self.file("template", template_bytes())
        with tools.loop_device(disk, 512) as device:
            self.vorlix_ok(*self.bcd(device, template, "sccm"))
            self.assert_nothing_mounted()
        self.assert_store(disk, patched(template_bytes(), "sccm", guids))


if __name__ == "__main__":
    images.main()
