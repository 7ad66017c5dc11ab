# SPDX-License-Identifier: Apache-2.0
"""The surroundings of a sweep's runs: a folder for each run and, for runs as root, private copies of system folders."""

import ctypes
import os
import pwd
import re
import shutil
import signal
import subprocess

from support import images

IS_ROOT = os.geteuid() == 0
CLONE_NEWNS = 0x20000
CLONE_NEWPID = 0x20000000
PR_SET_PDEATHSIG = 1
HIDDEN = {"/var/lib": 0o755, "/run": 0o755, "/tmp": 0o1777}  # state and mounts of root, and the library's log
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
stand_ins = []  # the folders mounted over HIDDEN; none as long as this process sees the real ones
first_processes = []  # those with number 1 of a new namespace
libc = ctypes.CDLL(None, use_errno=True)


def mounts_of_loops():
    """The folders where loop devices are mounted."""
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as file:
        lines = [line.split(" - ") for line in file]
    folders = [place.split()[4] for place, origin in lines if origin.split()[1].startswith("/dev/loop")]
    return [re.sub(r"\\([0-7]{3})", lambda octal: chr(int(octal[1], 8)), folder) for folder in reversed(folders)]


def stand_apart(folder):
    """Isolates the children of this process: mounts empty folders over HIDDEN, and hides other processes in /proc and
    mounted loop devices. Commands look at all of these, so they would make the runs differ when others change them."""
    if libc.unshare(CLONE_NEWNS | CLONE_NEWPID) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    # The first child is process 1 of the new namespace; without it, no other can start.
    first_processes.append(subprocess.Popen(["sleep", "infinity"], preexec_fn=become_first))
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    for place in mounts_of_loops():
        subprocess.run(["umount", "--lazy", place], check=False)  # fails for one that is hidden below another
    subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
    for place, mode in HIDDEN.items():
        own = os.path.join(folder, place.strip("/").replace("/", "-"))
        os.mkdir(own)
        os.chmod(own, mode)
        subprocess.run(["mount", "--bind", own, place], check=True)
        stand_ins.append(own)


def scratch_folder():
    """The parent folder of the runs' folders; it must not be in HIDDEN."""
    return "/var/tmp" if IS_ROOT else None


def end_with_parent():
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def become_first():
    end_with_parent()
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # orphans leave no zombies, which commands would look at in /proc


def empty(folder):
    for name in os.listdir(folder):
        path = os.path.join(folder, name)
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        else:
            os.remove(path)


class Case:
    """The folders of one run and of the run after it. Runs commands in them."""

    FOLDERS = ("disks", "out", "state", "runtime", "home", "tmp")

    def __init__(self, folder, as_root):
        if as_root and not stand_ins:
            raise RuntimeError("commands run as root only in isolation from the system's folders")
        self.folder = folder
        self.as_root = as_root
        shutil.rmtree(folder, ignore_errors=True)
        os.mkdir(folder)
        os.chmod(folder, 0o755)
        for name in self.FOLDERS:
            os.mkdir(self.path(name), 0o700)
            self.give(self.path(name))
        for own in stand_ins:
            empty(own)

    def path(self, *names):
        return os.path.join(self.folder, *names)

    @property
    def state(self):
        return "/var/lib/vorlix" if self.as_root else self.path("state", "vorlix")

    @property
    def runtime(self):
        return "/run/vorlix" if self.as_root else self.path("runtime", "vorlix")

    def short(self, text):
        """A text with the paths of this case's files shortened to their names in the case."""
        return text.replace(self.folder + "/", "")

    def give(self, path):
        """Makes the user the owner of a file, or of a folder with all its content."""
        if IS_ROOT and not self.as_root:
            os.chown(path, images.NOBODY, images.NOBODY)
            for place, folders, files in os.walk(path):
                for name in folders + files:
                    os.chown(os.path.join(place, name), images.NOBODY, images.NOBODY, follow_symlinks=False)
        return path

    def file(self, folder, name, content):
        path = self.path(folder, name)
        with open(path, "wb") as file:
            file.write(content)
        return self.give(path)

    def options(self):
        """Options of subprocess.run(): user, environment and working folder of a command."""
        options = {
            "cwd": self.path("home"),
            "env": {
                "PATH": PATH,
                "LC_ALL": "C",
                "HOME": self.path("home"),
                "TMPDIR": self.path("tmp"),
                "XDG_STATE_HOME": self.path("state"),
                "XDG_RUNTIME_DIR": self.path("runtime"),
            },
        }
        if IS_ROOT and not self.as_root:
            options |= {"user": images.NOBODY, "group": images.NOBODY, "extra_groups": []}
        return options

    def has_journal(self):
        """Returns whether the user has a complete journal, from which the next run can finish a change."""
        try:
            names = os.listdir(os.path.join(self.state, "journals"))
        except OSError:
            return False
        return any(not name.endswith((".new", ".done")) for name in names)

    def left_over(self):
        """Files that should not remain: those in the state folder, the runtime folder and the temporary folder. A
        complete backup of a change remains."""
        found = []
        for place in (self.state, self.runtime, self.path("tmp")):
            for folder, _, files in os.walk(place):
                is_backup = os.path.dirname(folder) == os.path.join(self.state, "backups") and "manifest.json" in files
                if not is_backup or folder.endswith((".new", ".done")):
                    found += [os.path.join(folder, name) for name in files]
        return found


def user_name(as_root):
    return "root" if as_root else pwd.getpwuid(images.NOBODY if IS_ROOT else os.geteuid()).pw_name
