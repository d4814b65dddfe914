// ::pytarn::call CALLABLE ?ARG ...? and ::pytarn::createFunction NAME
// ?EXPRESSION?: Python callables called with Tcl words as their arguments,
// no source text pasted together.
#include "PytarnCommands.h"

#include "modules/PythonCommand.h"

#include "convert/Guard.h"

#include <cstring>
#include <string>

namespace pytarn {

namespace {

int callCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 2) {
        Tcl_WrongNumArgs(interp, 1, objv, "callable ?arg ...?");
        return TCL_ERROR;
    }
    return tclGuard(interp, [&] {
        // The word's own text, not a copy that this thread would write at
        // every call: no Tcl code can change it while the command runs, as
        // the word is shared (a literal) or held by this command alone. Tcl's
        // text has no NUL byte, so its length is found again there; the work
        // keeps to two pointers, which the request holds without allocating.
        const char* path = Tcl_GetString(objv[1]);
        event::PyEvent request(nullptr);
        CallWords words(objc - 2, objv + 2, &request);
        request.func = [path, &request](PyObject*) -> PyObject* {
            SmartPyObj target(lookUpDotted(path, static_cast<int>(std::strlen(path))));
            return target ? CallWords::callWith(request, target.get()) : nullptr;
        };
        return event_mgr->spin(&request);
    });
}

int createFunctionCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 2 || objc > 3) {
        Tcl_WrongNumArgs(interp, 1, objv, "name ?expression?");
        return TCL_ERROR;
    }
    return tclGuard(interp, [&] {
        const std::string name = Tcl_GetString(objv[1]);
        const std::string expression = objc == 3 ? Tcl_GetString(objv[2]) : "";
        PythonCommand* command = nullptr;
        event::PyEvent request([&](PyObject*) -> PyObject* {
            command = PythonCommand::forExpression(name.c_str(), expression.c_str());
            if (!command) return nullptr;
            Py_RETURN_NONE;
        });
        const int code = event_mgr->spin(&request);
        if (code != TCL_OK || !command) return code;
        if (!command->install(interp, name.c_str())) {
            event::PyEvent release([command](PyObject*) -> PyObject* {
                command->releasePython();
                delete command;
                Py_RETURN_NONE;
            });
            Tcl_InterpState saved = Tcl_SaveInterpState(interp, TCL_ERROR);
            event_mgr->spin(&release);
            return Tcl_RestoreInterpState(interp, saved);
        }
        Tcl_ResetResult(interp);
        return TCL_OK;
    });
}

} // namespace

void registerCallCommands(Tcl_Interp* interp) {
    Tcl_CreateObjCommand(interp, "::pytarn::call", callCmd, nullptr, nullptr);
    Tcl_CreateObjCommand(interp, "::pytarn::createFunction", createFunctionCmd, nullptr,
                         nullptr);
}

} // namespace pytarn
