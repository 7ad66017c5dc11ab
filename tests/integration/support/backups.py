# SPDX-License-Identifier: Apache-2.0
"""Backups that commands keep: journals, as docs/journal.md describes them. Read here with JSON and plain file access."""

import hashlib
import json
import os
import stat


def folders(parent):
    """The complete backups in a folder, oldest first. Fails if the folder has anything else."""
    found = []
    for name in sorted(os.listdir(parent)):
        path = os.path.join(parent, name)
        assert sorted(os.listdir(path)) == ["after.bin", "before.bin", "manifest.json"], path
        found.append(path)
    return found


def read(folder):
    """The manifest of a backup. Each run and file gets its bytes, "old" and "new", which must have the hashes."""
    with open(os.path.join(folder, "manifest.json"), encoding="utf-8") as file:
        manifest = json.load(file)
    assert (manifest["format"], manifest["version"]) == ("vorlix journal", 2), folder
    images = {}
    for name in ("before", "after"):
        with open(os.path.join(folder, name + ".bin"), "rb") as file:
            images[name] = file.read()
    for run in manifest["runs"]:
        place = slice(run["place"], run["place"] + run["length"])
        run["old"], run["new"] = images["before"][place], images["after"][place]
        assert hashlib.sha256(run["old"]).hexdigest() == run["before"], run
        assert hashlib.sha256(run["new"]).hexdigest() == run["after"], run
    for item in manifest["files"]:
        item["old"] = None
        if item["before"] is not None:
            item["old"] = images["before"][item["place"] : item["place"] + item["length"]]
            assert hashlib.sha256(item["old"]).hexdigest() == item["before"], item
    return manifest


def old_bytes(folder):
    """What a backup's runs hold, by file name of the device and byte offset."""
    manifest = read(folder)
    return {(os.path.basename(manifest["devices"][run["device"]]["name"]), run["offset"]): run["old"]
            for run in manifest["runs"]}


def is_the_users_alone(folder):
    """Whether nobody else can read a backup."""
    paths = [folder, *(os.path.join(folder, name) for name in os.listdir(folder))]
    return all(stat.S_IMODE(os.lstat(path).st_mode) & 0o077 == 0 for path in paths)


def restore_by_hand(folder):
    """The commands of docs/journal.md that restore the old bytes."""
    manifest = read(folder)
    for run in manifest["runs"]:
        device = manifest["devices"][run["device"]]
        yield ["dd", "bs=512", "conv=notrunc", "status=none", f"if={folder}/before.bin",
               f"skip={run['place'] // 512}", f"seek={(run['offset'] + device['offset']) // 512}",
               f"count={run['length'] // 512}"]
