// tcl.createcommand and tcl.deletecommand: Tcl commands that call Python
// callables, made and removed from Python.
#include "PytarnMod.h"

#include "PythonCommand.h"
#include "convert/TclConvert.h"

namespace pytarn::python_api {

namespace {

struct Creation {
    const char* name;        // UTF-8, Python's
    PythonCommand* command;  // Tcl's once installed
    bool installed = false;
};

// On the Tcl thread.
void install(Tcl_Interp* interp, event::TclEvent* ev) {
    auto* creation = static_cast<Creation*>(ev->context);
    if (creation->command->install(interp, tcl_convert::TclText(creation->name).get())) {
        creation->installed = true;
    } else {
        event::TclEventQueue::storeFailure(interp, ev, TCL_ERROR);
    }
}

} // namespace

PyObject* createcommand(PyObject*, PyObject* args) {
    PyObject* name = nullptr;
    PyObject* callable = nullptr;
    if (!PyArg_ParseTuple(args, "UO:createcommand", &name, &callable)) return nullptr;
    if (!PyCallable_Check(callable)) {
        PyErr_Format(PyExc_TypeError, "createcommand() needs a callable, not %.100s",
                     Py_TYPE(callable)->tp_name);
        return nullptr;
    }
    const char* text = PyUnicode_AsUTF8(name);
    if (!text) return nullptr;
    Creation creation{text, PythonCommand::forCallable(callable)};
    if (!creation.command) return nullptr;
    event::TclEvent request(event::TclEvent::Asks::act);
    request.action = install;
    request.context = &creation;
    const bool forked = python_thread.forked.load();
    SmartPyObj result(forked ? Py_NewRef(Py_None) : event_mgr->spin(&request));
    // Refused by Tcl, or never sent (a forked child): the record is still
    // ours. A request abandoned at shutdown may still be in the Tcl
    // thread's hands, so its record is left to the process's end.
    if (!creation.installed && (forked || request.done.load())) {
        creation.command->releasePython();
        delete creation.command;
    }
    if (!result) return nullptr;
    return Py_NewRef(name);
}

PyObject* deletecommand(PyObject*, PyObject* name) {
    if (!PyUnicode_Check(name)) {
        PyErr_Format(PyExc_TypeError, "a command name must be str, not %.100s",
                     Py_TYPE(name)->tp_name);
        return nullptr;
    }
    // rename's own checks and message: can't delete "x": command doesn't exist.
    SmartPyObj renameWord(PyUnicode_FromString("::rename"));
    SmartPyObj empty(PyUnicode_FromString(""));
    if (!renameWord || !empty) return nullptr;
    PyObject* args[] = {renameWord.get(), name, empty.get()};
    SmartPyObj result(call(nullptr, args, 3));
    if (!result) return nullptr;
    Py_RETURN_NONE;
}

} // namespace pytarn::python_api
