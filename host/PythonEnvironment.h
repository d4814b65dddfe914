// Python's view of the program that pytarnsh runs.
#pragma once

#include <tcl.h>

#include <cstddef>
#include <string>

namespace pytarnsh {

// Once the bridge has loaded, gives Python what `python3 script.py` gives a
// program: sys.argv is the host's argv0 and argv, the directory of the script
// being run leads sys.path, and an activated virtual environment's packages
// are importable. Failures are reported on stderr and leave the bridge usable.
void preparePython(Tcl_Interp* interp);

// A Python expression for the LENGTH bytes at DATA, whatever they hold:
// bytes.fromhex('...'), which needs no quoting.
std::string pythonBytes(const char* data, std::size_t length);

} // namespace pytarnsh
