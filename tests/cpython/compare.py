"""Runs CPython test modules both inside the bridge and in the standalone interpreter,
and fails when their outcomes differ in a way that expected.py does not explain.

    python3.11 -E compare.py PYTARNSH PYTHON NAME

NAME is a key of expected.GROUPS (a module, or a subset of a large one). Each side runs
in a child process of its own, bounded by a timeout, so a crash or a hang is reported
as such instead of taking the run down."""

import fnmatch
import json
import os
import re
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


def run_both(pytarnsh, python, names):
    """Runs NAMES on both sides; returns (embedded, standalone, seconds of each), with
    None for a side that wrote no report, after printing why."""
    arg = ",".join(names)
    with tempfile.TemporaryDirectory() as scratch:
        emb_out = os.path.join(scratch, "embedded.json")
        std_out = os.path.join(scratch, "standalone.json")
        emb, emb_why, emb_s = run_side(
            "embedded", [pytarnsh, os.path.join(HERE, "embedded.tcl"), arg, emb_out],
            emb_out)
        std, std_why, std_s = run_side(
            "standalone", [python, "-E", os.path.join(HERE, "worker.py"), arg, std_out],
            std_out)
    for why in (emb_why, std_why):
        if why:
            print(why)
    return emb, std, emb_s, std_s


def differences(emb, std):
    """(test id, embedded outcome, standalone outcome) for each test that differs."""
    found = []
    if emb["run"] != std["run"]:
        found.append(("(tests run)", str(emb["run"]), str(std["run"])))
    for test in sorted(set(emb["outcomes"]) | set(std["outcomes"])):
        e, s = emb["outcomes"].get(test, "pass"), std["outcomes"].get(test, "pass")
        if e != s:
            found.append((test, e, s))
    return found


def loadable(test_id):
    """The name that unittest loads TEST_ID's test (or its class) by."""
    match = re.match(r"(?:setUpClass|tearDownClass|setUpModule|tearDownModule) \((.*)\)$",
                     test_id)
    return match.group(1) if match else test_id.split(" ")[0]


def main(pytarnsh, python, name):
    modules, rules = expected.GROUPS[name]
    emb, std, emb_s, std_s = run_both(pytarnsh, python, ["test." + m for m in modules])
    if emb is None or std is None:
        return 1
    print("%-18s %-23s %-23s" % ("", "embedded", "standalone"))
    print("%-18s %-23s %-23s" % ("", "  run fail  err skip", "  run fail  err skip"))
    print("%-18s %s %5.0fs   %s %5.0fs" % (name, counts(emb), emb_s, counts(std), std_s))

    unexplained = []
    used = set()
    for test, e, s in differences(emb, std):
        reason = None
        for index, (pattern, outcome, why) in enumerate(rules):
            if fnmatch.fnmatchcase(test, pattern) and outcome in (e, "*"):
                reason = why
                used.add(index)
                break
        if reason is None:
            unexplained.append((test, e, s))
        else:
            print("expected    %s: embedded %s, standalone %s -- %s" % (test, e, s, reason))
    for index, (pattern, outcome, why) in enumerate(rules):
        if index not in used:
            print("not seen    %s (%s) -- %s" % (pattern, outcome, why))
    if not unexplained:
        return 0
    # As regrtest does, tests that went wrong run once more, here on both sides, to
    # tell a difference from a test that depends on timing.
    again = sorted({loadable(test) for test, _, _ in unexplained if test != "(tests run)"})
    recurring = set()
    if again:
        emb2, std2, _, _ = run_both(pytarnsh, python, again)
        if emb2 is None or std2 is None:
            return 1
        recurring = {test for test, _, _ in differences(emb2, std2)}
    failed = 0
    for test, e, s in unexplained:
        if test == "(tests run)" or test in recurring:
            failed += 1
            print("UNEXPLAINED %s: embedded %s, standalone %s" % (test, e, s))
        else:
            print("once only   %s: embedded %s, standalone %s" % (test, e, s))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
