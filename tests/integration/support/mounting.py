# SPDX-License-Identifier: Apache-2.0
"""Shared code of the tests of mounting: FAT volumes with files, and checks of their content."""

import os
import random

from support import volumes

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
        """Makes an image file with a FAT volume."""
        path = volumes.make_fat(self.path(name), bits, label, size)
        volumes.put_tree(path, TREE if tree is None else tree)
        return self.give(path)

    def unmount(self, device):
        result = self.vorlix_ok("unmount", device)
        self.assertEqual(result.stdout, "")

    def write(self, folder, name, content):
        """Writes a file of a mounted volume as the user who mounted it."""
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
