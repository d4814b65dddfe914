#include "HostCommands.h"

namespace pytarnsh {

void registerBufferCommands(Tcl_Interp*) {}

} // namespace pytarnsh
