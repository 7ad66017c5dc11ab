# SPDX-License-Identifier: Apache-2.0
"""
Starts disks in an emulated PC with a BIOS, to see whether it reaches the Windows volume's own boot code.

The volume's boot sector carries a few bytes of code that print a marker and the sector's hidden-sectors field on the
first serial port. On the way there stand the BIOS, the boot code that `vorlix hybrid` puts into sector 0, the slot it
marks active and the start sector it writes into the volume; one that is wrong keeps the line from appearing.
"""

import os
import re
import subprocess
import tempfile
import unittest

from support import samples
from support.samples import Slice

QEMU = samples.tool("qemu-system-x86_64")
BOOT_CODE = samples.syslinux_mbr()

START_LIMIT = 30  # seconds; a start takes less than two
ENDED_BY_VOLUME = 1  # QEMU's status when the guest writes 0 to the port of isa-debug-exit: 2 * 0 + 1
ENDED_BY_RESET = 0  # QEMU's status when the guest resets the machine

# syslinux's boot code says this when no slot is active, or when the active slot's first sector is no boot sector; it
# then hands back to the BIOS, which has nothing else to start.
NO_SYSTEM = "Missing operating system."
NO_DEVICE = "No bootable device."

HIDDEN_SECTORS = 28  # offset of the field in a boot sector
CODE = 84  # offset of the code in an NTFS boot sector, behind the parameter block
CODE_END = 510
BOOT_CODE_SIZE = 440  # of sector 0, before the disk signature and the slots

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

APPLE = Slice(2, 4136, 2048, samples.APPLE_APFS, "Macintosh HD")
WINDOWS = Slice(3, 6184, 8192, samples.BASIC_DATA, "BOOTCAMP")
EFI = Slice(1, 40, 4096, samples.EFI_SYSTEM, "EFI System Partition")

# Two systems. The second lies beyond what cylinder numbers reach (sector 16450560), and each byte of its first sector
# number, 0x01234568, is another.
FIRST_OF_TWO = Slice(2, 4136, 8192, samples.BASIC_DATA, "ONE")
BETWEEN = Slice(3, 12328, 2048, samples.APPLE_APFS, "Macintosh HD")
SECOND_OF_TWO = Slice(4, 19088744, 8192, samples.BASIC_DATA, "TWO")


def missing():
    absent = [name for name in ("qemu-system-x86_64", "sgdisk", "mkntfs") if samples.tool(name) is None]
    if BOOT_CODE is None:
        absent.append("syslinux's mbr.bin")
    return ", ".join(absent)


@unittest.skipIf(missing(), f"not installed: {missing()}")
class LegacyBoot(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="legacy-boot-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.disk = os.path.join(self.folder, "mac.img")

    def make_disk(self, *slices):
        last = max(part.first + part.sectors for part in slices)
        samples.make_disk(self.disk, last + 64, slices)
        for part in slices:
            if part.code == samples.BASIC_DATA:
                self.make_system(part)

    def make_system(self, part):
        volume = os.path.join(self.folder, part.name)
        samples.make_ntfs(volume, part.sectors, part.name)
        self.assertEqual(samples.read(volume, 0, 3), b"\xEB\x52\x90")  # a jump to offset 84
        self.assertEqual(samples.read(volume, HIDDEN_SECTORS, 4), bytes(4))
        code = PRINT_HIDDEN_SECTORS + f"volume {part.name}, hidden sectors ".encode() + b"\0"
        samples.write(volume, CODE, code.ljust(CODE_END - CODE, b"\0"))
        samples.place(self.disk, volume, part.first)

    def write_hybrid(self, partition):
        environment = {**os.environ, "HOME": self.folder}
        result = subprocess.run(
            [os.environ["VORLIX"], "hybrid", self.disk, "--boot-code", BOOT_CODE, "--partition", str(partition)],
            env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            timeout=60, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)

    def start(self):
        """Starts the disk; gives what appeared on the serial port and how the emulator ended."""
        serial = os.path.join(self.folder, "serial")
        command = [
            QEMU, "-accel", "tcg", "-m", "32", "-nodefaults", "-nographic",  # the BIOS then prints on COM1 too
            "-serial", f"file:{serial}",
            "-drive", f"file={self.disk},format=raw,if=ide,snapshot=on",
            "-boot", "order=c,reboot-timeout=1", "-no-reboot",  # milliseconds from "No bootable device" to the end
            "-device", "isa-debug-exit,iobase=0xf4,iosize=1",
        ]
        try:
            result = subprocess.run(command, env={**os.environ, "TMPDIR": self.folder}, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=START_LIMIT,
                                    check=False)
        except subprocess.TimeoutExpired:
            self.fail(f"the machine hung; on the serial port:\n{samples.read(serial, 0, 1 << 16)!r}")
        self.assertIn(result.returncode, (ENDED_BY_VOLUME, ENDED_BY_RESET), result.stdout)
        text = samples.read(serial, 0, 1 << 16).decode("ascii", "replace")
        return text, result.returncode

    def assert_started(self, part):
        text, ended = self.start()
        lines = re.findall(r"volume (\w+), hidden sectors ([0-9A-F]{8})\n", text)
        self.assertEqual(lines, [(part.name, f"{part.first:08X}")], text)
        self.assertNotIn(NO_SYSTEM, text)
        self.assertEqual(ended, ENDED_BY_VOLUME)

    def assert_not_started(self):
        text, ended = self.start()
        self.assertNotIn("volume", text)
        self.assertIn(NO_SYSTEM, text)
        self.assertIn(NO_DEVICE, text)
        self.assertEqual(ended, ENDED_BY_RESET)

    def test_a_volume_in_slot_3_starts_and_finds_its_first_sector(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        self.write_hybrid(3)
        self.assert_started(WINDOWS)

    def test_the_chosen_one_of_two_volumes_starts(self):
        self.make_disk(EFI, FIRST_OF_TWO, BETWEEN, SECOND_OF_TWO)
        self.write_hybrid(2)
        self.assert_started(FIRST_OF_TWO)
        self.write_hybrid(4)
        self.assert_started(SECOND_OF_TWO)

    def test_a_protective_mbr_starts_nothing(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        with open(BOOT_CODE, "rb") as file:  # so that the slots are all that is missing
            samples.write(self.disk, 0, file.read(BOOT_CODE_SIZE))
        self.assert_not_started()

    def test_another_active_slot_starts_nothing(self):
        self.make_disk(EFI, APPLE, WINDOWS)
        self.write_hybrid(3)
        self.write_hybrid(APPLE.number)
        self.assert_not_started()


if __name__ == "__main__":
    unittest.main()
