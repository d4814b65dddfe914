"""The CPython test groups that compare.py runs, and for each the differences between
the embedded and the standalone outcome that are expected, with the reason for each
(doc/cpython-tests.md explains the reasons at length).

A group is (modules, rules). A rule is (test id pattern, embedded outcome, reason): a
test whose outcomes differ is explained when its id matches the pattern (fnmatch) and
its embedded outcome is the rule's ("*" for any). "(tests run)" is the pattern for a
difference in the number of tests run."""

# The reasons, one per way the bridge's interpreter differs from python3.11 -E.
NO_STDLIB_DIR = ("the bridge's interpreter has no standard library directory of its own "
                 "(sys._stdlib_dir is None): frozen modules have no __file__")
NO_BYTECODE = ("the bridge's interpreter writes no bytecode (sys.dont_write_bytecode), "
               "and tests that write .pyc files skip")

GROUPS = {
    "test_json": (["test_json"], []),
    "test_re": (["test_re"], []),
    "test_unicode": (["test_unicode"], []),
    "test_string": (["test_string"], []),
    "test_decimal": (["test_decimal"], []),
    "test_fractions": (["test_fractions"], []),
    "test_itertools": (["test_itertools"], []),
    "test_collections": (["test_collections"], []),
    "test_functools": (["test_functools"], []),
    "test_datetime": (["test_datetime"], []),
    "test_csv": (["test_csv"], []),
    "test_threading": (["test_threading"], []),
    "test_queue": (["test_queue"], []),
    "test_thread": (["test_thread"], []),
    "test_weakref": (["test_weakref"], []),
    "test_gc": (["test_gc"], []),
    "test_ctypes": (["test_ctypes"], []),
    "test_asyncio": (["test_asyncio.test_tasks", "test_asyncio.test_locks",
                      "test_asyncio.test_queues", "test_asyncio.test_futures",
                      "test_asyncio.test_taskgroups", "test_asyncio.test_timeouts",
                      "test_asyncio.test_threads", "test_asyncio.test_subprocess"], []),
    "test_subprocess": (["test_subprocess"], []),
    "test_traceback": (["test_traceback"], []),
    "test_exceptions": (["test_exceptions"], []),
    "test_sys": (["test_sys"], []),
    "test_importlib": (["test_importlib"], [
        ("test.test_importlib.source.test_file_loader.*", "skip", NO_BYTECODE),
        ("test.test_importlib.test_abc.*_SourceLoaderBytecodeTests.*", "skip", NO_BYTECODE),
    ]),
}
