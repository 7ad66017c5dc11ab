# SPDX-License-Identifier: Apache-2.0
"""Small disk images for tests, made with general disk tools as an ordinary user."""

import os
import shutil
import struct
import subprocess
from dataclasses import dataclass

from support import sparse

SECTOR = 512
EFI_SYSTEM = "EF00"
APPLE_APFS = "AF0A"
BASIC_DATA = "0700"

# The paths of Debian's packages syslinux-common and syslinux. The first existing file is used.
_SYSLINUX_MBR = ("/usr/lib/syslinux/mbr/mbr.bin", "/usr/lib/SYSLINUX/mbr.bin")
_SBIN = ("/usr/local/sbin", "/usr/sbin", "/sbin")


@dataclass(frozen=True)
class Slice:
    number: int
    first: int  # sector of 512 bytes
    sectors: int
    code: str  # sgdisk's code of a type
    name: str


def tool(name):
    """Path of a disk tool, even if an ordinary user's search path lacks sbin; None if it is not installed."""
    return shutil.which(name) or shutil.which(name, path=os.pathsep.join(_SBIN))


def syslinux_mbr():
    """Path of boot code that starts the active slot: BOOT_CODE or the installed syslinux; None without both."""
    for path in (os.environ.get("BOOT_CODE", ""), *_SYSLINUX_MBR):
        if os.path.isfile(path):
            return path
    return None


def run(*command):
    """Runs a tool that must succeed. On failure, the error has its output."""
    result = subprocess.run([tool(command[0]) or command[0], *command[1:]], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(command)} ended with {result.returncode}:\n{result.stdout}")
    return result.stdout


def make_disk(path, sectors, slices):
    """Makes a sparse disk image with a GPT and a protective MBR by sgdisk."""
    with open(path, "xb") as image:
        image.truncate(sectors * SECTOR)
    arguments = ["--set-alignment=1"]
    for part in slices:
        arguments += [f"--new={part.number}:{part.first}:{part.first + part.sectors - 1}",
                      f"--typecode={part.number}:{part.code}", f"--change-name={part.number}:{part.name}"]
    run("sgdisk", *arguments, path)


def put_boot_code(path):
    """
    Puts code that halts into the boot sectors of a volume by mkntfs or mkfs.vfat, whose own code only prints a message:
    `vorlix check` takes a volume with that for one that starts nothing.
    """
    with open(path, "r+b") as volume:
        boot = bytearray(volume.read(SECTOR))
        code = 2 + boot[1]  # where the jump at its beginning leads
        boot[code:510] = b"\xfa\xf4\xeb\xfd".ljust(510 - code, b"\0")  # cli; hlt; jmp to the hlt
        (sector,) = struct.unpack_from("<H", boot, 11)
        if boot[3:7] == b"NTFS":
            seconds = [volume.seek(0, os.SEEK_END) - sector]
        else:
            seconds = [6 * sector] if boot[82:87] == b"FAT32" else []
        for place in (0, *seconds):
            volume.seek(place)
            volume.write(boot)


def make_ntfs(path, sectors, label):
    """
    Makes a file with an empty NTFS volume with boot code. mkntfs gets no start sector, so the hidden-sectors field is 0.
    """
    with open(path, "xb") as volume:
        volume.truncate(sectors * SECTOR)
    run("mkntfs", "-F", "-Q", "-q", "-L", label, "-s", str(SECTOR), "-S", "63", "-H", "255", path)
    put_boot_code(path)


def place(image, volume, first):
    """Copies a volume's file into a disk image at a sector; zeros become holes."""
    sparse.put(volume, image, first * SECTOR)


def read(path, offset, count):
    with open(path, "rb") as image:
        image.seek(offset)
        return image.read(count)


def write(path, offset, content):
    with open(path, "r+b") as image:
        image.seek(offset)
        image.write(content)
