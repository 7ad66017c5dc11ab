# SPDX-License-Identifier: Apache-2.0
"""`vorlix identify`, compared with sgdisk, sfdisk and blkid: disks, slices, both block sizes, loop devices."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest
import uuid

from support import gpt, images, tools, volumes

MISSING = volumes.missing("sgdisk", "sfdisk", "blkid", "setpriv")

MAC = tools.MAC_LAYOUT
MEMBERS = ["version", "schema", "device", "name", "wholeDisk", "partition", "mediumType", "diskGUID", "partitionGUID", "offset"]


def raw(text):
    """A GUID's on-disk bytes as in a hex dump."""
    return uuid.UUID(text).bytes_le.hex(" ").upper()


def medium_of_device(number):
    """The kernel's description of a disk, or of a partition's disk; None if it has none."""
    folder = os.path.realpath(f"/sys/dev/block/{os.major(number)}:{os.minor(number)}")
    if os.path.exists(os.path.join(folder, "partition")):
        folder = os.path.dirname(folder)
    try:
        with open(os.path.join(folder, "queue/rotational"), encoding="ascii") as file:
            return "Rotational" if int(file.read()) else "Solid State"
    except FileNotFoundError:
        return None


class IdentifyTest(volumes.VolumeTest):
    def identify(self, device, nothing=None):
        """Returns the JSON output; the plain text must say the same. `nothing`: the reason why the device has no identity."""
        results = [self.vorlix_run("identify", device, *options) for options in (["--json"], [])]
        for result in results:
            self.assertEqual(result.returncode, 1 if nothing else 0, result.stderr)
            told = [line for line in result.stderr.splitlines() if "nothing identifies it" in line]
            self.assertEqual(told, [f"vorlix: {device}: nothing identifies it: {nothing}"] if nothing else [])
        shown = json.loads(results[0].stdout)
        self.assertEqual(list(shown), MEMBERS)
        self.assertEqual((shown["schema"], shown["device"]), (1, device))
        self.assert_same_text(results[1].stdout, shown)
        return shown

    def assert_same_text(self, text, shown):
        lines = []

        def add(label, value):
            lines.append(f"{label:<15} {value}")

        def add_guid(label, guid):
            add(label, guid["text"] if guid else "unknown")
            if guid:
                add("", guid["raw"] + " (raw)")

        add("Device", shown["name"])
        add("Whole disk", shown["wholeDisk"])
        if shown["partition"]:
            add("Partition", shown["partition"])
        add("Medium type", shown["mediumType"] or "unknown")
        add_guid("Disk GUID", shown["diskGUID"])
        if shown["name"] != shown["wholeDisk"]:
            add_guid("Partition GUID", shown["partitionGUID"])
            add("Offset", "unknown" if shown["offset"] is None else f"{shown['offset']} bytes")
        self.assertEqual(text.splitlines(), lines)

    def assert_disk(self, shown, disk, name):
        """Checks the fields that a disk and its slices share; blkid and sgdisk must agree on the disk's GUID."""
        export = images.run_tool("blkid", "-p", "-o", "export", disk)
        guid = re.search(r"^PTUUID=(\S+)$", export, re.MULTILINE).group(1).upper()
        self.assertIn(f"Disk identifier (GUID): {guid}", tools.sgdisk(disk, "-p"))
        self.assertEqual(shown["diskGUID"], {"text": guid, "raw": raw(guid)})
        self.assertEqual(shown["wholeDisk"], name)

    def assert_slice(self, device, disk, name, number, block_size=512):
        """Checks a slice of `disk` against other tools."""
        shown = self.identify(device)
        self.assert_disk(shown, disk, name)
        self.assertEqual((shown["name"], shown["partition"]), (f"{name}s{number}", number))
        entry = tools.sgdisk_entry(disk, number)
        guid = entry["Partition unique GUID"]
        self.assertEqual(shown["partitionGUID"], {"text": guid, "raw": raw(guid)})
        self.assertEqual(shown["offset"], int(entry["First sector"].split()[0]) * block_size)
        return shown

    def assert_whole(self, device, disk, name):
        shown = self.identify(device)
        self.assert_disk(shown, disk, name)
        self.assertEqual((shown["name"], shown["partition"]), (name, 0))
        self.assertIsNone(shown["partitionGUID"])
        self.assertIsNone(shown["offset"])
        return shown


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Images(IdentifyTest):
    def mac(self, name="mac.img", layout=None, **options):
        return self.give(tools.sgdisk_image(self.path(name), layout or MAC, **options))

    def test_the_slices_of_a_disk(self):
        disk = self.mac(extra=["-n", "128:640000:640007", "-t", "128:8300"])
        before = images.snapshot(disk)
        guids = set()
        for number in [*MAC, 128]:
            with self.subTest(number=number):
                shown = self.assert_slice(f"{disk}s{number}", disk, disk, number)
                guids.add(shown["partitionGUID"]["text"])
                part = [p for p in tools.sfdisk_table(disk)["partitions"] if p["start"] * 512 == shown["offset"]]
                self.assertEqual([p["uuid"] for p in part], [shown["partitionGUID"]["text"]])
        self.assertEqual(len(guids), len(MAC) + 1)
        self.assert_unchanged(disk, before)
        self.assert_nothing_mounted()

    def test_a_whole_disk(self):
        disk = self.mac()
        before = images.snapshot(disk)
        self.assert_whole(disk, disk, disk)
        self.assert_unchanged(disk, before)

    def test_names_as_people_type_them(self):
        disk = self.mac("a disk.img")
        for form in ("/dev/" + disk, os.path.relpath(disk), self.path("../" + os.path.basename(self.folder) + "/a disk.img")):
            with self.subTest(form=form):
                self.assertEqual(os.path.realpath(self.identify(form)["name"]), os.path.realpath(disk))
                shown = self.identify(form + "s3")
                self.assertEqual(shown["offset"], MAC[3][0] * 512)
                self.assertEqual(shown["partition"], 3)

    def test_a_file_whose_name_looks_like_a_slice(self):
        disk = self.mac("disk.imgs1")
        self.assert_whole(disk, disk, disk)
        self.assert_slice(disk + "s3", disk, disk, 3)

    def test_the_medium_is_that_of_the_disk_the_file_is_on(self):
        disk = self.mac()
        expected = medium_of_device(os.stat(disk).st_dev)
        self.assertEqual(self.identify(disk)["mediumType"], expected)
        self.assertEqual(self.identify(disk + "s1")["mediumType"], expected)

    def test_an_offset_beyond_32_bits_of_sectors(self):
        size = 3 << 40
        first = (size >> 9) - 10000
        disk = self.mac(layout={1: (40, 409639, gpt.EFI_SYSTEM), 2: (first, first + 4095, gpt.BASIC_DATA)}, size=size)
        self.assertGreater(first, 1 << 32)
        self.assertEqual(self.assert_slice(disk + "s2", disk, disk, 2)["offset"], first * 512)

    def test_a_table_of_16384_entries(self):
        layout = {1: (5000, 6000, gpt.EFI_SYSTEM), 16384: (9000, 9999, gpt.LINUX)}
        disk = self.mac(layout=layout, table_length=16384)
        self.assert_slice(disk + "s16384", disk, disk, 16384)

    def test_blocks_of_4096_bytes(self):
        """The test writes the GPT itself: no partitioning tool makes such a disk in a file for an ordinary user."""
        entries = [gpt.Entry(gpt.EFI_SYSTEM, 6, 5005, str(uuid.uuid4()).upper()), None,
                   gpt.Entry(gpt.BASIC_DATA, 8000, 11999, str(uuid.uuid4()).upper())]
        table = gpt.Table(4096, 16384, entries)
        disk = self.give(table.write(self.path("large.img")))
        self.assertEqual(self.identify(disk)["diskGUID"]["text"], table.disk_guid)
        for number in (1, 3):
            shown = self.identify(f"{disk}s{number}")
            entry = entries[number - 1]
            self.assertEqual(shown["diskGUID"], {"text": table.disk_guid, "raw": raw(table.disk_guid)})
            self.assertEqual(shown["partitionGUID"], {"text": entry.unique, "raw": raw(entry.unique)})
            self.assertEqual((shown["offset"], shown["partition"]), (entry.first * 4096, number))

    def test_a_disk_with_an_mbr_only(self):
        disk = self.file("mbr.img", b"")
        os.truncate(disk, 32 << 20)
        images.run_tool("sfdisk", "-q", disk, stdin="label: dos\n2048,16384,ef\n18432,16384,7\n")
        whole = self.identify(disk)
        self.assertEqual((whole["diskGUID"], whole["partition"]), (None, 0))
        for number in (1, 2):
            shown = self.identify(f"{disk}s{number}")
            self.assertEqual((shown["wholeDisk"], shown["partition"]), (disk, number))
            self.assertIsNone(shown["diskGUID"])
            self.assertIsNone(shown["partitionGUID"])

    def test_a_hybrid_disk_is_known_by_its_gpt(self):
        disk = self.mac()
        tools.sgdisk(disk, "--hybrid", "2:3:EE")
        self.assert_slice(disk + "s3", disk, disk, 3)

    def test_files_that_are_no_disks(self):
        for name, content in (("empty", b""), ("short", b"x"), ("zeros", bytes(1 << 20))):
            with self.subTest(name=name):
                file = self.file(name, content)
                shown = self.identify(file, nothing="it has no partition table")
                self.assertEqual((shown["name"], shown["wholeDisk"], shown["partition"]), (file, file, 0))
                self.assertIsNone(shown["diskGUID"])
                self.vorlix_refuses("identify", file + "s1", saying=[file + "s1", "no such"])

    def test_an_identifier_cut_off_by_the_end_of_the_file_is_unknown(self):
        disk = self.mac()
        os.truncate(disk, 512 + 60)
        self.assertIsNone(self.identify(disk, nothing="its partition table gives no identifier")["diskGUID"])

    def test_a_damaged_gpt(self):
        """The checksums are wrong: the slices exist, but their identifiers cannot be trusted."""
        disk = self.mac()
        for place in (512 + 60, os.path.getsize(disk) - 512 + 60):
            with open(disk, "r+b") as file:
                file.seek(place)
                file.write(b"XX")
        shown = self.identify(disk + "s3", nothing="its partition table gives no identifier")
        self.assertEqual((shown["partition"], shown["partitionGUID"]), (3, None))

    def test_an_image_below_dev(self):
        """/dev/shm is an ordinary folder; its files keep "/dev/" in their names."""
        if not os.access("/dev/shm", os.W_OK):
            self.skipTest("/dev/shm is missing or not writable")
        folder = tempfile.mkdtemp(dir="/dev/shm")
        self.addCleanup(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        disk = self.give(tools.sgdisk_image(os.path.join(folder, "mac.img"), MAC))
        self.assert_whole(disk, disk, disk)
        self.assert_whole("/dev/" + disk, disk, disk)
        relative = os.path.relpath(disk)
        for form, name in ((disk, disk), ("/dev/" + disk, disk), (relative, os.path.join(os.getcwd(), relative))):
            shown = self.assert_slice(form + "s3", disk, name, 3)
            self.assertEqual(shown["mediumType"], self.identify(disk)["mediumType"])

    def test_a_relative_name_below_a_folder_that_cannot_be_passed(self):
        if not volumes.IS_ROOT:
            self.skipTest("needs root, to enter such a folder")
        closed = self.path("closed")
        os.mkdir(closed)
        os.mkdir(os.path.join(closed, "inner"), 0o777)
        disk = tools.sgdisk_image(os.path.join(closed, "inner", "mac.img"), MAC)
        os.chmod(disk, 0o666)
        os.chmod(closed, 0o700)
        before = images.snapshot(disk)
        for command in (["identify", "mac.img"], ["identify", "mac.imgs3"], ["show", "mac.img"], ["mount", "mac.imgs1"],
                        ["unmount", "mac.imgs1"]):
            with self.subTest(command=command):
                # The process enters the folder as root and then runs as another user.
                result = subprocess.run([*self.prefix(), self.vorlix, *command], cwd=os.path.join(closed, "inner"),
                                        capture_output=True, text=True, check=False)
                self.assertEqual(result.returncode, 2, result.stdout)
                self.assertIn("Permission denied", result.stderr)
        self.assert_unchanged(disk, before)
        # A link that leads out of the closed folder works.
        other = self.mac()
        os.symlink(other, os.path.join(closed, "inner", "link.img"))
        result = subprocess.run([*self.prefix(), self.vorlix, "identify", "--json", "link.imgs3"], text=True,
                                cwd=os.path.join(closed, "inner"), capture_output=True, check=True)
        self.assertEqual(json.loads(result.stdout)["name"], other + "s3")

    def test_devices_that_are_not_there(self):
        disk = self.mac()
        for device in (self.path("missing"), self.path("missings1"), disk + "s5", disk + "s0", disk + "s3s1",
                       disk + "s4294967297", disk + "p3", self.folder, "/dev/null", "no such device", "sdzzz9", ""):
            for options in ([], ["--json"]):
                with self.subTest(device=device, options=options):
                    result = self.vorlix_run("identify", device, *options)
                    self.assertEqual(result.returncode, 2, result.stdout)
                    self.assertIn(f"vorlix: {device}", result.stderr)
                    self.assertEqual(result.stdout, "")

    def test_names_are_shown_so_that_they_cannot_act_on_a_terminal(self):
        disk = self.mac("\x1b[31m\nDisk GUID       red.img")
        text = self.vorlix_ok("identify", disk).stdout
        self.assertNotIn("\x1b", text)
        self.assertEqual(len(text.splitlines()), 5)
        self.assertEqual(json.loads(self.vorlix_ok("identify", disk, "--json").stdout)["name"], disk)


@unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class LoopDevices(IdentifyTest):
    AS_ROOT = True

    def run_on_loop_device(self, block_size):
        image = self.path("disk.img")
        with open(image, "wb") as file:
            file.truncate(64 << 20)
        layout = {1: (40, 2047, gpt.EFI_SYSTEM), 3: (4096, 8191, gpt.BASIC_DATA)}
        with tools.loop_device(image, block_size) as device:
            tools.sgdisk(device, "-a", "1", *tools.partition_options(layout))
            name = os.path.basename(device)
            for form in (device, name):
                shown = self.assert_whole(form, device, name)
                self.assertEqual(shown["mediumType"], medium_of_device(os.stat(device).st_rdev))
                for number in layout:
                    self.assert_slice(f"{form}s{number}", device, name, number, block_size)
            for number in layout:  # the image is the same disk under another name
                self.assert_slice(f"{image}s{number}", device, image, number, block_size)
            self.vorlix_refuses("identify", device + "s2", saying=[f"{device} has no slice 2"])

    def test_512_bytes_a_block(self):
        self.run_on_loop_device(512)

    def test_4096_bytes_a_block(self):
        self.run_on_loop_device(4096)

    def test_the_kernel_s_own_names_of_slices(self):
        image = self.path("disk.img")
        tools.sgdisk_image(image, MAC)
        with tools.loop_device(image, 512) as device:
            images.run_tool("partx", "--add", device)
            try:
                node = f"{device}p3"
                if not os.path.exists(node):
                    self.skipTest("this machine makes no device node for the slice")
                shown = self.identify(node)
                self.assert_disk(shown, device, os.path.basename(device))
                self.assertEqual((shown["name"], shown["partition"]), (os.path.basename(node), 3))
                guid = tools.sgdisk_entry(device, 3)["Partition unique GUID"]
                self.assertEqual(shown["partitionGUID"]["text"], guid)
                self.assertEqual(shown["offset"], MAC[3][0] * 512)
                export = images.run_tool("blkid", "-p", "-o", "export", node)
                self.assertIn(f"PART_ENTRY_UUID={guid.lower()}", export)
                self.assertIn(f"PART_ENTRY_OFFSET={MAC[3][0]}\n", export)
            finally:
                images.run_tool("partx", "--delete", device)


if __name__ == "__main__":
    images.main()
