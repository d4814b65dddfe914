// Python's environment beyond the bootstrap script: interrupts of running
// requests and Python's exit work when the host exits (the text streams are
// modules/StreamsMod.h).
#pragma once

#include "Bridge.h"

namespace pytarn {

// Runs on the Python thread straight after the bootstrap script, lock held.
// What fails is printed; the bootstrap's set-up then stays as it was.
void setUpEnvironment();

namespace interrupts {
// Python thread, lock held: lets Python raise KeyboardInterrupt for an
// interrupt although it installed no SIGINT handler; the process's own
// handling of SIGINT is left as the host set it.
bool prepare();
// Main Tcl thread, once start-up has succeeded: starts the thread that
// delivers interrupts and registers ::pytarn::interrupt in `interp`.
void start(Tcl_Interp* interp);
// Registers ::pytarn::interrupt in an interpreter of any thread.
void registerCommand(Tcl_Interp* interp);
// Asks for the innermost running request to be interrupted; any thread and
// signal handlers. True when a request was running (Pytarn_Interrupt).
bool request();
} // namespace interrupts

namespace exit_work {
// Main Tcl thread, in the exit handler before the Python thread stops: runs
// Python's atexit handlers and flushes Python's open files, carrying out
// their Tcl requests meanwhile, within a bound.
void run();
// A forked child's thread, lock held, when the request it was forked in has
// run (its error, if any, still set): ends the process as python3 would end
// it, with its exit code, exit work and output. Never returns.
[[noreturn]] void endForkedChild();
} // namespace exit_work

} // namespace pytarn
