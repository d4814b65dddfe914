// The built-in module Orvanta: byte copies out of and into the host's
// buffers.
#include "core/Bridge.h"

#include <cstdio>

namespace pytarn::buffer {

namespace {

PyObject* unavailable() {
    PyErr_SetString(PyExc_Exception, "host buffer library not available");
    return nullptr;
}

PyObject* getBytes(PyObject*, PyObject*) { return unavailable(); }

PyObject* setBytes(PyObject*, PyObject*) { return unavailable(); }

PyMethodDef orvanta_methods[] = {
    {"__buffGetBytes", getBytes, METH_VARARGS, nullptr},
    {"__buffSetBytes", setBytes, METH_VARARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef orvanta_definition = {
    PyModuleDef_HEAD_INIT,
    "Orvanta",
    "A module to contain all the base Orvanta functions.",
    0,
    orvanta_methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

} // namespace pytarn::buffer

extern "C" PyObject* PyInit_Orvanta(void) {
    PyObject* module = PyModule_Create2(&pytarn::buffer::orvanta_definition, 1013);
    if (!module) std::printf("failed to init the Orvanta module\n");
    return module;
}
