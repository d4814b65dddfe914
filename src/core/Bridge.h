// The lifecycle's and the command surface's entry points; the process-wide
// state they share is in event/State.h.
#pragma once

#include "event/State.h"

namespace pytarn {

// Runs on the Python thread; returns 0 on success, 1 on failure, holding the
// interpreter lock either way.
int init();

// Work functions: run on a Python thread with the interpreter lock held;
// return a new reference, or null with a Python error set.
namespace python {
PyObject* eval(const char* code);
PyObject* exec(const char* code);
// True when it failed (error left set); the name and that sense are kept as written.
bool execNoResult(const char* code);
PyObject* check(const char* text);
PyObject* tabComplete(const char* text);
PyObject* get(const char* expression);
// `converted`: the request's argument, converted (borrowed).
PyObject* set(const char* target, PyObject* converted);
PyObject* createFunction(const char* first, const char* second);
} // namespace python

// Tcl command procedures of the ::python namespace (main Tcl thread).
namespace tcl_api {
int eval(void* clientData, Tcl_Interp* interp, int argc, const char** argv);
int exec(void* clientData, Tcl_Interp* interp, int argc, const char** argv);
int check(void* clientData, Tcl_Interp* interp, int argc, const char** argv);
int tabComplete(void* clientData, Tcl_Interp* interp, int argc, const char** argv);
int get(void* clientData, Tcl_Interp* interp, int argc, const char** argv);
int set(void* clientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
} // namespace tcl_api

namespace c_api {
int createFunction(const char* first, const char* second);
} // namespace c_api

} // namespace pytarn
