// The one source of core_bench compiled with USE_TCL_STUBS: the bridge's
// objects reach Tcl through the stubs table, which only such a source fills.
#include <tcl.h>

bool initBenchStubs(Tcl_Interp* interp) { return Tcl_InitStubs(interp, "8.6", 0) != nullptr; }
