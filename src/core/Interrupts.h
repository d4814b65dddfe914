// Interrupts of running requests: Pytarn_Interrupt, ::pytarn::interrupt and
// the thread that delivers them.
#pragma once

struct Tcl_Interp;

namespace pytarn::interrupts {

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

} // namespace pytarn::interrupts
