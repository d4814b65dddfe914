"""Runs CPython regression test modules as regrtest does by default and writes each test's
outcome as JSON, in the standalone interpreter (python3.11 -E worker.py MODULES OUT) and
inside the bridge (embedded.tcl) alike, so that the two compare. MODULES is
comma-separated and dotted: test.test_json."""

import importlib, json, sys, time, unittest


def main():
    from test import support
    names, out_path = sys.argv[1].split(","), sys.argv[2]
    support.verbose, support.use_resources = 0, []  # quiet, and no optional resource
    started = time.monotonic()
    result = unittest.TextTestResult(unittest.runner._WritelnDecorator(sys.stderr), True, 0)
    # A module's test_main runs its suites through support.run_unittest: into this result.
    support._run_suite = lambda suite: suite.run(result)
    result.startTestRun()
    for name in names:
        module = importlib.import_module(name)
        if not hasattr(module, "test_main"):
            unittest.defaultTestLoader.loadTestsFromModule(module).run(result)
            continue
        try:  # raises when its suites failed, or its own checks did
            module.test_main()
        except Exception:
            result.addError(unittest.suite._ErrorHolder(name + ".test_main"), sys.exc_info())
    result.stopTestRun()
    result.printErrors()
    # Each test's outcome by id (a failing setUpClass is an _ErrorHolder, a failing
    # subtest a _SubTest); passes are only counted.
    outcomes = {}
    unexpected = [(t, None) for t in result.unexpectedSuccesses]
    for outcome, entries in (("failure", result.failures), ("error", result.errors),
                             ("skip", result.skipped),
                             ("expected failure", result.expectedFailures),
                             ("unexpected success", unexpected)):
        outcomes.update((test.id(), outcome) for test, _ in entries)
    with open(out_path, "w", encoding="utf-8") as out:
        json.dump(dict(run=result.testsRun, failures=len(result.failures),
                       errors=len(result.errors), skips=len(result.skipped),
                       seconds=time.monotonic() - started, outcomes=outcomes), out)


if __name__ == "__main__":
    main()
