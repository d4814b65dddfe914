// The built-in module TclMod: Python's way into the host's Tcl interpreter.
// Every function goes to the main Tcl thread as a request, so the Tcl
// interpreter is only ever used on its own thread.
#include "core/Bridge.h"
#include "convert/TclConvert.h"

#include <iostream>

namespace pytarn::python_api {

namespace {

using event::TclEvent;

PyObject* write(PyObject* args, bool to_stderr) {
    const char* text = nullptr;
    if (!PyArg_ParseTuple(args, "s", &text)) return nullptr;
    TclEvent request;
    request.output = text;
    request.to_stderr = to_stderr;
    SmartPyObj result(event_mgr->spin(&request));
    if (!result) return nullptr;
    Py_RETURN_NONE;
}

} // namespace

PyObject* _stdout(PyObject*, PyObject* args) { return write(args, false); }

PyObject* _stderr(PyObject*, PyObject* args) { return write(args, true); }

PyObject* eval(PyObject*, PyObject* args) {
    const char* script = nullptr;
    if (!PyArg_ParseTuple(args, "s", &script)) return nullptr;
    TclEvent request;
    request.script = script;
    return event_mgr->spin(&request);
}

PyObject* get(PyObject*, PyObject* args) {
    const char* name = nullptr;
    if (!PyArg_ParseTuple(args, "s", &name)) return nullptr;
    TclEvent request;
    request.variable = name;
    return event_mgr->spin(&request);
}

PyObject* set(PyObject*, PyObject* args) {
    const char* name = nullptr;
    PyObject* value = nullptr;
    if (!PyArg_ParseTuple(args, "sO", &name, &value)) return nullptr;
    TclEvent request;
    request.variable = name;
    request.value = tcl_convert::toTcl(SmartPyObj::borrow(value));
    if (PyErr_Occurred()) return nullptr; // not convertible: nothing is assigned
    SmartPyObj result(event_mgr->spin(&request));
    if (!result) return nullptr;
    Py_RETURN_NONE;
}

} // namespace pytarn::python_api

namespace {

using namespace pytarn::python_api;

PyMethodDef tclmod_methods[] = {
    {"stdout", _stdout, METH_VARARGS, nullptr},
    {"stderr", _stderr, METH_VARARGS, nullptr},
    {"set", set, METH_VARARGS, nullptr},
    {"get", get, METH_VARARGS, nullptr},
    {"eval", eval, METH_VARARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef tclmod_definition = {
    PyModuleDef_HEAD_INIT,
    "TclMod",
    "A module to contain hooks tot he Orvanta tcl interpreter",
    0,
    tclmod_methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

extern "C" PyObject* PyInit_TclMod(void) {
    PyObject* module = PyModule_Create2(&tclmod_definition, 1013);
    if (!module) std::cerr << "failed to init the Orvanta module\n";
    return module;
}
