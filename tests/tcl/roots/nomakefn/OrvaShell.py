"""A helper module that lacks makeFunction, so the bridge must refuse to start."""

from _minimal_shell import completeExpression, tabComplete  # noqa: F401
