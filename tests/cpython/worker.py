"""Runs one module of CPython's regression tests and writes the outcome of every test
as JSON. The same code runs in the standalone interpreter (python3.11 -E worker.py
MODULE OUT) and inside the bridge (embedded.tcl), so the two outcomes compare."""

import importlib
import json
import sys
import time
import unittest


class _TestMain:
    """Stands for a module's test_main when it raises outside any test."""

    failureException = AssertionError

    def __init__(self, name):
        self.name = name

    def id(self):
        return "%s.test_main" % self.name

    def __str__(self):
        return self.id()

    def shortDescription(self):
        return None


class _Result(unittest.TextTestResult):
    """Keeps each test's outcome by id; passes are only counted."""

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.outcomes = {}

    def _note(self, test, outcome):
        # A failure in setUpClass and the like reaches us as an _ErrorHolder.
        self.outcomes[test.id()] = outcome

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._note(test, "failure")

    def addError(self, test, err):
        super().addError(test, err)
        self._note(test, "error")

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            failed = issubclass(err[0], test.failureException)
            self._note(subtest, "failure" if failed else "error")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self._note(test, "skip")

    def addExpectedFailure(self, test, err):
        super().addExpectedFailure(test, err)
        self._note(test, "expected failure")

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self._note(test, "unexpected success")


def run(names, out_path):
    """Runs the tests of the modules NAMES (dotted: test.test_json) as regrtest does by
    default, reports to sys.stderr, and writes the counts and outcomes to OUT_PATH."""
    from test import support
    # regrtest's defaults: quiet, and no optional resource (network, cpu, ...).
    support.verbose = 0
    support.use_resources = []
    started = time.monotonic()
    result = _Result(unittest.runner._WritelnDecorator(sys.stderr), True, 0)
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
            # test_main raises when its suites failed, or when its own checks did.
            try:
                module.test_main()
            except Exception:
                result.addError(_TestMain(name), sys.exc_info())
        else:
            unittest.defaultTestLoader.loadTestsFromModule(module).run(result)
    result.stopTestRun()
    result.printErrors()
    sys.stderr.write("Ran %d tests: %d failures, %d errors, %d skipped\n" % (
        result.testsRun, len(result.failures), len(result.errors), len(result.skipped)))
    report = {
        "run": result.testsRun,
        "failures": len(result.failures),
        "errors": len(result.errors),
        "skips": len(result.skipped),
        "outcomes": result.outcomes,
        "seconds": round(time.monotonic() - started, 1),
    }
    with open(out_path, "w", encoding="utf-8") as out:
        json.dump(report, out, indent=0, sort_keys=True)


if __name__ == "__main__":
    run(sys.argv[1].split(","), sys.argv[2])
