# SPDX-License-Identifier: Apache-2.0
"""`vorlix legacy-boot`: the files that a legacy start of Windows needs, in folders, on FAT and on NTFS volumes."""

import hashlib
import itertools
import os
import shutil
import subprocess
import unittest

from support import images, samples, tools, volumes

MISSING = volumes.missing("setpriv")
NO_FAT = volumes.missing("mkfs.vfat", "fsck.vfat", "mcopy", "mmd")
NO_NTFS = volumes.missing("mkntfs", "ntfs-3g", "ntfscat", "ntfsls", "ntfsfix", "losetup")

PCAT = "Windows/Boot/PCAT"
FONTS = "Windows/Boot/Fonts"
MANAGER = "Windows/Boot/PCAT/bootmgr"

STORE = bytes(range(256)) * 40

# The parts of a Windows volume that matter here.
WINDOWS_TREE = {
    "Windows": None,
    "Windows/Boot": None,
    PCAT: None,
    MANAGER: b"boot manager" * 3000,
    "Windows/Boot/PCAT/memtest.exe": b"memory test",
    "Windows/Boot/PCAT/de-DE": None,
    "Windows/Boot/PCAT/de-DE/bootmgr.exe.mui": b"Meldungen",
    "Windows/Boot/PCAT/empty": None,
    FONTS: None,
    "Windows/Boot/Fonts/wgl4_boot.ttf": bytes(5000),
    "Windows/Boot/Fonts/segoe slboot.ttf": b"a font",
    "Windows/System32": None,
    "pagefile.sys": b"left alone",
}


def inside(tree, folder):
    """The part of a tree below a folder. The folder itself has the empty name."""
    found = {path[len(folder) + 1 :]: content for path, content in tree.items() if path.startswith(folder + "/")}
    if folder in tree:
        found[""] = tree[folder]
    return found


def copied(tree, source, target):
    return {**tree, **{f"{target}/{path}".rstrip("/"): content for path, content in inside(tree, source).items()}}


def set_up(tree):
    """The tree after a complete set-up."""
    tree = copied(copied(tree, PCAT, "boot"), FONTS, "boot/Fonts")
    return {**tree, "boot/BCD": STORE, "bootmgr": tree[MANAGER]}


class Expectation:
    """Applies the rules to a tree in memory.

    The sources come in this order: PCAT, Fonts, the store, bootmgr. A missing source is skipped if the last source that
    existed was a folder; otherwise it is an error. A source whose destination exists is skipped. After an error the tree
    is unchanged.
    """

    def __init__(self, folder, store, tree):
        self.tree = dict(tree)
        self.lines = [f"Setting up legacy booting to {folder}"]
        self.succeeds = True
        last_was_folder = False
        for source, target in ((PCAT, "boot"), (FONTS, "boot/Fonts"), (None, "boot/BCD"), (MANAGER, "bootmgr")):
            path = f"{folder}/{source}" if source else store
            is_there = source is None or source in self.tree
            if is_there:
                last_was_folder = source is not None and self.tree[source] is None
            elif last_was_folder:
                self.lines.append(f"{path} does not exist, skipping")
                continue
            if target in self.tree:
                continue
            self.lines.append(f"copying {path} to {folder}/{target}")
            parent = os.path.dirname(target)
            if not is_there or (parent and self.tree.get(parent, b"") is not None):
                self.succeeds = False
                self.tree = dict(tree)
                return
            if source:
                self.tree = copied(self.tree, source, target)
            else:
                self.tree[target] = STORE


class LegacyBootTest(volumes.VolumeTest):
    def setUp(self):
        super().setUp()
        self.store = self.file("prepared store", STORE)

    def volume(self, tree, name="volume"):
        """Makes a folder with a tree, all owned by the user."""
        folder = self.path(name)
        self.fill(folder, tree)
        return folder

    def fill(self, folder, tree):
        if not os.path.isdir(folder):
            os.mkdir(folder)
            self.give(folder)
        for path, content in tree.items():
            path = os.path.join(folder, path)
            if content is None:
                os.mkdir(path)
            else:
                with open(path, "wb") as file:
                    file.write(content)
            self.give(path)

    def legacy_boot(self, volume, store=None):
        return self.vorlix_run("legacy-boot", volume, "--bcd", store or self.store, "--no-backup")

    def set_up_ok(self, volume):
        result = self.legacy_boot(volume)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result.stdout

    def refuse(self, arguments, *saying):
        """The command fails with these texts. Returns its standard output."""
        result = self.vorlix_run("legacy-boot", *arguments)
        self.assertEqual(result.returncode, 2, result.stdout + result.stderr)
        for words in saying:
            self.assertIn(words, result.stderr)
        return result


@unittest.skipIf(MISSING, f"not installed: {MISSING}")
class InFolders(LegacyBootTest):
    def assert_follows_rules(self, folder, tree, note):
        expected = Expectation(folder, self.store, tree)
        result = self.legacy_boot(folder)
        self.assertEqual(result.returncode, 0 if expected.succeeds else 2, (note, result.stdout, result.stderr))
        if expected.succeeds:
            self.assertEqual(sorted(result.stdout.splitlines()), sorted(expected.lines), note)
        else:
            self.assertRegex(result.stderr, "^vorlix: .*; nothing was (copied|written)\n$", note)
        self.assertEqual(volumes.folder_tree(folder), expected.tree, note)

    def test_everything_in_order(self):
        folder = self.volume(WINDOWS_TREE)
        output = self.set_up_ok(folder)
        self.assertEqual(output.splitlines(), [
            f"Setting up legacy booting to {folder}",
            f"copying {folder}/Windows/Boot/PCAT to {folder}/boot",
            f"copying {folder}/Windows/Boot/Fonts to {folder}/boot/Fonts",
            f"copying {self.store} to {folder}/boot/BCD",
            f"copying {folder}/Windows/Boot/PCAT/bootmgr to {folder}/bootmgr",
        ])
        tree = volumes.folder_tree(folder)
        self.assertEqual(tree, set_up(WINDOWS_TREE))
        self.assertEqual(tree["boot/BCD"], STORE)
        self.assertEqual(tree["bootmgr"], b"boot manager" * 3000)
        self.assertIn("boot/de-DE/bootmgr.exe.mui", tree)
        self.assertEqual(samples.read(self.store, 0, 1 << 20), STORE)

    def test_a_second_run_copies_nothing(self):
        folder = self.volume(WINDOWS_TREE)
        self.set_up_ok(folder)
        before = {path: os.stat(os.path.join(folder, path)).st_mtime_ns for path in volumes.folder_tree(folder)}
        self.assertEqual(self.set_up_ok(folder), f"Setting up legacy booting to {folder}\n")
        after = {path: os.stat(os.path.join(folder, path)).st_mtime_ns for path in volumes.folder_tree(folder)}
        self.assertEqual(after, before)

    def test_a_volume_with_the_folder_in_capitals_is_left_alone(self):
        for number, content in enumerate((None, b"also as a file")):
            with self.subTest(content=content):
                tree = {**WINDOWS_TREE, "BOOT": content}
                folder = self.volume(tree, f"volume{number}")
                output = self.set_up_ok(folder)
                self.assertIn("already set up", output)
                self.assertNotIn("copying", output)
                self.assertEqual(volumes.folder_tree(folder), tree)

    def test_other_spellings_are_refused_where_the_volume_tells_them_apart(self):
        for number, name in enumerate(("Boot", "BOOTMGR")):
            with self.subTest(name=name):
                tree = {**WINDOWS_TREE, name: b"Windows has one of them"}
                folder = self.volume(tree, f"volume{number}")
                if os.path.exists(os.path.join(folder, name.swapcase())):
                    self.skipTest("the file system ignores case")
                self.refuse([folder, "--bcd", self.store], f"{folder}: contains {name}, which is the same name as "
                            f"{name.lower()} to Windows; nothing was copied")
                self.assertEqual(volumes.folder_tree(folder), tree)

    def test_the_rules_for_what_is_missing_in_all_combinations(self):
        base = {"Windows": None, "Windows/Boot": None}
        pcat = (
            {},
            {PCAT: b"a file"},
            {PCAT: None, "Windows/Boot/PCAT/x": b"1"},
            {PCAT: None, "Windows/Boot/PCAT/x": b"1", MANAGER: b"manager"},
        )
        fonts = ({}, {FONTS: b"a file"}, {FONTS: None, "Windows/Boot/Fonts/f": b"2"})
        boot = (
            {},
            {"boot": None},
            {"boot": None, "boot/Fonts": None},
            {"boot": None, "boot/BCD": b"kept"},
            {"boot": None, "boot/Fonts": None, "boot/BCD": b"kept"},
            {"boot": b"a file"},
        )
        manager = ({}, {"bootmgr": b"kept"})
        outcomes = set()
        combinations = list(itertools.product(pcat, fonts, boot, manager))
        for number, parts in enumerate(combinations[:: 5 if images.SANITIZED else 1]):  # 5 divides no number of choices
            tree = dict(base)
            for part in parts:
                tree.update(part)
            folder = self.volume(tree, f"volume{number}")
            self.assert_follows_rules(folder, tree, parts)
            expected = Expectation(folder, self.store, tree)
            outcomes.add((expected.succeeds, any("skipping" in line for line in expected.lines)))
            self.assertEqual(self.legacy_boot(folder).returncode, 0 if expected.succeeds else 2)
            self.assertEqual(volumes.folder_tree(folder), expected.tree)
            shutil.rmtree(folder)
        self.assertEqual(len(outcomes), 4)

    def test_a_missing_fonts_folder_is_passed_over(self):
        tree = {path: content for path, content in WINDOWS_TREE.items() if not path.startswith(FONTS)}
        folder = self.volume(tree)
        output = self.set_up_ok(folder)
        self.assertIn(f"{folder}/Windows/Boot/Fonts does not exist, skipping\n", output)
        found = volumes.folder_tree(folder)
        self.assertNotIn("boot/Fonts", found)
        self.assertEqual((found["boot/BCD"], found["bootmgr"]), (STORE, tree[MANAGER]))

    def test_a_missing_boot_manager_ends_in_an_error(self):
        tree = {path: content for path, content in WINDOWS_TREE.items() if path != MANAGER}
        folder = self.volume(tree)
        self.refuse([folder, "--bcd", self.store], f"{folder}/{MANAGER}: No such file", "nothing was copied")
        self.assertEqual(volumes.folder_tree(folder), tree)

    def test_a_copy_that_fails_half_way(self):
        """No file is in place, and no temporary folder is left."""
        folder = self.volume(WINDOWS_TREE)
        closed = os.path.join(folder, "Windows/Boot/Fonts/wgl4_boot.ttf")
        os.chmod(closed, 0)
        self.refuse([folder, "--bcd", self.store], f"{folder}/boot/Fonts: cannot be copied: Permission denied",
                    "nothing was copied")
        os.chmod(closed, 0o644)
        self.assertEqual(volumes.folder_tree(folder), WINDOWS_TREE)
        self.set_up_ok(folder)
        self.assertEqual(volumes.folder_tree(folder), set_up(WINDOWS_TREE))

    def test_a_volume_that_may_not_be_written(self):
        folder = self.volume(WINDOWS_TREE)
        os.chmod(folder, 0o555)
        self.refuse([folder, "--bcd", self.store], folder, "Permission denied", "nothing was copied")
        self.assertEqual(volumes.folder_tree(folder), WINDOWS_TREE)

    def test_a_dry_run_copies_nothing(self):
        folder = self.volume(WINDOWS_TREE)
        os.chmod(folder, 0o555)
        result = self.vorlix_run("legacy-boot", folder, "--bcd", self.store, "--dry-run")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(result.stdout.count("copying "), 4)
        self.assertEqual(volumes.folder_tree(folder), WINDOWS_TREE)
        os.chmod(folder, 0o755)
        self.set_up_ok(folder)
        self.assertEqual(self.vorlix_run("legacy-boot", folder, "--bcd", self.store, "--dry-run").returncode, 0)

    def test_a_dry_run_shows_each_file_if_bytes_are_asked_for(self):
        folder = self.volume(WINDOWS_TREE)
        result = self.vorlix_run("legacy-boot", folder, "--bcd", self.store, "--dry-run", "--bytes")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(volumes.folder_tree(folder), WINDOWS_TREE)
        self.assertEqual(result.stdout.count("copying "), 4)
        self.set_up_ok(folder)
        made = [os.path.join(parent, name) for top in ("boot", "bootmgr") for parent, _, names in
                [("", "", [os.path.join(folder, top)])] + list(os.walk(os.path.join(folder, top))) for name in names]
        expected = set()
        for path in filter(os.path.isfile, made):
            with open(path, "rb") as file:
                content = file.read()
            expected.add(f"  {path}: {len(content)} bytes, SHA-256 {hashlib.sha256(content).hexdigest()}")
        self.assertGreater(len(expected), 4)
        shown = [line for line in result.stdout.splitlines() if line.startswith("  ")]
        self.assertEqual((len(shown), set(shown)), (len(expected), expected))

    def test_links_are_not_followed_off_the_volume(self):
        host = self.path("host")
        os.mkdir(host)
        self.give(host)
        for number, path in enumerate(("Windows", "Windows/Boot", PCAT, FONTS, MANAGER, "boot", "bootmgr")):
            with self.subTest(path=path):
                folder = self.volume(WINDOWS_TREE, f"volume{number}")
                place = os.path.join(folder, path)
                elsewhere = os.path.join(host, str(number))
                if os.path.exists(place):
                    shutil.move(place, elsewhere)
                else:
                    os.mkdir(elsewhere)
                os.symlink(elsewhere, place)
                before = volumes.folder_tree(self.folder)
                self.refuse([folder, "--bcd", self.store], f"{place}: is a symbolic link", "nothing was copied")
                self.assertEqual(volumes.folder_tree(self.folder), before)

    @unittest.skipIf(volumes.missing("strace"), "strace is not installed")
    def test_a_set_up_that_is_cut_off(self):
        """After a kill at any of these calls, files in place are complete. The next run does the rest and removes leftovers."""
        counts = {}
        log = self.file("calls", b"")
        names = ("mkdir", "copy_file_range", "openat", "fsync", "renameat2", "syncfs", "unlinkat", "rmdir", "utimensat")
        self.vorlix_ok("legacy-boot", self.volume(WINDOWS_TREE, "first"), "--bcd", self.store)  # makes the state folder
        folder = self.volume(WINDOWS_TREE, "counted")
        trace = volumes.strace("-o", log, "-e", "trace=" + ",".join(names))
        self.vorlix_run("legacy-boot", folder, "--bcd", self.store, prefix=(*self.prefix(), *trace))
        begun = False
        points = []
        with open(log, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                name = line.split("(")[0]
                counts[name] = counts.get(name, 0) + 1
                begun = begun or name == "mkdir"
                if begun and name in names:
                    points.append((name, counts[name]))
        self.assertGreater(len(points), 40)
        whole = set_up(WINDOWS_TREE)
        states = set()
        # A sanitized run is as long as five others, and a kill shows no more of it.
        for number, (name, when) in enumerate(points[:: 4 if images.SANITIZED else 1]):
            with self.subTest(call=name, number=when):
                folder = self.volume(WINDOWS_TREE, f"volume{number}")
                trace = volumes.strace("-o", "/dev/null", "-e", f"trace={name}", "-e", f"inject={name}:signal=SIGKILL:when={when}")
                result = self.vorlix_run("legacy-boot", folder, "--bcd", self.store, prefix=(*self.prefix(), *trace))
                self.assertNotEqual(result.returncode, 0)
                found = volumes.folder_tree(folder)
                if "boot" in found:  # shows that the set-up is complete
                    self.assertEqual({path: found[path] for path in whole}, whole)
                if "bootmgr" in found:
                    self.assertEqual(found["bootmgr"], whole["bootmgr"])
                states.add(("boot" in found, "bootmgr" in found))
                self.set_up_ok(folder)
                self.assertEqual(volumes.folder_tree(folder), whole)
                shutil.rmtree(folder)
        self.assertEqual(states, {(False, False), (False, True), (True, True)})

    def test_modes_times_and_links_are_copied(self):
        folder = self.volume(WINDOWS_TREE)
        manager = os.path.join(folder, MANAGER)
        os.chmod(manager, 0o640)
        os.utime(manager, ns=(10**18, 123456789 * 10**9))
        link = os.path.join(folder, PCAT, "link")
        os.symlink("bootmgr", link)
        self.set_up_ok(folder)
        for copy in ("bootmgr", "boot/bootmgr"):
            status = os.stat(os.path.join(folder, copy))
            self.assertEqual((status.st_mode & 0o7777, status.st_mtime_ns), (0o640, 123456789 * 10**9))
        self.assertEqual(os.readlink(os.path.join(folder, "boot/link")), "bootmgr")

    def test_paths_as_people_type_them(self):
        for number, form in enumerate(("{}/", "{}//", "{}/Windows/..", "{}/.")):
            with self.subTest(form=form):
                folder = self.volume(WINDOWS_TREE, f"a volume {number}")
                self.set_up_ok(form.format(folder))
                self.assertEqual(volumes.folder_tree(folder), set_up(WINDOWS_TREE))
        folder = self.volume(WINDOWS_TREE, "relative")
        command = [*self.prefix(), self.vorlix, "legacy-boot", "relative", "--bcd", "prepared store"]
        subprocess.run(command, cwd=self.folder, capture_output=True, check=True, timeout=60)
        self.assertEqual(volumes.folder_tree(folder), set_up(WINDOWS_TREE))

    def test_stores_and_volumes_that_are_not_there(self):
        folder = self.volume(WINDOWS_TREE)
        missing = self.path("missing")
        for store in (missing, folder):
            with self.subTest(store=store):
                self.refuse([folder, "--bcd", store], store, "not a file")
        self.refuse([folder], "--bcd")
        self.refuse([missing, "--bcd", self.store], missing)
        self.refuse([self.store, "--bcd", self.store], self.store, "not mounted")
        self.assertEqual(volumes.folder_tree(folder), WINDOWS_TREE)


@unittest.skipIf(MISSING or NO_FAT, f"not installed: {MISSING or NO_FAT}")
class OnFAT(LegacyBootTest):
    def fat(self, tree, name="windows.img"):
        image = volumes.make_fat(self.path(name), 16, "WINDOWS")
        volumes.put_tree(image, tree)
        return self.give(image)

    def test_a_mounted_volume_by_its_device_and_by_its_folder(self):
        for by_device in (True, False):
            with self.subTest(by_device=by_device):
                image = self.fat(WINDOWS_TREE, f"{by_device}.img")
                folder = self.mount(image, "--read-write")
                output = self.set_up_ok(image if by_device else folder)
                self.assertIn(f"copying {folder}/{PCAT} to {folder}/boot\n", output)
                self.vorlix_ok("unmount", image)
                self.assert_nothing_mounted()
                self.assertEqual(volumes.read_tree(image), set_up(WINDOWS_TREE))
                volumes.check_fat(image)
                folder = self.mount(image, "--read-write")
                self.assertNotIn("copying", self.set_up_ok(image))
                self.vorlix_ok("unmount", image)
                self.assertEqual(volumes.read_tree(image), set_up(WINDOWS_TREE))

    def test_a_volume_with_the_folder_in_capitals(self):
        tree = {**WINDOWS_TREE, "BOOT": None}
        image = self.fat(tree)
        before = images.snapshot(image)
        self.mount(image, "--read-write")
        self.assertIn("already set up", self.set_up_ok(image))
        self.vorlix_ok("unmount", image)
        self.assert_unchanged(image, before)

    def test_other_spellings_are_the_same_names(self):
        trees = (
            ({**WINDOWS_TREE, "Boot": None}, True),
            ({**WINDOWS_TREE, "BootMgr": b"kept"}, False),
            ({path.upper(): content for path, content in WINDOWS_TREE.items()}, False),
        )
        for number, (tree, is_done) in enumerate(trees):
            with self.subTest(number):
                image = self.fat(tree, f"{number}.img")
                self.mount(image, "--read-write")
                self.assertEqual("already set up" in self.set_up_ok(image), is_done)
                self.vorlix_ok("unmount", image)
                found = volumes.read_tree(image)
                names = [path.lower() for path in found]
                self.assertEqual(len(names), len(set(names)))
                self.assertEqual("boot/bcd" in names, not is_done)
                if number == 1:
                    self.assertEqual(found["BootMgr"], b"kept")
                volumes.check_fat(image)

    def test_a_volume_that_is_not_mounted(self):
        image = self.fat(WINDOWS_TREE)
        before = images.snapshot(image)
        self.refuse([image, "--bcd", self.store], image, "not mounted")
        self.assert_unchanged(image, before)


@unittest.skipUnless(volumes.IS_ROOT, "needs root, to mount")
class AsRoot(LegacyBootTest):
    AS_ROOT = True

    def mount_by_hand(self, *arguments):
        """Mounts a volume and unmounts it at the end, even after a failure."""
        place = self.path("mounted")
        os.mkdir(place)
        result = subprocess.run([*arguments, place], capture_output=True, text=True, timeout=60, check=False)
        if result.returncode != 0:
            self.skipTest(f"{arguments[0]}: {result.stderr.strip()}")
        self.addCleanup(subprocess.run, [images.tool("umount"), "--lazy", place], capture_output=True, check=False)
        return place

    @unittest.skipIf(NO_NTFS, f"not installed: {NO_NTFS}")
    @unittest.skipUnless(os.path.exists("/dev/fuse"), "no /dev/fuse on this machine")
    def test_an_ntfs_volume(self):
        image = self.path("windows.ntfs")
        samples.make_ntfs(image, 32768, "WINDOWS")
        with tools.loop_device(image, 512) as device:
            place = self.mount_by_hand(images.tool("ntfs-3g"), device)
            self.fill(place, WINDOWS_TREE)
            output = self.set_up_ok(device)  # the volume is given by its device
            self.assertIn(f"copying {place}/{PCAT} to {place}/boot\n", output)
            self.assertIn("already set up", self.set_up_ok(place))
            tools.unmount(place)
            for path, content in set_up(WINDOWS_TREE).items():
                if content is not None:
                    read = subprocess.run([images.tool("ntfscat"), device, path], capture_output=True, timeout=60,
                                          check=True)
                    self.assertTrue(read.stdout == content, path)
            listed = images.run_tool("ntfsls", "-p", "/boot", device).split("\n")
            self.assertEqual(sorted(filter(None, listed)),
                             sorted([".", "bootmgr", "memtest.exe", "de-DE", "empty", "Fonts", "BCD"]))
        images.run_tool("ntfsfix", "--no-action", image)

    def test_a_volume_that_is_full_half_way(self):
        place = self.mount_by_hand(images.tool("mount"), "-t", "tmpfs", "-o", "size=256k,mode=755", "tmpfs")
        self.fill(place, WINDOWS_TREE)
        with open(os.path.join(place, "filler"), "wb") as file:
            file.write(bytes((os.statvfs(place).f_bavail - 11) * os.statvfs(place).f_bsize))
        self.refuse([place, "--bcd", self.store], place, "No space left on device", "nothing was copied")
        found = volumes.folder_tree(place)
        self.assertIsNotNone(found.pop("filler"))
        self.assertEqual(found, WINDOWS_TREE)
        os.remove(os.path.join(place, "filler"))
        self.set_up_ok(place)
        self.assertEqual(volumes.folder_tree(place), set_up(WINDOWS_TREE))

    def test_a_volume_mounted_for_reading_only(self):
        place = self.mount_by_hand(images.tool("mount"), "-t", "tmpfs", "-o", "size=1m,mode=755", "tmpfs")
        self.fill(place, WINDOWS_TREE)
        images.run_tool("mount", "-o", "remount,ro", place)
        self.refuse([place, "--bcd", self.store], place, "Read-only file system", "nothing was copied")
        self.assertEqual(volumes.folder_tree(place), WINDOWS_TREE)


if __name__ == "__main__":
    images.main()
