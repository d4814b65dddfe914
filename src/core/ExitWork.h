// Python's exit work when the host exits, and the end of a forked child.
#pragma once

namespace pytarn::exit_work {

// Main Tcl thread, in the exit handler before the Python thread stops: runs
// Python's atexit handlers and flushes Python's open files, carrying out
// their Tcl requests meanwhile, within a bound.
void run();
// A forked child's thread, lock held, when the request it was forked in has
// run (its error, if any, still set): ends the process as python3 would end
// it, with its exit code, exit work and output. Never returns.
[[noreturn]] void endForkedChild();

} // namespace pytarn::exit_work
