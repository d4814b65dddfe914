// Interrupting the running Python request: KeyboardInterrupt in the code that
// the Tcl thread waits for, on whichever Python thread runs it.
//
// A request to interrupt only marks the innermost call (RunningCalls, lock-free,
// so hosts may ask from a signal handler) and posts a semaphore. A thread of
// our own then takes the interpreter lock, finds the thread running the call
// and raises KeyboardInterrupt there: on Python's main thread (the bridge's
// own) through Python's SIGINT flag, which also ends a time.sleep or a
// blocking read, and on another thread as an asynchronous exception. A signal
// sent to that thread wakes its blocked system call; on the main thread its
// handler raises the flag, since Python heeds it only from the main thread.
#include "Interrupts.h"
#include "Bridge.h"

#include <semaphore.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <system_error>

namespace pytarn::interrupts {

namespace {

sem_t pending;                   // posted once per request
std::atomic<bool> started{false}; // `pending` is initialised and has a reader

// Not SIGINT: the host decides what Ctrl-C does to the process. This signal's
// handler ends a blocked system call of the thread it is sent to; it is
// installed at the first interrupt, and only if nobody uses the signal.
int wakeSignal() { return SIGRTMAX - 3; }

// Set for the next wake-up of Python's main thread: Python's signal flag is
// raised there, by the thread that looks at it.
std::atomic<bool> interrupt_main{false};
// How long the main thread's handler may take to run (a thread blocked in the
// kernel runs it at once).
constexpr std::chrono::milliseconds handler_bound{100};
// A wake-up that lands just before the thread enters a blocking call (it let
// go of the lock on its way into time.sleep) finds no call to end: Python's
// flag is raised, but the thread then sleeps on without looking at it. So the
// thread is woken again, at these intervals, while the call runs on. A
// needless wake-up only restarts a call, which Python resumes by itself.
constexpr int rewake_interval_ms = 20;
constexpr int rewake_rounds = 100;

void onWake(int) {
    if (interrupt_main.exchange(false)) PyErr_SetInterruptEx(SIGINT);
}

bool wakeHandlerReady() {
    static int state = 0; // delivery thread only: 1 installed, -1 unavailable
    if (state == 0) {
        struct sigaction current {};
        state = -1;
        if (sigaction(wakeSignal(), nullptr, &current) == 0 &&
            !(current.sa_flags & SA_SIGINFO) && current.sa_handler == SIG_DFL) {
            struct sigaction wake {};
            wake.sa_handler = onWake;
            sigemptyset(&wake.sa_mask);
            wake.sa_flags = 0; // no SA_RESTART: the blocked call must return
            if (sigaction(wakeSignal(), &wake, nullptr) == 0) state = 1;
        }
    }
    return state == 1;
}

using Target = event::RunningCalls::Target;

Target deliver() {
    PyGILState_STATE gil = PyGILState_Ensure();
    const Target target = event_mgr->calls.takeMark();
    const bool onMain = target.ident == python_thread.python_ident.load();
    if (target.kind == Target::running && !onMain)
        PyThreadState_SetAsyncExc(target.ident, PyExc_KeyboardInterrupt);
    if (target.kind == Target::running && wakeHandlerReady()) {
        // The lock is kept until the handler has run: the main thread then
        // takes it afresh, and on the way sees the flag that the handler
        // raised, whatever other threads did meanwhile.
        interrupt_main.store(onMain);
        if (pthread_kill(target.thread, wakeSignal()) != 0) interrupt_main.store(false);
        const auto until = std::chrono::steady_clock::now() + handler_bound;
        while (interrupt_main.load() && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
    }
    if (interrupt_main.exchange(false) || (target.kind == Target::running && onMain &&
                                           !wakeHandlerReady()))
        PyErr_SetInterruptEx(SIGINT); // seen when the main thread takes the lock
    PyGILState_Release(gil);
    return target;
}

// Wakes the thread of a call that still runs; false once it has ended. With
// the lock held the call cannot end meanwhile, so the thread is alive.
bool rewake(const Target& target) {
    PyGILState_STATE gil = PyGILState_Ensure();
    const bool running = event_mgr->calls.stillRunning(target);
    if (running) pthread_kill(target.thread, wakeSignal());
    PyGILState_Release(gil);
    return running;
}

// True when a new request was posted within `ms` (and taken).
bool requestWithin(int ms) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += static_cast<long>(ms) * 1000000L;
    deadline.tv_sec += deadline.tv_nsec / 1000000000L;
    deadline.tv_nsec %= 1000000000L;
    while (sem_clockwait(&pending, CLOCK_MONOTONIC, &deadline) != 0)
        if (errno != EINTR) return false;
    return true;
}

// Never joined: once the bridge has stopped, the interpreter lock is never
// given back, and the thread then waits for it until the process ends.
void deliveryLoop() {
    bool posted = false; // a request already taken while waking a thread
    for (;;) {
        if (!posted && sem_wait(&pending) != 0) {
            if (errno == EINTR) continue;
            return;
        }
        posted = false;
        if (python_thread.finished.load()) continue;
        const Target target = deliver();
        if (target.kind != Target::running || !wakeHandlerReady()) continue;
        for (int round = 0; round < rewake_rounds; ++round) {
            if ((posted = requestWithin(rewake_interval_ms))) break;
            if (python_thread.finished.load() || !rewake(target)) break;
        }
    }
}

int interruptCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 1) {
        Tcl_WrongNumArgs(interp, 1, objv, nullptr);
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, Tcl_NewBooleanObj(request()));
    return TCL_OK;
}

} // namespace

bool prepare() {
    // Python's SIGINT slot gets default_int_handler, as in python3, so that
    // PyErr_SetInterruptEx raises KeyboardInterrupt. signal.signal installs
    // Python's own C handler on the way, and the host's is put straight back.
    struct sigaction host {};
    if (sigaction(SIGINT, nullptr, &host) != 0) return true;
    SmartPyObj signalModule(PyImport_ImportModule("signal"));
    SmartPyObj handler(signalModule ? PyObject_GetAttrString(signalModule.get(),
                                                             "default_int_handler")
                                    : nullptr);
    SmartPyObj previous(handler ? PyObject_CallMethod(signalModule.get(), "signal", "iO",
                                                      SIGINT, handler.get())
                                : nullptr);
    sigaction(SIGINT, &host, nullptr);
    return static_cast<bool>(previous);
}

void start(Tcl_Interp* interp) {
    registerCommand(interp);
    if (started.load() || sem_init(&pending, 0, 0) != 0) return;
    try {
        std::thread(deliveryLoop).detach();
    } catch (const std::system_error&) {
        sem_destroy(&pending);
        return; // interrupts are refused: request() returns false
    }
    started.store(true);
}

void registerCommand(Tcl_Interp* interp) {
    if (!Tcl_FindNamespace(interp, "::pytarn", nullptr, 0))
        Tcl_CreateNamespace(interp, "::pytarn", nullptr, nullptr);
    Tcl_CreateObjCommand(interp, "::pytarn::interrupt", interruptCmd, nullptr, nullptr);
}

bool request() {
    if (python_thread.forked.load()) {
        // A forked child's only thread is Python's main thread: its own
        // SIGINT handling applies, as in a child of python3.
        PyErr_SetInterruptEx(SIGINT);
        return true;
    }
    if (!started.load() || !event_mgr->calls.markInnermost()) return false;
    sem_post(&pending);
    return true;
}

} // namespace pytarn::interrupts

extern "C" int Pytarn_Interrupt(void) { return pytarn::interrupts::request() ? 1 : 0; }
