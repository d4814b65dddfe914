"""A helper module that prints while it is imported, before any script runs."""


def completeExpression(text):
    return 1


def tabComplete(text):
    return []


def makeFunction(first, second):
    return None


print("helper module imported")
