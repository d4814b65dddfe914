// Process set-up shared by the unit tests and the fuzz target: Tcl with its stubs table
// filled for the library's objects, and an embedded Python whose interpreter lock the
// main thread holds throughout.
#pragma once

#include "convert/SmartObj.h"

#include <string>

namespace pytarn_test {

// Fills the stubs table from `interp`; defined in the one stubs-enabled source.
bool initTclStubs(Tcl_Interp* interp);
// Evaluates an expression, or runs statements (false when they raised), in one namespace.
pytarn::SmartPyObj py(const char* expression);
bool pyRun(const char* statements);
// The name of the pending Python exception's type, or "" when none is set.
std::string pendingError();

} // namespace pytarn_test
