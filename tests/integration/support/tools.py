# SPDX-License-Identifier: Apache-2.0
"""Disks made and read by independent tools: sgdisk, sfdisk, fdisk, mkntfs, mformat, blkid, losetup."""

import contextlib
import functools
import json
import os
import re
import subprocess
import tempfile
import time
import unittest

from support import gpt, hive, images, samples, sparse, volumes

MAC_SIZE = 512 << 20
# The layout of a Mac with a Windows partition, in blocks of 512 bytes: first, last and type of each entry.
MAC_LAYOUT = {
    1: (40, 409639, gpt.EFI_SYSTEM),
    2: (409640, 600000, gpt.APFS),
    3: (602112, 622591, gpt.BASIC_DATA),
    4: (622592, 630783, gpt.APPLE_BOOT),
}
WINDOWS = 3


@functools.lru_cache(maxsize=None)
def templates():
    """A folder for images that several tests copy, because sgdisk takes a second to make one."""
    return tempfile.TemporaryDirectory(prefix="vorlix-templates-")


@functools.lru_cache(maxsize=None)
def template(layout, size, extra):
    descriptor, path = tempfile.mkstemp(dir=templates().name)
    os.close(descriptor)
    os.truncate(path, size)
    sgdisk(path, *extra, "-a", "1", *partition_options(dict(layout)))
    return path


def sgdisk_image(path, layout, size=MAC_SIZE, extra=(), table_length=None):
    """
    Makes a sparse image with the partitions of `layout` (number: (first, last, type)). `extra` options come first. One with
    a table of another length is made by sfdisk: sgdisk works seconds on a large one.
    """
    if table_length:
        parts = "".join(f"disk{number} : start={first}, size={last + 1 - first}, type={kind}\n"
                        for number, (first, last, kind) in layout.items())
        with open(path, "wb") as file:
            file.truncate(size)
        images.run_tool("sfdisk", "-q", path, stdin=f"label: gpt\ntable-length: {table_length}\n\n{parts}")
    else:
        images.sparse_copy(template(tuple(layout.items()), size, tuple(extra)), path)
    return path


def partition_options(layout):
    options = []
    for number, (first, last, kind) in layout.items():
        options += ["-n", f"{number}:{first}:{last}", "-t", f"{number}:{kind}"]
    return options


def sgdisk(path, *options):
    return images.run_tool("sgdisk", *options, path)


def sgdisk_entry(path, number):
    """The lines of `sgdisk -i` about an entry, by their labels."""
    return sgdisk_entries(path, [number])[0]


def sgdisk_entries(path, numbers):
    """The same about several entries."""
    printed = sgdisk(path, *(f"--info={number}" for number in numbers)).split("Partition GUID code:")[1:]
    found = []
    for text in printed:
        lines = [line.split(":", 1) for line in ("Partition GUID code:" + text).splitlines() if ":" in line]
        found.append({key.strip(): value.strip() for key, value in lines})
    if len(found) != len(numbers):
        raise AssertionError(f"{path}: {len(found)} of the entries {numbers} are in use")
    return found


def sfdisk_table(path):
    return json.loads(images.run_tool("sfdisk", "-J", path))["partitiontable"]


def entries_by_sfdisk(path):
    """The first entries of a disk by sfdisk, in the form that gpt.hybrid_slots() takes."""
    entries = [None] * 4
    table = sfdisk_table(path)
    for part in table["partitions"]:
        number = int(part["node"][len(path) :].lstrip("p"))
        if number <= 4:
            entries[number - 1] = gpt.Entry(part["type"], part["start"], part["start"] + part["size"] - 1)
    return entries


def fdisk_slots(path):
    """The MBR by fdisk, which is told to ignore the GPT: {number: (active, first, sectors, type)}."""
    found = {}
    for line in images.run_tool("fdisk", "-t", "dos", "-l", "-o", "device,boot,start,sectors,id", path).splitlines():
        match = re.fullmatch(re.escape(path) + r"p?(\d) +(\*?) +(\d+) +(\d+) +([0-9a-f]+)", line)
        if match:
            number, active, first, sectors, kind = match.groups()
            found[int(number)] = (active == "*", int(first), int(sectors), int(kind, 16))
    return found


def ntfs_volume(path, size, sector_size=512, start=63):
    """Bytes of an NTFS volume by mkntfs with boot code, whose hidden-sectors field differs from the volume's later place."""
    with open(path, "wb") as file:
        file.truncate(size)
    images.run_tool("mkntfs", "-F", "-f", "-q", "-s", sector_size, "-p", start, "-H", "255", "-S", "63", path)
    samples.put_boot_code(path)
    with open(path, "rb") as file:
        return file.read()


@functools.lru_cache(maxsize=None)
def start_volume(size, sector_size, start, partition, disk):
    """Bytes of an NTFS volume with a boot manager and a store that names the GUIDs (in on-disk byte order)."""
    place = 8228  # of the element's data in the file
    store = bytearray(hive.store_with_elements([place]))
    element = hive.device_element(partition, disk)
    store[place:place + len(element)] = element
    path = os.path.join(templates().name, f"start{start_volume.cache_info().currsize}.ntfs")
    volumes.make_ntfs(path, size, {"bootmgr": b"loader", "Boot/BCD": bytes(store)}, start=start, sector_size=sector_size)
    with open(path, "rb") as file:
        return file.read()


def start_volume_for(disk, number, size, sector_size=512, start=63):
    """The same for a GPT entry of a disk."""
    header = gpt.read_at(disk, sector_size, 92)
    entry = gpt.read_at(disk, int.from_bytes(header[72:80], "little") * sector_size + (number - 1) * 128, 128)
    return start_volume(size, sector_size, start, entry[16:32], header[56:72])


def fat_volume(path, size):
    """Bytes of a FAT volume by mformat."""
    with open(path, "wb") as file:
        file.truncate(size)
    images.run_tool("mformat", "-i", path, "-T", size // 512, "-h", "255", "-s", "63", "-H", "63", "-v", "WINDOWS", "::")
    with open(path, "rb") as file:
        return file.read()


def write_sparse(path, offset, data):
    """Writes the parts of `data` that are not zero. The file must have a hole there."""
    with open(path, "r+b") as file:
        for at in range(0, len(data), images.PAGE):
            page = data[at : at + images.PAGE]
            if not sparse.is_zero(page):
                os.pwrite(file.fileno(), page, offset + at)


def blkid_probe(path, offset, size):
    """Type and serial number of the file system at an offset, as blkid reads them."""
    output = images.run_tool("blkid", "-p", "-o", "export", "-O", offset, "-S", size, path)
    return dict(line.split("=", 1) for line in output.splitlines() if "=" in line)


@contextlib.contextmanager
def loop_device(path, sector_size):
    """A loop device over a file, detached at the end, even after a failure. Skips the test if loop devices are impossible."""
    if os.geteuid() != 0:
        raise unittest.SkipTest("loop devices need root")
    if not os.access("/dev/loop-control", os.R_OK | os.W_OK):
        raise unittest.SkipTest("no /dev/loop-control on this machine")
    command = [images.tool("losetup"), "--show", "--find", "--sector-size", str(sector_size), path]
    result = subprocess.run(command, capture_output=True, text=True, timeout=60)
    if result.returncode != 0:
        raise unittest.SkipTest(f"losetup: {result.stderr.strip()}")
    device = result.stdout.strip()
    try:
        yield device
    finally:
        images.run_tool("losetup", "--detach", device)


def unmount(folder):
    """Unmounts a volume of a FUSE driver. Retries, because the driver learns of a closed file only a little later."""
    end = time.monotonic() + 30
    while True:
        result = subprocess.run([images.tool("umount"), folder], capture_output=True, text=True, timeout=60)
        if result.returncode == 0:
            return
        if "busy" not in result.stderr or time.monotonic() > end:
            raise AssertionError(f"umount {folder}: {result.stderr}")
        time.sleep(0.05)
