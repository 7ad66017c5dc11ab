# SPDX-License-Identifier: Apache-2.0
"""Tests of the verdicts on invented command results, and of the list of data that a power failure would lose."""

import os
import re
import unittest

import places  # noqa: F401: sets the module path
from sweep import durability, judging, tracing
from sweep.judging import BLOCKED, CRASH, HANG, SILENT, TORN, WRONG_WORD, Aftermath, Expected, Seen
from sweep.tracing import Call, Run

OLD = {"sector 0": Seen("old"), "boot sector": Seen("old with serial 1", "old")}
NEW = {"sector 0": Seen("new"), "boot sector": Seen("new with serial 2", "new")}
OTHER_SERIAL = {"sector 0": Seen("new"), "boot sector": Seen("new with serial 3", "new")}
HALF = {**OLD, "sector 0": Seen("new")}
BROKEN = {**OLD, "sector 0": Seen("ne")}
EXPECTED = Expected(OLD, NEW)

DONE = Run("exited", 0, "", "")
FAILED = Run("exited", 2, "", "vorlix: mac.img: Input/output error")
KILLED = Run("killed", 9, "", "")


def verdicts(run, look, again=DONE, look_again=OTHER_SERIAL, journal=False, honest=False, expected=EXPECTED, **after):
    found = judging.judge(expected, run, Aftermath(look, after.pop("claims", []), has_journal=journal, **after), again,
                          Aftermath(look_again, []), honest)
    return [verdict for verdict, _ in found]


class Verdicts(unittest.TestCase):
    def test_acceptable_results_get_no_verdict(self):
        for run, look in ((DONE, NEW), (DONE, OTHER_SERIAL), (FAILED, OLD), (FAILED, HALF), (FAILED, NEW), (KILLED, OLD),
                          (KILLED, HALF), (KILLED, NEW), (Run("exited", 255, "", ""), OLD)):
            with self.subTest(run=run, look=look):
                self.assertEqual(verdicts(run, look), [])

    def test_success_with_a_wrong_result_is_silent(self):
        for look in (OLD, HALF, BROKEN, {**NEW, "a file that was not there": Seen("x")}, {}):
            self.assertEqual(verdicts(DONE, look), [SILENT])

    def test_a_changed_serial_in_an_old_structure_is_torn(self):
        self.assertEqual(verdicts(FAILED, {**OLD, "boot sector": Seen("old with serial 2", "old")}), [TORN])

    def test_a_false_claim_is_silent(self):
        self.assertEqual(verdicts(DONE, NEW, claims=["the folder is empty"]), [SILENT])

    def test_data_lost_in_a_power_cut_is_silent_unless_known_from_every_run(self):
        self.assertEqual(verdicts(DONE, NEW, undurable=["saved: not synced"]), [SILENT])
        known = Expected(OLD, NEW, ("saved: not synced",))
        self.assertEqual(verdicts(DONE, NEW, undurable=["saved: not synced"], expected=known), [])

    def test_half_a_structure_is_torn(self):
        for run in (FAILED, KILLED):
            self.assertEqual(verdicts(run, BROKEN), [TORN])
            self.assertEqual(verdicts(run, {"boot sector": OLD["boot sector"]}), [TORN])
            self.assertEqual(verdicts(run, {**OLD, "a new file": Seen("x")}), [TORN])

    def test_a_torn_medium_is_accepted_if_the_next_run_completes_its_journal(self):
        self.assertEqual(verdicts(KILLED, BROKEN, journal=True), [])
        self.assertEqual(verdicts(KILLED, BROKEN, again=FAILED, look_again=BROKEN, journal=True), [TORN, BLOCKED])
        self.assertEqual(verdicts(KILLED, BROKEN, look_again=BROKEN, journal=True), [SILENT, TORN])
        self.assertEqual(verdicts(KILLED, BROKEN, again=FAILED, honest=True, journal=True), [TORN])

    def test_lost_data_is_torn_however_the_command_ended(self):
        for run, look in ((DONE, NEW), (FAILED, OLD), (KILLED, OLD)):
            self.assertEqual(verdicts(run, look, lost=["no backup"]), [TORN])

    def test_the_next_run_has_to_succeed(self):
        self.assertEqual(verdicts(FAILED, OLD, again=FAILED, look_again=OLD), [BLOCKED])
        self.assertEqual(verdicts(KILLED, NEW, again=FAILED, look_again=NEW), [BLOCKED])
        self.assertEqual(verdicts(DONE, NEW, again=FAILED, look_again=NEW), [BLOCKED])

    def test_the_next_run_may_refuse_only_if_the_work_is_complete(self):
        self.assertEqual(verdicts(KILLED, NEW, again=FAILED, look_again=NEW, honest=True), [])
        self.assertEqual(verdicts(KILLED, HALF, again=FAILED, look_again=HALF, honest=True), [BLOCKED])

    def test_the_next_run_is_judged_like_the_first(self):
        self.assertEqual(verdicts(KILLED, OLD, look_again=HALF), [SILENT])
        self.assertEqual(verdicts(KILLED, OLD, again=Run("hang", 0, "", ""), look_again=OLD), [HANG, BLOCKED][:1])
        self.assertEqual(verdicts(KILLED, OLD, again=Run("signalled", 6, "", ""), look_again=OLD), [CRASH])

    def test_a_command_that_wrote_may_not_say_that_nothing_was_written(self):
        for run in (Run("exited", 2, "", "vorlix: x: y; nothing was written"), Run("exited", 2, "nothing was copied", "")):
            self.assertEqual(verdicts(run, HALF), [WRONG_WORD])
            self.assertEqual(verdicts(run, OLD), [])
            self.assertEqual(verdicts(run, BROKEN), [TORN, WRONG_WORD])

    def test_hangs_and_crashes(self):
        self.assertEqual(verdicts(Run("hang", 0, "", ""), OLD), [HANG])
        for end in (Run("signalled", 11, "", ""), Run("exited", 1, "", ""), Run("exited", 134, "", "")):
            self.assertEqual(verdicts(end, OLD), [CRASH])


FILE = "/folder/file"


def call(name, file=FILE, result=0, offset=-1, other="", flags=0):
    return Call(0, 1, name, file, other, -1, offset, flags, result)


def opened(file=FILE):
    return call("openat", file, 3, flags=os.O_CREAT | os.O_WRONLY)


def wrote(start, count, file=FILE):
    return call("pwrite64", file, count, start)


class Durability(unittest.TestCase):
    FSYNC = call("fsync")
    FAILED_FSYNC = call("fsync", result=-5)
    FOLDER_FSYNC = call("fsync", "/folder")

    def missing(self, *calls, files=(FILE,), names=()):
        return [text.split(": ", 1)[1].split(",")[0] for text in durability.missing(calls, files, names)]

    NOT_SYNCED = "written and not synced"
    LOST = "a sync failed"
    NO_NAME = "its folder was not synced after it got this name"

    def test_bytes_must_be_synced_after_they_are_written(self):
        self.assertEqual(self.missing(wrote(0, 10), self.FSYNC), [])
        self.assertEqual(self.missing(wrote(0, 10)), [self.NOT_SYNCED])
        self.assertEqual(self.missing(wrote(0, 10), self.FSYNC, wrote(0, 10)), [self.NOT_SYNCED])
        self.assertEqual(self.missing(wrote(0, 10), call("fsync", "/folder/other")), [self.NOT_SYNCED])
        self.assertEqual(self.missing(wrote(0, 10), call("syncfs", "/folder/other")), [])

    def test_other_files_do_not_count(self):
        self.assertEqual(self.missing(wrote(0, 10, "/tmp/x")), [])

    def test_data_must_be_written_again_after_a_failed_sync(self):
        self.assertEqual(self.missing(wrote(0, 10), self.FAILED_FSYNC, self.FSYNC), [self.LOST])
        self.assertEqual(self.missing(wrote(0, 10), self.FAILED_FSYNC, wrote(0, 10), self.FSYNC), [])
        self.assertEqual(self.missing(wrote(0, 10), self.FAILED_FSYNC, wrote(0, 4), wrote(4, 6), self.FSYNC), [])
        self.assertEqual(self.missing(wrote(0, 10), self.FAILED_FSYNC, wrote(1, 9), self.FSYNC), [self.LOST])
        self.assertEqual(self.missing(wrote(0, 10), self.FSYNC, self.FAILED_FSYNC), [])

    def test_a_name_needs_its_folder_synced(self):
        made = opened(), wrote(0, 10), self.FSYNC
        self.assertEqual(self.missing(*made, names=[FILE]), [self.NO_NAME])
        self.assertEqual(self.missing(*made, self.FOLDER_FSYNC, names=[FILE]), [])
        self.assertEqual(self.missing(self.FOLDER_FSYNC, *made, names=[FILE]), [self.NO_NAME])
        self.assertEqual(self.missing(*made), [])

    def test_a_file_renamed_onto_the_name_must_be_synced(self):
        beside = "/folder/beside"
        made = opened(beside), wrote(0, 10, beside)
        renamed = call("rename", other=beside)
        self.assertEqual(self.missing(*made, renamed, self.FOLDER_FSYNC, names=[FILE]), [self.NOT_SYNCED])
        synced = *made, call("fsync", beside), renamed
        self.assertEqual(self.missing(*synced, names=[FILE]), [self.NO_NAME])
        self.assertEqual(self.missing(*synced, self.FOLDER_FSYNC, names=[FILE]), [])

    def test_files_in_a_renamed_folder_must_be_synced(self):
        made = call("mkdir", "/folder/new"), opened("/folder/new/a"), wrote(0, 10, "/folder/new/a")
        renamed = call("rename", "/folder/boot", other="/folder/new")
        inside = "/folder/boot/a"
        self.assertEqual(self.missing(*made, renamed, files=[inside], names=[inside, "/folder/boot"]),
                         [self.NOT_SYNCED, self.NO_NAME, self.NO_NAME])
        synced = call("fsync", "/folder/new/a"), call("fsync", "/folder/new")
        self.assertEqual(self.missing(*made, *synced, renamed, self.FOLDER_FSYNC, files=[inside], names=[inside, "/folder/boot"]), [])

    def test_an_unnamed_file_that_is_linked_must_be_synced(self):
        unnamed = "/folder/#4711 (deleted)"
        linked = call("linkat", other="/proc/self/fd/5")
        self.assertEqual(self.missing(wrote(0, 10, unnamed), linked), [self.NOT_SYNCED])
        self.assertEqual(self.missing(wrote(0, 10, unnamed), call("fsync", unnamed), linked, names=[FILE]), [self.NO_NAME])

    def test_failed_calls_have_no_effect(self):
        self.assertEqual(self.missing(call("pwrite64", result=-5, offset=0)), [])
        self.assertEqual(self.missing(wrote(0, 10), call("rename", "/folder/b", -5, other=FILE)), [self.NOT_SYNCED])


class Points(unittest.TestCase):
    def faults(self, *arguments, **options):
        return [str(fault) for fault in tracing.faults_at(call(*arguments, **options))]

    def numbered(self, *calls):
        return [Call(number, 1, name, file, "", -1, -1, 0, 0) for number, (name, file) in enumerate(calls, 1)]

    def test_faults_fit_the_call(self):
        self.assertEqual(self.faults("pwrite64", result=512), ["EIO", "ENOSPC", "short", "kill-after"])
        self.assertEqual(self.faults("pread64", result=512), ["EIO", "short"])
        self.assertEqual(self.faults("write", result=1), ["EIO", "ENOSPC", "kill-after"])
        self.assertEqual(self.faults("fsync"), ["EIO", "kill-after"])
        self.assertEqual(self.faults("openat", flags=os.O_RDONLY), ["EIO"])
        self.assertEqual(self.faults("openat", flags=os.O_CREAT), ["EIO", "ENOSPC", "kill-after"])
        self.assertEqual(self.faults("openat", result=-2), [])

    def test_places_are_counted_for_each_process(self):
        calls = [Call(number, process, "fsync", FILE, "", -1, -1, 0, 0) for number, process in enumerate((1, 2, 1, 2), 1)]
        self.assertEqual(tracing.places_of(calls), {1: "1:1", 2: "2:1", 3: "1:2", 4: "2:2"})
        self.assertEqual({place for place, _ in tracing.points_of(calls, calls[3:])}, {"2:2"})

    def test_the_first_call_also_gets_a_kill_before_it(self):
        (first,) = self.numbered(("fsync", FILE))
        self.assertEqual([str(fault) for fault in tracing.faults_at(first)], ["kill-before", "EIO", "kill-after"])

    def test_every_counted_call_gets_a_fault(self):
        names = os.popen(f"{places.TRACER} --names").read().split() if places.TRACER else ["read"]
        for name in names:
            self.assertTrue(self.faults(name), name)

    def test_a_spread_is_even(self):
        self.assertEqual(tracing.spread(list(range(100)), 4), [12, 37, 62, 87])
        self.assertEqual(tracing.spread([1, 2], 5), [1, 2])
        self.assertEqual(len(set(tracing.spread(list(range(10)), 9))), 9)

    def test_a_selection_prefers_calls_that_change_the_medium(self):
        calls = self.numbered(*[("fsync", "/tmp/x")] * 50, ("fsync", "/case/disks/a"), *[("fsync", "/tmp/x")] * 49)
        found = tracing.selection(calls, calls, 10, re.compile("/case/disks/"))
        self.assertEqual(len(found), 10)
        self.assertEqual([str(fault) for place, fault in found if place == "1:51"], ["EIO", "kill-after"])
        self.assertEqual(len(tracing.selection(calls, calls, 2, re.compile("/case/disks/"))), 2)

    def test_only_a_few_repetitions_are_kept(self):
        look = [("openat", "/proc/N/fd"), ("newfstatat", "/proc/N"), ("close", "/proc/N/fd")]
        calls = self.numbered(*[(name, file.replace("N", str(turn))) for turn in range(10) for name, file in look])
        left = tracing.without_repetitions(calls)
        self.assertEqual([call.name for call in left[-3:]], ["openat", "newfstatat", "close"])
        self.assertLess(len(left), 15)
        self.assertEqual(left[0].number, 1)
        self.assertEqual(left[-1].number, 30)

    def test_calls_that_change_something_are_never_left_out(self):
        calls = self.numbered(*[("pwrite64", FILE)] * 20)
        self.assertEqual(tracing.without_repetitions(calls), calls)


if __name__ == "__main__":
    unittest.main()
