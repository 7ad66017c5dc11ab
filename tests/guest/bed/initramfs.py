# SPDX-License-Identifier: Apache-2.0
"""The guest's initial root: busybox, the modules and the scripts, as a cpio archive in the "newc" format."""

import os
import stat


class Initramfs:
    """An uncompressed archive: for an emulated processor, decompressing takes longer than reading."""

    def __init__(self, path):
        self._file = open(path, "wb")
        self._inode = 0

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        if kind is None:
            self._entry("TRAILER!!!", 0, b"")
        self._file.close()

    def folder(self, name):
        self._entry(name, stat.S_IFDIR | 0o755, b"")

    def content(self, name, content, mode=0o644):
        self._entry(name, stat.S_IFREG | mode, content)

    def file(self, name, path, mode=0o644):
        with open(path, "rb") as source:
            self.content(name, source.read(), mode)

    def _entry(self, name, mode, content):
        self._inode += 1
        encoded = os.fsencode(name) + b"\0"
        # inode, mode, user, group, links, time, size, device (2), device of a node (2), length of the name, checksum
        fields = (self._inode, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(encoded), 0)
        self._write(b"070701" + b"".join(b"%08X" % field for field in fields) + encoded)
        self._write(content)

    def _write(self, chunk):
        self._file.write(chunk + b"\0" * (-len(chunk) % 4))
