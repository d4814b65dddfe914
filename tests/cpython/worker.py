"""Runs CPython regression test modules and writes the outcome of every test as JSON.
The same code runs in the standalone interpreter (python3.11 -E worker.py MODULES OUT)
and inside the bridge (embedded.tcl), so the two outcomes compare."""

import importlib
import json
import sys
import time
import unittest


class _TestMain(unittest.TestCase):
    """Stands for a module's test_main when it raises outside any test."""

    def __init__(self, name):
        super().__init__()
        self.name = name

    def id(self):
        return "%s.test_main" % self.name

    def runTest(self):
        pass


def run(names, out_path):
    """Runs the tests of the modules NAMES (dotted: test.test_json) as regrtest does by
    default, reports to sys.stderr, and writes the counts and outcomes to OUT_PATH."""
    from test import support
    # regrtest's defaults: quiet, and no optional resource (network, cpu, ...).
    support.verbose = 0
    support.use_resources = []
    started = time.monotonic()
    result = unittest.TextTestResult(unittest.runner._WritelnDecorator(sys.stderr), True, 0)
    # Modules with a test_main run their suites through support.run_unittest, as
    # regrtest lets them; those suites are run into the same result.
    support._run_suite = lambda suite: suite.run(result)
    result.startTestRun()
    for name in names:
        try:
            module = importlib.import_module(name)
        except ModuleNotFoundError:
            # A single test or class, as compare.py asks for to run one again.
            unittest.defaultTestLoader.loadTestsFromName(name).run(result)
            continue
        if hasattr(module, "test_main"):
            try:  # test_main raises when its suites failed, or its own checks did
                module.test_main()
            except Exception:
                result.addError(_TestMain(name), sys.exc_info())
        else:
            unittest.defaultTestLoader.loadTestsFromModule(module).run(result)
    result.stopTestRun()
    result.printErrors()
    # Each test's outcome by id (a failing setUpClass is an _ErrorHolder, a failing
    # subtest a _SubTest); passes are only counted.
    outcomes = {}
    for outcome, entries in (("failure", result.failures), ("error", result.errors),
                             ("skip", result.skipped), ("expected failure", result.expectedFailures),
                             ("unexpected success", [(t, None) for t in result.unexpectedSuccesses])):
        outcomes.update((test.id(), outcome) for test, _ in entries)
    counts = dict(run=result.testsRun, failures=len(result.failures),
                  errors=len(result.errors), skips=len(result.skipped))
    sys.stderr.write("Ran %(run)d tests: %(failures)d failures, %(errors)d errors, "
                     "%(skips)d skipped\n" % counts)
    with open(out_path, "w", encoding="utf-8") as out:
        json.dump(dict(counts, outcomes=outcomes,
                       seconds=round(time.monotonic() - started, 1)), out, indent=0, sort_keys=True)


if __name__ == "__main__":
    run(sys.argv[1].split(","), sys.argv[2])
