#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recreates the seeds of FatVolumeFuzz: small volumes by mkfs.vfat with files by mtools, cut after the last byte that is
not zero, and damaged copies. Runs from any folder. Does not touch inputs that a search found."""

import os
import pathlib
import subprocess
import tempfile

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus" / "FatVolumeFuzz"
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8", "TZ": "UTC", "MTOOLS_SKIP_CHECK": "1", "HOME": "/nonexistent"}
SIZES = {12: 64, 16: 4400, 32: 33600}  # KiB, with clusters of one sector
STEP = 64 << 10


def run(*command):
    subprocess.run([str(part) for part in command], check=True, env=ENVIRONMENT, stdout=subprocess.DEVNULL)


def volume(folder, bits, names):
    path = pathlib.Path(folder) / f"{bits}.img"
    path.unlink(missing_ok=True)
    run("mkfs.vfat", "-C", "-F", bits, "-s", 1, "-f", 2, "-i", "12345678", "--invariant", path, SIZES[bits])
    source = pathlib.Path(folder) / "file"
    source.write_bytes(b"content" * 200)
    os.utime(source, (10**9, 10**9))
    run("mmd", "-i", path, "::/EFI", "::/EFI/Boot")
    for name in names:
        run("mcopy", "-m", "-i", path, source, f"::/{name}")
    return path.read_bytes()


def cut(data):
    """The volume up to its last byte that is not zero; its byte 3 is set to the size of the rest in steps of 64 KiB."""
    short = bytearray(data.rstrip(b"\0"))
    steps = -(-(len(data) - len(short)) // STEP)
    short[3] = min(steps, 255)
    return bytes(short)


def patched(data, offset, value):
    return data[:offset] + value + data[offset + len(value):]


def main():
    CORPUS.mkdir(parents=True, exist_ok=True)
    seeds = {}
    with tempfile.TemporaryDirectory() as folder:
        seeds["12-bits"] = cut(volume(folder, 12, ["readme.txt", "EFI/Boot/bootx64.efi", "A longer name.text"]))
        seeds["12-bits-names"] = cut(volume(folder, 12, ["Grüße.txt", "Жизнь", "n" * 255, "UPPER.TXT"]))
        seeds["16-bits"] = cut(volume(folder, 16, ["readme.txt"]))
    plain = seeds["12-bits"]
    entry = plain.index(b"README  TXT")
    seeds["size-beyond"] = patched(plain, entry + 28, b"\xff\xff\xff\x7f")
    seeds["size-zero"] = patched(plain, entry + 28, bytes(4))
    seeds["cluster-of-a-folder"] = patched(plain, entry + 26, b"\x02\0")
    seeds["slash-in-name"] = patched(plain, entry, b"RE/D")
    seeds["folder-in-itself"] = patched(plain, plain.index(b"BOOT       \x10") + 26, b"\x02\0")
    seeds["tables-differ"] = patched(plain, 515, b"\x07")
    seeds["cut"] = plain[:600]
    for name, data in seeds.items():
        (CORPUS / name).write_bytes(data)


if __name__ == "__main__":
    main()
