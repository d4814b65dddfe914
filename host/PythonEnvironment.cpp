#include "PythonEnvironment.h"

#include "pytarn.h"

#include <string>

namespace pytarnsh {

namespace {

// A Python expression for the Tcl text TEXT in the system's encoding, decoded
// as Python decodes its own command line.
std::string nativeText(Tcl_Obj* text) {
    Tcl_DString native;
    Tcl_UtfToExternalDString(nullptr, Tcl_GetString(text), -1, &native);
    const std::string bytes = pythonBytes(Tcl_DStringValue(&native),
                                          static_cast<std::size_t>(Tcl_DStringLength(&native)));
    Tcl_DStringFree(&native);
    return "os.fsdecode(" + bytes + ")";
}

// The bridge writes its own start-up failures alike; a host sees only include/, so keeps its own.
void report(Tcl_Interp* interp) {
    if (Tcl_Channel err = Tcl_GetStdChannel(TCL_STDERR)) {
        Tcl_Obj* message = Tcl_ObjPrintf("pytarnsh: %s\n", Tcl_GetStringResult(interp));
        Tcl_IncrRefCount(message);
        Tcl_WriteObj(err, message);
        Tcl_DecrRefCount(message);
    }
    Tcl_ResetResult(interp);
}

// The Python code that sets sys.argv and, when a script runs, its directory.
std::string argumentsCode(Tcl_Interp* interp) {
    std::string code = "def __pytarnsh_prepare():\n    import os, sys\n    sys.argv = [";
    if (Tcl_Obj* argv0 = Tcl_GetVar2Ex(interp, "argv0", nullptr, TCL_GLOBAL_ONLY))
        code += nativeText(argv0);
    int count = 0;
    Tcl_Obj** words = nullptr;
    Tcl_Obj* argv = Tcl_GetVar2Ex(interp, "argv", nullptr, TCL_GLOBAL_ONLY);
    if (argv && Tcl_ListObjGetElements(nullptr, argv, &count, &words) == TCL_OK) {
        for (int i = 0; i < count; ++i) code += ", " + nativeText(words[i]);
    }
    code += "]\n";
    // As python3 does for its script: the real directory, ahead of the rest.
    if (Tcl_Obj* script = Tcl_GetStartupScript(nullptr))
        code += "    sys.path.insert(0, os.path.dirname(os.path.realpath(" + nativeText(script) +
                ")))\n";
    return code + "__pytarnsh_prepare()\ndel __pytarnsh_prepare\n";
}

} // namespace

std::string pythonBytes(const char* data, std::size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return "bytes.fromhex('" + hex + "')";
}

void preparePython(Tcl_Interp* interp) {
    Tcl_Obj* words[] = {Tcl_NewStringObj("::python::exec", -1),
                        Tcl_NewStringObj(argumentsCode(interp).c_str(), -1)};
    for (Tcl_Obj* word : words) Tcl_IncrRefCount(word);
    if (Tcl_EvalObjv(interp, 2, words, TCL_EVAL_GLOBAL) != TCL_OK) report(interp);
    for (Tcl_Obj* word : words) Tcl_DecrRefCount(word);
    Tcl_ResetResult(interp);
    if (Pytarn_UseVirtualEnv(interp) != TCL_OK) report(interp);
}

} // namespace pytarnsh
