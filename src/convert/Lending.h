// Large values passed from the Tcl thread to a Python thread without a copy.
// Small ones go as a detached copy (DetachedCopy.cpp), which the Tcl thread
// makes and forgets. For a large one the copy costs more than the
// conversion itself, so the Tcl thread lends its own object instead and,
// until the Python thread has converted it, runs nothing: no Tcl code, no
// request from Python. The Python thread converts it before any Python code
// can run there, and no other Python thread runs meanwhile (it holds the
// interpreter lock throughout), so nothing can touch the object or wait on
// the Tcl thread until the lender is told that the value is taken.
#pragma once

#include "PyErrors.h"
#include "SmartObj.h"

namespace tcl_convert {

// Whether lending `value` beats copying it: a list or dict of more than a
// few hundred elements at its top level, or a text of more than a few KiB.
// Below that a copy costs less than the lender's wait. Tcl thread.
bool worthLending(Tcl_Obj* value);

// While one lives, the calling Python thread runs no Python code that the
// conversion of a lent value could set off: the cyclic collector, whose
// finalizers run Python code, is held off, and the errors that the
// conversion reports are kept (pytarn::HeldErrors). Interpreter lock held.
class NoPythonCode {
public:
    NoPythonCode();
    ~NoPythonCode() { end(); }
    NoPythonCode(const NoPythonCode&) = delete;
    NoPythonCode& operator=(const NoPythonCode&) = delete;
    // Back to normal, once the lender has been told: the collector as it
    // was, the kept errors printed.
    void end();

private:
    pytarn::HeldErrors held_;
    bool collecting_;
    bool ended_ = false;
};

} // namespace tcl_convert
