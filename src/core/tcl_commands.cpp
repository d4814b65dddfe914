// The ::python:: command procedures. Each builds its request on its own
// stack, hands it to the Python side and waits (EventMgr::spin).
#include "Bridge.h"

#include "convert/Guard.h"
#include "convert/Lending.h"
#include "convert/TclConvert.h"

#include <string>

namespace pytarn::tcl_api {

namespace {

using event::PyEvent;

const char* const invalid_parameters = "Invalid Parameters";

int invalid(Tcl_Interp* interp) {
    Tcl_SetResult(interp, const_cast<char*>(invalid_parameters), TCL_STATIC);
    Tcl_SetErrorCode(interp, "TCL", "WRONGARGS", nullptr); // as Tcl's own commands
    return TCL_ERROR;
}

// The words after the command name joined by single blanks.
std::string joinWords(int argc, const char** argv) {
    std::string code;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) code += ' ';
        code += argv[i];
    }
    return code;
}

int runText(PyObject* (*work)(const char*), const char* text) {
    PyEvent request([work, text](PyObject*) { return work(text); });
    return event_mgr->spin(&request);
}

} // namespace

int eval(void*, Tcl_Interp* interp, int argc, const char** argv) {
    if (argc <= 1) return TCL_OK;
    return tclGuard(interp, [&] {
        std::string code = joinWords(argc, argv);
        return runText(python::eval, code.c_str());
    });
}

int exec(void*, Tcl_Interp* interp, int argc, const char** argv) {
    return tclGuard(interp, [&] {
        std::string code = joinWords(argc, argv);
        return runText(python::exec, code.c_str());
    });
}

int check(void*, Tcl_Interp* interp, int argc, const char** argv) {
    if (argc != 2) return invalid(interp);
    return tclGuard(interp, [&] { return runText(python::check, argv[1]); });
}

int tabComplete(void*, Tcl_Interp* interp, int argc, const char** argv) {
    if (argc != 2) return invalid(interp);
    return tclGuard(interp, [&] { return runText(python::tabComplete, argv[1]); });
}

int get(void*, Tcl_Interp* interp, int argc, const char** argv) {
    if (argc != 2) return invalid(interp);
    return tclGuard(interp, [&] { return runText(python::get, argv[1]); });
}

int set(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) return invalid(interp);
    return tclGuard(interp, [&] {
        // The Python side reads a value that no Tcl code touches while it
        // does: a short one inside the request, a private copy, or for a
        // large one the original, lent while the Tcl thread waits (Lending.h).
        Tcl_Obj* original = objv[2];
        PyEvent request(nullptr);
        const bool lend = event_mgr->mayLend() && tcl_convert::worthLending(original);
        SmartTclObj value;
        if (lend || !tcl_convert::toScalar(original, &request.argument_scalar))
            value = lend ? original : tcl_convert::detachedCopy(original);
        // The name's own text, rather than a copy that this thread writes at
        // every call: no Tcl code can change it while the command runs, as the
        // word is shared (a literal) or held by this command alone.
        const char* target = Tcl_GetString(objv[1]);
        request.func = [target](PyObject* converted) { return python::set(target, converted); };
        request.has_argument = true;
        request.lends = lend;
        request.argument = value.get();
        return event_mgr->spin(&request);
    });
}

} // namespace pytarn::tcl_api
