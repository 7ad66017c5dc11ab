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
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "integration"))
from support import hives  # noqa: E402  (the path to it is set above)
from timing import Program, fresh_copy, take_turns  # noqa: E402
from volume_work import restoring, saving  # noqa: E402

IMAGE_SIZE = 256 << 20
ESP_FIRST, HFS_FIRST, WINDOWS_FIRST, WINDOWS_LAST = 40, 20520, 204800, 401407


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
    parser.add_argument("--volume", type=int, default=4096, metavar="MIB",
                        help="size of the volume that is saved; a quarter of it is restored (default 4096)")
    parser.add_argument("--only-volumes", action="store_true", help="time saving and restoring volumes only")
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

        if options.only_volumes:
            saving(vorlix, folder, options.runs, options.volume << 20)
            restoring(vorlix, folder, options.runs, options.volume << 18)
            return

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
        saving(vorlix, folder, min(options.runs, 5), options.volume << 20)
        restoring(vorlix, folder, min(options.runs, 5), options.volume << 18)
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
