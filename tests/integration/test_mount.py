# SPDX-License-Identifier: Apache-2.0
"""Mounting and unmounting FAT volumes in image files, as an ordinary user; file systems of the kernel's as root."""

import contextlib
import fcntl
import os
import random
import shutil
import signal
import subprocess
import time
import unittest

from support import images, samples, tools, volumes

FAT_TOOLS = ("mkfs.vfat", "fsck.vfat", "mcopy", "mmd", "mdir", "mtype", "mdel", "mlabel")
MISSING = volumes.missing(*FAT_TOOLS, "setpriv", "sgdisk")

TREE = {
    "README.TXT": b"a short file\r\n",
    "empty": b"",
    "EFI": None,
    "EFI/Boot": None,
    "EFI/Boot/bootx64.efi": bytes(range(256)) * 300,
    "EFI/Microsoft": None,
    "Documents": None,
    "Documents/old": None,
    "Documents/old/letter.txt": b"dear reader\n" * 500,
    "Documents/old/deeper": None,
    "Documents/old/deeper/note": b"note",
}


def random_bytes(count, seed=1):
    return random.Random(seed).randbytes(count)


class MountTest(volumes.VolumeTest):
    def fat(self, name="disk.img", bits=16, label=None, tree=None, size=None):
        """An image file with a FAT volume."""
        path = volumes.make_fat(self.path(name), bits, label, size)
        volumes.put_tree(path, TREE if tree is None else tree)
        return self.give(path)

    def unmount(self, device):
        result = self.vorlix_ok("unmount", device)
        self.assertEqual(result.stdout, "")

    def write(self, folder, name, content):
        """Writes a file of a mounted volume as its user."""
        path = os.path.join(folder, name)
        with open(path, "wb") as file:
            file.write(content)
        self.give(path)

    def make_folder(self, folder, name):
        path = os.path.join(folder, name)
        os.mkdir(path)
        self.give(path)

    def assert_volume(self, image, tree, offset=0, size=None):
        """The volume holds exactly the tree and is sound."""
        found = volumes.read_tree(image, offset)
        self.assertEqual(sorted(found), sorted(tree))
        for path, content in tree.items():
            self.assertTrue(found[path] == content, f"{path}: other bytes")
        volumes.check_fat(image, offset, size)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Mirrored(MountTest):
    def test_shows_the_files_of_a_volume_and_leaves_the_image_alone(self):
        for bits in volumes.FAT_KINDS:
            with self.subTest(bits=bits):
                image = self.fat(f"fat{bits}.img", bits)
                self.assertEqual(tools.blkid_probe(image, 0, os.path.getsize(image))["VERSION"], f"FAT{bits}")
                before = images.snapshot(image)
                folder = self.mount(image)
                self.assertEqual(volumes.folder_tree(folder), TREE)
                self.unmount(image)
                self.assertFalse(os.path.exists(folder))
                self.assert_unchanged(image, before)
                self.assert_nothing_mounted()

    def test_brings_every_change_to_the_image(self):
        for bits in volumes.FAT_KINDS:
            with self.subTest(bits=bits):
                image = self.fat(f"fat{bits}.img", bits)
                folder = self.mount(image, "--read-write")
                self.write(folder, "README.TXT", b"another text, longer than the one before\n")
                self.write(folder, "EFI/Boot/bootx64.efi", b"short")
                self.write(folder, "new", random_bytes(200_000))
                self.write(folder, "EFI/Microsoft/nothing", b"")
                self.make_folder(folder, "made")
                self.make_folder(folder, "made/within")
                self.write(folder, "made/within/file", b"deep")
                os.remove(os.path.join(folder, "empty"))
                os.rename(os.path.join(folder, "Documents/old/letter.txt"), os.path.join(folder, "letter.old"))
                os.rename(os.path.join(folder, "Documents"), os.path.join(folder, "Papers"))
                shutil.rmtree(os.path.join(folder, "Papers/old/deeper"))
                self.unmount(image)
                self.assert_nothing_mounted()
                self.assert_volume(image, {
                    "README.TXT": b"another text, longer than the one before\n",
                    "EFI": None,
                    "EFI/Boot": None,
                    "EFI/Boot/bootx64.efi": b"short",
                    "EFI/Microsoft": None,
                    "EFI/Microsoft/nothing": b"",
                    "new": random_bytes(200_000),
                    "made": None,
                    "made/within": None,
                    "made/within/file": b"deep",
                    "letter.old": b"dear reader\n" * 500,
                    "Papers": None,
                    "Papers/old": None,
                })
                self.assertEqual(volumes.mtools("mtype", image, "::/made/within/file"), b"deep")
                listed = volumes.mtools("mdir", image, "-b", "-/", "::/").decode().splitlines()
                self.assertIn("::/letter.old", listed)
                self.assertFalse([line for line in listed if line.startswith("::/Documents")])

    def test_a_change_that_leaves_size_and_time_is_not_lost(self):
        image = self.fat(tree={"a": b"before", "b": b"same"})
        folder = self.mount(image)
        path = os.path.join(folder, "a")
        status = os.stat(path)
        self.write(folder, "a", b"after!")
        os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))
        self.unmount(image)
        self.assert_volume(image, {"a": b"after!", "b": b"same"})

    def test_a_file_that_was_replaced_by_a_folder_and_the_other_way_round(self):
        image = self.fat(tree={"one": b"file", "two": None, "two/inside": b"x"})
        folder = self.mount(image)
        os.remove(os.path.join(folder, "one"))
        self.make_folder(folder, "one")
        self.write(folder, "one/inside", b"y")
        shutil.rmtree(os.path.join(folder, "two"))
        self.write(folder, "two", b"now a file")
        self.unmount(image)
        self.assert_volume(image, {"one": None, "one/inside": b"y", "two": b"now a file"})

    def test_a_rename_of_case_only(self):
        image = self.fat(tree={"Readme.txt": b"text", "Folder": None, "Folder/file": b"content"})
        folder = self.mount(image)
        os.rename(os.path.join(folder, "Readme.txt"), os.path.join(folder, "README.TXT"))
        os.rename(os.path.join(folder, "Folder"), os.path.join(folder, "FOLDER"))
        self.unmount(image)
        self.assert_volume(image, {"README.TXT": b"text", "FOLDER": None, "FOLDER/file": b"content"})

    def test_volumes_without_files(self):
        """An empty volume, one with folders only, and one whose last file is deleted."""
        for number, tree in enumerate(({}, {"EFI": None, "EFI/Boot": None}, {"only": b"x"}, {"A": None, "A/only": b"x"})):
            with self.subTest(tree=tree):
                image = self.fat(f"{number}.img", tree=tree)
                folder = self.mount(image)
                self.assertEqual(volumes.folder_tree(folder), tree)
                rest = {path: content for path, content in tree.items() if content is None}
                for path in set(tree) - set(rest):
                    os.remove(os.path.join(folder, path))
                self.unmount(image)
                self.assert_volume(image, rest)
                folder = self.mount(image)
                self.write(folder, "first", b"1")
                self.unmount(image)
                self.assert_volume(image, {**rest, "first": b"1"})

    def test_many_files_in_a_folder_of_many_clusters(self):
        tree = {"many": None, **{f"many/file number {number}": b"%d" % number for number in range(60)}}
        image = self.fat(bits=12, tree=tree)
        folder = self.mount(image)
        self.assertEqual(volumes.folder_tree(folder), tree)
        for number in range(0, 60, 7):
            os.remove(os.path.join(folder, f"many/file number {number}"))
            del tree[f"many/file number {number}"]
        self.write(folder, "many/last one", b"60")
        self.unmount(image)
        self.assert_volume(image, {**tree, "many/last one": b"60"})

    def test_names_with_spaces_brackets_and_letters_of_other_alphabets(self):
        names = ["with two  spaces", "Grüße aus Köln.txt", "Жизнь", "水と火", "[brackets]", "[a-z]", "it's #1 ~ 100%",
                 "a.b.c.d", ".hidden", "UPPER.TXT", "lower.txt", "x" * 200, "e\u0301 apart", "+,;=[]", "-dash", "$HOME"]
        tree = {name: name.encode() for name in names}
        tree["Ordner für Bücher"] = None
        tree["Ordner für Bücher/[1] Ж.txt"] = b"inside"
        image = self.fat(bits=32, tree=tree)
        folder = self.mount(image)
        self.assertEqual(volumes.folder_tree(folder), tree)
        changed = {}
        for path, content in tree.items():
            changed[path] = content
            if content is not None:
                changed[path] = b"changed " + content
                self.write(folder, path, changed[path])
        for name in ("neu Ä", "новый", "[new]", "new with spaces"):
            changed[name] = b"new"
            self.write(folder, name, b"new")
        del changed["[a-z]"]
        os.remove(os.path.join(folder, "[a-z]"))
        self.unmount(image)
        self.assert_volume(image, changed)

    def test_attributes_stay_with_a_file_that_is_changed(self):
        image = self.fat(tree={"system": b"1", "plain": b"2", "hidden": b"3"})
        volumes.mtools("mattrib", image, "+h", "+s", "+r", "::/system")
        volumes.mtools("mattrib", image, "+h", "::/hidden")
        folder = self.mount(image)
        self.write(folder, "system", b"changed")
        self.write(folder, "plain", b"changed")
        self.unmount(image)
        self.assert_volume(image, {"system": b"changed", "plain": b"changed", "hidden": b"3"})
        letters = {}
        for line in volumes.mtools("mattrib", image, "-X", "::/*").decode().splitlines():
            attributes, path = line.split("::/")
            letters[path] = set(attributes.split()[0]) - {"A"}
        self.assertEqual(letters, {"system": set("RHS"), "plain": set(), "hidden": set("H")})

    def test_the_label_is_the_name_of_the_folder_or_else_the_image_s(self):
        labelled = self.fat("one.img", label="MY DISK", tree={})
        plain = self.fat("two.img", tree={})
        self.assertEqual(os.path.basename(self.mount(labelled)), "MY DISK")
        self.assertEqual(os.path.basename(self.mount(plain)), "two.img")
        self.unmount(labelled)
        self.unmount(plain)

    def test_a_label_leads_nowhere_else(self):
        for number, label in enumerate(("..", ".", "A..B", ".MIRRORS", ".mirrors")):
            with self.subTest(label=label):
                image = self.fat(f"{number}.img", label="PLACE", tree={"file": b"content"})
                with open(image, "rb+") as file:  # no tool sets such labels
                    volume = file.read()
                    for at in range(len(volume)):
                        at = volume.find(b"PLACE      ", at)
                        if at < 0:
                            break
                        file.seek(at)
                        file.write(label.ljust(11).encode())
                        volume = volume[:at] + bytes(11) + volume[at + 11 :]
                folder = self.mount(image)
                self.assertEqual(os.path.dirname(folder), os.path.join(os.path.realpath(self.runtime), "vorlix"))
                self.assertFalse(os.path.basename(folder).startswith("."), folder)
                self.assertEqual(volumes.folder_tree(folder), {"file": b"content"})
                self.unmount(image)

    def test_the_folder_is_the_user_s_alone(self):
        folder = self.mount(self.fat())
        while folder != os.path.realpath(self.runtime):
            status = os.stat(folder)
            self.assertEqual(status.st_mode & 0o077, 0, folder)
            self.assertEqual(status.st_uid, os.stat(self.runtime).st_uid)
            folder = os.path.dirname(folder)

    def test_two_volumes_with_the_same_label(self):
        one = self.fat("one.img", label="SAME", tree={"which": b"one"})
        two = self.fat("two.img", label="SAME", tree={"which": b"two"})
        first, second = self.mount(one), self.mount(two)
        self.assertNotEqual(first, second)
        self.assertEqual(volumes.folder_tree(first), {"which": b"one"})
        self.assertEqual(volumes.folder_tree(second), {"which": b"two"})
        self.write(second, "which", b"two, changed")
        self.unmount(one)
        self.assertEqual(volumes.folder_tree(second), {"which": b"two, changed"})
        self.unmount(two)
        self.assert_volume(one, {"which": b"one"})
        self.assert_volume(two, {"which": b"two, changed"})
        self.assert_nothing_mounted()

    def test_mounting_again_gives_the_same_folder_with_what_was_changed(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.write(folder, "a", b"2")
        link = self.path("link.img")
        os.symlink(image, link)
        relative = os.path.relpath(image)
        for name in (image, relative, link, "/dev/" + image):
            self.assertEqual(self.mount(name), folder, name)
        self.assertEqual(volumes.folder_tree(folder), {"a": b"2"})
        self.unmount(link)
        self.assert_volume(image, {"a": b"2"})
        self.assert_nothing_mounted()

    def test_a_slice_and_the_same_bytes_in_another_image_are_two_volumes(self):
        image = self.give(volumes.make_mac(self.path("mac.img"), {"a": b"1"}))
        copy = self.path("copy.img")
        images.sparse_copy(image, copy)
        self.give(copy)
        first, second = self.mount(image + "s1"), self.mount(copy + "s1")
        self.assertNotEqual(first, second)
        self.unmount(image + "s1")
        self.unmount(copy + "s1")
        self.assert_nothing_mounted()

    def test_an_image_in_the_place_of_one_that_was_deleted_is_another_volume(self):
        image = self.fat(tree={"old": b"1"})
        folder = self.mount(image)
        self.write(folder, "old", b"changed")
        os.remove(image)
        self.fat(tree={"new": b"2"})
        before = images.snapshot(image)
        self.vorlix_refuses("unmount", image, saying=["not mounted"])
        fresh = self.mount(image)
        self.assertEqual(volumes.folder_tree(fresh), {"new": b"2"})
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assertEqual(volumes.folder_tree(folder), {"old": b"changed"})

    def test_an_image_that_was_renamed_is_the_same_volume(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.write(folder, "a", b"2")
        renamed = self.path("renamed.img")
        os.rename(image, renamed)
        self.assertEqual(self.mount(renamed), folder)
        self.unmount(renamed)
        self.assert_volume(renamed, {"a": b"2"})

    def test_a_folder_that_somebody_removed_can_be_mounted_again(self):
        image = self.fat(tree={"a": b"1"})
        before = images.snapshot(image)
        shutil.rmtree(self.mount(image))
        folder = self.mount(image)
        self.assertEqual(volumes.folder_tree(folder), {"a": b"1"})
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()

    def test_a_volume_that_only_may_be_read(self):
        image = self.fat(tree={"a": b"1", "F": None, "F/b": b"2"})
        os.chmod(image, 0o444)
        before = images.snapshot(image)
        self.vorlix_refuses("mount", image, "--read-write", saying=[image, "not mounted"])
        self.assert_nothing_mounted()
        folder = self.mount(image)
        self.assertEqual(volumes.folder_tree(folder), {"a": b"1", "F": None, "F/b": b"2"})
        for path in (folder, os.path.join(folder, "a"), os.path.join(folder, "F"), os.path.join(folder, "F/b")):
            self.assertEqual(os.stat(path).st_mode & 0o222, 0, path)
        self.vorlix_refuses("mount", image, "--read-write", saying=["read-only"])
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()

    def test_the_efi_system_partition_of_a_disk(self):
        tree = {"EFI": None, "EFI/Boot": None, "EFI/Boot/bootx64.efi": b"boot"}
        image = self.give(volumes.make_mac(self.path("mac.img"), tree))
        outside = volumes.hash_outside_efi(image)
        before = images.snapshot(image)
        folder = self.vorlix_ok("efi", "mount", image).stdout.removesuffix("\n")
        self.assertEqual(os.path.basename(folder), "EFI")
        self.assertEqual(volumes.folder_tree(folder), tree)
        self.assertEqual(self.mount(image + "s1"), folder)
        self.assertEqual(self.vorlix_ok("efi", "unmount", image).stdout, "")
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()
        folder = self.mount(image + "s1", "--read-write")
        self.write(folder, "EFI/Boot/startup.nsh", b"echo\r\n")
        self.vorlix_ok("efi", "unmount", image)
        tree["EFI/Boot/startup.nsh"] = b"echo\r\n"
        self.assert_volume(image, tree, volumes.EFI_OFFSET, volumes.EFI_SIZE)
        self.assertEqual(volumes.hash_outside_efi(image), outside)
        self.assert_nothing_mounted()


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Refused(MountTest):
    def refuse_write_back(self, image, folder, *words):
        """Unmounting is refused with a reason and loses nothing: mirror and image stay as they are."""
        tree = volumes.folder_tree(folder)
        before = images.content_hash(image)
        self.vorlix_refuses("unmount", image, saying=[image, "stays mounted", *words])
        self.assertEqual(images.content_hash(image), before)
        self.assertEqual(volumes.folder_tree(folder), tree)
        self.assertEqual(self.mount(image), folder)

    def test_what_is_no_device(self):
        mac = self.give(volumes.make_mac(self.path("mac.img")))
        before = images.snapshot(mac)
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        for name in (self.path("missing.img"), self.path("missing.imgs1"), mac + "s4", mac + "s0", self.folder, pipe,
                     "/dev/null", "no such device", ""):
            for command in (["mount"], ["mount", "--read-write"], ["unmount"], ["efi", "mount"], ["efi", "unmount"]):
                with self.subTest(name=name, command=command):
                    result = self.vorlix_run(*command, name, timeout=20)
                    self.assertEqual(result.returncode, 2, result.stdout)
                    self.assertIn(f"vorlix: {name}", result.stderr)
                    self.assertEqual(result.stdout, "")
        self.assert_unchanged(mac, before)
        self.assert_nothing_mounted()

    def test_what_is_no_volume(self):
        image = self.file("zeros.img", bytes(1 << 20))
        short = self.file("short.img", b"x")
        empty = self.file("empty.img", b"")
        mac = self.give(volumes.make_mac(self.path("mac.img")))
        for name in (image, short, empty, mac, mac + "s3"):
            with self.subTest(name=name):
                before = images.snapshot(name.removesuffix("s3"))
                self.vorlix_refuses("mount", name, saying=[f"vorlix: {name}", "no file system", "not mounted"])
                self.assert_unchanged(name.removesuffix("s3"), before)
        self.vorlix_refuses("efi", "mount", image, saying=[image])
        self.assert_nothing_mounted()

    def test_a_volume_that_is_not_mounted(self):
        image = self.fat()
        before = images.snapshot(image)
        self.vorlix_refuses("unmount", image, saying=[image, "not mounted"])
        self.mount(image)
        self.unmount(image)
        self.vorlix_refuses("unmount", image, saying=[image, "not mounted"])
        self.assert_unchanged(image, before)

    def test_an_image_that_may_not_be_read(self):
        image = self.fat()
        os.chmod(image, 0)
        self.vorlix_refuses("mount", image, saying=[image, "Permission denied"])
        self.assert_nothing_mounted()

    def test_volumes_that_only_root_can_mount(self):
        image = self.path("ntfs.img")
        samples.make_ntfs(image, 8192, "NTFS")
        self.give(image)
        before = images.snapshot(image)
        self.vorlix_refuses("mount", image, saying=[image, "super-user"])
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()

    def test_damaged_volumes(self):
        """Whatever stands in tables and folders, the command ends soon, and unmounting leaves the image as it is."""
        source = self.fat(tree=TREE)
        area = 64 << 10  # boot sector, tables and root folder
        for seed in range(12):
            with self.subTest(seed=seed):
                image = self.path(f"damaged{seed}.img")
                images.sparse_copy(source, image)
                chance = random.Random(seed)
                with open(image, "rb+") as file:
                    for _ in range(40):
                        file.seek(chance.randrange(62, area))
                        file.write(bytes([chance.randrange(256)]))
                self.give(image)
                before = images.snapshot(image)
                result = self.vorlix_run("mount", image, timeout=20)
                self.assertIn(result.returncode, (0, 2), result.stderr)
                if result.returncode == 2:
                    self.assertIn(image, result.stderr)
                else:
                    self.unmount(image)
                self.assert_unchanged(image, before)
                self.assert_nothing_mounted()

    def test_an_image_that_somebody_else_changed(self):
        image = self.fat()
        folder = self.mount(image)
        self.write(folder, "mine", b"mine")
        volumes.put_tree(image, {"theirs": b"theirs"})
        self.refuse_write_back(image, folder, "changed the volume")
        self.assertEqual(volumes.read_tree(image), {**TREE, "theirs": b"theirs"})
        volumes.mtools("mdel", image, "::/theirs")
        self.refuse_write_back(image, folder, "changed the volume")

    def test_an_image_that_somebody_else_changed_while_nothing_was_changed_here(self):
        image = self.fat()
        self.mount(image)
        volumes.put_tree(image, {"theirs": b"theirs"})
        before = images.snapshot(image)
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assert_volume(image, {**TREE, "theirs": b"theirs"})
        self.assert_nothing_mounted()

    def test_a_full_volume(self):
        tree = {"kept": random_bytes(100_000, 2), "replaced": b"before"}
        image = self.fat(bits=12, tree=tree)
        folder = self.mount(image)
        tree["replaced"] = b"after"
        for path, content in (("replaced", b"after"), ("small", b"1"), ("too large", random_bytes(3 << 20))):
            tree[path] = content
            self.write(folder, path, content)
        for _ in range(2):  # the second time it goes on from where the first one ended
            self.vorlix_refuses("unmount", image, saying=[image, "too large", "Disk full", "stays mounted", folder])
            self.assertTrue(volumes.folder_tree(folder) == tree)
            self.assertEqual(volumes.read_tree(image)["kept"], tree["kept"])
            volumes.check_fat(image)
        os.remove(os.path.join(folder, "too large"))
        del tree["too large"]
        self.unmount(image)
        self.assert_volume(image, tree)
        self.assert_nothing_mounted()

    def test_a_volume_without_room_for_another_folder(self):
        image = self.fat(bits=12, tree={"large": b""})
        free = int(volumes.mtools("mdir", image, "::/").decode().split("bytes free")[0].split("\n")[-1].replace(" ", ""))
        volumes.put_tree(image, {"filler": bytes(free)})
        self.give(image)
        folder = self.mount(image)
        self.make_folder(folder, "one more")
        self.vorlix_refuses("unmount", image, saying=["one more", "Disk full", "stays mounted"])
        os.rmdir(os.path.join(folder, "one more"))
        self.unmount(image)
        self.assert_volume(image, {"large": b"", "filler": bytes(free)})

    def test_names_that_a_fat_volume_cannot_hold(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        for name in ('quo"te', "colon:", "star*", "question?", "back\\slash", "pipe|", "<", ">", "end.", "end ", "nul",
                     "COM1.txt", "tab\there", "\U0001F4BE", "\udcff\udcfe"):
            with self.subTest(name=name):
                self.write(folder, name, b"x")
                self.refuse_write_back(image, folder, "cannot be written to a FAT volume")
                os.remove(os.path.join(folder, name))
        self.unmount(image)
        self.assert_volume(image, {"a": b"1"})

    def test_two_names_that_are_one_on_a_fat_volume(self):
        image = self.fat(tree={"Readme": b"1"})
        folder = self.mount(image)
        self.write(folder, "README", b"2")
        self.refuse_write_back(image, folder, "Readme", "README", "same name")
        os.remove(os.path.join(folder, "README"))
        self.unmount(image)
        self.assert_volume(image, {"Readme": b"1"})

    def test_links_and_pipes_in_the_folder(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        secret = self.file("secret", b"not for the volume")
        for make in (lambda path: os.symlink(secret, path), os.mkfifo, lambda path: os.symlink(self.folder, path)):
            path = os.path.join(folder, "other")
            make(path)
            before = images.content_hash(image)
            self.vorlix_refuses("unmount", image, saying=["other", "neither a file nor a folder"])
            self.assertEqual(images.content_hash(image), before)
            os.remove(path)
        self.unmount(image)
        self.assert_volume(image, {"a": b"1"})
        self.assertEqual(samples.read(secret, 0, 100), b"not for the volume")

    def test_a_folder_in_use(self):
        image = self.fat(tree={"a": b"1", "F": None})
        folder = self.mount(image)
        self.write(folder, "b", b"2")
        for place in (folder, os.path.join(folder, "F")):
            with self.subTest(place=place):
                user = [*self.prefix(), "sh", "-c", 'cd "$1" && echo ready && read -r wait', "sh", place]
                with subprocess.Popen(user, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
                    self.assertEqual(process.stdout.readline(), "ready\n")
                    self.refuse_write_back(image, folder, "in use", str(process.pid))
                    process.stdin.close()
        self.unmount(image)
        self.assert_volume(image, {"a": b"1", "F": None, "b": b"2"})

    def test_an_image_that_another_process_holds_locked(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.write(folder, "a", b"2")
        with open(image, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.refuse_write_back(image, folder)
        self.unmount(image)
        self.assert_volume(image, {"a": b"2"})


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Killed(MountTest):
    def run_and_kill(self, delay, *arguments):
        """Starts the command line and kills it, and nothing but it, after a while. Returns whether it was running."""
        with subprocess.Popen([*self.prefix(), self.vorlix, *arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(delay)
                return False
            process.send_signal(signal.SIGKILL)
        return True

    def test_a_folder_left_by_one_process_is_unmounted_by_another(self):
        """Each command is a process of its own; the one that mounted has long ended."""
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.as_user("sh", "-c", 'printf 2 >"$1/a" && printf 3 >"$1/b"', "sh", folder)
        self.unmount(image)
        self.assert_volume(image, {"a": b"2", "b": b"3"})

    def test_mounting_after_a_mount_that_was_killed(self):
        image = self.fat(tree=TREE)
        before = images.snapshot(image)
        for milliseconds in (1, 5, 10, 20, 30, 50, 80):
            with self.subTest(milliseconds=milliseconds):
                self.run_and_kill(milliseconds / 1000, "mount", image)
                folder = self.mount(image)
                self.assertEqual(volumes.folder_tree(folder), TREE)
                self.unmount(image)
                self.assert_unchanged(image, before)

    def test_unmounting_after_an_unmount_that_was_killed(self):
        killed = 0
        for milliseconds in (2, 10, 25, 40, 60, 90, 120, 160):
            with self.subTest(milliseconds=milliseconds):
                image = self.fat(f"{milliseconds}.img", tree=TREE)
                tree = dict(TREE)
                folder = self.mount(image)
                for number in range(6):
                    tree[f"new{number}"] = random_bytes(1 << 20, number)
                    self.write(folder, f"new{number}", tree[f"new{number}"])
                tree["README.TXT"] = b"changed"
                self.write(folder, "README.TXT", b"changed")
                del tree["empty"]
                os.remove(os.path.join(folder, "empty"))
                killed += self.run_and_kill(milliseconds / 1000, "unmount", image)
                time.sleep(0.05)
                result = self.vorlix_run("unmount", image)
                if result.returncode != 0:  # it had come to its end
                    self.assertIn("not mounted", result.stderr)
                self.assert_volume(image, tree)
        self.assertGreater(killed, 0)

    def test_what_was_changed_after_an_unmount_that_was_killed_is_written_too(self):
        image = self.fat(tree={"a": b"1", "b": b"2"})
        folder = self.mount(image)
        self.write(folder, "a", random_bytes(4 << 20))
        self.run_and_kill(0.04, "unmount", image)
        if not os.path.isdir(folder):
            self.skipTest("unmounting was quicker than the signal")
        self.write(folder, "b", b"3")
        self.unmount(image)
        self.assert_volume(image, {"a": random_bytes(4 << 20), "b": b"3"})

    def test_commands_at_the_same_time(self):
        image = self.fat(tree=TREE)
        before = images.snapshot(image)
        command = [*self.prefix(), self.vorlix, "mount", image]
        processes = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL, text=True) for _ in range(4)]
        answers = [process.communicate(timeout=60)[0] for process in processes]
        self.assertEqual([process.returncode for process in processes], [0, 0, 0, 0])
        self.assertEqual(len(set(answers)), 1, answers)
        self.assertEqual(volumes.folder_tree(answers[0].strip()), TREE)
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()


@unittest.skipUnless(volumes.IS_ROOT, "mounting through the kernel needs root")
class AsRoot(MountTest):
    AS_ROOT = True

    @unittest.skipIf(MISSING, f"not installed: {MISSING}")
    def test_a_fat_volume(self):
        """By the kernel where it has the file system, else by mirroring it."""
        image = self.fat(tree={"a": b"1", "F": None})
        folder = self.mount(image, "--read-write")
        self.assertEqual(volumes.folder_tree(folder), {"a": b"1", "F": None})
        self.write(folder, "F/b", b"2")
        self.unmount(image)
        self.assert_volume(image, {"a": b"1", "F": None, "F/b": b"2"})
        self.assert_nothing_mounted()

    def linux_volume(self, name="linux.img"):
        image = self.path(name)
        with open(image, "wb") as file:
            file.truncate(8 << 20)
        images.run_tool("mkfs.ext4", "-q", "-L", "LINUX", image)
        return image

    def assert_mountable(self):
        if not os.path.exists("/dev/loop-control"):
            self.skipTest("no /dev/loop-control on this machine")
        with open("/proc/filesystems", encoding="ascii") as file:
            if "\text4\n" not in file.read():
                self.skipTest("the kernel has no ext4")

    def test_a_volume_of_the_kernel_s(self):
        self.assert_mountable()
        image = self.linux_volume()
        folder = self.mount(image, "--read-write")
        self.addCleanup(self.vorlix_run, "unmount", image)
        self.assertTrue(os.path.ismount(folder))
        self.assertEqual(self.mount(image), folder)
        self.write(folder, "file", b"written")
        self.unmount(image)
        self.assertFalse(os.path.exists(folder))
        self.assert_nothing_mounted()
        self.assertEqual(images.run_tool("debugfs", "-R", "cat file", image), "written")
        images.run_tool("e2fsck", "-f", "-n", image)
        self.assertEqual(images.run_tool("losetup", "--associated", image), "")

    def test_a_volume_of_the_kernel_s_in_use(self):
        self.assert_mountable()
        image = self.linux_volume()
        folder = self.mount(image, "--read-write")
        self.addCleanup(self.vorlix_run, "unmount", image)
        with open(os.path.join(folder, "open"), "wb"):
            self.vorlix_refuses("unmount", image, saying=[image, "stays mounted"])
            self.assertTrue(os.path.ismount(folder))
        self.unmount(image)

    def test_a_slice_of_a_loop_device(self):
        self.assert_mountable()
        image = volumes.make_mac(self.path("mac.img"))
        volume = self.linux_volume()
        samples.place(image, volume, volumes.WINDOWS.first)
        with tools.loop_device(image, 512) as device:
            name = device + "s3"
            folder = self.mount(name, "--read-write")
            self.addCleanup(self.vorlix_run, "unmount", name)
            self.write(folder, "file", b"through a slice")
            self.unmount(name)
            self.assert_nothing_mounted()
        content = samples.read(image, volumes.WINDOWS.first * 512, 8 << 20)
        with open(volume, "wb") as file:
            file.write(content)
        self.assertEqual(images.run_tool("debugfs", "-R", "cat file", volume), "through a slice")


if __name__ == "__main__":
    images.main()
