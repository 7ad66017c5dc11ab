# SPDX-License-Identifier: Apache-2.0
"""`list`, `find` and `boot-camp` on real mounts, compared with blkid, sysfs, busybox's df and the kernel's mount table."""

import json
import os
import re
import shutil
import subprocess
import tempfile

from bed import disks, driver
from bed.guest import (MAC, NOTES, OLD_PC, PC, SECOND, CommandTest, GuestTest, blkid, blkid_label, node, read_text,
                       system_mount, unmount_all, write_text)
from support import samples

BUSYBOX = "/run/guest/busybox"

HFS_PLUS, EXCHANGE, DATA = f"{MAC}2", f"{MAC}4", f"{MAC}5"
SMALL_WINDOWS = f"{SECOND}2"
PC_EFI, PC_BOOT, PC_WINDOWS, PC_LINUX, PC_INSTALLER = (f"{PC}{number}" for number in range(1, 6))
OLD_BOOT, OLD_WINDOWS = f"{OLD_PC}1", f"{OLD_PC}2"

# The library's names of file systems that have another name in blkid.
KINDS = {"vfat": "msdos", "hfsplus": "hfs"}
UUID = re.compile(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", re.IGNORECASE)


def df(path):
    """The sizes of a mounted volume in bytes: (total, free)."""
    _, size, _, free, *_ = samples.run(BUSYBOX, "df", "-P", "-B", "512", path).splitlines()[-1].split()
    return int(size) * 512, int(free) * 512


def uuid_in(text):
    return text.upper() if text and UUID.fullmatch(text) else None


def make_windows(add_cleanup, point, windows="Windows", system32="System32"):
    add_cleanup(shutil.rmtree, os.path.join(point, windows))
    os.makedirs(os.path.join(point, windows, system32))


def make_boot_partition(point, folder="BOOT"):
    os.makedirs(os.path.join(point, folder), exist_ok=True)
    write_text(os.path.join(point, "bootmgr"), "the boot manager\n")


def make_installer(point):
    for folder in ("SOURCES", "boot"):
        os.makedirs(os.path.join(point, folder), exist_ok=True)
    write_text(os.path.join(point, "SOURCES", "BOOT.WIM"), "an image\n")


class VolumesTest(CommandTest):
    """Volumes of every kind, mounted once for all tests, neither in the order of the disks nor in alphabetical order."""

    ORDER = (PC_INSTALLER, PC_WINDOWS, OLD_BOOT, EXCHANGE, HFS_PLUS, OLD_WINDOWS, PC_LINUX, PC_BOOT, PC_EFI)
    FOLDERS = {PC_WINDOWS: "Volume mit Größe", PC_EFI: "EFI"}

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="guest-")
        cls.addClassCleanup(folder.cleanup)
        cls.addClassCleanup(unmount_all)
        cls.order = [name for name in cls.ORDER if name != HFS_PLUS or "noHFSPlus" not in NOTES]
        cls.points = {name: system_mount(name, os.path.join(folder.name, cls.FOLDERS.get(name, name)))
                      for name in cls.order}
        make_windows(cls.addClassCleanup, cls.points[PC_WINDOWS], "WINDOWS", "SYSTEM32")
        make_windows(cls.addClassCleanup, cls.points[OLD_WINDOWS])
        make_installer(cls.points[PC_INSTALLER])
        make_boot_partition(cls.points[PC_BOOT], "Boot")  # the spelling of Windows Setup
        make_boot_partition(cls.points[OLD_BOOT])
        os.makedirs(os.path.join(cls.points[PC_LINUX], "Windows"), exist_ok=True)  # without System32
        cls.all = cls.list_of("--all")

    @classmethod
    def list_of(cls, *options):
        return json.loads(cls().vorlix("list", *options, "--json").stdout)["volumes"]

    def volume(self, name):
        (found,) = [volume for volume in self.all if volume["device"] == node(name)]
        return found

    def test_every_volume_is_listed_in_the_order_of_mounting(self):
        self.assertEqual([volume["device"] for volume in self.all], [node(name) for name in self.order])
        self.assertEqual([volume["mountPath"] for volume in self.all], [self.points[name] for name in self.order])
        self.assertEqual([volume["disk"] for volume in self.all], [node(name[:3]) for name in self.order])

    def test_names_kinds_and_identifiers_are_as_blkid_says(self):
        for name in self.order:
            with self.subTest(name=name):
                volume, probed = self.volume(name), blkid(node(name))
                self.assertEqual(volume["name"], blkid_label(node(name)))
                self.assertEqual(volume["kind"], KINDS.get(probed["TYPE"], probed["TYPE"]))
                self.assertEqual(volume["volumeUUID"], uuid_in(probed.get("UUID")))
                self.assertEqual(volume["mediaUUID"], uuid_in(probed["PART_ENTRY_UUID"]))
                self.assertEqual(volume["contentUUID"], uuid_in(probed["PART_ENTRY_TYPE"]))

    def test_labels_are_those_the_volumes_were_made_with(self):
        self.assertEqual([self.volume(name)["name"] for name in (PC_EFI, PC_BOOT, PC_WINDOWS, PC_LINUX, PC_INSTALLER)],
                         list(disks.PC_LABELS))
        self.assertEqual([self.volume(name)["name"] for name in (OLD_BOOT, OLD_WINDOWS)], list(disks.OLD_PC_LABELS))

    def test_some_identifiers_are_there_and_some_are_not(self):
        """Makes sure that the comparison with blkid covers both cases."""
        for field, there, absent in (("volumeUUID", PC_LINUX, PC_WINDOWS), ("mediaUUID", PC_WINDOWS, OLD_WINDOWS),
                                     ("contentUUID", PC_WINDOWS, OLD_WINDOWS)):
            self.assertRegex(self.volume(there)[field], UUID)
            self.assertIsNone(self.volume(absent)[field])

    def test_sizes_are_as_df_and_the_kernel_say(self):
        for name in self.order:
            with self.subTest(name=name):
                volume = self.volume(name)
                self.assertEqual((volume["totalSize"], volume["freeSize"]), df(self.points[name]))
                self.assertEqual(volume["mediaSize"], int(read_text(f"/sys/class/block/{name}/size")) * 512)
                self.assertEqual(volume["blockSize"],
                                 int(read_text(f"/sys/class/block/{name[:3]}/queue/logical_block_size")))

    def test_windows_and_its_installer_are_told_apart_from_other_volumes(self):
        expected = {PC_WINDOWS: "installed", OLD_WINDOWS: "installed", PC_INSTALLER: "installer"}
        self.assertEqual({name: self.volume(name)["windows"] for name in self.order},
                         {name: expected.get(name) for name in self.order})

    def test_boot_files_are_on_the_boot_partition_of_the_same_disk(self):
        expected = {PC_WINDOWS: os.path.join(self.points[PC_BOOT], "Boot"),
                    OLD_WINDOWS: os.path.join(self.points[OLD_BOOT], "BOOT"), PC_INSTALLER: "own"}
        self.assertEqual({name: self.volume(name)["bootFiles"] for name in self.order},
                         {name: expected.get(name) for name in self.order})

    def test_without_all_only_fat_exfat_and_ntfs_are_listed(self):
        expected = [node(name) for name in self.order if name not in (HFS_PLUS, PC_LINUX)]
        self.assertEqual([volume["device"] for volume in self.list_of()], expected)

    def test_only_those_with_windows(self):
        expected = [self.volume(name) for name in (PC_INSTALLER, PC_WINDOWS, OLD_WINDOWS)]
        self.assertEqual(self.list_of("--windows"), expected)

    def test_every_disk_is_shown_with_its_partitions_mounted_or_not(self):
        shown = {disk["name"]: disk for disk in json.loads(self.vorlix("disks", "--json").stdout)["disks"]}
        expected = {name for name in os.listdir("/sys/block") if name.startswith(("vd", "sd", "nvme"))}
        self.assertEqual(set(shown), {name for name in expected if int(read_text(f"/sys/block/{name}/size")) > 0})
        for name, disk in shown.items():
            kernel = {entry for entry in os.listdir(f"/sys/block/{name}") if entry.startswith(name)}
            found = {part["device"].removeprefix("/dev/"): part for part in disk["partitions"] if part["number"]}
            self.assertEqual(set(found), kernel)
            self.assertEqual((disk["device"], disk["size"]), (f"/dev/{name}", int(read_text(f"/sys/block/{name}/size")) * 512))
            for entry, part in found.items():
                with self.subTest(entry=entry):
                    self.assertEqual(part["size"], int(read_text(f"/sys/class/block/{entry}/size")) * 512)
                    self.assertEqual(part["mountPath"], self.points.get(entry))
        for name in self.order:
            (part,) = [part for part in shown[name[:3]]["partitions"] if part["device"] == node(name)]
            probed = blkid(node(name))
            self.assertEqual(part["windows"] if part["windows"] != "none" else None, self.volume(name)["windows"], name)
            self.assertEqual((part["kind"], part["label"] or ""), (KINDS.get(probed["TYPE"], probed["TYPE"]), blkid_label(node(name))))

    def test_the_table_has_a_row_for_each_volume(self):
        heading, *rows = self.vorlix("list", "--all").stdout.splitlines()
        self.assertEqual(re.split(" {2,}", heading.strip()),
                         ["Name", "Device", "Size", "Kind", "Windows", "Boot files", "Mounted at"])
        self.assertEqual([re.search(r"/dev/\S+", row).group() for row in rows], [node(name) for name in self.order])
        (row,) = [row for row in rows if f"{node(PC_WINDOWS)} " in row]
        cells = re.split(" {2,}", row.strip())
        boot_files = os.path.join(self.points[PC_BOOT], "Boot")
        self.assertEqual(cells[:2] + cells[3:], [disks.PC_LABELS[2], node(PC_WINDOWS), "ntfs", "installed", boot_files,
                                                 self.points[PC_WINDOWS]])

    def test_a_volume_is_found_by_what_it_is_listed_with(self):
        volume = self.volume(PC_WINDOWS)
        guid = blkid(node(PC_WINDOWS))["PART_ENTRY_UUID"]
        for options in (("--label", disks.PC_LABELS[2]), ("--media-uuid", guid), ("--node", node(PC_WINDOWS)),
                        ("--node", PC_WINDOWS),
                        ("--media-uuid", guid.upper(), "--node", node(PC_WINDOWS))):
            with self.subTest(options=options):
                found = json.loads(self.vorlix("find", *options, "--json").stdout)
                self.assertEqual(found, {**volume, "others": [], "version": 1})

    def test_of_two_volumes_with_one_label_the_first_mounted_is_found(self):
        found = json.loads(self.vorlix("find", "--label", disks.BOOT_PARTITION_LABEL, "--json").stdout)
        self.assertEqual(found["device"], node(OLD_BOOT))
        self.assertEqual([volume["device"] for volume in found["others"]], [node(PC_BOOT)])

    def test_what_does_not_fit_is_not_found(self):
        guid = blkid(node(PC_WINDOWS))["PART_ENTRY_UUID"]
        for options in (("--label", disks.PC_LABELS[2].lower()), ("--label", disks.PC_LABELS[3]),
                        ("--node", node(PC_LINUX)), ("--node", f"no-{PC_WINDOWS}"),
                        ("--media-uuid", guid, "--node", node(PC_BOOT))):
            with self.subTest(options=options):
                result = self.vorlix("find", *options, status=1)
                self.assertEqual(result.stdout, "")
                self.assertIn(options[1].lower(), result.stderr.lower())


class ChangingMountsTest(GuestTest):
    def devices(self):
        return [(volume["device"], volume["mountPath"]) for volume in self.listed()]

    def listed(self):
        return json.loads(self.vorlix("list", "--all", "--json").stdout)["volumes"]

    def unmount(self, point):
        samples.run("umount", point)

    def test_a_device_mounted_twice_is_listed_once_at_its_first_place(self):
        first = self.mount_at(DATA, "first")
        exchange = self.mount_at(EXCHANGE, "exchange")
        second = self.mount_at(DATA, "second")
        self.assertEqual(self.devices(), [(node(DATA), first), (node(EXCHANGE), exchange)])
        self.unmount(first)
        self.assertEqual(self.devices(), [(node(EXCHANGE), exchange), (node(DATA), second)])

    def test_a_bind_mount_is_no_volume_of_its_own(self):
        exchange = self.mount_at(EXCHANGE, "exchange")
        os.makedirs(os.path.join(exchange, "folder"), exist_ok=True)
        for place in ("whole", "part"):
            os.mkdir(self.path(place))
        samples.run("mount", "--bind", exchange, self.path("whole"))
        samples.run("mount", "--bind", os.path.join(exchange, "folder"), self.path("part"))
        self.assertEqual(self.devices(), [(node(EXCHANGE), exchange)])
        self.unmount(exchange)
        self.assertEqual(self.devices(), [(node(EXCHANGE), self.path("whole"))])

    def test_a_volume_that_another_covers_is_not_taken_for_it(self):
        place = self.mount_at(DATA, "place")
        data = self.listed()
        self.mount_at(EXCHANGE, "place")
        covered = [volume for volume in self.listed() if volume["device"] == node(DATA)]
        self.assertNotIn(place, [volume["mountPath"] for volume in covered])
        self.assertEqual(self.devices()[-1], (node(EXCHANGE), place))
        self.unmount(place)
        self.assertEqual(self.listed(), data)

    def test_without_its_own_boot_partition_none_is_taken_from_another_disk(self):
        windows = self.mount_at(PC_WINDOWS, "windows")
        make_windows(self.addCleanup, windows, "WINDOWS", "SYSTEM32")
        make_boot_partition(self.mount_at(OLD_BOOT, "boot of another disk"))
        found = [(volume["device"], volume["bootFiles"]) for volume in self.listed() if volume["windows"]]
        self.assertEqual(found, [(node(PC_WINDOWS), "none")])

    def test_nothing_mounted_is_an_empty_list(self):
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.vorlix("list").stdout,
                         "no FAT, exFAT or NTFS volume is mounted; --all shows every kind\n")
        self.assertEqual(self.vorlix("list", "--all").stdout, "no volume of a disk is mounted\n")


class DriverTest(GuestTest):
    """Volumes of a driver in user space that gives them any name and can delay requests."""

    SOURCE = f"ntfs://{SMALL_WINDOWS}/Data"

    def serve(self, source=SOURCE):
        point = self.path("served")
        os.mkdir(point)
        served = driver.Driver(source, point)
        self.addCleanup(served.close)
        return served

    def listed(self, served):
        volumes = json.loads(self.vorlix("list", "--all", "--json").stdout)["volumes"]
        self.assertIsNone(served.failure)
        return volumes

    def test_a_volume_mounted_from_a_drivers_own_name_is_listed_by_its_device(self):
        self.mount_at(DATA, "data")
        served = self.serve()
        volume = self.listed(served)[-1]
        self.assertEqual(samples.run(BUSYBOX, "df", "-P", served.point).splitlines()[-1].split()[0], self.SOURCE)
        self.assertEqual((volume["device"], volume["disk"], volume["kind"], volume["mountPath"]),
                         (node(SMALL_WINDOWS), node(SECOND), "ntfs", served.point))
        self.assertEqual((volume["totalSize"], volume["freeSize"]),
                         (driver.BLOCKS * driver.BLOCK_SIZE, driver.FREE_BLOCKS * driver.BLOCK_SIZE))
        self.assertEqual((volume["totalSize"], volume["freeSize"]), df(served.point))
        self.assertEqual(volume["mediaUUID"], blkid(node(SMALL_WINDOWS))["PART_ENTRY_UUID"].upper())
        found = json.loads(self.vorlix("find", "--node", node(SMALL_WINDOWS), "--json").stdout)
        self.assertEqual(found, {**volume, "others": [], "version": 1})

    def test_another_drivers_volume_is_not_that_of_a_disk(self):
        served = self.serve("sshfs#someone@somewhere:/")
        self.assertEqual(self.listed(served), [])

    def test_a_volume_may_go_while_the_list_is_made(self):
        """One volume goes before the list has looked at the other ones, another one after all volumes are known."""
        served = self.serve()
        data = self.mount_at(DATA, "data")
        for request in (driver.STATFS, driver.OPENDIR):
            with self.subTest(request=request):
                exchange = self.mount_at(EXCHANGE, "exchange")
                last = self.mount_at(PC_INSTALLER, "last")
                served.once(request, lambda place=exchange: driver.unmount(place))
                volumes = self.listed(served)
                self.assertFalse(os.path.ismount(exchange))
                stayed = [volume["mountPath"] for volume in volumes if volume["device"] != node(EXCHANGE)]
                self.assertEqual(stayed, [served.point, data, last])
                samples.run("umount", last)

    def test_a_volume_may_go_while_it_is_looked_at(self):
        for request in (driver.STATFS, driver.OPENDIR):
            with self.subTest(request=request):
                served = self.serve()
                data = self.mount_at(DATA, "data")
                served.once(request, served.leave)
                volumes = self.listed(served)
                self.assertIn(request, served.requests)
                self.assertEqual(volumes[-1]["mountPath"], data)
                self.assertGreater(volumes[-1]["totalSize"], 0)
                self.assertLessEqual({volume["device"] for volume in volumes}, {node(SMALL_WINDOWS), node(DATA)})
                served.close()
                os.rmdir(served.point)
                samples.run("umount", data)


class BootCampTest(GuestTest):
    def test_the_one_windows_volume_of_the_machines_disks_is_found(self):
        for name in (PC_EFI, EXCHANGE, PC_LINUX, PC_WINDOWS):  # the EFI partition, exFAT and ext4 do not count
            self.mount_at(name, name)
        found = json.loads(self.vorlix("boot-camp", "--json").stdout)
        self.assertEqual((found["device"], found["name"]), (node(PC_WINDOWS), disks.PC_LABELS[2]))

    def test_of_two_none_is_taken(self):
        for name in (PC_WINDOWS, SMALL_WINDOWS):
            self.mount_at(name, name)
        result = self.vorlix("boot-camp", status=1)
        self.assertEqual((result.stdout, result.stderr),
                         ("", "vorlix: more than one volume on internal disks could be it\n"))

    def test_without_any_none_is_found(self):
        self.mount_at(EXCHANGE, "exchange")
        result = self.vorlix("boot-camp", status=1)
        self.assertEqual((result.stdout, result.stderr),
                         ("", "vorlix: no NTFS or FAT volume of an internal disk is mounted\n"))

    def test_a_disk_of_a_file_is_not_the_machines_own(self):
        image = self.path("disk.img")
        with open(image, "xb") as file:
            file.truncate(16384 * 512)
        samples.run("mkntfs", "-F", "-Q", "-q", "-L", "IMAGE", "-p", "0", "-S", "63", "-H", "255", image)
        loop = samples.run("losetup", "--show", "--find", image).strip()
        self.addCleanup(samples.run, "losetup", "--detach", loop)
        place = self.path("image")
        os.mkdir(place)
        samples.run("mount", loop, place)
        self.addCleanup(subprocess.run, ["umount", place], check=False)
        listed = json.loads(self.vorlix("list", "--json").stdout)["volumes"]
        self.assertEqual([(volume["name"], volume["mountPath"]) for volume in listed], [("IMAGE", place)])
        self.vorlix("boot-camp", status=1)
