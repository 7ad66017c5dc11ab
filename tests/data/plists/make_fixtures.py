#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Rewrites the property lists in this folder with Python's plistlib."""

import pathlib
import plistlib

FOLDER = pathlib.Path(__file__).resolve().parent
MODELS = ["iMac11,1", "MacBookPro5,5", "MacPro5,1"]
LISTS = {
    "models": MODELS,
    # Strings among items of other types.
    "mixed": [5, True, b"MacBookPro14,3", ["MacBookPro14,3"], {"MacBookPro14,3": "MacBookPro14,3"}, 1.5, *MODELS, ""],
    "dictionary": {"MacBookPro5,5": "MacBookPro5,5", "models": MODELS},
    "text": "MacBookPro5,5",
    "empty": [],
}
FORMATS = {"xml": plistlib.FMT_XML, "binary": plistlib.FMT_BINARY}


def main():
    """Writes every list in both formats."""
    for name, content in LISTS.items():
        for form, number in FORMATS.items():
            (FOLDER / f"{name}-{form}.plist").write_bytes(plistlib.dumps(content, fmt=number))


if __name__ == "__main__":
    main()
