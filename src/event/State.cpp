// The process-wide objects that State.h declares.
#include "State.h"

namespace pytarn {

// Neither object is ever destroyed: daemon threads started by Python code may
// still sit in the thread object's queues and waits while the process exits,
// and the cached Python objects may only be released with the interpreter
// lock, which the ended Python thread keeps.
PythonState& python_state = *new PythonState;
PythonThread& python_thread = *new PythonThread;
event::Notifier* const notifier = &python_thread.notifier;
event::EventMgr* const event_mgr = &python_thread.event_mgr;
std::atomic<bool>* const python_alive = &python_thread.alive;
Tcl_ThreadId main_tcl_thread = nullptr;
Tcl_Interp* tcl_interp = nullptr;

} // namespace pytarn
