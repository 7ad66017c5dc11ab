# SPDX-License-Identifier: Apache-2.0
"""`registry_lookup`, the companion program that prints one value of a registry hive."""

import contextlib
import os
import random
import resource
import signal
import struct
import subprocess
import sys
import time
import unittest

from support import hive, hives, images, volumes

MISSING = volumes.missing(*hives.NEEDED)
PAGE = hive.PAGE
CELL_SIZE = 4  # bytes of the size field before each cell's data
MEMORY_BEYOND_HIVE = 512 << 20

# Offsets of fields in the record of a key ("nk") and of a value ("vk").
KEY_COUNT = 20
KEY_LIST = 28
KEY_VALUE_LIST = 40
VALUE_SIZE = 4
VALUE_DATA = 8
VALUE_NAME = 20


class LookupTest(images.CommandTest):
    """Runs the program on hives in a private folder."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.program = hives.companion(cls.vorlix)

    def run_program(self, *arguments, prefix=(), **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.run([*prefix, self.program, *arguments], stdin=subprocess.DEVNULL, timeout=60, check=False,
                              **options)

    def look_up(self, path, key, value, **options):
        """Returns the output for a value. There must be no message, and the hive must be unchanged."""
        before = images.snapshot(path)
        result = self.run_program(path, key, value, **options)
        self.assertEqual((result.returncode, result.stderr), (0, b""), f"{path} {key} {value}")
        self.assert_unchanged(path, before)
        return result.stdout

    def refuse(self, path, key="", value="", saying="", **options):
        """The program ends with status 2, prints one message and nothing on standard output."""
        result = self.run_program(path, key, value, **options)
        self.assertEqual((result.returncode, result.stdout), (2, b""), f"{path} {key} {value} {result.stderr}")
        message = result.stderr.decode()
        self.assertTrue(message.startswith(f"registry_lookup: {path}: "), message)
        self.assertIn(saying, message)
        self.assertEqual((message.count("\n"), message[-1:]), (1, "\n"), message)
        return message

    def file(self, name, content):
        path = self.path(name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def hive(self, values, name="hive", key="Key"):
        return hives.make_hive(self.path(name), {key: values})

    def software(self, release="Windows 10", name="SOFTWARE"):
        return hives.make_software_hive(self.path(name), hives.RELEASES[release])


def hivexget(path, key, value):
    """Returns the same value's bytes by hivex's command-line tool."""
    command = [images.tool("hivexget"), path, "\\" + key.replace("/", "\\"), value or "@"]
    return subprocess.run(command, capture_output=True, timeout=60, check=True).stdout


def content_of(path):
    with open(path, "rb") as file:
        return bytearray(file.read())


def record_named(content, name):
    """Returns the file offset of the record of a value with that name."""
    at = content.index(name.encode("latin-1")) - VALUE_NAME
    assert content[at : at + 2] == b"vk", f"no value {name}"
    return at


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Values(LookupTest):
    def assert_value(self, value, expected, by_hivex=True):
        """The program prints a value as `expected`, and so does hivex's tool."""
        path = self.hive({"Value": value})
        self.assertEqual(self.look_up(path, "Key", "Value"), expected)
        if by_hivex:
            self.assertEqual(hivexget(path, "Key", "Value"), expected)

    def test_what_releases_of_windows_say_of_themselves(self):
        for release, values in hives.RELEASES.items():
            with self.subTest(release=release):
                path = self.software(release, release)
                for name, value in values.items():
                    printed = self.look_up(path, "Microsoft/Windows NT/CurrentVersion", name)
                    self.assertEqual(printed, value.encode() + b"\n")
                    self.assertEqual(hivexget(path, hives.CURRENT_VERSION, name), printed)

    def test_strings(self):
        self.assert_value("some text", b"some text\n")
        self.assert_value((hives.REG_EXPAND_SZ, hives.utf16("%SystemRoot%\\x")), b"%SystemRoot%\\x\n")
        self.assert_value("Größe, Ключ, 日本, \U0001f5a5", "Größe, Ключ, 日本, \U0001f5a5\n".encode())
        self.assert_value("", b"\n")
        self.assert_value((hives.REG_SZ, b""), b"\n")

    def test_strings_without_a_nul_or_with_more_behind_it(self):
        self.assert_value((hives.REG_SZ, "text".encode("utf-16-le")), b"text\n")
        self.assert_value((hives.REG_SZ, hives.utf16("text") + b"\xff\xdf\x41"), b"text\n")

    def test_lists_of_strings_print_one_a_line(self):
        values = {"Some": ["first", "zweiter Größe", "日本"], "None": [], "One": ["alone"]}
        values["Without NULs"] = (hives.REG_MULTI_SZ, "a\0b".encode("utf-16-le"))
        values["More behind"] = (hives.REG_MULTI_SZ, hives.utf16("a\0b\0") + hives.utf16("c"))
        expected = {"Some": "first\nzweiter Größe\n日本\n", "None": "", "One": "alone\n", "Without NULs": "a\nb\n",
                    "More behind": "a\nb\n"}
        path = self.hive(values)
        for name, lines in expected.items():
            self.assertEqual(self.look_up(path, "Key", name).decode(), lines, name)
        # hivex's tool ends the list with an empty line.
        for name in "Some", "One":
            self.assertEqual(hivexget(path, "Key", name).decode(), expected[name] + "\n")

    def test_numbers(self):
        self.assert_value(0, b"0\n")
        self.assert_value(1234567890, b"1234567890\n")
        self.assert_value((hives.REG_DWORD_BIG_ENDIAN, bytes([0, 0, 1, 2])), b"258\n")
        self.assert_value((hives.REG_QWORD, struct.pack("<Q", 9007199254740993)), b"9007199254740993\n")

    def test_numbers_have_no_sign(self):
        # hivex's tool prints these as negative numbers.
        self.assert_value(0xFFFFFFFE, b"4294967294\n", by_hivex=False)
        self.assert_value((hives.REG_DWORD_BIG_ENDIAN, bytes([0xFF, 0, 0, 0])), b"4278190080\n", by_hivex=False)
        self.assert_value((hives.REG_QWORD, bytes([0xFF] * 8)), b"18446744073709551615\n", by_hivex=False)

    def test_numbers_of_another_size_are_shown_as_bytes(self):
        self.assert_value((hives.REG_DWORD, b"\x01\x02"), b"0102\n", by_hivex=False)
        self.assert_value((hives.REG_DWORD, b""), b"\n", by_hivex=False)
        self.assert_value((hives.REG_DWORD_BIG_ENDIAN, bytes(5)), b"0000000000\n", by_hivex=False)
        self.assert_value((hives.REG_QWORD, b"\x01\x02\x03\x04"), b"01020304\n", by_hivex=False)

    def test_bytes_and_other_types(self):
        data = bytes(range(256))
        for kind in hives.REG_NONE, hives.REG_BINARY, hives.REG_LINK, 8, 9, 10, 12, 0x1234, 0xFFFFFFFF:
            with self.subTest(type=kind):
                path = self.hive({"Value": (kind, data)})
                self.assertEqual(self.look_up(path, "Key", "Value"), data.hex().encode() + b"\n")
                if kind != hives.REG_LINK:  # hivex's tool prints it as a string
                    self.assertEqual(hivexget(path, "Key", "Value"), data)
        self.assert_value(b"\xab", b"ab\n", by_hivex=False)  # stored in the value's record itself
        self.assert_value(b"", b"\n", by_hivex=False)

    def test_code_units_that_form_no_character_are_replaced(self):
        for data, text in (
            (b"a\0\x00\xd8b\0\0\0", "a\ufffdb"),  # a high surrogate alone
            (b"a\0\x00\xdcb\0\0\0", "a\ufffdb"),  # a low one
            (b"\x00\xdc\x00\xd8\0\0", "\ufffd\ufffd"),  # in the wrong order
            (b"\x3d\xd8\x3d\xd8\xa5\xdd\0\0", "\ufffd\U0001f5a5"),
            (b"a\0\x3d\xd8", "a\ufffd"),  # half a surrogate pair at the end
            (b"a\0b", "a\ufffd"),  # half a code unit at the end
        ):
            self.assert_value((hives.REG_SZ, data), text.encode() + b"\n", by_hivex=False)
        self.assert_value((hives.REG_MULTI_SZ, b"\x00\xd8\0\0b\0\0\0\0\0"), "\ufffd\nb\n".encode(), by_hivex=False)

    def test_a_value_that_is_stored_in_several_blocks(self):
        data = random.Random(4).randbytes(40000)
        path = self.file("hive", hive_with_segments(data))
        self.assertEqual(hivexget(path, "", "Big"), data)
        self.assertEqual(self.look_up(path, "", "Big"), data.hex().encode() + b"\n")

    def test_a_value_as_large_as_hivex_reads(self):
        text = "x" * 3_999_999
        path = self.file("hive", hive_with_value(hives.REG_SZ, hives.utf16(text)))
        self.assertEqual(self.look_up(path, "", "Value"), text.encode() + b"\n")
        path = self.file("larger", hive_with_value(hives.REG_SZ, hives.utf16(text + "x")))
        self.refuse(path, "", "Value", saying="more than can be read")


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Names(LookupTest):
    def test_case_makes_no_difference(self):
        path = self.software()
        for key in hives.CURRENT_VERSION.upper(), hives.CURRENT_VERSION.lower():
            for name in "PRODUCTNAME", "productname":
                self.assertEqual(self.look_up(path, key, name), b"Windows 10 Pro\n")

    def test_names_in_other_scripts_and_their_case(self):
        values = {"Größe": "latin", "Ключ": "cyrillic", "日本": "no case", "ÿ": "small", "a\U00010428": "beyond"}
        path = self.hive(values, key="Prüfung/Δοκιμή")
        for key in "Prüfung/Δοκιμή", "PRÜFUNG/ΔΟΚΙΜΉ", "prüfung/δοκιμή":
            for name, text in values.items():
                self.assertEqual(self.look_up(path, key, name), text.encode() + b"\n")
                self.assertEqual(hivexget(path, "Prüfung/Δοκιμή", name), text.encode() + b"\n")
            for name, text in (("GRÖßE", "latin"), ("КЛЮЧ", "cyrillic"), ("Ÿ", "small")):
                for locale in "C", "C.UTF-8":
                    printed = self.look_up(path, key, name, env={**os.environ, "LC_ALL": locale})
                    self.assertEqual(printed, text.encode() + b"\n")

    def test_letters_that_only_other_rules_make_the_same(self):
        path = self.hive({"strasse": "ss", "Kis": "ascii", "a\U00010428": "beyond"})
        for name in "straße", "Kıs", "Kiſ", "A\U00010400":
            self.assertEqual(self.look_up(path, "Key", name), b"", name)

    def test_an_absent_value_prints_nothing(self):
        path = self.software()
        for name in "ProductNam", "ProductName2", "", "@", "*", "Product\u2019", "/", "ProductName/":
            self.assertEqual(self.look_up(path, hives.CURRENT_VERSION, name), b"", name)

    def test_an_absent_key_prints_nothing(self):
        path = self.software()
        for key in ("", "Microsoft", "Microsoft/Windows NT", "Windows NT/CurrentVersion", "Microsoft/Windows",
                    hives.CURRENT_VERSION + "/ProductName", hives.CURRENT_VERSION.replace("/", "\\"), ".", "..",
                    "Microsoft/../" + hives.CURRENT_VERSION):
            self.assertEqual(self.look_up(path, key, "ProductName"), b"", key)

    def test_names_that_are_not_utf_8_are_nowhere(self):
        path = self.hive({"Größe": "text"})
        self.assertEqual(self.look_up(path, "Key", "Größe".encode("latin-1")), b"")
        self.assertEqual(self.look_up(path, b"\xffKey", "Größe"), b"")

    def test_the_default_value(self):
        path = self.hive({"": "default", "Other": "other"})
        self.assertEqual(self.look_up(path, "Key", ""), b"default\n")
        self.assertEqual(hivexget(path, "Key", ""), b"default\n")

    def test_empty_steps_stay_at_the_key(self):
        path = self.software()
        for key in "/" + hives.CURRENT_VERSION, hives.CURRENT_VERSION + "/", "Microsoft//Windows NT///CurrentVersion":
            self.assertEqual(self.look_up(path, key, "EditionID"), b"Professional\n")

    def test_a_name_with_a_nul_is_not_its_beginning(self):
        content = content_of(self.hive({"NameX": "first", "Name": "second"}))
        at = record_named(content, "NameX")
        content[at + VALUE_NAME + 4] = 0
        path = self.file("changed", content)
        self.assertEqual(self.look_up(path, "Key", "Name"), b"second\n")

    def test_siblings_whose_names_are_no_text_do_not_disturb(self):
        content = content_of(self.hive({"Größe Ж": "unreadable name", "Name": "text"}))
        content[content.index("Ж".encode("utf-16-le")) + 1] = 0xD8  # half a surrogate pair
        path = self.file("changed", content)
        self.assertEqual(self.look_up(path, "Key", "Name"), b"text\n")
        self.assertEqual(self.look_up(path, "Key", "Größe Ж"), b"")


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Program(LookupTest):
    def test_wrong_numbers_of_arguments(self):
        path = self.software()
        for arguments in [], [path], [path, "Key"], [path, "Key", "Value", "More"], ["--help", "more"]:
            result = self.run_program(*arguments)
            self.assertEqual((result.returncode, result.stdout), (2, b""), arguments)
            self.assertEqual(result.stderr, b"Usage: registry_lookup HIVE KEY VALUE\n")

    def test_help_and_version(self):
        result = self.run_program("--help")
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertIn(b"registry_lookup HIVE KEY VALUE", result.stdout)
        self.assertRegex(self.run_program("--version").stdout, rb"^registry_lookup \d+\.\d+\.\d+\n$")

    def test_files_that_are_no_hives(self):
        self.refuse(self.path("nowhere"), saying="No such file")
        self.refuse(self.folder, saying="a folder")
        os.mkfifo(self.path("fifo"))
        self.refuse(self.path("fifo"), saying="not a regular file")
        self.refuse(self.file("empty", b""), saying="not a registry hive")
        self.refuse(self.file("text", b"[Microsoft]\n" * 1000), saying="not a registry hive")
        with open(self.path("huge"), "wb") as file:
            file.write(hive.empty_hive())
            file.truncate((4 << 30) + (1 << 20))
        self.refuse(self.path("huge"), saying="larger than")

    def test_a_hive_without_anything_in_it_has_no_value(self):
        path = self.file("empty hive", hive.empty_hive())
        for key in "", hives.CURRENT_VERSION:
            for name in "", "ProductName":
                self.assertEqual(self.look_up(path, key, name), b"")

    def test_rights_of_an_ordinary_user(self):
        if volumes.IS_ROOT and volumes.missing("setpriv"):
            self.skipTest("setpriv is not installed; root may read everything")
        path = self.software()
        os.chmod(self.folder, 0o755)
        self.program = volumes.command_for_user(self.program)
        os.chmod(path, 0o444)
        arguments = [path, hives.CURRENT_VERSION, "ProductName"]
        self.assertEqual(self.look_up(*arguments, prefix=volumes.user_prefix()), b"Windows 10 Pro\n")
        os.chmod(path, 0)
        self.refuse(*arguments, saying="Permission denied", prefix=volumes.user_prefix())

    def test_a_message_is_not_mixed_into_a_single_stream(self):
        # The library reads a value through such a pipe.
        result = self.run_program(self.path("nowhere"), "Key", "Value", stderr=subprocess.STDOUT)
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        result = self.run_program(stderr=subprocess.STDOUT)
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        arguments = [self.software(), hives.CURRENT_VERSION, "ProductName"]
        self.assertEqual(self.run_program(*arguments, stderr=subprocess.STDOUT).stdout, b"Windows 10 Pro\n")

    def test_debugging_of_the_parser_is_not_mixed_in(self):
        path = self.software()
        printed = self.look_up(path, hives.CURRENT_VERSION, "ProductName", env={**os.environ, "HIVEX_DEBUG": "1"})
        self.assertEqual(printed, b"Windows 10 Pro\n")

    def test_output_that_cannot_be_written(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("no /dev/full on this system")
        path = self.software()
        with open("/dev/full", "wb") as full:
            result = self.run_program(path, hives.CURRENT_VERSION, "ProductName", stdout=full)
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"standard output", result.stderr)

    def test_closed_standard_streams(self):
        path = self.software()
        arguments = [path, hives.CURRENT_VERSION, "ProductName"]
        before = images.snapshot(path)
        for closed, status, printed in (((0, 2), 0, b"Windows 10 Pro\n"), ((1,), 2, b""), ((0, 1, 2), 2, b"")):

            def close(descriptors=closed):
                for descriptor in descriptors:
                    os.close(descriptor)

            result = self.run_program(*arguments, preexec_fn=close)
            self.assertEqual((result.returncode, result.stdout), (status, printed), closed)
        self.assert_unchanged(path, before)

    def test_signals_that_the_host_ignores_or_blocks(self):
        def inherit():
            for number in signal.SIGCHLD, signal.SIGXCPU, signal.SIGPIPE:
                signal.signal(number, signal.SIG_IGN)
            signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())

        path = self.software()
        printed = self.look_up(path, hives.CURRENT_VERSION, "ProductName", preexec_fn=inherit)
        self.assertEqual(printed, b"Windows 10 Pro\n")


def hive_with_value(kind, data):
    """A hive whose root has a value "Value" with its data in one cell."""
    made = hive.Hive(-(-(len(data) + 2 * PAGE) // PAGE) * PAGE, PAGE + hive.BIN_HEADER)
    value = made.value("Value", data)
    struct.pack_into("<I", made.bytes, PAGE + value + CELL_SIZE + 12, kind)
    return made.finish(made.key("root", values=[value], root=True))


def finish_with_segments(made, count, listed, size):
    """Finishes the hive: its root has a value "Big" in `count` segments, whose offsets the cell `listed` holds."""
    record = made.cell(struct.pack("<2sHII", b"db", count, listed, 0))
    name = b"Big"
    value = made.cell(struct.pack("<2sHIIIHH", b"vk", len(name), size, record, hives.REG_BINARY, 1, 0) + name)
    return made.finish(made.key("root", values=[value], root=True))


def hive_with_segments(data):
    """A hive with a value "Big" in segments of 16344 bytes."""
    made = hive.Hive(-(-(len(data) + 3 * PAGE) // PAGE) * PAGE, PAGE + hive.BIN_HEADER)
    segments = [made.cell(data[at : at + 16344]) for at in range(0, len(data), 16344)]
    listed = made.cell(struct.pack(f"<{len(segments)}I", *segments))
    return finish_with_segments(made, len(segments), listed, len(data))


def hive_with_segments_beyond_its_end():
    """A hive with a value "Big" whose segment list ends at the end of the file and claims more segments."""
    made = hive.Hive(3 * PAGE, PAGE + hive.BIN_HEADER)
    segment = made.cell(bytes(100))
    place = 2 * PAGE + 12
    listed = made.cell(struct.pack("<I", segment) * ((3 * PAGE - place) // 4), place)
    return finish_with_segments(made, 65535, listed, 1000)


def cyclic_hive(count):
    """A hive with a key "A" that lists itself `count` times as a child."""
    made = hive.Hive(-(-(8 * count + 2 * PAGE) // PAGE) * PAGE, PAGE + hive.BIN_HEADER)
    key = made.key("A")
    listed = made.cell(struct.pack("<2sH", b"lf", count) + struct.pack("<I4s", key, b"A") * count)
    struct.pack_into("<I", made.bytes, PAGE + key + CELL_SIZE + KEY_COUNT, count)
    struct.pack_into("<I", made.bytes, PAGE + key + CELL_SIZE + KEY_LIST, listed)
    return made.finish(made.key("root", [("A", key)], root=True))


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Damaged(LookupTest):
    def changed(self, content, changes, name="changed"):
        """Makes a hive file with changed 32-bit numbers: {offset: number}."""
        content = bytearray(content)
        for offset, number in changes.items():
            struct.pack_into("<I", content, offset, number)
        return self.file(name, content)

    def test_damaged_headers(self):
        content = content_of(self.software())
        key, name = hives.CURRENT_VERSION, "ProductName"
        self.refuse(self.changed(content, {0: 0x66676553}), key, name, saying="not a registry hive")
        self.refuse(self.changed(content, {4: 77}), key, name, saying="damaged")  # the checksum is wrong
        for offset, number in (20, 2), (36, 0x7FFFFFF8), (36, 0x28), (40, 0):  # version, root, size
            path = self.file("changed", hives.with_checksum(content_of(self.changed(content, {offset: number}))))
            self.refuse(path, key, name, saying="damaged")
        path = self.file("changed", hives.with_checksum(content_of(self.changed(content, {40: 0xFFFFF000}))))
        self.refuse(path, key, name, saying="truncated")

    def test_a_damaged_block_on_the_way(self):
        content = content_of(self.software())
        at = record_named(content, "ProductName")
        for size in 0, 4, 0xFFFFFFFF, 0x80000000, 0x7FFFFFFF, 0xFFFF0000:  # of the block
            path = self.changed(content, {at - CELL_SIZE: size})
            self.refuse(path, hives.CURRENT_VERSION, "EditionID", saying="damaged")
        # The record is no longer one of a value.
        self.refuse(self.changed(content, {at: 0x7878}), hives.CURRENT_VERSION, "EditionID", saying="damaged")

    def test_a_damaged_value_leaves_its_neighbours_readable(self):
        content = content_of(self.software())
        at = record_named(content, "ProductName")
        for changes in (
            {at + VALUE_DATA: 0x7FFFFFF0},
            {at + VALUE_DATA: 0x23},
            {at + VALUE_SIZE: 0x7FFFFFFF},
            {at + VALUE_SIZE: 0x00700000},
            {at + VALUE_SIZE: 0xFFFFFFFF},
            {at: 0xFFFF6B76},  # the length of its name
        ):
            path = self.changed(content, changes)
            self.refuse(path, hives.CURRENT_VERSION, "ProductName")
            self.assertEqual(self.look_up(path, hives.CURRENT_VERSION, "EditionID"), b"Professional\n")
        # The damage may hide the value.
        self.refuse(path, hives.CURRENT_VERSION, "Absent", saying="damaged")

    def test_damaged_lists(self):
        content = content_of(self.software())
        key = content.index(b"CurrentVersion") - 76
        self.assertEqual(content[key : key + 2], b"nk")
        parent = content.index(b"Windows NT") - 76
        self.assertEqual(content[parent : parent + 2], b"nk")
        for changes in (
            {key + KEY_VALUE_LIST: 0x7FFFFFF0},
            {key + KEY_VALUE_LIST - 4: 0xFFFFFFFF},  # number of values
            {key + KEY_VALUE_LIST - 4: 5000},
            {parent + KEY_COUNT: 0xFFFFFFFF},
            {parent + KEY_COUNT: 2},
            {parent + KEY_LIST: 0x7FFFFFF0},
            {parent + KEY_LIST: parent - CELL_SIZE - PAGE},
        ):
            self.refuse(self.changed(content, changes), hives.CURRENT_VERSION, "ProductName")

    def test_cycles(self):
        path = self.file("cycle", cyclic_hive(3))
        self.assertEqual(self.look_up(path, "/".join("A" * 50), "Value"), b"")
        self.assertEqual(self.look_up(path, "A/B", "Value"), b"")
        # A list of lists that contains itself.
        made = hive.Hive(2 * PAGE, PAGE + hive.BIN_HEADER)
        listed = made.cell(struct.pack("<2sHI", b"ri", 1, 0))
        struct.pack_into("<I", made.bytes, PAGE + listed + CELL_SIZE + 4, listed)
        root = made.key("root", root=True)
        struct.pack_into("<I", made.bytes, PAGE + root + CELL_SIZE + KEY_COUNT, 1)
        struct.pack_into("<I", made.bytes, PAGE + root + CELL_SIZE + KEY_LIST, listed)
        self.refuse(self.file("lists", made.finish(root)), "A", "Value")

    def test_a_list_of_segments_that_goes_on_beyond_the_file(self):
        # The parser reads memory behind the mapped file: it finds an invalid offset, or the read crashes.
        self.refuse(self.file("hive", hive_with_segments_beyond_its_end()), "", "Big", saying="damaged")

    def test_truncated_at_many_places(self):
        content = bytes(content_of(self.software()))
        lengths = {*range(0, len(content), 251), *range(PAGE, len(content), PAGE), PAGE - 1, PAGE + 1, len(content) - 1}
        for length in sorted(lengths):
            path = self.file("cut", content[:length])
            self.refuse(path, hives.CURRENT_VERSION, "ProductName", saying="truncated" if length >= 4 else "not a")
        path = self.file("cut", content)
        self.assertEqual(self.look_up(path, hives.CURRENT_VERSION, "ProductName"), b"Windows 10 Pro\n")

    def test_bytes_changed_at_random(self):
        content = bytes(content_of(self.software()))
        chance = random.Random(20240817)
        interesting = [at for at in range(PAGE, len(content)) if content[at]] + list(range(512))
        statuses = {0: 0, 2: 0}
        for run in range(60 if images.SANITIZED else 250):
            changed = bytearray(content)
            for _ in range(chance.choice((1, 1, 2, 8))):
                changed[chance.choice(interesting)] ^= chance.choice((0xFF, 1 << chance.randrange(8)))
            path = self.file("changed", hives.with_checksum(changed))
            name = chance.choice([*hives.RELEASES["Windows 10"], "Absent"])
            start = time.monotonic()
            result = self.run_program(path, hives.CURRENT_VERSION, name)
            self.assertLess(time.monotonic() - start, 20)
            self.assertIn(result.returncode, statuses, f"run {run}: {result.stderr}")
            statuses[result.returncode] += 1
            if result.returncode == 0:
                self.assertEqual(result.stderr, b"", f"run {run}")
            else:
                self.assertEqual(result.stdout, b"", f"run {run}")
                self.assertIn(b"registry_lookup: ", result.stderr, f"run {run}")
        print(f"\nstatus 0: {statuses[0]} runs, status 2: {statuses[2]} runs")
        self.assertGreater(min(statuses.values()), 0)


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class Bounds(LookupTest):
    # For each name in this path, the parser looks at 60000 keys.
    LONG_PATH = "/".join("A" * 60000)

    def slow_hive(self):
        return self.file("slow", cyclic_hive(60000))

    def test_a_hive_of_60_megabytes(self):
        path = self.file("SOFTWARE", hives.with_filler(hive.empty_hive(), 60_000_000))
        # hivex adds new cells at the end of the file.
        hives.add_keys(path, {hives.CURRENT_VERSION: hives.RELEASES["Windows 11"]})
        self.assertGreater(os.path.getsize(path), 60_000_000)
        for name, value in hives.RELEASES["Windows 11"].items():
            start = time.monotonic()
            result = self.run_program(path, hives.CURRENT_VERSION, name)
            taken = time.monotonic() - start
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, value.encode() + b"\n", b""))
            self.assertLess(taken, 10)
        print(f"\na hive of {os.path.getsize(path)} bytes: {taken:.3f} s")
        os.truncate(path, 59_998_208)
        self.refuse(path, hives.CURRENT_VERSION, "ProductName", saying="truncated")

    def test_a_lookup_that_takes_too_long_is_ended(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_CPU, (1, 5))

        start = time.monotonic()
        self.refuse(self.slow_hive(), self.LONG_PATH, "Value", saying="takes too long", preexec_fn=limit)
        self.assertLess(time.monotonic() - start, 20)

    @contextlib.contextmanager
    def parser_at_work(self, path):
        """Runs the program on a slow hive. Yields it and the identifier of its parsing process."""
        if not sys.platform.startswith("linux"):
            self.skipTest("only Linux lists a process's children in /proc")
        program = subprocess.Popen([self.program, path, self.LONG_PATH, "Value"], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        try:
            children = []
            end = time.monotonic() + 30
            while not children and time.monotonic() < end:
                with open(f"/proc/{program.pid}/task/{program.pid}/children", encoding="ascii") as file:
                    children = file.read().split()
            self.assertEqual(len(children), 1)
            while "hive" not in self.mapped(children[0], path) and time.monotonic() < end:
                time.sleep(0.01)
            yield program, int(children[0])
        finally:
            program.kill()
            program.communicate()

    @staticmethod
    def mapped(process, path):
        """Returns "hive" if the process has the file mapped, otherwise ""."""
        with open(f"/proc/{process}/maps", encoding="utf-8") as file:
            return "hive" if path in file.read() else ""

    def test_a_crash_of_the_parser_is_a_message(self):
        path = self.slow_hive()
        for number in signal.SIGSEGV, signal.SIGABRT, signal.SIGBUS, signal.SIGKILL:
            with self.subTest(signal=number.name), self.parser_at_work(path) as (program, parser):
                os.kill(parser, number)
                output, messages = program.communicate(timeout=60)
                self.assertEqual((program.returncode, output), (2, b""))
                self.assertIn(f"registry_lookup: {path}: damaged hive: its reader".encode(), messages)
                if not images.SANITIZED:
                    self.assertEqual(messages.count(b"\n"), 1, messages)

    def test_limits_of_the_parser(self):
        path = self.slow_hive()
        with self.parser_at_work(path) as (_, parser):
            cpu = resource.prlimit(parser, resource.RLIMIT_CPU)
            addresses = resource.prlimit(parser, resource.RLIMIT_AS)
            core = resource.prlimit(parser, resource.RLIMIT_CORE)
            with open(f"/proc/{parser}/maps", encoding="utf-8") as file:
                rights = [line.split()[1] for line in file if path in line]
        self.assertEqual((cpu, core), ((10, 11), (0, 0)))
        self.assertEqual(rights, ["r--s"])
        if images.SANITIZED:
            print("\nbuilds with sanitizers do not limit the address space")
        else:
            self.assertEqual(addresses, (os.path.getsize(path) + MEMORY_BEYOND_HIVE,) * 2)


if __name__ == "__main__":
    images.main()
