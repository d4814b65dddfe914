#include "PyErrors.h"

#include "SmartObj.h"

namespace pytarn {

TakenError takeError() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    TakenError error;
    error.type = SmartPyObj(type);
    error.value = SmartPyObj(value);
    error.traceback = SmartPyObj(traceback);
    return error;
}

namespace {
thread_local HeldErrors* holder = nullptr;
} // namespace

HeldErrors::HeldErrors() : outer_(holder) { holder = this; }

HeldErrors::~HeldErrors() { printHeld(); }

void HeldErrors::printHeld() {
    if (holder == this) holder = outer_;
    if (held_.empty()) return;
    // An error pending now is not ours: it waits until those kept are out.
    TakenError pending = takeError();
    for (TakenError& error : held_) {
        PyErr_Restore(error.type.release(), error.value.release(), error.traceback.release());
        printPythonError();
    }
    held_.clear();
    if (pending.type)
        PyErr_Restore(pending.type.release(), pending.value.release(),
                      pending.traceback.release());
}

void printPythonError() {
    if (!PyErr_Occurred()) return;
    if (holder) {
        // Without the error, its normal form, and a failure to store it
        // loses only the report.
        TakenError error = takeError();
        withoutExceptions([&] { holder->held_.push_back(std::move(error)); }, [](bool) {});
        return;
    }
    if (PyErr_ExceptionMatches(PyExc_SystemExit)) {
        const TakenError error = takeError();
        PyErr_Display(error.type.get(), error.value.get(), error.traceback.get());
    } else {
        PyErr_Print();
    }
    PyErr_Clear();
}

int systemExitCode(PyObject* value) {
    SmartPyObj code = value && PyExceptionInstance_Check(value)
                          ? SmartPyObj(PyObject_GetAttrString(value, "code"))
                          : SmartPyObj::borrow(value);
    PyErr_Clear();
    if (!code || code.get() == Py_None) return 0;
    if (PyLong_Check(code.get())) {
        int overflow = 0;
        long result = PyLong_AsLongAndOverflow(code.get(), &overflow);
        PyErr_Clear();
        return overflow ? -1 : static_cast<int>(result);
    }
    PyObject* err = PySys_GetObject("stderr"); // borrowed
    if (err && err != Py_None) {
        SmartPyObj text(PyObject_Str(code.get()));
        if (text) {
            SmartPyObj written(PyObject_CallMethod(err, "write", "O", text.get()));
            SmartPyObj newline(PyObject_CallMethod(err, "write", "s", "\n"));
        }
    }
    PyErr_Clear();
    return 1;
}

} // namespace pytarn
