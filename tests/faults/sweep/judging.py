# SPDX-License-Identifier: Apache-2.0
"""
The verdict on one point: what a command did when one of its calls failed, and what the same command does afterwards.

A scenario looks at *structures*: sector 0, a boot sector, a file of a volume, the rest of the disk. Each has an exact value
and a value without random serial numbers. A structure is *as before* if its exact value is that of the medium before the
command, and *as after* if its value without serial numbers is that of a run without a fault.
"""

import dataclasses

OK = "ok"
SILENT = "silent"  # the command reported success, but the result is missing or would be lost in a power failure
TORN = "torn"  # a structure is neither as before nor as after, and no journal repairs it
BLOCKED = "blocked"  # the same command does not succeed afterwards
HANG = "hang"
CRASH = "crash"
WRONG_WORD = "wrong word"  # the message says "nothing was written" or the like, but something was
UNJUDGED = "unjudged"  # the sweep itself failed at this point
VERDICTS = (OK, SILENT, TORN, BLOCKED, HANG, CRASH, WRONG_WORD, UNJUDGED)

SUCCESS = 0
REFUSALS = {2, 255}  # an error of the command line; the library ended the process because boot code was missing
DENIALS = ("nothing was written", "nothing was copied", "nothing was saved", "nothing was changed", "nothing is changed")


@dataclasses.dataclass(frozen=True)
class Seen:
    """A structure: its exact value, and its value without random serial numbers."""

    exact: object
    lasting: object = None

    def comparable(self):
        return self.exact if self.lasting is None else self.lasting


ABSENT = Seen(None)


@dataclasses.dataclass(frozen=True)
class Expected:
    """The result of a run without a fault."""

    before: dict  # structure: Seen; absent structures are missing
    after: dict
    undurable: tuple = ()  # what a power failure after such a run would lose


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
    """The findings after one run."""

    look: dict
    wrong_claims: list  # false claims of a success about other things than the structures: texts
    undurable: list = ()
    has_journal: bool = False
    lost: list = ()  # what is permanently lost: texts


def judge_end(run):
    """A command must end with success or a refusal, unless the fault kills it."""
    if run.end == "hang":
        return [(HANG, "the command did not end")]
    if run.end == "signalled":
        return [(CRASH, f"ended by signal {run.status}")]
    if run.end == "exited" and run.status != SUCCESS and run.status not in REFUSALS:
        return [(CRASH, f"exit status {run.status}")]
    return []


def judge_success(expected, after):
    """After a success, all structures must be as after a run without a fault, and on the medium."""
    findings = []
    if different := not_as_after(expected, after.look):
        findings.append((SILENT, f"success, but with another result: {listed(different)}"))
    findings += [(SILENT, f"success, but {claim}") for claim in after.wrong_claims]
    findings += [(SILENT, f"success, but {text}") for text in after.undurable if text not in expected.undurable]
    return findings


def judge_word(expected, run, after):
    """A command that says that nothing was written must have written nothing."""
    changed = not_as_before(expected, after.look)
    said = [denial for denial in DENIALS if denial in run.err + run.out]
    return [(WRONG_WORD, f'"{said[0]}", but changed: {listed(changed)}')] if said and changed else []


def judge_failure(expected, after, again, after_again):
    """Each structure must be completely old or new, or the next run must have made it so from a journal."""
    broken = torn(expected, after.look)
    if not broken:
        return []
    settled = again.succeeded and not not_as_after(expected, after_again.look)
    if after.has_journal and settled:
        return []
    how = "there is a journal, but the next run does not repair the structures" if after.has_journal else "no journal"
    return [(TORN, f"neither as before nor as after: {listed(broken)} ({how})")]


def judge_again(expected, again, after_again, is_honest):
    """The same command without a fault must succeed, or truthfully say that its work is already done."""
    findings = judge_end(again)
    if again.succeeded:
        findings += judge_success(expected, after_again)
    elif not findings and not (is_honest and not not_as_after(expected, after_again.look)):
        findings.append((BLOCKED, f"the next run: {again}"))
    return [(verdict, f"the next run: {text}" if verdict != BLOCKED else text) for verdict, text in findings]


def judge(expected, run, after, again, after_again, is_honest):
    """Returns all findings on a point as (verdict, text), the most serious first.

    run, after: with the fault. again, after_again: the same command once more, without a fault. is_honest: `again` refused
    with a message that the work is already done.
    """
    findings = judge_end(run)
    findings += [(TORN, text) for text in {*after.lost, *after_again.lost}]
    if run.succeeded:
        findings += judge_success(expected, after)
    else:
        findings += judge_failure(expected, after, again, after_again)
        findings += judge_word(expected, run, after)
    findings += judge_again(expected, again, after_again, is_honest)
    return in_order(findings)


def in_order(findings):
    """The most serious first."""
    order = (CRASH, HANG, SILENT, TORN, WRONG_WORD, BLOCKED)
    return sorted(findings, key=lambda finding: order.index(finding[0]))
