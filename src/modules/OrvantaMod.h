// The Orvanta module's link to the host's buffer library.
#pragma once

namespace pytarn {

namespace buffer {
// Looks up the host's buffer functions in the process; main Tcl thread, before
// the Python thread starts. Without them Orvanta's functions raise.
void findHostLibrary();
} // namespace buffer

} // namespace pytarn
