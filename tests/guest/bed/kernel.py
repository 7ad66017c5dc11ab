# SPDX-License-Identifier: Apache-2.0
"""The distribution's kernel: its package is downloaded and unpacked in a cache folder, never installed."""

import json
import os
import platform
import re
import shutil
import subprocess
import tempfile
from dataclasses import dataclass

META_PACKAGE = "linux-image-amd64"

# The modules that the guest needs for the host's files, the disks and their volumes. The kernel would load the code pages
# and ext4's checksum by modprobe, which the guest does not have, so they are listed too.
WANTED_MODULES = ("virtio_pci", "virtio_blk", "9p", "9pnet_virtio", "overlay", "loop", "fuse", "vfat", "exfat",
                  "hfsplus", "ext4", "crc32c_generic", "nls_cp437", "nls_iso8859-1", "nls_ascii", "nls_utf8")

_DECOMPRESSORS = {".xz": ("xz", "-dc"), ".zst": ("zstd", "-dc"), ".gz": ("gzip", "-dc")}


class Unavailable(Exception):
    """The host cannot get what the guest needs. The text is a reason for users."""


@dataclass(frozen=True)
class Kernel:
    package: str  # name_version_architecture
    release: str  # as printed by uname -r
    image: str  # path of vmlinuz
    modules: tuple[str, ...]  # paths in loading order


def _apt(command, options, *arguments, **keywords):
    return subprocess.run([command, *options, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, check=False, env={**os.environ, "LC_ALL": "C"}, **keywords)


class _Archive:
    """The package archive, with the package lists of the system or of the cache folder."""

    def __init__(self, options=()):
        # Lets root download into a folder of root. Otherwise apt warns that its sandbox user cannot write there.
        self.options = (*options, "-q", "-o", "APT::Sandbox::User=root")

    @classmethod
    def with_own_lists(cls, folder):
        """Downloads the package lists to `folder`. That needs no root and does not change the system's lists."""
        for sub_folder in ("lists/partial", "archives/partial"):
            os.makedirs(os.path.join(folder, sub_folder), exist_ok=True)
        archive = cls(("-o", f"Dir::State::lists={folder}/lists", "-o", f"Dir::Cache={folder}",
                       "-o", f"Dir::Cache::archives={folder}/archives"))
        result = _apt("apt-get", archive.options, "-o", "Acquire::Languages=none", "update")
        if result.returncode != 0:
            raise Unavailable(f"apt-get update failed: {_last_line(result.stderr)}")
        return archive

    def newest(self):
        """Name of the package on which the meta package depends."""
        result = _apt("apt-cache", self.options, "--important", "depends", META_PACKAGE)
        found = re.search(r"Depends: (linux-image-\S+)", result.stdout)
        if not found:
            raise Unavailable(f"apt knows no {META_PACKAGE}: {_last_line(result.stderr) or 'no such package'}")
        return found.group(1)

    def file_name(self, package):
        result = _apt("apt-get", self.options, "--print-uris", "download", package)
        found = re.search(r"' (\S+\.deb) ", result.stdout)
        if not found:
            raise Unavailable(f"apt has no address for {package}: {_last_line(result.stderr)}")
        return found.group(1)

    def download(self, package, folder):
        result = _apt("apt-get", self.options, "download", package, cwd=folder)
        if result.returncode != 0:
            raise Unavailable(f"apt-get download {package} failed: {_last_line(result.stderr)}")


def _last_line(text):
    lines = [line for line in text.splitlines() if line.strip()]
    return lines[-1] if lines else ""


def _module_name(path):
    return re.sub(r"\.ko(\.\w+)?$", "", os.path.basename(path)).replace("-", "_")


def _read_module(path):
    decompressor = _DECOMPRESSORS.get(os.path.splitext(path)[1])
    if decompressor:
        return subprocess.run([*decompressor, path], stdout=subprocess.PIPE, check=True).stdout
    with open(path, "rb") as file:
        return file.read()


def _dependencies(module):
    """Dependencies of a module, from the module itself: the package lacks modules.dep, which depmod would create."""
    found = re.search(rb"\0depends=([^\0]*)\0", module)
    names = found.group(1).decode("ascii") if found else ""
    return [name.replace("-", "_") for name in names.split(",") if name]


def load_order(folder, wanted):
    """The wanted modules and their dependencies as {name: content}, dependencies first."""
    files = {}
    for parent, _, names in os.walk(os.path.join(folder, "kernel")):
        files.update({_module_name(name): os.path.join(parent, name) for name in names if ".ko" in name})
    with open(os.path.join(folder, "modules.builtin"), encoding="ascii") as builtin:
        built_in = {_module_name(line.strip()) for line in builtin}
    order = {}

    def add(name):
        if name in order or name in built_in:
            return
        if name not in files:
            raise FileNotFoundError(f"the kernel package has no module {name}")
        content = _read_module(files[name])
        for dependency in _dependencies(content):
            add(dependency)
        order[name] = content

    for name in wanted:
        add(name.replace("-", "_"))
    return order


def _unpack(package_file, folder):
    """Fills `folder` with the kernel image, the modules that the guest needs, and a list of these files."""
    with tempfile.TemporaryDirectory(dir=os.path.dirname(folder)) as whole:
        subprocess.run(["dpkg-deb", "-x", package_file, whole], check=True)
        modules_folder = next(path for path in (os.path.join(whole, "lib/modules"), os.path.join(whole, "usr/lib/modules"))
                              if os.path.isdir(path))
        (release,) = os.listdir(modules_folder)
        shutil.copy(os.path.join(whole, "boot", f"vmlinuz-{release}"), os.path.join(folder, "vmlinuz"))
        order = load_order(os.path.join(modules_folder, release), WANTED_MODULES)
        for name, content in order.items():
            with open(os.path.join(folder, f"{name}.ko"), "wb") as file:
                file.write(content)
        with open(os.path.join(folder, "contents.json"), "w", encoding="utf-8") as file:
            json.dump({"release": release, "wanted": WANTED_MODULES, "order": list(order)}, file)


def _cached(folder):
    """The kernel in a cache folder; None if there is none with all the modules that are wanted now."""
    try:
        with open(os.path.join(folder, "contents.json"), encoding="utf-8") as file:
            contents = json.load(file)
    except FileNotFoundError:
        return None
    if tuple(contents["wanted"]) != WANTED_MODULES:
        return None
    return Kernel(os.path.basename(folder), contents["release"], os.path.join(folder, "vmlinuz"),
                  tuple(os.path.join(folder, f"{name}.ko") for name in contents["order"]))


def _fetch_from(archive, cache):
    package = archive.newest()
    file_name = archive.file_name(package)
    folder = os.path.join(cache, file_name.removesuffix(".deb"))
    kernel = _cached(folder)
    if kernel:
        return kernel
    with tempfile.TemporaryDirectory(dir=cache) as work:
        archive.download(package, work)
        (package_file,) = os.listdir(work)
        unpacked = os.path.join(work, "unpacked")
        os.mkdir(unpacked)
        _unpack(os.path.join(work, package_file), unpacked)
        shutil.rmtree(folder, ignore_errors=True)
        os.rename(unpacked, folder)
    return _cached(folder)


def _any_cached(cache):
    folders = sorted((entry.path for entry in os.scandir(cache) if entry.name.startswith("linux-image-")),
                     key=os.path.getmtime, reverse=True)
    return next((kernel for kernel in map(_cached, folders) if kernel), None)


def fetch_kernel(cache):
    """
    Returns the newest kernel of the distribution. If the system's package lists are missing or outdated, downloads lists
    to the cache folder. If the archive cannot be reached, returns the last downloaded kernel. Raises Unavailable if there
    is none either.
    """
    if platform.machine() != "x86_64":
        raise Unavailable(f"the guest runs the host's programs and needs an x86-64 host, not {platform.machine()}")
    for tool in ("apt-get", "apt-cache", "dpkg-deb"):
        if not shutil.which(tool):
            raise Unavailable(f"{tool} is missing, which is needed to download the distribution's kernel")
    os.makedirs(cache, exist_ok=True)
    try:
        return _fetch_from(_Archive(), cache)
    except Unavailable:
        pass
    try:
        return _fetch_from(_Archive.with_own_lists(os.path.join(cache, "apt")), cache)
    except Unavailable as reason:
        kernel = _any_cached(cache)
        if not kernel:
            raise
        print(f"guest: {reason}; using the last downloaded kernel")
        return kernel
