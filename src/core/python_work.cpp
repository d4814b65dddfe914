// Work functions of the ::python:: requests; each runs on a Python thread
// with the interpreter lock held.
#include "Bridge.h"

#include "convert/PyErrors.h"
#include "convert/TclConvert.h"

#include <string>

namespace pytarn::python {

namespace {

PyObject* run(const char* code, int start) {
    PyObject* globals = python_state.main_dict.get();
    return PyRun_StringFlags(code, start, globals, globals, nullptr);
}

// Calls one of the helper module's cached functions with `text`; null with
// no error set when the module's attribute is not callable.
PyObject* callShell(const SmartPyObj& function, const char* text) {
    if (!function || !PyCallable_Check(function.get())) return nullptr;
    return PyObject_CallFunction(function.get(), "s", text);
}

} // namespace

PyObject* eval(const char* code) { return run(code, Py_eval_input); }

PyObject* exec(const char* code) { return run(code, Py_file_input); }

bool execNoResult(const char* code) {
    SmartPyObj result(exec(code));
    return !result;
}

PyObject* check(const char* text) { return callShell(python_state.complete_expression, text); }

PyObject* tabComplete(const char* text) { return callShell(python_state.tab_complete, text); }

PyObject* get(const char* expression) {
    if (execNoResult(("__tcl.__swap = " + std::string(expression)).c_str())) return nullptr;
    SmartPyObj value;
    if (python_state.tcl) value = PyObject_GetAttrString(python_state.tcl.get(), "__swap");
    execNoResult("__tcl.__swap = None");
    return value.release();
}

PyObject* set(const char* target, SmartTclObj* value) {
    if (!*value) {
        PyErr_SetString(PyExc_RecursionError, "value nested too deeply to convert");
        return nullptr;
    }
    SmartPyObj converted = tcl_convert::fromTcl(value->get());
    if (!converted) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ValueError, "Could not convert tcl value to python value");
        return nullptr;
    }
    if (python_state.tcl &&
        PyObject_SetAttrString(python_state.tcl.get(), "__swap", converted.get()) != 0)
        Py_RETURN_NONE; // the pending error fails the request
    execNoResult((std::string(target) + " = __tcl.__swap\n__tcl.__swap = None\n").c_str());
    Py_RETURN_NONE;
}

PyObject* createFunction(const char* first, const char* second) {
    const SmartPyObj& make = python_state.make_function;
    if (make && PyCallable_Check(make.get())) {
        SmartPyObj result(
            PyObject_CallFunction(make.get(), "ss", first, second ? second : ""));
    }
    printPythonError();
    Py_RETURN_NONE;
}

} // namespace pytarn::python
