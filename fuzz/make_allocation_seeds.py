#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recreates the seeds of AllocationFuzz from volumes by mkntfs, mkfs.vfat, mkfs.exfat, ntfscp and mcopy. Only sectors that
are not zeros are in a seed, and of long runs, such as an empty journal or the table of upper-case letters, the start."""

import os
import pathlib
import struct
import subprocess
import tempfile

TARGET = pathlib.Path(__file__).resolve().parent / "corpus" / "AllocationFuzz"
SECTOR = 512
MIB = 1 << 20
LONGEST_RUN = 64  # sectors


def seed_of(path):
    content = path.read_bytes()
    seed = struct.pack("<I", len(content) // SECTOR)
    run = 0
    for number in range(len(content) // SECTOR):
        sector = content[number * SECTOR : (number + 1) * SECTOR]
        run = run + 1 if any(sector) else 0
        if 1 <= run <= LONGEST_RUN:
            seed += struct.pack("<I", number) + sector
    return seed


def main():
    """Writes every seed."""
    TARGET.mkdir(parents=True, exist_ok=True)
    environment = {**os.environ, "MTOOLS_SKIP_CHECK": "1", "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin"}
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "volume"
        file = pathlib.Path(folder) / "hiberfil.sys"
        file.write_bytes(b"hibr" + bytes(9000))

        def run(*command):
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment)

        def make(name, size, *commands):
            path.write_bytes(b"")
            os.truncate(path, size)
            for command in commands:
                run(*[str(path) if word == "PATH" else str(file) if word == "FILE" else word for word in command])
            (TARGET / name).write_bytes(seed_of(path))

        ntfs = ("mkntfs", "-F", "-Q", "-q")
        make("ntfs", 4 * MIB, (*ntfs, "PATH"))
        make("ntfs-clusters-512", 2 * MIB, (*ntfs, "-c", "512", "PATH"))
        make("ntfs-hibernated", 4 * MIB, (*ntfs, "PATH"), ("ntfscp", "-f", "PATH", "FILE", "hiberfil.sys"))
        for bits, size, options in (("12", 2 * MIB, ()), ("16", 16 * MIB, ()), ("32", 40 * MIB, ("-s", "1"))):
            make(f"fat{bits}", size, ("mkfs.vfat", "-F", bits, *options, "PATH"), ("mcopy", "-i", "PATH", "FILE", "::"))
        make("exfat", 4 * MIB, ("mkfs.exfat", "PATH"))
        make("zeros", MIB)


if __name__ == "__main__":
    main()
