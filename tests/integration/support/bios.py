# SPDX-License-Identifier: Apache-2.0
"""
An emulated PC with a BIOS that starts a disk and shows which volume's boot code it reached.

The tests write that boot code. It prints a text and the boot sector's hidden-sectors field on the first serial port and
ends the emulator.
"""

import os
import re
import subprocess

from support import samples

QEMU = samples.tool("qemu-system-x86_64")

START_LIMIT = 30  # seconds; a start takes less than two
ENDED_BY_VOLUME = 1  # QEMU's status when the guest writes 0 to the port of isa-debug-exit: 2 * 0 + 1
ENDED_BY_RESET = 0  # QEMU's status when the guest resets the machine

# syslinux's boot code prints this if no slot is active, or if the active slot's first sector is not a boot sector. Then
# it returns to the BIOS, which has nothing else to start.
NO_SYSTEM = "Missing operating system."
NO_DEVICE = "No bootable device."

HIDDEN_SECTORS = 28  # offset of the field in a boot sector
CODE = 84  # offset of the code in an NTFS boot sector, after the parameter block
CODE_END = 510

# 16-bit code for offset 84 (0x54) of a boot sector loaded at 0x7C00. It prints the text that follows it, eight
# hexadecimal digits and a line feed on COM1, then ends the emulator through port 0xF4.
PRINT_HIDDEN_SECTORS = bytes([
    0xFA,                          # 54        cli
    0xFC,                          # 55        cld
    0x31, 0xC0,                    # 56        xor ax, ax
    0x8E, 0xD8,                    # 58        mov ds, ax
    0x8E, 0xD0,                    # 5A        mov ss, ax
    0xBC, 0x00, 0x7C,              # 5C        mov sp, 0x7C00
    0xBE, 0xA5, 0x7C,              # 5F        mov si, 0x7CA5       the text
    0xAC,                          # 62 text:  lodsb
    0x84, 0xC0,                    # 63        test al, al
    0x74, 0x05,                    # 65        jz number            at its end
    0xE8, 0x2B, 0x00,              # 67        call send
    0xEB, 0xF6,                    # 6A        jmp text
    0x66, 0x8B, 0x1E, 0x1C, 0x7C,  # 6C number: mov ebx, [0x7C1C]   the hidden-sectors field
    0xB9, 0x08, 0x00,              # 71        mov cx, 8
    0x66, 0xC1, 0xC3, 0x04,        # 74 digit: rol ebx, 4           the highest comes first
    0x88, 0xD8,                    # 78        mov al, bl
    0x24, 0x0F,                    # 7A        and al, 0x0F
    0x3C, 0x0A,                    # 7C        cmp al, 10
    0x72, 0x02,                    # 7E        jb decimal
    0x04, 0x07,                    # 80        add al, 7            from the colon behind '9' to 'A'
    0x04, 0x30,                    # 82 decimal: add al, '0'
    0xE8, 0x0E, 0x00,              # 84        call send
    0xE2, 0xEB,                    # 87        loop digit
    0xB0, 0x0A,                    # 89        mov al, 0x0A
    0xE8, 0x07, 0x00,              # 8B        call send
    0x31, 0xC0,                    # 8E        xor ax, ax
    0xE6, 0xF4,                    # 90        out 0xF4, al         the emulator ends here
    0xF4,                          # 92 stop:  hlt
    0xEB, 0xFD,                    # 93        jmp stop
    0x88, 0xC4,                    # 95 send:  mov ah, al
    0xBA, 0xFD, 0x03,              # 97        mov dx, 0x3FD        line status of COM1
    0xEC,                          # 9A wait:  in al, dx
    0xA8, 0x20,                    # 9B        test al, 0x20        room for a byte
    0x74, 0xFB,                    # 9D        jz wait
    0xB2, 0xF8,                    # 9F        mov dl, 0xF8         data register, 0x3F8
    0x88, 0xE0,                    # A1        mov al, ah
    0xEE,                          # A3        out dx, al
    0xC3,                          # A4        ret
])


def make_system(path, name):
    """Writes code that prints `name` into the boot sector of an NTFS volume."""
    if samples.read(path, 0, 3) != b"\xEB\x52\x90":
        raise AssertionError(f"{path}: no jump to offset 84")
    code = PRINT_HIDDEN_SECTORS + f"volume {name}, hidden sectors ".encode() + b"\0"
    samples.write(path, CODE, code.ljust(CODE_END - CODE, b"\0"))


def start(disk, folder, drive="ide", order="c"):
    """
    Starts the disk, with the emulator's files in `folder`. Returns the serial output and QEMU's status.

    `drive` is the kind of drive, `order` its letter in QEMU's boot order: "floppy" goes with "a".
    """
    serial = os.path.join(folder, "serial")
    command = [
        QEMU, "-accel", "tcg", "-m", "32", "-nodefaults", "-nographic",  # the BIOS then prints on COM1 too
        "-serial", f"file:{serial}",
        "-drive", f"file={disk},format=raw,if={drive},snapshot=on",
        "-boot", f"order={order},reboot-timeout=1", "-no-reboot",  # milliseconds from "No bootable device" to the end
        "-device", "isa-debug-exit,iobase=0xf4,iosize=1",
    ]
    try:
        result = subprocess.run(command, env={**os.environ, "TMPDIR": folder}, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=START_LIMIT,
                                check=False)
    except subprocess.TimeoutExpired:
        raise AssertionError(f"the machine hung; on the serial port:\n{samples.read(serial, 0, 1 << 16)!r}") from None
    if result.returncode not in (ENDED_BY_VOLUME, ENDED_BY_RESET):
        raise AssertionError(result.stdout)
    text = samples.read(serial, 0, 1 << 16).decode("ascii", "replace")
    return text, result.returncode


def started_volumes(text):
    """The volumes that printed their name and hidden-sectors field: [(name, eight hexadecimal digits)]."""
    return re.findall(r"volume (\w+), hidden sectors ([0-9A-F]{8})\n", text)
