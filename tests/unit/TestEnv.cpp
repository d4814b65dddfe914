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

class Environment : public testing::Environment {
public:
    void SetUp() override {
        Tcl_FindExecutable(nullptr);
        Tcl_Interp* interp = Tcl_CreateInterp();
        ASSERT_TRUE(initTclStubs(interp));
        Py_Initialize();
        ASSERT_TRUE(PyGILState_Check());
    }
};

const testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new Environment);

} // namespace

pytarn::SmartPyObj py(const char* expression) {
    return pytarn::SmartPyObj(PyRun_String(expression, Py_eval_input, globals(), globals()));
}

bool pyRun(const char* statements) {
    pytarn::SmartPyObj result(
        PyRun_String(statements, Py_file_input, globals(), globals()));
    return static_cast<bool>(result);
}

std::string pendingError() {
    PyObject* type = PyErr_Occurred();
    return type ? reinterpret_cast<PyTypeObject*>(type)->tp_name : "";
}

} // namespace pytarn_test
