# SPDX-License-Identifier: Apache-2.0
"""
What the guest says on its second serial port, line by line:

    KERNEL system              which kernel runs
    BEGIN count                the tests begin
    RUN name                   a test begins
    PASS name                  ... and ends: one of these three lines for each test
    FAIL name: reason
    SKIP name: reason
    | text                     more on the failure above
    END                        all tests have ended
"""


class Report:
    def __init__(self):
        self.kernel = ""
        self.counts = {"PASS": 0, "FAIL": 0, "SKIP": 0}
        self.expected = None  # how many tests were to run
        self.running = ""  # name of the test that has begun and not ended
        self.ended = False

    def take(self, line):
        """Takes in one line and returns what of it is for people; None for nothing."""
        word, _, rest = line.partition(" ")
        if word == "KERNEL":
            self.kernel = rest
            return f"Kernel: {rest}"
        if word == "BEGIN":
            self.expected = int(rest)
            return None
        if word == "RUN":
            self.running = rest
            return None
        if word == "END":
            self.ended = True
            return None
        # Set-up and tear-down of classes and modules have a line only when they fail, without having begun.
        if word in self.counts and self.expected is not None and not self.ended:
            self.counts[word] += 1
            self.running = ""
        return line

    def summary(self):
        counts = self.counts
        return f"{counts['PASS']} passed, {counts['FAIL']} failed, {counts['SKIP']} skipped"

    def faults(self):
        """Why the run was not a good one, in sentences; empty when it was."""
        faults = []
        if self.expected is None:
            faults.append("the guest never came to its tests")
        elif not self.ended:
            faults.append(f"the guest did not end its tests; it was in {self.running}" if self.running else
                          "the guest did not end its tests")
        elif self.expected == 0:
            faults.append("no test has that name")
        elif sum(self.counts.values()) < self.expected and self.counts["FAIL"] == 0:
            faults.append(f"{sum(self.counts.values())} of {self.expected} tests were heard of")
        elif self.counts["PASS"] + self.counts["FAIL"] == 0:
            faults.append("no test ran")
        if self.counts["FAIL"]:
            faults.append(f"{self.counts['FAIL']} failed")
        return faults
