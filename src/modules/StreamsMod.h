// sys.stdout and sys.stderr as text streams over the host's Tcl channels.
#pragma once

#include "event/State.h"

namespace pytarn::streams {
// Python thread, lock held: the built-in module _pytarn_streams.
PyObject* initModule();
// Python thread, lock held: makes sys.stdout and sys.stderr TclStream
// objects; false with an error set.
bool install();
} // namespace pytarn::streams
