#include "TestEnv.h"

bool pytarn_test::initTclStubs(Tcl_Interp* interp) {
    return Tcl_InitStubs(interp, "8.6", 0) != nullptr;
}
