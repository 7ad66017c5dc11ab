# SPDX-License-Identifier: Apache-2.0
"""Tests of the test bed on the host: what counts as a good run, the time limit, the order of modules."""

import contextlib
import io
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from bed import initramfs, kernel, machine  # noqa: E402
from bed.report import Report  # noqa: E402

GOOD = ["KERNEL Linux 6.1.0", "BEGIN 3", "RUN a.A.one", "PASS a.A.one", "RUN a.A.two", "SKIP a.A.two: no such tool",
        "RUN a.A.three", "PASS a.A.three", "END"]


def report_of(lines):
    report = Report()
    for line in lines:
        report.take(line)
    return report


class ReportTest(unittest.TestCase):
    def test_a_run_in_which_all_passed_or_were_skipped_is_good(self):
        report = report_of(GOOD)
        self.assertEqual(report.faults(), [])
        self.assertEqual(report.summary(), "2 passed, 0 failed, 1 skipped")
        self.assertEqual(report.kernel, "Linux 6.1.0")

    def test_one_failure_spoils_it(self):
        lines = [line.replace("PASS a.A.three", "FAIL a.A.three: 1 != 2") for line in GOOD]
        self.assertEqual(report_of(lines).faults(), ["1 failed"])

    def test_without_its_end_it_is_not_good(self):
        self.assertEqual(report_of(GOOD[:-1]).faults(), ["the guest did not finish its tests"])
        self.assertEqual(report_of(GOOD[:-2]).faults(), ["the guest did not finish its tests; it was running a.A.three"])

    def test_without_a_beginning_it_is_not_good(self):
        self.assertEqual(report_of([]).faults(), ["the guest did not start its tests"])
        self.assertEqual(report_of(GOOD[:1]).faults(), ["the guest did not start its tests"])

    def test_no_test_at_all_is_not_good(self):
        self.assertEqual(report_of(["BEGIN 0", "END"]).faults(), ["no test has that name"])
        self.assertEqual(report_of(["BEGIN 1", "RUN a", "SKIP a: why", "END"]).faults(), ["no test ran"])

    def test_a_test_that_was_not_heard_of_is_missed(self):
        self.assertEqual(report_of(GOOD[:4] + GOOD[6:]).faults(), ["only 2 of 3 tests reported a result"])

    def test_details_and_results_are_for_people(self):
        report = Report()
        self.assertEqual([report.take(line) for line in ("BEGIN 1", "RUN a", "FAIL a: 1 != 2", "| line 3", "END")],
                         [None, None, "FAIL a: 1 != 2", "| line 3", None])


class MachineTest(unittest.TestCase):
    """A shell script takes the place of the machine."""

    def run_script(self, script, limit):
        with tempfile.TemporaryDirectory() as folder, contextlib.redirect_stdout(io.StringIO()) as printed:
            results = os.path.join(folder, "results")
            report, stopped = machine.run_tests(["sh", "-c", script, "sh", results], results, limit)
        return report, stopped, printed.getvalue()

    def test_what_a_machine_says_before_it_ends_is_heard(self):
        report, stopped, printed = self.run_script(r"""printf 'KERNEL k\nBEGIN 1\nRUN a\nPASS a\r\nEND\n' >>"$1" """, 60)
        self.assertFalse(stopped)
        self.assertEqual(report.faults(), [])
        self.assertEqual(printed, "Kernel: k\nPASS a\n")

    def test_a_machine_that_hangs_is_stopped_and_its_test_named(self):
        begin = time.monotonic()
        report, stopped, _ = self.run_script(r"""printf 'BEGIN 1\nRUN a\n' >>"$1"; exec sleep 60""", 1)
        self.assertTrue(stopped)
        self.assertLess(time.monotonic() - begin, 30)
        self.assertEqual(report.faults(), ["the guest did not finish its tests; it was running a"])


class InitramfsTest(unittest.TestCase):
    @unittest.skipUnless(shutil.which("busybox"), "busybox is not installed")
    def test_cpio_unpacks_what_was_put_in(self):
        with tempfile.TemporaryDirectory() as folder:
            archive = os.path.join(folder, "archive")
            with initramfs.Initramfs(archive) as out:
                out.folder("sub")
                out.content("sub/odd", b"12345", 0o755)
                out.content("even", b"1234")
            with open(archive, "rb") as content:
                subprocess.run(["busybox", "cpio", "-i"], stdin=content, cwd=folder, check=True,
                               stderr=subprocess.DEVNULL)
            with open(os.path.join(folder, "sub", "odd"), "rb") as odd, open(os.path.join(folder, "even"), "rb") as even:
                self.assertEqual((odd.read(), even.read()), (b"12345", b"1234"))
                self.assertEqual(os.fstat(odd.fileno()).st_mode & 0o777, 0o755)


class ModulesTest(unittest.TestCase):
    def test_a_module_comes_after_those_it_depends_on(self):
        depends = {"virtio_pci": "virtio,virtio-ring", "virtio_ring": "virtio", "virtio": ""}
        with tempfile.TemporaryDirectory() as folder:
            os.makedirs(os.path.join(folder, "kernel", "drivers"))
            for name, others in depends.items():
                with open(os.path.join(folder, "kernel", "drivers", f"{name}.ko"), "wb") as module:
                    module.write(b"\x7fELF\0license=GPL\0depends=" + others.encode() + b"\0name=" + name.encode() + b"\0")
            with open(os.path.join(folder, "modules.builtin"), "w", encoding="ascii") as builtin:
                builtin.write("kernel/fs/fuse/fuse.ko\n")
            order = list(kernel.load_order(folder, ("fuse", "virtio_pci")))
            self.assertEqual(order, ["virtio", "virtio_ring", "virtio_pci"])
            with self.assertRaisesRegex(FileNotFoundError, "no module overlay"):
                kernel.load_order(folder, ("overlay",))


if __name__ == "__main__":
    unittest.main()
