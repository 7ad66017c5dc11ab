# SPDX-License-Identifier: Apache-2.0
"""
Kills `vorlix restore` at random moments, for each kind of source, and goes both ways from there: the same command again must
end in the bytes of an undisturbed run, and `vorlix undo` must give back every small structure.

Half of the runs are stopped by a signal first and killed when they go on, so that they go on from the middle.

    VORLIX_KILLS=50 VORLIX=build/vorlix tests/integration/test_restore_kills.py    50 kills of each kind; default 2
    VORLIX_KILLS_SEED=7                                                            other moments
"""

import collections
import json
import os
import random
import shutil
import signal
import subprocess
import time
import unittest

import test_restore
from support import images, samples
from test_restore import SECOND, WINDOWS

KILLS = int(os.environ.get("VORLIX_KILLS", "2"))
SEED = int(os.environ.get("VORLIX_KILLS_SEED", "11"))
FIRST = WINDOWS.first * 512
SMALL = {"sector 0": 0, "boot sector": FIRST, "second boot sector": FIRST + SECOND}


class Kills(test_restore.RestoreTest):
    def command(self):
        return [*self.prefix(), self.vorlix, "restore", self.source, self.disk, "--partition", "3", "--yes"]

    def start(self):
        stream = open(self.stream, "rb") if self.stream else None  # pylint: disable=consider-using-with
        try:
            return subprocess.Popen(self.command(), stdin=stream or subprocess.DEVNULL, stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT, text=True)
        finally:
            if stream:
                stream.close()

    def finish(self):
        process = self.start()
        output, _ = process.communicate(timeout=images.TIME_LIMIT)
        self.assertEqual(process.returncode, 0, output)

    def ended(self, number, delay):
        """Starts a restore and sends it a signal. Returns whether it was still running."""
        process = self.start()
        time.sleep(delay)
        process.send_signal(number)
        process.communicate(timeout=images.TIME_LIMIT)
        return process.returncode != 0

    def fresh(self):
        images.sparse_copy(self.untouched, self.disk)
        shutil.rmtree(os.path.join(self.state, "vorlix"), ignore_errors=True)

    def small_structures(self, path):
        return {name: samples.read(path, place, 512) for name, place in SMALL.items()}

    def folders(self, kind):
        parent = os.path.join(self.state, "vorlix", kind)
        names = sorted(os.listdir(parent)) if os.path.isdir(parent) else []
        return [os.path.join(parent, name) for name in names if not name.endswith((".new", ".done"))]

    def manifest(self, folder):
        with open(os.path.join(folder, "manifest.json"), encoding="utf-8") as file:
            return json.load(file)

    def pieces(self, folder):
        try:
            return os.path.getsize(os.path.join(folder, "pieces.txt"))
        except FileNotFoundError:
            return 0

    def what_is_left(self):
        """A word for how far the run was, by its journals."""
        journals = self.folders("journals")
        if not journals:
            return "complete" if self.folders("backups") else "not begun"
        if any(self.manifest(folder)["content"] is None for folder in journals):
            return "at the structures"
        return "behind a recorded piece" if any(map(self.pieces, journals)) else "in the content"

    def keep(self):
        images.sparse_copy(self.disk, self.path("kept.img"))
        shutil.copytree(self.state, self.path("kept"), dirs_exist_ok=False)

    def put_back(self):
        images.sparse_copy(self.path("kept.img"), self.disk)  # in place: journals know the disk by its inode
        shutil.rmtree(self.state)
        os.rename(self.path("kept"), self.state)
        for place, folders, files in os.walk(self.state):
            self.give(place, *(os.path.join(place, name) for name in folders + files))

    def assert_undone(self, moment):
        # The first of two signals may have come after the end of the restore, so that there are two, undone in turn.
        restores = [folder for folder in self.folders("journals") if self.manifest(folder)["content"] is not None]
        for folder in [*restores, *reversed(self.folders("backups"))]:
            result = self.vorlix_run("undo", folder)
            self.assertEqual(result.returncode, 0, f"{moment}: {result.stderr}")
        now, before = self.small_structures(self.disk), self.small_structures(self.untouched)
        self.assertEqual([name for name in before if now[name] != before[name]], [], moment)
        self.assertEqual(self.folders("journals"), [], moment)

    def sweep(self, source, stream=None):
        self.source, self.stream = source, stream
        times = []
        for _ in range(3):
            self.fresh()
            began = time.monotonic()
            self.finish()
            times.append(time.monotonic() - began)
        takes = sorted(times)[1]
        wanted = images.content_hash(self.disk)
        self.assertEqual(samples.read(self.disk, FIRST, 512), self.expected_volume()[:512])
        chance = random.Random(SEED)
        found = collections.Counter()
        for number in range(KILLS):
            self.fresh()
            moment = f"kill {number}"
            if number % 2 == 1 and not self.ended(signal.SIGINT, chance.random() * takes):
                self.fresh()  # it was complete before the signal
            self.ended(signal.SIGKILL, chance.random() * takes)
            left = self.what_is_left()
            found[left] += 1
            moment += f", {left}"
            self.keep()
            self.assert_undone(moment)
            self.put_back()
            self.finish()
            self.assertEqual(images.content_hash(self.disk), wanted, moment)
            self.assertEqual(self.folders("journals"), [], moment)
        print(f"{KILLS} kills of runs of {takes:.2f} s: " + ", ".join(f"{count} {word}" for word, count in found.items()), flush=True)

    def test_raw(self):
        self.sweep(self.image)

    def test_gz(self):
        self.sweep(self.gzipped())

    def test_zst(self):
        images.run_tool("zstd", "-q", self.image)
        self.sweep(self.give(self.image + ".zst"))

    def test_map(self):
        images.run_tool("bmaptool", "create", "-o", self.image + ".bmap", self.image)
        self.sweep(self.image)

    def test_ntfsclone(self):
        clone = self.path("win.clone")
        images.run_tool("ntfsclone", "--save-image", "-f", "-o", clone, self.image)
        self.sweep(self.give(clone))

    def test_backup(self):
        self.vorlix_ok("backup", self.image, self.path("backup"))
        self.sweep(self.path("backup"))

    def test_stdin(self):
        self.sweep("-", stream=self.gzipped())


if __name__ == "__main__":
    images.main()
