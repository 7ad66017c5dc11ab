# SPDX-License-Identifier: Apache-2.0
"""The pictures of the README show what the commands print: tools/dev/draw_terminal draws them again and compares."""

import os
import shutil
import subprocess
import sys
import unittest
from xml.etree import ElementTree

from support import images, volumes

MISSING = volumes.missing("sgdisk", "mkfs.vfat", "mkntfs", "ntfscp", "setpriv")
NAMES = "check", "restore", "show"


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Pictures(images.CommandTest):
    def setUp(self):
        super().setUp()
        self.source = os.environ["VORLIX_SOURCE"]
        self.pictures = os.path.join(self.source, "docs/pictures")

    def check(self, folder):
        script = os.path.join(self.source, "tools/dev/draw_terminal")
        return subprocess.run([sys.executable, script, "--vorlix", self.vorlix, "--to", folder, "--check"],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=images.TIME_LIMIT, check=False)

    def test_they_show_what_the_commands_print(self):
        result = self.check(self.pictures)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_a_picture_with_other_text_is_noticed(self):
        folder = self.path("pictures")
        shutil.copytree(self.pictures, folder)
        changed = os.path.join(folder, "show.svg")
        with open(changed, encoding="utf-8") as file:
            text = file.read()
        self.assertIn(">BOOTCAMP<", text)
        with open(changed, "w", encoding="utf-8") as file:
            file.write(text.replace(">BOOTCAMP<", ">BOOTCAMQ<"))
        os.remove(os.path.join(folder, "check.svg"))
        result = self.check(folder)
        self.assertNotEqual(result.returncode, 0)
        self.assertRegex(result.stderr, r"(?m)^-.*>BOOTCAMQ<")
        self.assertRegex(result.stderr, r"(?m)^\+.*>BOOTCAMP<")
        self.assertRegex(result.stderr, r"(?m)^\+.*>vorlix check ")
        self.assertNotIn("restore", result.stderr)

    def test_each_is_in_the_readme_and_well_formed(self):
        with open(os.path.join(self.source, "README.md"), encoding="utf-8") as file:
            readme = file.read()
        self.assertEqual(sorted(os.listdir(self.pictures)), [f"{name}.svg" for name in NAMES])
        for name in NAMES:
            self.assertIn(f"](docs/pictures/{name}.svg)", readme)
            words = [text.text for text in ElementTree.parse(os.path.join(self.pictures, f"{name}.svg")).iter()
                     if text.tag.endswith("}text")]
            self.assertGreater(len(words), 20)
            self.assertTrue(words[1].startswith(f"vorlix {name} "), words[:2])


if __name__ == "__main__":
    images.main()
