// The built-in module _pytarn: Python functions of the bridge beyond TclMod's,
// attached to the built-in `tcl` object once the bootstrap has made it.
#pragma once

#include "convert/SmartObj.h"

namespace pytarn::python_api {

// tcl.call(cmd, *args): one Tcl command, each argument one word.
PyObject* call(PyObject* module, PyObject* const* args, Py_ssize_t count);
// tcl.exists(name), tcl.unset(name): global variables, array elements too.
PyObject* exists(PyObject* module, PyObject* name);
PyObject* unset(PyObject* module, PyObject* name);
// tcl.createcommand(name, callable), tcl.deletecommand(name).
PyObject* createcommand(PyObject* module, PyObject* args);
PyObject* deletecommand(PyObject* module, PyObject* name);

// Calls Tcl with `words` (each an unshared object with one reference, which
// passes to the Tcl thread) at global level; the result converted, or null
// with TclError set.
PyObject* callWords(Tcl_Obj* const* words, int count);

} // namespace pytarn::python_api

namespace pytarn {

// Runs on the Python thread after the bootstrap: puts the functions above on
// `tcl`. 0 on success, 1 with a Python error set.
int attachCallFunctions();

} // namespace pytarn

extern "C" PyObject* PyInit__pytarn(void);
