// The package's commands in the ::pytarn namespace that call Python.
#pragma once

#include <tcl.h>

namespace pytarn {

// ::pytarn::call and ::pytarn::createFunction; main Tcl thread, after a
// successful start-up.
void registerCallCommands(Tcl_Interp* interp);

} // namespace pytarn
