"""A helper module that exits the host while it is imported, before load returns."""

tcl.eval('exit 6')


def completeExpression(text):
    return 1


def tabComplete(text):
    return []


def makeFunction(first, second):
    return None
