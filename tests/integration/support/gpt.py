# SPDX-License-Identifier: Apache-2.0
"""Writes GPTs and MBRs, and computes the hybrid MBR for a GPT.

This module shares no code with the library under test. Layouts follow the UEFI Specification 2.10, sections 5.2 and 5.3.
The rules of the hybrid MBR are stated here again, beside the code that applies them. Fields have the same widths as in
memory and on disk, because some rules concern numbers that do not fit.
"""

import dataclasses
import functools
import os
import struct
import uuid
import zlib

SECTOR = 512
BOOT_CODE_SIZE = 446
SLOT_OFFSET = 446
SLOT_SIZE = 16
ENTRY_SIZE = 128
HEADER_SIZE = 92
ACTIVE = 0x80

UNUSED = "00000000-0000-0000-0000-000000000000"
BASIC_DATA = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"
HFS_PLUS = "48465300-0000-11AA-AA11-00306543ECAC"
APFS = "7C3457EF-0000-11AA-AA11-00306543ECAC"
APPLE_RAID = "52414944-0000-11AA-AA11-00306543ECAC"
APPLE_BOOT = "426F6F74-0000-11AA-AA11-00306543ECAC"
EFI_SYSTEM = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B"
LINUX_LVM = "E6D6D379-F507-44C2-A23C-238F2A3DF928"
CORE_STORAGE = "53746F72-6167-11AA-AA11-00306543ECAC"
UFS = "55465300-0000-11AA-AA11-00306543ECAC"
LINUX = "0FC63DAF-8483-4772-8E79-3D69D8477DE4"

# MBR type by GPT type. UFS is missing: unless a host asks for its type 0xA8, it becomes 0, like any unknown type.
MBR_TYPES = {
    BASIC_DATA: 0x07,
    HFS_PLUS: 0xAF,
    APFS: 0xFF,
    APPLE_RAID: 0xAB,
    APPLE_BOOT: 0xAB,
    EFI_SYSTEM: 0xEE,
    LINUX_LVM: 0x8E,
    CORE_STORAGE: 0xAC,
}


@functools.lru_cache(maxsize=1 << 12)
def guid_bytes(text):
    """The on-disk bytes of a GUID: three little-endian groups, then two big-endian ones."""
    return uuid.UUID(text).bytes_le


def guid_text(data):
    return str(uuid.UUID(bytes_le=bytes(data))).upper()


# ----------------------------------------------------------------------------------------------------------- the MBR


def low32(value):
    return value & 0xFFFFFFFF


def signed32(value):
    value = low32(value)
    return value - (1 << 32) if value >= 1 << 31 else value


def truncated_quotient(dividend, divisor):
    """Integer division that rounds towards zero, as in C."""
    quotient = abs(dividend) // abs(divisor)
    return quotient if (dividend < 0) == (divisor < 0) else -quotient


def chs(lba):
    """Cylinder, head and sector of a signed 32-bit sector number with 255 heads and 63 sectors.

    A cylinder above 1023 becomes 1023; head and sector stay. The results for a negative number are not limited.
    """
    cylinder = truncated_quotient(lba, 255 * 63)
    rest = lba - cylinder * 255 * 63
    head = truncated_quotient(rest, 63)
    sector = rest - 63 * head + 1
    if lba >= 1024 * 255 * 63:
        cylinder = 1023
    return cylinder, head, sector


@dataclasses.dataclass(frozen=True)
class Slot:
    """One slot of an MBR as a record: 8 bits for flag, type, heads and sectors, 16 for cylinders, 32 for the rest."""

    flag: int = 0
    type: int = 0
    lba: int = 0
    size: int = 0
    start: tuple = (0, 0, 0)  # cylinder, head, sector
    end: tuple = (0, 0, 0)

    def encode(self):
        return (
            bytes([self.flag])
            + encode_chs(self.start)
            + bytes([self.type])
            + encode_chs(self.end)
            + struct.pack("<II", self.lba, self.size)
        )


def stored_chs(place):
    """A cylinder, head and sector truncated to the widths of the record."""
    cylinder, head, sector = place
    return cylinder & 0xFFFF, head & 0xFF, sector & 0xFF


def encode_chs(place):
    """Three bytes: head; sector ORed with the cylinder's bits 8 and 9; the cylinder's low 8 bits. The sector is not
    masked."""
    cylinder, head, sector = place
    return bytes([head, (sector | (cylinder >> 2) & 0xC0) & 0xFF, cylinder & 0xFF])


def decode_chs(data):
    head, low, high = data
    return high | (low & 0xC0) << 2, head, low & 63


def decode_slot(data):
    lba, size = struct.unpack("<II", data[8:16])
    return Slot(data[0], data[4], lba, size, decode_chs(data[1:4]), decode_chs(data[5:8]))


def slots_of(sector):
    return [decode_slot(sector[at : at + SLOT_SIZE]) for at in range(SLOT_OFFSET, SLOT_OFFSET + 4 * SLOT_SIZE, SLOT_SIZE)]


def active_slot(slots):
    """The last slot whose flag is exactly 0x80; 0 if there is none."""
    return max((number for number, slot in enumerate(slots, 1) if slot.flag == ACTIVE), default=0)


def slot_for(entry, is_active):
    """The slot that mirrors a GPT entry. The EFI System Partition becomes the protective entry, from LBA 1 to its end."""
    if entry is None or entry.type == UNUSED:
        return Slot()
    lba, size, start = low32(entry.first), low32(entry.last - entry.first + 1), entry.first
    if entry.type == EFI_SYSTEM:
        lba, size, start = 1, low32(entry.last), 1
    return Slot(
        ACTIVE if is_active else 0,
        MBR_TYPES.get(entry.type, 0),
        lba,
        size,
        stored_chs(chs(signed32(start))),
        stored_chs(chs(signed32(entry.last))),
    )


def hybrid_slots(entries, active, type_override=None):
    """The four slots of the hybrid MBR for a GPT.

    entries: list whose item k is entry k + 1 or None; only the first four count. active: number of the active slot.
    type_override: the type of the slot `active`; by default it follows from the entry.
    """
    first_four = (list(entries) + [None] * 4)[:4]
    slots = [slot_for(entry, number == active) for number, entry in enumerate(first_four, 1)]
    if type_override:
        slots[active - 1] = dataclasses.replace(slots[active - 1], type=type_override)
    return slots


def guard_slots(entries, last_usable):
    """A guard MBR: slot 1 keeps type and first LBA, its start and end CHS are 1023/254/63, and it covers the disk."""
    first = hybrid_slots(entries, 0)[0]
    beyond = (1023, 254, 63)
    return [dataclasses.replace(first, flag=0, start=beyond, end=beyond, size=low32(last_usable + 33)), Slot(), Slot(), Slot()]


def sector0(boot_code, slots):
    """512 bytes: the first 446 bytes of the boot code, padded with zeros; the slots; 55 AA."""
    return boot_code[:BOOT_CODE_SIZE].ljust(BOOT_CODE_SIZE, b"\0") + b"".join(slot.encode() for slot in slots) + b"\x55\xAA"


def protective_sector0(blocks):
    """The protective MBR that a partitioning tool writes with a GPT."""
    slot = Slot(0, 0xEE, 1, min(blocks - 1, 0xFFFFFFFF), (0, 0, 2), (1023, 255, 63))
    return sector0(b"", [slot, Slot(), Slot(), Slot()])


# ----------------------------------------------------------------------------------------------------------- the GPT


@dataclasses.dataclass
class Entry:
    type: str
    first: int
    last: int
    unique: str = UNUSED
    attributes: int = 0
    name: str = ""

    def encode(self):
        name = self.name.encode("utf-16-le", "surrogatepass")
        assert len(name) <= 72
        return (
            guid_bytes(self.type)
            + guid_bytes(self.unique)
            + struct.pack("<QQQ", self.first, self.last, self.attributes)
            + name.ljust(72, b"\0")
        )


@dataclasses.dataclass
class Table:
    """A GPT and the size of its disk. Item k of `entries` is entry k + 1, or None if that is unused."""

    block_size: int = 512
    blocks: int = 131072
    entries: list = dataclasses.field(default_factory=list)
    count: int = 128
    entry_lba: int = 2
    disk_guid: str = "A50D3F86-0A2D-4A8B-B1C5-6F7E8D9C0B1A"
    claimed_count: int = None  # the count in the header, if it differs from `count`
    claimed_entry_lba: int = None

    @property
    def table_blocks(self):
        return -(-self.count * ENTRY_SIZE // self.block_size)

    @property
    def first_usable(self):
        return self.entry_lba + self.table_blocks

    @property
    def last_usable(self):
        return self.blocks - 2 - self.table_blocks

    def header(self, my_lba, alternate_lba, entry_lba, table=None):
        checksum = zlib.crc32(self.table_bytes() if table is None else table)
        count = self.count if self.claimed_count is None else self.claimed_count

        def with_checksum(value):
            return struct.pack(
                "<8sIIIIQQQQ16sQIII",
                b"EFI PART",
                0x00010000,
                HEADER_SIZE,
                value,
                0,
                my_lba,
                alternate_lba,
                self.first_usable,
                self.last_usable,
                guid_bytes(self.disk_guid),
                entry_lba,
                count,
                ENTRY_SIZE,
                checksum,
            )

        return with_checksum(zlib.crc32(with_checksum(0)))

    def table_bytes(self):
        unused = bytes(ENTRY_SIZE)
        used = b"".join([entry.encode() if entry else unused for entry in self.entries])
        assert len(used) <= self.count * ENTRY_SIZE
        return used.ljust(self.count * ENTRY_SIZE, b"\0")

    def write(self, path, mbr=None):
        """Writes a sparse disk-image file: MBR (by default a protective one), GPT and the backup GPT."""
        table = self.table_bytes()
        claimed = self.entry_lba if self.claimed_entry_lba is None else self.claimed_entry_lba
        last = self.blocks - 1
        with open(path, "wb") as file:
            file.truncate(self.blocks * self.block_size)
            file.write(mbr or protective_sector0(self.blocks))
            file.seek(self.block_size)
            file.write(self.header(1, last, claimed, table))
            for at in (self.entry_lba * self.block_size, (last - self.table_blocks) * self.block_size):
                file.seek(at)
                file.write(table.rstrip(b"\0"))
            file.seek(last * self.block_size)
            file.write(self.header(last, 1, last - self.table_blocks, table))
        return path


def write_at(path, offset, data):
    """Replaces bytes of a file without changing its size."""
    descriptor = os.open(path, os.O_WRONLY)
    try:
        if os.pwrite(descriptor, data, offset) != len(data):
            raise OSError(f"{path}: short write")
    finally:
        os.close(descriptor)


def read_at(path, offset, count):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        return os.pread(descriptor, count, offset)
    finally:
        os.close(descriptor)
