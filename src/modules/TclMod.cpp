// The built-in module TclMod: Python's way into the host's Tcl interpreter.
// Every function goes to the main Tcl thread as a request, so the Tcl
// interpreter is only ever used on its own thread.
#include "event/State.h"
#include "convert/PyErrors.h"
#include "convert/TclConvert.h"

#include "ForkedOutput.h"
#include "TclMod.h"

#include <cstring>
#include <iostream>

namespace pytarn::python_api {

using event::TclEvent;

PyObject* cross(TclEvent* request) {
    if (python_thread.forked.load()) forked::flush();
    return event_mgr->spin(request);
}

bool raisedWriteFailure(bool to_stderr) {
    event::OutputQueue::Failure failure;
    if (!event_mgr->output.failed(to_stderr) ||
        !event_mgr->output.takeFailure(to_stderr, &failure))
        return false;
    const char* message = failure.message.c_str();
    SmartPyObj error(failure.number ? PyObject_CallFunction(PyExc_OSError, "is",
                                                            failure.number, message)
                                    : PyObject_CallFunction(PyExc_OSError, "s", message));
    if (error) PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
    return true;
}

bool output(bool to_stderr, const char* text, std::size_t length, bool report) {
    if (python_thread.forked.load()) {
        forked::write(to_stderr, text, length);
        return true;
    }
    if (!python_alive->load()) return true; // shutting down: Tcl takes no more
    // A buffered file reports a failed write of queued text so.
    if (report && raisedWriteFailure(to_stderr)) return false;
    switch (event_mgr->output.append(to_stderr, text, length)) {
    case event::OutputQueue::Appended::first:
    case event::OutputQueue::Appended::filled:
        event::TclEventQueue::wake();
        return true;
    case event::OutputQueue::Appended::queued:
        return true;
    case event::OutputQueue::Appended::full:
        break;
    }
    // Tcl is not keeping up: this writer waits, and its text still comes
    // after everything queued before it.
    TclEvent request(TclEvent::Asks::write);
    request.output = text;
    request.to_stderr = to_stderr;
    SmartPyObj result(cross(&request));
    return result && !(report && raisedWriteFailure(to_stderr));
}

const char* outputText(PyObject* text, std::size_t* length) {
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text, &size);
    if (!utf8) return nullptr;
    *length = static_cast<std::size_t>(size);
    if (std::strlen(utf8) == *length) return utf8;
    PyErr_SetString(PyExc_ValueError, "embedded null character");
    return nullptr;
}

namespace {

PyObject* write(PyObject* args, bool to_stderr) {
    // print calls this twice a line: the common case skips the general
    // parser, which still gives every other argument its usual error.
    PyObject* only = PyTuple_GET_SIZE(args) == 1 ? PyTuple_GET_ITEM(args, 0) : nullptr;
    if (!only || !PyUnicode_Check(only)) {
        if (!PyArg_ParseTuple(args, "U", &only)) return nullptr;
    }
    std::size_t length = 0;
    const char* text = outputText(only, &length);
    // Never raises for a failed write: what TclMod promises. Streams do.
    if (!text || !output(to_stderr, text, length, false)) return nullptr;
    Py_RETURN_NONE;
}

} // namespace

PyObject* _stdout(PyObject*, PyObject* args) { return write(args, false); }

PyObject* _stderr(PyObject*, PyObject* args) { return write(args, true); }

PyObject* eval(PyObject*, PyObject* args) {
    const char* script = nullptr;
    if (!PyArg_ParseTuple(args, "s", &script)) return nullptr;
    TclEvent request(TclEvent::Asks::eval);
    request.setText(script);
    return cross(&request);
}

PyObject* get(PyObject*, PyObject* args) {
    const char* name = nullptr;
    if (!PyArg_ParseTuple(args, "s", &name)) return nullptr;
    TclEvent request(TclEvent::Asks::get);
    request.setText(name);
    return cross(&request);
}

PyObject* set(PyObject*, PyObject* args) {
    const char* name = nullptr;
    PyObject* value = nullptr;
    if (!PyArg_ParseTuple(args, "sO", &name, &value)) return nullptr;
    TclEvent request(TclEvent::Asks::set);
    request.setText(name);
    if (!tcl_convert::toScalar(value, &request.short_value)) {
        request.value = tcl_convert::toTcl(SmartPyObj::borrow(value));
        if (PyErr_Occurred()) return nullptr; // not convertible: nothing is assigned
    }
    SmartPyObj result(cross(&request));
    if (!result) return nullptr;
    Py_RETURN_NONE;
}

} // namespace pytarn::python_api

namespace {

using namespace pytarn::python_api;

PyMethodDef tclmod_methods[] = {
    {"stdout", pytarn::guardedMethod<_stdout>, METH_VARARGS, nullptr},
    {"stderr", pytarn::guardedMethod<_stderr>, METH_VARARGS, nullptr},
    {"set", pytarn::guardedMethod<set>, METH_VARARGS, nullptr},
    {"get", pytarn::guardedMethod<get>, METH_VARARGS, nullptr},
    {"eval", pytarn::guardedMethod<eval>, METH_VARARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef tclmod_definition = {
    PyModuleDef_HEAD_INIT,
    "TclMod",
    // Kept as written, typo included.
    "A module to contain hooks tot he Orvanta tcl interpreter",
    0,
    tclmod_methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

// The API version 1013 and the message, which names Orvanta, are kept as written.
extern "C" PyObject* PyInit_TclMod(void) {
    PyObject* module = PyModule_Create2(&tclmod_definition, 1013);
    if (!module) std::cerr << "failed to init the Orvanta module\n";
    return module;
}
