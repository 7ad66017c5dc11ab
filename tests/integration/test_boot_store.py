# SPDX-License-Identifier: Apache-2.0
"""`vorlix bcd`: a prepared boot configuration store on the EFI System Partition of a disk, with its identifiers."""

import os
import random
import re
import shutil
import socket
import struct
import subprocess
import unittest
import uuid

from support import backups, gpt, hive, images, samples, tools, volumes

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mtype", "mdir", "setpriv")
NO_HIVEX = volumes.missing("hivexsh", "hivexget")

STORE = "EFI/Microsoft/Boot/BCD"
WINDOWS = volumes.WINDOWS.number

# Byte offsets of the identifiers in the store of each mode. "P": the partition's GUID; "D": the disk's.
SLOTS = {
    "standard": {10492: "P", 10740: "P", 5828: "D", 7900: "D", 9372: "D", 10516: "D", 10764: "D"},
    "mdt": {8792: "P", 8816: "D", 10200: "P", 10224: "D", 14124: "P", 11908: "D", 11932: "D", 14148: "D"},
    "sccm": {8424: "P", 8448: "D", 9872: "P", 9896: "D", 11660: "D", 19284: "D"},
}

BOOT_TREE = {
    "EFI": None,
    "EFI/Boot": None,
    "EFI/Boot/bootx64.efi": bytes(range(256)) * 64,
    "EFI/Microsoft": None,
    "EFI/Microsoft/Boot": None,
    "EFI/Microsoft/Boot/bootmgfw.efi": b"boot manager" * 999,
}


def random_bytes(size, seed=1):
    return random.Random(seed).randbytes(size)


def with_elements(*modes, size=24576, seed=1):
    """A template with a partition's descriptor at every place of the modes; the rest is random."""
    return hive.prepared_store(random_bytes(size, seed), *modes)


def template_bytes(size=24576, seed=1):
    """A template for all modes, whose places do not overlap."""
    return with_elements(*hive.ELEMENTS, size=size, seed=seed)


def identifiers(path, partition=WINDOWS):
    """The GUIDs of the partition and the disk in on-disk byte order; independent tools must agree on them."""
    printed = tools.sgdisk(path, "-p", "-i", partition)
    entry = uuid.UUID(re.search(r"Partition unique GUID: (\S+)", printed).group(1))
    disk = uuid.UUID(re.search(r"Disk identifier \(GUID\): (\S+)", printed).group(1))
    table = tools.sfdisk_table(path)
    node = f"{path}{partition}"
    assert [uuid.UUID(part["uuid"]) for part in table["partitions"] if part["node"] in (node, f"{path}p{partition}")] == [entry]
    export = images.run_tool("blkid", "-p", "-o", "export", path)
    assert uuid.UUID(re.search(r"^PTUUID=(\S+)$", export, re.MULTILINE).group(1)) == disk == uuid.UUID(table["id"])
    return {"P": entry.bytes_le, "D": disk.bytes_le}


def patched(template, mode, guids):
    """The template with the identifiers of a mode; a shorter template is padded with zeros."""
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
        """The EFI System Partition holds the store and its earlier files, and is sound."""
        found = volumes.read_tree(disk, volumes.EFI_OFFSET)
        store = found.pop(STORE)
        self.assertEqual(len(store), len(expected))
        if store != expected:
            self.assertEqual([offset for offset, pair in enumerate(zip(store, expected)) if pair[0] != pair[1]], [])
        rest = dict(BOOT_TREE if tree is None else tree)
        rest.pop(STORE, None)
        self.assertTrue(found == rest, sorted(found))
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)

    def refuse(self, disk, arguments, *saying):
        """The command fails, leaves the disk unchanged and nothing mounted. Returns the message."""
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
                    template = self.file("template", random_bytes(size))
                    self.vorlix_ok(*self.bcd(disk, template, mode, "--force"))
                    expected = patched(random_bytes(size), mode, guids)
                    self.assertEqual(len(expected), max(size, max(SLOTS[mode]) + 16))
                    self.assert_store(disk, expected)

    def test_a_store_that_is_there_is_replaced(self):
        for old in (random_bytes(5000, 8), random_bytes(60000, 9)):
            with self.subTest(size=len(old)):
                tree = {**BOOT_TREE, STORE: old}
                disk = self.mac(f"{len(old)}.img", tree)
                template = self.file("template", template_bytes())
                for mode in ("standard", "mdt"):
                    self.vorlix_ok(*self.bcd(disk, template, mode))
                    self.assert_store(disk, patched(template_bytes(), mode, identifiers(disk)), tree)
                    self.assert_nothing_mounted()

    def test_a_folder_for_mounts_with_a_long_path(self):
        disk = self.mac()
        template = self.file("template", template_bytes())
        long = self.state
        for _ in range(3):
            long = os.path.join(long, "m" * 100)
            os.mkdir(long, 0o700)
            self.give(long)
        prefix = (*self.prefix(), "env", f"XDG_RUNTIME_DIR={long}", f"XDG_STATE_HOME={long}")
        result = self.vorlix_run(*self.bcd(disk, template), prefix=prefix)
        self.assertEqual(result.returncode, 0, result.stderr)
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
        disk = self.mac(tree={})  # even the folder is missing
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
        trees = (
            ({}, "/EFI: no such folder"),
            ({"EFI": None, "EFI/Boot": None}, "/EFI/Microsoft: no such folder"),
            ({"EFI": None, "EFI/Microsoft": b"a file"}, "/EFI/Microsoft: is a file, no folder"),
        )
        for number, (tree, reason) in enumerate(trees):
            with self.subTest(tree=tree):
                disk = self.mac(f"{number}.img", tree)
                self.refuse(disk, self.bcd(disk, template), reason, "nothing was written")

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
        self.refuse(disk, self.bcd(disk, template, partition=4), f"{disk}s4: {disk} has no slice 4")
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

    def full(self, tree, name="mac.img"):
        """A disk with a full EFI System Partition."""
        disk = self.mac(name, tree)
        listing = volumes.mtools("mdir", disk, "::/", offset=volumes.EFI_OFFSET).decode()
        free = int(listing.split("bytes free")[0].split("\n")[-1].replace(" ", ""))
        volumes.put_tree(disk, {"filler": bytes(free)}, volumes.EFI_OFFSET)
        return self.give(disk)

    def test_a_partition_that_is_full(self):
        """The command checks the free space before it writes anything; the old store stays."""
        for number, tree in enumerate((BOOT_TREE, {**BOOT_TREE, STORE: random_bytes(3000, 7)})):
            with self.subTest(store=STORE in tree):
                disk = self.full(tree, f"{number}.img")
                template = self.file("template", template_bytes())
                message = self.refuse(disk, self.bcd(disk, template), disk + "s1", "no room for the store")
                self.assertIn("the old store stands there unchanged" if STORE in tree else "nothing was written", message)

    def test_a_store_that_fits_in_the_place_of_the_old_one(self):
        tree = {**BOOT_TREE, STORE: random_bytes(30000, 7)}
        disk = self.full(tree)
        template = self.file("template", template_bytes())
        self.vorlix_ok(*self.bcd(disk, template))
        found = volumes.read_tree(disk, volumes.EFI_OFFSET)
        self.assertTrue(found[STORE] == patched(template_bytes(), "standard", identifiers(disk)))
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)

    @unittest.skipIf(volumes.missing("prlimit"), "prlimit is not installed")
    def test_a_store_that_cannot_be_written_whole(self):
        """The old store stays; if there was none, there is none. No part of the new store is left."""
        for number, tree in enumerate((BOOT_TREE, {**BOOT_TREE, STORE: random_bytes(6000, 7)})):
            with self.subTest(store=STORE in tree):
                disk = self.mac(f"{number}.img", tree)
                template = self.file(f"{number}.template", template_bytes())
                before = images.snapshot(disk)
                # Limits on file sizes: above every other file of the volume and below the store; below the existing files.
                stands = "the old one stands there unchanged" if STORE in tree else "none was made"
                for limit, state in ((20480, stands), (8192, "")):
                    result = self.vorlix_run(*self.bcd(disk, template),
                                             prefix=(*self.prefix(), "prlimit", f"--fsize={limit}"))
                    self.assertEqual(result.returncode, 2, result.stderr)
                    self.assertIn("File too large", result.stderr)
                    self.assertIn(state, result.stderr)
                    self.assert_unchanged(disk, before)
                    if "stays mounted" in result.stderr:  # the limit also applies to the copy that mtools would change
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
    """A file that is not a template for the mode is refused without --force."""

    ODD = "does not look like identifiers"

    def odd_places(self, disk, template, mode):
        """Returns the offsets that a dry run names in its refusal; None if it does not refuse. With --force, the
        warning names the same offsets."""
        result = self.vorlix_run(*self.bcd(disk, template, mode, "--dry-run"))
        forced = self.vorlix_run(*self.bcd(disk, template, mode, "--dry-run", "--force"))
        self.assertEqual(forced.returncode, 1, forced.stderr)
        if result.returncode == 1:
            self.assertNotIn("warning", result.stderr + forced.stderr)
            return None
        self.assertEqual(result.returncode, 2)
        found = [re.search(r"stands at ([\d, ]+) does", text).group(1) for text in (result.stderr, forced.stderr)]
        self.assertEqual(found[0], found[1])
        self.assertIn("warning: ", forced.stderr)
        return [int(number) for number in found[0].split(", ")]

    def test_right_elements_are_taken(self):
        disk = self.mac(tree={})
        for mode in SLOTS:
            with self.subTest(mode=mode):
                template = self.file(f"{mode}.template", with_elements(mode))
                self.assertIsNone(self.odd_places(disk, template, mode))
                for other in set(SLOTS) - {mode}:
                    self.assertEqual(self.odd_places(disk, template, other), list(SLOTS[other]))

    def test_a_wrong_element_is_named(self):
        disk = self.mac(tree={})
        for place, named in ((10492, [10492, 10516]), (9372 - 24, [9372])):
            for offset, word in ((-0x10, 5), (-0x08, 0x1E), (0x14, 2)):  # other kind, other length, other partitioning
                with self.subTest(place=place, offset=offset):
                    content = bytearray(with_elements("standard"))
                    struct.pack_into("<I", content, place + offset, word)
                    template = self.file("template", bytes(content))
                    self.assertEqual(self.odd_places(disk, template, "standard"), named)

    def test_elements_of_a_disk_with_an_mbr_are_right_too(self):
        content = bytearray(with_elements("standard"))
        for place in hive.ELEMENTS["standard"]:
            struct.pack_into("<I", content, place + 0x14, 1)
        self.assertIsNone(self.odd_places(self.mac(tree={}), self.file("template", bytes(content)), "standard"))

    def test_what_is_no_template_is_refused_unless_forced(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"the old store"})
        damaged = bytearray(with_elements("mdt"))
        damaged[5] ^= 1
        cases = {
            "empty": (b"", "is empty"),
            "noise": (random_bytes(600), "is no registry hive"),
            "text": (b"Windows Registry Editor Version 5.00\r\n" * 500, "is no registry hive"),
            "zeros": (bytes(30000), "is no registry hive"),
            "damaged": (bytes(damaged), "wrong checksum"),
            "cut off": (with_elements("mdt")[:16000], "cut off"),
            "another mode": (with_elements("standard"), self.ODD),
            "another hive": (hive.empty_hive(), self.ODD),
        }
        for name, (content, reason) in cases.items():
            with self.subTest(name):
                template = self.file(name, content)
                self.refuse(disk, self.bcd(disk, template, "mdt"), template, reason, "nothing was written")
                self.refuse(disk, self.bcd(disk, template, "mdt", "--dry-run"), template, reason, "nothing was written")
                result = self.vorlix_ok(*self.bcd(disk, template, "mdt", "--force"))
                self.assertIn(f"{template}: warning: ", result.stderr)
                self.assertIn(reason, result.stderr)
                self.assert_store(disk, patched(content, "mdt", identifiers(disk)))
                volumes.mtools("mdel", disk, f"::/{STORE}", offset=volumes.EFI_OFFSET)
                volumes.put_tree(disk, {STORE: b"the old store"}, volumes.EFI_OFFSET)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Spellings(StoreTest):
    """The EFI System Partition ignores case in names. The folder of a mirrored volume is case-sensitive."""

    def spelled(self, store):
        """The tree of an EFI System Partition; its store, if any, has the path `store`."""
        tree = {}
        parts = store.split("/")
        for end in range(1, len(parts)):
            tree["/".join(parts[:end])] = None
        return tree

    def assert_only(self, disk, tree, path, content):
        found = volumes.read_tree(disk, volumes.EFI_OFFSET)
        self.assertEqual(sorted(found), sorted({**tree, path: content}))
        self.assertTrue(found[path] == content)
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)

    def test_a_store_is_replaced_whatever_its_spelling(self):
        template = self.file("template", template_bytes())
        for number, store in enumerate(("EFI/MICROSOFT/BOOT/BCD", "EFI/Microsoft/Boot/bcd", "efi/microsoft/boot/Bcd")):
            for there in (True, False):
                with self.subTest(store=store, there=there):
                    tree = self.spelled(store)
                    disk = self.mac(f"{number}{there}.img", {**tree, store: b"old"} if there else tree)
                    self.vorlix_ok(*self.bcd(disk, template))
                    path = store if there else os.path.dirname(store) + "/BCD"
                    self.assert_only(disk, tree, path, patched(template_bytes(), "standard", identifiers(disk)))
                    self.assert_nothing_mounted()

    def test_two_spellings_in_a_mounted_folder_are_refused(self):
        """A user can create both in a mounted mirror; the volume cannot hold them."""
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old"})
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        other = os.path.join(folder, "EFI/Microsoft/Boot/bcd")
        with open(other, "wb") as file:
            file.write(b"other")
        template = self.file("template", template_bytes())
        before = images.snapshot(disk)
        message = self.vorlix_refuses(*self.bcd(disk, template), saying=["of which Windows sees one", "nothing was written"])
        self.assertRegex(message, "holds (BCD and bcd|bcd and BCD),")
        self.assert_unchanged(disk, before)
        os.remove(other)
        self.vorlix_ok("efi", "unmount", disk)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Hostile(StoreTest):
    """A volume may hold links that lead elsewhere. The tests create them in a mounted mirror; with other drivers the
    volume itself can hold them."""

    def mounted(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old"})
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        return disk, folder

    def refuse_mounted(self, disk, *saying):
        before = images.snapshot(disk)
        template = self.file("template", template_bytes())
        saved = self.path("saved")
        self.vorlix_refuses(*self.bcd(disk, template, "standard", "--backup", saved), saying=[*saying, "nothing was written"])
        self.assert_unchanged(disk, before)
        self.assertFalse(os.path.exists(saved))

    def test_what_is_no_file_in_the_place_of_the_store(self):
        disk, folder = self.mounted()
        store = os.path.join(folder, STORE)
        os.remove(store)
        secret = self.file("secret", b"the host's", 0o600)
        os.symlink(secret, store)
        self.refuse_mounted(disk, store, "is a symbolic link")
        os.remove(store)
        os.mkfifo(store)
        self.refuse_mounted(disk, store, "is a pipe")
        os.remove(store)
        with socket.socket(socket.AF_UNIX) as server:
            here = os.getcwd()
            os.chdir(os.path.dirname(store))
            try:
                server.bind("BCD")
            finally:
                os.chdir(here)
            self.refuse_mounted(disk, store, "is a socket")
        os.remove(store)
        os.mkdir(store)
        self.refuse_mounted(disk, store, "is a folder")
        os.rmdir(store)
        self.assertEqual(samples.read(secret, 0, 100), b"the host's")

    def test_what_is_no_folder_on_the_way(self):
        disk, folder = self.mounted()
        elsewhere = self.path("elsewhere")
        for path in ("EFI", "EFI/Microsoft", "EFI/Microsoft/Boot"):
            with self.subTest(path=path):
                place = os.path.join(folder, path)
                shutil.move(place, elsewhere)
                os.symlink(elsewhere, place)
                self.refuse_mounted(disk, place, "is a symbolic link")
                os.remove(place)
                os.mkfifo(place)
                self.refuse_mounted(disk, place, "is a pipe")
                os.remove(place)
                shutil.move(elsewhere, place)

    def test_a_backup_is_nobody_elses_business(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old"})
        template = self.file("template", template_bytes())
        saved = self.path("saved")
        self.vorlix_ok(*self.bcd(disk, template, "standard", "--backup", saved))
        self.assertTrue(backups.is_the_users_alone(backups.folders(saved)[0]))

    def test_the_template_is_not_the_store_itself(self):
        disk, folder = self.mounted()
        store = os.path.join(folder, STORE)
        with open(store, "wb") as file:
            file.write(template_bytes())
        self.vorlix_refuses(*self.bcd(disk, store), saying=["is the store itself", "nothing was written"])


@unittest.skipIf(MISSING or volumes.missing("strace"), f"not installed: {MISSING} strace")
class CutOff(StoreTest):
    """After an interruption at any call, the old or the new store is in place. The next run installs the new one and
    removes leftovers."""

    NAMES = ("pwrite64", "write", "fsync", "renameat", "renameat2", "unlinkat", "syncfs", "openat", "fchmod", "pread64")

    def test_a_kill_at_calls_on_the_store(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old" * 3000})
        template = self.file("template", template_bytes())
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        place = os.path.join(folder, os.path.dirname(STORE))
        expected = patched(template_bytes(), "standard", identifiers(disk))
        calls = self.calls_on_store(disk, template, place)
        self.assertGreater(len(calls), 6)
        for name, number in calls:
            with self.subTest(call=name, number=number):
                self.put_old(place)
                trace = volumes.strace("-f", "-o", "/dev/null", "-e", f"inject={name}:signal=SIGKILL:when={number}")
                result = self.vorlix_run(*self.bcd(disk, template), prefix=(*self.prefix(), *trace))
                self.assertNotEqual(result.returncode, 0)
                with open(os.path.join(place, "BCD"), "rb") as file:
                    self.assertIn(file.read(), (b"old" * 3000, expected))
        self.put_old(place)
        self.vorlix_ok(*self.bcd(disk, template))
        self.assert_store(disk, expected)
        self.assert_nothing_mounted()

    @unittest.skipIf(images.SANITIZED, "with sanitizers: their runtime makes system calls itself and ends when one fails")
    def test_an_error_of_calls_on_the_store(self):
        """Either the command fails and reports which store is in place, or the error was harmless and the new store is on
        the disk."""
        disk = self.mac(tree={**BOOT_TREE, STORE: b"old" * 3000})
        template = self.file("template", template_bytes())
        folder = self.vorlix_ok("efi", "mount", disk).stdout.strip()
        place = os.path.join(folder, os.path.dirname(STORE))
        expected = patched(template_bytes(), "standard", identifiers(disk))
        said = set()
        for name, number in self.calls_on_store(disk, template, place):
            with self.subTest(call=name, number=number):
                place = os.path.join(self.vorlix_ok("efi", "mount", disk).stdout.strip(), os.path.dirname(STORE))
                self.put_old(place)
                trace = volumes.strace("-o", "/dev/null", "-e", f"inject={name}:error=EIO:when={number}")
                result = self.vorlix_run(*self.bcd(disk, template), prefix=(*self.prefix(), *trace))
                if result.returncode == 0:
                    self.assert_store(disk, expected)
                    continue
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertIn("Input/output error", result.stderr)
                with open(os.path.join(place, "BCD"), "rb") as file:
                    store = file.read()
                is_new = "the new one stands there, but may not be on the medium" in result.stderr
                self.assertTrue(store == (expected if is_new else b"old" * 3000), result.stderr)
                said.add(is_new)
        self.assertEqual(said, {False, True})
        self.vorlix_ok("efi", "mount", disk)
        self.vorlix_ok(*self.bcd(disk, template))
        self.assert_store(disk, expected)

    def put_old(self, place):
        with open(os.path.join(place, "BCD"), "wb") as file:
            file.write(b"old" * 3000)

    def calls_on_store(self, disk, template, place):
        """The calls of a run as (name, n): from the first that names the temporary file to syncfs(), after the rename."""
        log = self.file("calls", b"")
        # A process in the folder keeps the volume mounted, so that the run ends before the write-back.
        user = [*self.prefix(), "sh", "-c", 'cd "$1" && echo ready && read -r wait', "sh", place]
        with subprocess.Popen(user, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
            self.assertEqual(process.stdout.readline(), "ready\n")
            trace = volumes.strace("-o", log, "-e", "trace=" + ",".join(self.NAMES))
            self.vorlix_run(*self.bcd(disk, template), prefix=(*self.prefix(), *trace))
            process.stdin.close()
        counts, found, begun = {}, [], False
        with open(log, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                name = line.split("(")[0]
                if name not in self.NAMES:
                    continue
                counts[name] = counts.get(name, 0) + 1
                begun = begun or "vorlix-new" in line
                if begun:
                    found.append((name, counts[name]))
                if begun and name == "syncfs":
                    break
        return found


@unittest.skipIf(MISSING or NO_HIVEX, f"not installed: {MISSING or NO_HIVEX}")
class Hives(StoreTest):
    """Boot configuration stores are registry hives. An independent library reads and writes them."""

    OBJECT = "\\Objects\\{9dea862c-5cdd-4e70-acc1-f32b344d4795}\\Elements"

    def element(self, store, name):
        command = [images.tool("hivexget"), store, f"{self.OBJECT}\\{name}", "Element"]
        return subprocess.run(command, capture_output=True, timeout=30, check=True).stdout

    def store_by_hivex(self, path, elements):
        """A store whose keys and values hivex wrote, at places that hivex chose."""
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

    def test_a_hive_with_its_elements_elsewhere_is_refused(self):
        disk = self.mac()
        element = hive.device_element(bytes([1] * 16), bytes([2] * 16))
        names = [f"{0x11000000 + number:08x}" for number in range(1, 4)]
        template = self.store_by_hivex(self.path("template"), {name: element for name in names})
        for name in names:
            self.assertEqual(self.element(template, name), element)
        content = samples.read(template, 0, 1 << 20)
        self.assertEqual(content[:4], b"regf")
        self.refuse(disk, self.bcd(disk, template, "standard"), template, "10492", "nothing was written")
        result = self.vorlix_ok(*self.bcd(disk, template, "standard", "--force"))
        self.assertIn("warning", result.stderr)
        self.assertIn("10492", result.stderr)
        self.assert_store(disk, patched(content, "standard", identifiers(disk)))

    def test_a_hive_made_for_the_mode_names_the_partition_afterwards(self):
        disk = self.mac()
        guids = identifiers(disk)
        places = [place - hive.PARTITION_IN_ELEMENT for place in hive.ELEMENTS["standard"]]
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
