# SPDX-License-Identifier: Apache-2.0
"""
Looks at the disk that fail between the volume's content and sector 0. `vorlix restore` closes the disk there and finds it again
by its name. The content is written by then, so no message may say that nothing was, and each must say how to go on.
"""

import os
import shutil
import tempfile
import unittest

import places
from support import volumes
from sweep import judging, machine, points, restoring, tracing

LOOKS = ("newfstatat", "openat", "pread64")
WRITE = "pwrite64"


class Restore(restoring.Restore):
    def false_words(self, case, run):
        how = "vorlix restore --resume"
        return [*super().false_words(case, run), *([] if how in run.err else ["it does not say how to go on"])]


class Pause(unittest.TestCase):
    def setUp(self):
        folder = tempfile.mkdtemp(prefix="vorlix-pause-", dir=machine.scratch_folder())
        self.addCleanup(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        self.scenario = Restore(folder)
        if lacking := volumes.missing(*self.scenario.TOOLS):
            self.skipTest(f"not installed: {lacking}")
        vorlix, tracer = volumes.copy_command(os.environ["VORLIX"], folder), shutil.copy(places.TRACER, folder)
        place = os.path.join(folder, "job")
        os.mkdir(place)
        os.chmod(place, 0o755)
        if machine.IS_ROOT:
            machine.stand_apart(place)
        self.runner = points.Runner(place, vorlix, tracer)
        self.scenario.prepare()

    def test_failed_looks_at_the_disk(self):
        baseline = self.runner.baseline(self.scenario)
        writes = [call for call in baseline.calls if call.name == WRITE and call.file.endswith("/disks/mac.img")]
        (sector_0,) = [call for call in writes if call.offset == 0]
        volume = max(call.number for call in writes if call.number < sector_0.number)
        looks = [call for call in tracing.without_repetitions(baseline.calls) if volume < call.number < sector_0.number
                 and call.name in LOOKS and call.file == sector_0.file and call.process == sector_0.process]
        self.assertGreater(len(looks), 5)
        at = tracing.places_of(baseline.calls)
        refused = 0
        for call in looks:
            with self.subTest(call=str(call)):
                result = self.runner.point(self.scenario, baseline.expected, at[call.number], tracing.Fault("error", "EIO"))
                self.assertEqual(result.verdict, judging.OK, result)
                self.assertTrue(result.is_hit, result)
                self.assertNotIn("nothing was written", result.run)
                refused += result.run.startswith("exit status 2")
        self.assertGreater(refused, 0)


if __name__ == "__main__":
    places.skip_if_impossible()
    unittest.main()
