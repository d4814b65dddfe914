"""A helper module that prints while it is imported, before any script runs."""

from _minimal_shell import completeExpression, tabComplete, makeFunction  # noqa: F401

print("helper module imported")
