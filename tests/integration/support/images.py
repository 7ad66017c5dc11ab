# SPDX-License-Identifier: Apache-2.0
"""Shared code of the tests of the command line: running it, disk-image files, checks that nothing was written."""

import functools
import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest

from support import sparse

PAGE = 4096
MEMORY_LIMIT = 512 << 20
SYSTEM_PATH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
NOBODY = 65534

SANITIZED = bool(os.environ.get("VORLIX_SANITIZED"))
TIME_LIMIT = 240 if SANITIZED else 60  # seconds; a command with sanitizers takes several times as long


@functools.lru_cache(maxsize=None)
def tool(name):
    """Path of a system tool. Skips the test if the tool is missing."""
    found = shutil.which(name, path=SYSTEM_PATH)
    if not found:
        raise unittest.SkipTest(f"{name} is not installed")
    return found


def run_tool(name, *arguments, stdin=""):
    """Runs a system tool that must succeed. Returns its standard output."""
    result = subprocess.run([tool(name), *map(str, arguments)], input=stdin, capture_output=True, text=True, timeout=120)
    if result.returncode != 0:
        raise AssertionError(f"{name} {arguments}: {result.stdout}{result.stderr}")
    return result.stdout


def data_pages(descriptor):
    """The blocks of a file that are not all zeros, as (offset, bytes). Skips holes, so sparse files of terabytes are fast."""
    return sparse.blocks(descriptor)


def content_hash(path):
    """Digest of a file's bytes. Holes count as zeros."""
    return sparse.digest(path)


def sparse_copy(source, target):
    """Copies a file and keeps its holes."""
    sparse.copy(source, target)


def snapshot(path):
    """Everything that a write to a file changes: its bytes, its size and its modification time."""
    status = os.stat(path)
    return content_hash(path), status.st_size, status.st_mtime_ns


class CommandTest(unittest.TestCase):
    """A test of the built command line, with a private folder and a boot-code file."""

    maxDiff = 4000
    BOOT_CODE = bytes((7 * i + 3) % 256 for i in range(446))

    @classmethod
    def setUpClass(cls):
        cls.vorlix = os.environ.get("VORLIX")
        if not cls.vorlix:
            raise RuntimeError("VORLIX is not set; it must name the command line to test")

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vorlix-test-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.boot_code = self.path("boot.bin")
        with open(self.boot_code, "wb") as file:
            file.write(self.BOOT_CODE)

    def path(self, name):
        return os.path.join(self.folder, name)

    def vorlix_run(self, *arguments, timeout=TIME_LIMIT, memory_limit=None, prefix=()):
        """Runs the command line. memory_limit: its address space in bytes."""

        def limit():
            if memory_limit:
                resource.setrlimit(resource.RLIMIT_AS, (memory_limit, memory_limit))

        return subprocess.run(
            [*prefix, self.vorlix, *map(str, arguments)],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="surrogateescape",  # as in Python's file names
            timeout=timeout,
            preexec_fn=limit if memory_limit else None,
        )

    def vorlix_ok(self, *arguments, **options):
        result = self.vorlix_run(*arguments, **options)
        self.assertEqual(result.returncode, 0, f"{arguments}: {result.stdout}{result.stderr}")
        return result

    def show(self, disk):
        """The parsed output of `show --json`."""
        return json.loads(self.vorlix_ok("show", disk, "--json").stdout)

    def hybrid(self, disk, partition, *options, expect=0):
        arguments = ["hybrid", disk, "--boot-code", self.boot_code, "--partition", partition, *options]
        result = self.vorlix_run(*arguments)
        self.assertEqual(result.returncode, expect, f"{arguments}: {result.stdout}{result.stderr}")
        return result

    def assert_unchanged(self, path, before, note=""):
        self.assertEqual(snapshot(path), before, f"{path} was written to {note}")


def main():
    """Runs a test script's cases and prints the reasons for skipped ones."""
    unittest.main(verbosity=2 if "-v" in sys.argv else 1)
