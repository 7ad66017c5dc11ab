# SPDX-License-Identifier: Apache-2.0
"""Commands run with closed standard streams. A disk that is opened next could get the number of a closed stream, and
the command would print into it."""

import subprocess

from support import gpt, images
from support.macs import WINDOWS, WINDOWS_FIRST, WINDOWS_SIZE, ImageTest

CLOSED = ("<&-", ">&-", "2>&-", ">&- 2>&-", "<&- >&- 2>&-")
BOOT_CODE_SIZE = 446
BOOT_AREA = 8192


class ClosedStreams(ImageTest):
    def run_with(self, closed, *arguments):
        """The command ends with 0, or with 2 if standard output is closed."""
        command = ["sh", "-c", f'exec "$@" {closed}', "sh", self.vorlix, *map(str, arguments)]
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(result.returncode, 2 if ">&-" in closed.replace("2>&-", "") else 0, result.stdout + result.stderr)

    def assert_only_differs(self, path, before, *places):
        """The image is unchanged except at `places`: pairs of an offset and the old bytes."""
        for offset, content in places:
            gpt.write_at(path, offset, content)
        self.assertEqual(images.content_hash(path), before)

    def test_a_disk_whose_mbr_is_right(self):
        """The command writes to the volume only, so text printed into the first sector would stay visible."""
        path = self.mac_image()
        arguments = ("hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS)
        self.vorlix_ok(*arguments)
        before = images.content_hash(path)
        start = WINDOWS_FIRST * 512
        boot_sector = gpt.read_at(path, start, 512)
        for number, closed in enumerate(CLOSED):
            with self.subTest(closed=closed):
                self.run_with(closed, *arguments, "--backup", self.path(f"saved{number}"))
                self.assert_patched(path, start, boot_sector, WINDOWS_FIRST)
                self.assert_only_differs(path, before, (start, boot_sector), (start + WINDOWS_SIZE - 512, boot_sector))

    def test_a_disk_that_gets_its_mbr(self):
        for closed in CLOSED:
            with self.subTest(closed=closed):
                path = self.mac_image(name=f"mac{CLOSED.index(closed)}.img")
                before = images.content_hash(path)
                start = WINDOWS_FIRST * 512
                places = (0, start, start + WINDOWS_SIZE - 512)
                old = [(place, gpt.read_at(path, place, 512)) for place in places]
                expected = self.expected_sector0(path, WINDOWS)
                self.run_with(closed, "hybrid", path, "--boot-code", self.boot_code, "--partition", WINDOWS)
                self.assert_sector0(path, expected)
                self.assert_patched(path, start, old[1][1], WINDOWS_FIRST)
                self.assert_only_differs(path, before, *old)

    def test_boot_records(self):
        path = self.mac_image()
        before = images.content_hash(path)
        area = gpt.read_at(path, WINDOWS_FIRST * 512, BOOT_AREA)
        for number, closed in enumerate(CLOSED):
            with self.subTest(closed=closed):
                volume, record = self.path(f"{number}.vbr"), self.path(f"{number}.mbr")
                self.run_with(closed, "vbr", "save", path + "s3", volume)
                self.run_with(closed, "boot-code", "save", path, record)
                self.assertEqual(gpt.read_at(volume, 0, BOOT_AREA), area[84:])
                self.assertEqual(gpt.read_at(record, 0, 512), gpt.read_at(path, 0, BOOT_CODE_SIZE))
                self.run_with(closed, "vbr", "restore", volume, path + "s3")
                self.assert_only_differs(path, before)


if __name__ == "__main__":
    images.main()
