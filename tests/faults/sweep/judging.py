# SPDX-License-Identifier: Apache-2.0
"""
The verdict on one point: what a command did when one of its calls failed, and what the same command does afterwards.

What a scenario looks at are *structures*: sector 0, a boot sector, a file of a volume, everything else of the disk. Each
has an exact value and one without the random serial numbers. A structure is *as before* when its exact value is that of the
medium before the command, *as after* when the other value is that of a run without a fault.
"""

import dataclasses

OK = "ok"
SILENT = "silent"  # success was said, and the result is not there, or would not outlive a power cut
TORN = "torn"  # a structure is neither as before nor as after, and no journal leads out of it
BLOCKED = "blocked"  # the same command does not succeed afterwards
HANG = "hang"
CRASH = "crash"
WRONG_WORD = "wrong word"  # "nothing was written" is said, and something was
UNJUDGED = "unjudged"  # the sweep itself failed at this point
VERDICTS = (OK, SILENT, TORN, BLOCKED, HANG, CRASH, WRONG_WORD, UNJUDGED)

SUCCESS = 0
REFUSALS = {2, 255}  # the command line's error; the library's end of its host for lack of boot code
DENIALS = ("nothing was written", "nothing was copied", "nothing was saved", "nothing was changed")


@dataclasses.dataclass(frozen=True)
class Seen:
    """A structure: its value, and its value without what is random in it."""

    exact: object
    lasting: object = None

    def comparable(self):
        return self.exact if self.lasting is None else self.lasting


ABSENT = Seen(None)


@dataclasses.dataclass(frozen=True)
class Expected:
    """What a run without a fault leaves."""

    before: dict  # structure: Seen, without those that are not there
    after: dict
    undurable: tuple = ()  # what such a run leaves to a power cut


def is_as_before(expected, name, seen):
    return seen.exact == expected.before.get(name, ABSENT).exact


def is_as_after(expected, name, seen):
    return seen.comparable() == expected.after.get(name, ABSENT).comparable()


def structures(*looks):
    return sorted(set().union(*looks))


def not_as_after(expected, look):
    """Structures that differ from the result of a run without a fault."""
    return [name for name in structures(look, expected.after) if not is_as_after(expected, name, look.get(name, ABSENT))]


def not_as_before(expected, look):
    return [name for name in structures(look, expected.before) if not is_as_before(expected, name, look.get(name, ABSENT))]


def torn(expected, look):
    """Structures that are neither as before nor as after."""
    return [name for name in not_as_after(expected, look) if not is_as_before(expected, name, look.get(name, ABSENT))]


def listed(names):
    return ", ".join(names[:4]) + (f" and {len(names) - 4} more" if len(names) > 4 else "")


@dataclasses.dataclass(frozen=True)
class Aftermath:
    """What was found after one run."""

    look: dict
    wrong_claims: list  # what a success says beyond the structures, and is not so: texts
    undurable: list = ()
    has_journal: bool = False
    lost: list = ()  # what is gone for good: texts


def judge_end(run):
    """A command ends by itself, with success or a refusal, unless the fault ends it."""
    if run.end == "hang":
        return [(HANG, "it did not end")]
    if run.end == "signalled":
        return [(CRASH, f"ended by signal {run.status}")]
    if run.end == "exited" and run.status != SUCCESS and run.status not in REFUSALS:
        return [(CRASH, f"exit status {run.status}")]
    return []


def judge_success(expected, after):
    """Success means that everything is there, as a run without a fault leaves it, and on the medium."""
    findings = []
    if different := not_as_after(expected, after.look):
        findings.append((SILENT, f"success, but not the result: {listed(different)}"))
    findings += [(SILENT, f"success, but {claim}") for claim in after.wrong_claims]
    findings += [(SILENT, f"success, but {text}") for text in after.undurable if text not in expected.undurable]
    return findings


def judge_word(expected, run, after):
    """Who says that nothing was written has written nothing."""
    changed = not_as_before(expected, after.look)
    said = [denial for denial in DENIALS if denial in run.err + run.out]
    return [(WRONG_WORD, f'"{said[0]}", but changed: {listed(changed)}')] if said and changed else []


def judge_failure(expected, after, again, after_again):
    """Each structure is whole, the old one or the new one; or a journal is there, with which the next run made it so."""
    broken = torn(expected, after.look)
    if not broken:
        return []
    settled = again.succeeded and not not_as_after(expected, after_again.look)
    if after.has_journal and settled:
        return []
    how = "a journal is there, but the next run does not mend it" if after.has_journal else "no journal"
    return [(TORN, f"neither as before nor as after: {listed(broken)} ({how})")]


def judge_again(expected, again, after_again, is_honest):
    """The same command without a fault succeeds, or says truly that its work is done already."""
    findings = judge_end(again)
    if again.succeeded:
        findings += judge_success(expected, after_again)
    elif not findings and not (is_honest and not not_as_after(expected, after_again.look)):
        findings.append((BLOCKED, f"the next run: {again}"))
    return [(verdict, f"the next run: {text}" if verdict != BLOCKED else text) for verdict, text in findings]


def judge(expected, run, after, again, after_again, is_honest):
    """All findings on a point, the gravest first: (verdict, text).

    run, after: with the fault. again, after_again: the same command once more, without one. is_honest: `again` is a refusal
    that says that the work is done already.
    """
    findings = judge_end(run)
    findings += [(TORN, text) for text in {*after.lost, *after_again.lost}]
    if run.succeeded:
        findings += judge_success(expected, after)
    else:
        findings += judge_failure(expected, after, again, after_again)
        findings += judge_word(expected, run, after)
    findings += judge_again(expected, again, after_again, is_honest)
    order = (CRASH, HANG, SILENT, TORN, WRONG_WORD, BLOCKED)
    return sorted(findings, key=lambda finding: order.index(finding[0]))
