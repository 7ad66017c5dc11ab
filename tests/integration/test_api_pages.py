#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every public symbol has a comment from which Doxygen makes a page."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["VORLIX"]).resolve().parent
SOURCE = pathlib.Path(os.environ["VORLIX_SOURCE"]).resolve()


@unittest.skipIf(shutil.which("doxygen") is None, "not installed: doxygen")
class ApiPages(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vorlix-pages-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def doxygen(self, *settings):
        """Runs Doxygen with the project's settings and some of our own."""
        configuration = [(BUILD / "Doxyfile").read_text(), f'OUTPUT_DIRECTORY = "{self.folder}"', *settings]
        return subprocess.run(["doxygen", "-"], input="\n".join(configuration) + "\n", text=True, capture_output=True,
                              check=False)

    def test_the_public_headers_give_pages_without_a_warning(self):
        result = self.doxygen()
        self.assertEqual(result.stderr, "")
        self.assertEqual(result.returncode, 0, result.stdout)
        pages = self.folder / "html"
        self.assertIn("mountDiskAtDevicePath", (pages / "classQDDeviceManager.html").read_text())
        flat = (pages / "QDSDiskFunctions_8h.html").read_text()
        self.assertIn("update_mbr_and_partition", flat)
        self.assertNotIn("VORLIX_EXPORT", flat)

    def test_a_symbol_without_a_comment_is_refused(self):
        header = self.folder / "Undocumented.h"
        header.write_text("/// @file\n/// A header.\nint hasNone();\n/// Has one.\nint hasOne();\n")
        result = self.doxygen(f'INPUT = "{header}"')
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("hasNone", result.stderr)
        self.assertNotIn("hasOne", result.stderr)


if __name__ == "__main__":
    unittest.main()
