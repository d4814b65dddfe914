// Process set-up shared by the unit tests and the fuzz target: Tcl, with its stubs table
// filled for the library's objects, and Python, whose lock the main thread always holds.
#pragma once

#include "convert/SmartObj.h"

#include <string>

namespace pytarn_test {

// Fills the stubs table from `interp`; defined in the one stubs-enabled source.
bool initTclStubs(Tcl_Interp* interp);
// The value of an expression evaluated in __main__, or empty with the error set.
pytarn::SmartPyObj py(const char* expression);
// The name of the pending Python exception's type, or "" when none is set.
std::string pendingError();

} // namespace pytarn_test
