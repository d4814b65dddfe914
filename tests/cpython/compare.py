"""Runs CPython test modules both inside the bridge and in the standalone interpreter,
and fails when their outcomes differ in a way that expected.py does not explain.

    python3.11 -E compare.py PYTARNSH PYTHON NAME

NAME is a key of expected.GROUPS. Each side runs in a child process of its own, bounded
by a timeout, so a crash or a hang is reported as such instead of taking the run down."""

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
    """(report or None, seconds) of COMMAND, which writes its report to OUT_PATH; without
    a report, prints why and the end of the tests' own chatter."""
    started = time.monotonic()
    with tempfile.TemporaryFile("w+", encoding="utf-8", errors="replace") as log:
        try:
            code = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT, timeout=TIMEOUT,
                                  cwd=tempfile.gettempdir()).returncode
        except subprocess.TimeoutExpired:
            code = "timed out after %d s" % TIMEOUT
        try:
            with open(out_path, encoding="utf-8") as report:
                return json.load(report), time.monotonic() - started
        except (OSError, ValueError):
            log.seek(0)
            print("%s: no report (exit %s)\n%s" % (label, code, log.read()[-4000:]))
            return None, 0


def run_both(pytarnsh, python, names):
    """((embedded report, seconds), (standalone report, seconds)) for the tests NAMES."""
    arg = ",".join(names)
    with tempfile.TemporaryDirectory() as scratch:
        emb, std = (os.path.join(scratch, side + ".json") for side in ("emb", "std"))
        return (run_side("embedded", [pytarnsh, os.path.join(HERE, "embedded.tcl"), arg, emb],
                         emb),
                run_side("standalone", [python, "-E", os.path.join(HERE, "worker.py"), arg, std],
                         std))


def differences(emb, std):
    """(test id, embedded outcome, standalone outcome) for each test that differs."""
    found = [("(tests run)", str(emb["run"]), str(std["run"]))] if emb["run"] != std["run"] else []
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
    (emb, emb_s), (std, std_s) = run_both(pytarnsh, python, ["test." + m for m in modules])
    if emb is None or std is None:
        return 1
    print("%-18s %-26s %s\n%-18s %s" % ("", "embedded", "standalone", "",
                                         "  run fail  err skip  time   " * 2))
    print("%-18s %s" % (name, "   ".join(
        "%5d %4d %4d %4d %5.0fs" % (r["run"], r["failures"], r["errors"], r["skips"], s)
        for r, s in ((emb, emb_s), (std, std_s)))))
    unexplained = []
    used = set()
    for test, e, s in differences(emb, std):
        index = next((i for i, (pattern, outcome, _) in enumerate(rules)
                      if fnmatch.fnmatchcase(test, pattern) and outcome in (e, "*")), None)
        if index is None:
            unexplained.append((test, e, s))
        else:
            used.add(index)
            print("expected    %s: embedded %s, standalone %s -- %s" % (test, e, s, rules[index][2]))
    for index, (pattern, outcome, why) in enumerate(rules):
        if index not in used:
            print("not seen    %s (%s) -- %s" % (pattern, outcome, why))
    # As regrtest does, tests that went wrong run once more, here on both sides, to tell
    # a difference from a test that depends on timing.
    again = sorted({loadable(test) for test, _, _ in unexplained if test != "(tests run)"})
    recurring = set()
    if again:
        (emb2, _), (std2, _) = run_both(pytarnsh, python, again)
        if emb2 is None or std2 is None:
            return 1
        recurring = {test for test, _, _ in differences(emb2, std2)}
    failed = 0
    for test, e, s in unexplained:
        recurs = test == "(tests run)" or test in recurring
        failed += recurs
        print("%-11s %s: embedded %s, standalone %s" % ("UNEXPLAINED" if recurs else "once only",
                                                          test, e, s))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
