#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The messages of failed commands: a read-only command does not say that nothing was written."""

import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support import images  # noqa: E402

LOOKING = [["show"], ["check", "--partition", "3"], ["boot-type"], ["bootable"], ["windows"], ["archive", "show"],
           ["image-size"]]
WRITING = [["hybrid", "--partition", "3", "--boot-code"], ["vbr", "restore"], ["legacy-boot", "--bcd"]]


class Failures(images.CommandTest):
    def message(self, *arguments):
        result = self.vorlix_run(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
        self.assertRegex(result.stderr, r"\Avorlix: .+\n\Z")
        return result.stderr

    def test_commands_that_only_look(self):
        empty = self.path("empty.zip")
        with open(empty, "wb"):
            pass
        os.mkfifo(self.path("pipe.zip"))
        for name in (self.path("missing"), empty, self.path("pipe.zip")):
            for command in LOOKING:
                if name == empty and command == ["image-size"]:
                    continue  # it is measured, and unzip's error is shown
                with self.subTest(command=command, name=name):
                    self.assertNotIn("nothing was written", self.message(*command, name))

    def test_commands_that_write(self):
        for command in WRITING:
            with self.subTest(command=command):
                self.assertIn("; nothing was written\n",
                              self.message(*command, self.path("missing"), self.path("missing too")))


if __name__ == "__main__":
    images.main()
