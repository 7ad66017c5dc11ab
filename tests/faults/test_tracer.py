# SPDX-License-Identifier: Apache-2.0
"""Tests of the tracer with programs whose system calls are known."""

import errno
import os
import signal
import subprocess
import tempfile
import time
import unittest

import places
from sweep import tracing
from sweep.tracing import Fault

A, B, C = b"a" * 100, b"b" * 100, b"c" * 100


def command_lines():
    """The command lines of all processes."""
    for number in filter(str.isdecimal, os.listdir("/proc")):
        try:
            with open(f"/proc/{number}/cmdline", "rb") as file:
                yield file.read()
        except OSError:  # the process ended meanwhile
            continue


class TracerTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vorlix-tracer-")
        self.addCleanup(folder.cleanup)
        self.folder = os.path.realpath(folder.name)
        self.file = os.path.join(self.folder, "a file")

    def trace(self, *command, at="", fault=None, calls="", seconds=30):
        only = ["--calls", calls] if calls else []
        return tracing.trace(places.TRACER, command, os.path.join(self.folder, "report"), at, fault, seconds, only)

    def subject(self, behaviour, **options):
        return self.trace(places.SUBJECT, behaviour, self.file, **options)

    def content(self):
        with open(self.file, "rb") as file:
            return file.read()

    def calls_on_file(self, run, *names):
        return [call for call in run.calls if call.file == self.file and (not names or call.name in names)]


class Counting(TracerTest):
    def test_calls_are_listed_with_file_length_place_and_result(self):
        run = self.subject("three-writes")
        self.assertTrue(run.succeeded, run)
        self.assertFalse(run.is_hit)
        found = [(call.name, call.count, call.offset, call.result) for call in self.calls_on_file(run, "write")]
        self.assertEqual(found, [("write", 100, 0, 100), ("write", 100, 100, 100), ("write", 100, 200, 100)])
        opened = [call for call in self.calls_on_file(run) if call.creates]
        self.assertEqual(len(opened), 1)
        self.assertEqual([call.number for call in run.calls], list(range(1, len(run.calls) + 1)))

    def test_the_dynamic_loader_counts_only_on_request(self):
        loader = "/etc/ld.so.cache"
        self.assertNotIn(loader, [call.file for call in self.subject("three-writes").calls])
        report = os.path.join(self.folder, "report")
        subprocess.run([places.TRACER, "--from-start", "--report", report, "--", places.SUBJECT, "three-writes", self.file],
                       stdout=subprocess.DEVNULL, check=True)
        self.assertIn(loader, [call.file for call in tracing.read_report(report)[5]])

    def test_two_runs_count_the_same(self):
        for behaviour in ("three-writes", "children", "thread", "careful"):
            with self.subTest(behaviour=behaviour):
                runs = [[(call.process, call.name) for call in self.subject(behaviour).calls] for _ in range(2)]
                self.assertEqual(runs[0], runs[1])

    def test_children_count(self):
        run = self.subject("children", calls="write")
        self.assertEqual([(call.process, call.name) for call in run.calls], [(2, "write"), (3, "write")])

    def test_programs_that_a_shell_starts_count_without_their_loader(self):
        run = self.trace("/bin/sh", "-c", f"echo one; /bin/cat /etc/hostname > '{self.file}'; exit 3")
        self.assertEqual((run.end, run.status), ("exited", 3))
        started = [call.file for call in run.calls if call.name == "execve" and call.result == 0]
        self.assertEqual(started, ["/bin/cat"])
        self.assertEqual(len([call for call in run.calls if call.file == "/etc/hostname" and call.name == "openat"]), 1)
        self.assertNotIn("/etc/ld.so.cache", [call.file for call in run.calls])

    def test_threads_count(self):
        run = self.subject("thread")
        (written,) = self.calls_on_file(run, "write")
        self.assertEqual((written.process, written.count), (2, 6))

    def test_threads_are_numbered_as_they_are_started(self):
        for _ in range(20):  # in which order they run is chance
            run = self.subject("threads", calls="write")
            self.assertEqual(sorted((call.process, call.count) for call in run.calls), [(2 + i, 1 + i) for i in range(8)])

    def test_only_the_requested_calls_count(self):
        run = self.subject("three-writes", calls="openat,close")
        self.assertEqual({call.name for call in run.calls}, {"openat", "close"})

    def test_the_command_keeps_its_streams_and_its_status(self):
        run = self.trace("/bin/sh", "-c", "echo out; echo err >&2; exit 7")
        self.assertEqual((run.out, run.err, run.end, run.status), ("out\n", "err\n", "exited", 7))

    def test_a_fatal_signal_is_reported(self):
        run = self.trace("/bin/sh", "-c", "kill -TERM $$")
        self.assertEqual((run.end, run.status), ("signalled", signal.SIGTERM))

    def test_signals_reach_the_command(self):
        run = self.trace("/bin/sh", "-c", "trap 'echo caught; exit 5' USR1; kill -USR1 $$; exit 6")
        self.assertEqual((run.out, run.status), ("caught\n", 5))

    def test_a_missing_command(self):
        run = self.trace(os.path.join(self.folder, "nothing"))
        self.assertEqual((run.end, run.status), ("exited", 127))


class Failing(TracerTest):
    def test_the_chosen_write_fails_and_the_others_do_not(self):
        for number, left in ((1, B + C), (2, A + C), (3, A + B)):
            with self.subTest(number=number):
                run = self.subject("three-writes", calls="write", at=number, fault=Fault("error", "ENOSPC"))
                self.assertTrue(run.is_hit)
                self.assertEqual(self.content(), left)
                lines = ["100 0"] * 3
                lines[number - 1] = f"-1 {errno.ENOSPC}"
                self.assertEqual(run.out.splitlines(), lines)
                self.assertEqual(run.calls[number - 1].result, -errno.ENOSPC)

    def test_a_failed_close_still_closes_the_file(self):
        with open(self.file, "wb") as file:
            file.write(A)
        number = self.calls_on_file(self.subject("one-read"), "close")[0].number
        run = self.subject("one-read", at=number, fault=Fault("error", "EIO"))
        self.assertEqual(run.out, "100 -1 1\n")

    def test_in_a_child(self):
        run = self.subject("children", calls="write", at=2, fault=Fault("error", "EIO"))
        self.assertEqual((run.end, run.status, self.content()), ("exited", 2, b"a"))

    def test_a_call_of_one_process(self):
        run = self.subject("children", calls="write", at="3:1", fault=Fault("error", "EIO"))
        self.assertEqual((run.status, self.content(), run.chosen.process, run.chosen.number), (2, b"a", 3, 2))
        run = self.subject("children", calls="write", at="3:2", fault=Fault("error", "EIO"))
        self.assertEqual((run.status, run.is_hit, run.chosen), (0, False, None))

    def test_starting_a_child(self):
        run = self.subject("children", calls="clone,clone3,fork,vfork", at=1, fault=Fault("error", "EAGAIN"))
        self.assertEqual((run.end, run.status, os.path.exists(self.file)), ("exited", 2, False))

    def test_starting_a_program(self):
        command = "/bin/true || echo failed"
        run = self.trace("/bin/sh", "-c", command, calls="execve", at=1, fault=Fault("error", "ENOMEM"))
        self.assertEqual(run.out, "failed\n")

    def test_a_call_that_is_not_reached(self):
        run = self.subject("three-writes", calls="write", at=50, fault=Fault("error", "EIO"))
        self.assertTrue(run.succeeded)
        self.assertFalse(run.is_hit)
        self.assertEqual(self.content(), A + B + C)


class Short(TracerTest):
    def test_a_write(self):
        run = self.subject("three-writes", calls="write", at=2, fault=Fault("short"))
        self.assertTrue(run.is_hit)
        self.assertEqual(run.out.splitlines(), ["100 0", "50 0", "100 0"])
        self.assertEqual(self.content(), A + B[:50] + C)

    def test_a_read(self):
        with open(self.file, "wb") as file:
            file.write(A)
        run = self.subject("one-read", calls="pread64", at=1, fault=Fault("short"))
        self.assertEqual(run.out, "50 0 1\n")

    def test_a_gathered_write_leaves_the_buffers_unchanged(self):
        run = self.subject("two-gathered-writes", calls="writev", at=1, fault=Fault("short"))
        self.assertEqual(run.out.splitlines(), ["50", "200"])
        self.assertEqual(self.content(), A[:50] + A + B)

    def test_a_write_of_one_byte_is_not_shortened(self):
        run = self.subject("children", calls="write", at=1, fault=Fault("short"))
        self.assertFalse(run.is_hit)
        self.assertEqual(self.content(), b"ab")


class Killing(TracerTest):
    def test_before_the_call(self):
        run = self.subject("three-writes", calls="write", at=2, fault=Fault("kill-before"))
        self.assertEqual((run.end, run.is_hit, self.content()), ("killed", True, A))

    def test_after_the_call(self):
        run = self.subject("three-writes", calls="write", at=2, fault=Fault("kill-after"))
        self.assertEqual((run.end, run.is_hit, self.content()), ("killed", True, A + B))
        self.assertEqual(run.calls[-1].result, 100)

    def test_all_processes_end(self):
        run = self.trace("/bin/sh", "-c", f"/bin/sleep 4711 & /bin/sleep 4712 & echo x > '{self.file}'; wait",
                         calls="write", at=1, fault=Fault("kill-after"))
        self.assertEqual(run.end, "killed")
        self.assertEqual([command for command in command_lines() if command.startswith(b"/bin/sleep\x00471")], [])

    def test_if_a_child_is_killed_its_parent_ends_too(self):
        run = self.subject("children", calls="write", at=1, fault=Fault("kill-after"))
        self.assertEqual((run.end, self.content()), ("killed", b"a"))

    def test_a_command_that_does_not_end_is_a_hang(self):
        began = time.monotonic()
        run = self.subject("endless", seconds=1)
        self.assertEqual(run.end, "hang")
        self.assertLess(time.monotonic() - began, 20)


class Misuse(unittest.TestCase):
    def test_wrong_options(self):
        for options in (["--at", "1"], ["--error", "EIO"], ["--error", "ENONSENSE", "--at", "1"], ["--calls", "nothing"],
                        ["--wrong"], ["--at"]):
            with self.subTest(options=options):
                done = subprocess.run([places.TRACER, *options, "--", "true"], capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, 125)
                self.assertIn("usage", done.stderr)

    def test_no_command(self):
        self.assertEqual(subprocess.run([places.TRACER], capture_output=True, check=False).returncode, 125)

    def test_a_report_that_cannot_be_written(self):
        done = subprocess.run([places.TRACER, "--report", "/nonexistent/report", "--", "true"], capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, 125)


if __name__ == "__main__":
    places.skip_if_impossible()
    unittest.main()
