# SPDX-License-Identifier: Apache-2.0
"""Random GPTs: compares what the command line shows and writes with an independent prediction, byte for byte.

VORLIX_SEED sets the seed, VORLIX_CASES the number of cases. The test prints both; a failure names its case.
"""

import collections
import os
import random
import sys
import uuid

from support import gpt, images

SEED = int(os.environ.get("VORLIX_SEED", "20130521"))
CASES = int(os.environ.get("VORLIX_CASES", "60" if images.SANITIZED else "320"))

KNOWN_TYPES = list(gpt.MBR_TYPES) + [gpt.UFS]
LARGEST_FILE = 15 << 40  # common file systems allow 16 TiB


class Case:
    """One random disk, and the arguments of the command."""

    def __init__(self, number):
        self.random = random.Random(SEED * 1000003 + number)
        rnd = self.random
        block_size = rnd.choice((512, 512, 4096))
        largest = LARGEST_FILE // block_size
        blocks = rnd.choice((rnd.randrange(20000, 1 << 20), rnd.randrange(1 << 24, 1 << 31), rnd.randrange(1 << 31, min(1 << 34, largest))))
        count = rnd.choice((1, 2, 3, 4, 5, 16, 127, 128, 128, 128, 128, 129, 1024, rnd.randrange(1, 4096), 16384))
        self.table = gpt.Table(block_size, blocks, [], count, rnd.choice((2, 2, 2, rnd.randrange(2, 64))), str(self.guid()).upper())
        self.table.entries = self.random_entries()
        entries = self.table.entries
        used = [n for n, entry in enumerate(entries[:4], 1) if entry and entry.type != gpt.UNUSED]
        self.partition = rnd.choice(used) if used and rnd.random() < 0.95 else rnd.randrange(1, 5)
        if self.partition in used[1:] and rnd.random() < 0.5:
            entries[self.partition - 1].type = gpt.BASIC_DATA
        self.type = rnd.choice((None,) * 9 + (0x07, 0x0B, 0x0C, 0xEE, rnd.randrange(1, 256)))
        self.guard = rnd.random() < 0.08
        self.boot_code = rnd.randbytes(rnd.choice((440, 446, 446, 512)))
        self.old_sector0 = self.random_sector0()
        self.boot_sector_at, self.boot_sector = self.random_boot_sector()

    def guid(self):
        return uuid.UUID(int=self.random.getrandbits(128) | 1)

    def random_lba(self, low, high):
        """A block number in a range: any, or one near a number where arithmetic may overflow."""
        rnd = self.random
        if rnd.random() < 0.5:
            return rnd.randrange(low, high + 1)
        turning = rnd.choice((63, 16065, 16450559, 16450560, 1 << 31, 1 << 32, 65536 * 16065)) + rnd.randrange(-2, 3)
        return turning if low <= turning <= high else rnd.randrange(low, high + 1)

    def random_entry(self, kind):
        rnd, table = self.random, self.table
        low, high = table.first_usable, table.last_usable
        if rnd.random() < 0.1:
            high = max(high, (1 << 36))  # a table that claims more than the disk holds
        first = self.random_lba(low, high)
        last = rnd.choice((first, self.random_lba(first, high), min(high, first + rnd.randrange(1, 1 << 20))))
        name = "".join(rnd.choice("Basic data ÄßЖ水🦊") for _ in range(rnd.randrange(0, 19)))
        return gpt.Entry(kind, first, last, str(self.guid()).upper(), rnd.getrandbits(64), name)

    def random_entries(self):
        rnd, count = self.random, self.table.count
        used = {n for n in range(2, 5) if rnd.random() < 0.75}
        used |= {rnd.randrange(1, count + 1) for _ in range(rnd.randrange(0, 6))}
        used |= {1} if rnd.random() < 0.97 else set()
        entries = [None] * min(count, max(used | {1}))
        for number in used:
            if number > count:
                continue
            kind = rnd.choice(KNOWN_TYPES + [str(self.guid()).upper(), gpt.LINUX])
            if number == 1 and rnd.random() < 0.9:
                kind = gpt.EFI_SYSTEM
            entries[number - 1] = self.random_entry(kind)
        if rnd.random() < 0.9:
            self.make_disjoint([entry for entry in entries if entry])
        for index, entry in enumerate(entries):
            if entry is None and rnd.random() < 0.05:  # only the type marks an entry as unused
                entries[index] = self.random_entry(gpt.UNUSED)
        return entries

    def make_disjoint(self, entries):
        """Cuts the disk at random places and puts the entries between the cuts."""
        table = self.table
        cuts = sorted({self.random_lba(table.first_usable, table.last_usable) for _ in range(8 * len(entries))})
        if len(cuts) < 2 * len(entries):
            return
        cuts = sorted(self.random.sample(cuts, 2 * len(entries)))
        places = list(zip(cuts[::2], cuts[1::2]))
        self.random.shuffle(places)
        for entry, (first, last) in zip(entries, places):
            entry.first, entry.last = first, last

    def random_sector0(self):
        """Sector 0 before the command: a protective MBR, random bytes, the right slots, or nearly right ones."""
        rnd = self.random
        kind = rnd.randrange(4)
        if kind == 0:
            return gpt.protective_sector0(self.table.blocks)
        if kind == 1:
            slots = [
                gpt.decode_slot(bytes([rnd.choice((0, 0, gpt.ACTIVE))]) + rnd.randbytes(15)) for _ in range(4)
            ]
            return gpt.sector0(rnd.randbytes(446), slots)
        sector = bytearray(gpt.sector0(rnd.randbytes(446), gpt.hybrid_slots(self.table.entries, rnd.randrange(0, 5))))
        if kind == 2:
            slot = gpt.SLOT_OFFSET + 16 * rnd.randrange(4)
            sector[slot + rnd.randrange(1, 16)] ^= 1 << rnd.randrange(8)
        return bytes(sector)

    def random_boot_sector(self):
        """The offset of the volume's first sector, None if it is off the disk; and a random NTFS boot sector."""
        entry = self.entry(self.partition)
        sector = b"\xEB\x52\x90NTFS    " + self.random.randbytes(499) + b"\x55\xAA"
        on_disk = entry and entry.first <= self.table.last_usable
        return (entry.first * self.table.block_size if on_disk else None), sector

    # ------------------------------------------------------------------------------------------------- predictions

    def entry(self, number):
        """Entry `number`; None if it is unused."""
        if number > min(self.table.count, len(self.table.entries)):
            return None
        entry = self.table.entries[number - 1]
        return entry if entry and entry.type != gpt.UNUSED else None

    def new_slots(self):
        if self.guard:
            return gpt.guard_slots(self.table.entries, self.table.last_usable)
        return gpt.hybrid_slots(self.table.entries, self.partition, self.type)

    def used(self):
        return {number: entry for number, entry in enumerate(self.table.entries[: self.table.count], 1)
                if entry and entry.type != gpt.UNUSED}

    def overlap(self, numbers):
        """Returns whether one of the entries with these numbers shares a sector with any other entry."""
        used = self.used()
        return any(
            one != other and used[one].first <= used[other].last and used[other].first <= used[one].last
            for one in used if one in numbers for other in used
        )

    def refusal(self):
        """The reason why the command refuses to write even with --force; empty if there is none."""
        if self.new_slots()[0].type != 0xEE:
            return "the first slot is not the protective one"
        if self.guard:
            return ""
        entry = self.entry(self.partition)
        if entry is None:
            return "the entry is unused"
        if any(self.entry(number) and self.entry(number).last > 0xFFFFFFFF for number in range(1, 5)):
            return "an LBA has more than 32 bits"
        if self.overlap(range(1, 5)):
            return "entries with a slot overlap"
        if entry.first >= self.table.blocks:
            return "the slice starts past the end of the disk"
        return ""

    def needs_force(self):
        """The reason why the command needs --force to write; empty if there is none."""
        table = self.table
        if any(entry.first < table.first_usable or entry.last > table.last_usable for entry in self.used().values()):
            return "an entry is outside the usable sectors"
        if self.overlap(self.used()):
            return "entries overlap"
        if not self.guard and self.entry(self.partition).type != gpt.BASIC_DATA:
            return "the type is another"
        return ""

    def new_sector0(self):
        """Sector 0 after the command. If the slots were right, the disk signature stays. The boot code is always the
        given one."""
        wanted = gpt.sector0(self.boot_code, self.new_slots())
        if wanted[gpt.SLOT_OFFSET :] != self.old_sector0[gpt.SLOT_OFFSET :]:
            return wanted
        return wanted[:440] + self.old_sector0[440:]


class Differential(images.CommandTest):
    def assert_place(self, shown, place, note):
        """Compares cylinder, head and sector in their encoded form."""
        self.assertEqual(gpt.encode_chs((shown["cylinder"], shown["head"], shown["sector"])), gpt.encode_chs(place), note)

    def assert_slot(self, shown, slot, note):
        self.assertEqual(shown["active"], slot.flag == gpt.ACTIVE, note)
        self.assertEqual(shown["type"], f"{slot.type:02X}", note)
        self.assertEqual((shown["firstLBA"], shown["sectors"]), (slot.lba, slot.size), note)
        self.assert_place(shown["start"], slot.start, note)
        self.assert_place(shown["end"], slot.end, note)

    def check_mbr(self, mbr, sector, table, note):
        slots = gpt.slots_of(sector)
        active = gpt.active_slot(slots)
        hybrid = gpt.hybrid_slots(table.entries, active)
        self.assertTrue(mbr["signatureValid"], note)
        self.assertEqual(mbr["kind"], self.kind(sector, table), note)
        self.assertEqual(mbr["activeSlot"], active, note)
        self.assertEqual(mbr["diskSignature"], f"{int.from_bytes(sector[440:444], 'little'):08X}", note)
        equal = []
        for number, shown in enumerate(mbr["slots"], 1):
            here = f"{note}, slot {number}"
            self.assertEqual(shown["slot"], number, here)
            self.assert_slot(shown, slots[number - 1], here)
            self.assert_slot(shown["hybrid"], hybrid[number - 1], here + " as it should be")
            at = gpt.SLOT_OFFSET + 16 * (number - 1)
            equal.append(sector[at : at + 16] == hybrid[number - 1].encode())
            self.assertEqual(shown["equalsHybrid"], equal[-1], here)
        self.assertEqual(len(mbr["slots"]), 4, note)
        self.assertEqual(mbr["equalsHybrid"], all(equal), note)

    @staticmethod
    def kind(sector, table):
        slots = gpt.slots_of(sector)
        if 0xEE not in [slot.type for slot in slots]:
            return "DOS"
        if [slot.type for slot in slots if slot.type] != [0xEE]:
            return "hybrid"
        guard = gpt.sector0(b"", gpt.guard_slots(table.entries, table.last_usable))
        return "guard" if guard[gpt.SLOT_OFFSET :] == sector[gpt.SLOT_OFFSET :] else "protective"

    def check_gpt(self, shown, table, note):
        self.assertEqual(shown["diskGUID"], table.disk_guid, note)
        self.assertEqual((shown["firstUsableLBA"], shown["lastUsableLBA"]), (table.first_usable, table.last_usable), note)
        self.assertEqual((shown["entryLBA"], shown["entryCount"]), (table.entry_lba, table.count), note)
        expected = [
            {
                "number": number,
                "typeGUID": entry.type,
                "partitionGUID": entry.unique,
                "firstLBA": entry.first,
                "lastLBA": entry.last,
                "size": (entry.last - entry.first + 1) * table.block_size,
                "attributes": f"{entry.attributes:016X}",
                "name": entry.name,
            }
            for number, entry in enumerate(table.entries, 1)
            if entry and entry.type != gpt.UNUSED
        ]
        got = [{key: value for key, value in entry.items() if key != "typeName"} for entry in shown["entries"]]
        self.assertEqual(got, expected, note)

    def check_show(self, path, case, sector, note):
        shown = self.show(path)
        self.assertEqual((shown["schema"], shown["disk"]), (1, path), note)
        self.assertEqual(shown["blockSize"], case.table.block_size, note)
        self.assertEqual(shown["size"], case.table.blocks * case.table.block_size, note)
        self.check_mbr(shown["mbr"], sector, case.table, note)
        self.check_gpt(shown["gpt"], case.table, note)

    def run_hybrid(self, path, case, *options):
        with open(self.boot_code, "wb") as file:
            file.write(case.boot_code)
        options = ["--partition", case.partition, *options]
        if case.type is not None:
            options += ["--type", f"{case.type:02X}"]
        if case.guard:
            options += ["--guard"]
        return self.vorlix_run("hybrid", path, "--boot-code", self.boot_code, *options)

    def write_disk(self, name, case):
        path = case.table.write(self.path(name), case.old_sector0)
        if case.boot_sector_at:
            gpt.write_at(path, case.boot_sector_at, case.boot_sector)
        return path

    def check_case(self, number):
        case = Case(number)
        note = f"seed {SEED}, case {number}"
        path = self.write_disk("case.img", case)
        before = images.snapshot(path)
        self.check_show(path, case, case.old_sector0, note)
        self.assert_unchanged(path, before, f"by show, {note}")

        refusal = case.refusal()
        if not refusal and case.needs_force():
            result = self.run_hybrid(path, case)
            self.assertEqual(result.returncode, 2, f"{note}: {case.needs_force()}")
            self.assertIn("--force", result.stderr, note)
            self.assert_unchanged(path, before, note)
        forced = refusal or case.needs_force()
        result = self.run_hybrid(path, case, *(["--force"] if forced else []))
        note = f"{note}, partition {case.partition}, type {case.type}, guard {case.guard}: {refusal}\n{result.stdout}{result.stderr}"
        if refusal:
            self.assertEqual(result.returncode, 2, note)
            self.assertIn("nothing was written", result.stderr, note)
            self.assert_unchanged(path, before, note)
        else:
            self.assertEqual(result.returncode, 0, note)
            self.assertEqual(gpt.read_at(path, 0, 512).hex(" "), case.new_sector0().hex(" "), note)
            self.check_patch(path, case, note)
            if number % 4 == 0:
                self.check_show(path, case, case.new_sector0(), note)
            self.check_rest(path, case, note)
        return refusal or forced and "written when forced"

    def check_patch(self, path, case, note):
        """The boot sector has its new hidden-sectors field and a new serial, and is otherwise unchanged."""
        if not case.boot_sector_at:
            return
        old, new = case.boot_sector, gpt.read_at(path, case.boot_sector_at, 512)
        if case.guard:
            self.assertEqual(new.hex(), old.hex(), note)
            return
        start = case.entry(case.partition).first.to_bytes(4, "little")
        self.assertEqual(new.hex(), (old[:28] + start + old[32:72] + new[72:80] + old[80:]).hex(), note)
        self.assertNotEqual(new[72:80], old[72:80], note)

    def check_rest(self, path, case, note):
        """With the two sectors restored, the image is unchanged."""
        gpt.write_at(path, 0, case.old_sector0)
        if case.boot_sector_at:
            gpt.write_at(path, case.boot_sector_at, case.boot_sector)
        pristine = self.write_disk("pristine.img", case)
        self.assertEqual(images.content_hash(path), images.content_hash(pristine), f"other bytes changed, {note}")

    def test_random_tables(self):
        outcomes = collections.Counter()
        print(f"{CASES} random tables, seed {SEED}", file=sys.stderr)
        for number in range(CASES):
            outcomes[self.check_case(number) or "written"] += 1
        for outcome, count in outcomes.most_common():
            print(f"{count:5} {outcome}", file=sys.stderr)
        self.assertGreater(outcomes["written"] + outcomes["written when forced"], CASES // 2)


if __name__ == "__main__":
    images.main()
