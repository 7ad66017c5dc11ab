#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command `run`: what it shows for real programs, and how it ends."""

import hashlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support import images  # noqa: E402

PIECE = re.compile(rb"(output|error output): (\d+) bytes")
PYTHON = os.path.realpath(sys.executable)

# Prints 64 MiB on each stream alternately, in numbered lines of 1 KiB.
FLOOD = """
import os
for i in range(4096):
    os.write(1, b"%08d" % i + b"o" * 1015 + b"\\n")
    os.write(2, b"%08d" % i + b"e" * 1015 + b"\\n")
"""


def flood_digest(letter):
    digest = hashlib.sha256()
    for i in range(4096):
        digest.update(b"%08d" % i + letter * 1015)
    return digest.hexdigest()


class Run(images.CommandTest):
    def run_program(self, *command, expect=0, **options):
        """Returns the lines that `run` prints for a program."""
        result = self.vorlix_run("run", "--", *command, **options)
        self.assertEqual(result.returncode, expect, f"{command}: {result.stdout}{result.stderr}")
        self.assertEqual(result.stderr, "")
        return result.stdout.splitlines()

    def shell(self, line, **options):
        return self.run_program("/bin/sh", "-c", line, **options)


class Shown(Run):
    def test_start_pieces_end_and_status_in_this_order(self):
        self.assertEqual(self.shell(r"printf 'one\ntwo\n'"), ["start", "output: 8 bytes", "  one", "  two", "end", "status 0"])

    def test_both_streams_apart(self):
        lines = self.shell("echo out; echo err >&2")
        self.assertEqual(lines[0], "start")
        self.assertEqual(lines[-2:], ["end", "status 0"])
        self.assertIn(("output: 4 bytes", "  out"), list(zip(lines, lines[1:])))
        self.assertIn(("error output: 4 bytes", "  err"), list(zip(lines, lines[1:])))
        self.assertEqual(len(lines), 7)

    def test_a_program_that_prints_nothing(self):
        self.assertEqual(self.shell(":"), ["start", "end", "status 0"])

    def test_what_is_complained_of_last_is_always_shown(self):
        for _ in range(50):
            self.assertEqual(self.shell("echo wrong >&2"), ["start", "error output: 6 bytes", "  wrong", "end", "status 0"])

    def test_4_mib_on_both_streams_are_complete(self):
        shown = self.path("shown")
        with open(shown, "wb") as file:
            result = subprocess.run([self.vorlix, "run", "--", PYTHON, "-c", FLOOD], stdin=subprocess.DEVNULL, stdout=file,
                                    stderr=subprocess.PIPE, timeout=120)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        sizes = {b"output": 0, b"error output": 0}
        digests = {stream: hashlib.sha256() for stream in sizes}
        others = []
        stream = None
        with open(shown, "rb") as file:
            for line in file:
                if line.startswith(b"  "):
                    digests[stream].update(line[2:-1])
                elif match := PIECE.fullmatch(line[:-1]):
                    stream = match[1]
                    sizes[stream] += int(match[2])
                else:
                    others.append(line)
        self.assertEqual(others, [b"start\n", b"end\n", b"status 0\n"])
        self.assertEqual(sizes, {b"output": 4 << 20, b"error output": 4 << 20})
        self.assertEqual(digests[b"output"].hexdigest(), flood_digest(b"o"))
        self.assertEqual(digests[b"error output"].hexdigest(), flood_digest(b"e"))

    def test_pieces_are_shown_as_they_come(self):
        go = self.path("go")
        line = f"echo first; while [ ! -e '{go}' ]; do sleep 0.02; done; echo second"
        command = [self.vorlix, "run", "--", "/bin/sh", "-c", line]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as process:
            shown = [process.stdout.readline() for _ in range(3)]
            still_runs = process.poll() is None
            pathlib.Path(go).touch()
            rest = process.communicate(timeout=60)[0]
        self.assertEqual(shown, ["start\n", "output: 6 bytes\n", "  first\n"])
        self.assertTrue(still_runs)
        self.assertEqual(rest, "output: 7 bytes\n  second\nend\nstatus 0\n")

    def test_binary_output_is_told_and_kept_from_the_terminal(self):
        lines = self.shell(r"printf '\377\376\001\033'")
        self.assertEqual(lines, ["start", "output: a piece that is not UTF-8", "end", "status 0"])
        lines = self.shell(r"printf '\377' >&2")
        self.assertEqual(lines, ["start", "error output: a piece that is not UTF-8", "end", "status 0"])

    def test_control_characters_are_kept_from_the_terminal(self):
        lines = self.shell(r"printf 'a\033[2J\007\302\233b\r\nü\n'")
        self.assertEqual(lines, ["start", "output: 14 bytes", "  a?[2J??b?", "  ü", "end", "status 0"])

    def test_arguments_reach_the_program_as_they_are(self):
        arguments = ["[a,b]", "", "a b", "a,b", "--", "--help", "-h", "'", '"', "$HOME", "*", "ü", "{}", "%%", "a=b"]
        lines = self.run_program(PYTHON, "-c", "import sys; print(sys.argv[1:])", *arguments)
        self.assertEqual(lines[2], f"  {arguments}")

    def test_the_folder_and_the_environment_are_the_callers(self):
        line = r'printf "%s\n%s\n" "$VORLIX_TEST" "$(pwd -P)"'
        result = subprocess.run([self.vorlix, "run", "--", "/bin/sh", "-c", line], cwd=self.folder,
                                env={**os.environ, "VORLIX_TEST": "seen"}, stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, timeout=60)
        self.assertEqual(result.stdout.splitlines()[2:4], ["  seen", f"  {os.path.realpath(self.folder)}"])


class Input(Run):
    # Waits for data on standard input.
    LOOK = "import select; print('readable' if select.select([0], [], [], 0.3)[0] else 'open and empty')"

    def test_standard_input_is_not_taken_from_the_caller(self):
        path = self.path("input")
        with open(path, "w+", encoding="ascii") as file:
            file.write("for somebody else\n")
            file.flush()
            os.lseek(file.fileno(), 0, os.SEEK_SET)
            result = subprocess.run([self.vorlix, "run", "--", PYTHON, "-c", self.LOOK], stdin=file, capture_output=True,
                                    text=True, timeout=60)
            self.assertEqual(os.lseek(file.fileno(), 0, os.SEEK_CUR), 0, "the program read from the input of vorlix")
        self.assertEqual(result.stdout.splitlines()[2], "  open and empty")

    def test_a_pipe_of_the_callers_stays_full(self):
        read_end, write_end = os.pipe()
        try:
            os.write(write_end, b"for somebody else")
            result = subprocess.run([self.vorlix, "run", "--", PYTHON, "-c", self.LOOK], stdin=read_end, capture_output=True,
                                    text=True, timeout=60)
            self.assertEqual(os.read(read_end, 100), b"for somebody else")
        finally:
            os.close(read_end)
            os.close(write_end)
        self.assertEqual(result.stdout.splitlines()[2], "  open and empty")


class Ended(Run):
    def test_the_programs_exit_status_is_shown_and_tells_in_ours(self):
        for status in (1, 2, 3, 127, 255):
            self.assertEqual(self.shell(f"exit {status}", expect=1), ["start", "end", f"status {status}"])

    def test_a_signals_number_is_the_status(self):
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGSEGV):
            lines = self.shell(f"ulimit -c 0; kill -{int(number)} $$", expect=1)
            self.assertEqual(lines, ["start", "end", f"status {int(number)}"])

    def test_a_program_that_closes_its_output_before_it_exits_keeps_its_status(self):
        echo = images.tool("echo")  # a program that closes its output last
        for _ in range(50):
            self.assertEqual(self.run_program(echo, "x"), ["start", "output: 2 bytes", "  x", "end", "status 0"])

    def test_a_program_that_goes_on_without_output_is_asked_to_end(self):
        start = time.monotonic()
        lines = self.shell("echo x; exec sleep 60 >&- 2>&-", expect=1)
        self.assertEqual(lines, ["start", "output: 2 bytes", "  x", "end", f"status {int(signal.SIGTERM)}"])
        self.assertLess(time.monotonic() - start, 30)

    def test_a_program_that_declines_to_end_is_told_after_five_seconds(self):
        start = time.monotonic()
        lines = self.shell("trap '' TERM; exec >&- 2>&-; sleep 9", expect=1)
        self.assertEqual(lines, ["start", "end", "status -999, still running"])
        self.assertGreaterEqual(time.monotonic() - start, 5)

    def test_output_that_cannot_be_shown_is_an_error(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("no /dev/full on this system")
        with open("/dev/full", "wb") as full:
            result = subprocess.run([self.vorlix, "run", "--", "/bin/sh", "-c", "echo x"], stdin=subprocess.DEVNULL,
                                    stdout=full, stderr=subprocess.PIPE, text=True, timeout=60)
        self.assertEqual(result.returncode, 2)
        self.assertIn("standard output", result.stderr)


class NotStarted(Run):
    def assert_not_started(self, program, reason):
        result = self.vorlix_run("run", "--", program, "argument")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stdout, "start\n", "the start is reported before the launch, and nothing after it")
        self.assertEqual(result.stderr, f"vorlix: {program}: {reason}; nothing was started\n")

    def test_a_program_that_is_not_there(self):
        self.assert_not_started(self.path("missing"), "No such file or directory")

    def test_a_name_is_not_looked_for_in_the_path(self):
        self.assert_not_started("sh", "No such file or directory")

    def test_a_folder_and_a_file_that_is_no_program(self):
        self.assert_not_started(self.folder, "Permission denied")
        self.assert_not_started(self.boot_code, "Permission denied")

    def test_a_file_that_no_system_runs(self):
        os.chmod(self.boot_code, 0o755)
        self.assert_not_started(self.boot_code, "Exec format error")

    def test_no_program(self):
        for arguments in (["run"], ["run", "--"]):
            result = self.vorlix_run(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertIn("PROGRAM is required", result.stderr)


if __name__ == "__main__":
    images.main()
