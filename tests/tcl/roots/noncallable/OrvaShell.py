"""A helper module whose editing aids and makeFunction exist but cannot be called."""

completeExpression = None
tabComplete = 42
makeFunction = "not callable"
