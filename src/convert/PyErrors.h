// Reporting Python errors that the library handles itself.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

namespace pytarn {

// Prints the pending Python error through sys.stderr and clears it. Unlike
// a bare PyErr_Print it never ends the process on SystemExit: only a request
// may do that, and then through the host. Interpreter lock held.
void printPythonError();

// The exit code Python would use for an unhandled SystemExit `value`; the
// message of a non-integer code is written to sys.stderr as Python does.
int systemExitCode(PyObject* value);

} // namespace pytarn
