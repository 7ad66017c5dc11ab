# SPDX-License-Identifier: Apache-2.0
"""Runs points: for each, the run with the fault, a look at the result, and the run after it."""

import dataclasses
import os

from sweep import durability, judging, machine, tracing


class Broken(Exception):
    """A command fails without a fault, so there is no result to compare with."""


@dataclasses.dataclass(frozen=True)
class Baseline:
    """A scenario's run without a fault."""

    expected: judging.Expected
    calls: tuple
    is_steady: bool  # a second run made the same number of calls


@dataclasses.dataclass(frozen=True)
class Result:
    scenario: str
    call: str  # the call with the fault, and its file
    fault: str
    findings: tuple  # (verdict, text), the most serious first
    run: str = ""
    is_hit: bool = True
    left_over: tuple = ()

    @property
    def verdict(self):
        return self.findings[0][0] if self.findings else judging.OK


def aftermath(scenario, case, run):
    claims, undurable = [], []
    if run.succeeded:
        claims = scenario.wrong_claims(case, run)
        missing = durability.missing(run.calls, *scenario.durable(case)) if run.calls else []
        undurable = [case.short(text) for text in missing]
    return judging.Aftermath(scenario.look(case), claims, undurable, case.has_journal(), scenario.lost(case))


class Runner:
    """Runs the points of scenarios in a private folder."""

    def __init__(self, folder, vorlix, tracer):
        self.folder = folder
        self.vorlix = vorlix
        self.tracer = tracer

    def fresh(self, scenario):
        case = machine.Case(os.path.join(self.folder, "case"), scenario.as_root)
        scenario.set_up(case, self.vorlix)
        return case

    def traced(self, scenario, case, at="", fault=None):
        return tracing.trace(self.tracer, scenario.command(case, self.vorlix), case.path("home", "report"),
                             at, fault, scenario.seconds, **case.options())

    def baseline(self, scenario):
        case = self.fresh(scenario)
        before = scenario.look(case)
        run = self.traced(scenario, case)
        after = aftermath(scenario, case, run)
        if not run.succeeded or after.wrong_claims:
            raise Broken(f"{scenario.name} fails without a fault: {run} {' '.join(after.wrong_claims)}")
        second = self.traced(scenario, self.fresh(scenario))
        expected = judging.Expected(before, after.look, tuple(after.undurable))
        return Baseline(expected, run.calls, len(second.calls) == len(run.calls))

    def point(self, scenario, expected, place, fault):
        case = self.fresh(scenario)
        run = self.traced(scenario, case, place, fault)
        if scenario.counts_as_done(run):
            run = dataclasses.replace(run, status=judging.SUCCESS)
        after = aftermath(scenario, case, run)
        lies = [] if run.succeeded else [(judging.WRONG_WORD, text) for text in scenario.false_words(case, run)]
        is_apart = scenario.is_other_way_apart(case)
        if not is_apart:
            lies += [(judging.BLOCKED, text) for text in scenario.other_way(case, self.vorlix)]
        again = tracing.run(scenario.command(case, self.vorlix), scenario.seconds, **case.options())
        after_again = aftermath(scenario, case, again)
        findings = judging.judge(expected, run, after, again, after_again, scenario.says_done(again))
        if again.succeeded:
            findings += [(judging.SILENT, text) for text in scenario.finish(case, self.vorlix)]
        findings += lies
        left_over = tuple(map(case.short, case.left_over())) if not findings else ()
        if is_apart:
            case = self.fresh(scenario)
            self.traced(scenario, case, place, fault)
            findings += [(judging.BLOCKED, text) for text in scenario.other_way(case, self.vorlix)]
        findings = judging.in_order(findings)
        call = str(run.chosen) if run.chosen else f"call {place}, which was not made"
        findings = tuple((verdict, case.short(text)) for verdict, text in findings)
        return Result(scenario.name, case.short(call), str(fault), findings, case.short(str(run)), run.is_hit, left_over)


def power_cut(scenario, expected):
    """The point without a separate run: a power failure right after a successful run without a fault."""
    findings = tuple((judging.SILENT, text) for text in expected.undurable)
    return Result(scenario.name, "after the command's success", "power cut", findings, "exit status 0")
