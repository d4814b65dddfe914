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

void printPythonError() {
    if (!PyErr_Occurred()) return;
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
