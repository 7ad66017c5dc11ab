# SPDX-License-Identifier: Apache-2.0
"""Shared code of the tests of partition tables: images of a Mac with an NTFS volume, and their first sectors."""

from support import gpt, images, tools

MAC = tools.MAC_LAYOUT
WINDOWS = tools.WINDOWS
WINDOWS_FIRST = MAC[WINDOWS][0]
WINDOWS_SIZE = (MAC[WINDOWS][1] - WINDOWS_FIRST + 1) * 512


class ImageTest(images.CommandTest):
    def mac_image(self, name="mac.img", layout=None, **options):
        """The image of a Mac with an NTFS volume at entry 3 whose hidden-sectors field is wrong; its files are right."""
        path = tools.sgdisk_image(self.path(name), layout or MAC, **options)
        tools.write_sparse(path, WINDOWS_FIRST * 512, tools.start_volume_for(path, WINDOWS, WINDOWS_SIZE))
        return path

    def expected_sector0(self, path, active, kind=None):
        """Sector 0 computed from the entries that sfdisk reads."""
        return gpt.sector0(self.BOOT_CODE, gpt.hybrid_slots(tools.entries_by_sfdisk(path), active, kind))

    def assert_sector0(self, path, expected):
        self.assertEqual(gpt.read_at(path, 0, 512).hex(" "), expected.hex(" "))

    def assert_patched(self, path, offset, before, start):
        """The boot sector at `offset` has the hidden-sectors field and a new serial; the rest is as in `before`."""
        after = gpt.read_at(path, offset, 512)
        expected = before[:28] + start.to_bytes(4, "little") + before[32:72] + after[72:80] + before[80:]
        self.assertEqual(after.hex(" "), expected.hex(" "))
        self.assertNotEqual(after[72:80], before[72:80])
