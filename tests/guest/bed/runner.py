# SPDX-License-Identifier: Apache-2.0
"""
Runs all tests inside the guest in this one process, and writes the results to the second serial port.

    runner.py SETTINGS OUTPUT
"""

import fnmatch
import json
import os
import sys
import tty
import unittest


class Report(unittest.TestResult):
    """Writes one line for each test, and the traceback after a failure."""

    def __init__(self, output):
        super().__init__()
        self._output = output
        self._failed = ""

    def line(self, text):
        self._output.write(text + "\n")
        self._output.flush()

    def startTest(self, test):
        super().startTest(test)
        self.line(f"RUN {test.id()}")

    def addSuccess(self, test):
        if self._failed != test.id():
            self.line(f"PASS {test.id()}")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.line(f"SKIP {test.id()}: {_one_line(reason)}")

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._fail(test, err, self.failures[-1][1])

    def addError(self, test, err):
        super().addError(test, err)
        self._fail(test, err, self.errors[-1][1])

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            found = self.failures if issubclass(err[0], test.failureException) else self.errors
            self._fail(test, err, found[-1][1], str(subtest).removeprefix(str(test)).strip() + ": ")

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        error = AssertionError("passed, and was expected to fail")
        self._fail(test, (AssertionError, error, None), str(error))

    def addExpectedFailure(self, test, err):
        super().addExpectedFailure(test, err)
        self.line(f"SKIP {test.id()}: failed as expected: {_one_line(str(err[1]))}")

    def _fail(self, test, err, text, where=""):
        # A test has only one FAIL line. Further failures of the test are details.
        if self._failed != test.id():
            self._failed = test.id()
            reason = _one_line(str(err[1])) or err[0].__name__
            self.line(f"FAIL {test.id()}: {where}{reason}")
        for line in text.splitlines():
            self.line(f"| {line}")


def _one_line(text):
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    return lines[0] if lines else ""


def _tests(suite):
    for item in suite:
        if isinstance(item, unittest.TestSuite):
            yield from _tests(item)
        else:
            yield item


def _selected(test, patterns):
    return not patterns or any(fnmatch.fnmatchcase(test.id(), f"*{pattern}*") for pattern in patterns)


def main(settings_path, output_path):
    with open(settings_path, encoding="utf-8") as file:
        settings = json.load(file)
    os.environ.update(settings["environment"])
    descriptor = os.open(output_path, os.O_WRONLY | os.O_NOCTTY)
    if os.isatty(descriptor):
        tty.setraw(descriptor)
    with open(descriptor, "w", encoding="utf-8", errors="backslashreplace") as output:
        report = Report(output)
        system = os.uname()
        report.line(f"KERNEL {system.sysname} {system.release} {system.version} {system.machine}")
        sys.path[:0] = settings["importFolders"]
        found = unittest.TestLoader().discover(settings["tests"], top_level_dir=settings["tests"])
        tests = [test for test in _tests(found) if _selected(test, settings["patterns"])]
        report.line(f"BEGIN {len(tests)}")
        unittest.TestSuite(tests).run(report)
        report.line("END")


if __name__ == "__main__":
    main(*sys.argv[1:])
