#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""
The fault sweep: runs each command many times. In each run, another system call fails, or all processes are killed at that
call. Then the sweep judges the result; sweep/judging.py defines the verdicts.

Exit status: 0 nothing wrong, 1 a bad point, 2 a command fails without a fault, 77 the sweep cannot run on this machine,
130 interrupted.
"""

import argparse
import collections
import itertools
import multiprocessing
import os
import re
import shutil
import signal
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(os.path.dirname(HERE), "integration")]

from support import images, volumes  # noqa: E402: after the path
from sweep import judging, machine, points, restoring, scenarios, starting, tracing  # noqa: E402

SKIPPED = 77
INTERRUPTED = 130
MEDIA = re.compile("/case/(disks|out)/")  # disks that commands change, and files that they create
COLUMNS = (*judging.VERDICTS, "not hit", "left over")
SCENARIOS = scenarios.SCENARIOS + restoring.SCENARIOS + starting.SCENARIOS
worker = {}


def parse():
    parser = argparse.ArgumentParser(description="Runs commands with a failure or a kill at each of their system calls.")
    how_many = parser.add_mutually_exclusive_group()
    how_many.add_argument("--all", action="store_true", help="include repetitions: the read-only calls of every pass of a loop")
    how_many.add_argument("--points", type=int, metavar="K",
                          help="run about K points: up to half at calls that change the medium, the others evenly spread")
    parser.add_argument("--jobs", type=int, default=2, metavar="N", help="run N points at the same time (default: 2)")
    parser.add_argument("--list", action="store_true", help="show the calls of each scenario and stop")
    parser.add_argument("--only-call", type=int, metavar="N", help="only the points of this call")
    parser.add_argument("--vorlix", default=os.environ.get("VORLIX"), help="the command line to test ($VORLIX)")
    parser.add_argument("--tracer", default=os.environ.get("FAULT_TRACER"), help="the tracer ($FAULT_TRACER)")
    known = [scenario.name for scenario in SCENARIOS]
    parser.add_argument("scenarios", nargs="*", metavar="SCENARIO", help=", ".join(known))
    options = parser.parse_args()
    if unknown := set(options.scenarios) - set(known):
        parser.error(f"no such scenario: {', '.join(sorted(unknown))}")
    if not options.vorlix or not options.tracer:
        parser.error("--vorlix and --tracer name the programs")
    return options


def skip(reason):
    print(f"fault sweep: skipped: {reason}")
    sys.exit(SKIPPED)


def chosen_scenarios(options, folder):
    """Returns the scenarios that can run on this machine; prints the reason for each other one."""
    chosen = []
    for scenario in SCENARIOS:
        if options.scenarios and scenario.name not in options.scenarios:
            continue
        if lacking := volumes.missing(*scenario.TOOLS):
            print(f"{scenario.name}: skipped: not installed: {lacking}")
        elif scenario.as_root and not machine.IS_ROOT:
            print(f"{scenario.name}: skipped: needs root")
        else:
            chosen.append(scenario(folder))
    return chosen


def copy_programs(options, folder):
    """Copies the programs to a folder where an ordinary user can start them."""
    vorlix = volumes.copy_command(options.vorlix, folder)
    tracer = shutil.copy(options.tracer, folder)
    return vorlix, tracer


def start_worker(folder, programs, numbers):
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the parent process ends its workers
    place = os.path.join(folder, f"job{numbers.get()}")
    os.mkdir(place)
    os.chmod(place, 0o755)
    if machine.IS_ROOT:
        machine.stand_apart(place)
    worker["runner"] = points.Runner(place, *programs)


def find_baseline(scenario):
    return worker["runner"].baseline(scenario)


def run_point(task):
    scenario, expected, place, fault = task
    try:
        return worker["runner"].point(scenario, expected, place, fault)
    except Exception as error:  # pylint: disable=broad-except: one point must not end a sweep of hours
        findings = ((judging.UNJUDGED, f"{error!r}"),)
        return points.Result(scenario.name, f"call {place}", str(fault), findings)


def plan(options, chosen, baselines):
    """The points to run."""
    each = options.points / sum(scenario.share for scenario in chosen) if options.points else 0
    tasks = []
    for scenario, baseline in zip(chosen, baselines):
        calls = baseline.calls if options.all else tracing.without_repetitions(baseline.calls)
        if options.only_call:
            calls = [call for call in baseline.calls if call.number == options.only_call]
        if options.points:
            found = tracing.selection(baseline.calls, calls, round(each * scenario.share), MEDIA)
        else:
            found = tracing.points_of(baseline.calls, calls)
        tasks += [(scenario, baseline.expected, place, fault) for place, fault in found]
    return tasks


def show_calls(chosen, baselines):
    for scenario, baseline in zip(chosen, baselines):
        for call in baseline.calls:
            print(f"{scenario.name}\t{call.process}\t{call}\t{call.count}\t{call.offset}\t{call.result}")


def show_bad(result):
    print(f"{result.verdict.upper()}: {result.scenario}: {result.call}: {result.fault}")
    print(f"    ended: {result.run}")
    for verdict, text in result.findings:
        print(f"    {verdict}: {text}")
    sys.stdout.flush()


def show_progress(counts, total):
    if sys.stderr.isatty():
        print(f"\r{sum(found['points'] for found in counts.values())} of {total} ", end="", file=sys.stderr, flush=True)


def show_table(chosen, counts):
    width = max(len(scenario.name) for scenario in chosen)
    print(f"\n{'scenario':{width}}  points  " + "  ".join(COLUMNS))
    for scenario in chosen:
        found = counts[scenario.name]
        cells = "  ".join(f"{found[column]:>{len(column)}}" for column in COLUMNS)
        print(f"{scenario.name:{width}}  {found['points']:6}  {cells}")


def count(counts, result):
    found = counts[result.scenario]
    found["points"] += 1
    found[result.verdict] += 1
    found["not hit"] += not result.is_hit
    found["left over"] += bool(result.left_over)


def sweep(options, folder):
    programs = copy_programs(options, folder)
    chosen = chosen_scenarios(options, folder)
    if not chosen:
        skip("no scenario can run here")
    for scenario in chosen:
        scenario.prepare()
    context = multiprocessing.get_context("fork")
    numbers = context.SimpleQueue()
    for number in range(options.jobs):
        numbers.put(number)
    began = time.monotonic()
    with context.Pool(options.jobs, start_worker, (folder, programs, numbers)) as pool:
        signal.signal(signal.SIGTERM, signal.default_int_handler)  # an ended sweep shows its results so far
        baselines = pool.map(find_baseline, chosen, chunksize=1)
        if options.list:
            show_calls(chosen, baselines)
            return 0
        for scenario, baseline in zip(chosen, baselines):
            steady = "" if baseline.is_steady else ", not the same number in each run"
            print(f"{scenario.name}: {len(baseline.calls)} calls{steady}, as {machine.user_name(scenario.as_root)}")
        tasks = plan(options, chosen, baselines)
        print(f"{len(tasks)} points to run", flush=True)
        cuts = [points.power_cut(scenario, baseline.expected) for scenario, baseline in zip(chosen, baselines)]
        results = itertools.chain(cuts, pool.imap_unordered(run_point, tasks, chunksize=1))
        counts = collections.defaultdict(collections.Counter)
        is_whole = collect(results, counts, len(cuts) + len(tasks))
    return show_end(chosen, counts, is_whole, time.monotonic() - began)


def collect(results, counts, total):
    """Counts results and prints the bad ones. Returns False if interrupted."""
    left_over = {}
    not_hit = {}
    try:
        for result in results:
            count(counts, result)
            if not result.is_hit:
                not_hit.setdefault((result.scenario, result.fault), result)
            show_progress(counts, total)
            if result.verdict != judging.OK:
                show_bad(result)
            elif result.left_over:
                left_over.setdefault((result.scenario, len(result.left_over)), result)
    except KeyboardInterrupt:
        return False
    finally:
        for result in not_hit.values():
            print(f"not hit: {result.scenario}: {result.call}: {result.fault}: {result.run}")
        for result in left_over.values():
            print(f"left over: {result.scenario}: {result.call}: {result.fault}: {judging.listed(result.left_over)}")
    return True


def show_end(chosen, counts, is_whole, seconds):
    show_table(chosen, counts)
    total = sum(counts.values(), collections.Counter())
    words = ", ".join(f"{total[column]} {column}" for column in COLUMNS)
    print(f"\n{total['points']} points: {words} ({seconds:.0f} s)")
    if not is_whole:
        print("interrupted: the other points were not run")
        return INTERRUPTED
    return 0 if total["points"] == total[judging.OK] else 1


def main():
    options = parse()
    if os.environ.get("VORLIX_SANITIZED"):
        skip("sanitizers: the leak detector traces the process itself, and each run takes too long")
    folder = tempfile.mkdtemp(prefix="vorlix-faults-", dir=machine.scratch_folder())
    os.chmod(folder, 0o755)
    try:
        probe = tracing.trace(options.tracer, [images.tool("true")], os.path.join(folder, "report"))
        if not probe.succeeded:
            skip(f"the tracer cannot trace a program: {probe}")
        return sweep(options, folder)
    except tracing.NotAllowed as error:
        skip(str(error))
    except points.Broken as error:
        print(error)
        return 2
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
