// The C entry that makes an activated virtual environment's packages
// importable. The library's own start-up stays fixed; hosts call this after
// `load`: the package entry does, and so does pytarnsh.
#include "Bridge.h"

#include "modules/EnvironmentMod.h"

#include <cstdlib>
#include <string>

extern "C" int Pytarn_UseVirtualEnv(Tcl_Interp* interp) {
    using namespace pytarn;
    const char* dir = std::getenv("VIRTUAL_ENV");
    if (!dir || !*dir) return TCL_OK;
    if (!pythonRunning() || interp != tcl_interp || Tcl_GetCurrentThread() != main_tcl_thread) {
        Tcl_SetResult(interp,
                      const_cast<char*>("pytarn: a virtual environment needs the bridge "
                                        "loaded into this interpreter, on its thread"),
                      TCL_STATIC);
        return TCL_ERROR;
    }
    const std::string path(dir);
    event::PyEvent request([&path](PyObject*) { return environment::useVirtualEnv(path.c_str()); });
    const int code = event_mgr->spin(&request);
    if (code == TCL_OK) Tcl_ResetResult(interp);
    return code;
}
