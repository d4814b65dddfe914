// Python's view of the program that pytarnsh runs.
#pragma once

#include <tcl.h>

namespace pytarnsh {

// Once the bridge has loaded, gives Python what `python3 script.py` gives a
// program: sys.argv is the host's argv0 and argv, the directory of the script
// being run leads sys.path, and an activated virtual environment's packages
// are importable. Failures are reported on stderr and leave the bridge usable.
void preparePython(Tcl_Interp* interp);

} // namespace pytarnsh
