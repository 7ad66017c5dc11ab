#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command `image-size` on archives made by gzip and zip."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support import images, terminals  # noqa: E402

LARGE = 64 << 20  # many times the size of a pipe and of the packers' buffers
# Names that a shell or a careless program could misread; the command must measure these files.
AWKWARD_NAMES = ["a b", "it's", "'quoted'", "Überprüfung ☃ 😀", "日本語", "semi;colon & pipe|", "(round)", "~", "#", "!", "a\nb",
                 "100%s", "{a,b}", " "]
# Names that contain characters with a meaning between a shell's double quotes.
SHELL_NAMES = ['a"; touch pwned; "', "$(touch pwned)", "`touch pwned`", "$HOME", "a\\", 'a"', "a\\\\b", "${x:=y}"]


class ImageSize(images.CommandTest):
    """Runs a copy of the command line in a private folder, with unzip in its resources, as hosts ship it."""

    def setUp(self):
        super().setUp()
        self.work = self.path("work")
        os.mkdir(self.work)
        self.command = self.install("with unzip", unzip=True)

    def install(self, folder, unzip):
        os.mkdir(self.path(folder))
        command = os.path.join(self.path(folder), "vorlix")
        images.sparse_copy(self.vorlix, command)
        os.chmod(command, 0o755)
        if unzip:
            shutil.copy(images.tool("unzip"), os.path.join(self.path(folder), "unzip"))
        return command

    def file(self, name, content):
        path = os.path.join(self.work, name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def gz(self, name, content, *options):
        """Makes an archive by gzip in the working folder."""
        packed = subprocess.run([images.tool("gzip"), "-c", *options], input=content, stdout=subprocess.PIPE, check=True).stdout
        return self.file(name, packed)

    def zip(self, name, members, *options):
        """Makes an archive by zip in the working folder, from files with these names and contents."""
        source = self.path("members")
        os.mkdir(source)
        for member, content in members.items():
            with open(os.path.join(source, member), "wb") as file:
                file.write(content)
        archive = self.path("archive.zip")
        subprocess.run([images.tool("zip"), "-q", *options, archive, *members], cwd=source, check=True)
        path = os.path.join(self.work, name)
        os.rename(archive, path)
        shutil.rmtree(source)
        return path

    def measure(self, path, command=None, prefix=()):
        return subprocess.run([*prefix, command or self.command, "image-size", "--", path], cwd=self.work,
                              env={**os.environ, "LC_ALL": "C.UTF-8"}, stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, errors="surrogateescape", timeout=120)

    def assert_size(self, path, text, shown=None):
        """The command prints the size and one message, and creates or changes no file."""
        listing, before = sorted(os.listdir(self.work)), images.snapshot(os.path.join(self.work, path))
        result = self.measure(path)
        self.assertEqual((result.returncode, result.stdout), (0, text + "\n"), result.stderr)
        self.assertEqual(result.stderr, f"measuring {shown or path}\n")
        self.assertEqual(sorted(os.listdir(self.work)), listing)
        self.assertEqual(images.snapshot(os.path.join(self.work, path)), before)

    def assert_refused(self, path, *texts, command=None, prefix=()):
        """The command fails with these texts, runs nothing, and creates no file."""
        listing = sorted(os.listdir(self.work))
        result = self.measure(path, command, prefix)
        self.assertEqual((result.returncode, result.stdout), (2, ""), result.stderr)
        for text in (*texts, "nothing was run"):
            self.assertIn(text, result.stderr)
        self.assertEqual(len(result.stderr.splitlines()), len(path.splitlines()) or 1, result.stderr)
        self.assertEqual(sorted(os.listdir(self.work)), listing)

    def assert_complained(self, path, *texts, size):
        result = self.measure(path)
        self.assertEqual((result.returncode, result.stdout), (2, ""), result.stderr)
        for text in (*texts, f"{path}: unpacking reported errors; {size} bytes were unpacked"):
            self.assertIn(text, result.stderr)


class Measured(ImageSize):
    def test_gz(self):
        content = bytes(range(256)) * 4823 + b"x"
        self.assert_size(self.gz("win.gz", content), "1234689 bytes (1.23 MB)")

    def test_zip(self):
        self.assert_size(self.zip("win.zip", {"win.img": b"x" * 123456}), "123456 bytes (123.46 KB)")

    def test_an_encrypted_zip(self):
        """unzip would prompt for the password, and the user would not see the prompt."""
        for name, members in (("win.zip", {"win.img": b"x" * 1000}), ("text.zip", {"a": b"text\n" * 100, "b": b""})):
            self.assert_refused(self.zip(name, members, "-P", "password"), name, "encrypted")

    def test_a_stored_zip(self):
        self.assert_size(self.zip("win.zip", {"win.img": b"x" * 123456}, "-0"), "123456 bytes (123.46 KB)")

    def test_all_members_of_a_zip_count(self):
        self.assert_size(self.zip("win.zip", {"a": b"x" * 1000, "b c": b"y" * 2000, "ü": b""}), "3000 bytes (3.00 KB)")

    def test_all_members_of_a_gz_count(self):
        path = self.gz("win.gz", b"x" * 1000)
        with open(path, "rb") as file:
            packed = file.read()
        self.assert_size(self.file("twice.gz", packed * 2), "2000 bytes (2.00 KB)")

    def test_less_than_a_thousand_bytes_and_none(self):
        self.assert_size(self.gz("small.gz", b"x" * 999), "999 bytes")
        self.assert_size(self.gz("empty.gz", b""), "0 bytes")
        self.assert_size(self.zip("empty.zip", {"nothing": b""}), "0 bytes")

    def test_many_zeros(self):
        for name, packer in (("zeros.gz", ["gzip", "-1c"]), ("zeros.zip", ["zip", "-q", "-1", "-", "-"])):
            with self.subTest(name):
                with open(os.path.join(self.work, name), "wb") as target, subprocess.Popen(
                        [images.tool("head"), "-c", str(LARGE), "/dev/zero"], stdout=subprocess.PIPE) as zeros:
                    packing = subprocess.run([images.tool(packer[0]), *packer[1:]], stdin=zeros.stdout, stdout=target)
                self.assertEqual((packing.returncode, zeros.returncode), (0, 0))
                self.assertLess(os.path.getsize(os.path.join(self.work, name)), LARGE // 100)
                self.assert_size(name, "67108864 bytes (67.11 MB)")

    def test_a_link_to_an_image(self):
        self.gz("win.gz", b"x" * 5)
        os.symlink("win.gz", os.path.join(self.work, "link.gz"))
        self.assert_size("link.gz", "5 bytes")

    def test_the_users_decimal_separator(self):
        locales = subprocess.run([images.tool("locale"), "-a"], capture_output=True, text=True, check=True).stdout.split()
        found = next((name for name in locales if name.lower() in ("de_de.utf8", "de_de.utf-8", "fr_fr.utf8")), None)
        if not found:
            self.skipTest("no German or French locale on this machine")
        path = self.gz("win.gz", b"x" * 1500)
        result = subprocess.run([self.command, "image-size", path], env={**os.environ, "LC_ALL": found},
                                stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.stdout, "1500 bytes (1,50 KB)\n")


class Names(ImageSize):
    def test_awkward_names_are_measured(self):
        for i, name in enumerate(AWKWARD_NAMES, 1):
            with self.subTest(name):
                shown = name.replace("\n", "?")
                self.gz(name + ".gz", b"x" * i)
                self.assert_size(name + ".gz", f"{i} bytes", shown + ".gz")
                self.zip(name + ".zip", {"win.img": b"x" * (i + 100)})
                self.assert_size(name + ".zip", f"{i + 100} bytes", shown + ".zip")

    def test_awkward_folders(self):
        for i, name in enumerate(AWKWARD_NAMES + ["a[1]", "*", "?"], 1):
            with self.subTest(name):
                os.mkdir(os.path.join(self.work, name))
                shown = name.replace("\n", "?")
                self.gz(name + "/win.gz", b"x" * i)
                self.assert_size(name + "/win.gz", f"{i} bytes", shown + "/win.gz")
                self.zip(name + "/win.zip", {"win.img": b"x" * (i + 100)})
                self.assert_size(name + "/win.zip", f"{i + 100} bytes", shown + "/win.zip")

    def test_names_that_the_shell_would_not_take_as_they_are_run_nothing(self):
        for name in SHELL_NAMES:
            with self.subTest(name):
                self.gz(name + ".gz", b"x")
                self.assert_refused(name + ".gz", name, 'the path contains ", $, ` or \\, which the shell')
                self.zip(name + ".zip", {"win.img": b"x"})
                self.assert_refused(name + ".zip", name, 'the path contains ", $, ` or \\, which the shell')

    def test_nor_do_folders_of_such_names(self):
        for name in SHELL_NAMES:
            with self.subTest(name):
                os.mkdir(os.path.join(self.work, name))
                self.gz(name + "/win.gz", b"x")
                self.assert_refused(name + "/win.gz", name, "which the shell would interpret")

    def test_nor_does_an_unzip_in_a_folder_of_such_a_name(self):
        path = self.zip("win.zip", {"win.img": b"x"})
        command = self.install("$(touch pwned)", unzip=True)
        self.assert_refused(path, "$(touch pwned)/unzip", "which the shell would interpret", command=command)

    def test_names_that_start_with_a_dash_are_no_options(self):
        for i, name in enumerate(("-d", "-", "--help", "-S"), 1):
            with self.subTest(name):
                self.gz(name + ".gz", b"x" * i)
                self.assert_size(name + ".gz", f"{i} bytes")
                self.zip(name + ".zip", {"win.img": b"x" * (i + 100)})
                self.assert_size(name + ".zip", f"{i + 100} bytes")

    def test_names_that_unzip_takes_for_patterns_measure_no_other_archive(self):
        self.zip("a1.zip", {"win.img": b"x" * 5})
        for name in ("a[1].zip", "*.zip", "a?.zip"):
            with self.subTest(name):
                shutil.copy(os.path.join(self.work, "a1.zip"), os.path.join(self.work, name))
                self.assert_refused(name, name, "which unzip treats as a pattern")

    def test_gunzip_knows_no_patterns(self):
        self.gz("a1.gz", b"x")
        for i, name in enumerate(("a[1].gz", "*.gz", "a?.gz"), 2):
            self.gz(name, b"x" * i)
            self.assert_size(name, f"{i} bytes")


class NotMeasured(ImageSize):
    def test_a_truncated_gz(self):
        whole = self.gz("whole.gz", os.urandom(200000))
        with open(whole, "rb") as file:
            packed = file.read()
        self.file("half.gz", packed[:100000])
        result = self.measure("half.gz")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("unexpected end of file", result.stderr)
        came = int(re.search(r"vorlix: half.gz: unpacking reported errors; (\d+) bytes", result.stderr)[1])
        self.assertTrue(0 <= came < 200000, came)

    def test_a_truncated_zip(self):
        whole = self.zip("whole.zip", {"win.img": os.urandom(200000)})
        with open(whole, "rb") as file:
            packed = file.read()
        self.file("half.zip", packed[:100000])
        self.assert_complained("half.zip", "not", size=0)

    def test_a_damaged_gz_and_zip(self):
        for name, path in (("gz", self.gz("whole.gz", b"x" * 100000)), ("zip", self.zip("whole.zip", {"w": b"x" * 100000}))):
            with self.subTest(name):
                with open(path, "rb") as file:
                    packed = bytearray(file.read())
                packed[len(packed) // 3 :: 7] = bytes(len(packed[len(packed) // 3 :: 7]))
                self.file("damaged." + name, packed)
                result = self.measure("damaged." + name)
                self.assertEqual((result.returncode, result.stdout), (2, ""), result.stderr)
                self.assertIn("unpacking reported errors", result.stderr)

    def test_what_follows_a_gz_is_complained_of(self):
        path = self.gz("win.gz", b"x" * 1000)
        with open(path, "ab") as file:
            file.write(b"no gzip member")
        self.assert_complained("win.gz", "trailing garbage ignored", size=1000)

    def test_what_is_no_archive(self):
        for content in (b"", b"text\n", b"\x1f\x8b", b"PK\x03\x04"):
            with self.subTest(content):
                self.file("no.zip", content)
                self.assert_complained("no.zip", size=0)
                if content:
                    self.file("no.gz", content)
                    self.assert_complained("no.gz", "gzip: ", size=0)

    def test_another_archive_than_the_name_says(self):
        os.rename(self.gz("real.gz", b"x" * 10), os.path.join(self.work, "win.zip"))
        self.assert_complained("win.zip", size=0)

    def test_other_extensions(self):
        for name in ("win.dmg", "win", "win.GZ", "win.ZIP", "win.tgz", ".gz", "win.gz.img"):
            with self.subTest(name):
                self.gz(name, b"x")
                self.assert_refused(name, f"vorlix: {name}: only images whose names end in .gz or .zip")

    def test_a_missing_file_a_folder_and_a_pipe(self):
        self.assert_refused("missing.gz", "vorlix: missing.gz: No such file or directory")
        os.mkdir(os.path.join(self.work, "folder.gz"))
        self.assert_refused("folder.gz", "vorlix: folder.gz: not a regular file")
        os.mkfifo(os.path.join(self.work, "pipe.gz"))
        self.assert_refused("pipe.gz", "vorlix: pipe.gz: not a regular file")
        self.gz("win.gz", b"x")
        self.assert_refused("win.gz/", "vorlix: win.gz/: Not a directory")

    def test_a_file_that_may_not_be_read(self):
        path = self.gz("win.gz", b"x")
        os.chmod(path, 0)
        prefix = ()
        if os.geteuid() == 0:
            user = str(images.NOBODY)
            prefix = (images.tool("setpriv"), "--reuid", user, "--regid", user, "--clear-groups", "--no-new-privs")
            os.chmod(self.folder, 0o755)
        self.assert_refused(path, f"vorlix: {path}: Permission denied", prefix=prefix)

    @unittest.skipUnless(os.path.isfile("/usr/bin/unzip"), "this system has no /usr/bin/unzip")
    def test_without_an_unzip_among_the_resources_the_systems_is_taken(self):
        self.zip("win.zip", {"win.img": b"x" * 5, "two.img": b"yz"})
        command = self.install("without unzip", unzip=False)
        result = self.measure("win.zip", command)
        self.assertEqual((result.returncode, result.stdout), (0, "7 bytes\n"), result.stderr)

    @unittest.skipUnless(os.path.isfile("/usr/bin/unzip"), "this system has no /usr/bin/unzip")
    def test_an_unzip_among_the_resources_goes_first(self):
        self.zip("win.zip", {"win.img": b"x"})
        command = self.install("own unzip", unzip=False)
        own = os.path.join(os.path.dirname(command), "unzip")
        with open(own, "w", encoding="ascii") as script:
            script.write("#!/bin/sh\nprintf 12345\n")
        os.chmod(own, 0o755)
        self.assertEqual(self.measure("win.zip", command).stdout, "5 bytes\n")

    def test_no_unzip_anywhere(self):
        path = self.zip("win.zip", {"win.img": b"x"})
        self.gz("win.gz", b"x")
        command = self.install("without unzip", unzip=False)
        without = ("unshare", "-m", "--", "sh", "-c", 'mount --bind /dev/null /usr/bin/unzip && exec "$@"', "sh")
        if os.path.isfile("/usr/bin/unzip") and subprocess.run([*without, "true"], capture_output=True).returncode != 0:
            self.skipTest("the system's unzip cannot be hidden without a private mount namespace")
        prefix = without if os.path.isfile("/usr/bin/unzip") else ()
        self.assert_refused(path, "vorlix: unzip: needed for .zip images, but found neither in vorlix's resources nor in "
                            "/usr/bin", command=command, prefix=prefix)
        self.assertEqual(self.measure("win.gz", command, prefix).stdout, "1 bytes\n", "gunzip is the system's")

    def test_no_file(self):
        result = self.vorlix_run("image-size")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("FILE is required", result.stderr)


class Terminal(ImageSize):
    def on_terminal(self, path):
        """Runs the command with standard error on a terminal. Returns standard output and the terminal's input."""
        sent, output, status = terminals.run([self.command, "image-size", path], "stderr", cwd=self.work,
                                             stdout=subprocess.PIPE, env={**os.environ, "LC_ALL": "C"})
        return status, output, sent

    def test_a_bar_moves_and_is_wiped_away(self):
        with open(os.path.join(self.work, "big.gz"), "wb") as target, subprocess.Popen(
                [images.tool("head"), "-c", str(256 << 20), "/dev/zero"], stdout=subprocess.PIPE) as zeros:
            subprocess.run([images.tool("gzip"), "-1c"], stdin=zeros.stdout, stdout=target, check=True)
        status, output, sent = self.on_terminal("big.gz")
        self.assertEqual((status, output), (0, b"268435456 bytes (268.44 MB)\n"))
        self.assertTrue(sent.startswith(b"measuring big.gz\r\n"), sent)
        bars = re.findall(rb"\r\[([ =]{30})\] \d+s", sent)
        self.assertGreater(len(set(bars)), 1, "it moved")
        self.assertTrue(all(bar.count(b"=") == 6 for bar in bars), bars)
        self.assertTrue(sent.endswith(b"\r\x1b[K"), sent)

    def test_a_complaint_is_shown_after_the_bar(self):
        self.file("no.gz", b"text")
        status, output, sent = self.on_terminal("no.gz")
        self.assertEqual((status, output), (2, b""))
        self.assertIn(b"not in gzip format", sent[sent.rindex(b"\x1b[K"):])

    def test_elsewhere_lines_are_plain(self):
        self.gz("win.gz", b"x" * 100000)
        result = self.measure("win.gz")
        self.assertEqual(result.stderr, "measuring win.gz\n")


if __name__ == "__main__":
    images.main()
