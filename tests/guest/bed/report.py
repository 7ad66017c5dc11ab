# SPDX-License-Identifier: Apache-2.0
"""
The guest's report on its second serial port, line by line:

    KERNEL system              the running kernel
    BEGIN count                the tests begin
    RUN name                   a test begins
    PASS name                  the test ended: one of these three lines for each test
    FAIL name: reason
    SKIP name: reason
    | text                     details of the failure above
    END                        all tests have ended
"""


class Report:
    def __init__(self):
        self.kernel = ""
        self.counts = {"PASS": 0, "FAIL": 0, "SKIP": 0}
        self.expected = None  # number of tests to run
        self.running = ""  # name of the test that has begun and not ended
        self.ended = False

    def take(self, line):
        """Processes one line. Returns the text to print; None if there is none."""
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
        # Set-up and tear-down of classes and modules have a line only if they fail, and no RUN line.
        if word in self.counts and self.expected is not None and not self.ended:
            self.counts[word] += 1
            self.running = ""
        return line

    def summary(self):
        counts = self.counts
        return f"{counts['PASS']} passed, {counts['FAIL']} failed, {counts['SKIP']} skipped"

    def faults(self):
        """The reasons why the run was not good; empty for a good run."""
        faults = []
        if self.expected is None:
            faults.append("the guest did not start its tests")
        elif not self.ended:
            faults.append(f"the guest did not finish its tests; it was running {self.running}" if self.running else
                          "the guest did not finish its tests")
        elif self.expected == 0:
            faults.append("no test has that name")
        elif sum(self.counts.values()) < self.expected and self.counts["FAIL"] == 0:
            faults.append(f"only {sum(self.counts.values())} of {self.expected} tests reported a result")
        elif self.counts["PASS"] + self.counts["FAIL"] == 0:
            faults.append("no test ran")
        if self.counts["FAIL"]:
            faults.append(f"{self.counts['FAIL']} failed")
        return faults
