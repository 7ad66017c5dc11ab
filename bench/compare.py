#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Times the command line and other disk tools: whole processes on copies of one disk image, in alternation (A B A B ...),
so that other load on the machine affects all of them equally. Prints medians and ratios of medians. Also compares the
decoding and encoding of archives with Python's plistlib."""

import argparse
import json
import os
import pathlib
import plistlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "integration"))
from support import hives  # noqa: E402  (the path to it is set above)

IMAGE_SIZE = 256 << 20
ESP_FIRST, HFS_FIRST, WINDOWS_FIRST, WINDOWS_LAST = 40, 20520, 204800, 401407


class Program:
    """A command. Its word "IMAGE" stands for the path of the program's copy of the image."""

    def __init__(self, label, command, statuses=(0,)):
        self.label = label
        self.command = command
        self.statuses = statuses
        self.wall = []
        self.cpu = []

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


def make_image(path):
    """Makes a Mac's GPT disk with a FAT volume as entry 3 and without a hybrid MBR."""
    with open(path, "wb") as file:
        file.truncate(IMAGE_SIZE)
    options = ["-a", "1", "-n", f"1:{ESP_FIRST}:{HFS_FIRST - 1}", "-t", "1:EF00",
               "-n", f"2:{HFS_FIRST}:{WINDOWS_FIRST - 1}", "-t", "2:AF00",
               "-n", f"3:{WINDOWS_FIRST}:{WINDOWS_LAST}", "-t", "3:0700"]
    subprocess.run(["sgdisk", *options, str(path)], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["mformat", "-i", f"{path}@@{WINDOWS_FIRST * 512}", "-T", str(WINDOWS_LAST - WINDOWS_FIRST + 1),
                    "-h", "255", "-s", "63", "-H", "0", "::"], check=True)


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


def listing(vorlix, original, folder, runs):
    """Lists this machine's disks. lsblk prints more columns and all devices; vorlix also looks for Windows and boot files."""
    if shutil.which("lsblk") is None:
        print("\nListing: not timed, lsblk is not installed")
        return
    take_turns("Listing the machine's disks",
               [Program("vorlix list --all --json", [vorlix, "list", "--all", "--json"]),
                Program("lsblk -J -O", ["lsblk", "-J", "-O"])], original, folder, runs)


def windows(vorlix, original, folder, runs):
    """Reads the same hive. vorlix starts registry_lookup for each of four values; the other tool exports all at once."""
    missing = [tool for tool in (*hives.NEEDED, "hivexregedit") if shutil.which(tool) is None]
    companion = pathlib.Path(vorlix).parent / "tools" / "bin" / "registry_lookup"
    if missing or not companion.exists():
        print(f"\nWindows detection: not timed, there is no {', '.join(missing) or companion.name}")
        return
    volume = folder / "volume"
    hive = volume / "Windows" / "System32" / "config" / "SOFTWARE"
    hive.parent.mkdir(parents=True)
    hives.make_software_hive(str(hive), hives.RELEASES["Windows 10"])
    take_turns("Which Windows a volume holds",
               [Program("vorlix windows", [vorlix, "windows", str(volume), "--json"]),
                Program("hivexregedit --export", ["hivexregedit", "--export", str(hive),
                                                  hives.CURRENT_VERSION.replace("/", "\\")])],
               original, folder, runs)


def saving(vorlix, original, folder, runs):
    """Saves an NTFS volume of 1 GiB that is filled to a fifth with this system's programs. vorlix also hashes what is in
    use, writes the block map and brings all of it to the medium. Each program has the page cache warm."""
    missing = [tool for tool in ("mkntfs", "ntfscp", "ntfsclone", "zstd") if shutil.which(tool) is None]
    if missing:
        print(f"\nSaving a volume: not timed, there is no {', '.join(missing)}")
        return
    volume, content, target = folder / "volume.ntfs", folder / "content", folder / "saved"
    with open(volume, "wb") as file:
        file.truncate(1 << 30)
    subprocess.run(["mkntfs", "-F", "-Q", "-q", str(volume)], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    subprocess.run(["sh", "-c", f"tar -cf - /usr/bin /usr/lib 2>/dev/null | head -c {(1 << 30) // 5} > {content}"], check=True)
    subprocess.run(["ntfscp", "-f", "-q", str(volume), str(content), "content"], check=True, stdout=subprocess.DEVNULL)
    content.unlink()
    take_turns("Saving an NTFS volume of 1 GiB, filled to a fifth",
               [Program("vorlix backup", ["sh", "-c", f"rm -rf {target}; {vorlix} backup --progress none {volume} {target}"]),
                Program("ntfsclone | zstd -3 -T2",
                        ["sh", "-c", f"ntfsclone -q -f --save-image -o - {volume} | zstd -q -3 -T2 -f -o {target}.zst"])],
               original, folder, runs)
    packed = (target / "volume.img.zst").stat().st_size / pathlib.Path(f"{target}.zst").stat().st_size
    print(f"  size of the packed volume : size of the other file = {packed:.3f}")


def archives(program, fixture, records):
    """Decodes and encodes volume records, each in a separate archive, and compares with plistlib on the same bytes.
    plistlib does less: it handles the property list only, not the records."""
    if not program.exists():
        print(f"\nArchives: not timed, {program.name} is not built")
        return
    report = subprocess.run([str(program), f"--benchmark_filter=/{records}$", "--benchmark_format=json"],
                            check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    ours = {row["name"].split("/")[0]: row["real_time"] / 1e3 for row in json.loads(report)["benchmarks"]}
    content = fixture.read_bytes()
    start = time.perf_counter()
    for _ in range(records):
        tree = plistlib.loads(content, fmt=plistlib.FMT_BINARY)
    loading = time.perf_counter() - start
    start = time.perf_counter()
    for _ in range(records):
        plistlib.dumps(tree, fmt=plistlib.FMT_BINARY)
    dumping = time.perf_counter() - start
    print(f"\nArchives of {records} volume records")
    for name, own, peer in (("decode", ours["decodeRecords"], loading), ("encode", ours["encodeRecords"], dumping)):
        print(f"  {name}: {own:.3f} s, plistlib {peer:.3f} s, ratio {own / peer:.3f}")


def system_calls(program, original, folder):
    """Prints the number of system calls of one run by strace, or that strace cannot trace on this machine."""
    image = folder / "traced.img"
    fresh_copy(original, image)
    counts = folder / "counts"
    traced = subprocess.run(["strace", "-c", "-f", "-o", str(counts), *program.arguments(image)],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    if traced.returncode not in program.statuses or not counts.exists():
        print(f"  {program.label}: strace cannot trace on this machine ({traced.stderr.strip() or traced.returncode})")
        return
    total, calls = 0, {}
    for line in counts.read_text().splitlines():
        row = re.match(r"\s*[\d.]+\s+[\d.]+\s+\d*\s+(\d+)\s+(?:\d+\s+)?(\w+)$", line)
        if row and row.group(2) != "total":
            calls[row.group(2)] = int(row.group(1))
            total += int(row.group(1))
    most = ", ".join(f"{name} {count}" for name, count in sorted(calls.items(), key=lambda call: -call[1])[:6])
    flushes = sum(calls.get(name, 0) for name in ("sync", "fsync", "fdatasync", "syncfs"))
    sleeps = sum(calls.get(name, 0) for name in ("nanosleep", "clock_nanosleep"))
    print(f"  {program.label:28} {total:5} ({most}; flushes {flushes}, sleeps {sleeps})")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--vorlix", required=True, help="the built command line")
    parser.add_argument("--runs", type=int, default=15, help="runs of each program (default 15)")
    parser.add_argument("--folder", help="where the images are made (default: the system's temporary folder)")
    options = parser.parse_args()
    vorlix = str(pathlib.Path(options.vorlix).resolve())
    os.environ["PATH"] += ":/usr/sbin:/sbin"  # folders of the disk tools, which need no rights on an image
    for tool in ("sgdisk", "sfdisk", "mformat", vorlix):
        if shutil.which(tool) is None:
            sys.exit(f"{tool}: not found")

    with tempfile.TemporaryDirectory(dir=options.folder) as name:
        folder = pathlib.Path(name)
        original = folder / "original.img"
        boot_code = folder / "boot-code.bin"
        make_image(original)
        boot_code.write_bytes(b"\xEB\xFE" + bytes(438))
        kind = subprocess.run(["stat", "-f", "-c", "%T", name], check=True, stdout=subprocess.PIPE, text=True).stdout
        print(f"Images on {kind.strip()}, {os.cpu_count()} processors")

        hybrid = Program("vorlix hybrid",
                         [vorlix, "hybrid", "IMAGE", "--boot-code", str(boot_code), "--partition", "3"])
        sgdisk_hybrid = Program("sgdisk --hybrid", ["sgdisk", "--hybrid=2:3", "IMAGE"])
        take_turns("Hybrid MBR", [hybrid, sgdisk_hybrid], original, folder, options.runs, renew=True, bar=0.9)
        sfdisk = Program("sfdisk -J", ["sfdisk", "-J", "IMAGE"])
        take_turns("Showing the tables",
                   [Program("vorlix show", [vorlix, "show", "IMAGE"]), Program("sgdisk -p", ["sgdisk", "-p", "IMAGE"])],
                   original, folder, options.runs, bar=1.0)
        take_turns("Showing the tables as JSON", [Program("vorlix show --json", [vorlix, "show", "--json", "IMAGE"]), sfdisk],
                   original, folder, options.runs, bar=1.5)
        take_turns("Starting", [Program("vorlix --version", [vorlix, "--version"]), sfdisk],
                   original, folder, options.runs, bar=0.8)
        take_turns("Where vorlix's time goes",
                   [Program("vorlix hybrid --dry-run", [*hybrid.command, "--dry-run"], statuses=(1,)),
                    Program("vorlix --help", [vorlix, "--help"]), Program("true", ["true"])],
                   original, folder, options.runs, ratios=False)

        listing(vorlix, original, folder, options.runs)
        windows(vorlix, original, folder, options.runs)
        saving(vorlix, original, folder, min(options.runs, 5))
        archives(pathlib.Path(vorlix).parent / "bench" / "ArchiveBench",
                 ROOT / "tests" / "data" / "archives" / "QDVolume-full-1.archive", 10000)

        print("\nSystem calls of one run")
        if shutil.which("strace") is None:
            print("  not counted: strace is not installed")
        else:
            for program in (hybrid, sgdisk_hybrid):
                system_calls(program, original, folder)


if __name__ == "__main__":
    main()
