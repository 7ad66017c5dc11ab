# SPDX-License-Identifier: Apache-2.0
"""The emulated machine: QEMU without hardware acceleration and without a network."""

import os
import subprocess
import time

from bed.report import Report

_POLL = 0.1  # seconds between reads of the second serial port's file


def _optional(condition, text):
    return text if condition else ""


def command(kernel, initramfs, disks, serial_ports, shell):
    """QEMU's command line. The guest gets the host's root folder read-only. Writes to the disks are not synced. A plain
    processor is emulated in four fifths of the time that one with all extensions takes."""
    line = ["qemu-system-x86_64", "-accel", "tcg", "-cpu", "qemu64", "-m", "1G", "-smp", "1", "-nodefaults",
            "-display", "none", "-no-reboot", "-nic", "none", "-device", "virtio-rng-pci",
            "-kernel", kernel.image, "-initrd", initramfs,
            "-append", f"console=ttyS0 panic=-1 mitigations=off loglevel={'4' if shell else '6'}",
            "-virtfs", "local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap"]
    for number, disk in enumerate(disks):
        path = disk.path.replace(",", ",,")
        line += ["-drive", f"if=none,id=disk{number},format=raw,cache=unsafe,file={path}"
                           + _optional(disk.read_only, ",readonly=on"),
                 "-device", f"virtio-blk-pci,drive=disk{number}"]
    for port in serial_ports:
        line += ["-serial", port]
    return line


def run_shell(line):
    return subprocess.run(line, check=False).returncode


def run_tests(line, results, limit):
    """
    Runs the machine until it ends or for `limit` seconds. Meanwhile prints the reports from its second serial port, which
    is the file `results`. Returns the report and whether the machine had to be stopped.
    """
    report = Report()
    deadline = time.monotonic() + limit
    stopped = False
    with subprocess.Popen(line, stdin=subprocess.DEVNULL) as machine:
        try:
            with open(results, "a+", encoding="utf-8", errors="replace") as port:
                reader = _LineReader(port)
                while machine.poll() is None:
                    reader.pass_on(report)
                    if time.monotonic() > deadline:
                        stopped = True
                        break
                    time.sleep(_POLL)
                if not stopped:
                    reader.pass_on(report)
        finally:
            machine.kill()
    return report, stopped


class _LineReader:
    """Reads complete lines from a growing file."""

    def __init__(self, file):
        self._file = file
        self._file.seek(0, os.SEEK_SET)
        self._rest = ""

    def pass_on(self, report):
        *lines, self._rest = (self._rest + self._file.read()).split("\n")
        for line in lines:
            text = report.take(line.rstrip("\r"))
            if text is not None:
                print(text, flush=True)
