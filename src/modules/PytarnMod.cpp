// The built-in module _pytarn, and the start-up step that gives `tcl` its
// functions.
#include "PytarnMod.h"

#include "convert/PyErrors.h"
#include "event/State.h"

namespace {

using namespace pytarn::python_api;
using pytarn::guardedMethod;

// call takes Python's fast calling convention, so it has a guard of its own.
PyObject* guardedCall(PyObject* module, PyObject* const* args, Py_ssize_t count) {
    return pytarn::pythonGuard([&] { return call(module, args, count); });
}

PyMethodDef pytarn_methods[] = {
    {"call", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(guardedCall)), METH_FASTCALL,
     "call(cmd, *args): calls the Tcl command cmd with each argument as one word, never "
     "parsed; None is an empty word. Returns the result converted to Python."},
    {"exists", guardedMethod<exists>, METH_O, "exists(name): whether the global Tcl variable exists."},
    {"unset", guardedMethod<unset>, METH_O, "unset(name): unsets the global Tcl variable."},
    {"createcommand", guardedMethod<createcommand>, METH_VARARGS,
     "createcommand(name, callable): makes the Tcl command name call callable with its "
     "words; returns name."},
    {"deletecommand", guardedMethod<deletecommand>, METH_O, "deletecommand(name): deletes the Tcl command."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef pytarn_module = {
    PyModuleDef_HEAD_INIT, "_pytarn", "Calls between Python and the host's Tcl interpreter.", 0,
    pytarn_methods, nullptr, nullptr, nullptr, nullptr,
};

} // namespace

extern "C" PyObject* PyInit__pytarn(void) { return PyModule_Create(&pytarn_module); }

namespace pytarn {

int attachCallFunctions() {
    SmartPyObj module(PyImport_ImportModule("_pytarn"));
    if (!module) return 1;
    if (!python_state.tcl) {
        PyErr_SetString(PyExc_RuntimeError, "the built-in tcl object is missing");
        return 1;
    }
    // On the class, as the bootstrap puts TclMod's: found by the type's
    // method cache, not the instance dictionary.
    PyObject* tclClass = reinterpret_cast<PyObject*>(Py_TYPE(python_state.tcl.get()));
    for (const PyMethodDef* method = pytarn_methods; method->ml_name; ++method) {
        SmartPyObj function(PyObject_GetAttrString(module.get(), method->ml_name));
        if (!function || PyObject_SetAttrString(tclClass, method->ml_name, function.get()) != 0)
            return 1;
    }
    return 0;
}

} // namespace pytarn
