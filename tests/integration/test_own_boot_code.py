# SPDX-License-Identifier: Apache-2.0
"""
The boot code of our own: its bytes, when `vorlix hybrid` writes it, and what it does in an emulated PC with a BIOS.

The PC starts volumes whose boot sectors print a marker and their hidden-sectors field (support/bios.py), or the registers
with which they were started.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import unittest

from support import bios, gpt, images, samples, tools
from support.macs import WINDOWS, ImageTest
from support.samples import Slice

SOURCE = pathlib.Path(os.environ["VORLIX_SOURCE"])
ASSEMBLE = SOURCE / "tools" / "dev" / "assemble_boot_code"
SKIPPED = 77
SIZE = 440  # bytes of sector 0 before the disk signature

NO_EMULATOR = "" if bios.QEMU else "qemu-system-x86_64"
NO_ASSEMBLER = "" if shutil.which("as") and shutil.which("objcopy") else "binutils"


def assemble(text, folder):
    """The bytes of 16-bit code, by the GNU assembler."""
    source, elf, code = (os.path.join(folder, name) for name in ("code.S", "code.o", "code.bin"))
    with open(source, "w", encoding="ascii") as file:
        file.write(f".code16\n.intel_syntax noprefix\n{text}\n")
    images.run_tool("as", "--32", "-o", elf, source)
    images.run_tool("objcopy", "-O", "binary", "-j", ".text", elf, code)
    return samples.read(code, 0, 512)


def own_boot_code(folder):
    return assemble((SOURCE / "boot" / "mbr.S").read_text(encoding="ascii"), folder)


def slot(active, kind, first, sectors):
    """An MBR slot without cylinder numbers, which nothing here uses."""
    return bytes([active, 0xFE, 0xFF, 0xFF, kind, 0xFE, 0xFF, 0xFF]) + first.to_bytes(4, "little") + sectors.to_bytes(4, "little")


@unittest.skipIf(NO_ASSEMBLER, f"not installed: {NO_ASSEMBLER}")
class Bytes(ImageTest):
    def test_the_bytes_in_the_tree_are_those_of_the_source(self):
        result = subprocess.run([sys.executable, "-B", ASSEMBLE, "--check"], capture_output=True, text=True, check=False)
        if result.returncode == SKIPPED:
            self.skipTest(result.stdout)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_it_leaves_the_disk_signature_and_the_slots_alone(self):
        code = own_boot_code(self.folder)
        self.assertGreater(len(code), 200)
        self.assertLessEqual(len(code), SIZE)

    def test_the_file_that_is_installed(self):
        built = pathlib.Path(self.vorlix).parent / "boot" / "mbr.bin"
        self.assertEqual(built.read_bytes(), own_boot_code(self.folder).ljust(SIZE, b"\0"))


@unittest.skipIf(NO_ASSEMBLER, f"not installed: {NO_ASSEMBLER}")
class InHybrid(ImageTest):
    SIGNATURE = b"\xC0\xFF\xEE\x01\x5A\x5A"

    def own(self):
        return own_boot_code(self.folder).ljust(SIZE, b"\0")

    def expected(self, path, code):
        """Sector 0 with these first 446 bytes and the slots that follow from the entries that sfdisk reads."""
        return gpt.sector0(code, gpt.hybrid_slots(tools.entries_by_sfdisk(path), WINDOWS, None))

    def run_hybrid(self, path, *options, expect=0):
        result = self.vorlix_run("hybrid", path, "--partition", WINDOWS, *options)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return result.stdout

    def test_a_disk_without_boot_code_gets_it_and_keeps_its_signature(self):
        path = self.mac_image()
        gpt.write_at(path, 440, self.SIGNATURE)
        expected = self.expected(path, self.own() + self.SIGNATURE)
        self.assertIn("boot code", self.run_hybrid(path, "--dry-run", expect=1))
        self.assertEqual(gpt.read_at(path, 0, 440), bytes(440))
        self.assertIn("gets our own", self.run_hybrid(path))
        self.assert_sector0(path, expected)
        self.vorlix_ok("check", path, "--partition", WINDOWS)
        self.assertIn("right already, not written", self.run_hybrid(path))
        self.assert_sector0(path, expected)

    def test_boot_code_of_the_disk_stays(self):
        path = self.mac_image()
        code = self.BOOT_CODE[:440]
        gpt.write_at(path, 0, code + self.SIGNATURE)
        expected = self.expected(path, code + self.SIGNATURE)
        self.assertIn("keeps its boot code", self.run_hybrid(path))
        self.assert_sector0(path, expected)

    def test_one_byte_of_boot_code_is_boot_code(self):
        for place in (0, 439):
            with self.subTest(place=place):
                path = self.mac_image(f"disk{place}.img")
                gpt.write_at(path, place, b"\x01")
                code = gpt.read_at(path, 0, 446)
                self.run_hybrid(path)
                self.assertEqual(gpt.read_at(path, 0, 446), code)

    def test_a_file_wins(self):
        for place, before in enumerate((bytes(440), b"\x90" * 440)):
            path = self.mac_image(f"disk{place}.img")
            gpt.write_at(path, 0, before)
            expected = self.expected(path, self.BOOT_CODE)
            self.assertNotIn("our own", self.run_hybrid(path, "--boot-code", self.boot_code))
            self.assert_sector0(path, expected)

    def test_it_can_be_declined(self):
        path = self.mac_image()
        expected = self.expected(path, bytes(440) + self.SIGNATURE)
        gpt.write_at(path, 440, self.SIGNATURE)
        self.assertIn("starts nothing", self.run_hybrid(path, "--keep-boot-code"))
        self.assert_sector0(path, expected)
        self.assertEqual(self.vorlix_run("check", path, "--partition", WINDOWS).returncode, 1)

    def test_right_slots_get_it_as_well(self):
        path = self.mac_image()
        self.run_hybrid(path, "--keep-boot-code")
        slots = gpt.read_at(path, 440, 72)
        self.assertIn("(boot code differed)", self.run_hybrid(path))
        self.assertEqual(gpt.read_at(path, 0, 512), self.own() + slots)

    def test_a_guard_mbr_gets_none_and_loses_none(self):
        path = self.mac_image()
        self.vorlix_ok("hybrid", path, "--guard")
        self.assertEqual(gpt.read_at(path, 0, 440), bytes(440))
        self.run_hybrid(path)
        self.vorlix_ok("hybrid", path, "--guard")
        self.assertEqual(gpt.read_at(path, 0, 440), self.own())
        self.assertEqual(self.show(path)["mbr"]["kind"], "guard")

    def test_the_boot_sector_of_a_volume_is_not_taken_for_boot_code(self):
        path = self.mac_image()
        volume = tools.fat_volume(self.path("fat"), 8 << 20)
        gpt.write_at(path, 0, volume[:446])
        gpt.write_at(path, 510, b"\x55\xAA")
        before = images.snapshot(path)
        result = self.vorlix_run("hybrid", path, "--partition", WINDOWS)
        self.assertEqual(result.returncode, 2)
        self.assertIn("--boot-code; nothing was written", result.stderr)
        self.assert_unchanged(path, before)
        self.run_hybrid(path, "--boot-code", self.boot_code)


# A boot sector that checks how it was started and prints what it finds.
REPORT = """
        jmp     begin
        .org    0x20
begin:  cld
        push    cs
        pop     ax
        call    pair                    # CS
        push    ds
        pop     ax
        call    pair
        push    es
        pop     ax
        call    pair
        push    ss
        pop     ax
        call    pair
        mov     ax, sp
        call    pair
        mov     ax, si
        call    pair
        mov     ax, bp
        call    pair
        mov     al, dl
        call    octet
        mov     cx, 16
        push    si
bytes:  lodsb
        call    octet
        loop    bytes
        pop     si
        mov     al, 10
        call    send
        xor     ax, ax
        out     0xF4, al
stop:   hlt
        jmp     stop
pair:   push    ax
        mov     al, ah
        call    part
        pop     ax
        call    part
        mov     al, 32
        jmp     send
octet:  call    part
        mov     al, 32
        jmp     send
part:   push    ax
        shr     al, 4
        call    digit
        pop     ax
        and     al, 15
digit:  cmp     al, 10
        jb      below
        add     al, 7
below:  add     al, 48
send:   push    dx
        push    ax
        mov     dx, 0x3FD
ready:  in      al, dx
        test    al, 0x20
        jz      ready
        mov     dl, 0xF8
        pop     ax
        out     dx, al
        pop     dx
        ret
        .org    510
        .byte   0x55, 0xAA
"""


# A first sector that stands for another BIOS. It takes over INT 13h, loads the boot code from sector 1 and starts it.
# FACTOR: sectors of 512 bytes in a sector of the drive, as the boot code sees it. FAILURES: how many of the first reads
# fail. EXTENSIONS: 0 for a BIOS that reads by cylinder, head and sector only.
OTHER_BIOS = """
        cli
        cld
        xor     ax, ax
        mov     ds, ax
        mov     ss, ax
        mov     sp, 0x7000
        mov     ax, 0x9000
        mov     es, ax
        xor     di, di
        mov     si, 0x7C00
        mov     cx, 256
        rep movsw
        .byte   0xEA                    # jmp 0x9000:here
        .word   here, 0x9000
here:   xor     ax, ax
        mov     es, ax
        mov     bx, 0x7C00
        mov     ax, 0x0201
        mov     cx, 2
        mov     dh, 0
        int     0x13
        mov     eax, [0x13 * 4]
        mov     cs:[old], eax
        mov     word ptr [0x13 * 4], offset handler
        mov     word ptr [0x13 * 4 + 2], 0x9000
        sti
        .byte   0xEA
        .word   0x7C00, 0
handler:
        cmp     ah, 0x41
        je      ask
        cmp     ah, 0x42
        je      extended
        cmp     ah, 0x02
        je      maybe
        jmp     dword ptr cs:[old]
ask:    cmp     byte ptr cs:[extensions], 0
        je      refuse
        jmp     dword ptr cs:[old]
maybe:  cmp     byte ptr cs:[failures], 0
        jne     fail
        jmp     dword ptr cs:[old]
extended:
        cmp     byte ptr cs:[failures], 0
        jne     fail
        push    eax
        push    ecx
        movzx   ecx, byte ptr cs:[factor]
        mov     eax, [si + 8]
        push    edx
        mul     ecx
        pop     edx
        mov     cs:[packet + 8], eax
        mov     ax, [si + 2]
        push    dx
        mul     cx
        pop     dx
        mov     cs:[packet + 2], ax
        mov     eax, [si + 4]
        mov     cs:[packet + 4], eax
        pop     ecx
        pop     eax
        push    ds
        push    si
        push    cs
        pop     ds
        mov     si, offset packet
        pushf
        call    dword ptr cs:[old]
        pop     si
        pop     ds
        retf    2
fail:   dec     byte ptr cs:[failures]
        mov     ah, 4
refuse: stc
        retf    2
old:    .long   0
packet: .word   16, 0, 0, 0
        .quad   0
factor: .byte   FACTOR
failures: .byte FAILURES
extensions: .byte EXTENSIONS
        .org    510
        .byte   0x55, 0xAA
"""


@unittest.skipIf(NO_EMULATOR or NO_ASSEMBLER, f"not installed: {NO_EMULATOR} {NO_ASSEMBLER}")
class Start(ImageTest):
    """Disks with the boot code and slots of the test."""

    FIRST = 2048
    LAST_LBA = 2**32 - 1

    def disk(self, *slots, sectors=65536, code=None):
        path = self.path("disk.img")
        with open(path, "wb") as file:
            file.write(code or own_boot_code(self.folder))
            for index, content in enumerate(slots):
                file.seek(446 + 16 * index)
                file.write(content)
            file.seek(510)
            file.write(b"\x55\xAA")
            file.truncate(sectors * 512)
        return path

    def system(self, path, first, name):
        """Writes a boot sector at a sector that prints a name and the field that has the sector's number."""
        sector = bytearray(512)
        sector[:3] = b"\xEB\x52\x90"
        sector[bios.HIDDEN_SECTORS:bios.HIDDEN_SECTORS + 4] = first.to_bytes(4, "little")
        code = bios.PRINT_HIDDEN_SECTORS + f"volume {name}, hidden sectors ".encode() + b"\0"
        sector[bios.CODE:bios.CODE + len(code)] = code
        sector[510:] = b"\x55\xAA"
        samples.write(path, first * 512, bytes(sector))

    def assert_started(self, path, first, name, **options):
        text, ended = bios.start(path, self.folder, **options)
        self.assertEqual(bios.started_volumes(text), [(name, f"{first:08X}")], text)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME)

    def assert_says(self, path, message):
        text, ended = bios.start(path, self.folder)
        self.assertIn(message + "\r\n", text)
        self.assertNotIn("volume", text)
        self.assertIn(bios.NO_DEVICE, text)  # INT 18h gave the machine back to the BIOS
        self.assertEqual(ended, bios.ENDED_BY_RESET)

    def test_each_slot(self):
        places = [2048, 4096, 8192, 16384]
        for active in range(4):
            with self.subTest(slot=active + 1):
                path = self.disk(*(slot(0x80 if i == active else 0, 7, first, 64) for i, first in enumerate(places)))
                for index, first in enumerate(places):
                    self.system(path, first, f"SLOT{index + 1}")
                self.assert_started(path, places[active], f"SLOT{active + 1}")

    def test_sectors_from_2_to_the_31st_on(self):
        """The last one that a slot can name is the end of a disk of 2 TiB."""
        for first in (2**31 - 1, 2**31, 2**32 - 2, self.LAST_LBA):
            with self.subTest(first=first):
                path = self.disk(slot(0x80, 7, first, 1), sectors=2**32)
                self.system(path, first, "FAR")
                self.assert_started(path, first, "FAR")

    def test_registers(self):
        here = slot(0x80, 0x07, self.FIRST, 64)
        path = self.disk(slot(0, 0xEE, 1, 2047), here)
        samples.write(path, self.FIRST * 512, assemble(REPORT, self.folder))
        text, ended = bios.start(path, self.folder)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME, text)
        # CS, DS, ES, SS, SP, SI, BP, DL and the 16 bytes at SI: slot 2 in the copy of sector 0 at 0x600
        wanted = "0000 0000 0000 0000 7C00 07CE 07CE 80 " + here.hex(" ").upper()
        self.assertIn(wanted, text)

    def test_a_drive_without_extensions(self):
        """A floppy disk, which the BIOS reads by cylinder, head and sector."""
        for first in (1, 18, 19, 36, 1000, 2879):  # of 18 sectors a track and 2 heads
            with self.subTest(first=first):
                path = self.disk(slot(0x80, 7, first, 1), sectors=2880)
                self.system(path, first, "FLOPPY")
                self.assert_started(path, first, "FLOPPY", drive="floppy", order="a")

    def test_no_active_slot(self):
        path = self.disk(slot(0, 7, self.FIRST, 64), slot(0x7F, 7, self.FIRST, 64), slot(0x01, 7, self.FIRST, 64))
        self.system(path, self.FIRST, "OTHER")
        self.assert_says(path, "No active slot in the MBR.")

    def test_two_active_slots(self):
        path = self.disk(slot(0x80, 7, self.FIRST, 64), bytes(16), bytes(16), slot(0x80, 7, self.FIRST, 64))
        self.system(path, self.FIRST, "OTHER")
        self.assert_says(path, "More than one active slot in the MBR.")

    def test_a_slot_beyond_the_disk(self):
        self.assert_says(self.disk(slot(0x80, 7, 65536, 64)), "Read error at the active slot.")

    def test_a_first_sector_that_is_no_boot_sector(self):
        path = self.disk(slot(0x80, 7, self.FIRST, 64))
        self.assert_says(path, "No boot sector in the active slot.")
        self.system(path, self.FIRST, "OTHER")
        samples.write(path, self.FIRST * 512 + 510, b"\x55")
        samples.write(path, self.FIRST * 512 + 511, b"\xAB")
        self.assert_says(path, "No boot sector in the active slot.")

    def test_a_slot_at_sector_0_does_not_start_the_boot_code_again(self):
        self.assert_says(self.disk(slot(0x80, 0, 0, 64)), "No boot sector in the active slot.")

    def other_bios(self, first, real, **values):
        """A disk that another BIOS starts; its active slot is at `first`, which is sector `real` of 512 bytes."""
        settings = "".join(f".set {name}, {value}\n" for name, value in
                           {"FACTOR": 1, "FAILURES": 0, "EXTENSIONS": 1, **values}.items())
        path = self.path("disk.img")
        mbr = own_boot_code(self.folder).ljust(446, b"\0") + slot(0x80, 7, first, 64)
        with open(path, "wb") as file:
            file.write(assemble(settings + OTHER_BIOS, self.folder))
            file.write(mbr.ljust(510, b"\0") + b"\x55\xAA")
            file.truncate(2**25 * 512)
        self.system(path, real, "VOLUME")
        samples.write(path, real * 512 + bios.HIDDEN_SECTORS, first.to_bytes(4, "little"))
        return path

    def test_sectors_of_4096_bytes(self):
        """SeaBIOS has no such drives, so INT 13h is answered as a BIOS that has them answers it."""
        path = self.other_bios(25000, 200000, FACTOR=8)
        self.assert_started(path, 25000, "VOLUME")
        path = self.other_bios(25000, 25000, FACTOR=8)  # what is at the number of small sectors is not started
        self.assert_says(path, "No boot sector in the active slot.")

    def test_a_drive_that_fails_at_first(self):
        self.assert_started(self.other_bios(5000, 5000, FAILURES=2), 5000, "VOLUME")
        self.assert_says(self.other_bios(5000, 5000, FAILURES=3), "Read error at the active slot.")

    def test_a_hard_disk_without_extensions(self):
        """The call names 1024 cylinders, which SeaBIOS gives 255 heads and 63 sectors on a disk of that size."""
        limit = 1024 * 255 * 63
        for first in (2, 62, 63, 64, 16064, 16065, 300000, limit // 4, limit - 1):
            with self.subTest(first=first):
                self.assert_started(self.other_bios(first, first, EXTENSIONS=0), first, "VOLUME")
        self.assert_started(self.other_bios(limit, limit), limit, "VOLUME")
        self.assert_says(self.other_bios(limit, limit, EXTENSIONS=0), "Read error at the active slot.")


@unittest.skipIf(NO_EMULATOR, f"not installed: {NO_EMULATOR}")
@unittest.skipIf(samples.tool("mkntfs") is None, "not installed: mkntfs")
class StartOfHybrid(ImageTest):
    """What `vorlix hybrid` writes without a file of boot code starts the Windows volume."""

    def test_a_volume_in_slot_3(self):
        path = self.path("mac.img")
        efi, windows = Slice(1, 40, 2048, samples.EFI_SYSTEM, "EFI"), Slice(3, 6184, 8192, samples.BASIC_DATA, "BOOTCAMP")
        samples.make_disk(path, windows.first + windows.sectors + 64, (efi, windows))
        volume = self.path("volume")
        samples.make_ntfs(volume, windows.sectors, windows.name)
        bios.make_system(volume, windows.name)
        samples.place(path, volume, windows.first)
        self.vorlix_ok("hybrid", path, "--partition", windows.number)
        text, ended = bios.start(path, self.folder)
        self.assertEqual(bios.started_volumes(text), [(windows.name, f"{windows.first:08X}")], text)
        self.assertEqual(ended, bios.ENDED_BY_VOLUME)


if __name__ == "__main__":
    images.main()
