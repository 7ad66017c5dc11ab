#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recreates the seeds of ArchiveFuzz with the tests' archive writer, and damaged ones by hand. Runs from any folder. Does
not touch inputs that a search found."""

import pathlib
import plistlib
import sys
import uuid

HERE = pathlib.Path(__file__).resolve().parent
CORPUS = HERE / "corpus/ArchiveFuzz"
sys.path.insert(0, str(HERE.parent / "tests/integration"))
from support.keyed_archive import FileURL, Growable, Inline, Styled, Writer  # noqa: E402

UID = plistlib.UID
FULL = {
    "mbr": Growable(b"\x33\xc0"), "partitionID": Growable("id"), "filePath": "/a", "device": "/dev/d", "drivePath": "\u2603",
    "info": Growable(""), "diskName": "D", "isVM": Inline(True), "vmUsername": "u", "vmPassword": "cA==",
    "usageDescription": Styled("ab", ((1, {"F": "x"}), (1, {"N": 1, "D": b"\x00", "U": uuid.UUID(int=1),
                                                           "L": FileURL("/a b"), "M": {"B": True}}))),
    "humanSize": "1", "freeSpace": "2", "totalSize": "3", "volumeType": "disk", "MVMapName": "ntfs", "isBootable": True,
    "isRemovable": 2, "volumeUUID": uuid.UUID(int=2), "mediaUUID": uuid.UUID(int=3), "mediaContentUUID": uuid.UUID(int=4),
}


def changed(entries, change):
    """An archive, modified by `change(objects, root)`."""
    top = plistlib.loads(Writer().record("QDVolume", entries))
    change(top["$objects"], top["$objects"][1])
    return plistlib.dumps(top, fmt=plistlib.FMT_BINARY, sort_keys=False)


def folded(levels, width):
    """A property list of `levels` nested arrays; each refers `width` times to the one before."""
    values = [b"\x09"] + [bytes([0xA0 | width]) + bytes([level] * width) for level in range(levels)]
    file = b"bplist00"
    offsets = b""
    for value in values:
        offsets += len(file).to_bytes(2, "big")
        file += value
    trailer = bytes(6) + b"\x02\x01" + b"".join(number.to_bytes(8, "big") for number in (len(values), levels, len(file)))
    return file + offsets + trailer


def main():
    """Writes one file per seed."""
    CORPUS.mkdir(parents=True, exist_ok=True)
    full = Writer().record("QDVolume", FULL)
    styled = {"usageDescription": Styled("abc", ((3, {"K": {"K": "v"}}),))}
    itself = changed(styled, lambda objects, root: objects[4]["NS.objects"].__setitem__(0, UID(4)))
    seeds = {
        "full": full,
        "empty": Writer().record("QDVolume", {}),
        "other-class": Writer().record("QDDiskInfo", {"volumeName": "x"}),
        "one-run": Writer().record("QDVolume", styled),
        "dictionary-in-itself": itself,
        "root-in-itself": changed({}, lambda objects, root: root.update(mbr=UID(1), info=UID(1))),
        "reference-beyond": changed({}, lambda objects, root: root.update(filePath=UID(2 ** 32 - 1))),
        "class-beyond": changed({}, lambda objects, root: root.update({"$class": UID(99)})),
        "utf16": Writer().record("QDVolume", {"filePath": "\U0001f600\u2603"}),
        "folded": folded(12, 14),
        "array-in-itself": folded(1, 1).replace(b"\xa1\x00", b"\xa1\x01"),
        "cut": full[: len(full) // 2],
        "trailer-only": full[:8] + full[-32:],
    }
    for name, content in seeds.items():
        (CORPUS / name).write_bytes(content)


if __name__ == "__main__":
    main()
