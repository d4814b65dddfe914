#include "HostCommands.h"

#include "pytarn.h"

namespace pytarnsh {

namespace {

// ::pytarnsh::createFunction FIRST ?SECOND?: the exported C entry
// createFunction for scripts (the package's own ::pytarn::createFunction does
// not go through it). Returns the entry's completion code with the
// interpreter result it left; a missing SECOND is a null pointer.
int createFunctionCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 2 || objc > 3) {
        Tcl_WrongNumArgs(interp, 1, objv, "first ?second?");
        return TCL_ERROR;
    }
    return createFunction(Tcl_GetString(objv[1]), objc == 3 ? Tcl_GetString(objv[2]) : nullptr);
}

} // namespace

void registerFunctionCommand(Tcl_Interp* interp) {
    Tcl_CreateObjCommand(interp, "::pytarnsh::createFunction", createFunctionCmd, nullptr, nullptr);
}

} // namespace pytarnsh
