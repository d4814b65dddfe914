#include "TestEnv.h"

#include <gtest/gtest.h>

namespace pytarn_test {

namespace {

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
    PyObject* main = PyModule_GetDict(PyImport_AddModule("__main__")); // both borrowed
    return pytarn::SmartPyObj(PyRun_String(expression, Py_eval_input, main, main));
}

std::string pendingError() {
    PyObject* type = PyErr_Occurred();
    return type ? reinterpret_cast<PyTypeObject*>(type)->tp_name : "";
}

} // namespace pytarn_test
