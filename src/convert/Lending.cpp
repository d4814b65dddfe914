#include "Lending.h"

#include "TclConvert.h"

namespace tcl_convert {

namespace {
// Past these a copy costs several microseconds, more than the lender's
// extra hand-shake; below them values stay on the path where the Tcl thread
// never waits without serving requests.
constexpr int lend_elements = 128;
constexpr int lend_bytes = 8 * 1024;
} // namespace

bool worthLending(Tcl_Obj* value) {
    int count = 0;
    if (value->typePtr && value->typePtr == listType())
        return Tcl_ListObjLength(nullptr, value, &count) == TCL_OK && count > lend_elements;
    if (value->typePtr && value->typePtr == dictType())
        return Tcl_DictObjSize(nullptr, value, &count) == TCL_OK && count > lend_elements;
    // A value without text (a number Tcl computed) is small.
    return value->bytes && value->length > lend_bytes;
}

NoPythonCode::NoPythonCode() : collecting_(PyGC_Disable() != 0) {}

void NoPythonCode::end() {
    if (ended_) return;
    ended_ = true;
    if (collecting_) PyGC_Enable();
    held_.printHeld();
}

} // namespace tcl_convert
