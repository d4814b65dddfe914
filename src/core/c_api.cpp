// C entry points for the host besides `load`.
#include "Bridge.h"

#include "convert/Guard.h"

namespace pytarn::c_api {

// Refuses at once, rather than queueing a request that no thread would carry
// out, when the interpreter is not (or no longer) running or the caller is not
// the main Tcl thread. `ready` is stored by the Python thread after `load` has
// recorded the interpreter and its thread, so once it reads true both globals
// may be read from any thread; before that, no interpreter is touched.
int createFunction(const char* first, const char* second) {
    if (!python_thread.ready.load()) return TCL_ERROR;
    if (Tcl_GetCurrentThread() != main_tcl_thread) return TCL_ERROR;
    Tcl_Interp* interp = tcl_interp;
    if (!interp) return TCL_ERROR; // the host deleted it
    return tclGuard(interp, [first, second] {
        event::PyEvent request(
            [first, second](PyObject*) { return python::createFunction(first, second); });
        return event_mgr->spin(&request); // sets "Python interpreter is not running" itself
    });
}

} // namespace pytarn::c_api

extern "C" int createFunction(const char* first, const char* second) {
    return pytarn::c_api::createFunction(first, second);
}
