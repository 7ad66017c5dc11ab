# SPDX-License-Identifier: Apache-2.0
"""A writer and a reader of keyed archives, based on Python's plistlib and independent of the library.

Values: None, str, bytes, bool, int and float are immutable objects; Inline(x) is stored directly under its key;
Growable(x), FileURL(path), Styled(text, [(length, attributes), ...]), uuid.UUID and dict are objects of their classes.
Lengths of runs count UTF-16 code units.
"""

import dataclasses
import plistlib
import urllib.parse
import uuid
from plistlib import UID


@dataclasses.dataclass(frozen=True)
class Inline:
    value: object


@dataclasses.dataclass(frozen=True)
class Growable:
    value: object


@dataclasses.dataclass(frozen=True)
class FileURL:
    path: str


@dataclasses.dataclass(frozen=True)
class Styled:
    text: str
    runs: tuple


CLASSES = {
    "NSMutableString": ["NSMutableString", "NSString", "NSObject"],
    "NSMutableData": ["NSMutableData", "NSData", "NSObject"],
    "NSMutableArray": ["NSMutableArray", "NSArray", "NSObject"],
    "NSArray": ["NSArray", "NSObject"],
    "NSString": ["NSString", "NSObject"],
    "NSUUID": ["NSUUID", "NSObject"],
    "NSURL": ["NSURL", "NSObject"],
    "NSDictionary": ["NSDictionary", "NSObject"],
    "NSAttributedString": ["NSAttributedString", "NSObject"],
    "NSMutableAttributedString": ["NSMutableAttributedString", "NSAttributedString", "NSObject"],
}


def groups(number):
    """Seven bits per byte, lowest first; all bytes but the last have the high bit."""
    result = bytearray()
    while number >= 0x80:
        result.append(number & 0x7F | 0x80)
        number >>= 7
    return bytes(result) + bytes([number])


class Writer:
    """Writes archives. Each value becomes a separate object; only class descriptions are shared."""

    def __init__(self):
        self.objects = ["$null"]
        self.classes = {}

    def record(self, name, entries):
        """Returns the archive of a record with these entries."""
        place = self.made(name, [name, "NSObject"], lambda: {key: self.entry(value) for key, value in entries.items()})
        top = {"$archiver": "NSKeyedArchiver", "$version": 100000, "$top": {"root": place}, "$objects": self.objects}
        return plistlib.dumps(top, fmt=plistlib.FMT_BINARY, sort_keys=False)

    def entry(self, value):
        return value.value if isinstance(value, Inline) else self.add(value)

    def add(self, value):
        if value is None:
            return UID(0)
        if isinstance(value, Growable) and isinstance(value.value, str):
            return self.known("NSMutableString", lambda: {"NS.string": value.value})
        if isinstance(value, Growable):
            return self.known("NSMutableData", lambda: {"NS.data": value.value})
        if isinstance(value, uuid.UUID):
            return self.known("NSUUID", lambda: {"NS.uuidbytes": value.bytes})
        if isinstance(value, FileURL):
            text = "file://" + urllib.parse.quote(value.path)
            return self.known("NSURL", lambda: {"NS.base": UID(0), "NS.relative": self.add(text)})
        if isinstance(value, dict):
            return self.known("NSDictionary", lambda: {"NS.keys": [self.add(key) for key in value],
                                                       "NS.objects": [self.add(item) for item in value.values()]})
        if isinstance(value, list):
            return self.known("NSArray", lambda: {"NS.objects": [self.add(item) for item in value]})
        if isinstance(value, Styled):
            return self.known("NSAttributedString", lambda: self.styled(value))
        self.objects.append(value)
        return UID(len(self.objects) - 1)

    def styled(self, value):
        members = {"NSString": self.add(value.text)}
        if len(value.runs) == 1:
            members["NSAttributes"] = self.add(value.runs[0][1])
        elif value.runs:
            pairs = b"".join(groups(length) + groups(place) for place, (length, _) in enumerate(value.runs))
            members["NSAttributes"] = self.known(
                "NSArray", lambda: {"NS.objects": [self.add(attributes) for _, attributes in value.runs]})
            members["NSAttributeInfo"] = self.add(pairs)
        return members

    def known(self, name, members):
        return self.made(name, CLASSES[name], members)

    def made(self, name, classes, members):
        place = len(self.objects)
        self.objects.append(None)
        self.objects[place] = members()
        if name not in self.classes:
            self.objects.append({"$classname": name, "$classes": classes})
            self.classes[name] = UID(len(self.objects) - 1)
        self.objects[place]["$class"] = self.classes[name]
        return UID(place)


class Reader:
    """Reads archives strictly by the published description; raises ValueError for any deviation."""

    def __init__(self, data):
        top = plistlib.loads(data, fmt=plistlib.FMT_BINARY)
        self.check(set(top) == {"$archiver", "$version", "$top", "$objects"}, "members of the container")
        self.check(top["$archiver"] == "NSKeyedArchiver" and top["$version"] == 100000, "maker and version")
        self.check(set(top["$top"]) == {"root"}, "the root")
        self.objects = top["$objects"]
        self.check(self.objects[0] == "$null", "the null object")
        self.used = {0}
        self.root = top["$top"]["root"]

    @staticmethod
    def check(holds, what):
        if not holds:
            raise ValueError(f"differs from the published description: {what}")

    def record(self, name):
        """Returns the root's entries as values."""
        members = self.members(self.root, [name, "NSObject"])
        entries = {key: self.value(value) if isinstance(value, UID) else Inline(value) for key, value in members.items()}
        self.check(self.used == set(range(len(self.objects))), "every object is referred to")
        return entries

    def object(self, reference):
        self.check(isinstance(reference, UID), "a reference")
        self.used.add(reference.data)
        return self.objects[reference.data]

    def members(self, reference, classes=None):
        found = dict(self.object(reference))
        description = self.object(found.pop("$class"))
        self.check(set(description) == {"$classname", "$classes"}, "a class description")
        self.check(description["$classname"] == description["$classes"][0], "a class's own name")
        if classes is not None:
            self.check(description["$classes"] == classes, f"class {classes}")
        return found

    def value(self, reference):
        found = self.object(reference)
        if reference.data == 0:
            return None
        if not isinstance(found, dict):
            self.check(isinstance(found, (str, bytes, bool, int, float)), "a bare value")
            return found
        name = self.object(found["$class"])["$classname"]
        members = self.members(reference, CLASSES[name])
        return getattr(self, "read_" + name)(members)

    def read_NSMutableString(self, members):
        self.check(set(members) == {"NS.string"} and isinstance(members["NS.string"], str), "growable text")
        return Growable(members["NS.string"])

    def read_NSString(self, members):
        self.check(set(members) == {"NS.string"} and isinstance(members["NS.string"], str), "text")
        return members["NS.string"]

    def read_NSMutableData(self, members):
        self.check(set(members) == {"NS.data"} and isinstance(members["NS.data"], bytes), "growable bytes")
        return Growable(members["NS.data"])

    def read_NSUUID(self, members):
        self.check(set(members) == {"NS.uuidbytes"}, "a UUID")
        return uuid.UUID(bytes=members["NS.uuidbytes"])

    def read_NSURL(self, members):
        self.check(set(members) == {"NS.base", "NS.relative"} and members["NS.base"] == UID(0), "a URL")
        parts = urllib.parse.urlsplit(self.value(members["NS.relative"]))
        self.check(parts.scheme == "file" and not parts.netloc, "a file URL")
        return FileURL(urllib.parse.unquote(parts.path))

    def read_NSDictionary(self, members):
        self.check(set(members) == {"NS.keys", "NS.objects"}, "a dictionary")
        keys = [self.value(key) for key in members["NS.keys"]]
        return dict(zip(keys, [self.value(item) for item in members["NS.objects"]], strict=True))

    def read_NSMutableArray(self, members):
        self.check(set(members) == {"NS.objects"}, "an array")
        return [self.value(item) for item in members["NS.objects"]]

    read_NSArray = read_NSMutableArray

    def read_NSAttributedString(self, members):
        text = self.value(members["NSString"])
        length = len(text.encode("utf-16-le")) // 2
        if not text:
            self.check(set(members) == {"NSString"}, "empty styled text")
            return Styled(text, ())
        attributes = self.value(members["NSAttributes"])
        if "NSAttributeInfo" not in members:
            self.check(isinstance(attributes, dict), "one run's attributes")
            return Styled(text, ((length, attributes),))
        numbers = [0]
        shift = 0
        info = self.value(members["NSAttributeInfo"])
        for byte in info.value if isinstance(info, Growable) else info:
            numbers[-1] |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                numbers.append(0)
                shift = 0
        runs = tuple((run, attributes[place]) for run, place in zip(numbers[:-1:2], numbers[1:-1:2], strict=True))
        self.check(len(runs) > 1 and sum(run for run, _ in runs) == length, "runs over the whole text")
        return Styled(text, runs)
