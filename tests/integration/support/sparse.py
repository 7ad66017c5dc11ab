# SPDX-License-Identifier: Apache-2.0
"""Files with holes: reading, comparing and copying them costs as much as their data, however large they are."""

import errno
import functools
import hashlib
import os

BLOCK = 64 << 10


@functools.lru_cache(maxsize=8)
def zeros(count):
    return bytes(count)


def is_zero(content):
    """Whether there are only zeros. The comparison ends at the first other byte; strip() would look at each one."""
    return content == zeros(len(content))


def blocks(descriptor, first=0, count=None):
    """The blocks of a file, or of `count` bytes of it, that are not all zeros: (offset from `first`, bytes)."""
    end = os.lseek(descriptor, 0, os.SEEK_END)
    if count is not None:
        end = min(end, first + count)
    at = first
    while at < end:
        try:
            data = os.lseek(descriptor, at, os.SEEK_DATA)
        except OSError as error:
            if error.errno != errno.ENXIO:
                raise
            return  # the rest is a hole
        at += (data - at) // BLOCK * BLOCK  # the same blocks, wherever the holes are
        hole = min(end, os.lseek(descriptor, data, os.SEEK_HOLE))
        while at < hole:
            block = os.pread(descriptor, min(BLOCK, end - at), at)
            if not is_zero(block):
                yield at - first, block
            at += BLOCK


def digest(path, first=0, count=None):
    """Digest of a file's bytes, or of a part of them. Holes count as zeros."""
    result = hashlib.sha256()
    with open(path, "rb") as file:
        size = os.lseek(file.fileno(), 0, os.SEEK_END) - first
        for at, block in blocks(file.fileno(), first, count):
            result.update(at.to_bytes(8, "little"))
            result.update(block)
    result.update((size if count is None else min(size, count)).to_bytes(8, "little", signed=True))
    return result.hexdigest()


def copy(source, target, first=0, count=None):
    """Copies a file, or a part of it, to a new one or into one that is there, in place. Zeros become holes."""
    with open(source, "rb") as old, open(target, "wb") as new:
        size = os.lseek(old.fileno(), 0, os.SEEK_END) - first
        new.truncate(size if count is None else min(size, count))
        for at, block in blocks(old.fileno(), first, count):
            os.pwrite(new.fileno(), block, at)


def put(source, target, offset):
    """Writes what is not zero of a file into another one, from an offset on. The target must have a hole there."""
    with open(source, "rb") as old, open(target, "r+b") as new:
        for at, block in blocks(old.fileno()):
            os.pwrite(new.fileno(), block, offset + at)
