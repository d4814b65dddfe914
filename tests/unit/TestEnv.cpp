#include "TestEnv.h"

#include <gtest/gtest.h>

namespace pytarn_test {

namespace {

PyObject* globals() {
    static PyObject* const dict = PyDict_New(); // kept for the whole run
    if (!PyDict_GetItemString(dict, "__builtins__"))
        PyDict_SetItemString(dict, "__builtins__", PyEval_GetBuiltins());
    return dict;
}

struct Environment : testing::Environment {
    void SetUp() override {
        Tcl_FindExecutable(nullptr);
        ASSERT_TRUE(initTclStubs(Tcl_CreateInterp()));
        Py_Initialize();
    }
};
const testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new Environment);

} // namespace

pytarn::SmartPyObj py(const char* expression) {
    return pytarn::SmartPyObj(PyRun_String(expression, Py_eval_input, globals(), globals()));
}

bool pyRun(const char* statements) {
    return static_cast<bool>(
        pytarn::SmartPyObj(PyRun_String(statements, Py_file_input, globals(), globals())));
}

std::string pendingError() {
    PyObject* type = PyErr_Occurred();
    return type ? reinterpret_cast<PyTypeObject*>(type)->tp_name : "";
}

} // namespace pytarn_test
