# SPDX-License-Identifier: Apache-2.0
"""
A restored disk with a store of `vorlix bcd`, started by EFI firmware: an EFI program finds the Windows partition by the
identifiers in the store.
"""

import os
import re
import unittest
import uuid

from support import firmware, hive, images, samples, tools, volumes

MISSING = volumes.missing("sgdisk", "sfdisk", "mkfs.vfat", "mkntfs", "mmd", "mcopy", "setpriv")
NO_FIRMWARE = firmware.missing()
STORE = "EFI/Microsoft/Boot/BCD"
ELEMENTS = [place - hive.PARTITION_IN_ELEMENT for place in hive.ELEMENTS["standard"]]
NAMED = 2  # of the elements that mode names both identifiers in; the others get the disk's alone
WINDOWS = volumes.WINDOWS


def identifiers(path):
    """The GUIDs of slice 3 and of the disk, by sgdisk."""
    printed = tools.sgdisk(path, "-p", "-i", WINDOWS.number)
    partition = re.search(r"Partition unique GUID: (\S+)", printed).group(1)
    disk = re.search(r"Disk identifier \(GUID\): (\S+)", printed).group(1)
    return uuid.UUID(partition), uuid.UUID(disk)


def store_naming(*pairs):
    """A store with an element for each pair of a partition and a disk."""
    store = bytearray(hive.store_with_elements(ELEMENTS))
    for start, (partition, disk) in zip(ELEMENTS, pairs):
        element = hive.device_element(partition.bytes_le, disk.bytes_le)
        store[start : start + len(element)] = element
    return bytes(store)


@unittest.skipIf(MISSING or NO_FIRMWARE, f"not installed: {MISSING} {NO_FIRMWARE}")
class EFIStart(volumes.VolumeTest):
    def setUp(self):
        super().setUp()
        self.disk = self.path("mac.img")
        tree = {"EFI": None, "EFI/Boot": None, "EFI/Boot/bootx64.efi": firmware.make_store_reader(self.folder),
                "EFI/Microsoft": None, "EFI/Microsoft/Boot": None}
        volumes.make_mac(self.disk, tree)
        self.give(self.disk)
        self.partition, self.disk_guid = identifiers(self.disk)

    def named(self, partition, disk, found):
        return f"store names partition {str(partition).upper()} of disk {str(disk).upper()}: {found}"

    def test_the_store_of_a_restored_disk_leads_to_its_volume(self):
        image = self.path("win.img")
        samples.make_ntfs(image, WINDOWS.sectors, "WINDOWS")
        self.give(image)
        self.vorlix_ok("restore", image, self.disk, "--partition", WINDOWS.number, "--yes", "--start", "none")
        template = self.file("template", hive.store_with_elements(ELEMENTS))
        self.vorlix_ok("bcd", self.disk, "--partition", WINDOWS.number, "--template", template, "--mode", "standard")
        found = f"found, {WINDOWS.sectors} blocks from {WINDOWS.first}"
        lines = firmware.start(self.disk, self.folder)
        self.assertEqual(lines.count(self.named(self.partition, self.disk_guid, found)), NAMED, lines)
        others = [line for line in lines if str(self.partition).upper() not in line]
        self.assertEqual(others, [self.named(uuid.UUID(int=0), self.disk_guid, "not found")] * (len(ELEMENTS) - NAMED))

    def test_other_identifiers_lead_nowhere(self):
        other = uuid.UUID("12345678-9ABC-4DEF-8123-456789ABCDEF")
        pairs = [(other, self.disk_guid), (self.partition, other), (self.disk_guid, self.partition)]
        volumes.put_tree(self.disk, {STORE: store_naming(*pairs)}, offset=volumes.EFI_OFFSET)
        lines = firmware.start(self.disk, self.folder)
        for pair, found in zip(pairs, ("not found", "on another disk", "not found")):
            self.assertIn(self.named(*pair, found), lines)
        self.assertNotIn("blocks", "".join(lines))


if __name__ == "__main__":
    images.main()
