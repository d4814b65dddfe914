"""The CPython test groups that compare.py runs, and for each the differences between
the embedded and the standalone outcome that are expected, with the reason for each
(doc/cpython-tests.md explains them at length).

A group is (modules, rules). A rule is (test id pattern, embedded outcome, reason): a
test whose outcomes differ is explained when its id matches the pattern (fnmatch) and
its embedded outcome is the rule's ("*" for any). "(tests run)" is the pattern for a
difference in the number of tests run."""

NO_BYTECODE = ("the bridge's interpreter writes no bytecode (sys.dont_write_bytecode), "
               "and tests that write .pyc files skip")

GROUPS = {name: ([name], []) for name in (
    "test_json test_re test_unicode test_string test_decimal test_fractions test_itertools "
    "test_collections test_functools test_datetime test_csv test_threading test_queue "
    "test_thread test_weakref test_gc test_ctypes test_subprocess test_traceback "
    "test_exceptions test_sys").split()}
GROUPS["test_asyncio"] = (["test_asyncio." + m for m in (
    "test_tasks test_locks test_queues test_futures test_taskgroups test_timeouts "
    "test_threads test_subprocess").split()], [])
GROUPS["test_importlib"] = (["test_importlib"], [
    ("test.test_importlib.source.test_file_loader.*", "skip", NO_BYTECODE),
    ("test.test_importlib.test_abc.*_SourceLoaderBytecodeTests.*", "skip", NO_BYTECODE),
])
