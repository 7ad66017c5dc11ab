# SPDX-License-Identifier: Apache-2.0
"""Volumes that are not mounted, and mirrors that are not written back: the command gives a reason and loses nothing."""

import fcntl
import os
import random
import resource
import shutil
import subprocess
import unittest

from support import images, samples, volumes
from support.mounting import MISSING, TREE, MountTest, random_bytes


def processor_time_of_children():
    """Seconds that the programs of this test have used so far; unlike the time of day it does not depend on other programs."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Refused(MountTest):
    def refuse_write_back(self, image, folder, *words):
        """Unmounting is refused with a reason; mirror and image stay unchanged."""
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

    def test_an_image_in_the_place_of_the_one_that_was_mounted(self):
        """The new image holds another volume, so nothing is written; the message names the folder with the files."""
        image = self.fat()
        folder = self.mount(image, "--read-write")
        self.write(folder, "new", b"kept")
        self.give(shutil.copy(image, self.path("other.img")))
        os.rename(self.path("other.img"), image)
        before = images.snapshot(image)
        self.vorlix_refuses("unmount", image, saying=[image, "not mounted", "another image", folder, "nothing was changed"])
        self.assertEqual(volumes.folder_tree(folder)["new"], b"kept")
        self.assert_unchanged(image, before)
        shutil.rmtree(folder)
        message = self.vorlix_refuses("unmount", image, saying=[image, "not mounted"])
        self.assertNotIn("another image", message)

    def test_what_is_left_of_a_volume_is_named_and_thrown_away_by_a_command(self):
        image = self.fat(label="KEEP")
        folder = self.mount(image, "--read-write")
        self.write(folder, "new", b"kept")
        os.remove(os.path.join(folder, "empty"))
        os.rename(image, self.path("away.img"))
        left = self.vorlix_ok("list").stderr
        for words in (folder, "left over, with 2 changes", image, "is not there", f"--discard '{folder}'"):
            self.assertIn(words, left)
        self.fat(label="OTHER")
        self.assertIn("another volume", self.vorlix_ok("list").stderr)
        result = self.vorlix_ok("mount", image)
        self.assertIn(folder, result.stderr)
        other = result.stdout.strip()
        self.assertNotEqual(other, folder)
        self.vorlix_refuses("unmount", "--discard", "NOBODY", saying=["nothing was thrown away"])
        self.vorlix_refuses("unmount", "--discard", image, saying=["both", folder, other, "nothing was thrown away"])
        self.assertEqual(volumes.folder_tree(folder)["new"], b"kept")
        lost = self.vorlix_ok("unmount", "--discard", "KEEP").stdout
        self.assertIn("Lost       new /new\n", lost)
        self.assertIn("Lost       removed /empty\n", lost)
        self.assertFalse(os.path.exists(folder))
        self.assertEqual(self.vorlix_ok("list").stderr, "")
        before = images.snapshot(image)
        self.write(other, "README.TXT", b"thrown away")
        self.assertIn("Lost       changed /README.TXT\n", self.vorlix_ok("unmount", "--discard", image).stdout)
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()

    def test_another_volume_in_the_same_place(self):
        """Another disk may be attached under the same device name; it is not the one that was mounted."""
        image = self.fat(label="FIRST")
        folder = self.mount(image, "--read-write")
        self.write(folder, "new", b"kept")
        kept = self.path("kept.img")
        shutil.copy(image, kept)
        second = self.fat("second.img", label="SECOND", tree={"b": b"2"})
        shutil.copyfile(second, image)
        before = images.snapshot(image)
        self.vorlix_refuses("unmount", image, saying=["not mounted", "another image", folder])
        other = self.mount(image)
        self.assertEqual(volumes.folder_tree(other), {"b": b"2"})
        self.unmount(image)
        self.assert_unchanged(image, before)
        shutil.copyfile(kept, image)
        self.assertEqual(self.mount(image), folder)
        self.unmount(image)
        self.assert_volume(image, {**TREE, "new": b"kept"})
        self.assert_nothing_mounted()

    def test_an_image_that_holds_next_to_nothing_and_claims_a_terabyte(self):
        image = self.path("huge.img")
        with open(image, "wb") as file:
            file.truncate(1 << 40)
        images.run_tool("mkfs.vfat", "-F", 32, "-s", 64, image)  # its tables have 128 MiB each
        volumes.put_tree(image, {"a": b"1"})
        self.give(image)
        before = processor_time_of_children()
        folder = self.mount(image, "--read-write")
        self.write(folder, "b", b"2")
        self.unmount(image)
        self.assertLess(processor_time_of_children() - before, 15 if images.SANITIZED else 5)
        self.assertEqual(volumes.mtools("mtype", image, "::/b"), b"2")

    def test_patching_a_volume_that_is_mounted(self):
        """Afterwards, the mirror would no longer belong to the volume."""
        disk = volumes.make_mac(self.path("mac.img"))
        samples.place(disk, self.fat("volume", tree={"a": b"1"}, bits=12), volumes.WINDOWS.first)
        self.give(disk)
        volume = f"{disk}s{volumes.WINDOWS.number}"
        arguments = ("hybrid", disk, "--boot-code", self.boot_code, "--partition", volumes.WINDOWS.number)
        os.chmod(self.boot_code, 0o644)
        folder = self.mount(volume, "--read-write")
        self.write(folder, "b", b"2")
        before = images.snapshot(disk)
        self.vorlix_refuses(*arguments, saying=[volume, f"is mounted at {folder}", "nothing was written"])
        self.assert_unchanged(disk, before)
        self.unmount(volume)
        self.vorlix_ok(*arguments)
        folder = self.mount(volume)
        self.assertEqual(volumes.folder_tree(folder), {"a": b"1", "b": b"2"})
        self.unmount(volume)

    def test_a_folder_that_was_emptied_or_made_again(self):
        """Emptying the folder by accident must not delete every file of the volume."""
        image = self.fat()
        before = images.snapshot(image)
        folder = self.mount(image)
        for name in os.listdir(folder):
            path = os.path.join(folder, name)
            (shutil.rmtree if os.path.isdir(path) else os.remove)(path)
        self.refuse_write_back(image, folder, f"all files are gone from {folder}", "put one back", "--discard")
        shutil.rmtree(folder)
        self.give(os.mkdir(folder) or folder)
        self.refuse_write_back(image, folder, f"{folder} is another folder", "--discard")
        self.write(folder, "other", b"x")
        self.refuse_write_back(image, folder, f"{folder} is another folder")
        self.assert_unchanged(image, before)
        self.vorlix_ok("unmount", "--discard", image)
        self.assert_nothing_mounted()
        self.assertEqual(volumes.folder_tree(self.mount(image)), TREE)
        self.unmount(image)
        self.assert_unchanged(image, before)

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
        """With any content of FATs and folders, the command ends soon, and unmounting leaves the image unchanged."""
        source = self.fat(tree=TREE)
        area = 64 << 10  # bytes with boot sector, FATs and root folder
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
        for _ in range(2):  # the second run continues where the first one ended
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

    @unittest.skipUnless(volumes.IS_ROOT, "only root's processes are out of an ordinary user's sight")
    def test_a_file_that_a_process_out_of_sight_has_open(self):
        """Data that the process writes later would be lost with the folder."""
        image = self.fat(tree={"a": b"1", "F": None, "F/b": b"2"})
        folder = self.mount(image)
        for name, mode in (("a", "rb"), ("F/b", "ab")):
            with self.subTest(name=name), open(os.path.join(folder, name), mode):
                self.refuse_write_back(image, folder, f"/{name} is in use")
        with open(os.path.join(folder, "F/b"), "wb") as file:
            file.write(b"before")
            file.flush()
            self.vorlix_refuses("unmount", image, saying=["/F/b is in use", "stays mounted"])
            self.vorlix_refuses("unmount", "--discard", image, saying=["/F/b is in use", "nothing was thrown away"])
            file.write(b" and after")
        self.unmount(image)
        self.assert_volume(image, {"a": b"1", "F": None, "F/b": b"before and after"})

    def test_an_image_that_another_process_holds_locked(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.write(folder, "a", b"2")
        with open(image, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.refuse_write_back(image, folder)
        self.unmount(image)
        self.assert_volume(image, {"a": b"2"})


if __name__ == "__main__":
    images.main()
