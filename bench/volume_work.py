# SPDX-License-Identifier: Apache-2.0
"""Times saving and restoring volumes beside general tools. Every program finds the page cache warm and ends with its result
on the medium, but for the pipe that packs, which does not sync."""

import os
import shutil
import statistics
import subprocess

from timing import Program, take_turns

MIB = 1 << 20
FIRST = 2048  # sector of the slice
LARGEST_MEMORY = 128 << 10  # KiB
THROUGHPUT = 0.97  # of the peer's, at least


def lacking(*names):
    return ", ".join(name for name in names if shutil.which(name) is None)


def make_volume(volume, size, filled):
    """An NTFS volume with a file of this system's programs."""
    content = volume.with_suffix(".content")
    with open(volume, "wb") as file:
        file.truncate(size)
    subprocess.run(["mkntfs", "-F", "-Q", "-q", str(volume)], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    programs = f"while tar -cf - /usr/bin /usr/lib 2>/dev/null; do :; done | head -c {filled} > {content}"  # head ends tar
    subprocess.run(["sh", "-c", programs], check=True)
    subprocess.run(["ntfscp", "-f", "-q", str(volume), str(content), "content"], check=True, stdout=subprocess.DEVNULL)
    content.unlink()


def judge(own, peer, least):
    """Prints throughput and memory of a program against their limits. least: None if there is no limit."""
    throughput = statistics.median(theirs / ours for ours, theirs in zip(own.wall, peer.wall))
    limit = "" if least is None else f", at least {least}: {'kept' if throughput >= least else 'MISSED'}"
    print(f"  throughput of {own.label} : {peer.label} = {throughput:.3f} (median of the turns' ratios){limit}")
    print(f"  memory of {own.label}: {own.memory >> 10} MiB, less than {LARGEST_MEMORY >> 10}: "
          f"{'kept' if own.memory < LARGEST_MEMORY else 'MISSED'}; load of the machine {os.getloadavg()[0]:.1f}")


def saving(vorlix, folder, runs, size):
    """Saves an NTFS volume that is filled to a fifth. vorlix also hashes what is in use, writes the block map and brings
    all of it to the medium."""
    if missing := lacking("mkntfs", "ntfscp", "ntfsclone", "zstd"):
        print(f"\nSaving a volume: not timed, there is no {missing}")
        return
    volume, target, nothing = folder / "volume.ntfs", folder / "saved", folder / "nothing"
    nothing.touch()
    make_volume(volume, size, size // 5)
    own = Program("vorlix backup", ["sh", "-c", f"rm -rf {target}; {vorlix} backup --progress none {volume} {target}"])
    peer = Program("ntfsclone | zstd -3 -T2",
                   ["sh", "-c", f"ntfsclone -q -f --save-image -o - {volume} | zstd -q -3 -T2 -f -o {target}.zst"])
    take_turns(f"Saving an NTFS volume of {size >> 20} MiB, filled to a fifth", [own, peer], nothing, folder, runs)
    judge(own, peer, 1.0)
    packed = (target / "volume.img.zst").stat().st_size / os.stat(f"{target}.zst").st_size
    print(f"  size of the packed volume : size of the other file = {packed:.3f}")
    shutil.rmtree(target)
    os.unlink(f"{target}.zst")
    volume.unlink()


def restoring(vorlix, folder, runs, size):
    """Restores an NTFS volume that is filled to three quarters. vorlix also hashes what it writes, keeps a journal and, unless
    told otherwise, reads all of it back."""
    if missing := lacking("sgdisk", "mkntfs", "ntfscp", "gzip", "dd", "cmp"):
        print(f"\nRestoring a volume: not timed, there is no {missing}")
        return
    volume, disk = folder / "volume.ntfs", folder / "disk.img"
    sparse = folder / "sparse.ntfs"
    make_volume(sparse, size, size * 3 // 4)
    subprocess.run(["cp", "--sparse=never", str(sparse), str(volume)], check=True)  # dd would write holes, vorlix not
    sparse.unlink()
    subprocess.run(["gzip", "-1", "-k", str(volume)], check=True)
    with open(disk, "wb") as file:
        file.truncate(FIRST * 512 + size + MIB)
    subprocess.run(["sgdisk", "-a", "1", "-n", f"1:{FIRST}:{FIRST + size // 512 - 1}", "-t", "1:0700", str(disk)], check=True,
                   stdout=subprocess.DEVNULL)
    onto = f"bs=4M oflag=seek_bytes seek={FIRST * 512} conv=notrunc,fsync status=none"

    def own(label, source, *options):
        return Program(label, [vorlix, "restore", str(source), "IMAGE", "--partition", "1", "--yes", "--start", "none",
                               "--no-backup", "--progress", "none", *options])

    packed = f"{volume}.gz"
    pairs = (
        (THROUGHPUT, "a raw image", own("restore --no-verify", volume, "--no-verify"),
         Program("dd", ["sh", "-c", f'dd if={volume} of="$0" {onto}', "IMAGE"])),
        (THROUGHPUT, "a gz image", own("restore --no-verify", packed, "--no-verify"),
         Program("gunzip | dd", ["sh", "-c", f'gunzip -c {packed} | dd iflag=fullblock of="$0" {onto}', "IMAGE"])),
        # vorlix compares with hashes, so that it can go on after an interruption; cmp reads the source again.
        (None, "a raw image, and comparing", own("restore", volume),
         Program("dd, cmp", ["sh", "-c", f'dd if={volume} of="$0" {onto} && dd if="$0" iflag=nocache count=0 status=none && '
                                         f'cmp -n {size} -i 0:{FIRST * 512} {volume} "$0"', "IMAGE"])),
    )
    for least, what, program, peer in pairs:
        take_turns(f"Restoring {what} of {size >> 20} MiB", [program, peer], disk, folder, runs)
        judge(program, peer, least)
    for path in (volume, disk, *folder.glob("copy*.img"), *folder.glob("volume.ntfs.gz")):
        path.unlink()
