"""A helper module whose capture hook misbehaves in the way `mode` names; tests set it."""

from _minimal_shell import completeExpression, tabComplete, makeFunction  # noqa: F401

mode = "callable"


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
    if mode == "vanishingFinalize":  # there when asked for, gone when taken
        looks = iter([lambda: "never"])
        return type("Vanishing", (), {"finalize": property(lambda self: next(looks))})()
    return 42
