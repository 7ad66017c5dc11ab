# SPDX-License-Identifier: Apache-2.0
"""`identify` on the kernel's partitions, compared with blkid, sgdisk and sysfs."""

import json
import uuid

from bed.guest import LOCKED, MAC, SECOND, SLICES, GuestTest, blkid, disk_guid, node, partition_entry, read_text


class IdentifyTest(GuestTest):
    def identify(self, device):
        return json.loads(self.vorlix("identify", device, "--json").stdout)

    def assert_guid(self, shown, text):
        """Checks the text and the raw bytes of a GUID: the first three groups are little-endian, the rest big-endian."""
        self.assertEqual(shown["text"].upper(), text.upper())
        self.assertEqual(bytes.fromhex(shown["raw"]), uuid.UUID(text).bytes_le)

    def test_partitions_are_as_blkid_sgdisk_and_the_kernel_say(self):
        for disk, parts in SLICES.items():
            for part in parts:
                name = f"{disk}{part.number}"
                with self.subTest(name=name):
                    shown = self.identify(node(name))
                    self.assertEqual(shown["schema"], 1)
                    self.assertEqual(shown["device"], node(name))
                    self.assertEqual(shown["name"], name)
                    self.assertEqual(shown["wholeDisk"], disk)
                    self.assertEqual(shown["partition"], part.number)
                    self.assertEqual(shown["offset"], int(read_text(f"/sys/class/block/{name}/start")) * 512)
                    self.assert_guid(shown["partitionGUID"], partition_entry(disk, part.number)["guid"])
                    self.assert_guid(shown["partitionGUID"], blkid(node(name))["PART_ENTRY_UUID"])
                    self.assert_guid(shown["diskGUID"], disk_guid(disk))

    def test_a_slice_named_by_its_disk_is_the_same_partition(self):
        own, by_disk = self.identify(f"{MAC}3"), self.identify(f"{MAC}s3")
        for field in ("name", "wholeDisk", "partition", "diskGUID", "partitionGUID", "offset"):
            self.assertEqual(own[field], by_disk[field], field)

    def test_a_whole_disk_has_a_disk_guid_alone(self):
        for disk in (MAC, SECOND, LOCKED):
            with self.subTest(disk=disk):
                shown = self.identify(node(disk))
                self.assertEqual((shown["name"], shown["wholeDisk"]), (disk, disk))
                self.assert_guid(shown["diskGUID"], disk_guid(disk))
                self.assertIsNone(shown["partitionGUID"])
                self.assertIsNone(shown["offset"])

    def test_the_medium_type_is_the_kernels(self):
        rotational = read_text(f"/sys/class/block/{MAC}/queue/rotational").strip()
        self.assertEqual(self.identify(f"{MAC}3")["mediumType"], {"0": "Solid State", "1": "Rotational"}[rotational])

    def test_an_unknown_name_is_refused(self):
        result = self.vorlix("identify", "vdz9", "--json", status=2)
        self.assertEqual(result.stderr, "vorlix: vdz9: no such device or disk image\n")
