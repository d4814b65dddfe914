"""A helper module without the capture hook: failures read "TypeName: value text"."""

from _minimal_shell import completeExpression, tabComplete, makeFunction  # noqa: F401
