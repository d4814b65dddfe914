// Carrying out one request from Tcl on a Python thread, and turning a Python
// exception into the Tcl error result.
#include "State.h"
#include "convert/Lending.h"
#include "convert/PyErrors.h"
#include "convert/TclConvert.h"

#include <string>
#include <vector>

namespace pytarn::event {

namespace {

// The helper module's capture finalizer for the failure now being reported,
// or empty when the module offers no usable capture hook.
SmartPyObj captureFinalizer() {
    PyObject* shell = python_state.shell.get();
    SmartPyObj hook;
    if (shell && PyObject_HasAttrString(shell, "__setupExceptionCapture"))
        hook = PyObject_GetAttrString(shell, "__setupExceptionCapture");
    if (!hook) {
        PyErr_Clear();
        return hook;
    }
    if (PyCallable_Check(hook.get())) {
        hook = PyObject_CallNoArgs(hook.get());
        PyErr_Clear(); // a failing hook falls back to the formatted form
    }
    if (hook && PyObject_HasAttrString(hook.get(), "finalize"))
        hook = PyObject_GetAttrString(hook.get(), "finalize");
    PyErr_Clear();
    if (hook && !PyCallable_Check(hook.get())) hook.reset();
    return hook;
}

// The exception type's __name__; empty when it has none. Leaves no error set.
std::string typeName(PyObject* type) {
    SmartPyObj nameText;
    if (type) {
        SmartPyObj name(PyObject_GetAttrString(type, "__name__"));
        if (name) nameText = PyObject_Str(name.get());
    }
    std::string text = nameText.stdstr();
    PyErr_Clear();
    return text;
}

// "TypeName: value text", without a traceback.
std::string formattedMessage(PyObject* type, PyObject* value) {
    std::string valueText = SmartPyObj::borrow(value).stdstr();
    PyErr_Clear();
    return typeName(type) + ": " + valueText;
}

// The -errorcode words that a TclError from a failed Tcl call carries (a
// tuple of str); empty for any other exception. Leaves no error set.
std::vector<std::string> tclErrorCode(PyObject* value) {
    std::vector<std::string> words;
    PyObject* tclError = python_state.tcl_error.get();
    if (!value || !tclError || PyObject_IsInstance(value, tclError) != 1) {
        PyErr_Clear();
        return words;
    }
    SmartPyObj code(PyObject_GetAttrString(value, "errorcode"));
    if (code && PyTuple_Check(code.get())) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(code.get()); ++i) {
            PyObject* word = PyTuple_GET_ITEM(code.get(), i);
            Py_ssize_t length = 0;
            const char* text = PyUnicode_Check(word) ? PyUnicode_AsUTF8AndSize(word, &length)
                                                     : nullptr;
            if (!text) {
                words.clear();
                break;
            }
            words.emplace_back(text, static_cast<std::size_t>(length));
        }
    }
    PyErr_Clear();
    return words;
}

// Fills the request's failure outcome from the pending Python error and
// leaves no error set.
void reportFailure(PyEvent* ev) {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    std::string message;
    ev->error_type = typeName(type);
    ev->error_code = tclErrorCode(value);
    SmartPyObj finalizer = captureFinalizer();
    if (finalizer && PyErr_GivenExceptionMatches(type, PyExc_SystemExit)) {
        // The host exits on its own thread, through Tcl, so that its exit
        // handlers run and its channels are flushed; the capture is undone.
        SmartPyObj discarded(PyObject_CallNoArgs(finalizer.get()));
        PyErr_Clear();
        PyErr_NormalizeException(&type, &value, &traceback);
        SmartPyObj ownedType(type), ownedValue(value), ownedTraceback(traceback);
        ev->exit_requested = true;
        ev->exit_code = systemExitCode(value);
    } else if (finalizer) {
        PyErr_Restore(type, value, traceback);
        PyErr_Print();
        SmartPyObj captured(PyObject_CallNoArgs(finalizer.get()));
        message = captured.stdstr();
    } else {
        // Errors raised by the interpreter itself arrive unnormalised (the
        // value is still the constructor's arguments); their text is the
        // exception's own str().
        PyErr_NormalizeException(&type, &value, &traceback);
        SmartPyObj ownedType(type), ownedValue(value), ownedTraceback(traceback);
        message = formattedMessage(type, value);
    }
    PyErr_Clear();
    ev->status = TCL_ERROR;
    ev->result = tcl_convert::toTcl(message.c_str());
}

// An interrupt delivered after the request's code last looked (Python's
// signal flag on its main thread, an asynchronous exception on another) is
// taken here, so that it ends this request and not the next code that this
// thread runs. A request that failed already keeps its own error.
void takeLateInterrupt() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    if (PyErr_CheckSignals() == 0 && PyThreadState_Get()->async_exc) {
        // Only the interpreter loop raises an asynchronous exception (and
        // clears its flag): one instruction of code that does nothing.
        static PyObject* const nothing = Py_CompileString("None", "<interrupt>", Py_eval_input);
        static PyObject* const globals = PyDict_New(); // kept for the process's life
        if (nothing && globals) SmartPyObj ran(PyEval_EvalCode(nothing, globals, globals));
    }
    if (type) {
        PyErr_Clear();
        PyErr_Restore(type, value, traceback);
    }
}

// Tells the Tcl thread that its lent argument is no longer touched here.
void markTaken(PyEvent* ev) {
    if (!ev->lends) return;
    ev->taken.store(true); // sequentially consistent, for the parked Tcl thread
    event_mgr->tcl_queue.owner.unpark();
}

// The request's argument as a Python object; empty, with an error set, when
// it did not convert. A lent one is converted before anything else runs
// here, and the Tcl thread is told once it is no longer touched.
SmartPyObj convertArgument(PyEvent* ev) {
    SmartPyObj converted;
    if (ev->argument_scalar.kind != tcl_convert::Scalar::Kind::none) {
        converted = tcl_convert::fromScalar(ev->argument_scalar);
        if (!converted && !PyErr_Occurred())
            PyErr_SetString(PyExc_ValueError, tcl_convert::not_converted_message);
        return converted;
    }
    {
        tcl_convert::NoPythonCode quiet;
        if (ev->argument) {
            converted = pythonGuard([ev] { return tcl_convert::fromTcl(ev->argument).release(); });
        } else {
            PyErr_SetString(PyExc_RecursionError, tcl_convert::too_deep_message);
        }
        if (!converted && !PyErr_Occurred())
            PyErr_SetString(PyExc_ValueError, tcl_convert::not_converted_message);
        markTaken(ev);
    }
    return converted;
}

} // namespace

void PythonEventQueue::serviceEvent(PyEvent* ev) {
    RunningCalls& calls = event_mgr->calls;
    SmartPyObj returned;
    SmartPyObj argument;
    if (calls.begin(ev->call)) {
        markTaken(ev); // never converted
        PyErr_SetNone(PyExc_KeyboardInterrupt); // interrupted before it started
    } else if (ev->has_argument && !(argument = convertArgument(ev))) {
        // The conversion's error fails the request.
    } else {
        // An exception in the work becomes a Python MemoryError (or
        // RuntimeError) and is reported like any other failure.
        returned = pythonGuard([ev, &argument] { return ev->func(argument.get()); });
        takeLateInterrupt();
    }
    // One that was asked for and never delivered is raised here.
    if (calls.end(ev->call) && !PyErr_Occurred()) PyErr_SetNone(PyExc_KeyboardInterrupt);
    // No Tcl thread lives in a forked child to take the outcome.
    if (python_thread.forked.load() && python_thread.end_forked_child)
        python_thread.end_forked_child();
    tcl_convert::Scalar short_result; // the answer's line is written in one go, see Event.h
    withoutExceptions(
        [&] {
            if (!PyErr_Occurred() && returned && returned.get() != Py_None &&
                !tcl_convert::toScalar(returned.get(), &short_result))
                ev->result = tcl_convert::toTcl(returned);
            // A conversion that failed (too deep, a raising __str__) fails the
            // request rather than leaving its error for the next one.
            if (PyErr_Occurred()) reportFailure(ev);
        },
        [ev](bool out_of_memory) {
            // Reporting failed too: a fixed message, and no error left set.
            PyErr_Clear();
            ev->exit_requested = false;
            ev->status = TCL_ERROR;
            ev->result = tcl_convert::toTcl(out_of_memory ? "out of memory"
                                                          : "internal error in pytarn");
        });
    ev->scalar = short_result;
    ev->done.store(true);
    event_mgr->tcl_queue.owner.unpark(); // only the main Tcl thread waits for a PyEvent
    // `returned` and `argument` are released only now: a release may run
    // Python code.
}

} // namespace pytarn::event
