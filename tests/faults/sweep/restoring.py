# SPDX-License-Identifier: Apache-2.0
"""
The scenarios of `vorlix restore`, `backup`, and `undo` of an interrupted restore.

A restore leaves a half-written volume if it is killed, so each point is judged in both directions: the same command again
must end in the bytes of an undisturbed run, and `vorlix undo` must give back the small structures.
"""

import json
import os
import random
import re
import shutil
import subprocess
import time

from support import images, same_ntfs, samples, volumes
from sweep import media
from sweep.judging import Seen
from sweep.scenarios import DISK, Scenario

MIB = 1 << 20
SECTOR = samples.SECTOR
EFI = samples.Slice(1, 40, 2048, samples.EFI_SYSTEM, "EFI System Partition")
WINDOWS = samples.Slice(3, 4096, 9 * 2048, samples.BASIC_DATA, "BOOTCAMP")
DISK_SECTORS = 4096 + 10 * 2048
FIRST = WINDOWS.first * SECTOR
SIZE = WINDOWS.sectors * SECTOR
SMALL = {"sector 0": (0, SECTOR), "boot sector": (FIRST, SECTOR), "second boot sector": (FIRST + SIZE - SECTOR, SECTOR)}
CONTENT = (FIRST + SECTOR, SIZE - 2 * SECTOR)  # all of the slice but the boot sectors
EARLIER = random.Random(5)  # what the slice had before
RESTORE_TOOLS = ("sgdisk", "mkntfs", "ntfscp", "ntfsclone", "gzip")


def make_volume(path):
    """An NTFS volume with a file that cannot be packed, and one of zeros and text."""
    samples.make_ntfs(path, WINDOWS.sectors, "WINDOWS")
    content = path + ".content"
    with open(content, "wb") as file:
        file.write(random.Random(7).randbytes(4 * MIB) + bytes(MIB) + b"text " * 100_000)
    samples.run("ntfscp", "-f", path, content, "file.bin")
    os.remove(content)


def kept_folders(case, kind):
    """The complete journals ("journals"), or the backups of changes that were made ("backups")."""
    folder = os.path.join(case.state, kind)
    names = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
    return [os.path.join(folder, name) for name in names if not name.endswith((".new", ".done"))]


def is_of_restore(folder):
    try:
        with open(os.path.join(folder, "manifest.json"), encoding="utf-8") as file:
            return json.load(file)["content"] is not None
    except OSError:
        return False


class OfVolume(Scenario):
    """A command on a small disk whose slice 3 is a volume."""

    TOOLS = RESTORE_TOOLS
    share = 0.5

    def disk(self, case):
        return case.path("disks", DISK)

    def run(self, case, *arguments):
        return subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=self.seconds,
                              check=False, **case.options())


class Restore(OfVolume):
    """A raw image onto a slice that has something else."""

    name = "restore"
    share = 1.0

    def prepare(self):
        samples.make_disk(self.template, DISK_SECTORS, [EFI, WINDOWS])
        samples.write(self.template, FIRST, EARLIER.randbytes(MIB))
        samples.write(self.template, FIRST + SIZE - MIB, EARLIER.randbytes(MIB))
        self.image = self.template + ".volume"
        make_volume(self.image)
        volumes.add_start_files(self.image, self.template)
        self.make_source()

    def make_source(self):
        """Makes the file that is restored."""
        self.original = self.image

    def source(self, case):
        return case.path("home", "source")

    def set_up(self, case, vorlix):
        images.sparse_copy(self.template, self.disk(case))
        case.give(self.disk(case))
        images.sparse_copy(self.original, self.source(case))
        case.give(self.source(case))

    def command(self, case, vorlix):
        return [vorlix, "restore", self.source(case), self.disk(case), "--partition", "3", "--yes"]

    def look(self, case):
        return media.ranges_of(self.disk(case), {**SMALL, "content": CONTENT})

    def small_structures(self, path):
        return {name: samples.read(path, *place) for name, place in SMALL.items()}

    def counts_as_done(self, run):
        """At the end, the start is checked. What cannot be read then is a finding."""
        return run.end == "exited" and run.status == 1 and "\nRestored " in run.out and "\nMissing " in run.out

    def false_words(self, case, run):
        """What a message about the state of the disk says must be so."""
        found = []
        if "no boot sector yet" in run.err and samples.read(self.disk(case), FIRST, SECTOR).strip(b"\0"):
            found.append('"no boot sector yet", but it has one')
        for name in re.findall(r"(?:--resume|vorlix undo) ([0-9]{8}T\S+?)`", run.err):
            if not any(os.path.basename(folder).startswith(name)
                       for kind in ("journals", "backups") for folder in kept_folders(case, kind)):
                found.append(f"it names {name}, which is not there")
        return found

    def other_way(self, case, vorlix):
        """The medium and the state then are again as they were."""
        if not self.candidates(case):
            return self.give_up(case, vorlix)
        aside, state = case.path("home", "aside"), case.path("home", "state-aside")
        images.sparse_copy(self.disk(case), aside)
        shutil.copytree(case.state, state, copy_function=shutil.copy2)
        found = self.give_up(case, vorlix)
        self.put_back(case, aside, state)
        return found

    def give_up(self, case, vorlix):
        """Undoes the restore: every small structure is as before it. Returns what goes wrong, as texts."""
        candidates = self.candidates(case)
        before = self.small_structures(self.template)
        if not candidates:
            now = self.small_structures(self.disk(case))
            settled = self.is_interrupted_change(case)
            return [f"nothing to undo, but changed: {name}" for name in now.keys() | before.keys()
                    if now.get(name) != before.get(name) and not settled]
        run = self.run(case, vorlix, "undo", candidates[-1])
        now = self.small_structures(self.disk(case))
        different = [name for name in now.keys() | before.keys() if now.get(name) != before.get(name)]
        said = f"exit status {run.returncode}: {run.stderr.strip()[:300]}"
        found = [f"undo ({said}) leaves changed: {', '.join(different)}"] if different else []
        if run.returncode != 0:
            found.append(f"undo: {said}")
        return found

    def candidates(self, case):
        """The folders that can be undone, the newest last."""
        restores = [folder for folder in kept_folders(case, "journals") if is_of_restore(folder)]
        return restores or kept_folders(case, "backups")

    def is_interrupted_change(self, case):
        """Whether a change of the structures can be finished from a journal."""
        return bool(kept_folders(case, "journals"))

    def put_back(self, case, aside, state):
        """Rewrites the disk in place: journals know it by its inode."""
        with open(self.disk(case), "r+b") as file:
            file.truncate(0)
            file.truncate(os.path.getsize(aside))
            with open(aside, "rb") as old:
                for at, page in images.data_pages(old.fileno()):
                    os.pwrite(file.fileno(), page, at)
        shutil.rmtree(case.state)
        shutil.copytree(state, case.state, copy_function=shutil.copy2)
        case.give(case.state)
        shutil.rmtree(state)
        os.remove(aside)


class RestorePacked(Restore):
    name = "restore-gz"
    share = 0.5

    def make_source(self):
        images.run_tool("gzip", "-k", "-n", "-1", self.image)
        self.original = self.image + ".gz"


class RestoreClone(Restore):
    name = "restore-ntfsclone"
    share = 0.5

    def make_source(self):
        self.original = self.image + ".clone"
        images.run_tool("ntfsclone", "--save-image", "-f", "-o", self.original, self.image)


class RestoreBackup(Restore):
    """A folder of `vorlix backup`: zstd frames with a block map."""

    name = "restore-backup"
    share = 0.5

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        image = case.path("home", "volume")
        os.rename(self.source(case), image)
        saved = self.run(case, vorlix, "backup", image, self.source(case))
        if saved.returncode != 0:
            raise RuntimeError(f"no backup to restore: {saved.stderr}")


class RestoreWim(Restore):
    """A WIM of that volume. Each run formats the slice anew, so the serial number and some times differ."""

    name = "restore-wim"
    share = 0.5
    TOOLS = (*RESTORE_TOOLS, "wimcapture")

    def make_source(self):
        self.original = self.image + ".wim"
        images.run_tool("wimcapture", self.image, self.original, "--compress=fast")
        time.sleep(1 - time.time() % 1)  # some times are whole seconds
        self.began = same_ntfs.now()  # later than the times of all that is in the WIM

    def command(self, case, vorlix):
        # The checks at the end would say each time that a WIM has no boot code.
        return [*super().command(case, vorlix), "--start", "none", "--scratch", case.path("tmp")]

    def look(self, case):
        found = super().look(case)
        content = bytearray(samples.read(self.disk(case), FIRST, SIZE))
        content[:SECTOR] = content[-SECTOR:] = bytes(SECTOR)
        lasting = media.digest(same_ntfs.without_times(content, self.began))
        found["content"] = Seen(found["content"].exact, lasting)
        for name in ("boot sector", "second boot sector"):
            found[name] = media.boot_sector(self.disk(case), SMALL[name][0])
        return found


class Resume(RestorePacked):
    """Goes on with a restore whose source could not be read to its end."""

    name = "restore-resume"

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        size = os.path.getsize(self.source(case))
        os.truncate(self.source(case), size * 9 // 10)
        cut = self.run(case, *self.restore(case, vorlix))
        with open(self.original, "rb") as whole, open(self.source(case), "r+b") as file:
            shutil.copyfileobj(whole, file)
        if cut.returncode != 2 or not self.pieces(case):
            raise RuntimeError(f"no interrupted restore: {cut.returncode}: {cut.stdout}{cut.stderr}")

    def restore(self, case, vorlix):
        return super().command(case, vorlix)

    def pieces(self, case):
        """What the journal says is on the medium."""
        (journal,) = kept_folders(case, "journals")
        with open(os.path.join(journal, "pieces.txt"), encoding="ascii") as file:
            return file.read()


class GiveUp(Resume):
    """Undoes that one. What was overwritten of the volume's content is lost."""

    name = "restore-undo"

    def command(self, case, vorlix):
        journals = [folder for folder in kept_folders(case, "journals") if is_of_restore(folder)]
        name = os.path.basename(journals[0]) if journals else "20"
        return [vorlix, "undo", name]

    def wrong_claims(self, case, run):
        now, before = self.small_structures(self.disk(case)), self.small_structures(self.template)
        return [f"{name} is not as it was before the restore" for name in before if now[name] != before[name]]

    def says_done(self, run):
        return "no backup of that name" in run.err

    def other_way(self, case, vorlix):
        return []


class Backup(OfVolume):
    """Saves the volume of a disk."""

    name = "backup"
    share = 1.0
    TOOLS = ("sgdisk", "mkntfs", "ntfscp", "zstd")

    def prepare(self):
        samples.make_disk(self.template, DISK_SECTORS, [EFI, WINDOWS])
        volume = self.template + ".volume"
        make_volume(volume)
        samples.place(self.template, volume, WINDOWS.first)

    def folder(self, case):
        return case.path("out", "backup")

    def set_up(self, case, vorlix):
        images.sparse_copy(self.template, self.disk(case))
        case.give(self.disk(case))

    def command(self, case, vorlix):
        return [vorlix, "backup", self.disk(case) + "s3", self.folder(case)]

    def look(self, case):
        """The backup is one structure: it is there with all its files, or not at all. Those that have paths in them differ
        between cases."""
        found = media.ranges_of(self.disk(case), {})
        tree = media.tree_of(self.folder(case))
        if os.path.isdir(self.folder(case)):
            fixed = ("volume.img.zst", "volume.bmap", "boot-record.bin", "partition-table.bin")
            found["backup"] = Seen(tuple(sorted((name, media.digest(tree[name]) if name in fixed else "there")
                                                for name in tree)))
        return found

    def wrong_claims(self, case, run):
        found = []
        if os.path.lexists(self.folder(case) + ".new"):
            found.append("the folder that it was written in is left over")
        packed = os.path.join(self.folder(case), "volume.img.zst")
        if os.path.isfile(packed):
            unpacked = subprocess.run([images.tool("zstd"), "-dc", packed], capture_output=True, check=False)
            if unpacked.returncode != 0 or unpacked.stdout[:SECTOR] != samples.read(self.template, FIRST, SECTOR):
                found.append("zstd does not unpack the volume")
        return found

    def says_done(self, run):
        return "already exists" in run.err

    def other_way(self, case, vorlix):
        """What stands under the final name is whole, by every hash in it."""
        if not os.path.isdir(self.folder(case)):
            return []
        run = self.run(case, vorlix, "backup", "--verify", self.folder(case))
        return [] if run.returncode == 0 else [f"a backup stands there that is not whole: {run.stdout}{run.stderr}"]

    def durable(self, case):
        files = [os.path.join(self.folder(case), name) for name in media.tree_of(self.folder(case))]
        return files, [self.folder(case), *files]


SCENARIOS = (Restore, RestorePacked, RestoreClone, RestoreBackup, RestoreWim, Resume, GiveUp, Backup)
