// ::pytarn::buffer: the Tcl face of the stand-in host's buffer store, which the
// bridge's Orvanta module reads and writes from the Python thread.
#include "HostCommands.h"

#include "buffers/OrvaBuffers.h"

#include <new>

namespace pytarnsh {

namespace {

// The number of the buffer NAME|NUMBER names, or 0. A known name wins, so a
// buffer called "2" is found by its name rather than as number 2.
int32_t bufferNumber(Tcl_Obj* which) {
    BufferKey key{0, 0};
    if (TCLBufferCmds::getBufferIndex(Tcl_GetString(which), key) == 0) return key.second;
    int number = 0;
    return Tcl_GetIntFromObj(nullptr, which, &number) == TCL_OK && number > 0 ? number : 0;
}

int noSuchBuffer(Tcl_Interp* interp, Tcl_Obj* which) {
    Tcl_SetObjResult(interp, Tcl_ObjPrintf("no such buffer \"%s\"", Tcl_GetString(which)));
    Tcl_SetErrorCode(interp, "PYTARN", "BUFFER", "NONE", nullptr);
    return TCL_ERROR;
}

int create(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 3 || objc > 4) {
        Tcl_WrongNumArgs(interp, 2, objv, "name ?bytes?");
        return TCL_ERROR;
    }
    int size = 0;
    const unsigned char* bytes = objc == 4 ? Tcl_GetByteArrayFromObj(objv[3], &size) : nullptr;
    const int32_t number = orva_buffers::create(
        Tcl_GetString(objv[2]), {reinterpret_cast<const char*>(bytes), std::size_t(size)});
    if (number == 0) {
        Tcl_SetObjResult(interp, Tcl_ObjPrintf("cannot create buffer \"%s\": the name is taken",
                                               Tcl_GetString(objv[2])));
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, Tcl_NewIntObj(number));
    return TCL_OK;
}

int get(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "name|number");
        return TCL_ERROR;
    }
    const std::optional<std::string> bytes = orva_buffers::contents(bufferNumber(objv[2]));
    if (!bytes) return noSuchBuffer(interp, objv[2]);
    Tcl_SetObjResult(interp, Tcl_NewByteArrayObj(
                                 reinterpret_cast<const unsigned char*>(bytes->data()),
                                 static_cast<int>(bytes->size())));
    return TCL_OK;
}

int remove(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "name|number");
        return TCL_ERROR;
    }
    return orva_buffers::remove(bufferNumber(objv[2])) ? TCL_OK : noSuchBuffer(interp, objv[2]);
}

int names(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
    for (const std::string& name : orva_buffers::names())
        Tcl_ListObjAppendElement(nullptr, list,
                                 Tcl_NewStringObj(name.data(), static_cast<int>(name.size())));
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

int bufferCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subcommands[] = {"create", "delete", "get", "names", nullptr};
    using Subcommand = int (*)(Tcl_Interp*, int, Tcl_Obj* const[]);
    static const Subcommand procs[] = {create, remove, get, names};
    if (objc < 2) {
        Tcl_WrongNumArgs(interp, 1, objv, "subcommand ?arg ...?");
        return TCL_ERROR;
    }
    int index = 0;
    if (Tcl_GetIndexFromObj(interp, objv[1], subcommands, "subcommand", 0, &index) != TCL_OK)
        return TCL_ERROR;
    // The store copies names and contents.
    return tclGuard(interp, [&] { return procs[index](interp, objc, objv); });
}

} // namespace

void registerBufferCommands(Tcl_Interp* interp) {
    Tcl_CreateObjCommand(interp, "::pytarn::buffer", bufferCmd, nullptr, nullptr);
}

} // namespace pytarnsh
