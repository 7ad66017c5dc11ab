#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The commands that report one fact: `boot-type`, `bootable`, `sip` and `check-caller`."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support import gpt, images, tools  # noqa: E402

DISK_SIZE = 64 << 20
SECOND_SLOTS_HEAD = 446 + 16 + 1


def overlaid(target, folder):
    """
    The words before a command that make it see `folder` in the place of a system folder. Skips if that is impossible.

    Only that command sees it: the folder is mounted in a private namespace.
    """
    if sys.platform != "linux":
        raise unittest.SkipTest("only Linux has mount namespaces")
    script = f'mount -t overlay overlay -o "lowerdir=$0:{target}" {target} && exec "$@"'
    rights = [] if os.geteuid() == 0 else ["--map-root-user"]
    prefix = [images.tool("unshare"), "--mount", *rights, "/bin/sh", "-c", script, folder]
    attempt = subprocess.run([*prefix, "true"], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
    if attempt.returncode != 0:
        raise unittest.SkipTest(f"no overlay on {target}: {attempt.stderr.strip()}")
    return prefix


class Probe(images.CommandTest):
    def assert_answer(self, arguments, status, output, error="", **options):
        result = self.vorlix_run(*arguments, **options)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (status, output, error), arguments)

    def as_nobody(self):
        """The words before a command that make it run without root's right to override permissions."""
        os.chmod(self.folder, 0o755)
        if os.geteuid() != 0:
            return ()
        user = str(images.NOBODY)
        return (images.tool("setpriv"), "--reuid", user, "--regid", user, "--clear-groups", "--no-new-privs")


class BootType(Probe):
    def disk(self, name="disk.img"):
        path = self.path(name)
        with open(path, "wb") as file:
            file.truncate(DISK_SIZE)
        return path

    def partitioned(self, *lines):
        """Makes a disk with an MBR by sfdisk."""
        path = self.disk()
        images.run_tool("sfdisk", "--quiet", path, stdin="label: dos\n" + "".join(line + "\n" for line in lines))
        return path

    def assert_boot_type(self, path, answer):
        before = images.snapshot(path)
        self.assertEqual("EFI" if gpt.read_at(path, SECOND_SLOTS_HEAD, 1) == b"\0" else "legacy", answer, "an error in the test itself")
        self.assert_answer(["boot-type", path], 0, answer + "\n")
        self.assert_unchanged(path, before)

    def assert_refused(self, path, reason, **options):
        self.assert_answer(["boot-type", path], 2, "", f"vorlix: {path}: {reason}\n", **options)

    def test_a_gpt_with_its_protective_mbr_starts_by_efi(self):
        path = self.disk()
        tools.sgdisk(path, "-n", "1:2048:+10M", "-t", "1:EF00", "-n", "2:0:+10M")
        self.assert_boot_type(path, "EFI")

    def test_a_hybrid_mbr_by_sgdisk_starts_in_legacy_mode(self):
        path = self.disk()
        tools.sgdisk(path, "-n", "1:2048:+10M", "-n", "2:40000:+10M", "-h", "1:2")
        self.assert_boot_type(path, "legacy")

    def test_an_mbr_with_two_partitions_starts_in_legacy_mode(self):
        self.assert_boot_type(self.partitioned("start=2048,size=2048,type=7", "start=8192,size=2048,type=7"), "legacy")

    def test_only_the_second_slot_counts(self):
        self.assert_boot_type(self.partitioned("start=2048,size=2048,type=7,bootable"), "EFI")

    def test_only_its_head_counts(self):
        self.assert_boot_type(self.partitioned("start=2048,size=2048,type=7", "start=16065,size=2048,type=7"), "EFI")

    def test_a_hybrid_mbr_of_our_own_and_the_way_back(self):
        path = tools.sgdisk_image(self.path("mac.img"), tools.MAC_LAYOUT)
        self.assert_boot_type(path, "EFI")
        self.hybrid(path, tools.WINDOWS, "--force")  # the slice is blank
        self.assert_boot_type(path, "legacy")
        self.hybrid(path, tools.WINDOWS, "--guard")
        self.assert_boot_type(path, "EFI")

    def test_a_block_device(self):
        path = self.partitioned("start=2048,size=2048,type=7", "start=8192,size=2048,type=7")
        with tools.loop_device(path, 512) as device:
            self.assert_answer(["boot-type", device], 0, "legacy\n")

    def test_disks_without_an_mbr(self):
        reason = "holds no MBR: sector 0 does not end in 55 AA"
        self.assert_refused(self.disk(), reason)
        path = self.partitioned("start=2048,size=2048,type=7")
        gpt.write_at(path, 511, b"\x00")
        self.assert_refused(path, reason)

    def test_volumes_without_partitions(self):
        reason = "holds no MBR: sector 0 is the boot sector of a volume"
        tools.ntfs_volume(self.path("ntfs.img"), 4 << 20)
        self.assert_refused(self.path("ntfs.img"), reason)
        tools.fat_volume(self.path("fat.img"), 4 << 20)
        self.assert_refused(self.path("fat.img"), reason)

    def test_a_slice(self):
        path = self.partitioned("start=2048,size=2048,type=7")
        self.assert_refused(path + "s1", f"a slice; the whole disk is {path}")

    def test_files_that_are_no_disk(self):
        for content in (b"", b"text\n", b"x" * 511):
            with open(self.path("short"), "wb") as file:
                file.write(content)
            self.assert_refused(self.path("short"), f"holds {len(content)} bytes, not even one sector: it is empty or truncated")
        self.assert_refused(self.path("missing"), "No such file or directory")
        self.assert_refused(self.folder, "Is a directory")

    def test_a_disk_that_may_not_be_read(self):
        path = self.partitioned("start=2048,size=2048,type=7")
        os.chmod(path, 0)
        self.assert_refused(path, "Permission denied", prefix=self.as_nobody())


class Bootable(Probe):
    YES = "holds an operating system that can be started\n"
    NO = "holds nothing that can be started\n"

    def volume(self, *paths):
        """Makes a folder with these items: a path with an extension or of a loader is a file, any other is a folder."""
        folder = self.path(f"volume {len(os.listdir(self.folder))}")
        os.mkdir(folder)
        for path in paths:
            place = os.path.join(folder, path)
            os.makedirs(os.path.dirname(place), exist_ok=True)
            if "." in os.path.basename(place) or os.path.basename(place) in ("ntldr", "bootmgr"):
                pathlib.Path(place).touch()
            else:
                os.mkdir(place)
        return folder

    def test_each_of_the_four_makes_a_volume_bootable(self):
        for path in ("System/Library", "com.apple.recovery.boot/boot.efi", "Windows/System32", "ntldr"):
            with self.subTest(path):
                folder = self.volume(path)
                self.assert_answer(["bootable", folder], 0, self.YES)
                self.assert_answer(["bootable", folder + "/"], 0, self.YES)

    def test_others_do_not(self):
        for path in ("bootmgr", "Windows/explorer.exe", "System", "com.apple.recovery.boot/other.efi", "Library",
                     "old/Windows/System32", "EFI/Microsoft/Boot/bootmgfw.efi"):
            with self.subTest(path):
                self.assert_answer(["bootable", self.volume(path)], 1, self.NO)

    def test_an_empty_folder(self):
        self.assert_answer(["bootable", self.volume()], 1, self.NO)

    def test_a_link_to_a_folder(self):
        os.symlink(self.volume("ntldr"), self.path("link"))
        self.assert_answer(["bootable", self.path("link")], 0, self.YES)

    def test_what_is_no_folder(self):
        path = self.path("missing")
        error = f"vorlix: {path}: no such device or disk image\n"
        self.assert_answer(["bootable", path], 2, "", error)

    def test_a_disk_image_that_is_not_mounted(self):
        path = tools.sgdisk_image(self.path("mac.img"), tools.MAC_LAYOUT)
        before = images.snapshot(path)
        reason = "not mounted, and no file system is recognised on it" if sys.platform == "linux" else "not mounted"
        self.assert_answer(["bootable", path + "s3"], 2, "", f"vorlix: {path}s3: {reason}\n")
        self.assert_unchanged(path, before)

    def test_a_folder_that_may_not_be_searched_is_not_called_empty(self):
        folder = self.volume("ntldr")
        os.chmod(folder, 0o600)
        self.assert_answer(["bootable", folder], 2, "", f"vorlix: {folder}: Permission denied\n",
                           prefix=self.as_nobody())


class SystemIntegrity(Probe):
    TOOL = "/usr/bin/csrutil"

    def with_tool(self, script, mode=0o755):
        """The words before a command that make it see this script as the status tool."""
        if os.path.exists(self.TOOL):
            self.skipTest(f"{self.TOOL} is this system's own")
        folder = self.path("bin")
        os.mkdir(folder)
        with open(os.path.join(folder, "csrutil"), "wb") as file:
            file.write(b"#!/bin/sh\n" + script)
        os.chmod(os.path.join(folder, "csrutil"), mode)
        return overlaid("/usr/bin", folder)

    def test_this_system(self):
        if not os.path.exists(self.TOOL):
            self.assert_answer(["sip"], 0, f"disabled: this system has no {self.TOOL}\n")
            return
        told = subprocess.run([self.TOOL, "status"], capture_output=True, text=True, timeout=60).stdout
        off = "System Integrity Protection status: disabled" in told
        self.assert_answer(["sip"], 0, "disabled\n" if off else "enabled\n")

    def test_a_system_that_says_disabled(self):
        prefix = self.with_tool(b'[ "$*" = status ] && echo "System Integrity Protection status: disabled."\n')
        self.assert_answer(["sip"], 0, "disabled\n", prefix=prefix)

    def test_a_system_that_says_enabled(self):
        prefix = self.with_tool(b'[ "$*" = status ] && echo "System Integrity Protection status: enabled."\n')
        self.assert_answer(["sip"], 0, "enabled\n", prefix=prefix)

    def test_any_other_answer_counts_as_enabled(self):
        prefix = self.with_tool(b'echo "System Integrity Protection status: unknown (Custom Configuration)."; exit 1\n')
        self.assert_answer(["sip"], 0, "enabled\n", prefix=prefix)

    def test_what_is_complained_of_does_not_count(self):
        prefix = self.with_tool(b'echo "System Integrity Protection status: disabled." >&2\n')
        self.assert_answer(["sip"], 0, "enabled\n", prefix=prefix)

    def test_an_answer_that_is_no_text_counts_as_disabled(self):
        prefix = self.with_tool(b"printf '\\377'\n")
        self.assert_answer(["sip"], 0, "disabled\n", prefix=prefix)

    def test_a_tool_that_cannot_be_run_is_an_error(self):
        prefix = self.with_tool(b"", mode=0o644)
        self.assert_answer(["sip"], 2, "", f"vorlix: {self.TOOL}: Permission denied; the status is unknown\n", prefix=prefix)

    def test_an_argument_too_many(self):
        result = self.vorlix_run("sip", "status")
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("not expected: status", result.stderr)


class CheckCaller(Probe):
    TEAM = "K7M2QZ4RNA"
    ANCHORS = os.environ.get("VORLIX_ANCHOR_FOLDER", "/etc/vorlix/anchors")
    GONE = "Error creating SecCodeCopyGuestWithAttributes; no such process, it has ended, or its executable may not be read"

    def setUp(self):
        super().setUp()
        if sys.platform != "linux":
            self.skipTest("the test signs programs only as on Linux")
        self.client = self.path("client")
        shutil.copy(images.tool("sleep"), self.client)

    @contextlib.contextmanager
    def running(self, program):
        """Runs a program in the background and yields its process identifier."""
        with subprocess.Popen([program, "600"], stdin=subprocess.DEVNULL) as process:
            try:
                deadline = time.monotonic() + 60
                while os.readlink(f"/proc/{process.pid}/exe") != os.path.realpath(program):
                    self.assertLess(time.monotonic(), deadline, "it does not run")
                    time.sleep(0.005)
                yield process.pid
            finally:
                process.kill()

    def openssl(self, *arguments):
        result = subprocess.run([images.tool("openssl"), *arguments], cwd=self.folder, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr)

    def make_authority(self, name):
        self.openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "30", "-subj",
                     "/O=Vendor/CN=Vendor Root", "-keyout", f"{name}.key", "-out", f"{name}.pem")

    def make_developer(self, name, team, authority):
        with open(self.path("developer.ext"), "w", encoding="ascii") as file:
            file.write("basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=codeSigning\n")
        self.openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                     f"/O=Vendor/OU={team}/CN=Developer", "-keyout", f"{name}.key", "-out", f"{name}.csr")
        self.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", f"{authority}.pem", "-CAkey", f"{authority}.key",
                     "-CAcreateserial", "-days", "30", "-extfile", "developer.ext", "-out", f"{name}.pem")

    def sign(self, developer):
        self.openssl("cms", "-sign", "-binary", "-in", "client", "-signer", f"{developer}.pem", "-inkey", f"{developer}.key",
                     "-outform", "DER", "-out", "client.p7s")

    def with_anchor(self, authority):
        """The words before a command that make this authority the only anchor."""
        if os.path.exists(self.ANCHORS):
            self.skipTest(f"{self.ANCHORS} is this system's own")
        top = "/" + self.ANCHORS.split("/")[1]
        anchors = os.path.join(self.path("top"), os.path.relpath(self.ANCHORS, top))
        os.makedirs(anchors, mode=0o755)
        os.chmod(self.path("top"), 0o755)
        shutil.copy(self.path(f"{authority}.pem"), anchors)
        return overlaid(top, self.path("top"))

    def assert_valid(self, process, **options):
        self.assert_answer(["check-caller", process], 0, f"{process}: signed by the team\n", **options)

    def assert_invalid(self, process, **options):
        self.assert_answer(["check-caller", process], 1, f"{process}: Request from invalid client. Refusing\n", **options)

    def test_an_unsigned_process(self):
        with self.running(self.client) as process:
            self.assert_invalid(process)

    def test_a_process_signed_by_the_team_by_another_and_by_a_stranger(self):
        self.make_authority("root")
        self.make_authority("unknown")
        self.make_developer("team", self.TEAM, "root")
        self.make_developer("other", "AAAAAAAAAA", "root")
        self.make_developer("stranger", self.TEAM, "unknown")
        prefix = self.with_anchor("root")
        with self.running(self.client) as process:
            self.assert_invalid(process, prefix=prefix)
            self.sign("team")
            self.assert_valid(process, prefix=prefix)
            self.assert_invalid(process)  # without the anchor
            self.sign("other")
            self.assert_invalid(process, prefix=prefix)
            self.sign("stranger")
            self.assert_invalid(process, prefix=prefix)

    def test_a_process_changed_after_signing_and_one_replaced_while_it_runs(self):
        self.make_authority("root")
        self.make_developer("team", self.TEAM, "root")
        prefix = self.with_anchor("root")
        self.sign("team")
        with self.running(self.client) as process:
            self.assert_valid(process, prefix=prefix)
            with open(self.client, "rb") as file:
                changed = file.read() + b"x"
            with open(self.path("changed"), "wb") as file:
                file.write(changed)
            os.chmod(self.path("changed"), 0o755)
            os.rename(self.path("changed"), self.client)
            self.assert_invalid(process, prefix=prefix)
        with self.running(self.client) as process:
            self.assert_invalid(process, prefix=prefix)

    def test_a_process_that_is_gone(self):
        with subprocess.Popen([self.client, "600"], stdin=subprocess.DEVNULL) as ended:
            ended.send_signal(signal.SIGKILL)
            os.waitid(os.P_PID, ended.pid, os.WEXITED | os.WNOWAIT)
            error = f"vorlix: {ended.pid}: {self.GONE}\n"
            self.assert_answer(["check-caller", ended.pid], 2, "", error)  # a zombie: its status is not collected yet
        self.assert_answer(["check-caller", ended.pid], 2, "", error)

    def test_a_process_whose_executable_may_not_be_read(self):
        prefix = self.as_nobody()
        if not prefix:
            self.skipTest("needs root, to run the command as another user")
        with self.running(self.client) as process:
            result = self.vorlix_run("check-caller", process, prefix=prefix)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertTrue(result.stderr.endswith(f"vorlix: {process}: {self.GONE}\n"), result.stderr)

    def test_what_names_no_process(self):
        for text in ("0", "-1", "abc", "", "1.5", "99999999999", "2147483648"):
            with self.subTest(text):
                result = self.vorlix_run("check-caller", "--", text)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertNotEqual(result.stderr, "")


if __name__ == "__main__":
    images.main()
