# SPDX-License-Identifier: Apache-2.0
"""The commands of a sweep: their media, the structures to compare, and the refusals that are truthful."""

import os
import re
import subprocess

from support import hive, images, samples, volumes
from sweep import media
from sweep.judging import Seen

DISK = "mac.img"
EFI_OFFSET, EFI_SIZE = volumes.EFI_OFFSET, volumes.EFI_SIZE

TREE = {
    "README.TXT": b"a short file\r\n",
    "EFI": None,
    "EFI/Boot": None,
    "EFI/Boot/bootx64.efi": bytes(range(256)) * 80,
    "Old": None,
    "Old/letter.txt": b"dear reader\n" * 500,
}
STORE = "EFI/Microsoft/Boot/BCD"
BOOT_FOLDERS = {**TREE, "EFI/Microsoft": None, "EFI/Microsoft/Boot": None}


class Scenario:
    """One command. prepare() makes the medium that is copied for every run."""

    name = ""
    as_root = False
    share = 1.0  # weight in a sweep that does not run all points
    seconds = 30  # time limit; a run without a fault takes far less than one second
    TOOLS = ("sgdisk", "mkfs.vfat", "fsck.vfat", "mkntfs", "mcopy", "mmd")

    def __init__(self, folder):
        self.template = os.path.join(folder, f"template-{self.name}")

    def prepare(self):
        """Makes the files that are copied for each run."""

    def set_up(self, case, vorlix):
        """Makes a fresh medium in a case, and the other files that the command needs."""

    def command(self, case, vorlix):
        """The arguments of the command."""
        raise NotImplementedError

    def look(self, case):
        """The structures, as {structure: Seen}."""
        raise NotImplementedError

    def wrong_claims(self, case, run):
        """False claims of a success about other things than the structures."""
        return []

    def lost(self, case):
        """What is permanently lost, no matter how the command ended."""
        return []

    def counts_as_done(self, run):
        """Returns whether another exit status than 0 says that all is done; it is then judged as a success."""
        return False

    def false_words(self, case, run):
        """What the message of a failed command says and is not so."""
        return []

    def is_other_way_apart(self, case):
        """Whether other_way() gets a run of its own, because nothing puts back what it changes."""
        return False

    def other_way(self, case, vorlix):
        """Tries another way out than the same command again, and leaves everything as it was, unless it has a run of its
        own. Returns what goes wrong, as texts."""
        return []

    def says_done(self, run):
        """Returns whether a refusal says that the work is already done."""
        return False

    def durable(self, case):
        """(files that the command changed, names that it created): what must survive a power failure."""
        return [case.path("disks", DISK)], []

    def finish(self, case, vorlix):
        """Ends what the command started, such as a mount. Returns what goes wrong, as texts."""
        return []


class OnDisk(Scenario):
    """A command on a copy of a disk image."""

    TREE = TREE

    def prepare(self):
        media.make_mac(self.template, self.TREE)

    def disk(self, case):
        return case.path("disks", DISK)

    def set_up(self, case, vorlix):
        images.sparse_copy(self.template, self.disk(case))
        case.give(self.disk(case))


# ------------------------------------------------------------------------------------------------------- hybrid records


class Hybrid(OnDisk):
    name = "hybrid"
    BOOT_CODE = bytes((7 * place + 3) % 256 for place in range(446))

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        case.file("home", "boot.bin", self.BOOT_CODE)

    def command(self, case, vorlix):
        return [vorlix, "hybrid", self.disk(case), "--boot-code", case.path("home", "boot.bin"), "--partition", "3"]

    def look(self, case):
        return media.hybrid_disk(self.disk(case))


class HybridWithBackup(Hybrid):
    """The same with a backup. The sectors must be in the backup before they change."""

    name = "hybrid-backup"

    def command(self, case, vorlix):
        return [*super().command(case, vorlix), "--backup", case.path("out")]

    def says_done(self, run):  # each run gives the volume a new serial, so a second run has new bytes to save
        return "exists" in run.err

    def lost(self, case):
        first = samples.read(self.template, 0, media.SECTOR)
        if samples.read(self.disk(case), 0, media.SECTOR) == first:
            return []
        for content in media.tree_of(case.path("out")).values():
            if content is not None and first in (content[at : at + media.SECTOR] for at in range(0, len(content), 512)):
                return []
        return ["the backup does not hold the sector 0 that was there"]


# --------------------------------------------------------------------------------------------------------- boot records


class Save(OnDisk):
    """Saves a part of a disk in a new file."""

    def saved(self, case):
        return case.path("out", "saved")

    def look(self, case):
        return media.content_of(self.saved(case)) | media.ranges_of(self.disk(case), {})

    def says_done(self, run):
        return re.search(r"exists", run.err) is not None

    def durable(self, case):
        return [self.saved(case)], [self.saved(case)]


class SaveBootRecord(Save):
    name = "vbr-save"

    def command(self, case, vorlix):
        return [vorlix, "vbr", "save", self.disk(case) + "s3", self.saved(case)]


class SaveBootCode(Save):
    name = "boot-code-save"

    def command(self, case, vorlix):
        return [vorlix, "boot-code", "save", self.disk(case), self.saved(case)]


class RestoreBootRecord(OnDisk):
    name = "vbr-restore"

    def prepare(self):
        super().prepare()
        other = self.template + ".ntfs"
        samples.make_ntfs(other, 16384, "OTHER")
        self.record = media.boot_record(other)

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        case.file("home", "saved.vbr", self.record)

    def command(self, case, vorlix):
        return [vorlix, "vbr", "restore", case.path("home", "saved.vbr"), self.disk(case) + "s3"]

    def look(self, case):
        first = media.WINDOWS.first * media.SECTOR
        return media.ranges_of(self.disk(case), {
            "volume's own parameters": (first, media.PARAMETERS),
            "boot record": (first + media.PARAMETERS, media.BOOT_AREA - media.PARAMETERS),
        })


class Undo(RestoreBootRecord):
    """Taking a restored boot record back from its backup."""

    name = "undo"

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        restore = [*super().command(case, vorlix), "--backup", self.backups(case)]
        subprocess.run(restore, stdin=subprocess.DEVNULL, capture_output=True, timeout=self.seconds, check=True,
                       **case.options())

    def backups(self, case):
        return case.path("home", "saved")

    def command(self, case, vorlix):
        (name,) = os.listdir(self.backups(case))
        return [vorlix, "undo", os.path.join(self.backups(case), name)]


# ----------------------------------------------------------------------------------------------------------- FAT volumes


class OnVolume(OnDisk):
    """A command on the EFI System Partition of a disk."""

    def volume(self, case):
        return self.disk(case) + "s1"

    def look(self, case):
        return media.fat_disk(self.disk(case), EFI_OFFSET, EFI_SIZE)

    def as_user(self, case, *command):
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=self.seconds,
                              check=True, **case.options()).stdout


class NewStore(OnVolume):
    """Creates a boot configuration store on a volume without one. Its device elements fit the mode "standard"."""

    name = "bcd-new"
    share = 0.4  # a run takes twenty times as long as others
    TREE = BOOT_FOLDERS
    ELEMENTS = tuple(place - hive.PARTITION_IN_ELEMENT for place in (10492, 10740, 5828 - 24, 7900 - 24, 9372 - 24))

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        case.file("home", "template", hive.store_with_elements(self.ELEMENTS))

    def command(self, case, vorlix):
        return [vorlix, "bcd", self.disk(case), "--partition", "3", "--template", case.path("home", "template"), "--mode",
                "standard"]


class NewStoreAsRoot(NewStore):
    name = "bcd-new-root"
    as_root = True


class ReplacedStore(NewStore):
    name = "bcd-replaced"
    OLD = hive.store_with_elements(NewStore.ELEMENTS, 8 * hive.PAGE)
    TREE = {**BOOT_FOLDERS, STORE: OLD}


class ReplacedStoreAsRoot(ReplacedStore):
    name = "bcd-replaced-root"
    as_root = True


class Mount(OnVolume):
    """Mounting must not change the volume. The printed folder must hold all files, and unmounting must succeed."""

    name = "mount"

    def command(self, case, vorlix):
        return [vorlix, "mount", self.volume(case)]

    def look(self, case):
        return media.ranges_of(self.disk(case), {})

    def wrong_claims(self, case, run):
        found = media.tree_of(run.out.removesuffix("\n"))
        return [] if found == self.TREE else [f"the folder {run.out!r} does not hold the volume's files"]

    def durable(self, case):
        return [], []

    def finish(self, case, vorlix):
        done = subprocess.run([vorlix, "unmount", self.volume(case)], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=self.seconds, check=False, **case.options())
        return [] if done.returncode == 0 else [f"unmount afterwards: {done.stderr.strip()}"]


class Unmount(OnVolume):
    """Unmounting a volume without changes must not write to it."""

    name = "unmount"

    def set_up(self, case, vorlix):
        super().set_up(case, vorlix)
        folder = self.as_user(case, vorlix, "mount", self.volume(case)).removesuffix("\n")
        self.change(case, folder)

    def change(self, case, folder):
        pass

    def command(self, case, vorlix):
        return [vorlix, "unmount", self.volume(case)]

    def look(self, case):
        return media.ranges_of(self.disk(case), {})

    def says_done(self, run):
        return "not mounted" in run.err

    def durable(self, case):
        return [], []


class UnmountWithChanges(Unmount):
    """Unmounts a volume with one changed, one new and one removed file."""

    name = "unmount-changes"

    def change(self, case, folder):
        changes = {"README.TXT": b"another text\r\n" * 300, "EFI/new.efi": bytes(range(255)) * 100}
        for path, content in changes.items():
            self.as_user(case, "cp", "--no-preserve=all", case.file("home", "change", content), os.path.join(folder, path))
        self.as_user(case, "rm", os.path.join(folder, "Old/letter.txt"))

    def look(self, case):
        return OnVolume.look(self, case)

    def durable(self, case):
        return [self.disk(case)], []


# ----------------------------------------------------------------------------------------------------------- legacy start


class LegacyBoot(Scenario):
    """Copies the files of legacy start in a folder. Each copied item must be there completely or not at all."""

    name = "legacy-boot"
    TOOLS = ()
    WINDOWS = {
        "Windows": None,
        "Windows/Boot": None,
        "Windows/Boot/PCAT": None,
        "Windows/Boot/PCAT/bootmgr": b"boot manager" * 3000,
        "Windows/Boot/PCAT/memtest.exe": b"memory test",
        "Windows/Boot/PCAT/de-DE": None,
        "Windows/Boot/PCAT/de-DE/bootmgr.exe.mui": b"Meldungen",
        "Windows/Boot/Fonts": None,
        "Windows/Boot/Fonts/wgl4_boot.ttf": bytes(5000),
        "pagefile.sys": b"left alone",
    }
    COPIES = ("boot/Fonts", "boot/BCD", "boot", "bootmgr")  # an item inside another one comes first
    ASIDE = "vorlix-legacy-boot.new"  # the temporary folder for the copies

    def volume(self, case):
        return case.path("disks", "volume")

    def set_up(self, case, vorlix):
        for path, content in {"": None, **self.WINDOWS}.items():
            target = os.path.join(self.volume(case), path)
            if content is None:
                os.mkdir(target)
            else:
                with open(target, "wb") as file:
                    file.write(content)
        case.give(self.volume(case))
        case.file("home", "store", hive.store_with_elements(NewStore.ELEMENTS))

    def command(self, case, vorlix):
        return [vorlix, "legacy-boot", self.volume(case), "--bcd", case.path("home", "store")]

    def look(self, case):
        found = {}
        for path, content in media.tree_of(self.volume(case)).items():
            if path.split("/")[0] == self.ASIDE:  # Windows ignores it; a success must remove it
                continue
            structure = next((copy for copy in self.COPIES if path == copy or path.startswith(copy + "/")), path)
            value = "folder" if content is None else media.digest(content)
            found.setdefault(structure, []).append((path, value))
        return {structure: Seen(tuple(sorted(content))) for structure, content in found.items()}

    def wrong_claims(self, case, run):
        is_there = os.path.lexists(os.path.join(self.volume(case), self.ASIDE))
        is_told = "the next run tries again" in run.err
        return [f"{self.ASIDE} is left over, and nothing is said of it"] if is_there and not is_told else []

    def durable(self, case):
        new = [path for path in media.tree_of(self.volume(case)) if path.split("/")[0] in ("boot", "bootmgr")]
        names = [os.path.join(self.volume(case), path) for path in new]
        return [name for name in names if os.path.isfile(name)], names


SCENARIOS = (Hybrid, HybridWithBackup, SaveBootRecord, RestoreBootRecord, Undo, SaveBootCode, NewStore, ReplacedStore,
             NewStoreAsRoot, ReplacedStoreAsRoot, Mount, Unmount, UnmountWithChanges, LegacyBoot)
