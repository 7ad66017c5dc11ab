# SPDX-License-Identifier: Apache-2.0
"""Times whole processes in alternation (A B A B ...), so that other load on the machine affects all of them equally."""

import os
import statistics
import subprocess
import sys
import time


class Program:
    """A command. Its word "IMAGE" stands for the path of the program's copy of the image."""

    def __init__(self, label, command, statuses=(0,)):
        self.label = label
        self.command = command
        self.statuses = statuses
        self.wall = []
        self.cpu = []
        self.memory = 0  # KiB, the largest resident set of a run

    def arguments(self, image):
        return [str(image) if word == "IMAGE" else word for word in self.command]

    def run(self, image):
        """Runs the command once and discards its output. Measures from before the start until the end is known."""
        arguments = self.arguments(image)
        silence = [(os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0),
                   (os.POSIX_SPAWN_OPEN, 2, os.devnull, os.O_WRONLY, 0)]
        start = time.perf_counter()
        process = os.posix_spawnp(arguments[0], arguments, os.environ, file_actions=silence)
        _, status, usage = os.wait4(process, 0)
        self.wall.append(time.perf_counter() - start)
        self.cpu.append(usage.ru_utime + usage.ru_stime)
        self.memory = max(self.memory, usage.ru_maxrss)
        if os.waitstatus_to_exitcode(status) not in self.statuses:
            subprocess.run(arguments, check=False)  # again, to show its messages
            sys.exit(f"{' '.join(arguments)}: ended with {os.waitstatus_to_exitcode(status)}")

    def forget(self):
        self.wall.clear()
        self.cpu.clear()

    def median(self):
        return statistics.median(self.wall)

    def cpu_median(self):
        return statistics.median(self.cpu)


def fresh_copy(original, copy):
    """Makes a synced copy, so that no later sync has to write it."""
    subprocess.run(["cp", "--sparse=always", str(original), str(copy)], check=True)
    descriptor = os.open(copy, os.O_RDWR)
    os.fsync(descriptor)
    os.close(descriptor)


def take_turns(title, programs, original, folder, runs, renew=False, ratios=True, bar=None):
    """Runs each program `runs` times, after one run that is not counted. With `renew`, each run gets a fresh copy. `bar` is
    the largest allowed ratio of the first program's CPU time to the second one's."""
    copies = [folder / f"copy{i}.img" for i in range(len(programs))]
    for copy in copies:
        fresh_copy(original, copy)
    for turn in range(runs + 1):
        if turn == 1:
            for program in programs:
                program.forget()
        for program, copy in zip(programs, copies):
            if renew and turn > 0:
                fresh_copy(original, copy)
            program.run(copy)
    print(f"\n{title}: {runs} runs each, alternating")
    print(f"  {'':28} {'median':>10} {'fastest':>10} {'CPU':>10}")
    for program in programs:
        times = [program.median(), min(program.wall), program.cpu_median()]
        print(f"  {program.label:28} " + " ".join(f"{seconds * 1e3:7.2f} ms" for seconds in times))
    for program in programs[1:] if ratios else []:
        cpu = programs[0].cpu_median() / program.cpu_median()
        print(f"  {programs[0].label} : {program.label} = {programs[0].median() / program.median():.3f}, CPU {cpu:.3f}")
    if bar is not None:
        cpu = programs[0].cpu_median() / programs[1].cpu_median()
        print(f"  bar: CPU at most {bar} of {programs[1].label}: {'kept' if cpu <= bar else 'MISSED'}")
