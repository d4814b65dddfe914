// Tcl commands of the reference host in the ::pytarn and ::pytarnsh namespaces, registered by
// pytarnsh before the bridge loads. All run on the main Tcl thread.
#pragma once

#include <tcl.h>

#include <new>

namespace pytarnsh {

// Runs a command's body so that no exception crosses into Tcl: an allocation
// failure becomes the error "out of memory".
template <typename Body>
int withoutExceptions(Tcl_Interp* interp, Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        Tcl_SetResult(interp, const_cast<char*>("out of memory"), TCL_STATIC);
        return TCL_ERROR;
    }
}

// ::pytarnsh::createFunction FIRST ?SECOND?: the bridge's exported createFunction.
void registerFunctionCommand(Tcl_Interp* interp);

// ::pytarn::buffer create|get|delete|names: the host's data buffers.
void registerBufferCommands(Tcl_Interp* interp);

// ::pytarn::console: an interactive Python prompt; returns on exit() or end of file.
void registerConsoleCommand(Tcl_Interp* interp);

} // namespace pytarnsh
