# SPDX-License-Identifier: Apache-2.0
"""Shared code of the guest's tests: running the command line, mounting by the system, and reading disks by other tools."""

import contextlib
import hashlib
import json
import os
import re
import subprocess
import tempfile
import unittest

from bed import disks
from support import samples

NOTES = json.loads(os.environ["VORLIX_GUEST"])
VORLIX = os.environ["VORLIX"]

MAC, SECOND, LOCKED, PC, OLD_PC = "vda", "vdb", "vdc", "vdd", "vde"
SLICES = {MAC: disks.MAC, SECOND: disks.SECOND, LOCKED: disks.LOCKED}


def node(name):
    return f"/dev/{name}"


def unescaped(path):
    """Decodes a path from the kernel's mount tables, which write some bytes as octal escapes."""
    return re.sub(r"\\([0-7]{3})", lambda code: chr(int(code.group(1), 8)), path)


def mounts_of(device):
    """The kernel's mounts of a device: a list of (mount point, file system, options)."""
    found = []
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        for line in table:
            place, volume = line.split(" - ")
            kind, source, super_options = volume.split(maxsplit=2)
            if source == device:
                fields = place.split()
                options = set(fields[5].split(",")) | set(super_options.strip().split(","))
                found.append((unescaped(fields[4]), kind, options))
    return found


def unmount_all():
    """Unmounts all mounted volumes of the disks, in reverse order of mounting."""
    with open("/proc/self/mountinfo", encoding="utf-8") as table:
        places = [unescaped(line.split()[4]) for line in table if line.split(" - ")[1].split()[1].startswith("/dev/vd")]
    for place in reversed(places):
        subprocess.run(["umount", place], check=False)


@contextlib.contextmanager
def mounted(name, *options):
    """Mounts the volume by mount(8) during a with block and yields the mount point."""
    with tempfile.TemporaryDirectory(prefix="system-mount-") as point:
        samples.run("mount", *options, node(name), point)
        try:
            yield point
        finally:
            samples.run("umount", point)


def system_mount(name, point, *options):
    """Mounts a volume by mount(8) in a folder, which is created if missing. Returns the folder."""
    os.makedirs(point, exist_ok=True)
    samples.run("mount", *options, node(name), point)
    return point


def write_text(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def read_text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def digest(device, first=0, count=None):
    """Digest of `count` bytes of a device from byte `first` on; by default, of all bytes."""
    result = hashlib.blake2b()
    with open(device, "rb") as file:
        file.seek(first)
        left = count
        while left is None or left > 0:
            chunk = file.read(1 << 20 if left is None else min(left, 1 << 20))
            if not chunk:
                break
            result.update(chunk)
            left = None if left is None else left - len(chunk)
    return result.hexdigest()


def blkid(device):
    """The values that blkid reads from a device, as a dictionary."""
    lines = samples.run("blkid", "--probe", "--output", "export", device).splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line)


def blkid_label(device):
    """The label of a device's volume. blkid prints it without escapes only if no other value is requested."""
    return samples.run("blkid", "--probe", "--match-tag", "LABEL", "--output", "value", device).removesuffix("\n")


def partition_entry(disk, number):
    """One GPT entry by sgdisk: type GUID, unique GUID, first and last sector."""
    text = samples.run("sgdisk", f"--info={number}", node(disk))
    fields = dict(line.split(": ", 1) for line in text.splitlines() if ": " in line)
    return {"type": fields["Partition GUID code"].split()[0], "guid": fields["Partition unique GUID"],
            "first": int(fields["First sector"].split()[0]), "last": int(fields["Last sector"].split()[0])}


def disk_guid(disk):
    """The disk GUID by sgdisk."""
    return re.search(r"Disk identifier \(GUID\): (\S+)", samples.run("sgdisk", "--print", node(disk))).group(1)


class CommandTest(unittest.TestCase):
    """Runs the command line."""

    def vorlix(self, *arguments, status=0, **options):
        """Runs a command that must end with `status`; `options` are those of subprocess.run()."""
        result = subprocess.run([VORLIX, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, check=False, **options)
        if result.returncode != status:
            last = (result.stderr or result.stdout).strip().rpartition("\n")[2]
            self.fail(f"vorlix {' '.join(arguments)} ended with {result.returncode}, not {status}: {last}\n"
                      f"{result.stdout}{result.stderr}")
        return result

    def refused(self, *arguments, **options):
        """Runs a command that must be refused. Returns its message."""
        result = self.vorlix(*arguments, status=2, **options)
        self.assertRegex(result.stderr, r"(?m)^vorlix: .+: .+; .+$")
        return result.stderr


class GuestTest(CommandTest):
    """Unmounts after each test what the test left mounted."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="guest-")
        self.addCleanup(folder.cleanup)
        self.addCleanup(unmount_all)  # runs before the folder's removal, because a volume may be mounted in it
        self.folder = folder.name

    def path(self, name):
        return os.path.join(self.folder, name)

    def mount_at(self, name, place, *options):
        """Mounts a volume by mount(8) in a folder below the test's folder. Returns the mount point."""
        return system_mount(name, self.path(place), *options)

    def mount(self, device, *options):
        """Mounts a volume through the command line and returns the mount point that it printed."""
        printed = self.vorlix("mount", device, *options).stdout
        self.assertRegex(printed, r"\A/[^\n]+\n\Z")
        return printed.rstrip("\n")
