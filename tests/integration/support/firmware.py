# SPDX-License-Identifier: Apache-2.0
"""
An emulated PC with EFI firmware (OVMF), which starts `\\EFI\\Boot\\bootx64.efi` of a disk's EFI System Partition.

The test's program for it, store_reader.c, prints on the first serial port what it finds and ends the emulator.
"""

import os
import re
import shutil
import subprocess

from support import images, samples

QEMU = samples.tool("qemu-system-x86_64")
OVMF = "/usr/share/ovmf/OVMF.fd"  # where Debian's package has it
SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "store_reader.c")
START_LIMIT = 120  # seconds; a start takes about ten
ENDED_BY_PROGRAM = 1  # QEMU's status when the guest writes 0 to the port of isa-debug-exit: 2 * 0 + 1


def missing():
    """What this machine lacks for it, as the reason for a skip."""
    tools = [name for name in ("qemu-system-x86_64", "clang", "ld") if samples.tool(name) is None]
    if not os.path.exists(OVMF):
        tools.append("ovmf")
    elif not tools and "i386pep" not in subprocess.run(["ld", "-V"], capture_output=True, text=True, check=False).stdout:
        tools.append("ld for EFI programs")
    return ", ".join(tools)


def make_store_reader(folder):
    """Builds the program. Returns its bytes."""
    compiled, program = (os.path.join(folder, name) for name in ("store_reader.o", "store_reader.efi"))
    images.run_tool("clang", "-target", "x86_64-unknown-windows", "-ffreestanding", "-fshort-wchar", "-mno-red-zone",
                    "-mno-stack-arg-probe", "-fno-stack-protector", "-O1", "-Wall", "-Wextra", "-Werror", "-c", SOURCE,
                    "-o", compiled)
    images.run_tool("ld", "-m", "i386pep", "--subsystem", "10", "-e", "efiMain", "--enable-reloc-section", "-o", program,
                    compiled)
    with open(program, "rb") as file:
        return file.read()


def start(disk, folder):
    """Starts the disk, which is not written to. Returns the lines that the program printed."""
    serial = os.path.join(folder, "serial")
    firmware = shutil.copy(OVMF, folder)
    command = [QEMU, "-accel", "tcg", "-m", "128", "-nodefaults", "-display", "none", "-bios", firmware, "-serial", f"file:{serial}",
               "-drive", f"file={disk},format=raw,if=ide,snapshot=on", "-no-reboot",
               "-device", "isa-debug-exit,iobase=0xf4,iosize=1"]
    try:
        result = subprocess.run(command, env={**os.environ, "TMPDIR": folder}, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=START_LIMIT,
                                check=False)
        said = result.stdout
    except subprocess.TimeoutExpired:
        result, said = None, "the machine hung"
    text = samples.read(serial, 0, 1 << 16).decode("ascii", "replace")
    found = re.search(r"store reader\n(.*)end\n", text, re.DOTALL)
    if result is None or result.returncode != ENDED_BY_PROGRAM or not found:
        raise AssertionError(f"{said}; on the serial port:\n{text!r}")
    return found.group(1).splitlines()
