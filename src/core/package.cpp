// The Tcl package entry point, for `package require pytarn` in any Tcl 8.6
// shell. The package's installation root is the directory its library was
// loaded from; `load` runs with that directory as the working directory, as
// pytarnsh runs it, and the caller's directory is restored straight after.
#include "Bridge.h"
#include "Interrupts.h"

#include "convert/Guard.h"

#include <dlfcn.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <string>

namespace pytarn {

namespace {

// The directory of this library's file, as native text; empty when unknown.
std::string libraryDirectory() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&Pytarn_Init), &info) || !info.dli_fname) return {};
    std::error_code ec;
    std::filesystem::path file = std::filesystem::absolute(info.dli_fname, ec);
    return ec ? std::string() : file.parent_path().string();
}

// Python's compiled standard modules (lib-dynload) take the interpreter's symbols
// from the process's global scope, where a library that Tcl loaded privately does
// not put its dependencies: make the Python library global before it starts.
void exposePythonSymbols() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&Py_IsInitialized), &info) && info.dli_fname)
        dlopen(info.dli_fname, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD); // kept for good
}

int fail(Tcl_Interp* interp, const char* code, Tcl_Obj* message) {
    Tcl_SetObjResult(interp, message);
    Tcl_SetErrorCode(interp, "PYTARN", code, nullptr);
    return TCL_ERROR;
}

// An activated virtual environment's packages come after start-up, which stays
// the same for every host. A failure leaves the bridge usable and is reported
// on stderr (pytarnsh writes its own failures alike, with its own copy of this).
void useVirtualEnv(Tcl_Interp* interp) {
    if (Pytarn_UseVirtualEnv(interp) == TCL_OK) return;
    if (Tcl_Channel err = Tcl_GetStdChannel(TCL_STDERR)) {
        Tcl_Obj* message = Tcl_ObjPrintf("%s\n", Tcl_GetStringResult(interp));
        Tcl_IncrRefCount(message);
        Tcl_WriteObj(err, message);
        Tcl_DecrRefCount(message);
    }
    Tcl_ResetResult(interp);
}

int loadPackage(Tcl_Interp* interp) {
    if (pythonRunning() && Tcl_GetCurrentThread() != main_tcl_thread) {
        // An interpreter of another thread: the bridge belongs to the main
        // one, and this one gets the commands that any thread may use.
        interrupts::registerCommand(interp);
        return Tcl_PkgProvideEx(interp, "pytarn", PYTARN_VERSION, nullptr);
    }
    const std::string native = libraryDirectory();
    if (native.empty())
        return fail(interp, "ROOT",
                    Tcl_NewStringObj("pytarn: cannot find the directory it was loaded from", -1));
    Tcl_DString text;
    Tcl_ExternalToUtfDString(nullptr, native.c_str(), -1, &text);
    Tcl_Obj* root = Tcl_NewStringObj(Tcl_DStringValue(&text), Tcl_DStringLength(&text));
    Tcl_DStringFree(&text);
    Tcl_IncrRefCount(root);

    Tcl_Obj* callerDir = Tcl_FSGetCwd(interp);
    if (!callerDir || Tcl_FSChdir(root) != 0) {
        const int error = errno;
        Tcl_Obj* message = Tcl_ObjPrintf("pytarn: cannot enter its installation root \"%s\": %s",
                                         Tcl_GetString(root), Tcl_ErrnoMsg(error));
        if (callerDir) Tcl_DecrRefCount(callerDir);
        Tcl_DecrRefCount(root);
        return fail(interp, "ROOT", message);
    }
    exposePythonSymbols();
    const int status = load(interp);
    Tcl_FSChdir(callerDir);
    Tcl_DecrRefCount(callerDir);

    int code = TCL_OK;
    if (status != 0) {
        code = fail(interp, "LOAD",
                    Tcl_ObjPrintf("pytarn: Python did not start from the installation root "
                                  "\"%s\" (the reasons are on stderr)",
                                  Tcl_GetString(root)));
    } else if (python_thread.interp_deleted.load()) {
        // Its commands went with that interpreter; Python cannot be started twice.
        code = fail(interp, "DELETED",
                    Tcl_NewStringObj("pytarn: its interpreter was deleted", -1));
    } else if (tcl_interp != interp) {
        // One interpreter per process owns the bridge and its commands.
        code = fail(interp, "INTERP",
                    Tcl_NewStringObj("pytarn: already loaded into another interpreter", -1));
    } else {
        useVirtualEnv(interp);
        code = Tcl_PkgProvideEx(interp, "pytarn", PYTARN_VERSION, nullptr);
    }
    Tcl_DecrRefCount(root);
    return code;
}

} // namespace

} // namespace pytarn

extern "C" int Pytarn_Init(Tcl_Interp* interp) {
    if (!Tcl_InitStubs(interp, "8.6", 0)) return TCL_ERROR;
    return pytarn::tclGuard(interp, [interp] { return pytarn::loadPackage(interp); });
}
