"""A helper module whose capture hook misbehaves in the way `mode` names; tests set it."""

mode = "callable"


def completeExpression(text):
    return 1


def tabComplete(text):
    return []


def makeFunction(first, second):
    return None


class _RaisingFinalize:
    def finalize(self):
        raise RuntimeError("finalize failed")


def __setupExceptionCapture():
    if mode == "callable":
        return lambda: "from the callable"
    if mode == "raisingFinalize":
        return _RaisingFinalize()
    if mode == "raisingHook":
        raise RuntimeError("hook failed")
    return 42
