# SPDX-License-Identifier: Apache-2.0
"""`log`: the end of the library's log, and following it. The log's path is fixed, so each test gets a private /tmp."""

import os
import select
import shutil
import signal
import subprocess
import time
import unittest

from support import gpt, images, tools, volumes

LOG = "/tmp/quandrel.log"
PATIENCE = 20.0  # seconds; added text must appear within this time
QUIET = 1.0  # seconds; no more text may appear in this time

# The command line may be below /tmp, which the mount hides, so the shell holds it open.
IN_PRIVATE_FOLDER = 'exec 9<"$2" && mount --bind "$1" /tmp && shift 2 && exec /proc/self/fd/9 "$@"'


def namespace_options():
    return ("-m",) if volumes.IS_ROOT else ("-r", "-m")


def why_no_namespace():
    """The reason why a private /tmp is impossible, or None."""
    if not shutil.which("unshare"):
        return "unshare is not installed"
    result = subprocess.run(["unshare", *namespace_options(), "mount", "--bind", "/", "/mnt"], stdin=subprocess.DEVNULL,
                            capture_output=True, text=True, check=False)
    return None if result.returncode == 0 else f"no private /tmp: {result.stderr.strip()}"


WHY_NOT = why_no_namespace()


@unittest.skipIf(WHY_NOT, WHY_NOT)
class LogTest(images.CommandTest):
    def setUp(self):
        super().setUp()
        self.private = self.path("private")
        os.mkdir(self.private)
        self.log = os.path.join(self.private, os.path.basename(LOG))

    def prefix(self):
        return ("unshare", *namespace_options(), "sh", "-c", IN_PRIVATE_FOLDER, "sh", self.private)

    def vorlix_run(self, *arguments, **options):
        return super().vorlix_run(*arguments, prefix=self.prefix(), **options)

    def write(self, content, mode="wb"):
        with open(self.log, mode) as file:
            file.write(content)

    def once(self, *options):
        result = self.vorlix_ok("log", "--once", *options)
        self.assertEqual(result.stderr, "")
        return result.stdout


class Once(LogTest):
    def test_the_last_ten_lines(self):
        self.write(b"".join(b"line %d\n" % i for i in range(25)))
        self.assertEqual(self.once().splitlines(), [f"line {i}" for i in range(15, 25)])

    def test_as_many_lines_as_asked_for(self):
        for content in (b"", b"\n", b"a\n", b"a", b"a\nb", b"a\nb\n", b"\n\n\n", b"a\n\nb\n\n", b"\na\n"):
            self.write(content)
            lines = content.decode().splitlines(keepends=True)
            for count in (0, 1, 2, 3, 4, 100):
                with self.subTest(content=content, count=count):
                    self.assertEqual(self.once("--lines", str(count)), "".join(lines[len(lines) - min(count, len(lines)):]))

    def test_lines_that_span_the_blocks_it_is_read_in(self):
        lines = [b"%d " % i + b"x" * (i * 7919 % 150_000) + b"\n" for i in range(12)]
        self.write(b"".join(lines))
        for count in (1, 2, 3, 7, 11, 12, 13):
            with self.subTest(count=count):
                self.assertTrue(self.once("--lines", str(count)) == b"".join(lines[-count:]).decode())

    def test_line_feeds_at_the_bounds_of_blocks(self):
        for size in (65535, 65536, 65537, 131072):
            with self.subTest(size=size):
                self.write(b"first\n" + b"x" * (size - 1) + b"\nlast\n")
                self.assertEqual(self.once("--lines", "1"), "last\n")
                self.assertEqual(len(self.once("--lines", "2")), size + len("last\n"))
                self.assertEqual(len(self.once("--lines", "3")), size + len("first\nlast\n"))

    def test_a_long_log_takes_no_more_memory(self):
        with open(self.log, "wb") as file:
            file.truncate(8 << 30)
            file.seek(0, os.SEEK_END)
            file.write(b"\nthe end\n")
        limit = None if images.SANITIZED else images.MEMORY_LIMIT
        self.assertEqual(self.vorlix_ok("log", "--once", "--lines", "1", memory_limit=limit).stdout, "the end\n")

    def test_characters_that_act_on_a_terminal_are_replaced(self):
        self.write("\x1b[31mred\x07 \x08\r\x7f\x00 \x9b31m tab\tand Grüße, 水\n".encode())
        self.assertEqual(self.once(), "?[31mred? ???? ?31m tab\tand Grüße, 水\n")

    def test_bytes_that_are_no_text_pass(self):
        self.write(b"name \xff\xfe here\nnext\n")
        self.assertEqual(self.once().encode(errors="surrogateescape"), b"name \xff\xfe here\nnext\n")

    def test_no_log(self):
        result = self.vorlix_run("log", "--once")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr, f"vorlix: {LOG}: the log does not exist yet; nothing was read\n")
        self.assertEqual(os.listdir(self.private), [])

    def test_what_is_no_log_is_not_read(self):
        """The command does not wait for a pipe's writer either."""
        for make, words in ((os.mkdir, "not a regular file"), (os.mkfifo, "not a regular file")):
            make(self.log)
            for options in (["--once"], []):
                with self.subTest(make=make.__name__, options=options):
                    result = self.vorlix_run("log", *options)
                    self.assertEqual((result.returncode, result.stdout), (2, ""))
                    self.assertIn(f"vorlix: {LOG}: {words}", result.stderr)
            shutil.rmtree(self.log) if os.path.isdir(self.log) else os.remove(self.log)

    @unittest.skipUnless(volumes.IS_ROOT and not volumes.missing("setpriv"), "needs root and setpriv, to become somebody else")
    def test_a_log_that_may_not_be_read(self):
        self.write(b"secret\n")
        os.chmod(self.log, 0)
        user = " ".join(volumes.user_prefix())
        script = IN_PRIVATE_FOLDER.replace("exec /proc/self/fd/9", f"exec {user} /proc/self/fd/9")
        os.chmod(self.folder, 0o755)
        command = ["unshare", "-m", "sh", "-c", script, "sh", self.private, volumes.command_for_user(self.vorlix), "log", "--once"]
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual((result.returncode, result.stdout), (2, ""), result.stderr)
        self.assertEqual(result.stderr, f"vorlix: {LOG}: Permission denied; nothing was read\n")

    def test_numbers_of_lines_that_are_none(self):
        self.write(b"line\n")
        for count in ("-1", "x", "99999999999999999999"):
            with self.subTest(count=count):
                result = self.vorlix_run("log", "--once", f"--lines={count}")
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("--lines", result.stderr)

    @unittest.skipIf(volumes.missing("sgdisk"), "sgdisk is not installed")
    def test_what_the_library_logged_is_shown(self):
        tools.sgdisk_image(os.path.join(self.private, "disk.img"), {1: (2048, 4095, gpt.EFI_SYSTEM)}, size=4 << 20)
        with open(os.path.join(self.private, "boot.bin"), "wb") as file:
            file.write(self.BOOT_CODE)
        self.vorlix_ok("hybrid", "/tmp/disk.img", "--boot-code", "/tmp/boot.bin", "--partition", "1", "--guard")
        with open(self.log, encoding="utf-8", errors="surrogateescape") as file:
            written = file.read()
        self.assertTrue(written)
        self.assertEqual(self.once("--lines", "1000"), written)


class Following(LogTest):
    def start(self, *options):
        child = subprocess.Popen([*self.prefix(), self.vorlix, "log", *options], stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.stop, child)
        return child

    @staticmethod
    def stop(child):
        child.kill()
        child.communicate()

    def expect(self, child, expected):
        """Exactly these bytes come next, within PATIENCE."""
        seen = b""
        end = time.monotonic() + PATIENCE
        while len(seen) < len(expected):
            self.assertTrue(select.select([child.stdout], [], [], max(0, end - time.monotonic()))[0], f"in time: {seen!r}")
            block = os.read(child.stdout.fileno(), len(expected) - len(seen))
            self.assertTrue(block, f"went on: {seen!r}")
            seen += block
        self.assertEqual(seen, expected)

    def expect_silence(self, child):
        self.assertFalse(select.select([child.stdout], [], [], QUIET)[0])
        self.assertIsNone(child.poll())

    def test_what_is_added_shows(self):
        self.write(b"one\ntwo\n")
        child = self.start("--lines", "1")
        self.expect(child, b"two\n")
        self.write(b"three\n", "ab")
        self.expect(child, b"three\n")
        self.write(b"half of ", "ab")
        self.expect(child, b"half of ")
        self.write(b"a line\n", "ab")
        self.expect(child, b"a line\n")
        self.expect_silence(child)

    def test_no_lines_to_begin_with(self):
        self.write(b"one\ntwo")
        child = self.start("--lines", "0")
        self.expect_silence(child)
        self.write(b" three\n", "ab")
        self.expect(child, b" three\n")

    def test_a_log_that_is_emptied_is_shown_from_its_start(self):
        self.write(b"a long first line\n")
        child = self.start()
        self.expect(child, b"a long first line\n")
        os.truncate(self.log, 0)
        self.expect_silence(child)
        self.write(b"new\n", "ab")
        self.expect(child, b"new\n")

    def test_a_log_that_is_replaced_is_shown_from_its_start(self):
        self.write(b"first\n")
        child = self.start()
        self.expect(child, b"first\n")
        fresh = os.path.join(self.private, "fresh")
        with open(fresh, "wb") as file:
            file.write(b"another, longer one\n")
        os.rename(fresh, self.log)
        self.expect(child, b"another, longer one\n")
        self.write(b"more\n", "ab")
        self.expect(child, b"more\n")

    def test_what_was_added_before_a_replacement_is_not_lost(self):
        self.write(b"first\n")
        child = self.start()
        self.expect(child, b"first\n")
        os.kill(child.pid, signal.SIGSTOP)
        self.write(b"late\n", "ab")
        os.rename(self.log, os.path.join(self.private, "rotated"))
        self.write(b"fresh\n")
        os.kill(child.pid, signal.SIGCONT)
        self.expect(child, b"late\nfresh\n")

    def test_a_log_that_is_removed_and_comes_back(self):
        self.write(b"first\n")
        child = self.start()
        self.expect(child, b"first\n")
        os.remove(self.log)
        self.expect_silence(child)
        self.write(b"again\n")
        self.expect(child, b"again\n")

    def test_a_log_that_is_not_there_yet(self):
        child = self.start("--lines", "1")
        self.assertEqual(child.stderr.readline(), f"vorlix: {LOG}: the log does not exist yet; waiting for it\n".encode())
        self.assertEqual(os.listdir(self.private), [])
        self.write(b"one\ntwo\n")
        self.expect(child, b"one\ntwo\n")

    def test_a_character_that_is_written_in_two_parts(self):
        self.write(b"start\n")
        child = self.start()
        self.expect(child, b"start\n")
        self.write(b"x\xc2", "ab")
        self.expect(child, b"x")
        self.expect_silence(child)
        self.write(b"\x9b31m\xc2", "ab")
        self.expect(child, b"?31m")
        self.write(b"\xa7 5\n", "ab")
        self.expect(child, "§ 5\n".encode())

    def test_ends_when_nobody_reads_any_more(self):
        self.write(b"first\n")
        child = self.start()
        self.expect(child, b"first\n")
        child.stdout.close()
        self.write(b"second\n", "ab")
        status = child.wait(timeout=PATIENCE)
        child.stderr.close()
        self.assertIn(status, (2, -signal.SIGPIPE))
        child.communicate = lambda: None

    def test_ends_when_it_is_asked_to(self):
        self.write(b"first\n")
        child = self.start()
        self.expect(child, b"first\n")
        child.send_signal(signal.SIGINT)
        self.assertEqual(child.wait(timeout=PATIENCE), -signal.SIGINT)


if __name__ == "__main__":
    images.main()
