# SPDX-License-Identifier: Apache-2.0
"""
Compares NTFS volumes that were made in the same way at other times. They differ in their serial number and in the times of
the system's files and of the last change of each record; every other byte must be the same.
"""

import hashlib
import os
import re
import time

from support import samples, sparse

SECTOR = samples.SECTOR
SERIAL_OFFSET = 72  # in both boot sectors
SECOND = 10_000_000  # times count 100 ns
FROM_1601_TO_1970 = 11_644_473_600 * SECOND
A_DAY = 86_400 * SECOND
PAGE = 4096  # of an index, by mkntfs; four records of the file table
RECORD = 1024  # of the file table, by mkntfs
HIGH_BYTES = 3  # of a time; a day has one value of them or two


def now():
    """The time as NTFS has it, in whole seconds."""
    return FROM_1601_TO_1970 + int(time.time()) * SECOND


def number(content, offset, size):
    return int.from_bytes(content[offset : offset + size], "little")


def undo_fixup(page, start):
    """Puts back the last bytes of each sector of a record, which NTFS keeps at its beginning: a time may end there."""
    place, count = start + number(page, start + 4, 2), number(page, start + 6, 2)
    for sector in range(1, min(count, (len(page) - start) // SECTOR + 1)):
        end = start + sector * SECTOR
        page[end - 2 : end] = page[place + 2 * sector : place + 2 * sector + 2]


def without_times(content, since):
    """A piece of a volume in whole pages, with zeros for each time from `since` on until a day later."""
    pages = (content[start : start + PAGE] for start in range(0, len(content), PAGE))
    return bytearray().join(page_without_times(page, since) for page in pages)


def page_without_times(page, since):
    page = bytearray(page)
    starts = [0] if page.startswith(b"INDX") else [at for at in range(0, len(page), RECORD) if page[at : at + 4] == b"FILE"]
    for start in starts:
        undo_fixup(page, start)
    low = 8 - HIGH_BYTES
    highs = {(since + later).to_bytes(8, "little")[low:] for later in (0, A_DAY)}
    for found in re.finditer(b"|".join(map(re.escape, sorted(highs))), bytes(page)):
        start = found.start() - low
        if start >= 0 and start % 4 == 0 and since <= number(page, start, 8) < since + A_DAY:
            page[start : start + 8] = bytes(8)
    return page


def lasting_hash(path, first, sectors, since):
    """
    Digest of the bytes of a disk image with a volume, like images.content_hash(), without the volume's serial number and
    its times from `since` on.
    """
    serials = [sector * SECTOR + SERIAL_OFFSET for sector in (first, first + sectors - 1)]
    digest = hashlib.sha256(os.path.getsize(path).to_bytes(8, "little"))
    with open(path, "rb") as file:
        for at, block in sparse.blocks(file.fileno()):
            content = without_times(block, since)
            for place in serials:
                if at <= place < at + len(content):
                    content[place - at : place - at + 8] = bytes(8)
            digest.update(at.to_bytes(8, "little") + content)
    return digest.hexdigest()
