// The barrier at every entry point that Tcl or Python calls: a C++ exception
// (an allocation failure, above all) must never unwind through a frame of
// either interpreter, which are C and would be left half way through.
#pragma once

#include <tcl.h>

#include <new>

namespace pytarn {

// Runs `body` and returns what it returns. When it throws, returns
// `failed(out_of_memory)` instead; `failed` must not throw (it would end the
// process here rather than unwind into C).
template <typename Body, typename Failed>
auto withoutExceptions(Body&& body, Failed&& failed) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return failed(true);
    } catch (...) {
        return failed(false);
    }
}

// For a Tcl command procedure (or any function that returns a Tcl code and
// sets `interp`'s result): an exception becomes a Tcl error.
template <typename Body>
int tclGuard(Tcl_Interp* interp, Body&& body) noexcept {
    return withoutExceptions(body, [interp](bool out_of_memory) {
        Tcl_SetResult(interp,
                      const_cast<char*>(out_of_memory ? "out of memory"
                                                      : "internal error in pytarn"),
                      TCL_STATIC);
        Tcl_SetErrorCode(interp, "PYTARN", out_of_memory ? "NOMEMORY" : "INTERNAL", nullptr);
        return TCL_ERROR;
    });
}

} // namespace pytarn
