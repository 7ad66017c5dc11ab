# SPDX-License-Identifier: Apache-2.0
"""
Kills `vorlix restore` at random moments, for each kind of source, and goes both ways from there: the same command again must
end in the bytes of an undisturbed run, and `vorlix undo` must give back every small structure.

Half of the runs are stopped by a signal first and killed when they go on, so that they go on from the middle.

Each run of a WIM makes another volume: the serial number in both boot sectors is random, and the times of the system's files and
of the last change of each record are those of the run. These bytes are left out of the comparison, and nothing else is. The
volume must also be sound, and its files those of the WIM, as independent tools tell.

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
import test_wim
from support import images, same_ntfs, samples, tools, volumes

KILLS = int(os.environ.get("VORLIX_KILLS", "2"))
SEED = int(os.environ.get("VORLIX_KILLS_SEED", "11"))


class Kills:
    """The sweep. Tests derive from it and from a class that makes `disk`, and `untouched` with the same bytes."""

    SLICE = None
    DONE = 0  # the status of a complete restore
    OPTIONS = ()

    @property
    def target(self):
        """What the command line calls the disk."""
        return self.disk

    def command(self):
        return [*self.prefix(), self.vorlix, "restore", self.source, self.target, "--partition", "3", "--yes", *self.OPTIONS]

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
        self.assertEqual(process.returncode, self.DONE, output)

    def ended(self, number, delay):
        """Starts a restore and sends it a signal. Returns whether it was still running."""
        process = self.start()
        time.sleep(delay)
        process.send_signal(number)
        process.communicate(timeout=images.TIME_LIMIT)
        return process.returncode != self.DONE

    def save(self, path):
        """Copies the disk to a file."""
        images.sparse_copy(self.disk, path)

    def load(self, path):
        """Gives the disk the bytes of a file, in place: journals know an image file by its inode."""
        images.sparse_copy(path, self.disk)

    def fresh(self):
        self.load(self.untouched)
        shutil.rmtree(os.path.join(self.state, "vorlix"), ignore_errors=True)

    def small_structures(self, path):
        first = self.SLICE.first * 512
        places = {"sector 0": 0, "boot sector": first, "second boot sector": first + self.SLICE.sectors * 512 - 512}
        return {name: samples.read(path, place, 512) for name, place in places.items()}

    def result(self):
        """What must be the same after an undisturbed run and after an interrupted one."""
        copy = self.path("result.img")
        self.save(copy)
        return images.content_hash(copy)

    def check(self):
        """Looks at a complete restore by itself."""

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
        self.save(self.path("kept.img"))
        shutil.copytree(self.state, self.path("kept"), dirs_exist_ok=False)

    def put_back(self):
        self.load(self.path("kept.img"))
        shutil.rmtree(self.state)
        os.rename(self.path("kept"), self.state)
        for place, folders, files in os.walk(self.state):
            self.give(place, *(os.path.join(place, name) for name in folders + files))

    def assert_undone(self, moment):
        # The first of two signals may have come after the end of the restore, so that there are two, undone in turn.
        restores = [folder for folder in self.folders("journals") if self.manifest(folder)["content"] is not None]
        for folder in [*restores, *reversed(self.folders("backups"))]:
            result = self.vorlix_run("undo", os.path.basename(folder))
            self.assertEqual(result.returncode, 0, f"{moment}: {result.stderr}")
        now, before = self.small_structures(self.target), self.small_structures(self.untouched)
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
        wanted = self.result()
        self.check()
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
            self.assertEqual(self.result(), wanted, moment)
            self.check()
            self.assertEqual(self.folders("journals"), [], moment)
        print(f"{KILLS} kills of runs of {takes:.2f} s: " + ", ".join(f"{count} {word}" for word, count in found.items()), flush=True)


class OfImages(Kills, test_restore.RestoreTest):
    SLICE = test_restore.WINDOWS

    def check(self):
        self.assertEqual(self.small_structures(self.target)["boot sector"], self.expected_volume()[:512])


class Images(OfImages):
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


class Wims(Kills, test_wim.WimTest):
    SLICE = test_wim.WINDOWS
    DONE = 1  # a WIM has no code for the boot sector
    OPTIONS = ("--index", "2")

    def setUp(self):
        super().setUp()
        self.wanted_wim = self.wim()
        time.sleep(1 - time.time() % 1)  # some times are whole seconds
        self.began = same_ntfs.now()  # later than the times of all that is in the WIM

    def command(self):
        return [*super().command(), "--scratch", self.scratch]

    def result(self):
        """The hash of all bytes of the disk but for serial numbers and the times of runs."""
        copy = self.path("result.img")
        self.save(copy)
        return same_ntfs.lasting_hash(copy, self.SLICE.first, self.SLICE.sectors, self.began)

    def check(self):
        self.assertEqual(os.listdir(self.scratch), [])
        self.assert_restored(self.wanted_wim, 2, self.path("result.img"))

    def test_wim(self):
        self.sweep(self.wanted_wim)


class OnDevices:
    """Onto a loop device instead of the image file, as root with a state folder of its own."""

    AS_ROOT = True
    OWN_STATE = 'mount --bind "$0" /var/lib && exec "$@"'

    def setUp(self):
        super().setUp()
        device = tools.loop_device(self.disk, 512)
        self.device = device.__enter__()  # pylint: disable=unnecessary-dunder-call
        self.addCleanup(device.__exit__, None, None, None)

    @property
    def target(self):
        return self.device

    def prefix(self):
        return [images.tool("unshare"), "--mount", "sh", "-c", self.OWN_STATE, self.state]

    def save(self, path):
        with open(self.device, "rb") as device, open(path, "wb") as file:
            file.truncate(os.path.getsize(self.disk))
            for at, block in self.blocks(device):
                if block.strip(b"\0"):
                    os.pwrite(file.fileno(), block, at)

    def load(self, path):
        with open(path, "rb") as file, open(self.device, "r+b", buffering=0) as device:
            for at, block in self.blocks(file):
                if os.pread(device.fileno(), len(block), at) != block:
                    os.pwrite(device.fileno(), block, at)
            os.fsync(device.fileno())

    @staticmethod
    def blocks(file):
        at = 0
        while block := file.read(1 << 20):
            yield at, block
            at += len(block)


@unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
class ImagesOnDevices(OnDevices, OfImages):
    def test_raw(self):
        self.sweep(self.image)

    def test_the_same_command_goes_on(self):
        images.run_tool("gzip", "-k", self.image)
        self.source, self.stream = self.image + ".gz", None
        with open(self.source, "rb") as file:
            whole = file.read()
        for device in (self.device, os.path.basename(self.device)):
            with self.subTest(device=device):
                self.fresh()
                os.truncate(self.source, len(whole) * 3 // 4)
                self.vorlix_refuses(*self.command()[len(self.prefix()) + 1 :], saying=["vorlix restore --resume"])
                with open(self.source, "wb") as file:
                    file.write(whole)
                result = self.vorlix_ok("restore", self.source, device, "--partition", 3, "--yes")
                self.assertIn("Going on   restore of", result.stdout)
                self.check()
                self.assertEqual(self.folders("journals"), [])


@unittest.skipUnless(volumes.IS_ROOT, "loop devices need root")
class WimsOnDevices(OnDevices, Wims):
    """WIMs onto devices; the tests are those of image files."""


if __name__ == "__main__":
    images.main()
