"""The differences between CPython's tests run inside the bridge and by the standalone
interpreter that compare.py expects, with the reason for each (doc/cpython-tests.md
explains them at length). A rule is (test id pattern (fnmatch), embedded outcome or "*"
for any, reason); "(tests run)" is the id of a difference in the number of tests run."""

NO_BYTECODE = ("the bridge's interpreter writes no bytecode (sys.dont_write_bytecode), "
               "and tests that write .pyc files skip")

RULES = [
    ("test.test_importlib.source.test_file_loader.*", "skip", NO_BYTECODE),
    ("test.test_importlib.test_abc.*_SourceLoaderBytecodeTests.*", "skip", NO_BYTECODE),
]
