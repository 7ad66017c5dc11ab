# SPDX-License-Identifier: Apache-2.0
"""
Boot configuration stores with given objects, which hivex's shell writes, and their elements as hivex reads them.

The layouts are those of published descriptions and public example stores, which docs/boot-store.md names.
"""

import base64
import struct
import uuid
from xml.etree import ElementTree

from support import hive, hives, images

NEEDED = "hivexsh", "hivexget", "hivexml"

MANAGER = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}"
MEMORY_TESTER = "{b2721d73-1db4-4c62-bf78-c548a880142d}"
LOADER = "{11111111-2222-3333-4444-555555555555}"
RESUME = "{11111111-2222-3333-4444-666666666666}"
RAM_LOADER = "{11111111-2222-3333-4444-777777777777}"
RAM_OPTIONS = "{7619dcc8-fafe-11d9-b411-000476eba25f}"

TYPE_MANAGER = 0x10100002
TYPE_LOADER = 0x10200003
TYPE_RESUME = 0x10200004
TYPE_MEMORY_TESTER = 0x10200005
TYPE_DEVICE = 0x30000000

DEVICE = 0x11000001
OS_DEVICE = 0x21000001
SDI_DEVICE = 0x31000003


def gpt_device(partition=bytes([1] * 16), disk=bytes([2] * 16)):
    return hive.device_element(partition, disk)


def mbr_device(offset=1 << 20, signature=0x12345678):
    return hive.device_element(struct.pack("<QQ", offset, 0), struct.pack("<IIQ", signature, 0, 0), mbr=True)


def file_path(parent, path):
    """The path of a file on the partition of a device element."""
    text = hives.utf16(path)
    return struct.pack("<III", 1, 12 + 72 + len(text), 5) + parent[16:] + text


def ram_disk(parent, path="\\sources\\boot.wim", options=RAM_OPTIONS):
    """A RAM disk that is read from a file."""
    body = struct.pack("<I20x", 3) + file_path(parent, path)
    return uuid.UUID(options).bytes_le + struct.pack("<IIII", 0, 1, 16 + len(body), 0) + body


def virtual_disk(parent, path="\\disk.vhd", inner=bytes([7] * 16)):
    """A GPT partition in a virtual disk, which is a file."""
    text = struct.pack("<I", 5) + file_path(parent, path)
    disk = struct.pack("<IIII", 0, 0, 16 + len(text), 0) + text
    body = inner + struct.pack("<II", 6, 0) + bytes([8] * 16) + disk
    return bytes(16) + struct.pack("<IIII", 6, 0, 16 + len(body), 0) + body


def boot_device():
    """The device that the boot manager was started from; it names no partition."""
    return bytes(16) + struct.pack("<IIII", 5, 0, 0x48, 0) + bytes(56)


def make_store(path, objects):
    """Makes a store. objects: {GUID: (type, {element: value as in hives.py})}. Returns its path."""
    keys = {"Description": {"KeyName": "BCD00000000", "System": 1}}
    for name, (kind, elements) in objects.items():
        keys[f"Objects/{name}/Description"] = {"Type": kind}
        for element, value in elements.items():
            keys[f"Objects/{name}/Elements/{element:08x}"] = {"Element": value}
        if not elements:
            keys[f"Objects/{name}/Elements"] = {}
    return hives.make_hive(path, keys)


def read_store(path):
    """Reads a store with hivex's own tool. Returns {GUID: (type, {element: value as in hives.py})}."""
    root = ElementTree.fromstring(images.run_tool("hivexml", path)).find("node")
    objects = {}
    for node in child(root, "Objects").findall("node"):
        kind = value_of(child(node, "Description").find("value")) & 0xFFFFFFFF
        elements = {int(one.get("name"), 16): value_of(one.find("value")) for one in child(node, "Elements").findall("node")}
        objects[node.get("name").lower()] = kind, elements
    return objects


def child(node, name):
    return next(one for one in node.findall("node") if one.get("name") == name)


def value_of(node):
    kind = node.get("type")
    if kind == "binary":
        return base64.b64decode(node.get("value"))
    if kind == "int32":
        return int(node.get("value"))
    if kind == "string-list":
        return [one.text for one in node.findall("string") if one.text]
    assert kind == "string", kind
    return node.get("value")
