# SPDX-License-Identifier: Apache-2.0
"""
Registry hives, the format of boot configuration stores, with given cells at given places.

The layout follows the hivex library's documentation and the Windows registry file format specification (Suhanov): a base
block of 4096 bytes, then bins of whole pages. Bins consist of cells. A cell's size is a multiple of 8 bytes; the cell
starts with it, negative if the cell is in use. Offsets within a hive count from the end of the base block.
"""

import struct

PAGE = 4096
BIN_HEADER = 32
NONE = 0xFFFFFFFF
REG_BINARY = 3

DEVICE_ELEMENT_SIZE = 88
PARTITION_IN_ELEMENT = 0x20
DISK_IN_ELEMENT = 0x38


def device_element(partition=bytes(16), disk=bytes(16), mbr=False):
    """The data of a device element: a partition, identified by its GUID and its disk's GUID."""
    return (
        bytes(16)
        + struct.pack("<IIII", 6, 0, 0x48, 0)  # type: partition; flags: none; length from the type on
        + partition
        + struct.pack("<II", 0, int(mbr))
        + disk
        + bytes(16)
    )


# File offsets of the partition GUID in the device elements of a store. The disk's GUID follows 24 bytes later.
ELEMENTS = {
    "standard": (10492, 10740, 5828 - 24, 7900 - 24, 9372 - 24),
    "mdt": (8792, 10200, 14124, 11908),
    "sccm": (8424, 9872, 11660 - 24, 19284 - 24),
}


def checksum(base_block):
    """The checksum of a base block's first 508 bytes."""
    result = 0
    for word in struct.unpack_from("<127I", base_block):
        result ^= word
    return result


def prepared_store(content, *modes):
    """Adds the headers of a hive, and a partition's descriptor at every place of the modes.

    The result has no keys. It serves tests of code that looks at places and headers only.
    """
    content = bytearray(content)
    for mode in modes:
        for place in ELEMENTS[mode]:
            element = device_element(bytes([1] * 16), bytes([2] * 16))
            start = place - PARTITION_IN_ELEMENT
            content[start : start + len(element)] = element
    content[:4] = b"regf"
    struct.pack_into("<I", content, 0x28, len(content) // PAGE * PAGE - PAGE)
    content[PAGE : PAGE + 4] = b"hbin"
    struct.pack_into("<I", content, 508, checksum(content))
    return bytes(content)


class Hive:
    """A hive under construction. Each cell follows the last one, except for data with a given file offset."""

    def __init__(self, size, first_free):
        self.bytes = bytearray(size)
        self.next = first_free
        self.taken = []  # (offset, length) of cells, from the start of the file
        self.keys = 0
        # All keys share one security descriptor, without owner and rules. The list of descriptors is circular, so it is
        # its own neighbour.
        descriptor = struct.pack("<BBHIIII", 1, 0, 0x8000, 0, 0, 0, 0)
        self.security = self.cell(struct.pack("<2sHIIII", b"sk", 0, 0, 0, 0, len(descriptor)) + descriptor)

    def cell(self, data, data_offset=None):
        """Adds a cell and returns its offset within the hive. data_offset: the wanted file offset of its data."""
        length = -(-(len(data) + 4) // 8) * 8
        if data_offset is None:
            at = self.next
            self.next += length
        else:
            at = data_offset - 4
        assert at % 8 == 0 and at + length <= len(self.bytes)
        struct.pack_into("<i", self.bytes, at, -length)
        self.bytes[at + 4 : at + 4 + len(data)] = data
        self.taken.append((at, length))
        return at - PAGE

    def value(self, name, data, data_offset=None):
        where = self.cell(data, data_offset)
        text = name.encode("ascii")
        return self.cell(struct.pack("<2sHIIIHH", b"vk", len(text), len(data), where, REG_BINARY, 1, 0) + text)

    def key(self, name, children=(), values=(), root=False):
        """Adds a key. children: (name, offset) of keys, sorted by name; sets their parent to this key."""
        text = name.encode("ascii")
        lists = NONE, NONE
        if children:
            entries = b"".join(struct.pack("<I4s", offset, child[:4].encode()) for child, offset in children)
            lists = self.cell(struct.pack("<2sH", b"lf", len(children)) + entries), lists[1]
        if values:
            lists = lists[0], self.cell(struct.pack(f"<{len(values)}I", *values))
        flags = 0x2C if root else 0x20
        at = self.cell(
            struct.pack("<2sHQIIIIIIIIIIIIIIIHH", b"nk", flags, 0, 0, NONE, len(children), 0, lists[0], NONE, len(values),
                        lists[1], self.security, NONE, 64, 0, 32, 128, 0, len(text), 0) + text)
        self.keys += 1
        for _, child in children:
            struct.pack_into("<I", self.bytes, PAGE + child + 4 + 16, at)
        return at

    def finish(self, root):
        """Returns the hive with its headers, and with free cells between those in use."""
        struct.pack_into("<III", self.bytes, PAGE + self.security + 8, self.security, self.security, self.keys)
        struct.pack_into("<4sIIQ", self.bytes, PAGE, b"hbin", 0, len(self.bytes) - PAGE, 0)
        free = PAGE + BIN_HEADER
        for at, length in sorted(self.taken) + [(len(self.bytes), 0)]:
            assert at >= free
            if at > free:
                struct.pack_into("<i", self.bytes, free, at - free)
            free = at + length
        struct.pack_into("<4sIIQIIIIIII", self.bytes, 0, b"regf", 1, 1, 0, 1, 5, 0, 1, root, len(self.bytes) - PAGE, 1)
        struct.pack_into("<I", self.bytes, 508, checksum(self.bytes))
        return bytes(self.bytes)


def empty_hive():
    """A hive with an empty root key."""
    hive = Hive(2 * PAGE, PAGE + BIN_HEADER)
    return hive.finish(hive.key("root", root=True))


def store_with_elements(places, size=5 * PAGE):
    """A store with one object whose device elements, 11000001 and up, have their data at the given file offsets."""
    hive = Hive(size, max(places) + 96 - 4)
    keys = []
    for number, place in enumerate(places, 1):
        name = f"{0x11000000 + number:08x}"
        keys.append((name, hive.key(name, values=[hive.value("Element", device_element(), place)])))
    elements = hive.key("Elements", keys)
    boot_manager = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}"
    objects = hive.key("Objects", [(boot_manager, hive.key(boot_manager, [("Elements", elements)]))])
    return hive.finish(hive.key("root", [("Objects", objects)], root=True))


def store_naming(*devices, mbr=False):
    """A store with device elements for these (partition, disk) identifiers."""
    places = [8224 + 96 * number + 4 for number in range(len(devices))]
    content = bytearray(store_with_elements(places)) if devices else bytearray(empty_hive())
    for place, (partition, disk) in zip(places, devices):
        element = device_element(partition, disk, mbr)
        content[place:place + len(element)] = element
    return bytes(content)
