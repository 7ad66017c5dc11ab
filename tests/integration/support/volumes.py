# SPDX-License-Identifier: Apache-2.0
"""Shared code of the tests of mounting: an ordinary user with a private mount folder, and FAT volumes by mtools."""

import atexit
import functools
import glob
import importlib.machinery
import importlib.util
import os
import shutil
import subprocess
import sys
import tempfile
import time

from support import hive, images, samples, sparse

IS_ROOT = os.geteuid() == 0
ROOT_MOUNTS = "/run/vorlix"
ROOT_STATE = "/var/lib/vorlix"
MIRROR_STATES = ".mirrors"
OTHERS_ARE_DONE_AFTER = 60  # seconds

# Sizes that give each width of FAT, and mkfs.vfat's options for it. FAT32 has at least 65525 clusters.
FAT_KINDS = {12: (2 << 20, ()), 16: (16 << 20, ()), 32: (40 << 20, ("-s", "1"))}

# A Mac with Windows: EFI System Partition, another volume, the Windows volume.
EFI = samples.Slice(1, 40, 32768, samples.EFI_SYSTEM, "EFI System Partition")
APPLE = samples.Slice(2, 32808, 4096, samples.APPLE_APFS, "Macintosh HD")
WINDOWS = samples.Slice(3, 36904, 16384, samples.BASIC_DATA, "BOOTCAMP")
DISK_SECTORS = 53400


def missing(*names):
    """The names of the missing tools, as the reason for a skip."""
    return ", ".join(name for name in names if samples.tool(name) is None)


def strace(*options):
    """The words that run a command under strace. They turn off the leak detector, which would also trace the process."""
    without_leaks = ["-E", "LSAN_OPTIONS=detect_leaks=0"] if images.SANITIZED else []
    return ["strace", "-qq", *without_leaks, *options]


def user_prefix():
    """The words before a command that make it run as an ordinary user."""
    if not IS_ROOT:
        return []
    user = str(images.NOBODY)
    return [images.tool("setpriv"), "--reuid", user, "--regid", user, "--clear-groups", "--no-new-privs"]


@functools.lru_cache(maxsize=None)
def command_for_user(command):
    """Path of the command line for an ordinary user: the original, or if the user cannot reach it, a copy with its
    companion."""
    # Runs through env, as the tests do: the program that changes the user may still reach a folder that the user
    # cannot reach.
    if subprocess.run([*user_prefix(), "env", command, "--version"], capture_output=True, check=False).returncode == 0:
        return command
    folder = tempfile.mkdtemp(prefix="vorlix-command-")
    atexit.register(shutil.rmtree, folder)
    os.chmod(folder, 0o755)
    return copy_command(command, folder)


def copy_command(command, folder):
    """Copies the command line, its modules and the folder tools/bin beside it. Returns the copy's path."""
    for companions in (os.path.join(os.path.dirname(command), "tools"), *glob.glob(os.path.dirname(command) + "/vorlix-[0-9]*")):
        if os.path.isdir(companions):
            shutil.copytree(companions, os.path.join(folder, os.path.basename(companions)))
    return shutil.copy(command, folder)


def region_hash(path, first, count):
    """Digest of `count` bytes from offset `first` on."""
    return sparse.digest(path, first, count)


# --------------------------------------------------------------------------------------------------------- FAT volumes


def mtools(name, image, *arguments, offset=0):
    """Runs one of the mtools on the FAT volume at a byte offset of an image. Returns its standard output as bytes."""
    environment = {"PATH": images.SYSTEM_PATH, "LC_ALL": "C.UTF-8", "MTOOLS_SKIP_CHECK": "1", "HOME": "/nonexistent"}
    command = [images.tool(name), "-i", f"{image}@@{offset}", *map(str, arguments)]
    result = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                            check=False)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.stderr.decode(errors='replace')}")
    return result.stdout


def set_label(image, new, old):
    """Replaces a label that mkfs.vfat wrote with bytes that no tool would write."""
    with open(image, "rb+") as file:
        content = file.read()
        label = old.ljust(11)
        at = content.find(label)
        while at >= 0:
            os.pwrite(file.fileno(), new.ljust(11), at)
            at = content.find(label, at + len(label))
    return image


def make_fat(path, bits=16, label=None, size=None):
    """Makes a sparse file with an empty FAT volume by mkfs.vfat."""
    usual, options = FAT_KINDS[bits]
    with open(path, "xb") as volume:
        volume.truncate(size or usual)
    naming = ("-n", label) if label else ()
    images.run_tool("mkfs.vfat", "-F", bits, *options, *naming, path)
    return path


def put_tree(image, tree, offset=0):
    """
    Fills a FAT volume: {relative path: bytes, or None for a folder}; a folder precedes its content.

    One process makes the folders, and one more the files of each.
    """
    folders = [f"::/{path}" for path, content in tree.items() if content is None]
    if folders:
        mtools("mmd", image, *folders, offset=offset)
    files = {}
    for path, content in tree.items():
        if content is not None:
            files.setdefault(os.path.dirname(path), {})[os.path.basename(path)] = content
    for place, contents in files.items():
        with tempfile.TemporaryDirectory(prefix="vorlix-tree-") as work:
            sources = []
            for name, content in contents.items():
                # FAT counts the letters of a name, this file system their bytes.
                sources.append(os.path.join(work, name if len(os.fsencode(name)) < 256 else "long"))
                with open(sources[-1], "wb") as file:
                    file.write(content)
                if os.path.basename(sources[-1]) != name:
                    mtools("mcopy", image, sources.pop(), f"::/{place}/{name}", offset=offset)
            if sources:
                mtools("mcopy", image, *sources, f"::/{place}", offset=offset)


def read_tree(image, offset=0):
    """The content of a FAT volume, in the form of put_tree()."""
    with tempfile.TemporaryDirectory(prefix="vorlix-tree-") as folder:
        mtools("mcopy", image, "-s", "-n", "-Q", "::/", folder, offset=offset)
        return folder_tree(folder)


def folder_tree(folder):
    """The content of a folder, in the form of put_tree()."""
    tree = {}
    for place, folders, files in os.walk(folder):
        relative = os.path.relpath(place, folder)
        for name in folders:
            tree[os.path.normpath(os.path.join(relative, name))] = None
        for name in files:
            with open(os.path.join(place, name), "rb") as file:
                tree[os.path.normpath(os.path.join(relative, name))] = file.read()
    return tree


@functools.lru_cache(maxsize=None)
def ntfs_mkdir():
    """The script tools/dev/ntfs_mkdir as a module: a process of its own takes longer to start than to make the folders."""
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../tools/dev/ntfs_mkdir")
    loader = importlib.machinery.SourceFileLoader("ntfs_mkdir", script)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("ntfs_mkdir", loader))
    loader.exec_module(module)
    return module


def add_to_ntfs(path, tree):
    """Adds a tree in the form of put_tree() to an NTFS volume in a file, by ntfs_mkdir and ntfscp."""
    folders = {name for name, content in tree.items() if content is None}
    folders |= {os.path.dirname(name) for name, content in tree.items() if content is not None} - {""}
    environment = {**os.environ, "LC_ALL": "C.UTF-8"}
    if folders and (status := ntfs_mkdir().main([path, *sorted(folders)])) != 0:
        raise AssertionError(f"ntfs_mkdir {path} ended with {status}")
    for name, content in tree.items():
        if content is None:
            continue
        with tempfile.NamedTemporaryFile(prefix="vorlix-tree-") as source:
            source.write(content)
            source.flush()
            subprocess.run([images.tool("ntfscp"), "-q", "-f", path, source.name, name], env=environment, check=True,
                           capture_output=True, timeout=60)


def add_start_files(volume, disk, number=3):
    """Gives an NTFS volume the files of a BIOS start: a boot manager, and a store that names slice `number` of the disk."""
    entry = samples.read(disk, 2 * samples.SECTOR + 128 * (number - 1), 128)
    store = hive.store_naming((entry[16:32], samples.read(disk, samples.SECTOR + 56, 16)))
    add_to_ntfs(volume, {"bootmgr": b"loader", "Boot/BCD": store})


def make_ntfs(path, size, tree, start=2048, sector_size=512):
    """
    Makes a file with an NTFS volume by mkntfs, ntfs_mkdir and ntfscp, with boot code, filled with a tree in the form of
    put_tree().
    """
    with open(path, "wb") as volume:
        volume.truncate(size)
    images.run_tool("mkntfs", "-F", "-f", "-q", "-s", sector_size, "-p", start, "-H", "255", "-S", "63", path)
    samples.put_boot_code(path)
    add_to_ntfs(path, tree)
    return path


def check_fat(image, offset=0, size=None):
    """fsck.vfat finds nothing wrong in a copy of the volume; it cannot read a volume inside a larger image."""
    with tempfile.NamedTemporaryFile(prefix="vorlix-fsck-") as copy:
        sparse.copy(image, copy.name, offset, size)
        images.run_tool("fsck.vfat", "-n", copy.name)


@functools.lru_cache(maxsize=None)
def template_folder():
    folder = tempfile.mkdtemp(prefix="vorlix-templates-")
    atexit.register(shutil.rmtree, folder)
    return folder


@functools.lru_cache(maxsize=None)
def partitioned_disk():
    path = os.path.join(template_folder(), "disk.img")
    samples.make_disk(path, DISK_SECTORS, (EFI, APPLE, WINDOWS))
    return path


@functools.lru_cache(maxsize=None)
def mac_template(tree, efi_bits):
    """The disk of make_mac(), made once because sgdisk takes a second."""
    number = mac_template.cache_info().currsize
    path = os.path.join(template_folder(), f"{number}.img")
    images.sparse_copy(partitioned_disk(), path)
    volume = f"{path}.efi"
    make_fat(volume, efi_bits, "EFI", EFI.sectors * samples.SECTOR)
    put_tree(volume, dict(tree))
    samples.place(path, volume, EFI.first)
    os.remove(volume)
    samples.write(path, APPLE.first * samples.SECTOR, b"Macintosh HD" * 1000)
    return path


def make_mac(path, efi_tree=None, efi_bits=16):
    """Makes a disk image with three slices. Slice 1 holds a FAT volume with a tree, slice 2 recognisable bytes."""
    images.sparse_copy(mac_template(tuple((efi_tree or {}).items()), efi_bits), path)
    return path


EFI_OFFSET = EFI.first * samples.SECTOR
EFI_SIZE = EFI.sectors * samples.SECTOR


def hash_outside_efi(path):
    """Digest of a disk image without slice 1."""
    end = EFI_OFFSET + EFI_SIZE
    return region_hash(path, 0, EFI_OFFSET), region_hash(path, end, os.path.getsize(path) - end)


# ------------------------------------------------------------------------------------------------------------ the tests


class VolumeTest(images.CommandTest):
    """Runs the command line as an ordinary user with a private mount folder; as root if the class requires it."""

    AS_ROOT = False

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if not cls.AS_ROOT:
            cls.vorlix = command_for_user(cls.vorlix)

    def setUp(self):
        super().setUp()
        os.chmod(self.folder, 0o755)
        self.give(self.folder)
        self.state = self.path("state")
        os.mkdir(self.state, 0o700)
        self.give(self.state)
        self.mounted_before = self.mounted_folders()

    def give(self, *paths):
        """Makes the user the owner of files."""
        if IS_ROOT and not self.AS_ROOT:
            for path in paths:
                os.chown(path, images.NOBODY, images.NOBODY)
        return paths[0]

    def file(self, name, content, mode=0o644):
        """Makes a file that the user owns."""
        path = self.path(name)
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, mode)
        return self.give(path)

    def prefix(self):
        if self.AS_ROOT:
            return ()
        return (*user_prefix(), "env", f"XDG_STATE_HOME={self.state}")

    def vorlix_run(self, *arguments, **options):
        options.setdefault("prefix", self.prefix())
        return super().vorlix_run(*arguments, **options)

    def vorlix_refuses(self, *arguments, saying=()):
        """The command ends with status 2 and one message with all the texts `saying`. Returns the message."""
        result = self.vorlix_run(*arguments)
        self.assertEqual(result.returncode, 2, f"{arguments}: {result.stdout}{result.stderr}")
        for words in saying:
            self.assertIn(words, result.stderr, arguments)
        return result.stderr

    def as_user(self, *command):
        """Runs another program as the user of the command line."""
        return subprocess.run([*self.prefix(), *map(str, command)], stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=60, check=True)

    def mount(self, device, *options):
        """Mounts and returns the folder, which must be the only output."""
        output = self.vorlix_ok("mount", device, *options).stdout
        folder = output.removesuffix("\n")
        self.assertEqual(output, folder + "\n")
        self.assertTrue(os.path.isabs(folder), folder)
        self.assertTrue(os.path.isdir(folder), folder)
        return folder

    def mounted_folders(self):
        """Folders where volumes are mounted, and stored data of mirrors."""
        mirrors = os.path.join(ROOT_STATE if self.AS_ROOT else os.path.join(self.state, "vorlix"), "volumes")
        found = set()
        for folder in (mirrors, os.path.join(mirrors, MIRROR_STATES), *([ROOT_MOUNTS] if self.AS_ROOT else [])):
            if os.path.isdir(folder):
                found |= {os.path.join(folder, name) for name in os.listdir(folder) if name != MIRROR_STATES}
        return found

    def assert_nothing_mounted(self):
        if not self.AS_ROOT:
            self.assertEqual(self.mounted_folders(), self.mounted_before)
            return
        # All volumes of root are in one folder, where other tests mount theirs at the same time. Wait for those tests.
        left = self.mounted_folders() - self.mounted_before
        end = time.monotonic() + OTHERS_ARE_DONE_AFTER
        while left and time.monotonic() < end:
            time.sleep(0.05)
            left &= self.mounted_folders()
        self.assertEqual(left, set())
