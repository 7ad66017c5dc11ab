# SPDX-License-Identifier: Apache-2.0
"""Volumes with files written and removed, and what other tools take for the bytes in use of them."""

import contextlib
import os
import random
import re
import shutil
import subprocess
import time

from support import samples, tools

MIB = 1 << 20


def make(kind, path, size, *options):
    """Makes a file with an empty volume. kind: ntfs, fat12, fat16, fat32 or exfat."""
    with open(path, "xb") as volume:
        volume.truncate(size)
    if kind == "ntfs":
        samples.run("mkntfs", "-F", "-Q", "-q", "-L", "Windows", *options, path)
    elif kind == "exfat":
        samples.run("mkfs.exfat", *options, path)
    else:
        samples.run("mkfs.vfat", "-F", kind[3:], *options, path)


@contextlib.contextmanager
def mounted(kind, path, folder, options=""):
    """Mounts NTFS or exFAT by its driver in user space, which ends before the block does. That of exFAT takes block
    devices only."""
    driver = {"ntfs": "ntfs-3g", "exfat": "mount.exfat-fuse"}[kind]
    os.makedirs(folder, exist_ok=True)
    with tools.loop_device(path, 512) if kind == "exfat" else contextlib.nullcontext(path) as source:
        samples.run(driver, source, folder, *(["-o", options] if options else []))
        try:
            yield folder
        finally:
            samples.run("umount", folder)
            wait_until_closed(source)
            os.rmdir(folder)


def wait_until_closed(path):
    """The driver writes and closes the volume after the mount has gone."""
    for _ in range(200):
        if not any(has_open(process, path) for process in os.listdir("/proc") if process.isdigit()):
            return
        time.sleep(0.05)
    raise AssertionError(f"{path} is still open")


def has_open(process, path):
    with contextlib.suppress(OSError):
        folder = f"/proc/{process}/fd"
        return int(process) != os.getpid() and any(
            os.path.samefile(path, f"{folder}/{number}") for number in os.listdir(folder))
    return False


def write_files(folder, count, seed, largest=300_000):
    """Writes files of random sizes into a folder, then removes every third one."""
    choice = random.Random(seed)
    os.makedirs(os.path.join(folder, "Folder ä"), exist_ok=True)
    names = [os.path.join(folder, "Folder ä" if number % 2 else "", f"file {number}.bin") for number in range(count)]
    for name in names:
        with open(name, "wb") as file:
            file.write(choice.randbytes(choice.randrange(largest)))
    for name in names[::3]:
        os.unlink(name)


def fill_with_mtools(path, folder, count, seed):
    """Does the same to a FAT volume that is not mounted."""
    source = os.path.join(folder, "source")
    os.makedirs(source)
    choice = random.Random(seed)
    environment = {**os.environ, "MTOOLS_SKIP_CHECK": "1"}
    for number in range(count):
        name = os.path.join(source, f"file {number}.bin")
        with open(name, "wb") as file:
            file.write(choice.randbytes(choice.randrange(60_000)))
        subprocess.run(["mcopy", "-i", path, name, "::"], env=environment, check=True, capture_output=True)
    for number in range(0, count, 3):
        subprocess.run(["mdel", "-i", path, f"::file {number}.bin"], env=environment, check=True, capture_output=True)
    shutil.rmtree(source)


def by_partclone(kind, path, folder):
    """The ranges that partclone takes for used: [(offset, size)]."""
    target = os.path.join(folder, "partclone.map")
    tool = samples.tool("partclone." + ("fat" if kind.startswith("fat") else kind))
    subprocess.run([tool, "-q", "-D", "-s", path, "-O", target, "-L", os.path.join(folder, "partclone.log")],
                   check=True, capture_output=True)
    with open(target, encoding="ascii") as file:
        rows = re.findall(r"^0x([0-9A-F]+)\s+0x([0-9A-F]+)\s+\+$", file.read(), re.MULTILINE)
    os.unlink(target)
    return [(int(offset, 16), int(size, 16)) for offset, size in rows]


def without_overlaps(ranges):
    """The same bytes as sorted ranges that do not touch."""
    result = []
    for offset, size in sorted(ranges):
        if result and offset <= sum(result[-1]):
            first = result[-1][0]
            result[-1] = (first, max(sum(result[-1]), offset + size) - first)
        else:
            result.append((offset, size))
    return result
