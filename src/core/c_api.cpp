// C entry points for the host besides `load`.
#include "Bridge.h"

namespace pytarn::c_api {

int createFunction(const char* first, const char* second) {
    if (!tcl_interp) return TCL_ERROR; // before `load`: no interpreter to report in
    event::PyEvent request([first, second] { return python::createFunction(first, second); });
    return event_mgr->spin(&request);
}

} // namespace pytarn::c_api

extern "C" int createFunction(const char* first, const char* second) {
    return pytarn::c_api::createFunction(first, second);
}
