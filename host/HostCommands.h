// Tcl commands of the reference host in the ::pytarn namespace, registered by
// pytarnsh before the bridge loads. All run on the main Tcl thread.
#pragma once

#include <tcl.h>

// The library's own barrier: no exception crosses into Tcl, an allocation
// failure becomes the error "out of memory".
#include "convert/Guard.h"

namespace pytarnsh {

using pytarn::tclGuard;

// ::pytarn::createFunction FIRST ?SECOND?: the bridge's exported createFunction.
void registerFunctionCommand(Tcl_Interp* interp);

// ::pytarn::buffer create|get|delete|names: the host's data buffers.
void registerBufferCommands(Tcl_Interp* interp);

// ::pytarn::console: an interactive Python prompt; returns on exit() or end of file.
void registerConsoleCommand(Tcl_Interp* interp);

} // namespace pytarnsh
