#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Recreates the seeds of the corpus: disk images by sgdisk, fdisk and sfdisk, cut to their first bytes, and damaged
copies. Runs from any folder. Does not touch inputs that a search found."""

import pathlib
import struct
import subprocess
import tempfile

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
EFI, HFS, BASIC, APPLE_BOOT, LINUX = "EF00", "AF00", "0700", "AB00", "8300"
FOUR_ENTRIES = 1024 + 4 * 128  # bytes from the start of the disk to the end of the GPT's fourth entry
DISK_GUID = "5A0B7F64-1D5C-4E0B-9C59-8E1B4C2D7A10"


def run(*command, text=None):
    subprocess.run([str(part) for part in command], input=text, text=True, check=True, stdout=subprocess.DEVNULL)


def image(folder, size):
    path = pathlib.Path(folder) / "image"
    path.unlink(missing_ok=True)
    with open(path, "wb") as file:
        file.truncate(size)
    return path


def sgdisk(folder, partitions, *more, size=3 << 30):
    """An image with partitions (number, first LBA, last LBA, type); more options follow. The GUIDs are fixed."""
    path = image(folder, size)
    options = ["-a", "1", "-U", DISK_GUID]
    for number, first, last, code in partitions:
        options += ["-n", f"{number}:{first}:{last}", "-t", f"{number}:{code}",
                    "-u", f"{number}:{number:08X}-0000-4000-8000-000000000000"]
    run("sgdisk", *options, path)
    if more:
        run("sgdisk", *more, path)
    return path


def first_bytes(path, count):
    with open(path, "rb") as file:
        return file.read(count)


def patched(data, changes):
    """A copy of data with the bytes of `changes` written at their offsets."""
    copy = bytearray(data)
    for offset, value in changes.items():
        copy[offset:offset + len(value)] = value
    return bytes(copy)


def u32(value):
    return struct.pack("<I", value)


def u64(value):
    return struct.pack("<Q", value)


def disks(folder):
    """The first bytes of disks with a GPT, by name."""
    mac = [(1, 40, 409639, EFI), (2, 409640, 2000000, HFS), (3, 2000896, 5000000, BASIC),
           (4, 5000001, 6000000, APPLE_BOOT)]
    made = {}
    made["mac"] = first_bytes(sgdisk(folder, mac), FOUR_ENTRIES)
    made["mac-hybrid"] = first_bytes(sgdisk(folder, mac, "--hybrid=2:3:4"), FOUR_ENTRIES)
    made["gap"] = first_bytes(sgdisk(folder, [mac[0], mac[2], mac[3]]), FOUR_ENTRIES)
    made["six"] = first_bytes(sgdisk(folder, mac + [(5, 6000001, 6100000, LINUX), (6, 6100001, 6200000, BASIC)]), 2048)
    made["empty"] = first_bytes(sgdisk(folder, []), FOUR_ENTRIES)
    made["esp-last"] = first_bytes(sgdisk(folder, [(1, 2048, 4095, BASIC), (4, 4096, 8191, EFI)]), FOUR_ENTRIES)
    large = [(1, 40, 409639, EFI), (2, 16450559, 16450560, HFS), (3, 2 ** 31 - 1, 2 ** 31, BASIC),
             (4, 2 ** 32, 2 ** 32 + 7, BASIC)]
    made["large"] = first_bytes(sgdisk(folder, large, size=3 << 40), FOUR_ENTRIES)
    path = image(folder, 1 << 30)
    run("fdisk", "-b", "4096", path, text=f"g\nx\ni\n{DISK_GUID}\nr\nn\n1\n256\n2559\nt\n1\nn\n2\n2560\n9999\nw\n")
    made["blocks-4096"] = patched(first_bytes(path, 8192 + 512), {0: b"\x10"})

    mac_start = made["mac"]
    made["count-claimed"] = patched(mac_start, {512 + 80: u32(2 ** 32 - 1)})
    made["count-two"] = patched(mac_start, {512 + 80: u32(2)})
    made["entries-in-mbr"] = patched(mac_start, {512 + 72: u64(0)})
    made["entries-in-header"] = patched(mac_start, {512 + 72: u64(1)})
    made["entries-beyond"] = patched(mac_start, {512 + 72: u64(2 ** 64 - 1)})
    made["entries-at-largest-offset"] = patched(mac_start, {512 + 72: u64(2 ** 54)})
    made["backwards"] = patched(mac_start, {1024 + 32: u64(409639), 1024 + 40: u64(40)})
    made["wraps"] = patched(mac_start, {1280 + 32: u64(0), 1280 + 40: u64(2 ** 64 - 1)})
    made["no-signature"] = patched(mac_start, {512: b"efi part"})
    made["cut-in-header"] = mac_start[:512 + 75]
    made["cut-in-entry"] = mac_start[:1024 + 128 + 37]
    made["cut-in-last-block"] = made["large"][:FOUR_ENTRIES - 26]
    return made


def sectors(folder, starts):
    """Contents of sector 0, by name."""
    made = {name: starts[name][:512] for name in ("mac", "mac-hybrid")}
    path = image(folder, 64 << 20)
    run("sfdisk", "-q", path, text="label: dos\nlabel-id: 0x12345678\n2048,20480,7,*\n22528,20480,c\n43008,,5\n")
    made["dos"] = first_bytes(path, 512)
    slots = bytes(range(64))
    made["counting"] = patched(bytes(512), {446: slots, 510: b"\x55\xAA"})
    made["all-ones"] = b"\xFF" * 512
    made["all-active"] = patched(made["dos"], {446 + 16 * i: b"\x80" for i in range(4)})
    made["cut-in-slot"] = made["dos"][:446 + 16 + 3]
    made["cut-in-signature"] = made["dos"][:511]
    made["cut-in-boot-code"] = made["dos"][:440]
    return made


def steered(starts, steering):
    """Copies of starts with a target's option bytes."""
    return {f"{name}-{label}": patched(starts[name], {0: value}) for name, label, value in steering}


def update_steering():
    start = u32(409640)
    yield "mac", "hybrid-3", bytes([3, 7, 4, 0, 0, 0]) + start
    yield "mac", "guard", bytes([8, 0, 4, 0, 0, 0]) + start
    yield "mac", "same-disk", bytes([3, 7, 0, 0, 0, 0]) + start
    yield "mac", "short-boot-code", bytes([0x82, 0, 4, 0, 0, 0]) + start
    yield "mac", "no-boot-code", bytes([0x43, 0, 4, 0, 0, 0]) + start
    yield "mac", "locked", bytes([3, 7, 7, 0, 0, 0]) + start
    yield "mac", "shared", bytes([3, 7, 6, 0, 0, 0]) + start
    yield "mac", "disk-full", bytes([3, 7, 0x0C, 100, 0, 0]) + start
    yield "mac", "volume-full", bytes([3, 7, 0x14, 5, 0, 0]) + start
    yield "mac", "reads-fail", bytes([3, 7, 0x24, 1, 0, 0]) + start
    yield "mac", "sync-fails", bytes([3, 7, 0x44, 0, 0, 0]) + start
    yield "mac", "id-without-partition", bytes([0, 7, 4, 0, 0, 0]) + start
    yield "mac", "id-too-large", bytes([3, 7, 0x84, 0, 0, 0]) + start
    yield "mac", "block-size-unknown", bytes([0x23, 7, 4, 0, 0, 0]) + start
    yield "mac", "partition-7", bytes([7, 0, 4, 0, 0, 0]) + start
    yield "mac-hybrid", "hybrid-3", bytes([3, 7, 4, 0, 0, 0]) + start
    yield "blocks-4096", "hybrid-2", bytes([0x12, 7, 4, 0, 0, 0]) + start
    yield "large", "hybrid-4", bytes([4, 0, 4, 0, 0, 0]) + start


def write(target, seeds):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, data in seeds.items():
        (folder / name).write_bytes(data)


def main():
    with tempfile.TemporaryDirectory() as folder:
        starts = disks(folder)
        write("MBRFuzz", sectors(folder, starts))
        both_ends = [(1, 40, 409639, EFI), (128, 409640, 500000, BASIC)]
        whole_table = {"whole-table": first_bytes(sgdisk(folder, both_ends), 34 * 512)}
    gpt = steered(starts, [("mac", "active-3", b"\x03"), ("mac", "guard", b"\x08"), ("six", "active-7", b"\x07")])
    write("GPTFuzz", starts | gpt | whole_table)
    write("UpdateFuzz", starts | steered(starts, update_steering()))
    larger = steered(starts, [("mac", "larger", b"\x02"), ("mac", "odd-size", b"\x03"),
                              ("blocks-4096", "larger", b"\xFF")])
    write("ImageSlicesFuzz", starts | larger)


if __name__ == "__main__":
    main()
