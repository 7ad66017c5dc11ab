# SPDX-License-Identifier: Apache-2.0
"""
The scenarios of a `vorlix restore` that puts start files on the EFI System Partition, and of its `undo`.

The files are put there between the volume's content and sector 0, by a change with a journal of its own. One `undo` takes back
both, at any moment.
"""

import json
import os

from support import boot_stores, samples, volumes
from sweep import media, restoring
from sweep.judging import Seen
from sweep.restoring import EFI, SECTOR

EFI_PLACE = (EFI.first * SECTOR, EFI.sectors * SECTOR)
EARLIER_FILES = {"EFI": None, "EFI/Other": None, "EFI/Other/letter.txt": b"dear reader\n" * 100}
TEMPLATE = {
    boot_stores.MANAGER: (boot_stores.TYPE_MANAGER, {0x12000004: "Windows Boot Manager"}),
    boot_stores.LOADER: (boot_stores.TYPE_LOADER, {0x22000002: "\\windows", 0x42000002: "\\system32\\winload.efi"}),
}


def windows_files(folder):
    """The least from which a start by EFI can be made."""
    with open(boot_stores.make_store(os.path.join(folder, "BCD-Template"), TEMPLATE), "rb") as file:
        template = file.read()
    return {
        "Windows/Boot/EFI/bootmgfw.efi": b"boot manager" * 700,
        "Windows/Boot/EFI/en-US/bootmgfw.efi.mui": b"texts",
        "Windows/System32/winload.efi": b"loader",
        "Windows/System32/config/BCD-Template": template,
    }


def is_part(folder):
    """Whether a backup is that of a part of another change."""
    with open(os.path.join(folder, "manifest.json"), encoding="utf-8") as file:
        return bool(json.load(file).get("partOf"))


class RestoreStart(restoring.Restore):
    name = "restore-start"
    share = 0.2  # a run takes several times as long as others
    TOOLS = (*restoring.RESTORE_TOOLS, "mkfs.vfat", "fsck.vfat", "mcopy", "mmd", *boot_stores.NEEDED)

    def prepare(self):
        super().prepare()
        system = volumes.make_fat(self.template + ".efi", 12, "EFI", EFI_PLACE[1])
        volumes.put_tree(system, EARLIER_FILES)
        samples.place(self.template, system, EFI.first)

    def make_source(self):
        super().make_source()
        folder = self.template + ".files"
        os.mkdir(folder)
        volumes.add_to_ntfs(self.image, windows_files(folder))

    def command(self, case, vorlix):
        return [*super().command(case, vorlix), "--start", "both"]

    def look(self, case):
        """The EFI System Partition is looked at by its files."""
        disk = self.disk(case)
        found = super().look(case) | {name: Seen(value) for name, value in self.efi_files(disk).items()}
        ranges = [*restoring.SMALL.values(), restoring.CONTENT, EFI_PLACE]
        return found | {"the rest of the disk": Seen(media.rest_of(disk, ranges))}

    def efi_files(self, disk):
        return media.read_fat(samples.read(disk, *EFI_PLACE))

    def small_structures(self, path):
        return super().small_structures(path) | self.efi_files(path)

    def is_other_way_apart(self, case):
        """A mirror is known by the inode of its folder, so the state cannot be put back."""
        return any(files for _, _, files in os.walk(os.path.join(case.state, "volumes")))

    def other_way(self, case, vorlix):
        return self.give_up(case, vorlix) if self.is_other_way_apart(case) else super().other_way(case, vorlix)

    def candidates(self, case):
        return [folder for folder in super().candidates(case) if not is_part(folder)]


class UndoStart(RestoreStart):
    """One undo of a finished one."""

    name = "restore-start-undo"

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        done = self.run(case, *super().command(case, vorlix))
        if done.returncode == 2:
            raise RuntimeError(f"nothing to undo: {done.stdout}{done.stderr}")
        (self.kept,) = self.candidates(case)

    def command(self, case, vorlix):
        return [vorlix, "undo", os.path.basename(self.kept)]

    def wrong_claims(self, case, run):
        now, before = self.small_structures(self.disk(case)), self.small_structures(self.template)
        return [f"{name} is not as it was before the restore" for name in now.keys() | before.keys()
                if now.get(name) != before.get(name)]

    def says_done(self, run):
        return "no backup of that name" in run.err

    def is_other_way_apart(self, case):
        return False

    def other_way(self, case, vorlix):
        return []


SCENARIOS = (RestoreStart, UndoStart)
