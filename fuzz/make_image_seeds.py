#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recreates the seeds of BlockMapFuzz with bmaptool and of ImageSourceFuzz with mkntfs, ntfsclone and the packers. Runs from
any folder. Does not touch inputs that a search found."""

import pathlib
import re
import subprocess
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
MAPS = HERE / "corpus/BlockMapFuzz"
IMAGES = HERE / "corpus/ImageSourceFuzz"
COMMENTS = re.compile(rb"<!--.*?-->\s*", re.DOTALL)


def run(*command, **options):
    """What a command prints."""
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, **options).stdout


def block_maps(work):
    """A map without its comments, whose text the target gives the right hash of, and faulty ones."""
    image = work / "mapped"
    with open(image, "wb") as file:
        file.truncate(100_000)
        file.write(b"start")
        file.seek(40_000)
        file.write(b"middle" * 2000)
        file.seek(99_990)
        file.write(b"the end.\r\n")
    run("bmaptool", "create", str(image), "-o", str(work / "map"))
    whole = COMMENTS.sub(b"", (work / "map").read_bytes())
    whole = re.sub(rb"(<BmapFileChecksum>) (\w+) ", rb"\1\2", whole)
    old = re.sub(rb"\s*<ChecksumType>[^/]*/ChecksumType>", b"", whole).replace(b"2.0", b"1.3")
    old = re.sub(rb"(BmapFileChecksum>)\w{24}", rb"\1", old).replace(b"BmapFileChecksum", b"BmapFileSHA1")
    old = re.sub(rb'chksum="\w{24}', b'sha1="', old)
    seeds = {
        "whole": whole, "version-1.3": old, "cut": whole[: len(whole) // 2], "commented": (work / "map").read_bytes(),
        "no-hashes": re.sub(rb' chksum="\w*"', b"", whole), "sha512": whole.replace(b"sha256", b"sha512"),
        "blocks-of-0": whole.replace(b"> 4096 <", b"> 0 <"), "blocks-of-1": whole.replace(b"> 4096 <", b"> 1 <"),
        "largest": re.sub(rb"\d+-\d+", b"0-9223372036854775807", whole), "doctype": b"<!DOCTYPE bmap [ <!ENTITY a 'b'> ]>" + whole,
        "nested": b"<bmap version='2.0'>" + b"<a>" * 20, "many": b"<bmap version='2.0'><ChecksumType>sha1</ChecksumType><BlockMap>"
        + b"".join(b"<Range>%d</Range>" % (2 * i) for i in range(500)),
    }
    MAPS.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (MAPS / name).write_bytes(content)


def changed(content, offset, value):
    """The same with other bytes at a place."""
    return content[:offset] + value + content[offset + len(value) :]


def images(work):
    """Small volumes in every form, and ntfsclone images with single fields overwritten."""
    volume = work / "volume"
    with open(volume, "wb") as file:
        file.truncate(2 << 20)
    run("mkntfs", "-q", "-F", "-Q", "-c", "512", "-z", "1", str(volume))
    run("ntfsclone", "-q", "--save-image", "--overwrite", str(work / "clone"), str(volume))
    clone = (work / "clone").read_bytes()
    # The stream has the volume's metadata; its start and the rest as one gap are enough.
    small = clone[:56] + clone[56 : 56 + 16 * 513]
    clusters = int.from_bytes(clone[30:38], "little")
    small += b"\0" + (clusters - 16).to_bytes(8, "little") + b"\1" + bytes(512)
    small = changed(small, 38, (17).to_bytes(8, "little"))
    text = b"some bytes of a volume " * 300
    seeds = {
        "clone": small, "clone-cut": small[:3000], "clone-major": changed(small, 16, b"\x0b"), "clone-10.0": changed(small, 17, b"\0")[:-513],
        "clone-cluster-0": changed(small, 18, bytes(4)), "clone-cluster-2G": changed(small, 18, b"\0\0\0\x80"),
        "clone-device": changed(small, 22, b"\xff" * 8), "clone-clusters": changed(small, 30, b"\xff" * 7 + b"\x7f"),
        "clone-offset": changed(small, 46, b"\xff" * 4), "clone-gap-back": changed(small, 56, b"\0" + b"\xff" * 8),
        "clone-gap-0": changed(small, 56, bytes(9)), "clone-command": changed(small, 56, b"\2"),
        "raw": text, "wim": b"MSWIM\0\0\0\xd0\0\0\0\0\x0d\x01\0" + bytes(24) + b"\1\0\1\0\2\0\0\0" + bytes(160),
        "gz": run("gzip", "-nc", input=text), "xz": run("xz", "-c", input=text), "zst": run("zstd", "-qc", input=text),
        "bz2": run("bzip2", "-c", input=text), "clone.gz": run("gzip", "-nc", input=small),
    }
    (work / "file").write_bytes(text)
    seeds["zip"] = run("zip", "-qXj", "-", str(work / "file"))
    IMAGES.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (IMAGES / name).write_bytes(content)


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as folder:
        block_maps(pathlib.Path(folder))
        images(pathlib.Path(folder))
