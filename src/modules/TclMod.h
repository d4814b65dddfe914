// TclMod's ways into Tcl, shared with the bridge's other built-in modules.
// Python thread, interpreter lock held.
#pragma once

#include "event/Event.h"

#include <cstddef>

namespace pytarn::python_api {

// Every call into Tcl goes through here. In a forked child it does nothing
// and returns None, as during shutdown; what the child printed before still
// comes out first, so that flush() (which calls Tcl) works there too.
PyObject* cross(event::TclEvent* request);

// Writes `length` bytes of UTF-8 text (NUL-terminated there) to Tcl's stdout
// or stderr channel, in order with everything else this thread asks of Tcl;
// mostly without waiting (see event/OutputQueue.h). False with a Python error
// set when it failed; with `report`, a write to the channel that failed
// since its last write or flush fails this one (see raisedWriteFailure).
bool output(bool to_stderr, const char* text, std::size_t length, bool report);

// The UTF-8 text of the str TEXT for output, its length in bytes in LENGTH;
// null, with ValueError set, when it holds a NUL, which Tcl's channels would
// take as its end (or with the encoding's error set, a lone surrogate).
const char* outputText(PyObject* text, std::size_t* length);

// Raises the channel's failed write as OSError (BrokenPipeError and so on by
// its errno) and returns true; false, with nothing raised, when none waits.
bool raisedWriteFailure(bool to_stderr);

} // namespace pytarn::python_api
