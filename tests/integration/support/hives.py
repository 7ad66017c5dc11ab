# SPDX-License-Identifier: Apache-2.0
"""
Registry hives with given keys and values, which hivex's shell writes into an empty hive.

Python's types stand for types of values: str for REG_SZ, int for REG_DWORD, list of str for REG_MULTI_SZ, bytes for
REG_BINARY, a pair (type, bytes) for any other type.
"""

import os
import struct
import sys
import unittest

from support import hive, images

NEEDED = "hivexsh", "hivexget"

REG_NONE = 0
REG_SZ = 1
REG_EXPAND_SZ = 2
REG_BINARY = 3
REG_DWORD = 4
REG_DWORD_BIG_ENDIAN = 5
REG_LINK = 6
REG_MULTI_SZ = 7
REG_QWORD = 11

CURRENT_VERSION = "Microsoft/Windows NT/CurrentVersion"

# The values under CURRENT_VERSION of Windows releases. Windows 11 has the product name of Windows 10.
RELEASES = {
    "Windows 7": {
        "ProductName": "Windows 7 Professional",
        "EditionID": "Professional",
        "BuildLabEx": "7601.17514.amd64fre.win7sp1_rtm.101119-1850",
        "CurrentBuildNumber": "7601",
    },
    "Windows 8.1": {
        "ProductName": "Windows 8.1 Pro",
        "EditionID": "Professional",
        "BuildLabEx": "9600.17415.amd64fre.winblue_r4.141028-1500",
        "CurrentBuildNumber": "9600",
    },
    "Windows 10": {
        "ProductName": "Windows 10 Pro",
        "EditionID": "Professional",
        "BuildLabEx": "19041.1.amd64fre.vb_release.191206-1406",
        "CurrentBuildNumber": "19045",
    },
    "Windows 11": {
        "ProductName": "Windows 10 Home",
        "EditionID": "Core",
        "BuildLabEx": "22621.1.amd64fre.ni_release.220506-1250",
        "CurrentBuildNumber": "22631",
    },
    "Windows Server 2012 R2": {
        "ProductName": "Windows Server 2012 R2 Standard",
        "EditionID": "ServerStandard",
        "BuildLabEx": "9600.17415.amd64fre.winblue_r4.141028-1500",
        "CurrentBuildNumber": "9600",
    },
}


def companion(vorlix):
    """The program with which the command line reads hives. Skips the tests if the build may lack it."""
    program = os.path.join(os.path.dirname(vorlix), "tools", "bin", "registry_lookup")
    if not os.path.exists(program):
        reason = "registry_lookup is not built"
        if sys.platform == "darwin":  # the build may lack hivex there
            raise unittest.SkipTest(reason)
        raise RuntimeError(reason)
    return program


def utf16(text):
    """The registry's bytes of a string, with its NUL."""
    return (text + "\0").encode("utf-16-le")


def typed(value):
    """A value as (type, bytes)."""
    if isinstance(value, tuple):
        return value
    if isinstance(value, str):
        return REG_SZ, utf16(value)
    if isinstance(value, int):
        return REG_DWORD, struct.pack("<I", value)
    if isinstance(value, list):
        return REG_MULTI_SZ, b"".join(map(utf16, value)) + bytes(2)
    return REG_BINARY, value


def add_keys(path, keys):
    """Adds keys to a hive. keys: {path of a new key, with "/": {name of a value, "" for the default one: value}}."""
    made = set()
    script = []
    for key, values in keys.items():
        steps = key.split("/")
        for depth, step in enumerate(steps, 1):
            if tuple(steps[:depth]) not in made:
                script.append(f"add {step}")
                made.add(tuple(steps[:depth]))
            script.append(f"cd {step}")
        script.append(f"setval {len(values)}")
        for name, value in values.items():
            kind, data = typed(value)
            script += [name or "@", f"hex:{kind}:{data.hex()}"]
        script += ["cd .."] * len(steps)
    result = images.run_tool("hivexsh", "-w", path, stdin="\n".join([*script, "commit", ""]))
    assert result == "", result


def make_hive(path, keys):
    """Makes a hive with the keys that add_keys() takes. Returns its path."""
    with open(path, "wb") as file:
        file.write(hive.empty_hive())
    add_keys(path, keys)
    return path


def make_software_hive(path, values):
    """Makes a SOFTWARE hive whose CURRENT_VERSION has the values {name: value}. Returns its path."""
    return make_hive(path, {CURRENT_VERSION: values})


def with_checksum(content):
    """The bytes of a changed hive, with a valid checksum in its header."""
    content = bytearray(content)
    checksum = 0
    for word in struct.unpack_from("<127I", content):
        checksum ^= word
    struct.pack_into("<I", content, 508, checksum)
    return bytes(content)


def with_filler(content, size):
    """The bytes of a hive, with added bins of used cells that make it at least `size` bytes long."""
    cells = struct.pack("<i76s", -80, b"nk") * 50
    rest = hive.PAGE - hive.BIN_HEADER - len(cells)
    page = cells + struct.pack("<i", rest) + bytes(rest - 4)
    offset = len(content) - hive.PAGE
    count = max(0, -(-(size - len(content)) // hive.PAGE))
    bins = (
        struct.pack("<4sIIQQI", b"hbin", offset + number * hive.PAGE, hive.PAGE, 0, 0, 0) + page
        for number in range(count)
    )
    content = bytearray(content + b"".join(bins))
    struct.pack_into("<I", content, 40, len(content) - hive.PAGE)
    return with_checksum(content)
