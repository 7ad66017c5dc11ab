# SPDX-License-Identifier: Apache-2.0
"""
A driver in user space, spoken to over /dev/fuse: its volume is one empty folder, mounted from whatever name it is told.
It can do something of the test's choice in the middle of a request. The messages are those of linux/fuse.h.
"""

import contextlib
import ctypes
import errno
import os
import stat
import struct
import threading

FREE_BLOCKS, BLOCKS, BLOCK_SIZE = 1000, 4096, 512

GETATTR, STATFS, INIT, OPENDIR, READDIR, RELEASEDIR = 3, 17, 26, 27, 28, 29
_LOOKUP = 1
_UNANSWERED = (2, 36, 42)  # FORGET, INTERRUPT, BATCH_FORGET
_MAJOR, _MINOR = 7, 23
_LARGEST = 1 << 16
_MNT_DETACH = 2

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))


def unmount(path, flags=0):
    """umount2(2): no other program is run."""
    _check(_libc.umount2(os.fsencode(path), flags))


def _init():
    # major, minor, read ahead, flags, background, congestion, largest write, time granularity, pages, alignment, unused
    return struct.pack("<IIIIHHIIHH8I", _MAJOR, _MINOR, 0, 0, 0, 0, 4096, 1, 0, 0, *[0] * 8)


def _attributes():
    root = struct.pack("<6Q10I", 1, 0, 0, 0, 0, 0, 0, 0, 0, stat.S_IFDIR | 0o755, 2, 0, 0, 0, BLOCK_SIZE, 0)
    return struct.pack("<QII", 0, 0, 0) + root  # the answer is valid for no time


def _sizes():
    return struct.pack("<5Q4I6I", BLOCKS, FREE_BLOCKS, FREE_BLOCKS, 1, 0, BLOCK_SIZE, 255, BLOCK_SIZE, 0, *[0] * 6)


_ANSWERS = {INIT: _init, GETATTR: _attributes, STATFS: _sizes, OPENDIR: lambda: bytes(16), READDIR: bytes,
            RELEASEDIR: bytes}


class Driver:
    """Mounts its volume and serves it in a thread of its own until close()."""

    def __init__(self, source, point):
        self.point = point
        self.requests = []
        self.failure = None  # what went wrong in an action, or in hearing requests
        self._actions = {}
        self._left = False
        self._device = os.open("/dev/fuse", os.O_RDWR)
        options = f"fd={self._device},rootmode=40000,user_id=0,group_id=0"
        _check(_libc.mount(source.encode(), os.fsencode(point), b"fuse", 0, options.encode()))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def once(self, request, action):
        """Runs `action` before the next request of this kind is answered."""
        self._actions[request] = action

    def leave(self):
        """As an action: the driver ends without an answer, and its volume stays mounted."""
        self._left = True

    def close(self):
        with contextlib.suppress(OSError):  # gone already
            unmount(self.point, _MNT_DETACH)
        self._thread.join()

    def _serve(self):
        try:
            while not self._left:
                self._take(os.read(self._device, _LARGEST))
        except OSError as error:
            if error.errno != errno.ENODEV:  # unmounted
                self.failure = error
        os.close(self._device)

    def _take(self, message):
        _, request, number = struct.unpack_from("<IIQ", message)
        self.requests.append(request)
        if request in _UNANSWERED:
            return
        action = self._actions.pop(request, None)
        if action:
            try:
                action()
            except OSError as error:
                self.failure = error
        answer = _ANSWERS.get(request)
        if self._left:
            return
        if answer:
            self._answer(number, 0, answer())
        else:
            self._answer(number, errno.ENOENT if request == _LOOKUP else errno.ENOSYS)

    def _answer(self, number, error, content=b""):
        with contextlib.suppress(OSError):  # who asked is gone
            os.write(self._device, struct.pack("<IiQ", 16 + len(content), -error, number) + content)
