# SPDX-License-Identifier: Apache-2.0
"""
Computes from a command's calls what a power failure right after its end would lose.

The rules are the kernel's. Bytes are on the medium if their file was synced after they were written. A name is on the
medium if its folder was synced after the name was created. A failed sync loses the unsynced bytes: later syncs succeed
without them, so they must be written again.
"""

import collections
import os

from sweep import tracing

EVERYTHING = (0, 1 << 63)
NAMING = {"rename", "renameat", "renameat2", "link", "linkat", "symlink", "symlinkat", "mkdir", "mkdirat"}
RENAMING = {"rename", "renameat", "renameat2"}
LINKING = {"link", "linkat"}
REMOVING = {"unlink", "unlinkat", "rmdir"}
DELETED = " (deleted)"  # the end of a nameless file's path


def without(extents, taken):
    """The parts of extents (start, end) that are not in `taken`."""
    left = []
    for start, end in extents:
        if start < taken[0]:
            left.append((start, min(end, taken[0])))
        if end > taken[1]:
            left.append((max(start, taken[1]), end))
    return [extent for extent in left if extent[0] < extent[1]]


class Files:
    """The bytes and names that were written and are not on the medium yet, by path."""

    def __init__(self):
        self.unsynced = collections.defaultdict(list)
        self.lost = collections.defaultdict(list)
        self.names = set()

    def write(self, path, extent):
        self.lost[path] = without(self.lost[path], extent)
        self.unsynced[path].append(extent)

    def sync(self, path, succeeded):
        if not succeeded:
            self.lost[path] += self.unsynced[path]
        else:
            self.names = {name for name in self.names if os.path.dirname(name) != path}
        self.unsynced[path] = []

    def sync_all(self, succeeded):
        for path in list(self.unsynced):
            self.sync(path, succeeded)
        if succeeded:
            self.names = set()

    def move(self, old, new):
        for kept in (self.unsynced, self.lost):
            below = old + "/"
            for path in [path for path in kept if path == old or path.startswith(below)]:
                kept[new + path[len(old) :]] = kept.pop(path)
        self.names = {new + name[len(old) :] if name == old or name.startswith(old + "/") else name for name in self.names}

    def forget(self, path):
        self.unsynced.pop(path, None)
        self.lost.pop(path, None)
        self.names.discard(path)

    def unnamed(self, folder):
        """The nameless file in a folder that was written last."""
        found = [path for path in self.unsynced if path.endswith(DELETED) and os.path.dirname(path) == folder]
        return found[-1] if found else None


def follow(calls):
    """The unsynced state of files after all calls."""
    files = Files()
    for call in calls:
        succeeded = call.result is not None and call.result >= 0
        if call.name in ("fsync", "fdatasync"):
            files.sync(call.file, succeeded)
        elif call.name == "syncfs":
            files.sync_all(succeeded)
        elif not succeeded:
            continue
        elif call.name in tracing.WRITES:
            known = call.offset >= 0
            files.write(call.file, (call.offset, call.offset + call.result) if known else EVERYTHING)
        elif call.name in ("ftruncate", "truncate", "fallocate"):
            files.write(call.file, EVERYTHING)
        elif call.creates:
            # An open with O_CREAT may find an existing file, whose folder needs no sync. missing() therefore counts
            # only names that the command created.
            files.names.add(call.file)
        elif call.name in NAMING:
            if call.name in RENAMING:
                files.forget(call.file)
                files.move(call.other, call.file)
            elif call.name in LINKING:
                unnamed = files.unnamed(os.path.dirname(call.file)) if call.other.startswith("/proc/") else call.other
                if unnamed:
                    files.move(unnamed, call.file)
            files.names.add(call.file)
        elif call.name in REMOVING:
            files.forget(call.file)
    return files


def missing(calls, changed_files, new_names):
    """Describes what of a command's result is not on the medium: bytes of files that it changed, and names that it
    created."""
    files = follow(calls)
    found = []
    for path in changed_files:
        if files.lost[path]:
            found.append(f"{path}: a sync failed, and what it lost was not written again")
        if files.unsynced[path]:
            found.append(f"{path}: written and not synced")
    return found + [f"{path}: its folder was not synced after it got this name" for path in new_names if path in files.names]
