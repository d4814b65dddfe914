// Reporting Python errors that the library handles itself.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "Guard.h"
#include "SmartObj.h"

#include <vector>

namespace pytarn {

// Prints the pending Python error through sys.stderr and clears it. Unlike
// a bare PyErr_Print it never ends the process on SystemExit: only a request
// may do that, and then through the host. Interpreter lock held.
void printPythonError();

// The pending Python error, taken (none is left set) and normalised; a part
// may be empty. Interpreter lock held.
struct TakenError {
    SmartPyObj type;
    SmartPyObj value;
    SmartPyObj traceback;
};
TakenError takeError();

// While one lives on a thread, printPythonError there keeps each error
// instead of printing it: printing runs Python code (sys.excepthook, a
// stream's write), which may call Tcl, and the Tcl thread may be waiting for
// this very thread without serving calls (a value it lent, see Lending.h).
// printHeld() prints what was kept, in order; the destructor does so too.
class HeldErrors {
public:
    HeldErrors();
    ~HeldErrors();
    HeldErrors(const HeldErrors&) = delete;
    HeldErrors& operator=(const HeldErrors&) = delete;
    void printHeld();

private:
    friend void printPythonError();
    HeldErrors* outer_;
    std::vector<TakenError> held_;
};

// The exit code Python would use for an unhandled SystemExit `value`; the
// message of a non-integer code is written to sys.stderr as Python does.
int systemExitCode(PyObject* value);

// For a function that Python calls (or a work function whose result Python
// gets): an exception becomes a raised MemoryError, or a RuntimeError for
// anything other than an allocation failure. Interpreter lock held.
template <typename Body>
PyObject* pythonGuard(Body&& body) noexcept {
    return withoutExceptions(body, [](bool out_of_memory) -> PyObject* {
        if (out_of_memory) return PyErr_NoMemory();
        PyErr_SetString(PyExc_RuntimeError, "internal error in pytarn");
        return nullptr;
    });
}

// A module function (METH_VARARGS) that runs `Function` under pythonGuard.
template <PyObject* (*Function)(PyObject*, PyObject*)>
PyObject* guardedMethod(PyObject* self, PyObject* args) {
    return pythonGuard([self, args] { return Function(self, args); });
}

} // namespace pytarn
