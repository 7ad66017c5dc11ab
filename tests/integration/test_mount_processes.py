# SPDX-License-Identifier: Apache-2.0
"""Mounting by several processes, by processes that are killed, and by root with the kernel's file systems."""

import contextlib
import glob
import os
import signal
import subprocess
import time
import unittest

from support import images, samples, tools, volumes
from support.mounting import MISSING, TREE, MountTest, random_bytes

# With sanitizers a command takes ten times as long. Every point of a kill is tried without them.
STEP = 3 if images.SANITIZED else 1


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Killed(MountTest):
    def run_and_kill(self, delay, *arguments):
        """Starts the command line and kills only that process after `delay`. Returns whether it was still running."""
        with subprocess.Popen([*self.prefix(), self.vorlix, *arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(delay)
                return False
            process.send_signal(signal.SIGKILL)
        return True

    def unmount_after_a_kill(self, image):
        """Unmounts a volume. A program that the killed process had started may use the mirror for a moment."""
        end = time.monotonic() + volumes.OTHERS_ARE_DONE_AFTER
        while True:
            result = self.vorlix_run("unmount", image)
            if "is in use by process" not in result.stderr or time.monotonic() > end:
                return result
            time.sleep(0.1)

    def test_a_folder_left_by_one_process_is_unmounted_by_another(self):
        """The process that mounted the volume has ended when the second command starts."""
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.as_user("sh", "-c", 'printf 2 >"$1/a" && printf 3 >"$1/b"', "sh", folder)
        self.unmount(image)
        self.assert_volume(image, {"a": b"2", "b": b"3"})

    def test_mounting_after_a_mount_that_was_killed(self):
        image = self.fat(tree=TREE)
        before = images.snapshot(image)
        for milliseconds in (1, 5, 10, 20, 30, 50, 80)[::STEP]:
            with self.subTest(milliseconds=milliseconds):
                self.run_and_kill(milliseconds / 1000, "mount", image)
                folder = self.mount(image)
                self.assertEqual(volumes.folder_tree(folder), TREE)
                self.unmount(image)
                self.assert_unchanged(image, before)

    def test_unmounting_after_an_unmount_that_was_killed(self):
        killed = 0
        for milliseconds in (2, 10, 25, 40, 60, 90, 120, 160)[::STEP]:
            with self.subTest(milliseconds=milliseconds):
                image = self.fat(f"{milliseconds}.img", tree=TREE)
                tree = dict(TREE)
                folder = self.mount(image)
                for number in range(6):
                    tree[f"new{number}"] = random_bytes(1 << 20, number)
                    self.write(folder, f"new{number}", tree[f"new{number}"])
                tree["README.TXT"] = b"changed"
                self.write(folder, "README.TXT", b"changed")
                del tree["empty"]
                os.remove(os.path.join(folder, "empty"))
                killed += self.run_and_kill(milliseconds / 1000, "unmount", image)
                time.sleep(0.05)
                result = self.unmount_after_a_kill(image)
                if result.returncode != 0:  # the first unmount finished before the kill
                    self.assertIn("not mounted", result.stderr)
                self.assert_volume(image, tree)
        self.assertGreater(killed, 0)

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_unmounting_after_a_kill_at_each_call_that_moves_or_removes_something(self):
        """The next unmount continues, or says that nothing is mounted, and the volume can be mounted again."""
        tree = {"old": b"1", "gone": b"2", "F": None, "F/same": b"3"}
        changed = {"old": b"changed", "new": b"4", "F": None, "F/same": b"3"}
        for call in ("rename", "unlink", "unlinkat", "rmdir", "fsync"):
            for number in range(1, 40, STEP):
                with self.subTest(call=call, number=number):
                    image = self.fat(f"{call}{number}.img", label="KILLED", tree=tree)
                    folder = self.mount(image)
                    self.write(folder, "old", b"changed")
                    self.write(folder, "new", b"4")
                    os.remove(os.path.join(folder, "gone"))
                    trace = volumes.strace("-o", "/dev/null", "-e", f"trace={call}",
                                           "-e", f"inject={call}:signal=KILL:when={number}")
                    status = subprocess.run([*self.prefix(), *trace, self.vorlix, "unmount", image],
                                            capture_output=True, timeout=60, check=False).returncode
                    if status != 0:
                        result = self.unmount_after_a_kill(image)
                        if result.returncode != 0:
                            self.assertIn("not mounted", result.stderr)
                    self.assert_volume(image, changed)
                    self.assertEqual(self.mount(image), folder)
                    self.unmount(image)
                    self.assert_nothing_mounted()
                if status == 0:
                    self.assertGreater(number, 2, call)
                    break

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_a_mirror_that_cannot_be_examined_for_a_moment_is_not_taken_for_missing(self):
        image = self.fat(tree={"a": b"1"})
        folder = self.mount(image)
        self.write(folder, "a", b"changed")
        place = glob.glob(os.path.join(os.path.dirname(folder), ".mirrors", "*"))
        self.assertEqual(len(place), 1)
        refused = 0
        for path in (folder, os.path.join(place[0], "leaving"), os.path.join(place[0], "state")):
            for calls, number in ((calls, number) for calls in ("statx,newfstatat,lstat", "openat") for number in (1, 2, 3)[::STEP]):
                with self.subTest(path=path, calls=calls, number=number):
                    trace = volumes.strace("-o", "/dev/null", "-P", path, "-e", f"trace={calls}",
                                           "-e", f"inject={calls}:error=EIO:when={number}")
                    result = self.vorlix_run("unmount", image, prefix=(*self.prefix(), *trace))
                    if result.returncode != 0:
                        refused += 1
                        self.unmount(image)
                    self.assert_volume(image, {"a": b"changed"})
                    self.assertEqual(self.mount(image), folder)
                    self.write(folder, "a", b"1")
                    self.unmount(image)
                    self.assertEqual(self.mount(image), folder)
                    self.write(folder, "a", b"changed")
        self.assertGreater(refused, 3)

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_throwing_away_what_an_unmount_that_was_killed_had_begun_to_write(self):
        """A complete journal is always applied to the volume. Its changes are not lost, and not reported as lost."""
        outcomes = set()
        for number in range(1, 40, STEP):
            with self.subTest(number=number):
                image = self.fat(f"{number}.img", tree={"a": b"1", "b": b"2"})
                folder = self.mount(image)
                self.write(folder, "a", b"changed")
                trace = volumes.strace("-o", "/dev/null", "-e", "trace=fsync",
                                       "-e", f"inject=fsync:signal=KILL:when={number}")
                status = subprocess.run([*self.prefix(), *trace, self.vorlix, "unmount", image],
                                        capture_output=True, timeout=60, check=False).returncode
                if status == 0:
                    break
                if not os.path.isdir(folder):
                    self.vorlix_run("unmount", image)
                    continue
                self.write(folder, "late", b"3")
                lost = self.vorlix_ok("unmount", "--discard", image).stdout
                self.assertIn("Lost       new /late\n", lost)
                is_lost = "Lost       changed /a\n" in lost
                outcomes.add(is_lost)
                self.assertFalse(os.path.exists(folder))
                self.vorlix_ok("mount", image)  # would finish any pending change
                self.unmount(image)
                self.assert_volume(image, {"a": b"1" if is_lost else b"changed", "b": b"2"})
                self.assert_nothing_mounted()
        self.assertEqual(status, 0)
        self.assertEqual(outcomes, {True, False})

    def test_what_was_changed_after_an_unmount_that_was_killed_is_written_too(self):
        image = self.fat(tree={"a": b"1", "b": b"2"})
        folder = self.mount(image)
        self.write(folder, "a", random_bytes(4 << 20))
        self.run_and_kill(0.04, "unmount", image)
        if not os.path.isdir(folder):
            self.skipTest("unmounting ended before the signal")
        self.write(folder, "b", b"3")
        result = self.unmount_after_a_kill(image)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_volume(image, {"a": random_bytes(4 << 20), "b": b"3"})

    def test_commands_at_the_same_time(self):
        image = self.fat(tree=TREE)
        before = images.snapshot(image)
        command = [*self.prefix(), self.vorlix, "mount", image]
        processes = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL, text=True) for _ in range(4)]
        answers = [process.communicate(timeout=60)[0] for process in processes]
        self.assertEqual([process.returncode for process in processes], [0, 0, 0, 0])
        self.assertEqual(len(set(answers)), 1, answers)
        self.assertEqual(volumes.folder_tree(answers[0].strip()), TREE)
        self.unmount(image)
        self.assert_unchanged(image, before)
        self.assert_nothing_mounted()


@unittest.skipUnless(volumes.IS_ROOT, "mounting through the kernel needs root")
class AsRoot(MountTest):
    AS_ROOT = True

    @unittest.skipIf(MISSING, f"not installed: {MISSING}")
    def test_a_volume_with_another_one_mounted_in_it(self):
        """The other volume's files do not belong to this volume, no matter who mounted it."""
        image = self.fat(tree={"a": b"1", "F": None})
        folder = self.mount(image, "--read-write")
        self.addCleanup(self.vorlix_run, "unmount", image)
        precious = self.path("precious")
        os.mkdir(precious)
        with open(os.path.join(precious, "letter"), "wb") as file:
            file.write(b"kept")
        for place in (os.path.join(folder, "F"), folder):
            images.run_tool("mount", "--bind", precious, place)
            try:
                self.vorlix_run("unmount", image)
            finally:
                tools.unmount(place)
            self.assertEqual(os.listdir(precious), ["letter"])
        self.assert_volume(image, {"a": b"1", "F": None})

    @unittest.skipIf(MISSING, f"not installed: {MISSING}")
    def test_a_fat_volume(self):
        """The kernel mounts the volume if it has the file system; otherwise the volume is mirrored."""
        image = self.fat(tree={"a": b"1", "F": None})
        folder = self.mount(image, "--read-write")
        self.assertEqual(volumes.folder_tree(folder), {"a": b"1", "F": None})
        self.write(folder, "F/b", b"2")
        self.unmount(image)
        self.assert_volume(image, {"a": b"1", "F": None, "F/b": b"2"})
        self.assert_nothing_mounted()

    def linux_volume(self, name="linux.img"):
        image = self.path(name)
        with open(image, "wb") as file:
            file.truncate(8 << 20)
        images.run_tool("mkfs.ext4", "-q", "-L", "LINUX", image)
        return image

    def assert_mountable(self):
        if not os.path.exists("/dev/loop-control"):
            self.skipTest("no /dev/loop-control on this machine")
        with open("/proc/filesystems", encoding="ascii") as file:
            if "\text4\n" not in file.read():
                self.skipTest("the kernel has no ext4")

    def test_a_volume_of_the_kernel_s(self):
        self.assert_mountable()
        image = self.linux_volume()
        folder = self.mount(image, "--read-write")
        self.addCleanup(self.vorlix_run, "unmount", image)
        self.assertTrue(os.path.ismount(folder))
        self.assertEqual(self.mount(image), folder)
        self.write(folder, "file", b"written")
        self.unmount(image)
        self.assertFalse(os.path.exists(folder))
        self.assert_nothing_mounted()
        self.assertEqual(images.run_tool("debugfs", "-R", "cat file", image), "written")
        images.run_tool("e2fsck", "-f", "-n", image)
        self.assertEqual(images.run_tool("losetup", "--associated", image), "")

    def test_a_volume_of_the_kernel_s_in_use(self):
        self.assert_mountable()
        image = self.linux_volume()
        folder = self.mount(image, "--read-write")
        self.addCleanup(self.vorlix_run, "unmount", image)
        with open(os.path.join(folder, "open"), "wb"):
            self.vorlix_refuses("unmount", image, saying=[image, "stays mounted"])
            self.assertTrue(os.path.ismount(folder))
        self.unmount(image)

    def test_a_slice_of_a_loop_device(self):
        self.assert_mountable()
        image = volumes.make_mac(self.path("mac.img"))
        volume = self.linux_volume()
        samples.place(image, volume, volumes.WINDOWS.first)
        with tools.loop_device(image, 512) as device:
            name = device + "s3"
            folder = self.mount(name, "--read-write")
            self.addCleanup(self.vorlix_run, "unmount", name)
            self.write(folder, "file", b"through a slice")
            self.unmount(name)
            self.assert_nothing_mounted()
        content = samples.read(image, volumes.WINDOWS.first * 512, 8 << 20)
        with open(volume, "wb") as file:
            file.write(content)
        self.assertEqual(images.run_tool("debugfs", "-R", "cat file", volume), "through a slice")


if __name__ == "__main__":
    images.main()
