# SPDX-License-Identifier: Apache-2.0
"""
A file-system driver in user space that talks to the kernel over /dev/fuse, with the messages of linux/fuse.h. Its volume
is one empty folder, mounted with any source name. A test can run an action during a request.
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
    """Unmounts by umount2(2), without running another program."""
    _check(_libc.umount2(os.fsencode(path), flags))


def _init():
    # major, minor, read ahead, flags, background, congestion, largest write, time granularity, pages, alignment, unused
    return struct.pack("<IIIIHHIIHH8I", _MAJOR, _MINOR, 0, 0, 0, 0, 4096, 1, 0, 0, *[0] * 8)


def _attributes():
    root = struct.pack("<6Q10I", 1, 0, 0, 0, 0, 0, 0, 0, 0, stat.S_IFDIR | 0o755, 2, 0, 0, 0, BLOCK_SIZE, 0)
    return struct.pack("<QII", 0, 0, 0) + root  # the reply is valid for 0 seconds


def _sizes():
    return struct.pack("<5Q4I6I", BLOCKS, FREE_BLOCKS, FREE_BLOCKS, 1, 0, BLOCK_SIZE, 255, BLOCK_SIZE, 0, *[0] * 6)


_ANSWERS = {INIT: _init, GETATTR: _attributes, STATFS: _sizes, OPENDIR: lambda: bytes(16), READDIR: bytes,
            RELEASEDIR: bytes}


class Driver:
    """Mounts its volume and serves it in a separate thread until close()."""

    def __init__(self, source, point):
        self.point = point
        self.requests = []
        self.failure = None  # an error in an action or in reading requests
        self._actions = {}
        self._left = False
        self._device = os.open("/dev/fuse", os.O_RDWR)
        options = f"fd={self._device},rootmode=40000,user_id=0,group_id=0"
        _check(_libc.mount(source.encode(), os.fsencode(point), b"fuse", 0, options.encode()))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def once(self, request, action):
        """Runs `action` once, before the driver replies to the next request of this kind."""
        self._actions[request] = action

    def leave(self):
        """An action: the driver ends without a reply, and its volume stays mounted."""
        self._left = True

    def close(self):
        with contextlib.suppress(OSError):  # it may be unmounted already
            unmount(self.point, _MNT_DETACH)
        self._thread.join()

    def _serve(self):
        try:
            while not self._left:
                self._take(os.read(self._device, _LARGEST))
        except OSError as error:
            if error.errno != errno.ENODEV:  # ENODEV: the volume was unmounted
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
        with contextlib.suppress(OSError):  # the requesting process may have ended
            os.write(self._device, struct.pack("<IiQ", 16 + len(content), -error, number) + content)
