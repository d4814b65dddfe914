"""Runs CPython test modules both inside the bridge and in the standalone interpreter,
and fails when their outcomes differ in a way that expected.py does not explain.

    python3.11 -E compare.py PYTARNSH PYTHON NAME

NAME is a key of expected.GROUPS (a module, or a subset of a large one). Each side runs
in a child process of its own, bounded by a timeout, so a crash or a hang is reported
as such instead of taking the run down."""

import fnmatch
import json
import os
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import expected  # noqa: E402

TIMEOUT = 300


def run_side(label, command, out_path):
    """Runs COMMAND, which writes its report to OUT_PATH; returns (report or None,
    why not, seconds). The tests' own chatter goes to a log kept for the failure case."""
    started = time.monotonic()
    with tempfile.TemporaryFile("w+", encoding="utf-8", errors="replace") as log:
        try:
            code = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT, timeout=TIMEOUT,
                                  cwd=tempfile.gettempdir()).returncode
        except subprocess.TimeoutExpired:
            code = "timed out after %d s" % TIMEOUT
        seconds = time.monotonic() - started
        try:
            with open(out_path, encoding="utf-8") as report:
                return json.load(report), None, seconds
        except (OSError, ValueError):
            log.seek(0)
            tail = log.read()[-4000:]
            return None, "%s: no report (exit %s)\n%s" % (label, code, tail), seconds


def counts(report):
    return "%5d %4d %4d %4d" % tuple(report[k] for k in ("run", "failures", "errors", "skips"))


def main(pytarnsh, python, name):
    modules, rules = expected.GROUPS[name]
    arg = ",".join(modules)
    with tempfile.TemporaryDirectory() as scratch:
        emb_out = os.path.join(scratch, "embedded.json")
        std_out = os.path.join(scratch, "standalone.json")
        emb, emb_why, emb_s = run_side(
            "embedded", [pytarnsh, os.path.join(HERE, "embedded.tcl"), arg, emb_out, python],
            emb_out)
        std, std_why, std_s = run_side(
            "standalone", [python, "-E", os.path.join(HERE, "worker.py"), arg, std_out],
            std_out)
    for why in (emb_why, std_why):
        if why:
            print(why)
    if emb is None or std is None:
        return 1
    print("%-18s %-23s %-23s" % ("", "embedded", "standalone"))
    print("%-18s %-23s %-23s" % ("", "  run fail  err skip", "  run fail  err skip"))
    print("%-18s %s %5.0fs   %s %5.0fs" % (name, counts(emb), emb_s, counts(std), std_s))

    differences = []
    if emb["run"] != std["run"]:
        differences.append(("(tests run)", str(emb["run"]), str(std["run"])))
    for test in sorted(set(emb["outcomes"]) | set(std["outcomes"])):
        e, s = emb["outcomes"].get(test, "pass"), std["outcomes"].get(test, "pass")
        if e != s:
            differences.append((test, e, s))
    unexplained = 0
    used = set()
    for test, e, s in differences:
        reason = None
        for index, (pattern, outcome, why) in enumerate(rules):
            if fnmatch.fnmatchcase(test, pattern) and outcome in (e, "*"):
                reason = why
                used.add(index)
                break
        if reason is None:
            unexplained += 1
            print("UNEXPLAINED %s: embedded %s, standalone %s" % (test, e, s))
        else:
            print("expected    %s: embedded %s, standalone %s -- %s" % (test, e, s, reason))
    for index, (pattern, outcome, why) in enumerate(rules):
        if index not in used:
            print("not seen    %s (%s) -- %s" % (pattern, outcome, why))
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
