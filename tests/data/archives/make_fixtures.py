#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Rewrites the archives in this folder. VORLIX_ARCHIVE_PROBE names the built archive_probe.

A new version of the archived fields gets a new number and new files. The files of old versions stay, because they must
remain readable."""

import json
import pathlib
import subprocess
import sys

FOLDER = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(FOLDER.parents[1] / "integration"))
import test_archive_show as shown  # noqa: E402
import test_archives as records  # noqa: E402


def main():
    """Writes the probe's archives of full records, empty ones and a copy, and the Python writer's archives."""
    for name, fields, options in (("full", records.FULL, []), ("empty", {}, []), ("copy", records.FULL, ["copy"])):
        subprocess.run([records.PROBE, "encode", FOLDER / f"QDVolume-{name}-1.archive", *options],
                       input=json.dumps(fields), text=True, check=True)
    (FOLDER / "QDVolume-python-1.archive").write_bytes(records.Writer().record("QDVolume", records.WRITTEN))
    for name, fields in (("full", shown.INFO_TOLD), ("empty", {})):
        subprocess.run([records.PROBE, "encode-info", FOLDER / f"QDDiskInfo-{name}-1.archive"], input=json.dumps(fields),
                       text=True, check=True)
    (FOLDER / "QDDiskInfo-python-1.archive").write_bytes(records.Writer().record("QDDiskInfo", shown.INFO))


if __name__ == "__main__":
    main()
