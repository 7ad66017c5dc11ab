# SPDX-License-Identifier: Apache-2.0
"""
The guest's disks: image files that general tools make on the host.

    vda  a Mac disk: EFI, HFS+, Windows (NTFS), exFAT and FAT volumes
    vdb  another: EFI and a smaller Windows volume
    vdc  a read-only disk: an EFI and a Windows volume
    vdd  a PC's disk: EFI, Windows and its boot partition (NTFS), Linux (ext4) and an installer (FAT)
    vde  an older PC's disk, with an MBR: Windows (exFAT) and its boot partition (NTFS)

The registry hives of Windows are also made on the host, in files beside the disks.
"""

import os
from dataclasses import dataclass

from support import hives, images, samples
from support.samples import Slice

APPLE_HFS_PLUS = "AF00"
LINUX = "8300"
_HFS_PLUS_SECTORS = 8192

MAC = (Slice(1, 40, 16384, samples.EFI_SYSTEM, "EFI System Partition"),
       Slice(2, 16424, _HFS_PLUS_SECTORS, APPLE_HFS_PLUS, "Macintosh HD"),
       Slice(3, 24616, 24576, samples.BASIC_DATA, "BOOTCAMP"),
       Slice(4, 49192, 16384, samples.BASIC_DATA, "Exchange"),
       Slice(5, 65576, 16384, samples.BASIC_DATA, "Data"))
SECOND = (Slice(1, 40, 69632, samples.EFI_SYSTEM, "EFI System Partition"),
          Slice(2, 69672, 16384, samples.BASIC_DATA, "Windows"))
LOCKED = (Slice(1, 40, 16384, samples.EFI_SYSTEM, "EFI System Partition"),
          Slice(2, 16424, 16384, samples.BASIC_DATA, "Windows"))
PC = (Slice(1, 40, 16384, samples.EFI_SYSTEM, "EFI System Partition"),
      Slice(2, 16424, 16384, samples.BASIC_DATA, "Boot partition"),
      Slice(3, 32808, 24576, samples.BASIC_DATA, "Windows"),
      Slice(4, 57384, 8192, LINUX, "Linux"),
      Slice(5, 65576, 16384, samples.BASIC_DATA, "Installer"))
OLD_PC = (Slice(1, 2048, 16384, "7", ""),
          Slice(2, 18432, 16384, "7", ""))

BOOT_PARTITION_LABEL = "System Reserved"
PC_LABELS = ("EFI", BOOT_PARTITION_LABEL, "Zoë's Windows – groß", "Größe", "ESD-USB")
OLD_PC_LABELS = (BOOT_PARTITION_LABEL, "Old PC")

HFS_PLUS_FILE = "hello.txt"
HFS_PLUS_TEXT = "from the HFS+ volume\n"


@dataclass(frozen=True)
class ScratchDisk:
    path: str
    read_only: bool = False


def _make_fat(path, sectors, bits, label):
    with open(path, "xb") as volume:
        volume.truncate(sectors * samples.SECTOR)
    samples.run("mkfs.vfat", "-F", str(bits), "-s", "1", "-n", label, path)


def _make_exfat(path, sectors, label):
    with open(path, "xb") as volume:
        volume.truncate(sectors * samples.SECTOR)
    samples.run("mkfs.exfat", "-L", label, path)


def _make_ext4(path, sectors, label):
    with open(path, "xb") as volume:
        volume.truncate(sectors * samples.SECTOR)
    samples.run("mkfs.ext4", "-q", "-F", "-L", label, path)


def _make_mbr_disk(path, sectors, slices):
    """Makes a sparse disk image with an MBR. Its first slice is active."""
    with open(path, "xb") as image:
        image.truncate(sectors * samples.SECTOR)
    lines = [f"start={part.first}, size={part.sectors}, type={part.code}" for part in slices]
    lines[0] += ", bootable"
    images.run_tool("sfdisk", "--quiet", path, stdin="\n".join(["label: dos", *lines, ""]))


class _AppleMap:
    """The Apple partition map that xorriso writes, in blocks of 2048 bytes."""

    BLOCK = 2048

    def __init__(self, path):
        self._path = path

    def hfs_plus(self):
        """Returns the bytes of the partition of type Apple_HFS."""
        with open(self._path, "rb") as image:
            number, count = 1, 1
            while number <= count:
                image.seek(number * self.BLOCK)
                entry = image.read(512)
                if entry[:2] != b"PM":
                    break
                count, first, blocks = (int.from_bytes(entry[at:at + 4], "big") for at in (4, 8, 12))
                if entry[48:80].rstrip(b"\0") == b"Apple_HFS":
                    image.seek(first * self.BLOCK)
                    return image.read(blocks * self.BLOCK)
                number += 1
        raise AssertionError("xorriso made no Apple_HFS partition")


def _make_hfs_plus(path, sectors, folder):
    """
    Makes an HFS+ volume with one file and a filler file. The distribution has no mkfs for HFS+, but xorriso makes such
    volumes for hybrid CD images, locked and without free blocks. The volume's second header must be at the end of the
    partition, so the filler takes the rest of the partition. A first volume with an empty filler shows its size.
    """
    content = os.path.join(folder, "content")
    os.mkdir(content)
    with open(os.path.join(content, HFS_PLUS_FILE), "w", encoding="ascii") as file:
        file.write(HFS_PLUS_TEXT)
    filler = os.path.join(content, "filler")
    size = 0
    for _ in range(2):
        with open(filler, "wb") as file:
            file.truncate(size)
        image = os.path.join(folder, "hybrid.iso")
        samples.run("xorriso", "-as", "mkisofs", "-hfsplus", "-apm-block-size", str(_AppleMap.BLOCK), "-V", "MACVOLUME",
                    "-o", image, content)
        volume = _AppleMap(image).hfs_plus()
        os.remove(image)
        size = sectors * samples.SECTOR - len(volume)
    if size != 0:
        raise AssertionError(f"the HFS+ volume is {size} bytes short of its partition")
    with open(path, "xb") as file:
        file.write(volume)


def _place(disk, part, volume):
    samples.place(disk, volume, part.first)
    os.remove(volume)


def _make_pcs(pc, old_pc, volume):
    samples.make_disk(pc, 82000, PC)
    _make_fat(volume, PC[0].sectors, 16, PC_LABELS[0])
    _place(pc, PC[0], volume)
    for number in (1, 2):
        samples.make_ntfs(volume, PC[number].sectors, PC_LABELS[number])
        _place(pc, PC[number], volume)
    _make_ext4(volume, PC[3].sectors, PC_LABELS[3])
    _place(pc, PC[3], volume)
    _make_fat(volume, PC[4].sectors, 16, PC_LABELS[4])
    _place(pc, PC[4], volume)

    _make_mbr_disk(old_pc, 34816, OLD_PC)
    samples.make_ntfs(volume, OLD_PC[0].sectors, OLD_PC_LABELS[0])
    _place(old_pc, OLD_PC[0], volume)
    _make_exfat(volume, OLD_PC[1].sectors, OLD_PC_LABELS[1])
    _place(old_pc, OLD_PC[1], volume)


def _make_hives(folder):
    """Makes one SOFTWARE hive for each release of Windows. Returns their paths by release."""
    os.mkdir(folder)
    return {release: hives.make_software_hive(os.path.join(folder, release), values)
            for release, values in hives.RELEASES.items()}


def make_disks(folder):
    """
    Makes the disks in `folder`. Returns them, and notes for the tests: what could not be made with the reason, and the
    paths of the hives.
    """
    notes = {}
    mac, second, locked = (os.path.join(folder, name) for name in ("mac.img", "second.img", "locked.img"))
    volume = os.path.join(folder, "volume")

    samples.make_disk(mac, 82000, MAC)
    _make_fat(volume, MAC[0].sectors, 16, "EFI")
    _place(mac, MAC[0], volume)
    if samples.tool("xorriso"):
        _make_hfs_plus(volume, MAC[1].sectors, folder)
        _place(mac, MAC[1], volume)
    else:
        notes["noHFSPlus"] = "no HFS+ volume was made: xorriso is not installed"
    samples.make_ntfs(volume, MAC[2].sectors, "BOOTCAMP")
    _place(mac, MAC[2], volume)
    _make_exfat(volume, MAC[3].sectors, "EXCHANGE")
    _place(mac, MAC[3], volume)
    _make_fat(volume, MAC[4].sectors, 16, "DATA")
    _place(mac, MAC[4], volume)

    samples.make_disk(second, 86100, SECOND)
    _make_fat(volume, SECOND[0].sectors, 32, "EFI")
    _place(second, SECOND[0], volume)
    samples.make_ntfs(volume, SECOND[1].sectors, "WINDOWS")
    _place(second, SECOND[1], volume)

    samples.make_disk(locked, 32900, LOCKED)
    _make_fat(volume, LOCKED[0].sectors, 16, "LOCKED")
    samples.run("mcopy", "-i", volume, __file__, "::/disks.py")
    _place(locked, LOCKED[0], volume)
    samples.make_ntfs(volume, LOCKED[1].sectors, "LOCKED")
    _place(locked, LOCKED[1], volume)

    pc, old_pc = os.path.join(folder, "pc.img"), os.path.join(folder, "old-pc.img")
    _make_pcs(pc, old_pc, volume)
    absent = [name for name in hives.NEEDED if samples.tool(name) is None]
    if absent:
        notes["noHives"] = f"no registry hives were made: {', '.join(absent)} not installed"
    else:
        notes["hives"] = _make_hives(os.path.join(folder, "hives"))
    return (ScratchDisk(mac), ScratchDisk(second), ScratchDisk(locked, read_only=True), ScratchDisk(pc),
            ScratchDisk(old_pc)), notes


def missing_tools():
    """The names of missing tools that are needed to make the disks."""
    needed = ("sgdisk", "sfdisk", "mkfs.vfat", "mkntfs", "mkfs.exfat", "mkfs.ext4", "mcopy")
    return [name for name in needed if samples.tool(name) is None]
