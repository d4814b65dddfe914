// Process set-up shared by the unit test binaries: Tcl with its stubs table
// filled for the library's objects, and an embedded Python whose interpreter
// lock the test's main thread holds throughout.
#pragma once

#include "convert/SmartObj.h"

#include <string>

namespace pytarn_test {

// Fills the stubs table from `interp`; defined in the one stubs-enabled source.
bool initTclStubs(Tcl_Interp* interp);

// Evaluates a Python expression in a namespace shared by all tests.
pytarn::SmartPyObj py(const char* expression);
// Runs Python statements in the same namespace; false when they raised.
bool pyRun(const char* statements);

// The text of the pending Python exception's type, or "" when none is set.
std::string pendingError();

} // namespace pytarn_test
