// The entry point and the Python thread's life.
#include "Bridge.h"
#include "PytarnCommands.h"
#include "ExitWork.h"
#include "Interrupts.h"
#include "Signals.h"

#include "convert/Guard.h"
#include "convert/PyErrors.h"
#include "modules/OrvantaMod.h"

#include <chrono>
#include <iostream>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace pytarn {

namespace {

void stopPythonThread();

// The Python thread is also stopped at static destruction (its objects never
// are, see event/State.cpp).
struct StopAtExit {
    StopAtExit() = default;
    StopAtExit(const StopAtExit&) = delete;
    StopAtExit& operator=(const StopAtExit&) = delete;
    ~StopAtExit() { stopPythonThread(); }
} stop_at_exit;

constexpr std::chrono::seconds load_wait_bound{1};
constexpr std::chrono::seconds idle_wait_bound{5};
// stopPythonThread(): how long Python code may run on before it is
// interrupted, and how long the host's exit waits for the thread at most.
constexpr std::chrono::milliseconds stop_grace{100};
constexpr std::chrono::milliseconds stop_bound{1000};
constexpr std::chrono::milliseconds stop_poll{20};
// How long an exit on another Tcl thread waits for the main one to take up
// the exit work.
constexpr std::chrono::seconds other_thread_bound{2};

bool load_called = false; // main Tcl thread only

// In a forked child nothing can cross to Tcl any more: calls return at once,
// as during shutdown, and output goes straight to the inherited descriptors.
void afterForkInChild() {
    python_thread.forked.store(true);
    python_thread.alive.store(false);
}

// Main Tcl thread: what Python printed and Tcl has not written yet goes out
// while the channels are still open, then Python's exit work runs.
void finishOnMainThread() {
    event::TclEventQueue::drainOutput();
    exit_work::run();
    event::TclEventQueue::drainOutput();
}

// Another Tcl thread exits the process (`exit` in a thread of the Thread
// package): the main Tcl thread owns the interpreter and the channels, so it
// does the exit work, and flushes its channels, which this thread's exit
// would not. A main thread that stays busy in Tcl code past the bound never
// takes the request; one that has taken it finishes it within exit work's
// own bounds.
void finishFromOtherThread() {
    event::TclEvent request(event::TclEvent::Asks::act);
    request.action = [](Tcl_Interp*, event::TclEvent*) {
        finishOnMainThread();
        for (int which : {TCL_STDOUT, TCL_STDERR})
            if (Tcl_Channel channel = Tcl_GetStdChannel(which)) Tcl_Flush(channel);
    };
    event_mgr->tcl_queue.push(&request);
    const auto taken_by = std::chrono::steady_clock::now() + other_thread_bound;
    for (;;) {
        std::uint64_t seen = notifier->generation();
        // Once `alive` is clear the main thread no longer touches the record.
        if (request.done.load() || !python_alive->load()) return;
        if (std::chrono::steady_clock::now() >= taken_by &&
            event_mgr->tcl_queue.remove(&request))
            return;
        notifier->waitChange(seen, stop_poll, [&] { return request.done.load(); });
    }
}

void remove(ClientData) {
    withoutExceptions(
        [] {
            if (python_alive->load()) {
                if (main_tcl_thread == Tcl_GetCurrentThread()) {
                    finishOnMainThread();
                    // An exit from inside requests: this thread never returns to them.
                    event_mgr->releaseCarried();
                } else if (main_tcl_thread) {
                    finishFromOtherThread();
                }
            }
            stopPythonThread();
        },
        [](bool) {});
}

// The host deleted the bridge's interpreter (a child interpreter it was
// loaded into, or a host that deletes its own). Its commands went with it;
// Python runs on, and its calls into Tcl fail from now on (see TclSide.cpp).
void interpDeleted(ClientData, Tcl_Interp*) {
    tcl_interp = nullptr;
    python_thread.interp_deleted.store(true);
    notifier->notifyAll();
}

// Raises SystemExit in the code that the Python thread runs, again each time
// that code catches it, until the thread ends. Runs on a thread of its own,
// never joined: taking the interpreter lock waits for as long as its holder
// keeps it, and the thread ends holding it for good.
void interruptPython() {
    const unsigned long target = python_thread.python_ident.load();
    for (;;) {
        std::uint64_t seen = notifier->generation();
        if (python_thread.finished.load()) return;
        PyGILState_STATE gil = PyGILState_Ensure();
        PyThreadState_SetAsyncExc(target, PyExc_SystemExit);
        PyGILState_Release(gil);
        notifier->waitChange(seen, stop_poll * 5);
    }
}

void registerCommands() {
    Tcl_CreateCommand(tcl_interp, "::python::eval", tcl_api::eval, nullptr, nullptr);
    Tcl_CreateCommand(tcl_interp, "::python::exec", tcl_api::exec, nullptr, nullptr);
    Tcl_CreateCommand(tcl_interp, "::python::check", tcl_api::check, nullptr, nullptr);
    Tcl_CreateCommand(tcl_interp, "::python::tabComplete", tcl_api::tabComplete, nullptr,
                      nullptr);
    Tcl_CreateCommand(tcl_interp, "::python::get", tcl_api::get, nullptr, nullptr);
    Tcl_CreateObjCommand(tcl_interp, "::python::set", tcl_api::set, nullptr, nullptr);
}

// The body of the Python thread: init, then service requests until `alive`
// is cleared.
void runPythonThread() {
    PythonThread& self = python_thread;
    self.python_ident.store(PyThread_get_thread_ident());
    self.event_mgr.python_queue.useAsOwn();
    // An exception here (start-up allocates) is a failed start, not the end
    // of the host's process.
    if (withoutExceptions([] { return init(); }, [](bool) { return 1; }) != 0) {
        std::cerr << "error loading pytarn\n";
        self.status = 1;
        self.alive.store(false);
    } else {
        self.status = 0;
    }
    self.ready.store(true);
    self.notifier.notifyAll();
    if (Py_IsInitialized()) {
        PyGILState_STATE gil = PyGILState_Ensure();
        event::PythonEventQueue& inbox = self.event_mgr.python_queue;
        auto ready = [&inbox] { return !inbox.looksEmpty(); };
        // As a Python thread waiting for Tcl (PythonEventQueue::waitFor).
        event::LockedWatch watch;
        for (;;) {
            std::uint64_t seen = self.notifier.generation();
            if (!inbox.looksEmpty()) {
                watch.hold();
                inbox.serviceAllEvents();
                continue;
            }
            if (!self.alive.load()) {
                // Closed, the inbox takes nothing more, and what came before is done.
                inbox.close();
                if (!inbox.empty()) continue;
                break;
            }
            watch.wait(self.notifier, inbox.owner, &self.event_mgr.tcl_queue.owner, seen,
                       idle_wait_bound, ready);
        }
        // Ends holding the lock: nothing may run Python after the bridge stops.
        watch.hold();
        PyGILState_Release(gil);
    }
    signals::release();
    self.finished.store(true);
    self.notifier.notifyAll();
}

// Clears `alive`, wakes every waiter and joins the thread. Python code that
// runs on regardless is interrupted; a thread that has still not ended after
// a bound (one blocked outside Python) is left behind, so that the host's exit
// never waits for it.
void stopPythonThread() {
    PythonThread& self = python_thread;
    if (self.forked.load()) return; // the thread was not copied into this child
    self.alive.store(false);
    self.notifier.notifyAll();
    if (!self.thread.joinable() || self.thread.get_id() == std::this_thread::get_id()) return;
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::uint64_t seen = self.notifier.generation();
        if (self.finished.load()) break;
        const auto waited = std::chrono::steady_clock::now() - start;
        if (waited >= stop_bound) {
            // Blocked outside Python (a sleep, a lock): the process ends
            // without it, and a later stop returns at once.
            self.thread.detach();
            return;
        }
        // Python code that never calls Tcl, or runs on after its Tcl calls
        // were abandoned, does not look at `alive`.
        if (waited >= stop_grace && !self.interrupting.exchange(true)) {
            try {
                std::thread(interruptPython).detach();
            } catch (const std::system_error&) {
                // Without it the bound below still ends the wait.
            }
        }
        self.notifier.waitChange(seen, stop_poll);
    }
    self.thread.join();
}

} // namespace

} // namespace pytarn

using namespace pytarn;

namespace {

int startBridge(Tcl_Interp* interp) {

    Tcl_CreateExitHandler(remove, nullptr);
    pthread_atfork(nullptr, nullptr, afterForkInChild);
    python_thread.end_forked_child = exit_work::endForkedChild;
    tcl_interp = interp;
    Tcl_CallWhenDeleted(interp, interpDeleted, nullptr);
    main_tcl_thread = Tcl_GetCurrentThread();
    Tcl_CreateNamespace(interp, "::python", nullptr, nullptr);
    buffer::findHostLibrary();
    python_thread.body = runPythonThread;
    try {
        python_thread.thread = std::thread(&PythonThread::run, &python_thread);
    } catch (const std::system_error&) {
        std::cerr << "error loading pytarn\n";
        python_thread.alive.store(false);
        return 1;
    }
    for (;;) {
        std::uint64_t seen = notifier->generation();
        event_mgr->tcl_queue.serviceAllEvents();
        if (python_thread.ready.load()) break;
        notifier->waitChange(event_mgr->tcl_queue.owner, &event_mgr->python_queue.owner, seen,
                             load_wait_bound,
                             [] { return !event_mgr->tcl_queue.looksEmpty(); });
    }
    // Registered here, on the interpreter's own thread, once start-up is done.
    if (python_thread.status == 0) {
        registerCommands();
        registerCallCommands(interp);
        interrupts::start(interp);
    }
    return python_thread.status;
}

} // namespace

extern "C" int load(Tcl_Interp* interp) {
    if (!Tcl_InitStubs(interp, "8.6", 0)) return 1;
    if (load_called) return python_thread.ready.load() ? python_thread.status : 1;
    load_called = true;
    return withoutExceptions([interp] { return startBridge(interp); },
                             [](bool) { return 1; });
}
