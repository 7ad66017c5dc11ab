# SPDX-License-Identifier: Apache-2.0
"""How often commands look: opens of the image, programs that are started, what a log message costs. Counted by strace."""

import os
import re
import subprocess
import unittest

from support import images, macs, volumes

OPENS = "trace=open,openat,openat2,execve,execveat"


def why_no_trace():
    """Why strace cannot count here; None where it can."""
    if missing := volumes.missing("strace"):
        return f"not installed: {missing}"
    result = subprocess.run(volumes.strace("-o", "/dev/null", "true"), capture_output=True, text=True, check=False)
    return None if result.returncode == 0 else f"strace cannot trace: {result.stderr.strip()}"


WHY_NO_TRACE = why_no_trace()


@unittest.skipIf(WHY_NO_TRACE, WHY_NO_TRACE)
class LookOnce(macs.ImageTest):
    def trace(self, what, *arguments, expect=0, paths=False):
        """The system calls of a command, a line each, without the process number before them; with the paths of
        descriptors if wanted."""
        log = self.path("calls")
        options = ["-y"] if paths else []
        result = self.vorlix_run(*arguments, prefix=volumes.strace("-f", *options, "-o", log, "-e", what))
        self.assertEqual(result.returncode, expect, f"{arguments}: {result.stdout}{result.stderr}")
        with open(log, encoding="utf-8", errors="replace") as lines:
            return [re.sub(r"^\d+ +", "", line.rstrip("\n")) for line in lines]

    def assert_opens(self, most, image, *arguments, expect=0, processes=1):
        """The command opens the image, under any name, so often at most, and is one process or more."""
        calls = self.trace(OPENS, *arguments, expect=expect)
        opens = [call for call in calls if call.startswith("open") and f'"{image}' in call and " = -1 " not in call]
        started = [call for call in calls if call.startswith("exec") and " = -1 " not in call]
        print(f"\n{' '.join(map(str, arguments[:1]))}: {len(opens)} opens of the image", end="", flush=True)
        self.assertGreater(len(opens), 0, "the trace does not show what it counts")
        self.assertLessEqual(len(opens), most, "\n".join(opens))
        self.assertEqual(len(started), processes, "\n".join(started))

    def hybrid_words(self, image, *options):
        return ["hybrid", image, "--boot-code", self.boot_code, "--partition", macs.WINDOWS, *options]

    def test_show(self):
        image = self.mac_image()
        self.assert_opens(1, image, "show", image)
        self.assert_opens(1, image, "show", image, "--json")

    def test_show_of_a_slice(self):
        image = self.mac_image()
        self.assert_opens(3, image, "show", f"{image}s{macs.WINDOWS}")

    def test_hybrid(self):
        image = self.mac_image()
        self.assert_opens(10, image, *self.hybrid_words(image, "--dry-run"), expect=1)
        self.assert_opens(10, image, *self.hybrid_words(image))
        self.assert_sector0(image, self.expected_sector0(image, macs.WINDOWS))

    def test_hybrid_syncs_the_image_once(self):
        """Between its last write and the end of the journal, and nothing is written before the journal is synced."""
        image = self.mac_image()
        calls = self.trace("trace=fsync,fdatasync,pwrite64,/^rename", *self.hybrid_words(image), paths=True)
        steps = [self.step_of(call, image) for call in calls]
        journal = ["sync manifest.json", "sync before.bin", "sync after.bin", "sync folder", "rename", "sync folder"]
        self.assertEqual(steps[:6], journal)
        written = [step for step in steps[6:] if step == "write image"]
        self.assertGreater(len(written), 1)
        self.assertEqual(steps[6:], [*written, "sync image", "rename", "sync folder", "sync folder"])

    @staticmethod
    def step_of(call, image):
        """What a call of a trace does to the image or to a journal."""
        if call.startswith("rename"):
            return "rename"
        path = re.match(r"\w+\(\d+<(.*?)>", call).group(1)
        name = os.path.basename(path)
        what = "image" if path == image else name if name.endswith((".json", ".bin")) else "folder"
        return ("write " if call.startswith("pwrite64(") else "sync ") + what

    def test_hybrid_looks_at_no_backup_that_it_did_not_make(self):
        """Whatever number of them the state folder has, which is the user's own here."""
        if missing := volumes.missing("setpriv"):
            self.skipTest(f"not installed: {missing}")
        image, state, log = self.mac_image(), self.path("state"), self.path("calls")
        os.mkdir(state, 0o700)
        if os.geteuid() == 0:
            for path in (self.folder, state, image):
                os.chown(path, images.NOBODY, images.NOBODY)
        user = (*volumes.user_prefix(), "env", f"XDG_STATE_HOME={state}")
        self.vorlix_ok(*self.hybrid_words(image), prefix=user)
        (earlier,) = os.listdir(os.path.join(state, "vorlix", "backups"))
        options = ["-f", "-y", "-o", log, "-e", "trace=%file,%desc"]
        self.vorlix_ok(*self.hybrid_words(image), prefix=(*volumes.strace(*options), *user))
        with open(log, encoding="utf-8", errors="replace") as lines:
            calls = [line for line in lines if "/vorlix/backups" in line]
        self.assertGreater(len(calls), 1, "the trace does not show what it counts")
        self.assertEqual([call for call in calls if earlier in call], [])

    def test_hybrid_reads_the_boot_code_once(self):
        image = self.mac_image()
        calls = self.trace("trace=openat", *self.hybrid_words(image))
        self.assertEqual(len([call for call in calls if f'"{self.boot_code}"' in call]), 1)

    def test_check(self):
        image = self.mac_image()
        # The second process reads the NTFS volume.
        self.assert_opens(10, image, "check", image, "--partition", macs.WINDOWS, expect=1, processes=2)

    def test_disks(self):
        image = self.mac_image()
        # Once for the table, twice for each of four partitions, and once for the one that may hold Windows, which the second
        # process reads.
        self.assert_opens(10, image, "disks", image, processes=2)
        blank = self.path("blank.img")
        with open(blank, "xb") as file:
            file.truncate(1 << 20)
        self.assert_opens(2, blank, "disks", blank)

    def test_vbr_restore(self):
        image = self.mac_image()
        volume = f"{image}s{macs.WINDOWS}"
        saved = self.path("saved.vbr")
        self.assert_opens(3, image, "vbr", "save", volume, saved)
        self.assert_opens(10, image, "vbr", "restore", saved, volume)

    def test_a_log_message_is_one_open_one_write_and_one_close(self):
        image = self.mac_image()
        calls = self.trace("all", "identify", image)
        opens = [i for i, call in enumerate(calls) if call.startswith("openat(") and "/tmp/quandrel.log" in call]
        if any(" = -1 " in calls[i] for i in opens):
            self.skipTest("the log /tmp/quandrel.log cannot be opened here, or was just made")
        self.assertGreater(len(opens), 2, "nothing is logged")
        messages = 0
        for number, i in enumerate(opens):
            descriptor = calls[i].rsplit(" = ", 1)[1]
            # That it is a regular file without a second name is asked of what was opened.
            names = [re.match(r"\w+", call).group() for call in calls[i + 1 : i + 4]]
            self.assertIn(names[0], ("fstat", "newfstatat", "statx"), calls[i + 1])
            if number == 0 and names[1] == "close":
                continue  # whether there is a log at all
            self.assertEqual(names[1:], ["write", "close"], calls[i : i + 4])
            self.assertIn(f"write({descriptor},", calls[i + 2])
            self.assertIn(f"close({descriptor})", calls[i + 3])
            messages += 1
        self.assertGreater(messages, 1)

    def opened(self, name, *arguments, expect=0):
        """Whether the command opened a file with that in its name."""
        calls = self.trace("trace=open,openat", *arguments, expect=expect)
        return bool([call for call in calls if name in call and " = -1 " not in call])

    def test_openssl_is_loaded_for_the_check_of_a_caller_alone(self):
        image = self.mac_image()
        for arguments in (["show", image], self.hybrid_words(image)):
            for library in ("libcrypto", "libarchive"):
                self.assertFalse(self.opened(library, *arguments), (arguments, library))
        for name in ("vorlix-1/signing.so", "libcrypto"):
            self.assertTrue(self.opened(name, "check-caller", str(os.getpid()), expect=1), name)

    def test_libmount_is_not_loaded_to_look(self):
        """Nor what it needs: libraries of security that read files of their own when they are loaded."""
        image = self.mac_image()
        for arguments in (["--version"], ["show", image], self.hybrid_words(image), ["list", "--all"]):
            for name in ("libmount", "libselinux", "libpcre", "mounting.so"):
                self.assertFalse(self.opened(name, *arguments), (arguments, name))

    def test_libmount_is_loaded_to_mount(self):
        """A kernel may refuse the mount, or lack loop devices; the module was asked. Without -f, because strace would wait
        for a driver in user space."""
        if os.geteuid() != 0:
            self.skipTest("only root asks the kernel to mount")
        image = self.mac_image()
        volume = f"{image}s{macs.WINDOWS}"
        log = self.path("calls")
        result = self.vorlix_run("mount", volume, prefix=volumes.strace("-o", log, "-e", "trace=openat"))
        self.vorlix_run("unmount", volume)
        with open(log, encoding="utf-8", errors="replace") as lines:
            opened = [line for line in lines if " = -1 " not in line]
        for name in ("vorlix-1/mounting.so", "libmount"):
            self.assertTrue([line for line in opened if name in line], (name, result))


if __name__ == "__main__":
    images.main()
