# SPDX-License-Identifier: Apache-2.0
"""`vorlix bcd --mode auto`: every device element of a store that names a partition gets the identifiers of the disk."""

import os
import random
import subprocess
import unittest

from support import boot_stores, gpt, hive, hives, images, volumes
from test_boot_store import BOOT_TREE, STORE, StoreTest, identifiers

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mtype", "mdir",
                          "setpriv", *boot_stores.NEEDED)

# An EFI store of an installed system with a recovery image, as on another disk.
OBJECTS = {
    boot_stores.MANAGER: (boot_stores.TYPE_MANAGER, {
        boot_stores.DEVICE: boot_stores.gpt_device(),
        0x12000002: "\\EFI\\Microsoft\\Boot\\bootmgfw.efi",
        0x23000003: boot_stores.LOADER,
        0x24000001: [boot_stores.LOADER],
        0x25000004: bytes([30, 0, 0, 0, 0, 0, 0, 0]),
    }),
    boot_stores.MEMORY_TESTER: (boot_stores.TYPE_MEMORY_TESTER, {boot_stores.DEVICE: boot_stores.gpt_device()}),
    boot_stores.LOADER: (boot_stores.TYPE_LOADER, {
        boot_stores.DEVICE: boot_stores.gpt_device(),
        0x12000002: "\\Windows\\system32\\winload.efi",
        boot_stores.OS_DEVICE: boot_stores.mbr_device(),
    }),
    boot_stores.RESUME: (boot_stores.TYPE_RESUME, {
        boot_stores.DEVICE: boot_stores.mbr_device(),
        boot_stores.OS_DEVICE: boot_stores.gpt_device(),
    }),
    boot_stores.RAM_LOADER: (boot_stores.TYPE_LOADER, {
        boot_stores.DEVICE: boot_stores.ram_disk(boot_stores.gpt_device()),
        boot_stores.OS_DEVICE: boot_stores.virtual_disk(boot_stores.mbr_device()),
    }),
    boot_stores.RAM_OPTIONS: (boot_stores.TYPE_DEVICE, {
        boot_stores.SDI_DEVICE: boot_stores.gpt_device(),
        0x32000004: "\\boot.sdi",
    }),
}


def expected_objects(efi, windows):
    """OBJECTS with the partitions of a disk. efi, windows: device elements."""
    devices = {
        (boot_stores.MANAGER, boot_stores.DEVICE): efi,
        (boot_stores.MEMORY_TESTER, boot_stores.DEVICE): efi,
        (boot_stores.LOADER, boot_stores.DEVICE): windows,
        (boot_stores.LOADER, boot_stores.OS_DEVICE): windows,
        (boot_stores.RESUME, boot_stores.DEVICE): windows,
        (boot_stores.RESUME, boot_stores.OS_DEVICE): windows,
        (boot_stores.RAM_LOADER, boot_stores.DEVICE): boot_stores.ram_disk(windows),
        (boot_stores.RAM_LOADER, boot_stores.OS_DEVICE): boot_stores.virtual_disk(windows),
        (boot_stores.RAM_OPTIONS, boot_stores.SDI_DEVICE): windows,
    }
    return {
        name: (kind, {element: devices.get((name, element), value) for element, value in elements.items()})
        for name, (kind, elements) in OBJECTS.items()
    }


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Auto(StoreTest):
    def setUp(self):
        super().setUp()
        hives.companion(self.vorlix)  # skips where hivex is missing

    def auto(self, disk, template, *options):
        return self.bcd(disk, template, "auto", *options)

    def template(self, objects, name="template"):
        return self.give(boot_stores.make_store(self.path(name), objects))

    def written(self, disk):
        """The store on the disk."""
        path = self.path("written")
        with open(path, "wb") as file:
            file.write(volumes.read_tree(disk, volumes.EFI_OFFSET)[STORE])
        return path

    def content(self, disk):
        with open(disk, "rb") as file:
            return file.read()

    def devices(self, disk):
        guids = identifiers(disk)
        efi = identifiers(disk, volumes.EFI.number)
        return hive.device_element(efi["P"], efi["D"]), hive.device_element(guids["P"], guids["D"])

    def assert_written(self, disk, template, expected):
        found = self.written(disk)
        self.assertEqual(boot_stores.read_store(found), expected)
        with open(found, "rb") as new, open(template, "rb") as old:
            self.assertEqual(len(new.read()), len(old.read()))
        self.assert_nothing_mounted()
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)

    def test_every_device_gets_the_partition_of_its_object(self):
        disk = self.mac()
        template = self.template(OBJECTS)
        self.assertEqual(boot_stores.read_store(template), OBJECTS)
        before = images.snapshot(template)
        result = self.vorlix_ok(*self.auto(disk, template))
        self.assertIn("written to slice 1", result.stdout)
        self.assert_written(disk, template, expected_objects(*self.devices(disk)))
        self.assert_unchanged(template, before)

    def test_a_second_run_writes_nothing(self):
        disk = self.mac()
        template = self.template(OBJECTS)
        self.vorlix_ok(*self.auto(disk, template))
        before = images.snapshot(disk)
        self.assertIn("already", self.vorlix_ok(*self.auto(disk, template)).stdout)
        self.assert_unchanged(disk, before)

    def test_the_store_of_a_disk_is_a_template_for_another(self):
        first, second = self.mac("first.img"), self.mac("second.img")
        images.run_tool("sgdisk", "-G", second)
        self.assertNotEqual(identifiers(first), identifiers(second))
        self.vorlix_ok(*self.auto(first, self.template(OBJECTS)))
        template = self.give(self.written(first))
        os.rename(template, self.path("first.store"))
        self.vorlix_ok(*self.auto(second, self.path("first.store")))
        self.assert_written(second, self.path("first.store"), expected_objects(*self.devices(second)))

    def test_undo_restores_what_was_there(self):
        disk = self.mac(tree={**BOOT_TREE, STORE: b"the old store"})
        before = self.content(disk)
        saved = self.path("saved")
        self.vorlix_ok(*self.auto(disk, self.template(OBJECTS), "--backup", saved))
        self.vorlix_ok("undo", os.path.join(saved, os.listdir(saved)[0]))
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET)[STORE], b"the old store")
        if not self.AS_ROOT:  # the kernel's driver marks the volume as mounted, and may place a file elsewhere
            self.assertTrue(self.content(disk) == before)

    def test_a_dry_run_names_each_device_and_writes_nothing(self):
        disk = self.mac(tree={})
        template = self.template(OBJECTS)
        before = images.snapshot(disk), images.snapshot(template)
        result = self.vorlix_run(*self.auto(disk, template, "--dry-run"))
        self.assertEqual(result.returncode, 1, result.stderr)
        lines = [line for line in result.stdout.splitlines() if line.startswith("{")]
        self.assertEqual(len(lines), 9, result.stdout)
        for line in lines:
            is_system = boot_stores.MANAGER in line or boot_stores.MEMORY_TESTER in line
            self.assertTrue(line.endswith("the EFI System Partition" if is_system else "the Windows volume"), line)
            name = line.split()[0]
            element = next(word for word in line.split() if len(word) == 8 and word[1:].isdigit())
            data = OBJECTS[name][1][int(element, 16)]
            is_mbr = boot_stores.mbr_device()[16:] in data
            self.assertIn("byte 1048576 of disk 12345678" if is_mbr else gpt.guid_text(bytes([1] * 16)), line)
        self.assert_unchanged(disk, before[0])
        self.assert_unchanged(template, before[1])
        self.assertEqual(os.listdir(self.state), [])

    def test_a_store_without_partitions_is_refused(self):
        disk = self.mac()
        template = self.template({
            boot_stores.MANAGER: (boot_stores.TYPE_MANAGER, {boot_stores.DEVICE: boot_stores.boot_device()}),
            boot_stores.LOADER: (boot_stores.TYPE_LOADER, {}),
        })
        for force in ((), ("--force",)):
            self.refuse(disk, self.auto(disk, template, *force), template, "no device element names a partition")

    def test_what_is_no_store_is_refused(self):
        disk = self.mac()
        with open(self.template(OBJECTS, "whole"), "rb") as file:
            whole = file.read()
        cases = {
            "empty": (b"", "is empty"),
            "text": (b"Windows Registry Editor Version 5.00\r\n" * 500, "is no registry hive"),
            "cut off": (whole[:-4096], "cut off"),
            "another hive": (hive.empty_hive(), "no boot configuration store"),
        }
        for name, (content, reason) in cases.items():
            with self.subTest(name):
                template = self.file(name, content)
                self.refuse(disk, self.auto(disk, template), template, reason, "nothing was written")
        for name in ("empty", "text", "cut off", "another hive"):
            self.refuse(disk, self.auto(disk, self.path(name), "--force"), self.path(name), "nothing was written")

    def test_damaged_stores_end_with_a_message_or_a_sound_result(self):
        disk = self.mac()
        with open(self.template(OBJECTS, "whole"), "rb") as file:
            whole = file.read()
        chance = random.Random(11)
        refused = 0
        for number in range(40):
            damaged = bytearray(whole)
            for _ in range(chance.choice((1, 4, 40))):
                damaged[chance.randrange(4096, len(damaged))] ^= 1 << chance.randrange(8)
            template = self.file("damaged", bytes(damaged))
            result = self.vorlix_run(*self.auto(disk, template, "--dry-run"))
            self.assertIn(result.returncode, (1, 2), f"{number}: {result.stderr}")
            if result.returncode == 2:
                refused += 1
                self.assertTrue(result.stderr.splitlines()[-1].startswith(f"vorlix: {template}: "), result.stderr)
                self.assertIn("nothing was written", result.stderr)
        self.assertGreater(refused, 0)

    def test_a_command_without_the_companion_says_so(self):
        disk = self.mac()
        template = self.template(OBJECTS)
        folder = self.path("copy")
        os.mkdir(folder, 0o755)
        self.vorlix = volumes.copy_command(self.vorlix, folder)
        os.remove(os.path.join(folder, "tools", "bin", "boot_store"))
        self.refuse(disk, self.auto(disk, template), template, "boot_store is not installed")


@unittest.skipUnless(volumes.IS_ROOT, "needs root")
class AutoAsRoot(Auto):
    AS_ROOT = True


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Companion(images.CommandTest):
    """The companion program by itself."""

    def setUp(self):
        super().setUp()
        self.program = os.path.join(os.path.dirname(hives.companion(self.vorlix)), "boot_store")

    def run_program(self, *arguments):
        return subprocess.run([self.program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=60, check=False)

    def store(self):
        return boot_stores.make_store(self.path("store"), OBJECTS)

    def test_a_list_says_where_the_data_is(self):
        path = self.store()
        result = self.run_program("list", path)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        with open(path, "rb") as file:
            content = file.read()
        found = {}
        for line in result.stdout.splitlines():
            words = line.split()
            if words[0] == "object":
                name = words[1]
                found[name] = int(words[2], 16), {}
            elif words[0] == "element":
                data = bytes.fromhex(words[4])
                if len(data) > 4:
                    self.assertEqual(content[int(words[3]) :][: len(data)], data)
                found[name][1][int(words[1], 16)] = int(words[2]), data
        self.assertEqual(found, {name: (kind, {element: hives.typed(value) for element, value in elements.items()})
                                 for name, (kind, elements) in OBJECTS.items()})
        self.assertTrue(result.stdout.endswith("\nend\n"))

    def test_edits_make_a_changed_copy(self):
        path = self.store()
        before = images.snapshot(path)
        new = "{aaaaaaaa-2222-3333-4444-555555555555}"
        edits = self.path("edits")
        with open(edits, "w", encoding="ascii") as file:
            file.write(f"remove {boot_stores.RAM_LOADER}\n"
                       f"object {new} 10200003\n"
                       f"set {new} 12000004 1 {hives.utf16('New').hex()}\n"
                       f"set {boot_stores.MANAGER} 25000004 3 0a00000000000000\n"
                       f"unset {boot_stores.MANAGER} 23000003\n"
                       f"unset {boot_stores.MANAGER} 45000001\n")
        result = self.run_program("edit", path, edits, self.path("result"))
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "end\n", ""))
        expected = {name: (kind, dict(elements)) for name, (kind, elements) in OBJECTS.items()}
        del expected[boot_stores.RAM_LOADER]
        expected[new] = boot_stores.TYPE_LOADER, {0x12000004: "New"}
        expected[boot_stores.MANAGER][1][0x25000004] = bytes([10, 0, 0, 0, 0, 0, 0, 0])
        del expected[boot_stores.MANAGER][1][0x23000003]
        self.assertEqual(boot_stores.read_store(self.path("result")), expected)
        self.assert_unchanged(path, before)

    def test_what_is_not_an_edit_is_refused(self):
        path = self.store()
        edits = self.path("edits")
        for line in ("more", "remove {}", f"object {boot_stores.MANAGER}", f"set {boot_stores.MANAGER} 12000004 1 0",
                     f"set {boot_stores.MANAGER} 12000004 x 00", f"unset {boot_stores.MANAGER} ..\\..", "remove ..\\..",
                     f"set {boot_stores.MANAGER} 12000004 1 zz"):
            with open(edits, "w", encoding="ascii") as file:
                file.write(line + "\n")
            result = self.run_program("edit", path, edits, self.path("result"))
            self.assertEqual((result.returncode, result.stdout), (2, ""), line)
            self.assertFalse(os.path.exists(self.path("result")))

    def test_damaged_stores_end_with_one_message(self):
        with open(self.store(), "rb") as file:
            whole = file.read()
        chance = random.Random(5)
        damaged_path = self.path("damaged")
        for number in range(150):
            damaged = bytearray(whole)
            if number % 3 == 0:
                del damaged[chance.randrange(len(damaged)) :]
            for _ in range(chance.choice((0, 1, 8, 100)) if damaged else 0):
                damaged[chance.randrange(len(damaged))] = chance.randrange(256)
            with open(damaged_path, "wb") as file:
                file.write(damaged)
            result = self.run_program("list", damaged_path)
            if result.returncode == 0:
                self.assertTrue(result.stdout.endswith("end\n"))
            else:
                self.assertEqual((result.returncode, result.stdout, result.stderr.count("\n")), (2, "", 1))

    def test_usage(self):
        for arguments in ((), ("list",), ("edit", "a", "b"), ("more", "a")):
            result = self.run_program(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertIn("Usage", result.stderr)
        self.assertIn("Usage", self.run_program("--help").stdout)
        self.assertTrue(self.run_program("--version").stdout.startswith("boot_store "))


if __name__ == "__main__":
    images.main()
