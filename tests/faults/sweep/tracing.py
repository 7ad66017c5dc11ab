# SPDX-License-Identifier: Apache-2.0
"""Runs commands under the tracer, and chooses the faults to try at a call."""

import collections
import dataclasses
import os
import re
import subprocess

CANNOT_TRACE = 125


@dataclasses.dataclass(frozen=True)
class Call:
    number: int
    process: int
    name: str
    file: str
    other: str
    count: int
    offset: int
    flags: int
    result: int  # a negative errno for a failed call; None if the process ended during the call

    @property
    def creates(self):
        return self.name == "creat" or (self.name in ("open", "openat") and bool(self.flags & os.O_CREAT))

    def __str__(self):
        return f"call {self.number} {self.name} {self.file}".rstrip()


@dataclasses.dataclass(frozen=True)
class Fault:
    """A fault at a call: "error" with the name of an errno, "short", "kill-before" or "kill-after"."""

    kind: str
    error: str = ""

    def options(self):
        return [f"--{self.kind}", *([self.error] if self.error else [])]

    def __str__(self):
        return self.error or self.kind


@dataclasses.dataclass(frozen=True)
class Run:
    """The end of a command."""

    end: str  # "exited", "signalled", "killed" (by the fault) or "hang"
    status: int  # exit status or signal
    out: str
    err: str
    is_hit: bool = False
    crashed_children: int = 0
    chosen: Call = None  # the call with the fault
    calls: tuple = ()

    @property
    def succeeded(self):
        return self.end == "exited" and self.status == 0

    def __str__(self):
        said = " ".join((self.err or self.out).split())
        how = {"exited": f"exit status {self.status}", "signalled": f"signal {self.status}", "killed": "killed"}
        return how.get(self.end, "hang") + (f": {said[:300]}" if said else "")


class NotAllowed(Exception):
    """This machine does not allow tracing."""


def unescape(text):
    if "\\" not in text:
        return text
    return re.sub(r"\\x([0-9a-f]{2})", lambda match: chr(int(match.group(1), 16)), text)


def read_report(path):
    with open(path, encoding="utf-8", errors="surrogateescape") as file:
        end, status, hit, crashed, chosen = file.readline().rstrip("\n").split("\t")
        calls = []
        for line in file:
            number, process, name, target, other, count, offset, flags, result = line.rstrip("\n").split("\t")
            calls.append(
                Call(int(number), int(process), name, unescape(target), unescape(other), int(count), int(offset),
                     int(flags), None if result == "?" else int(result)))
    return end, int(status), hit == "hit", int(crashed), calls[int(chosen) - 1] if int(chosen) else None, tuple(calls)


def trace(tracer, command, report, at="", fault=None, seconds=60, tracer_options=(), **options):
    """Runs a command under the tracer. at: the tracer's option --at. options: those of subprocess.run()."""
    chosen = ["--at", str(at), *fault.options()] if fault else []
    arguments = [tracer, "--report", report, "--timeout", str(seconds), *tracer_options, *chosen, "--", *command]
    done = subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          errors="surrogateescape", timeout=seconds + 30, check=False, **options)
    if done.returncode == CANNOT_TRACE and "fault_tracer: " in done.stderr:
        raise (NotAllowed if "not allowed" in done.stderr else RuntimeError)(done.stderr.strip())
    end, status, *found = read_report(report)
    return Run(end, status, done.stdout, done.stderr, *found)


def run(command, seconds=60, **options):
    """Runs a command without the tracer."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              errors="surrogateescape", timeout=seconds, check=False, **options)
    except subprocess.TimeoutExpired:
        return Run("hang", 0, "", "")
    if done.returncode < 0:
        return Run("signalled", -done.returncode, done.stdout, done.stderr)
    return Run("exited", done.returncode, done.stdout, done.stderr)


# ---------------------------------------------------------------------------------------------- the points of a command

TRANSFERS = {"read", "pread64", "readv", "write", "pwrite64", "writev", "sendfile", "copy_file_range"}
WRITES = {"write", "pwrite64", "writev", "sendfile", "copy_file_range"}
SYNCS = {"fsync", "fdatasync", "syncfs"}

# After each of these calls, a killed process leaves something changed behind. Only kills after a call matter: a kill before
# a call has the same result as a kill after the previous call.
CHANGES = WRITES | SYNCS | {
    "creat", "ftruncate", "truncate", "fallocate", "rename", "renameat", "renameat2", "link", "linkat", "symlink",
    "symlinkat", "unlink", "unlinkat", "mkdir", "mkdirat", "rmdir", "chmod", "fchmod", "fchmodat", "fchown", "fchownat",
    "utimensat", "flock", "ioctl", "mount", "umount2", "execve", "fork", "vfork", "clone", "clone3",
}

# Errors to try at a call; for calls that are not listed, an error of the medium (EIO).
ERRORS = {
    "write": ("EIO", "ENOSPC"), "pwrite64": ("EIO", "ENOSPC"), "writev": ("EIO", "ENOSPC"),
    "sendfile": ("EIO", "ENOSPC"), "copy_file_range": ("EIO", "ENOSPC"),
    "creat": ("ENOSPC",), "mkdir": ("ENOSPC",), "mkdirat": ("ENOSPC",), "link": ("ENOSPC",), "linkat": ("ENOSPC",),
    "rename": ("EIO", "ENOSPC"), "renameat": ("EIO", "ENOSPC"), "renameat2": ("EIO", "ENOSPC"),
    "fallocate": ("EOPNOTSUPP", "ENOSPC"), "mmap": ("ENOMEM",), "flock": ("EAGAIN", "ENOLCK"),
    "lseek": ("EINVAL",), "ioctl": ("ENOTTY",), "mount": ("EPERM",), "umount2": ("EBUSY",), "execve": ("ENOMEM",),
    "pipe": ("EMFILE",), "pipe2": ("EMFILE",), "fork": ("EAGAIN",), "vfork": ("EAGAIN",), "clone": ("EAGAIN",),
    "clone3": ("EAGAIN",), "chmod": ("EPERM",), "fchmod": ("EPERM",), "fchmodat": ("EPERM",), "fchown": ("EPERM",),
    "fchownat": ("EPERM",), "utimensat": ("EPERM",),
}


def faults_at(call):
    """The faults to try at a call of a run without faults. For a call that failed in that run, only kills."""
    faults = []
    if call.number == 1:
        faults.append(Fault("kill-before"))
    if call.result is None or call.result >= 0:
        errors = ("EIO", "ENOSPC") if call.creates else ERRORS.get(call.name, ("EIO",))
        faults += [Fault("error", error) for error in errors]
        moved = call.count if call.count >= 0 else call.result or 0
        if call.name in TRANSFERS and moved >= 2:
            faults.append(Fault("short"))
    if call.name in CHANGES or call.creates:
        faults.append(Fault("kill-after"))
    return faults


def places_of(calls):
    """The place of each call in its process, by call number, in the form of the tracer's option --at. Calls of other
    processes at the same time do not shift it."""
    made = collections.Counter()
    places = {}
    for call in calls:
        made[call.process] += 1
        places[call.number] = f"{call.process}:{made[call.process]}"
    return places


def points_of(calls, chosen=None):
    """All points of a command, as (place of the call, fault). chosen: limits them to these calls."""
    places = places_of(calls)
    return [(places[call.number], fault) for call in (calls if chosen is None else chosen) for fault in faults_at(call)]


def without_repetitions(calls):
    """Leaves out repeated read-only calls. If a program repeats a sequence of such calls, the first, a middle and the last
    pass stay. Numbers in file names are ignored, because a loop counts through them."""
    program = {}
    recent = collections.defaultdict(lambda: collections.deque(maxlen=3))
    places = collections.defaultdict(list)
    for call in calls:
        if call.name == "execve" and call.result == 0:
            program[call.process] = os.path.basename(call.file)
        failed = call.result is not None and call.result < 0
        recent[call.process].append((call.name, re.sub(r"\d+", "N", call.file), failed))
        if call.name not in CHANGES and not call.creates:
            places[program.get(call.process), tuple(recent[call.process])].append(call.number)
    left_out = set()
    for numbers in places.values():
        left_out |= set(numbers) - {numbers[0], numbers[len(numbers) // 2], numbers[-1]}
    return [call for call in calls if call.number not in left_out]


def selection(calls, chosen, count, media):
    """About `count` points of the chosen calls. Up to half of them are at calls that change files whose paths match `media`,
    because these are few and matter most. The others are evenly spread over the rest."""
    changing = [call for call in chosen if (call.name in CHANGES or call.creates) and media.search(call.file)]
    weighty = spread(points_of(calls, changing), count // 2)
    rest = points_of(calls, [call for call in chosen if call not in changing])
    return weighty + spread(rest, count - len(weighty))


def spread(points, count):
    """At most `count` of the points, evenly spread; always the same ones."""
    if count >= len(points):
        return list(points)
    return [points[(2 * place + 1) * len(points) // (2 * count)] for place in range(count)]
