"""The smallest helper module the bridge accepts; variant roots import it as _minimal_shell
and change only what their tests are about."""


def completeExpression(text):
    return 1


def tabComplete(text):
    return []


def makeFunction(first, second):
    return None
