// Signals that Python code claims with signal.signal (see Signals.h).
//
// The kernel gives a signal sent to the process to any thread that does not
// block it, in a host most often its main thread, the Tcl one. Python's own C
// handler only records the signal there, so time.sleep, a lock's wait or a
// read on Python's main thread sleeps on. The forwarding handler put in front
// of Python's sends the signal on to Python's main thread (pthread_kill is
// async-signal-safe); there it calls Python's handler, and the blocking call
// returns early, as in python3.
//
// Python claims a signal by giving it a handler or SIG_IGN; the host's
// disposition from before the first claim is kept until Python hands the
// signal back, and then it returns. Signals that Python never claims are
// never touched. The claims change only on Python's main thread, which alone
// may call signal.signal; signal handlers read the atomics below only.
#include "Signals.h"

#include "convert/PyErrors.h"
#include "convert/SmartObj.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace pytarn::signals {

namespace {

using Handler = void (*)(int);
static_assert(std::atomic<Handler>::is_always_lock_free, "read in signal handlers");
static_assert(std::atomic<pthread_t>::is_always_lock_free, "read in signal handlers");

// Python's C handler of each signal that it claimed with a handler, else null.
std::atomic<Handler> python_handler[NSIG];
std::atomic<pthread_t> python_main{};
// Python's main thread lives and takes signals; false in a forked child too.
std::atomic<bool> forwarding{false};
// Handlers that saw `forwarding` set and may not have sent their signal yet.
std::atomic<int> sending{0};

// Python's main thread only.
struct Claim {
    bool held = false;
    struct sigaction host {}; // the disposition before Python claimed it
};
Claim claims[NSIG];

void forward(int signum) {
    const int saved_errno = errno;
    bool sent = false;
    sending.fetch_add(1);
    if (forwarding.load()) {
        const pthread_t target = python_main.load();
        sent = !pthread_equal(pthread_self(), target) && pthread_kill(target, signum) == 0;
    }
    sending.fetch_sub(1);
    const Handler handler = python_handler[signum].load();
    if (!sent && handler) handler(signum);
    errno = saved_errno;
}

// The only thread of a forked child is Python's main thread there, or a
// thread that is about to run another program.
void afterForkInChild() {
    forwarding.store(false);
    sending.store(0);
}

// A fault comes back when its handler returns, on the thread that made it:
// sent elsewhere it would come back again and again. Python's handler stays.
bool synchronous(int signum) {
    return signum == SIGSEGV || signum == SIGBUS || signum == SIGFPE || signum == SIGILL ||
           signum == SIGTRAP || signum == SIGSYS;
}

// After Python set SIGNUM's disposition for HANDLER; BEFORE is the one it replaced.
void settle(int signum, const struct sigaction& before, PyObject* handler,
            PyObject* default_int_handler) {
    Claim& claim = claims[signum];
    if (!claim.held) {
        claim.host = before;
        claim.held = true;
    }
    // Python's own handler replaced the forwarding one, if there was one.
    python_handler[signum].store(nullptr);
    struct sigaction now {};
    if (sigaction(signum, nullptr, &now) != 0 || (now.sa_flags & SA_SIGINFO)) return;
    // Python's SIGINT handler in the bridge is default_int_handler with the
    // host's Ctrl-C in force; SIG_DFL is Python's way to leave a signal alone.
    if (now.sa_handler == SIG_DFL || (signum == SIGINT && handler == default_int_handler)) {
        sigaction(signum, &claim.host, nullptr);
        claim.held = false;
        return;
    }
    if (now.sa_handler == SIG_IGN || synchronous(signum)) return;
    python_handler[signum].store(now.sa_handler);
    struct sigaction front = now; // Python's mask and flags: no SA_RESTART
    front.sa_handler = forward;
    sigaction(signum, &front, nullptr);
}

// _signal.signal(signalnum, handler), with the bridge's step after Python's.
// ORIGINALS holds Python's function and default_int_handler.
PyObject* claimingSignal(PyObject* originals, PyObject* const* args, Py_ssize_t count) {
    PyObject* original = PyTuple_GET_ITEM(originals, 0);
    long signum = 0;
    if (count == 2 && PyLong_Check(args[0])) {
        int overflow = 0;
        signum = PyLong_AsLongAndOverflow(args[0], &overflow);
    }
    // Anything else is Python's to refuse.
    if (signum < 1 || signum >= NSIG) return PyObject_Vectorcall(original, args, count, nullptr);
    struct sigaction before {};
    if (sigaction(static_cast<int>(signum), nullptr, &before) != 0)
        return PyObject_Vectorcall(original, args, count, nullptr);
    SmartPyObj previous(PyObject_Vectorcall(original, args, count, nullptr));
    if (previous)
        settle(static_cast<int>(signum), before, args[1], PyTuple_GET_ITEM(originals, 1));
    return previous.release();
}

PyObject* guardedSignal(PyObject* originals, PyObject* const* args, Py_ssize_t count) {
    return pythonGuard([&] { return claimingSignal(originals, args, count); });
}

PyMethodDef signal_def = {
    "signal", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(guardedSignal)),
    METH_FASTCALL,
    "signal($module, signalnum, handler, /)\n--\n\n"
    "Set the action for the given signal, as Python's own signal(), on Python's main "
    "thread whichever thread of the host the signal reaches. Returns the old handler."};

} // namespace

bool install() {
    SmartPyObj module(PyImport_ImportModule("_signal"));
    SmartPyObj original(module ? PyObject_GetAttrString(module.get(), "signal") : nullptr);
    SmartPyObj fallback(original ? PyObject_GetAttrString(module.get(), "default_int_handler")
                                 : nullptr);
    SmartPyObj originals(fallback ? PyTuple_Pack(2, original.get(), fallback.get()) : nullptr);
    // Python's signal.signal looks the function up here at each call.
    SmartPyObj wrapper(originals ? PyCFunction_New(&signal_def, originals.get()) : nullptr);
    if (!wrapper || PyObject_SetAttrString(module.get(), "signal", wrapper.get()) != 0)
        return false;
    python_main.store(pthread_self());
    forwarding.store(true);
    pthread_atfork(nullptr, nullptr, afterForkInChild);
    return true;
}

void release() {
    forwarding.store(false);
    // A handler on this thread runs to its end before this one goes on.
    while (sending.load() != 0) std::this_thread::yield();
}

} // namespace pytarn::signals
