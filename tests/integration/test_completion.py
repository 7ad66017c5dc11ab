#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Completion of command lines: what the program offers, and what bash, zsh and fish make of it."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

from support import images, shells, volumes

MISSING = volumes.missing("sgdisk", "sfdisk", "mkntfs", "mkfs.vfat", "mmd", "mcopy", "setpriv")
SOURCE = pathlib.Path(os.environ.get("VORLIX_SOURCE", pathlib.Path(__file__).resolve().parents[2]))
KINDS = {"text", "choice", "disk", "device", "volume", "mounted", "partition", "file", "folder", "backup", "restore", "label",
         "identifier"}
SLICES = (volumes.EFI, volumes.APPLE, volumes.WINDOWS)
ODD = "my disk: ü \"x'.img"


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class CompletionTest(volumes.VolumeTest):
    def setUp(self):
        super().setUp()
        self.disk = self.copy_of_disk("mac.img")

    def copy_of_disk(self, name):
        """A disk with a GPT by sgdisk and an NTFS volume by mkntfs in its third slice."""
        path = self.path(name)
        images.sparse_copy(volumes.partitioned_disk(), path)
        volume = self.path("volume.ntfs")
        with open(volume, "wb") as file:
            file.truncate(volumes.WINDOWS.sectors * 512)
        images.run_tool("mkntfs", "-F", "-f", "-q", "-s", 512, "-p", volumes.WINDOWS.first, "-H", 255, "-S", 63, volume)
        with open(volume, "rb") as content, open(path, "r+b") as file:
            file.seek(volumes.WINDOWS.first * 512)
            file.write(content.read())
        os.unlink(volume)
        return self.give(path)

    def offers(self, *words):
        """What the program says of the last word: the first line, and the descriptions by the texts."""
        result = self.vorlix_run("complete", "--", *words)
        self.assertEqual((result.returncode, result.stderr), (0, ""), words)
        first, *lines = result.stdout.split("\n")[:-1]
        return first, dict((line.split("\t") + [""])[:2] for line in lines)


def described(text, section):
    """The names that a section of a help text describes, each with whether it takes a value."""
    found = re.search(rf"(?ms)^(?i:{section}):\n(.*?)(?:\n\n|\Z)", text)
    lines = re.findall(r"(?m)^  (\S.*)$", found.group(1)) if found else []
    return {re.search(r"--[a-z-]+|^\w[\w-]*", line).group(): re.match(r"--[a-z-]+ \S", line) is not None
            for line in lines}


class TheDefinition(CompletionTest):
    def commands(self, path=()):
        """Every command that has no commands of its own, with its help text."""
        text = self.vorlix_ok(*path, "--help").stdout
        below = described(text, "Commands")
        self.assertEqual(self.offers(*path, "")[0] == "command", bool(below), path)
        if below:
            self.assertEqual(list(self.offers(*path, "")[1]), list(below), path)
        for name in below:
            yield from self.commands((*path, name))
        if not below:
            yield path, text

    def test_what_the_help_shows_is_offered_and_every_value_is_declared(self):
        paths, values = [], 0
        for path, text in self.commands():
            paths.append(path)
            options = described(text, "Options")
            place, offered = self.offers(*path, "-")
            self.assertEqual((place, list(offered)), ("option", list(options)), path)
            self.assertTrue(all(offered.values()), "each has a description")
            arguments = described(text, "Arguments")
            places = [(*path, *["x"] * number, "") for number in range(len(arguments))]
            places += [(*path, name, "") for name, takes_value in options.items() if takes_value]
            for words in places:
                kind = self.offers(*words)[0].split(" ")[0]
                self.assertIn(kind, KINDS, words)
                values += 1
        self.assertIn(("vbr", "restore"), paths)
        self.assertGreater(len(paths), 25)
        self.assertGreater(values, 60)

    def test_fixed_values_are_those_that_the_command_takes(self):
        for words in (["startup-disk", "x", "--type"], ["restore", "--start"], ["check", "--start"], ["bcd", "--firmware"],
                      ["bcd", "--mode"], ["backup", "--progress"], ["completion"]):
            kind, offered = self.offers(*words, "")
            self.assertEqual(kind, "choice")
            self.assertGreater(len(offered), 1)
            text = self.vorlix_ok(words[0], "--help").stdout
            for value in offered:
                self.assertRegex(text, rf"\b{re.escape(value)}\b", words)
        self.assertEqual(list(self.offers("check", "--start=e")[1]), [f"--start={way}" for way in
                                                                      ("auto", "both", "efi", "legacy")])

    def test_after_a_mistake_nothing_is_offered(self):
        for words in (["nonsense", ""], ["hybrid", "--dry-run=x"], ["vbr", "sve", ""]):
            self.assertEqual(self.offers(*words), ("nothing", {}), words)
        self.assertEqual(self.offers(), ("nothing", {}))

    def test_it_is_no_command_for_people(self):
        self.assertNotIn("complete ", self.vorlix_ok("--help").stdout)
        self.assertNotIn("complete", self.offers("")[1])


class TheMachine(CompletionTest):
    def assert_slices(self, offered, image, numbers):
        """The slices of the image among the offers. Returns their descriptions."""
        names = [name for name in offered if re.sub(r"s\d+$", "", name) == image]
        self.assertEqual(names, [f"{image}s{number}" for number in numbers])
        return [offered[name] for name in names]

    def test_slices_of_an_image_file(self):
        os.mkdir(self.path("folder"))
        shutil.copy(self.disk, self.path("folder/mac.img"))
        for word in (self.disk, f"{self.disk}s", f"{self.disk}s3", self.disk[:-2]):
            kind, offered = self.offers("mount", word)
            self.assertEqual(kind, "device files", word)
            descriptions = self.assert_slices(offered, self.disk, [1, 2, 3])
        for slice_, text in zip(SLICES, descriptions):
            self.assertTrue(text.startswith(slice_.name + ", "), text)
        self.assertIn(", 8.39 MB", descriptions[2])
        for word in (os.path.dirname(self.disk), os.path.dirname(self.disk) + "/", self.path("folder"), self.path("none")):
            self.assert_slices(self.offers("mount", word)[1], self.disk, [])
        self.assert_slices(self.offers("restore", self.disk)[1], self.disk, [1, 2, 3])
        self.copy_of_disk("mac.img2")
        self.assert_slices(self.offers("mount", self.path("ma"))[1], self.disk, [])  # which of the two is not known
        self.assert_slices(self.offers("mount", self.disk)[1], self.disk, [1, 2, 3])

    def test_partitions_of_the_disk_named_before(self):
        for words in (["hybrid", self.disk, "--partition"], ["restore", "source.img", self.disk, "--partition"],
                      ["bcd", "--dry-run", self.disk, "--partition"], ["check", self.disk, "--json", "--partition"]):
            kind, offered = self.offers(*words, "")
            self.assertEqual((kind, list(offered)), ("partition", ["1", "2", "3"]), words)
            self.assertTrue(offered["3"].startswith("BOOTCAMP, "), offered)
        self.assertEqual(list(self.offers("hybrid", self.disk, "--partition=")[1]), [f"--partition={n}" for n in (1, 2, 3)])
        self.assertEqual(self.offers("hybrid", "--partition", ""), ("partition", {}))
        self.assertEqual(self.offers("restore", self.disk, "--partition", ""), ("partition", {}), "that is the source")

    def test_an_mbr_has_four_slots(self):
        disk = self.file("many.img", bytes(2 << 20))
        images.run_tool("sgdisk", "-a", "1", *[f"--new={number}:{40 * number}:+10" for number in range(1, 7)], disk)
        self.assertEqual(list(self.offers("hybrid", disk, "--partition", "")[1]), ["1", "2", "3", "4"])
        self.assertEqual(list(self.offers("bcd", disk, "--partition", "")[1]), ["1", "2", "3", "4", "5", "6"])

    def test_a_disk_with_an_mbr_alone(self):
        disk = self.file("mbr.img", bytes(1 << 20))
        images.run_tool("sfdisk", "-q", disk, stdin="label: dos\nstart=64, size=64, type=7\nstart=128, size=64, type=c\n")
        self.assert_slices(self.offers("mount", disk)[1], disk, [1, 2])
        self.assertEqual(self.offers("hybrid", disk, "--partition", "")[1], {}, "entries of a GPT are wanted")

    def test_devices_of_the_machine(self):
        sizes = {path.parent.name.replace("!", "/"): int(path.read_text()) for path in pathlib.Path("/sys/block").glob("*/size")}
        disks = {f"/dev/{name}" for name, size in sizes.items() if size and not name.startswith("loop")}  # other tests' own
        if not disks:
            self.skipTest("this machine has no disk with a medium")
        self.assertEqual({name for name in self.offers("show", "/")[1] if name in disks}, disks)
        name = sorted(disks)[0].removeprefix("/dev/")
        self.assertIn(name, self.offers("identify", name[:2])[1])
        self.assertNotIn(name, self.offers("identify", "")[1])

    def test_volumes_and_labels(self):
        fat = self.give(volumes.make_fat(self.path("stick.img"), 16, "MY DISK"))
        folder = self.mount(fat)
        self.assertIn(folder, self.offers("windows", "")[1])
        self.assertEqual(self.offers("windows", "")[1][folder], f"MY DISK, {fat}")
        self.assertIn("MY DISK", self.offers("find", "--label", "")[1])
        self.assertIn(fat, self.offers("unmount", "")[1])
        self.vorlix_ok("unmount", fat)
        self.assertNotIn(fat, self.offers("unmount", "")[1])
        self.assertNotIn(folder, self.offers("windows", "")[1])

    def test_backups_and_interrupted_restores(self):
        self.assertEqual(self.offers("undo", ""), ("backup folders", {}))
        self.assertEqual(self.offers("restore", "--resume", ""), ("restore folders", {}))
        self.assertFalse(os.listdir(self.state), "the state folder was not made")
        self.vorlix_ok("hybrid", self.disk, "--boot-code", self.boot_code, "--partition", 3)
        (name,) = os.listdir(os.path.join(self.state, "vorlix/backups"))
        self.assertEqual(self.offers("undo", "")[1], {name: f"hybrid MBR of {self.disk}"})
        source = self.path("source.img")
        with open(self.disk, "rb") as disk, open(source, "wb") as file:
            disk.seek(volumes.WINDOWS.first * 512)
            file.write(disk.read(volumes.WINDOWS.sectors * 512))
        images.run_tool("gzip", source)
        packed = self.give(source + ".gz")
        os.truncate(packed, os.path.getsize(packed) * 3 // 4)
        self.vorlix_refuses("restore", packed, self.disk, "--partition", 3, "--yes", "--force", saying=["--resume"])
        (restore,) = os.listdir(os.path.join(self.state, "vorlix/journals"))
        self.assertEqual(list(self.offers("restore", "--resume", "")[1]), [restore])
        self.assertEqual(list(self.offers("undo", "")[1]), [name, restore])
        self.assertEqual(self.offers("undo", "--list", "")[0], "option")

    def test_what_cannot_be_read_is_left_out_in_silence(self):
        os.mkfifo(self.path("pipe"))
        secret = self.copy_of_disk("secret.img")
        os.chmod(secret, 0)
        for disk in (secret, self.path("pipe"), self.folder, self.path("none"), "/dev/null", self.file("short", b"x"),
                     self.file("noise", os.urandom(1 << 20))):
            self.assertEqual(self.offers("hybrid", disk, "--partition", ""), ("partition", {}), disk)
            self.assert_slices(self.offers("mount", disk)[1], disk, [])

    def test_names_on_a_disk_cannot_control_the_terminal(self):
        with open(self.disk, "r+b") as file:  # the name of the third entry
            file.seek(2 * 512 + 2 * 128 + 56)
            file.write("\x1b]0;x\x07\n\t".encode("utf-16-le"))
        kind, offered = self.offers("hybrid", self.disk, "--partition", "")
        self.assertEqual((kind, list(offered)), ("partition", ["1", "2", "3"]))
        self.assertTrue(offered["3"].startswith("?]0;x??"), offered)

    @unittest.skipIf(volumes.missing("strace"), "not installed: strace")
    def test_nothing_is_opened_for_writing(self):
        fat = self.give(volumes.make_fat(self.path("stick.img"), 16, "STICK"))
        self.mount(fat)
        self.vorlix_ok("hybrid", self.disk, "--boot-code", self.boot_code, "--partition", 3)
        before = {path: images.snapshot(path) for path in (self.disk, fat)}
        trace = self.give(self.file("trace", b""))
        calls = "trace=open,openat,creat,truncate,ftruncate,mkdir,mkdirat,rename,renameat,renameat2,unlink,unlinkat,pwrite64,execve,connect"
        for words in (["mount", self.disk], ["windows", ""], ["unmount", ""], ["hybrid", self.disk, "--partition", ""],
                      ["undo", ""], ["restore", "--resume", ""], ["find", "--label", ""], ["find", "--media-uuid", ""], [""]):
            result = self.vorlix_run("complete", "--", *words,
                                     prefix=(*self.prefix(), *volumes.strace("-f", "-e", calls, "-o", trace)))
            self.assertEqual((result.returncode, result.stderr), (0, ""), words)
            text = pathlib.Path(trace).read_text(errors="replace")
            self.assertRegex(text, "O_RDONLY", "the trace is there")
            done = [line for line in text.splitlines() if not re.search(r" open(at)?\(.*O_RDONLY|O_PATH", line)]
            self.assertFalse([line for line in done if "execve" not in line and "exited" not in line and "+++" not in line], words)
            self.assertEqual(text.count("execve("), 1, "no other program is run")
        for path, was in before.items():
            self.assert_unchanged(path, was)
        self.vorlix_ok("unmount", fat)


class InShells(CompletionTest):
    """The same in the shells themselves, with names that each of them must quote in its own way."""

    def setUp(self):
        super().setUp()
        self.odd = self.copy_of_disk(ODD)
        self.cut = self.copy_of_disk("k=v:w@x.img")
        os.makedirs(self.path("a folder/inner"))
        self.file("a file", b"")
        self.settings = self.path("shell")
        os.mkdir(self.settings)
        self.give(self.settings, self.path("a folder"))
        self.environment = {"PATH": os.path.dirname(self.vorlix) + ":" + os.environ["PATH"], "LC_ALL": "C.UTF-8", "HOME": self.folder,
                            "XDG_STATE_HOME": self.state}

    def terminal(self, shell):
        prefix = volumes.user_prefix() if not self.AS_ROOT else []
        if shell == "fish":
            terminal = shells.Fish(self.settings, self.environment, self.folder, prefix)
        else:
            terminal = shells.Terminal(shell, self.settings, self.environment, self.folder, prefix)
        self.addCleanup(terminal.close)
        return terminal

    def check(self, terminal, cases):
        before = {path: images.snapshot(path) for path in (self.disk, self.odd, self.cut)}
        for line, expected, *after in cases:
            with self.subTest(line=line):
                offers, then = terminal.press_tab(line)
                self.assertEqual([offer for offer in offers if not offer.startswith("/dev/")], sorted(expected))
                if after:
                    self.assertEqual(then, after[0])
        for path, was in before.items():
            self.assert_unchanged(path, was)

    @unittest.skipIf(shells.missing("bash"), shells.missing("bash"))
    def test_bash(self):
        odd = "my\\ disk\\:\\ ü\\ \\\"x\\'.img"
        self.check(self.terminal("bash"), [
            ("vorlix sho", ["show"], "vorlix show "),
            ("vorlix list --w", ["--windows"], "vorlix list --windows "),
            ("vorlix vbr ", ["save", "restore"]),
            ("vorlix nonsense ", [], "vorlix nonsense "),
            ("vorlix check mac.img --start=l", ["legacy"], "vorlix check mac.img --start=legacy "),
            ("vorlix hybrid mac.img --partition ", ["1", "2", "3"]),
            ("vorlix mount ma", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix mount mac.img"),
            ("vorlix mount ~/ma", [f"~/mac.img{end}" for end in ("", "s1", "s2", "s3")], "vorlix mount ~/mac.img"),
            ("vorlix hybrid ~/mac.img --partition ", ["1", "2", "3"]),
            ("vorlix hybrid x --volume=ma", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix hybrid x --volume=mac.img"),
            ("vorlix backup x a", ["a folder"], "vorlix backup x a\\ folder/"),
            ("vorlix hybrid x --boot-code=a\\ fi", ["a file"], "vorlix hybrid x --boot-code=a\\ file "),
            ("vorlix mount my", [ODD, ODD + "s1", ODD + "s2", ODD + "s3"], f"vorlix mount {odd}"),
            ("vorlix mount my\\ disk:", [ODD[8:] + end for end in ("", "s1", "s2", "s3")], f"vorlix mount my\\ disk:{odd[10:]}"),
            ("vorlix mount \"my disk: ü", [ODD, ODD + "s1", ODD + "s2", ODD + "s3"], "vorlix mount \"my disk: ü \\\"x'.img"),
            ("vorlix mount k=v", [f"v:w@x.img{end}" for end in ("", "s1", "s2", "s3")], "vorlix mount k=v\\:w\\@x.img"),
            ("vorlix mount k=v:", [f"w@x.img{end}" for end in ("", "s1", "s2", "s3")], "vorlix mount k=v:w\\@x.img"),
            ("vorlix mount k=v:w@", [f"@x.img{end}" for end in ("", "s1", "s2", "s3")], "vorlix mount k=v:w\\@x.img"),
            ("vorlix hybrid k=v:w@x.img --partition=", ["1", "2", "3"]),
            ("FOO=1 vorlix sho", ["show"], "FOO=1 vorlix show "),
            (f"vorlix hybrid {odd} --partition ", ["1", "2", "3"]),
            (f"vorlix hybrid \"my disk: ü \\\"x'.img\" --partition ", ["1", "2", "3"]),
        ])

    @unittest.skipIf(shells.missing("zsh"), shells.missing("zsh"))
    def test_zsh(self):
        odd = "my\\ disk:\\ ü\\ \\\"x\\'.img"
        self.check(self.terminal("zsh"), [
            ("vorlix sho", ["show"], "vorlix show "),
            ("vorlix list --w", ["--windows"], "vorlix list --windows "),
            ("vorlix vbr ", ["save", "restore"]),
            ("vorlix nonsense ", [], "vorlix nonsense "),
            ("vorlix check mac.img --start=l", ["legacy"], "vorlix check mac.img --start=legacy "),
            ("vorlix hybrid mac.img --partition ", ["1", "2", "3"]),
            ("vorlix mount ma", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix mount mac.img"),
            ("vorlix mount ~/ma", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix mount ~/mac.img"),
            ("vorlix hybrid ~/mac.img --partition ", ["1", "2", "3"]),
            ("vorlix hybrid x --volume=ma", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix hybrid x --volume=mac.img"),
            ("vorlix backup x a", ["a\\ folder"], "vorlix backup x a\\ folder/"),
            ("vorlix hybrid x --boot-code=a\\ fi", ["a\\ file"], "vorlix hybrid x --boot-code=a\\ file "),
            ("vorlix mount my", [odd, odd + "s1", odd + "s2", odd + "s3"], f"vorlix mount {odd}"),
            ("vorlix mount my\\ disk:", [odd, odd + "s1", odd + "s2", odd + "s3"], f"vorlix mount {odd}"),
            ("vorlix mount \"my disk: ü", ["my disk: ü \\\"x'.img" + end for end in ("", "s1", "s2", "s3")],
             "vorlix mount \"my disk: ü \\\"x'.img"),
            ("vorlix mount k=v", [f"k=v:w@x.img{end}" for end in ("", "s1", "s2", "s3")], "vorlix mount k=v:w@x.img"),
            ("vorlix hybrid x --volume=k=v:", [f"k=v:w@x.img{end}" for end in ("", "s1", "s2", "s3")],
             "vorlix hybrid x --volume=k=v:w@x.img"),
            ("vorlix mount a\\ folder/../ma", [f"mac.img{end}" for end in ("", "s1", "s2", "s3")],
             "vorlix mount a\\ folder/../mac.img"),
            ("vorlix hybrid x --volume=./mac.im", ["mac.img"], "vorlix hybrid x --volume=./mac.img "),
            ("vorlix hybrid x --volume=./mac.imgs", ["mac.imgs1", "mac.imgs2", "mac.imgs3"], "vorlix hybrid x --volume=./mac.imgs"),
            ("vorlix mount \"./mac.im", ["mac.img"], "vorlix mount \"./mac.img\" "),
            ("FOO=1 vorlix sho", ["show"], "FOO=1 vorlix show "),
            (f"vorlix hybrid {odd} --partition ", ["1", "2", "3"]),
        ])

    @unittest.skipIf(shells.missing("fish"), shells.missing("fish"))
    def test_fish(self):
        odd = "my\\ disk:\\ ü\\ \\\"x\\'.img"
        fish = self.terminal("fish")
        self.check(fish, [
            ("vorlix sho", ["show"]),
            ("vorlix list --w", ["--windows"]),
            ("vorlix vbr ", ["save", "restore"]),
            ("vorlix nonsense ", []),
            ("vorlix check mac.img --start=l", ["--start=legacy"]),
            ("vorlix hybrid mac.img --partition ", ["1", "2", "3"]),
            ("vorlix mount mac", ["mac.img", "mac.imgs1", "mac.imgs2", "mac.imgs3"]),
            ("vorlix mount ~/mac", [f"~/mac.img{end}" for end in ("", "s1", "s2", "s3")]),
            ("vorlix hybrid ~/mac.img --partition ", ["1", "2", "3"]),
            ("vorlix hybrid x --volume=mac", [f"--volume=mac.img{end}" for end in ("", "s1", "s2", "s3")]),
            ("vorlix backup x a", ["a\\ folder/"]),
            ("vorlix hybrid x --boot-code=a\\ fi", ["--boot-code=a\\ file"]),
            ("vorlix mount my", [odd, odd + "s1", odd + "s2", odd + "s3"]),
            (f"vorlix hybrid {odd} --partition ", ["1", "2", "3"]),
            ("vorlix hybrid \"my disk: ü \\\"x'.img\" --partition ", ["1", "2", "3"]),
            ("vorlix hybrid x --volume=k=v:w", [f"--volume=k=v:w@x.img{end}" for end in ("", "s1", "s2", "s3")]),
            ("FOO=1 vorlix sho", ["show"]),
            ("/no/such/vorlix sho", []),  # fish would say so on standard error, which the test refuses
        ])
        self.assertEqual(fish.press_tab("vorlix sho")[1]["show"], "Show a disk's MBR and GPT and how the two agree")
        self.assertTrue(fish.press_tab("vorlix hybrid mac.img --partition ")[1]["3"].startswith("BOOTCAMP, "))

    def test_volumes_with_a_blank_in_each_shell(self):
        fat = self.give(volumes.make_fat(self.path("stick.img"), 16, "MY DISK"))
        folder = self.mount(fat)
        quoted = folder.replace(" ", "\\ ")
        for shell, label in (("bash", "MY DISK"), ("zsh", "MY\\ DISK"), ("fish", "MY\\ DISK")):
            if shells.missing(shell):
                print(f"\nskipped: {shells.missing(shell)}")
                continue
            with self.subTest(shell=shell):
                terminal = self.terminal(shell)
                offers, line = terminal.press_tab("vorlix find --label MY")
                self.assertEqual(offers, [label])
                if shell != "fish":
                    self.assertEqual(line.rstrip(), "vorlix find --label MY\\ DISK")
                offers, line = terminal.press_tab(f"vorlix windows {folder[:-5]}")
                if shell == "fish":
                    self.assertIn(quoted, [offer.rstrip("/") for offer in offers])
                else:  # zsh shows the last part of a path
                    self.assertIn(folder if shell == "bash" else "MY\\ DISK", offers)
                    self.assertEqual(line.rstrip(" /"), f"vorlix windows {quoted}")
        self.vorlix_ok("unmount", fat)

    @unittest.skipIf(shells.missing("zsh"), shells.missing("zsh"))
    def test_zsh_loads_the_installed_file_by_itself(self):
        self.environment["INSTALLED"] = self.settings
        shutil.copy(SOURCE / "tools/vorlix/completion/_vorlix", self.settings)
        os.chmod(self.path("shell/_vorlix"), 0o644)
        terminal = self.terminal("zsh")
        for line, offer in (("vorlix sho", "show"), ("vorlix hyb", "hybrid")):  # the first loads the file
            self.assertEqual(terminal.press_tab(line), ([offer], f"vorlix {offer} "))

    @unittest.skipIf(shells.missing("bash"), shells.missing("bash"))
    def test_bash_without_the_line_as_wrappers_call_it(self):
        script = "COMP_WORDS=(vorlix check --start=e); COMP_CWORD=2; unset COMP_LINE COMP_POINT; _vorlix; printf '%s\\n' \"${COMPREPLY[@]}\""
        result = subprocess.run(["bash", "-c", f"source <(vorlix completion bash); {script}"], env=self.environment,
                                capture_output=True, text=True, timeout=60)
        self.assertEqual((result.stdout, result.stderr), ("--start=efi\n", ""))

    def test_the_printed_scripts_are_those_that_are_installed(self):
        for shell, name in (("bash", "vorlix.bash"), ("zsh", "_vorlix"), ("fish", "vorlix.fish")):
            self.assertEqual(self.vorlix_ok("completion", shell).stdout, (SOURCE / "tools/vorlix/completion" / name).read_text())
        self.vorlix_refuses("completion", "csh", saying=["csh"])
        self.vorlix_refuses("completion", saying=["SHELL"])


if __name__ == "__main__":
    images.main()
