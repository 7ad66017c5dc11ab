# SPDX-License-Identifier: Apache-2.0
"""Shared code of the tests of the tracer and the sweep: module paths, programs, and the reasons for a skip."""

import os
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(os.path.dirname(HERE), "integration")]

from sweep import tracing  # noqa: E402: after the path

TRACER = os.environ.get("FAULT_TRACER")
SUBJECT = os.environ.get("FAULT_SUBJECT")
SKIPPED = 77


def why_not():
    """The reason why nothing can be traced on this machine; empty if tracing works."""
    if os.environ.get("VORLIX_SANITIZED"):
        return "sanitizers: their leak detector traces the process itself"
    with tempfile.TemporaryDirectory(prefix="vorlix-faults-") as folder:
        try:
            run = tracing.trace(TRACER, ["true"], os.path.join(folder, "report"))
        except tracing.NotAllowed as error:
            return str(error)
    return "" if run.succeeded else f"the tracer cannot trace a program: {run}"


def skip_if_impossible():
    if reason := why_not():
        print(f"skipped: {reason}")
        sys.exit(SKIPPED)
