"""Editing aids and error capture that the pytarn library calls on behalf of its host."""

import builtins
import codeop
import io
import keyword
import re
import sys
import traceback

# The word to complete is the trailing run of identifier characters and dots,
# so "print(os.pa" completes "os.pa" and "x = " completes the empty word.
_LAST_WORD = re.compile(r"[\w.]*\Z")


def completeExpression(text):
    """1 when an interactive console would run `text` as it is, 0 when it needs more lines.

    Invalid text raises what the compiler raises (SyntaxError, OverflowError, ValueError)."""
    return 0 if codeop.compile_command(text, "<input>", "single") is None else 1


def tabComplete(text):
    """Sorted completions of the last word of `text`, each given as the whole word.

    A plain word completes over the names of __main__, the builtins and the keywords; a
    dotted word completes over the attributes of the object its prefix names, found by
    name and attribute lookup alone: nothing is called or evaluated. Names starting with
    "_" are offered only when the typed part starts with "_". Returns [] when nothing
    matches or the prefix cannot be looked up."""
    word = _LAST_WORD.search(text).group()
    prefix, dot, stem = word.rpartition(".")
    try:
        if dot:
            names = dir(_lookup(prefix))
        else:
            names = [*vars(sys.modules["__main__"]), *vars(builtins), *keyword.kwlist]
    except Exception:
        return []
    private = stem.startswith("_")
    return sorted({prefix + dot + name for name in names
                   if name.startswith(stem) and (private or not name.startswith("_"))})


def _lookup(dotted):
    head, *attributes = dotted.split(".")
    namespace = vars(sys.modules["__main__"])
    obj = namespace[head] if head in namespace else getattr(builtins, head)
    for attribute in attributes:
        obj = getattr(obj, attribute)
    return obj


# Commands made by makeFunction, by number: (command name, expression text). The
# number is all that the generated Tcl procedure carries, so no name or expression
# ever needs quoting for Tcl.
_functions = []
_function_numbers = {}
# The words of calls in progress, by a call number that Tcl counts: ::python::set
# hands them over with their Tcl form intact, and _invoke takes them out.
_pending = {}

_PROC_BODY = """set call [incr ::pytarn::__functionCalls]
::python::set "__import__('OrvaShell')._pending\\[$call\\]" $args
::python::eval "__import__('OrvaShell')._invoke(%d, $call)"
"""


def makeFunction(first, second):
    """Creates, or replaces, the Tcl command `first` (a namespaced name is allowed).

    The command calls the Python callable that the expression `second` evaluates to in
    __main__ at call time (the global of __main__ named `first` when `second` is empty)
    with the command's words, converted to Python, and returns the callable's result."""
    if not isinstance(first, str) or not first:
        raise ValueError("makeFunction needs a command name")
    # Compiled now, so that a syntax error shows when the command is made, not at
    # each call; blanks around it (a braced multi-line Tcl word) do not count.
    expression = second.strip()
    code = compile(expression, "<function %s>" % first, "eval") if expression else None
    number = _function_numbers.setdefault(first, len(_functions))
    if number == len(_functions):
        _functions.append(None)
    _functions[number] = (first, code)
    # A host other than pytarnsh may have no ::pytarn namespace yet.
    tcl.eval("namespace eval ::pytarn {}")
    tcl.set("::pytarn::__functionName", first)
    tcl.eval("namespace eval ::[namespace qualifiers $::pytarn::__functionName] {}\n"
             "proc $::pytarn::__functionName args {%s}" % (_PROC_BODY % number))


def _invoke(number, call):
    words = _pending.pop(call)
    if not isinstance(words, list):
        words = [words] if words != "" else []
    name, code = _functions[number]
    main = vars(sys.modules["__main__"])
    function = eval(code, main) if code else main[name]
    return function(*words)


def consoleStart():
    """Makes exit and quit built-in names, as Python's site module would in a plain
    interpreter, and returns the banner of pytarnsh's Python console. The bridge
    normally made them at start-up; they are the bridge's own, so they behave alike."""
    from _pytarn_env import _Quitter
    for name in ("exit", "quit"):
        if not hasattr(builtins, name):
            setattr(builtins, name, _Quitter(name, "Ctrl-D (i.e. EOF)"))
    return ("Python %s on %s\nexit() or end of file (Ctrl-D) returns to Tcl."
            % (sys.version, sys.platform))


def runConsole(source):
    """Runs one complete block of console input in __main__ as Python's prompt does.

    Expression values are shown through sys.displayhook, exceptions as a traceback on
    sys.stderr that leaves out this function's frame. Returns 1 when the block raised
    SystemExit (the console ends, the host goes on), otherwise 0."""
    try:
        code = compile(source, "<console>", "single")
    except (SyntaxError, OverflowError, ValueError) as error:
        traceback.print_exception(type(error), error, None)
        return 0
    try:
        exec(code, vars(sys.modules["__main__"]))
    except SystemExit:
        return 1
    except BaseException as error:
        sys.last_type, sys.last_value = type(error), error
        sys.last_traceback = error.__traceback__
        traceback.print_exception(type(error), error, error.__traceback__.tb_next)
    return 0


class _ErrorCapture(io.StringIO):
    """Stands in for sys.stderr until finalize(), which puts back the stream it replaced.

    Requests reach Python strictly nested, so captures are finalized in reverse order of
    creation and each one restores exactly the stream that was current when it began."""

    def __init__(self):
        super().__init__()
        self._replaced = sys.stderr
        sys.stderr = self

    def finalize(self):
        sys.stderr = self._replaced
        return self.getvalue()


def __setupExceptionCapture():
    return _ErrorCapture()
