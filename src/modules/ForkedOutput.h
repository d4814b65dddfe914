// Output of a process forked from the host (multiprocessing, os.fork). No Tcl
// thread lives on in such a child, so its text goes straight to the
// descriptors that the host's stdout and stderr channels write to, a line at a
// time, as a line-buffered standalone Python would write it: lines from
// several children do not break into each other. Called with the Python lock
// held, which guards the buffers.
#pragma once

#include <cstddef>

namespace pytarn::python_api::forked {

// Keeps `text` until a line ends, then writes the waiting lines at once.
void write(bool to_stderr, const char* text, std::size_t length);
// Writes whatever waits, ended line or not.
void flush();

} // namespace pytarn::python_api::forked
