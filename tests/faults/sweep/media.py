# SPDX-License-Identifier: Apache-2.0
"""The media of a sweep, made by independent tools, and their structures."""

import functools
import hashlib
import os
import tempfile

from support import images, samples, sparse, volumes
from sweep.judging import Seen

BOOT_AREA = 8192
PARAMETERS = 84  # bytes of a boot area that restoring a boot record keeps
SERIAL = slice(0x48, 0x50)  # NTFS's serial number; a new one each time

EFI, APPLE, WINDOWS = volumes.EFI, volumes.APPLE, volumes.WINDOWS
SECTOR = samples.SECTOR


def make_mac(path, efi_tree):
    """Makes a Mac disk with a FAT volume as EFI System Partition and an NTFS volume whose hidden-sectors field is 0."""
    volumes.make_mac(path, efi_tree)
    with tempfile.TemporaryDirectory(prefix="vorlix-ntfs-") as folder:
        volume = os.path.join(folder, "volume")
        samples.make_ntfs(volume, WINDOWS.sectors, "BOOTCAMP")
        samples.place(path, volume, WINDOWS.first)


def boot_record(path):
    """A boot record as `vbr save` writes it, for the NTFS volume `path` with other boot code: the first sector with a
    changed message, and 15 sectors of made-up code."""
    area = bytearray(samples.read(path, 0, BOOT_AREA))
    area[0x100:0x110] = bytes(range(0x10))
    area[SECTOR:] = bytes((7 * place + 3) % 251 for place in range(BOOT_AREA - SECTOR))
    return bytes(area[PARAMETERS:])


def digest(content):
    return f"{len(content)} bytes, {hashlib.sha256(content).hexdigest()[:16]}"


def content_of(path):
    """A file as a structure; None for a missing file."""
    if not os.path.lexists(path):
        return {}
    with open(path, "rb") as file:
        return {os.path.basename(path): Seen(digest(file.read()))}


def ranges_of(path, ranges):
    """The given parts {name: (offset, count)} of a disk as structures, and the rest of the disk as one more."""
    found = {name: Seen(digest(samples.read(path, *place))) for name, place in ranges.items()}
    found["the rest of the disk"] = Seen(rest_of(path, ranges.values()))
    return found


def rest_of(path, ranges):
    """Digest of a file without the ranges (offset, count)."""
    whole = hashlib.sha256(str(os.path.getsize(path)).encode())
    with open(path, "rb") as file:
        for at, page in images.data_pages(file.fileno()):
            page = bytearray(page)
            for offset, count in ranges:
                start, end = max(offset, at), min(offset + count, at + len(page))
                if start < end:
                    page[start - at : end - at] = bytes(end - start)
            if not sparse.is_zero(page):
                whole.update(at.to_bytes(8, "little") + page)
    return whole.hexdigest()


def boot_sector(path, offset):
    """An NTFS boot sector as a structure; its serial number is random."""
    sector = samples.read(path, offset, SECTOR)
    lasting = bytearray(sector)
    lasting[SERIAL] = bytes(8)
    return Seen(digest(sector), digest(bytes(lasting)))


def hybrid_disk(path):
    """The structures that `hybrid` may change: sector 0, the volume's boot sector and its copy in the last sector."""
    first = WINDOWS.first * SECTOR
    second = (WINDOWS.first + WINDOWS.sectors - 1) * SECTOR
    found = ranges_of(path, {"sector 0": (0, SECTOR), "boot sector": (first, SECTOR), "second boot sector": (second, SECTOR)})
    found["boot sector"] = boot_sector(path, first)
    found["second boot sector"] = boot_sector(path, second)
    return found


def fat_disk(path, offset, size):
    """A FAT volume's files by mtools, fsck.vfat's verdict, and the rest of the disk."""
    volume = samples.read(path, offset, size)
    found = {name: Seen(value) for name, value in read_fat(volume).items()}
    found["the rest of the disk"] = Seen(rest_of(path, [(offset, size)]))
    return found


@functools.lru_cache(maxsize=64)
def read_fat(volume):
    with tempfile.NamedTemporaryFile(prefix="vorlix-fat-") as file:
        file.write(volume)
        file.flush()
        return fat_files(file.name) | {"soundness of the volume": soundness(file.name)}


def fat_files(path):
    try:
        tree = volumes.read_tree(path)
    except AssertionError as error:
        return {"files of the volume": f"unreadable: {error}"}
    return {f"file {name}" if content is not None else f"folder {name}": "folder" if content is None else digest(content)
            for name, content in tree.items()}


def soundness(path):
    """fsck.vfat's report; empty if it finds nothing wrong. It compares the FATs and looks for lost clusters."""
    try:
        images.run_tool("fsck.vfat", "-n", path)
    except AssertionError as error:
        return f"fsck.vfat: {error}"
    return "sound"


def tree_of(folder):
    """Files and folders below a folder, as {path: bytes, or None for a folder}."""
    return volumes.folder_tree(folder) if os.path.isdir(folder) else {}
