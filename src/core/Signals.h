// Process signals that Python code handles, in a host whose threads are not
// Python's: Python runs its handlers on its main thread, the bridge's own, and
// a blocking call there ends early only when the signal reaches that thread.
#pragma once

namespace pytarn::signals {

// Python's main thread, interpreter lock held, after the bootstrap. From now
// on signal.signal puts a forwarding handler in front of the one Python
// installs, so that a signal that reaches any other thread is sent on to
// Python's main thread; a signal that Python hands back (SIG_DFL, or SIGINT's
// default_int_handler) gets the disposition that the host had given it.
// False with a Python error set.
bool install();

// Python's main thread, as it ends: signals are no longer sent on to it.
// Returns once no handler is still sending one.
void release();

} // namespace pytarn::signals
