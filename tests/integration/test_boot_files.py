# SPDX-License-Identifier: Apache-2.0
"""`vorlix bcd --from-windows`: the boot files of a Windows, from its own volume, and a store made from its template."""

import contextlib
import json
import os
import struct
import unittest

from support import boot_stores, firmware, gpt, hive, hives, images, samples, tools, volumes
from test_boot_store import identifiers

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "mkfs.vfat", "fsck.vfat", "mmd", "mcopy", "mtype", "mdir",
                          "mdel", "setpriv", *boot_stores.NEEDED)

WINDOWS = volumes.WINDOWS.number
SIGNATURE = 0x5AA5C33C

GLOBAL = "{7ea2e1ac-2e61-4728-aaa3-896d9d0a9f0e}"
LOADER_SETTINGS = "{6efb52bf-1766-41db-a6b3-0ee5eff72bd7}"
RESUME_SETTINGS = "{1afa9c49-16ab-4a5c-4a90-212802da9460}"
BAD_MEMORY = "{5189b25c-5558-4bf2-bca4-289b11bd29e2}"

ONE, TWO = struct.pack("<Q", 1), struct.pack("<Q", 2)

# The template of a Windows 10 as a public listing has it, without settings of debuggers: bcdedit's names are those of the
# elements in Microsoft's reference.
TEMPLATE = {
    BAD_MEMORY: (0x20100000, {}),
    GLOBAL: (0x20100000, {0x14000006: [BAD_MEMORY]}),
    LOADER_SETTINGS: (0x20200003, {0x14000006: [GLOBAL]}),
    RESUME_SETTINGS: (0x20200004, {0x14000006: [GLOBAL]}),
    boot_stores.MANAGER: (boot_stores.TYPE_MANAGER, {
        0x12000002: "\\EFI\\Microsoft\\Boot\\bootmgfw.efi",
        0x12000004: "Windows Boot Manager",
        0x12000005: "en-US",
        0x14000006: [GLOBAL],
        0x23000003: "{cbd971bf-b7b8-4885-951a-fa03044f5d71}",
        0x25000004: struct.pack("<Q", 30),
        0x45000001: ONE,
        0x46000007: struct.pack("<Q", 0x16000010),
    }),
    boot_stores.MEMORY_TESTER: (boot_stores.TYPE_MEMORY_TESTER, {
        0x12000002: "\\boot\\memtest.exe",
        0x12000005: "en-US",
        0x14000006: [GLOBAL],
        0x1600000B: b"\1",
        0x45000001: ONE,
    }),
    "{466f5a88-0af2-4f76-9038-095b170dc21c}": (0x10300006, {0x12000002: "\\ntldr", 0x45000001: ONE}),
    "{cbd971bf-b7b8-4885-951a-fa03044f5d71}": (boot_stores.TYPE_LOADER, {0x22000002: "\\windows", 0x26000022: b"\1"}),
    "{7254a080-1510-4e85-ac0f-e7fb3d444736}": (boot_stores.TYPE_LOADER, {0x22000002: "\\windows", 0x26000022: b"\1"}),
    "{98b02a23-0674-4ce7-bdad-e0a15a8ff97b}": (boot_stores.TYPE_RESUME, {
        0x12000004: "Windows Resume Application",
        0x12000005: "en-US",
        0x14000006: [RESUME_SETTINGS],
        0x17000077: struct.pack("<Q", 0x15000075),
        0x22000002: "\\hiberfil.sys",
        0x25000008: ONE,
        0x42000002: "\\system32\\winresume.exe",
        0x45000001: TWO,
    }),
    "{0c334284-9a41-4de1-99b3-a7e87e8ff07e}": (boot_stores.TYPE_RESUME, {
        0x12000004: "Windows Resume Application",
        0x12000005: "en-US",
        0x14000006: [RESUME_SETTINGS],
        0x16000060: b"\1",
        0x17000077: struct.pack("<Q", 0x15000075),
        0x22000002: "\\hiberfil.sys",
        0x25000008: ONE,
        0x42000002: "\\system32\\winresume.efi",
        0x45000001: TWO,
    }),
    "{a1943bbc-ea85-487c-97c7-c9ede908a38a}": (boot_stores.TYPE_LOADER, {
        0x12000005: "en-US",
        0x14000006: [LOADER_SETTINGS],
        0x17000077: struct.pack("<Q", 0x15000075),
        0x22000002: "\\windows",
        0x23000003: "{98b02a23-0674-4ce7-bdad-e0a15a8ff97b}",
        0x25000020: bytes(8),
        0x250000C2: ONE,
        0x42000002: "\\system32\\winload.exe",
        0x45000001: TWO,
    }),
    "{b012b84d-c47c-4ed5-b722-c0c42163e569}": (boot_stores.TYPE_LOADER, {
        0x12000005: "en-US",
        0x14000006: [LOADER_SETTINGS],
        0x16000060: b"\1",
        0x17000077: struct.pack("<Q", 0x15000075),
        0x22000002: "\\windows",
        0x23000003: "{0c334284-9a41-4de1-99b3-a7e87e8ff07e}",
        0x25000020: bytes(8),
        0x250000C2: ONE,
        0x42000002: "\\system32\\winload.efi",
        0x45000001: TWO,
    }),
}


def program(machine=0x8664, size=5000):
    """The head of an EFI program for a processor."""
    return b"MZ".ljust(0x3C, b"\0") + struct.pack("<I", 0x80) + bytes(0x40) + b"PE\0\0" + struct.pack("<H", machine) + b"x" * size


def windows_tree(template, machine=0x8664):
    """The files of a Windows that matter here."""
    tree = {}
    files = {
        "Windows/System32/config/BCD-Template": template,
        "Windows/System32/winload.efi": b"loader for EFI",
        "Windows/System32/winload.exe": b"loader for BIOS",
        "Windows/Boot/EFI/bootmgfw.efi": program(machine),
        "Windows/Boot/EFI/bootmgr.efi": b"manager" * 500,
        "Windows/Boot/EFI/memtest.efi": b"memory" * 300,
        "Windows/Boot/EFI/boot.stl": b"",
        "Windows/Boot/EFI/en-US/bootmgfw.efi.mui": b"English" * 99,
        "Windows/Boot/EFI/en-US/memtest.efi.mui": b"English tester",
        "Windows/Boot/EFI/de-DE/bootmgfw.efi.mui": b"Deutsch" * 99,
        "Windows/Boot/PCAT/bootmgr": b"manager for BIOS" * 200,
        "Windows/Boot/PCAT/bootnxt": b"next",
        "Windows/Boot/PCAT/memtest.exe": b"memory for BIOS",
        "Windows/Boot/PCAT/en-US/bootmgr.exe.mui": b"English for BIOS",
        "Windows/Boot/Fonts/wgl4_boot.ttf": b"font" * 1000,
        "Windows/Boot/Resources/bootres.dll": b"picture",
        "Windows/Boot/Resources/en-US/bootres.dll.mui": b"text",
    }
    for path, content in files.items():
        steps = path.split("/")
        for depth in range(1, len(steps)):
            tree.setdefault("/".join(steps[:depth]), None)
        tree[path] = content
    return tree


def boot_tree(tree, kind):
    """The files that a start needs beside the store: {path on the target: bytes}."""
    below = {"EFI": "EFI/Microsoft/Boot/", "PCAT": "Boot/"}[kind]
    found = {}
    for path, content in tree.items():
        if content is None or not path.startswith("Windows/Boot/"):
            continue
        folder, rest = path.removeprefix("Windows/Boot/").split("/", 1)
        if folder == kind:
            found[below + rest] = content
        elif folder in ("Fonts", "Resources"):
            found[f"{below}{folder}/{rest}"] = content
    if kind == "EFI":
        found["EFI/Boot/bootx64.efi"] = tree["Windows/Boot/EFI/bootmgfw.efi"]
    else:
        found["bootmgr"] = found.pop("Boot/bootmgr")
        found["BOOTNXT"] = found.pop("Boot/bootnxt")
    return found


@contextlib.contextmanager
def slice_device(disk, part):
    """A loop device over a slice of an image."""
    with tools.loop_device(disk, 512) as device:
        images.run_tool("losetup", "--detach", device)
        images.run_tool("losetup", "--offset", str(part.first * samples.SECTOR), "--sizelimit",
                        str(part.sectors * samples.SECTOR), device, disk)
        yield device


def files_of(tree):
    return {path: content for path, content in tree.items() if content is not None}


class BootFilesTest(volumes.VolumeTest):
    OFFSET = volumes.WINDOWS.first * samples.SECTOR

    def setUp(self):
        super().setUp()
        hives.companion(self.vorlix)  # skips where hivex is missing
        path = boot_stores.make_store(self.path("BCD-Template"), TEMPLATE)
        with open(path, "rb") as file:
            self.tree = windows_tree(file.read())

    def disk(self, efi=None, tree=None, name="mac.img"):
        """A Mac disk whose Windows volume, a FAT volume, has these files."""
        path = volumes.make_mac(self.path(name), efi or {})
        volume = volumes.make_fat(self.path("windows.img"), 12, "BOOTCAMP", volumes.WINDOWS.sectors * samples.SECTOR)
        volumes.put_tree(volume, self.tree if tree is None else tree)
        samples.place(path, volume, volumes.WINDOWS.first)
        os.remove(volume)
        return self.give(path)

    def command(self, disk, *options):
        return ["bcd", disk, "--partition", WINDOWS, "--from-windows", *options]

    def test_a_dry_run_as_json(self):
        try:
            import jsonschema
        except ImportError:
            self.skipTest("Python's jsonschema is not installed")
        with open(os.path.join(os.environ["VORLIX_SOURCE"], "docs/json/bcd-dry-run.schema.json"), encoding="utf-8") as file:
            validator = jsonschema.Draft202012Validator(json.load(file))
        disk = self.disk()
        before = images.snapshot(disk)
        result = self.vorlix_run(*self.command(disk, "--dry-run", "--json"))
        self.assertEqual(result.returncode, 1, result.stderr)
        plan = json.loads(result.stdout)
        validator.validate(plan)
        self.assert_unchanged(disk, before)
        self.vorlix_ok(*self.command(disk))
        written = self.efi_files(disk)
        self.assertEqual({item["path"].lower().strip("/"): item["size"] for item in plan["files"]},
                         {path.lower(): len(content) for path, content in written.items()})
        plan = json.loads(self.vorlix_ok(*self.command(disk, "--dry-run", "--json")).stdout)
        validator.validate(plan)
        self.assertEqual((plan["changeNeeded"], plan["files"], plan["present"]), (False, [], len(written)))

    def content(self, path):
        with open(path, "rb") as file:
            return file.read()

    def efi_files(self, disk):
        return files_of(volumes.read_tree(disk, volumes.EFI_OFFSET))

    def assert_sound(self, disk):
        volumes.check_fat(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)
        self.assert_nothing_mounted()

    def refuse(self, disk, *saying, options=()):
        before = images.snapshot(disk)
        message = self.vorlix_refuses(*self.command(disk, *options), saying=saying)
        self.assert_unchanged(disk, before)
        self.assert_nothing_mounted()
        return message

    def store_objects(self, content):
        path = self.path("store")
        with open(path, "wb") as file:
            file.write(content)
        return boot_stores.read_store(path)

    def expected_store(self, found, system, windows, kind, description="Windows"):
        """What the store has, by the template and public listings of stores. `found` gives the new objects' names."""
        is_efi = kind == "EFI"
        ending = "efi" if is_efi else "exe"
        manager = dict(found[boot_stores.MANAGER][1])
        loader, resume = manager[0x23000003], manager[0x23000006]
        expected = {name: TEMPLATE[name] for name in (BAD_MEMORY, GLOBAL, LOADER_SETTINGS, RESUME_SETTINGS)}
        expected[boot_stores.MANAGER] = boot_stores.TYPE_MANAGER, {
            boot_stores.DEVICE: system,
            **({0x12000002: "\\EFI\\Microsoft\\Boot\\bootmgfw.efi"} if is_efi else {}),
            0x12000004: "Windows Boot Manager",
            0x12000005: "en-US",
            0x14000006: [GLOBAL],
            0x23000003: loader,
            0x23000006: resume,
            0x24000001: [loader],
            0x24000010: [boot_stores.MEMORY_TESTER],
            0x25000004: struct.pack("<Q", 30),
        }
        isolated = {0x16000060: b"\1"} if is_efi else {}
        expected[loader] = boot_stores.TYPE_LOADER, {
            boot_stores.DEVICE: windows,
            0x12000002: f"\\Windows\\system32\\winload.{ending}",
            0x12000004: description,
            0x12000005: "en-US",
            0x14000006: [LOADER_SETTINGS],
            **isolated,
            0x17000077: struct.pack("<Q", 0x15000075),
            boot_stores.OS_DEVICE: windows,
            0x22000002: "\\Windows",
            0x23000003: resume,
            0x25000020: bytes(8),
            0x250000C2: ONE,
        }
        expected[resume] = boot_stores.TYPE_RESUME, {
            boot_stores.DEVICE: windows,
            0x12000002: f"\\Windows\\system32\\winresume.{ending}",
            0x12000004: "Windows Resume Application",
            0x12000005: "en-US",
            0x14000006: [RESUME_SETTINGS],
            **isolated,
            0x17000077: struct.pack("<Q", 0x15000075),
            boot_stores.OS_DEVICE: windows,
            0x22000002: "\\hiberfil.sys",
            0x25000008: ONE,
        }
        expected[boot_stores.MEMORY_TESTER] = boot_stores.TYPE_MEMORY_TESTER, {
            boot_stores.DEVICE: system,
            0x12000002: "\\EFI\\Microsoft\\Boot\\memtest.efi" if is_efi else "\\Boot\\memtest.exe",
            0x12000004: "Windows Memory Diagnostic",
            0x12000005: "en-US",
            0x14000006: [GLOBAL],
            0x1600000B: b"\1",
        }
        return expected

    def gpt_devices(self, disk):
        of = lambda guids: hive.device_element(guids["P"], guids["D"])  # noqa: E731
        return of(identifiers(disk, volumes.EFI.number)), of(identifiers(disk))

    def assert_efi_start(self, disk, more=None):
        found = self.efi_files(disk)
        store = found.pop("EFI/Microsoft/Boot/BCD")
        expected = {**boot_tree(self.tree, "EFI"), **(more or {})}
        self.assertEqual(sorted(found), sorted(expected))
        self.assertTrue(found == expected)
        objects = self.store_objects(store)
        self.assertEqual(objects, self.expected_store(objects, *self.gpt_devices(disk), "EFI"))
        self.assert_sound(disk)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class FromWindows(BootFilesTest):
    def test_an_empty_system_partition_gets_everything(self):
        disk = self.disk()
        outside = volumes.hash_outside_efi(disk)
        result = self.vorlix_ok(*self.command(disk))
        self.assertIn(f"Files      {len(boot_tree(self.tree, 'EFI')) + 1} written", result.stdout)
        self.assert_efi_start(disk)
        self.assertEqual(volumes.hash_outside_efi(disk), outside)

    def test_a_second_run_writes_nothing(self):
        disk = self.disk()
        self.vorlix_ok(*self.command(disk))
        before = images.snapshot(disk)
        self.assertIn("none written", self.vorlix_ok(*self.command(disk)).stdout)
        self.assert_unchanged(disk, before)
        self.assertEqual(self.vorlix_run(*self.command(disk, "--dry-run")).returncode, 0)
        self.assert_unchanged(disk, before)

    def test_old_files_and_stores_are_replaced_in_their_spelling(self):
        old = {"EFI": None, "EFI/MICROSOFT": None, "EFI/MICROSOFT/BOOT": None, "EFI/MICROSOFT/BOOT/bcd": b"old store",
               "EFI/MICROSOFT/BOOT/BOOTMGFW.EFI": b"old manager", "EFI/other": b"stays"}
        disk = self.disk(old)
        saved = self.path("saved")
        self.vorlix_ok(*self.command(disk, "--backup", saved))
        found = self.efi_files(disk)
        self.assertEqual(found["EFI/MICROSOFT/BOOT/BOOTMGFW.EFI"], self.tree["Windows/Boot/EFI/bootmgfw.efi"])
        self.assertEqual(found["EFI/MICROSOFT/BOOT/bcd"][:4], b"regf")
        self.assertEqual(found["EFI/MICROSOFT/BOOT/en-US/bootmgfw.efi.mui"], b"English" * 99)
        self.assertEqual(found["EFI/other"], b"stays")
        self.assertEqual(len({path.lower() for path in found}), len(found))
        self.vorlix_ok("undo", os.path.join(saved, os.listdir(saved)[0]))
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET), old)
        self.assert_sound(disk)

    def test_undo_takes_away_what_was_made(self):
        disk = self.disk({"EFI": None, "EFI/APPLE": None})
        saved = self.path("saved")
        self.vorlix_ok(*self.command(disk, "--backup", saved))
        self.vorlix_ok("undo", os.path.join(saved, os.listdir(saved)[0]))
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET), {"EFI": None, "EFI/APPLE": None})
        self.assert_sound(disk)

    def test_another_program_in_the_firmware_s_place_stays(self):
        other = {"EFI/Boot/bootx64.efi": b"another system's"}
        disk = self.disk({"EFI": None, "EFI/Boot": None, **other})
        result = self.vorlix_ok(*self.command(disk))
        self.assertIn("Kept       EFI/Boot/bootx64.efi", result.stdout)
        self.assert_efi_start(disk, other)

    def test_the_processor_of_the_manager_names_the_firmware_s_file(self):
        for machine, name in ((0x14C, "bootia32.efi"), (0xAA64, "bootaa64.efi")):
            with self.subTest(name):
                tree = windows_tree(self.tree["Windows/System32/config/BCD-Template"], machine)
                disk = self.disk(tree=tree, name=f"{name}.img")
                self.vorlix_ok(*self.command(disk))
                found = {path for path in self.efi_files(disk) if path.startswith("EFI/Boot/")}
                self.assertEqual(found, {f"EFI/Boot/{name}"})

    def test_a_dry_run_lists_all_and_writes_nothing(self):
        disk = self.disk()
        before = images.snapshot(disk)
        result = self.vorlix_run(*self.command(disk, "--dry-run", "--backup", self.path("saved")))
        self.assertEqual(result.returncode, 1, result.stderr)
        for path in (*boot_tree(self.tree, "EFI"), "EFI/Microsoft/Boot/BCD"):
            self.assertIn(f"  {path} (", result.stdout)
        for folder in ("EFI", "EFI/Microsoft/Boot/en-US", "EFI/Boot"):
            self.assertIn(f"  {folder}/\n", result.stdout)
        for text in ("boot manager", "loader", "resume", "memory tester"):
            self.assertIn(text, result.stdout)
        self.assert_unchanged(disk, before)
        self.assertEqual(os.listdir(self.state), [])
        self.assertFalse(os.path.exists(self.path("saved")))

    def test_a_partition_without_room(self):
        listing = volumes.mtools("mdir", self.disk(), "::/", offset=volumes.EFI_OFFSET).decode()
        free = int(listing.split("bytes free")[0].split("\n")[-1].replace(" ", ""))
        disk = self.disk({"filler": bytes(free - 16384)}, name="full.img")
        before = self.efi_files(disk)
        self.assertIn("nothing was written", self.vorlix_refuses(*self.command(disk), saying=["no room"]))
        self.assertTrue(self.efi_files(disk) == before)
        self.assert_sound(disk)

    def test_volumes_without_what_is_needed(self):
        for path, reason in (("Windows/System32/winload.efi", "does not start by EFI"),
                             ("Windows/System32/config/BCD-Template", "no Windows/System32/config/BCD-Template"),
                             ("Windows/Boot/EFI/bootmgfw.efi", "no Windows/Boot/EFI/bootmgfw.efi")):
            with self.subTest(path):
                tree = {name: content for name, content in self.tree.items() if name != path}
                self.refuse(self.disk(tree=tree), reason, "nothing was written")
        self.refuse(self.disk(tree={}), "no folder Windows", "nothing was written")

    def test_templates_that_are_no_store(self):
        whole = self.tree["Windows/System32/config/BCD-Template"]
        for content in (b"", b"text" * 5000, whole[:5000], hive.empty_hive()):
            tree = {**self.tree, "Windows/System32/config/BCD-Template": content}
            self.refuse(self.disk(tree=tree), "BCD-Template", "nothing was written")

    def test_files_in_the_place_of_folders(self):
        self.refuse(self.disk({"EFI": b"a file"}), "no folder", "nothing was written")
        self.refuse(self.disk({"EFI": None, "EFI/Microsoft": None, "EFI/Microsoft/Boot": None,
                               "EFI/Microsoft/Boot/BCD": None}), "no file", "nothing was written")

    def test_options_that_do_not_belong_together(self):
        disk = self.disk()
        self.refuse(disk, "--template", options=["--template", self.path("BCD-Template")])
        self.refuse(disk, "--mode", options=["--mode", "auto"])
        before = images.snapshot(disk)
        for options, named in (([], "--from-windows"), (["--template", "x"], "--mode"), (["--firmware", "efi"], "--from-windows")):
            self.vorlix_refuses("bcd", disk, "--partition", WINDOWS, *options, saying=[named])
        self.assert_unchanged(disk, before)

    def bios_disk(self):
        disk = self.disk()
        self.vorlix_ok("hybrid", disk, "--partition", WINDOWS, "--no-backup", "--force")
        with open(disk, "r+b") as file:
            file.seek(440)
            file.write(struct.pack("<I", SIGNATURE))
        return disk

    def test_a_bios_start(self):
        disk = self.bios_disk()
        saved = self.path("saved")
        before = volumes.read_tree(disk, self.OFFSET)
        efi = volumes.read_tree(disk, volumes.EFI_OFFSET)
        self.vorlix_ok(*self.command(disk, "--firmware", "bios", "--description", "My Windows", "--backup", saved))
        found = files_of(volumes.read_tree(disk, self.OFFSET))
        objects = self.store_objects(found.pop("Boot/BCD"))
        self.assertEqual(found, {**files_of(self.tree), **boot_tree(self.tree, "PCAT")})
        device = boot_stores.mbr_device(self.OFFSET, SIGNATURE)
        self.assertEqual(objects, self.expected_store(objects, device, device, "PCAT", "My Windows"))
        self.assertEqual(volumes.read_tree(disk, volumes.EFI_OFFSET), efi)
        volumes.check_fat(disk, self.OFFSET, volumes.WINDOWS.sectors * samples.SECTOR)
        self.assert_nothing_mounted()
        again = images.snapshot(disk)
        options = ["--firmware", "bios", "--description", "My Windows"]
        self.assertIn("none written", self.vorlix_ok(*self.command(disk, *options)).stdout)
        self.assert_unchanged(disk, again)
        self.vorlix_ok("undo", os.path.join(saved, os.listdir(saved)[0]))
        self.assertEqual(volumes.read_tree(disk, self.OFFSET), before)

    def test_a_bios_start_needs_a_slot_and_a_signature(self):
        self.refuse(self.disk(), "no slot for it", "vorlix hybrid", options=["--firmware", "bios"])
        disk = self.bios_disk()
        with open(disk, "r+b") as file:
            file.seek(440)
            file.write(bytes(4))
        self.refuse(disk, "no disk signature", options=["--firmware", "bios"])


@unittest.skipIf(MISSING or firmware.missing(), f"not installed: {MISSING} {firmware.missing()}")
@unittest.skipIf(images.SANITIZED, "the firmware sees the disk alone, which is the same without sanitizers")
class ByFirmware(BootFilesTest):
    """EFI firmware starts what was copied: here a program of our own in the place of the boot manager, which finds the
    partitions that the devices of the store name."""

    def test_the_store_leads_to_both_partitions(self):
        self.tree["Windows/Boot/EFI/bootmgfw.efi"] = firmware.make_store_reader(self.folder)
        disk = self.disk()
        self.vorlix_ok(*self.command(disk))
        lines = firmware.start(disk, self.folder)
        expected = []
        for part, count in ((volumes.EFI, 2), (volumes.WINDOWS, 4)):  # manager and tester; loader and resume object
            guids = identifiers(disk, part.number)
            names = gpt.guid_text(guids["P"]), gpt.guid_text(guids["D"])
            line = f"store names partition {names[0]} of disk {names[1]}: found, {part.sectors} blocks from {part.first}"
            expected += [line] * count
        self.assertEqual(sorted(lines), sorted(expected))


@unittest.skipUnless(volumes.IS_ROOT, "needs root")
class FromWindowsAsRoot(FromWindows):
    AS_ROOT = True

    # What needs root is the making of the NTFS volumes.
    NO_NTFS = volumes.missing("mkntfs", "ntfs-3g", "umount", "losetup")

    def ntfs_disk(self, run=lambda disk: None):
        """A disk whose Windows volume is NTFS. Calls `run` while a driver has the volume mounted."""
        disk = self.disk()
        volume = self.path("ntfs.img")
        with open(volume, "wb") as file:
            file.truncate(volumes.WINDOWS.sectors * samples.SECTOR)
        images.run_tool("mkntfs", "-F", "-Q", "-q", "-p", str(volumes.WINDOWS.first), "-s", "512", volume)
        samples.place(disk, volume, volumes.WINDOWS.first)
        with slice_device(disk, volumes.WINDOWS) as device:
            folder = self.path("ntfs")
            os.mkdir(folder)
            images.run_tool("ntfs-3g", device, folder)
            try:
                for path, content in self.tree.items():
                    if content is None:
                        os.mkdir(os.path.join(folder, path))
                    else:
                        with open(os.path.join(folder, path), "wb") as file:
                            file.write(content)
                run(disk)
            finally:
                tools.unmount(folder)
        return disk

    @unittest.skipIf(NO_NTFS, f"not installed: {NO_NTFS}")
    def test_a_windows_on_ntfs_that_a_driver_has_mounted(self):
        self.assert_efi_start(self.ntfs_disk(lambda disk: self.vorlix_ok(*self.command(disk))))

    @unittest.skipIf(NO_NTFS, f"not installed: {NO_NTFS}")
    def test_a_windows_on_ntfs_that_is_not_mounted(self):
        disk = self.ntfs_disk()
        outside = volumes.hash_outside_efi(disk)
        self.vorlix_ok(*self.command(disk))
        self.assert_efi_start(disk)
        self.assertEqual(volumes.hash_outside_efi(disk), outside)


if __name__ == "__main__":
    images.main()
