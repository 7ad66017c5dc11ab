# SPDX-License-Identifier: Apache-2.0
"""What the command line says to people: mistyped words, tables on terminals and in pipes, colours, examples, the log."""

import os
import re
import subprocess
import unittest

from support import gpt, images, terminals

LOG = "/tmp/quandrel.log"
ESCAPE = re.compile("\x1b\\[[0-9;]*m")


class WordsTest(images.CommandTest):
    def on_terminal(self, *arguments, columns=80, environment=None):
        """Runs the command line on a terminal. Returns its output and its exit status."""
        settings = {**os.environ, "TERM": "xterm", **(environment or {})}
        if "NO_COLOR" not in (environment or {}):
            settings.pop("NO_COLOR", None)
        written, _, status = terminals.run([self.vorlix, *map(str, arguments)], "stdout", columns,
                                           stderr=subprocess.DEVNULL, env=settings)
        return written.decode().replace("\r\n", "\n"), status

    def mac(self, name="mac.img"):
        """An image of 64 MiB with a GPT of three entries, made by sgdisk."""
        path = self.path(name)
        with open(path, "xb") as file:
            file.truncate(64 << 20)
        images.run_tool("sgdisk", "-n", "1:2048:+8M", "-t", "1:EF00", "-c", "1:EFI", "-n", "2:0:+8M", "-t", "2:AF0A",
                        "-c", "2:A long name of thirty-six characters", "-n", "3:0:0", "-t", "3:0700", "-c", "3:BOOTCAMP", path)
        return path


class Mistyped(WordsTest):
    def assert_said(self, arguments, text):
        result = self.vorlix_run(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertEqual(result.stderr, f"vorlix: {text}\nRun with --help for more information.\n")

    def test_a_mistyped_command_is_named_with_the_one_that_was_meant(self):
        for typed, meant in (("shwo", "show"), ("chekc", "check"), ("hybird", "hybrid"), ("ident", "identify"),
                             ("umount", "unmount"), ("lst", "list")):
            with self.subTest(typed=typed):
                self.assert_said([typed], f"no command '{typed}'; did you mean '{meant}'?")
        self.assert_said(["archive", "shwo", "x"], "no command 'archive shwo'; did you mean 'archive show'?")

    def test_what_is_near_to_nothing_gets_no_suggestion(self):
        for typed in ("frobnicate", "x", "\u0436\u0436\u0436\u0436\u0436\u0436\u0436\u0436"):
            self.assert_said([typed], f"no command '{typed}'")
        self.assert_said(["a\x1b[31m"], "no command 'a?[31m'")

    def test_a_mistyped_option(self):
        self.assert_said(["show", "disk", "--jsno"], "no option '--jsno'; did you mean '--json'?")
        self.assert_said(["show", "--jsno"], "no option '--jsno'; did you mean '--json'?")
        self.assert_said(["hybrid", "disk", "--partion=3"], "no option '--partion'; did you mean '--partition'?")
        self.assert_said(["show", "disk", "--frobnicate"], "no option '--frobnicate'")
        self.assert_said(["--vresion"], "no option '--vresion'; did you mean '--version'?")

    def test_a_word_before_the_command(self):
        self.assert_said(["blah", "show"], "no command 'blah'")
        self.assert_said(["shwo", "--help"], "no command 'shwo'; did you mean 'show'?")

    def test_a_command_that_has_commands_names_them(self):
        self.assert_said(["efi"], "a command of 'efi' is required: mount, unmount")
        self.assert_said(["vbr"], "a command of 'vbr' is required: save, restore")
        self.assert_said([], "a command is required")

    def test_what_people_try_first(self):
        for words in (["show"], ["vbr", "save"], []):
            self.assertEqual(self.vorlix_ok("help", *words).stdout, self.vorlix_ok(*words, "--help").stdout)
        self.assert_said(["help", "shwo"], "no command 'shwo'; did you mean 'show'?")
        self.assert_said(["version"], "no command 'version'; did you mean '--version'?")

    def test_what_is_missing_is_said_as_before(self):
        result = self.vorlix_run("show")
        self.assertIn("DISK is required", result.stderr)
        self.assertNotIn("did you mean", result.stderr)


class Screens(WordsTest):
    def test_tables_fit_the_terminal_and_lose_nothing(self):
        path = self.mac()
        whole = self.vorlix_ok("show", path).stdout
        self.assertTrue(any(len(line) > 80 for line in whole.splitlines()), "the table is too narrow for this test")
        for columns in (80, 100):
            text, status = self.on_terminal("show", path, columns=columns)
            self.assertEqual(status, 0)
            self.assertIn("\n\n", text)
            tables = text[text.index("\n\n"):]
            self.assertLessEqual(max(map(len, tables.splitlines())), columns)
            letters = re.sub(r"\s", "", whole)
            self.assertEqual(sorted(re.sub(r"\s", "", text)), sorted(letters))

    def test_a_narrow_terminal_is_enough_for_the_widest_table(self):
        path = self.mac()
        whole = self.vorlix_ok("disks", path).stdout
        for columns in (50, 72):
            text, status = self.on_terminal("disks", path, columns=columns)
            self.assertEqual(status, 0)
            self.assertLessEqual(max(map(len, text.splitlines())), columns)
            self.assertEqual(sorted(re.sub(r"\s", "", text)), sorted(re.sub(r"\s", "", whole)))

    def test_descriptions_in_help_continue_below_themselves(self):
        whole = self.vorlix_ok("restore", "--help").stdout
        text, status = self.on_terminal("restore", "--help", columns=70)
        self.assertEqual((status, text.split()), (0, whole.split()))
        described = text[:text.index("Examples:")].splitlines()
        self.assertLessEqual(max(len(line) for line in described if not line.startswith("Usage")), 70)
        self.assertIn("  --scratch FOLDER            Folder where the volume of a WIM is made\n" + " " * 30 + "first", text)
        self.assertEqual(text[text.index("Examples:"):], whole[whole.index("Examples:"):])

    def test_a_wide_terminal_shows_what_a_pipe_gets(self):
        path = self.mac()
        self.assertEqual(self.on_terminal("show", path, columns=300)[0], self.vorlix_ok("show", path).stdout)

    def test_colours_only_on_a_terminal_and_not_with_no_color(self):
        path = self.mac()
        plain = self.vorlix_run("check", path, "--partition", "3").stdout
        self.assertIn("change", plain)
        self.assertNotIn("\x1b", plain)
        text, status = self.on_terminal("check", path, "--partition", "3", columns=1000)
        self.assertEqual(status, 1)
        self.assertIn("\x1b[31mchange\x1b[0m", text)
        self.assertEqual(ESCAPE.sub("", text), plain)
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": ""}):
            text, _ = self.on_terminal("check", path, "--partition", "3", columns=1000, environment=environment)
            self.assertEqual(text, plain, environment)
        self.assertIn("\x1b", self.on_terminal("check", path, "--partition", "3", environment={"NO_COLOR": ""})[0])

    def test_findings_continue_below_their_text(self):
        text, _ = self.on_terminal("check", self.mac(), "--partition", "3", columns=60)
        lines = [line for line in ESCAPE.sub("", text).splitlines() if "to mend:" not in line]
        self.assertLessEqual(max(map(len, lines)), 60)


class Help(WordsTest):
    def test_what_a_help_text_has(self):
        text = self.vorlix_ok("hybrid", "--help").stdout
        self.assertTrue(text.startswith("""\
Write the hybrid MBR that a disk's GPT asks for and patch a moved Windows volume
Usage: vorlix hybrid [OPTIONS] DISK

Arguments:
  DISK                        Whole disk or disk-image file

Options:
  -h, --help                  Print this help message and exit
  --boot-code FILE            File with MBR boot code, 440 to 446 bytes (default: the disk's own; vorlix's where it has none; not with --keep-boot-code)
  --keep-boot-code            Write no boot code even where the disk has none (not with --boot-code)
  --partition N               GPT entry and MBR slot of the Windows volume (1 to 4)
"""), text)
        self.assertIn("  --json                      Show it as JSON (needs --dry-run; not with --bytes)\n", text)
        self.assertTrue(text.endswith("\n\nExamples:\n  vorlix hybrid mac.img --partition 3 --dry-run\n"
                                      "  vorlix hybrid /dev/sda --partition 4 --backup saved\n"
                                      "  vorlix hybrid /dev/sda --guard\n"), text)
        for words, line in [(("bcd",), "  --partition N               GPT entry of the Windows volume (1 to 128; required)"),
                            (("bcd",), "  --mode auto|mdt|sccm|standard\n                              What to set"),
                            (("log",), "  --lines N                   Number of existing lines to show first (default: 10)"),
                            (("disks",), "Usage: vorlix disks [OPTIONS] [DISK...]\n"),
                            (("run",), "Usage: vorlix run [OPTIONS] PROGRAM [ARGUMENT...]\n"),
                            (("vbr",), "Usage: vorlix vbr [OPTIONS] COMMAND\n")]:
            self.assertIn(line, self.vorlix_ok(*words, "--help").stdout)

    def commands(self, *path):
        """The commands that the help text of a command lists."""
        text = self.vorlix_ok(*path, "--help").stdout
        section = re.search(r"(?ms)^Commands:\n(.*?)(?:\n\n|\Z)", text)
        names = re.findall(r"(?m)^  ([a-z][a-z-]*)", section.group(1)) if section else []
        return [(*path, name) for name in names]

    def test_every_command_has_examples(self):
        commands = self.commands()
        self.assertGreater(len(commands), 20)
        for command in commands + [below for command in commands for below in self.commands(*command)]:
            with self.subTest(command=command):
                text = self.vorlix_ok(*command, "--help").stdout
                self.assertEqual(text.count("Examples:"), 1)
                self.assertRegex(text, rf"(?m)^Examples:\n  vorlix {' '.join(command)}\b")


class Messages(WordsTest):
    def test_looking_says_nothing_of_writing(self):
        missing = self.path("missing.img")
        for command in ("show", "check", "identify", "boot-type", "windows", "bootable", "image-size"):
            with self.subTest(command=command):
                result = self.vorlix_run(command, missing)
                self.assertEqual(result.returncode, 2)
                self.assertNotIn("written", result.stderr)
        self.assertIn("; nothing was written", self.vorlix_run("hybrid", missing, "--partition", "3").stderr)

    def test_a_truncated_image_is_called_truncated(self):
        path = self.mac()
        os.truncate(path, 32 << 20)
        for command in ("show", "check"):
            self.assertIn("truncated", self.vorlix_run(command, path).stdout)
        os.truncate(path, 100)
        for command in ("show", "check", "boot-type"):
            self.assertIn("truncated", self.vorlix_run(command, path).stderr)

    def test_a_slice_that_the_table_does_not_have_is_named(self):
        gpt_disk, mbr_disk = self.mac(), self.path("mbr.img")
        with open(mbr_disk, "xb") as file:
            file.truncate(8 << 20)
        images.run_tool("sfdisk", "-q", mbr_disk, stdin="label: dos\nstart=2048, size=4096, type=c\n")
        for disk, number in ((gpt_disk, 4), (gpt_disk, 128), (gpt_disk, 129), (mbr_disk, 2)):
            slice_name = f"{disk}s{number}"
            for words in (["show"], ["windows"], ["mount"], ["vbr", "save"], ["backup"]):
                with self.subTest(slice=slice_name, command=words):
                    files = [self.path("saved")] if words[0] in ("vbr", "backup") else []
                    result = self.vorlix_run(*words, slice_name, *files)
                    self.assertEqual(result.returncode, 2)
                    self.assertRegex(result.stderr, f"^vorlix: {slice_name}: {disk} has no slice {number}(;|$)")
        self.assertNotIn("has no slice", self.vorlix_run("mount", self.path("others1")).stderr)
        self.assertFalse(os.path.exists(self.path("saved")))

    def test_a_truncated_volume_is_called_truncated(self):
        path = self.mac()
        first = 34816
        with open(self.path("volume"), "xb") as volume:
            volume.truncate(46 << 20)
        images.run_tool("mkntfs", "-F", "-Q", "-q", "-p", first, "-s", "512", "-S", "63", "-H", "255", self.path("volume"))
        with open(self.path("volume"), "rb") as volume:
            gpt.write_at(path, first * 512, volume.read())
        commands = [("windows",), ("bootable",), ("identify",), ("backup", self.path("backup"), "--dry-run"),
                    ("mount",), ("vbr", "save", self.path("vbr"))]
        for size, words in ((40 << 20, "ends at sector 131038, but "), (16 << 20, f"starts at sector {first}, but ")):
            os.truncate(path, size)
            for name, *rest in commands[: 3 if size == 40 << 20 else None]:
                with self.subTest(size=size, command=name):
                    sub = [rest.pop(0)] if name == "vbr" else []
                    said = self.vorlix_run(name, *sub, path + "s3", *rest)
                    self.assertIn(words, said.stderr)
                    self.assertIn(": it is truncated", said.stderr)
                    if size == 16 << 20:
                        self.assertEqual(said.returncode, 2)
        self.assertFalse(os.path.exists(self.path("backup")) or os.path.exists(self.path("vbr")))

    @unittest.skipUnless(os.geteuid() == 0, "only root can run commands as another user than the log's owner")
    def test_a_log_of_another_user_is_mentioned_once_in_a_session_and_when_that_is_asked_for(self):
        path = self.mac()
        os.chmod(self.folder, 0o755)
        with open(LOG, "a", encoding="utf-8"):
            pass
        status = os.stat(LOG)
        if status.st_uid == images.NOBODY or status.st_mode & 0o002:
            self.skipTest(f"{LOG} can be written by the other user")
        user = ["setpriv", f"--reuid={images.NOBODY}", f"--regid={images.NOBODY}", "--clear-groups"]
        if self.vorlix_run("--version", prefix=user).returncode != 0:
            self.skipTest("the other user may not run the program")
        line = f"vorlix: the log {LOG} cannot be opened; continuing without it\n"
        session = self.path("session")
        os.mkdir(session)
        os.chown(session, images.NOBODY, images.NOBODY)
        in_session = [*user, "env", f"XDG_RUNTIME_DIR={session}"]
        without = [*user, "env", "-u", "XDG_RUNTIME_DIR"]
        for prefix, said in ((in_session, line), (in_session, ""), (without, ""), (without, "")):
            self.assertEqual(self.vorlix_run("identify", path, prefix=prefix).stderr, said)
        for words in (("--verbose", "identify", path), ("identify", "--verbose", path), ("identify", path, "--verbose")):
            self.assertEqual(self.vorlix_run(*words, prefix=in_session).stderr, line)
        self.assertIn("you may not write to it", self.vorlix_run("log", "--once", prefix=user).stderr)


class DryRuns(WordsTest):
    def test_a_table_first_and_bytes_when_they_are_asked_for(self):
        path = self.mac()
        first = int(re.search(r"First sector: (\d+)", images.run_tool("sgdisk", "-i", "3", path)).group(1))
        last = int(re.search(r"Last sector: (\d+)", images.run_tool("sgdisk", "-i", "3", path)).group(1))
        size = last - first + 1
        volume = self.path("volume")
        with open(volume, "xb") as file:
            file.truncate(size * 512)
        images.run_tool("mkntfs", "-F", "-Q", "-q", "-p", "0", "-s", "512", "-S", "63", "-H", "255", volume)
        with open(volume, "rb") as file:
            gpt.write_at(path, first * 512, file.read())
        before = images.snapshot(path)
        text = self.hybrid(path, 3, "--dry-run", expect=1).stdout
        self.assertRegex(text, rf"(?m)^ +then +\* +07 +NTFS or exFAT +{first} +{size}$")
        self.assertRegex(text, rf"(?m)^Hidden sectors +0 becomes {first}$")
        self.assertRegex(text, r"(?m)^Boot code +becomes the file's$")
        self.assertNotRegex(text, r"(?m)^  [0-9A-F]{3}  - ")
        both = self.hybrid(path, 3, "--dry-run", "--bytes", expect=1).stdout
        self.assertRegex(both, r"(?m)^  1B0  - ")
        self.assertLess(both.index("Hidden sectors"), both.index("  1B0  - "))
        self.assertEqual(self.vorlix_run("hybrid", path, "--partition", "3", "--bytes").returncode, 2)
        for command in [("hybrid", path, "--partition", "3"), ("legacy-boot", path, "--bcd", path)]:
            result = self.vorlix_run(*command, "--dry-run", "--bytes", "--json")
            self.assertEqual((result.returncode, result.stdout), (2, ""), command)
            self.assertIn("--bytes excludes --json", result.stderr)
        self.assert_unchanged(path, before)


if __name__ == "__main__":
    images.main()
