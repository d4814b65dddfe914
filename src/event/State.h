// The bridge's process-wide state: the Python thread's flags and transport,
// the cached Python objects and the globals through which every part reaches
// them (defined in State.cpp). The transport and the layers above read it;
// the lifecycle (src/core) drives the thread.
#pragma once

#include "Event.h"

#include <pytarn.h>

#include <atomic>
#include <thread>

namespace pytarn {

// Objects cached by init; written only by init and never released: the
// interpreter is never finalised, and at exit no thread may run Python any
// more, so a release (which may run a deallocator or __del__) has no thread
// to run on. The one instance is never destroyed.
class PythonState {
public:
    PythonState() = default;
    PythonState(const PythonState&) = delete;
    PythonState& operator=(const PythonState&) = delete;

    SmartPyObj main_dict;
    SmartPyObj tcl;
    SmartPyObj tcl_error;
    SmartPyObj shell;
    SmartPyObj complete_expression;
    SmartPyObj tab_complete;
    SmartPyObj make_function;
};

class PythonThread {
public:
    PythonThread() = default;
    PythonThread(const PythonThread&) = delete;
    PythonThread& operator=(const PythonThread&) = delete;

    // The thread's function: runs `body`, which the lifecycle installs
    // before it starts the thread.
    void run() { body(); }
    void (*body)() = nullptr;

    std::thread thread;
    std::atomic<bool> alive{true};
    // This process is a fork of the host (multiprocessing, os.fork): only the
    // forking thread lives on, and no Tcl thread will ever serve a request.
    std::atomic<bool> forked{false};
    // Set by the lifecycle: ends a forked child once the request it was
    // forked in has run, with that request's error still set.
    void (*end_forked_child)() = nullptr;
    std::atomic<bool> ready{false};
    std::atomic<bool> finished{false};        // the body will run no more Python
    std::atomic<unsigned long> python_ident{0}; // the thread's Python identity
    std::atomic<bool> interrupting{false};      // the stop has begun interrupting
    // The host deleted the interpreter the bridge was loaded into: Python
    // lives on, its calls into Tcl fail. Set on the main Tcl thread.
    std::atomic<bool> interp_deleted{false};
    int status = 0; // published by the store to `ready`
    event::Notifier notifier;
    event::EventMgr event_mgr;
};

extern PythonState& python_state;
extern PythonThread& python_thread;
extern event::Notifier* const notifier;
extern event::EventMgr* const event_mgr;
extern std::atomic<bool>* const python_alive;
extern Tcl_ThreadId main_tcl_thread;
// The interpreter given to `load`; null once the host has deleted it. Read
// and written only on the main Tcl thread.
extern Tcl_Interp* tcl_interp;

// True while requests for Python can be carried out: start-up succeeded and
// shutdown has not begun.
inline bool pythonRunning() {
    return python_thread.ready.load() && python_thread.status == 0 && python_thread.alive.load();
}

} // namespace pytarn
