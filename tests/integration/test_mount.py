# SPDX-License-Identifier: Apache-2.0
"""Mounting and unmounting FAT volumes in image files, as an ordinary user."""

import json
import os
import shutil
import unittest

from support import images, tools, volumes
from support.mounting import MISSING, TREE, MountTest, random_bytes


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
        """An empty volume, one with folders only, and volumes whose last file is replaced by another one."""
        for number, tree in enumerate(({}, {"EFI": None, "EFI/Boot": None}, {"only": b"x"}, {"A": None, "A/only": b"x"})):
            with self.subTest(tree=tree):
                image = self.fat(f"{number}.img", tree=tree)
                folder = self.mount(image)
                self.assertEqual(volumes.folder_tree(folder), tree)
                rest = {path: content for path, content in tree.items() if content is None}
                for path in set(tree) - set(rest):
                    os.remove(os.path.join(folder, path))
                    self.write(folder, "other", b"y")
                    rest["other"] = b"y"
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
                self.assertEqual(os.path.dirname(folder), os.path.join(os.path.realpath(self.state), "vorlix/volumes"))
                self.assertFalse(os.path.basename(folder).startswith("."), folder)
                self.assertEqual(volumes.folder_tree(folder), {"file": b"content"})
                self.unmount(image)

    def test_the_folder_is_the_user_s_alone(self):
        folder = self.mount(self.fat())
        while folder != os.path.realpath(self.state):
            status = os.stat(folder)
            self.assertEqual(status.st_mode & 0o077, 0, folder)
            self.assertEqual(status.st_uid, os.stat(self.state).st_uid)
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

    def test_names_of_windows_in_the_spelling_the_volume_has(self):
        """The mirror is case-sensitive; FAT and Windows are not."""
        image = self.fat(tree={"WINDOWS": None, "WINDOWS/SYSTEM32": None, "Boot": None})
        self.mount(image)
        self.assertIn("can be started", self.vorlix_ok("bootable", image).stdout)
        listed = json.loads(self.vorlix_ok("find", "--node", image, "--json").stdout)
        self.assertEqual((listed["windows"], listed["bootFiles"]), ("installed", "own"))
        self.unmount(image)

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


if __name__ == "__main__":
    images.main()
