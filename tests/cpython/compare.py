"""Runs CPython test modules inside the bridge and in the standalone interpreter, and
fails when their outcomes differ in a way that expected.py does not explain:

    python3.11 -E compare.py PYTARNSH PYTHON MODULE...

Each side runs in a child process bounded by a timeout, so that a crash or a hang is
reported as such instead of taking the run down."""

import fnmatch, json, os, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from expected import RULES  # noqa: E402


def report(label, command, out_path):
    """The report that COMMAND writes to OUT_PATH; without one, prints why and the end of
    the tests' own chatter and returns None."""
    with tempfile.TemporaryFile("w+", encoding="utf-8", errors="replace") as log:
        try:
            code = subprocess.run(command + [out_path], stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT, timeout=300,
                                  cwd=tempfile.gettempdir()).returncode
        except subprocess.TimeoutExpired:
            code = "timed out after 300 s"
        try:
            with open(out_path, encoding="utf-8") as out:
                r = json.load(out)
        except (OSError, ValueError):
            log.seek(0)
            print("%s: no report (exit %s)\n%s" % (label, code, log.read()[-4000:]))
            return None
    print(label.ljust(10), "%(run)5d run %(failures)4d failures %(errors)4d errors "
          "%(skips)4d skipped %(seconds)5.0f s" % r)
    return r


def differences(pytarnsh, python, names):
    """{test id: (embedded outcome, standalone outcome)} for each of the tests NAMES whose
    outcomes differ, or None when a side gave no report."""
    arg = ",".join(names)
    with tempfile.TemporaryDirectory() as scratch:
        emb = report("embedded", [pytarnsh, os.path.join(HERE, "embedded.tcl"), arg],
                     os.path.join(scratch, "emb.json"))
        std = report("standalone", [python, "-E", os.path.join(HERE, "worker.py"), arg],
                     os.path.join(scratch, "std.json"))
    if emb is None or std is None:
        return None
    found = {"(tests run)": (emb["run"], std["run"])} if emb["run"] != std["run"] else {}
    for test in set(emb["outcomes"]) | set(std["outcomes"]):
        e, s = emb["outcomes"].get(test, "pass"), std["outcomes"].get(test, "pass")
        if e != s:
            found[test] = (e, s)
    return found


def main(pytarnsh, python, *modules):
    found = differences(pytarnsh, python, modules)
    if found is None:
        return 1
    unexplained, used = {}, set()
    for test, (e, s) in sorted(found.items()):
        rule = next((r for r in RULES if fnmatch.fnmatchcase(test, r[0]) and r[1] in (e, "*")),
                    None)
        if rule:
            used.add(rule)
            print("expected    %s: embedded %s, standalone %s -- %s" % (test, e, s, rule[2]))
        else:
            unexplained[test] = (e, s)
    for pattern, outcome, why in set(RULES) - used:
        if pattern.startswith(modules):
            print("not seen    %s (%s) -- %s" % (pattern, outcome, why))
    # As regrtest does, what went wrong runs once more, here the whole modules on both
    # sides (not every test id loads by name), to tell a difference from a test that
    # depends on timing.
    recurring = differences(pytarnsh, python, modules) if unexplained else {}
    if recurring is None:
        return 1
    for test, (e, s) in unexplained.items():
        print("%-11s %s: embedded %s, standalone %s"
              % ("UNEXPLAINED" if test in recurring else "once only", test, e, s))
    return 1 if set(unexplained) & set(recurring) else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
