"""A helper module without the capture hook: failures read "TypeName: value text"."""


def completeExpression(text):
    return 1


def tabComplete(text):
    return []


def makeFunction(first, second):
    return None
