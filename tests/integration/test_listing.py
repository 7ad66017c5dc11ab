# SPDX-License-Identifier: Apache-2.0
"""`list`, `find` and `boot-camp`: mounted volumes, compared with the output of general tools."""

import contextlib
import json
import os
import re
import subprocess
import tempfile
import unittest

from support import gpt, images, samples, tools, volumes

FAT_TOOLS = ("mkfs.vfat", "fsck.vfat", "mcopy", "mmd", "setpriv", "sgdisk")
MISSING = volumes.missing(*FAT_TOOLS)
MISSING_AS_ROOT = volumes.missing("mkfs.ext4", "losetup", "lsblk", "blkid", "df", "mount", "umount", "sgdisk", "partx")

INSTALLED = {"Windows": None, "Windows/System32": None, "Windows/System32/file": b"x"}
INSTALLER = {"sources": None, "sources/boot.wim": b"an image"}
MEMBERS = ["name", "device", "disk", "mountPath", "kind", "totalSize", "freeSize", "mediaSize", "blockSize", "volumeUUID",
           "mediaUUID", "contentUUID", "windows", "bootFiles"]


def fat_sizes(image, offset, size):
    """Total and free bytes in the data area of a FAT volume, by fsck.vfat's count of clusters."""
    with tempfile.NamedTemporaryFile(prefix="vorlix-fsck-") as copy, open(image, "rb") as source:
        source.seek(offset)
        copy.write(source.read(size))
        copy.flush()
        report = images.run_tool("fsck.vfat", "-n", "-v", copy.name)
    cluster = int(re.search(r"(\d+) bytes per cluster", report).group(1))
    used, total = map(int, re.search(r"(\d+)/(\d+) clusters", report).groups())
    return total * cluster, (total - used) * cluster


class ListTest(volumes.VolumeTest):
    def fat(self, name="disk.img", tree=None, label=None, bits=16):
        path = volumes.make_fat(self.path(name), bits, label)
        volumes.put_tree(path, tree or {})
        return self.give(path)

    def json(self, *arguments, expect=0):
        """Returns a command's JSON, which must be its only output."""
        result = self.vorlix_run(*arguments, "--json")
        self.assertEqual(result.returncode, expect, f"{arguments}: {result.stdout}{result.stderr}")
        document = json.loads(result.stdout)
        if document is None:
            return None
        self.assertEqual(document.pop("version"), 1)
        if arguments[0] == "list":
            return document["volumes"]
        self.others = document.pop("others")
        return document

    def listed(self, *options):
        """The listed volumes that belong to this test; the machine has others."""
        found = self.json("list", *options)
        for volume in found:
            self.assertEqual(list(volume), MEMBERS)
        return [volume for volume in found if volume["device"].startswith(self.folder + "/")]

    def one(self, *options):
        found = self.listed(*options)
        self.assertEqual(len(found), 1, found)
        return found[0]

    def rows(self, *options):
        """The cells of the table's rows for this test's volumes."""
        lines = self.vorlix_ok("list", *options).stdout.splitlines()
        return [re.split(r"  +", line) for line in lines if self.folder in line]


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class List(ListTest):
    def test_a_slice_of_an_image_with_all_that_is_known_of_it(self):
        disk = self.give(volumes.make_mac(self.path("mac.img"), {"file": b"x" * 10_000}))
        folder = self.mount(disk + "s1")
        entry = tools.sgdisk_entry(disk, 1)
        total, free = fat_sizes(disk, volumes.EFI_OFFSET, volumes.EFI_SIZE)
        self.assertEqual(self.one(), {
            "name": "EFI",
            "device": disk + "s1",
            "disk": disk,
            "mountPath": folder,
            "kind": "msdos",
            "totalSize": total,
            "freeSize": free,
            "mediaSize": volumes.EFI_SIZE,
            "blockSize": 512,
            "volumeUUID": None,
            "mediaUUID": entry["Partition unique GUID"],
            "contentUUID": entry["Partition GUID code"].split()[0],
            "windows": None,
            "bootFiles": None,
        })

    def test_a_volume_without_a_partition(self):
        for bits in volumes.FAT_KINDS:
            with self.subTest(bits=bits):
                image = self.fat(f"fat{bits}.img", {"file": b"x" * 5000}, "DATA", bits)
                self.mount(image)
                volume = self.one()
                total, free = fat_sizes(image, 0, os.path.getsize(image))
                self.assertEqual((volume["device"], volume["disk"]), (image, image))
                self.assertEqual((volume["totalSize"], volume["freeSize"]), (total, free))
                self.assertEqual(volume["mediaSize"], os.path.getsize(image))
                self.assertIsNone(volume["mediaUUID"])
                self.assertIsNone(volume["contentUUID"])
                self.vorlix_ok("unmount", image)

    def test_volumes_come_in_the_order_they_were_mounted_in_and_go(self):
        disks = [self.fat(name) for name in ("c.img", "a.img", "b.img")]
        for disk in disks:
            self.mount(disk)
        self.assertEqual([volume["device"] for volume in self.listed()], disks)
        self.assertEqual([row[1] for row in self.rows()], disks)
        self.vorlix_ok("unmount", disks[1])
        self.assertEqual([volume["device"] for volume in self.listed()], [disks[0], disks[2]])
        self.mount(disks[1])
        self.assertEqual([volume["device"] for volume in self.listed()], [disks[0], disks[2], disks[1]])

    def test_nothing_is_written_and_nothing_else_is_listed(self):
        disk = self.fat(tree=INSTALLED)
        self.assertEqual(self.listed("--all"), [])
        folder = self.mount(disk)
        before = images.snapshot(disk)
        tree = volumes.folder_tree(folder)
        self.listed("--all")
        self.listed("--windows")
        self.assert_unchanged(disk, before)
        self.assertEqual(volumes.folder_tree(folder), tree)

    def test_a_table_for_people(self):
        disk = self.fat(tree=INSTALLED, label="MY DISK")
        folder = self.mount(disk)
        lines = self.vorlix_ok("list").stdout.splitlines()
        self.assertEqual(re.split(r"  +", lines[0]), ["Name", "Device", "Size", "Kind", "Windows", "Boot files", "Mounted at"])
        total, _ = fat_sizes(disk, 0, os.path.getsize(disk))
        self.assertEqual(self.rows(), [["MY DISK", disk, f"{total / 1e6:.2f} MB", "msdos", "installed", "none", folder]])
        self.assertNotEqual(self.rows("--all"), [])

    def test_names_with_spaces_and_letters_of_other_alphabets(self):
        path = "Bücher & Ж 水 [1].img"
        image = self.fat(path, label="PLACE")
        volumes.set_label(image, "Grüße".encode(), b"PLACE")
        folder = self.mount(image)
        volume = self.one()
        self.assertEqual((volume["name"], volume["device"], volume["mountPath"]), ("Grüße", image, folder))
        self.assertEqual(self.rows()[0][:2], ["Grüße", image])
        self.assertEqual(self.json("find", "--label", "Grüße")["device"], image)

    def test_labels_that_are_no_text(self):
        for number, label in enumerate((b"\x84\x99\x81 X", b"\xff\xfe\x80", b"AB\xc3", b"\xed\xa0\x80")):
            with self.subTest(label=label):
                image = volumes.set_label(self.fat(f"{number}.img", label="PLACE"), label, b"PLACE")
                self.mount(image)
                name = self.one()["name"]
                self.assertTrue(name)
                self.assertEqual(set(name) - {"\ufffd"}, {chr(byte) for byte in label if byte < 0x80})
                self.assertEqual(self.rows()[0][1], image)
                self.vorlix_ok("unmount", image)

    def test_labels_cannot_act_on_a_terminal(self):
        image = volumes.set_label(self.fat(label="PLACE"), b"\x1b[31m\r\nX", b"PLACE")
        self.mount(image)
        text = self.vorlix_ok("list").stdout
        for character in "\x1b\r":
            self.assertNotIn(character, text)
        self.assertEqual(len([line for line in text.splitlines() if image in line]), 1, text)
        self.assertIsInstance(self.one()["name"], str)

    def test_a_volume_without_a_label_has_its_folder_s_name(self):
        image = self.fat("plain.img")
        folder = self.mount(image)
        self.assertEqual(self.one()["name"], os.path.basename(folder))

    def test_which_volumes_have_windows(self):
        """Folders Windows and System32, or a file boot.wim, with names in any case."""
        cases = (
            ({"WINDOWS": None, "WINDOWS/SYSTEM32": None}, "installed"),
            ({"windows": None, "windows/system32": None}, "installed"),
            ({**INSTALLED, **INSTALLER}, "installed"),
            ({"SOURCES": None, "SOURCES/BOOT.WIM": b"x"}, "installer"),
            ({"Windows": None, **INSTALLER}, "installer"),
            ({"Windows": None}, None),
            ({"Windows": b"a file"}, None),
            ({"Windows": None, "Windows/System32": b"a file"}, None),
            ({"sources": None, "sources/boot.wim": None}, None),
            ({"sources": None, "sources/install.wim": b"x"}, None),
            ({"System32": None}, None),
            ({}, None),
        )
        expected = {}
        for number, (tree, windows) in enumerate(cases):
            image = self.fat(f"{number}.img", tree, bits=12)
            self.mount(image)
            expected[image] = windows
        self.assertEqual({volume["device"]: volume["windows"] for volume in self.listed()}, expected)
        with_windows = {image: windows for image, windows in expected.items() if windows}
        self.assertEqual({volume["device"]: volume["windows"] for volume in self.listed("--windows")}, with_windows)
        self.assertEqual({volume["device"]: volume["windows"] for volume in self.listed("--windows", "--all")}, with_windows)
        self.assertEqual({row[1]: row[4] for row in self.rows("--windows")}, with_windows)

    def test_where_the_boot_files_are(self):
        cases = (({**INSTALLED, "BOOT": None}, "own"), (INSTALLED, "none"), ({**INSTALLER, "BOOT": b"any item"}, "own"),
                 ({"BOOT": None}, None))
        expected = {}
        for number, (tree, files) in enumerate(cases):
            image = self.fat(f"{number}.img", tree, bits=12)
            self.mount(image)
            expected[image] = files
        self.assertEqual({volume["device"]: volume["bootFiles"] for volume in self.listed()}, expected)

    def test_a_boot_partition_of_another_disk_is_not_taken(self):
        """The name is too long for a label, so the volume takes its folder's name, which comes from the image's name."""
        image = self.fat("windows.img", INSTALLED)
        other = self.fat("System Reserved", {"BOOT": None, "bootmgr": b"x"})
        again = self.fat("again", {"BOOT": None, "bootmgr": b"x"})
        for device in (image, other, again):
            self.mount(device)
        files = {volume["name"]: volume["bootFiles"] for volume in self.listed()}
        self.assertEqual(files, {"windows.img": "none", "System Reserved": None, "again": None})

    def test_thousands_of_entries_in_the_root_folder(self):
        image = volumes.make_fat(self.path("many.img"), 32, "MANY")
        with tempfile.TemporaryDirectory(prefix="vorlix-tree-") as folder:
            names = [os.path.join(folder, f"F{number:07}") for number in range(2000)]
            for name in names:
                with open(name, "wb"):
                    pass
            volumes.mtools("mcopy", image, *names, "::/")
        volumes.put_tree(image, INSTALLED)
        self.give(image)
        folder = self.mount(image)
        self.assertEqual(len(os.listdir(folder)), 2001)
        self.assertEqual((self.one("--windows")["windows"], self.one()["name"]), ("installed", "MANY"))

    def test_an_image_that_was_deleted_or_replaced_is_not_listed(self):
        for name in ("deleted.img", "replaced.img"):
            image = self.fat(name, INSTALLED)
            folder = self.mount(image)
            os.remove(image)
            if name == "replaced.img":
                self.fat(name)
            self.assertEqual(self.listed("--all"), [])
            self.assertTrue(os.path.isdir(folder))

    def test_an_image_that_may_not_be_read_any_more(self):
        image = self.fat(tree=INSTALLED, label="SECRET")
        folder = self.mount(image)
        os.chmod(image, 0)
        volume = self.one("--all")
        self.assertEqual((volume["device"], volume["mountPath"], volume["windows"]), (image, folder, "installed"))
        os.chmod(image, 0o644)

    def test_no_volume(self):
        for options, words in (([], "--all shows every kind"), (["--windows"], "with Windows or its installer"),
                               (["--windows", "--all"], "with Windows or its installer")):
            with self.subTest(options=options):
                if self.json("list", *options):
                    self.skipTest("this machine has such a volume")
                text = self.vorlix_ok("list", *options).stdout
                self.assertIn(words, text)
                self.assertEqual(len(text.splitlines()), 1)
                self.assertEqual(json.loads(self.vorlix_ok("list", *options, "--json").stdout), {"version": 1, "volumes": []})

    def test_output_that_cannot_be_written_is_an_error(self):
        self.mount(self.fat())
        for arguments in (["list"], ["list", "--json"], ["find", "--label", "disk.img"]):
            for target in ("/dev/full", "&-"):
                with self.subTest(arguments=arguments, target=target):
                    redirect = f'exec "$@" >{target}'
                    result = self.vorlix_run(*arguments, prefix=(*self.prefix(), "sh", "-c", redirect, "sh"))
                    self.assertEqual(result.returncode, 2)
                    self.assertIn("standard output", result.stderr)

    def test_wrong_words(self):
        for arguments in (["list", "x"], ["list", "--label", "x"], ["boot-camp", "x"]):
            with self.subTest(arguments=arguments):
                result = self.vorlix_run(*arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Find(ListTest):
    def assert_none(self, *arguments):
        result = self.vorlix_run("find", *arguments)
        self.assertEqual((result.returncode, result.stdout), (1, ""), arguments)
        self.assertIn("vorlix: no FAT, exFAT or NTFS volume", result.stderr)
        self.assertIsNone(self.json("find", *arguments, expect=1))

    def test_by_label(self):
        one, two = self.fat("one.img", label="ONE"), self.fat("two.img", label="TWO WORDS")
        self.mount(one)
        self.mount(two)
        self.assertEqual(self.json("find", "--label", "TWO WORDS"), self.listed()[1])
        self.assertIn(two, self.vorlix_ok("find", "--label", "TWO WORDS").stdout)
        for label in ("two words", "TWO", "TWO WORDS ", "THREE"):
            self.assert_none("--label", label)

    def test_two_with_one_label_are_both_said(self):
        for name in ("b.img", "a.img"):
            self.mount(self.fat(name, label="SAME"))
        self.mount(self.fat("c.img", label="OTHER"))
        self.assertEqual(self.json("find", "--label", "SAME")["device"], self.path("b.img"))
        self.assertEqual([volume["device"] for volume in self.others], [self.path("a.img")])
        result = self.vorlix_ok("find", "--label", "SAME")
        self.assertIn("2 volumes have this label", result.stderr)
        rows = [line for line in result.stdout.splitlines() if self.folder in line]
        self.assertEqual([re.split(r"  +", row)[1] for row in rows], [self.path("b.img"), self.path("a.img")])
        self.assertEqual(self.vorlix_ok("find", "--label", "OTHER").stderr, "")
        self.json("find", "--label", "OTHER")
        self.assertEqual(self.others, [])

    def test_by_the_partition_s_identifier(self):
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        guid = tools.sgdisk_entry(disk, 1)["Partition unique GUID"]
        other = tools.sgdisk_entry(disk, 3)["Partition unique GUID"]
        self.assert_none("--media-uuid", guid)
        self.mount(disk + "s1")
        for form in (guid, guid.lower()):
            self.assertEqual(self.json("find", "--media-uuid", form), self.one())
        self.assert_none("--media-uuid", other)

    def test_the_same_identifier_on_two_disks_is_told_apart_by_the_device(self):
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        copy = self.path("copy.img")
        images.sparse_copy(disk, copy)
        self.give(copy)
        guid = tools.sgdisk_entry(disk, 1)["Partition unique GUID"]
        self.mount(disk + "s1")
        self.mount(copy + "s1")
        self.assertEqual(self.json("find", "--media-uuid", guid)["device"], disk + "s1")
        for device in (disk + "s1", copy + "s1"):
            self.assertEqual(self.json("find", "--media-uuid", guid, "--node", device)["device"], device)
        self.assert_none("--media-uuid", guid, "--node", self.path("other.imgs1"))
        self.assert_none("--media-uuid", tools.sgdisk_entry(disk, 3)["Partition unique GUID"], "--node", disk + "s1")

    def test_by_device(self):
        disk = self.give(volumes.make_mac(self.path("mac.img")))
        folder = self.mount(disk + "s1")
        link = self.path("link.img")
        os.symlink(disk, link)
        for node in (disk + "s1", os.path.relpath(disk) + "s1", f"/dev/{disk}s1", link + "s1"):
            with self.subTest(node=node):
                self.assertEqual(self.json("find", "--node", node)["mountPath"], folder)
        for node in (disk, disk + "s3", disk + "s9", self.path("missing"), "sdzzz9", self.folder):
            with self.subTest(node=node):
                self.assert_none("--node", node)

    def test_a_message_cannot_act_on_a_terminal(self):
        self.assertNotIn("\x1b", self.vorlix_run("find", "--label", "\x1b[31m").stderr)

    def test_wrong_words(self):
        guid = "8A32B0CB-0545-4B32-8A32-61911415A36A"
        for arguments in ([], ["--json"], ["--label", "A", "--node", "B"], ["--label", "A", "--media-uuid", guid],
                          ["--media-uuid", "no identifier"], ["--media-uuid", guid[:-1]], ["--label"], ["--label", ""]):
            with self.subTest(arguments=arguments):
                result = self.vorlix_run("find", *arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertTrue(result.stderr)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class BootCamp(ListTest):
    def test_volumes_in_images_are_not_this_machine_s_own(self):
        self.mount(self.fat(tree=INSTALLED))
        if self.json("list", "--all") and self.vorlix_run("boot-camp").returncode == 0:
            self.skipTest("this machine has a Windows volume")
        result = self.vorlix_run("boot-camp")
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertEqual(result.stderr, "vorlix: no NTFS or FAT volume of an internal disk is mounted\n")
        self.assertIsNone(self.json("boot-camp", expect=1))


def why_no_ext4():
    with open("/proc/filesystems", encoding="ascii") as file:
        return None if "\text4\n" in file.read() else "the kernel has no ext4"


@unittest.skipUnless(volumes.IS_ROOT, "loop devices and real mounts need root")
@unittest.skipIf(MISSING_AS_ROOT, f"not installed: {MISSING_AS_ROOT}")
@unittest.skipIf(os.path.exists("/proc/filesystems") and why_no_ext4(), "the kernel has no ext4")
class RealMounts(ListTest):
    AS_ROOT = True

    def tree(self, name, content):
        """Makes a folder from a tree in the form of put_tree(), as the source of a volume."""
        folder = self.path(name)
        os.makedirs(folder)
        for path, data in content.items():
            place = os.path.join(folder, path)
            if data is None:
                os.makedirs(place)
                continue
            with open(place, "wb") as file:
                file.write(data)
        return folder

    def ext4(self, path, label, tree, size=8 << 20, block_size=1024):
        with open(path, "wb") as file:
            file.truncate(size)
        images.run_tool("mkfs.ext4", "-q", "-b", block_size, "-L", label, "-d", tree, path)
        return path

    @contextlib.contextmanager
    def mounted(self, device, folder):
        os.makedirs(folder, exist_ok=True)
        images.run_tool("mount", device, folder)
        try:
            yield folder
        finally:
            images.run_tool("umount", folder)

    def entry(self, device):
        found = [volume for volume in self.json("list", "--all") if volume["device"] == device]
        self.assertEqual(len(found), 1, found)
        return found[0]

    def assert_as_tools_say(self, volume, device, folder):
        """The list agrees with lsblk, blkid and df."""
        block = json.loads(images.run_tool("lsblk", "-J", "-b", "-o", "PATH,SIZE,LOG-SEC,MOUNTPOINT", device))["blockdevices"][0]
        export = images.run_tool("blkid", "-p", "-o", "export", device)
        facts = dict(line.split("=", 1) for line in export.splitlines() if "=" in line)
        sizes = images.run_tool("df", "-B1", "--output=source,size,avail,target", folder).splitlines()[1].split(None, 3)
        self.assertEqual((volume["device"], volume["mountPath"]), (block["path"], block["mountpoint"]))
        self.assertEqual((volume["mediaSize"], volume["blockSize"]), (int(block["size"]), int(block["log-sec"])))
        self.assertEqual((volume["kind"], volume["volumeUUID"]), (facts["TYPE"], facts["UUID"].upper()))
        self.assertEqual([volume["device"], volume["totalSize"], volume["freeSize"], volume["mountPath"]],
                         [sizes[0], int(sizes[1]), int(sizes[2]), sizes[3]])

    def test_the_machine_s_own_root(self):
        source = images.run_tool("findmnt", "-n", "-o", "SOURCE", "/").strip()
        if not source.startswith("/dev/"):
            self.skipTest("the root file system is not on a disk")
        if "[" in source:
            self.skipTest(f"the root is a folder of a disk's file system: {source}")
        listed = [volume for volume in self.json("list", "--all") if volume["mountPath"] == "/"]
        size = images.run_tool("df", "-B1", "--output=size", "/").splitlines()[1]
        self.assertEqual([volume["totalSize"] for volume in listed], [int(size)])

    def test_a_volume_on_a_loop_device(self):
        tree = self.tree("tree", {"folder": None, "folder/file": b"x"})
        image = self.ext4(self.path("disk.img"), "A Größe 1", tree)
        with tools.loop_device(image, 512) as device, self.mounted(device, self.path("ein Ordner für Ж")) as folder:
            volume = self.entry(device)
            self.assert_as_tools_say(volume, device, folder)
            self.assertEqual(volume["name"], "A Größe 1")
            self.assertEqual(volume["disk"], device)
            self.assertIsNone(volume["mediaUUID"])
            self.assertNotIn(device, [other["device"] for other in self.json("list")])
            self.assertEqual(self.vorlix_run("find", "--node", device).returncode, 1)

    def test_blocks_of_4096_bytes(self):
        image = self.ext4(self.path("disk.img"), "large", self.tree("tree", {}), block_size=4096)
        with tools.loop_device(image, 4096) as device, self.mounted(device, self.path("mount")) as folder:
            volume = self.entry(device)
            self.assert_as_tools_say(volume, device, folder)
            self.assertEqual(volume["blockSize"], 4096)

    def test_a_device_that_is_mounted_twice_is_listed_once(self):
        image = self.ext4(self.path("disk.img"), "twice", self.tree("tree", {}))
        with tools.loop_device(image, 512) as device, self.mounted(device, self.path("first")) as folder, \
                self.mounted(device, self.path("second")):
            self.assertEqual(self.entry(device)["mountPath"], folder)

    def test_the_kernel_s_own_slices(self):
        image = self.path("disk.img")
        tools.sgdisk_image(image, {1: (40, 16423, gpt.LINUX), 2: (16424, 32807, gpt.BASIC_DATA)}, size=32 << 20)
        samples.place(image, self.ext4(self.path("volume"), "SLICE", self.tree("tree", INSTALLED)), 40)
        with tools.loop_device(image, 512) as device:
            images.run_tool("partx", "--add", device)
            try:
                node = f"{device}p1"
                if not os.path.exists(node):
                    self.skipTest("this machine makes no device node for the slice")
                with self.mounted(node, self.path("mount")) as folder:
                    listed = self.entry(node)
                    self.assert_as_tools_say(listed, node, folder)
                    entry = tools.sgdisk_entry(device, 1)
                    self.assertEqual(listed["mediaUUID"], entry["Partition unique GUID"])
                    self.assertEqual(listed["contentUUID"], entry["Partition GUID code"].split()[0])
                    self.assertEqual((listed["disk"], listed["windows"], listed["bootFiles"]), (device, "installed", "none"))
            finally:
                images.run_tool("partx", "--delete", device)

    def boot_disk(self, name, reserved):
        """An image with a volume "System Reserved" with a tree in slice 1 and a Windows volume in slice 2."""
        image = self.path(name)
        tools.sgdisk_image(image, {1: (40, 16423, gpt.BASIC_DATA), 2: (16424, 32807, gpt.BASIC_DATA)}, size=32 << 20)
        for first, label, content in ((40, "System Reserved", reserved), (16424, "WIN", INSTALLED)):
            volume = self.ext4(self.path(f"{name}.{first}"), label, self.tree(f"{name}.{first}.tree", content))
            samples.place(image, volume, first)
        return image

    def mount_slices(self, image, *numbers):
        folders = []
        for number in numbers:
            device = f"{image}s{number}"
            result = self.vorlix_run("mount", device)
            if result.returncode != 0:
                self.skipTest(f"a slice of an image cannot be mounted: {result.stderr.strip()}")
            self.addCleanup(subprocess.run, [self.vorlix, "unmount", device], check=False)
            folders.append(result.stdout.removesuffix("\n"))
        return folders

    def boot_files(self, device):
        return self.entry(device)["bootFiles"]

    def test_boot_files_on_a_partition_of_the_same_disk(self):
        image = self.boot_disk("windows.img", {"BOOT": None, "bootmgr": b"x"})
        windows, = self.mount_slices(image, 2)
        self.assertEqual(self.boot_files(image + "s2"), "none")
        reserved, = self.mount_slices(image, 1)
        self.assertEqual(self.entry(image + "s1")["name"], "System Reserved")
        self.assertEqual(self.boot_files(image + "s2"), os.path.join(reserved, "BOOT"))
        self.assertIsNone(self.boot_files(image + "s1"))
        self.assertNotEqual(windows, reserved)

    def test_boot_files_on_another_disk_are_not_taken(self):
        """Also if that disk is the last in the list, or if its folder's name starts with the name of the right folder."""
        first = self.boot_disk("first.img", {})
        second = self.boot_disk("second.img", {"BOOT": None, "bootmgr": b"x"})
        own, = self.mount_slices(first, 1)
        self.mount_slices(first, 2)
        other, = self.mount_slices(second, 1)
        self.assertTrue(other.startswith(own), (own, other))
        self.assertEqual(self.boot_files(first + "s2"), "none")
        self.mount_slices(second, 2)
        self.assertEqual(self.boot_files(second + "s2"), os.path.join(other, "BOOT"))
        self.assertEqual(self.boot_files(first + "s2"), "none")

    def test_a_boot_partition_has_no_windows_and_a_folder_boot(self):
        for number, tree in enumerate(({"BOOT": None, **INSTALLED}, {"BOOT": b"a file"}, {"boot": None})):
            with self.subTest(tree=tree):
                image = self.boot_disk(f"{number}.img", tree)
                self.mount_slices(image, 1, 2)
                self.assertEqual(self.boot_files(image + "s2"), "none")


if __name__ == "__main__":
    images.main()
