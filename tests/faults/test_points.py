# SPDX-License-Identifier: Apache-2.0
"""Tests of the sweep with a program that replaces a file, correctly or with a flaw; the sweep must find each flaw."""

import os
import shutil
import tempfile
import unittest

import places
from sweep import judging, media, points, scenarios, tracing


class Replace(scenarios.Scenario):
    """The program replaces the file's content."""

    seconds = 2

    def __init__(self, folder, behaviour, as_root=False):
        super().__init__(folder)
        self.name = behaviour
        self.as_root = as_root

    def file(self, case):
        return case.path("disks", "file")

    def set_up(self, case, vorlix):
        case.file("disks", "file", b"o" * 100)

    def command(self, case, vorlix):
        return [vorlix, self.name, self.file(case)]

    def look(self, case):
        return media.content_of(self.file(case))

    def durable(self, case):
        return [self.file(case)], []


class Flaws(unittest.TestCase):
    def setUp(self):
        folder = tempfile.mkdtemp(prefix="vorlix-points-")
        self.addCleanup(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        subject = shutil.copy(places.SUBJECT, folder)
        tracer = shutil.copy(places.TRACER, folder)
        self.runner = points.Runner(folder, subject, tracer)
        self.folder = folder

    def sweep(self, behaviour, only=None, kind=Replace):
        """The bad verdicts of all points as {(name of the call, fault): verdict}. only: tries only calls with this name."""
        scenario = kind(self.folder, behaviour)
        baseline = self.runner.baseline(scenario)
        self.assertTrue(baseline.is_steady)
        found = {}
        cut = points.power_cut(scenario, baseline.expected)
        if cut.verdict != judging.OK:
            found["end", "power cut"] = cut.verdict
        calls = [call for call in baseline.calls if only in (None, call.name)]
        for place, fault in tracing.points_of(baseline.calls, calls):
            result = self.runner.point(scenario, baseline.expected, place, fault)
            self.assertTrue(result.is_hit, result)
            if result.verdict != judging.OK:
                found[result.call.split()[2], str(fault)] = result.verdict
        return found

    def test_a_program_without_flaws(self):
        self.assertEqual(self.sweep("careful"), {})

    def test_unchecked_results(self):
        found = self.sweep("unchecked")
        for place in (("write", "EIO"), ("write", "ENOSPC"), ("write", "short"), ("fsync", "EIO")):
            self.assertEqual(found.pop(place), judging.SILENT)
        self.assertEqual(found.pop(("write", "kill-after")), judging.TORN)
        self.assertEqual(set(found.values()), {judging.SILENT}, found)

    def test_a_file_that_is_not_synced(self):
        found = self.sweep("unsynced")
        self.assertEqual(found["end", "power cut"], judging.SILENT)
        self.assertEqual(found["write", "short"], judging.TORN)

    def test_a_failed_sync_that_is_only_repeated(self):
        found = self.sweep("syncs-again")
        self.assertEqual(found["fsync", "EIO"], judging.SILENT)
        self.assertNotIn(("end", "power cut"), found)

    def test_a_false_message(self):
        found = self.sweep("liar")
        self.assertEqual(found["fsync", "EIO"], judging.WRONG_WORD)
        self.assertEqual(found["write", "EIO"], judging.TORN)

    def test_a_false_message_that_only_the_scenario_knows(self):
        class Known(Replace):
            def false_words(self, case, run):
                return ["it says that, and it is not so"]

        found = self.sweep("careful", only="fsync", kind=Known)
        self.assertEqual(found["fsync", "EIO"], judging.WRONG_WORD)

    def test_another_way_out_that_is_blocked(self):
        class Blocked(Replace):
            def other_way(self, case, vorlix):
                return ["undo does not succeed"]

        found = self.sweep("careful", only="rename", kind=Blocked)
        self.assertEqual(found["rename", "kill-after"], judging.BLOCKED)

    def test_a_lock_that_is_left_behind(self):
        found = self.sweep("leaves-lock")
        self.assertEqual(found["fsync", "kill-after"], judging.BLOCKED)
        self.assertEqual(set(found.values()), {judging.BLOCKED})

    def test_a_program_that_never_gives_up(self):
        self.assertEqual(self.sweep("never-gives-up", only="rename")["rename", "EIO"], judging.HANG)

    def test_a_program_that_crashes(self):
        found = self.sweep("aborts")
        self.assertEqual(found["rename", "EIO"], judging.CRASH)
        self.assertEqual(set(found.values()), {judging.CRASH})

    def test_a_command_that_fails_without_a_fault(self):
        with self.assertRaises(points.Broken):
            self.sweep("nothing of that name")


if __name__ == "__main__":
    places.skip_if_impossible()
    unittest.main()
