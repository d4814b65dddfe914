// Tcl commands of the reference host in the ::pytarn and ::pytarnsh namespaces, registered by
// pytarnsh before the bridge loads. All run on the main Tcl thread.
#pragma once

#include <tcl.h>

#include <new>

namespace pytarnsh {

// The barrier of the host's own command procedures: no C++ exception unwinds
// into Tcl, which is C; an allocation failure becomes the error "out of
// memory", as in the bridge's commands.
template <typename Body>
int tclGuard(Tcl_Interp* interp, Body&& body) noexcept {
    const char* message = "internal error in pytarn";
    const char* code = "INTERNAL";
    try {
        return body();
    } catch (const std::bad_alloc&) {
        message = "out of memory";
        code = "NOMEMORY";
    } catch (...) {
    }
    Tcl_SetResult(interp, const_cast<char*>(message), TCL_STATIC);
    Tcl_SetErrorCode(interp, "PYTARN", code, nullptr);
    return TCL_ERROR;
}

// ::pytarnsh::createFunction FIRST ?SECOND?: the bridge's exported createFunction.
void registerFunctionCommand(Tcl_Interp* interp);

// ::pytarn::buffer create|get|delete|names: the host's data buffers.
void registerBufferCommands(Tcl_Interp* interp);

// ::pytarn::console: an interactive Python prompt; returns on exit() or end of file.
void registerConsoleCommand(Tcl_Interp* interp);

} // namespace pytarnsh
