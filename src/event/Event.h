// Request transport between the main Tcl thread and the Python threads.
//
// Threading model
// - The main Tcl thread (the caller of `load`) owns the Tcl interpreter. It
//   queues PyEvent requests and carries out TclEvent requests: inside its own
//   waits (`load`, EventMgr::spin) and, when idle, from the one Tcl event that
//   tcl_c_api::addEvent posts to its event loop.
// - Python threads (the bridge's own thread, which is Python's main thread,
//   and any thread Python code starts) queue TclEvent requests and carry out
//   PyEvent requests while they hold the Python interpreter lock; they never
//   hold it while they wait.
// - Routing: every Python thread that calls Tcl has an inbox, a queue of
//   PyEvents that only it carries out (the bridge's own thread has the default
//   inbox, EventMgr::python_queue). A TclEvent names its requester's inbox.
//   While the Tcl thread carries out a TclEvent (EventMgr::carrying), every
//   request it makes, at any depth of Tcl below (update, vwait, their
//   handlers), goes to that inbox; every other request goes to the default
//   one. So a nested request runs on the thread whose call it is nested in,
//   which is blocked in that call: a lock it holds is held by the same thread.
// - A request record lives in its requester's stack frame. The servicing
//   thread writes the outcome, then stores `done`, then unparks the requester
//   (whose parker it found before the store); after the store it never
//   touches the record again. A queue holds bare pointers and
//   owns nothing. A TclEvent still queued may be taken back by its requester
//   (shutdown, a deleted interpreter); once the Tcl thread has taken it, it
//   completes it, and the requester waits for that, so an inbox never loses
//   its thread while a request may still be routed to it. The one exception
//   is an exit from inside a request: the exiting Tcl thread never comes back
//   to the records it carries, so it finishes them first (releaseCarried).
// - Python's output does not wait: it is queued in EventMgr::output, and the
//   Tcl thread writes it before anything else it does for Python (see
//   OutputQueue.h). Only a writer that finds the queue full sends a request.
// - Locks: each queue's mutex guards only its entries, the output queue's
//   only its pieces; the notifier's mutex guards only its sleepers' condition
//   variable. No two of them are held together and none is held while a
//   request is carried out or output is written.
// - Wake-ups go to the one thread they are for: pushing to a queue unparks
//   the queue's owner, completing a request unparks its requester (the Tcl
//   thread's parker for a PyEvent, the requester's inbox's for a TclEvent).
//   The notifier's generation is bumped only for rare changes that any
//   waiter may care about (shutdown, a deleted interpreter).
// - Waits cannot miss a wake-up: a waiter reads the notifier's generation
//   before it looks at its state, watches its state for a short while, then
//   parks, raising its flag before it looks once more (see Parker). The
//   timed bounds are a safety net, not a mechanism.
#pragma once

#include "convert/SmartObj.h"
#include "convert/Scalar.h"
#include "OutputQueue.h"
#include "RunningCalls.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace pytarn::event {

// The size of a cache line. Data that two threads write in turn sits on
// lines of its own: a line shared by unrelated data travels between the cores
// at every touch from either side, and a crossing is mostly such travel.
constexpr std::size_t cache_line = 64;

// Records are aligned to a cache line and keep everything a plain request
// reads and writes in their first line (a PyEvent's short result and
// argument in its second), so that the record travels between the two cores
// once each way; the failure details come after. The answering side writes
// no line that the request does not use: each such line crosses too.

class PythonEventQueue;

// A request carried out on a Python thread with the interpreter lock held.
struct alignas(cache_line) PyEvent {
    explicit PyEvent(std::function<PyObject*()> work) : func(std::move(work)) {}
    PyEvent(const PyEvent&) = delete;
    PyEvent& operator=(const PyEvent&) = delete;

    std::function<PyObject*()> func; // new reference, or null with an error set
    SmartTclObj result;              // destroyed before func
    int status = TCL_OK;
    // Set when the request raised SystemExit and the host must exit; the
    // Tcl thread then exits through Tcl so that exit handlers and channel
    // flushing run there.
    int exit_code = 0;
    bool exit_requested = false;
    std::atomic<bool> done{false};
    // The request carries `argument` (below), converted before the work.
    bool has_argument = false;
    // The argument is the Tcl thread's own object, lent (Lending.h): the Tcl
    // thread runs nothing until `taken`.
    bool lends = false;
    std::uint64_t call = 0; // its number among the Tcl thread's calls (RunningCalls)
    // A short result travels here instead of in `result` (see Scalar), and
    // a short argument instead of in `argument`: both in the second line.
    tcl_convert::Scalar scalar;
    tcl_convert::Scalar argument_scalar;
    // The failing exception's type name, which becomes the Tcl error code
    // "PYTHON <name>"; empty when the request did not fail in Python.
    std::string error_type;
    // A TclError that came back uncaught from a failed Tcl call: its own
    // -errorcode words, which Tcl then sees instead of "PYTHON TclError".
    std::vector<std::string> error_code;
    // A value for the work, converted on the Python thread before the work
    // runs; null means nested too deeply (a copy that failed). Not owned.
    Tcl_Obj* argument = nullptr;
    // Its conversion, which the work reads; not owned, valid during `func`.
    PyObject* converted = nullptr;
    // Set (release) once a lent argument will not be touched again: after
    // its conversion, or on any path that skips it. Every path sets it.
    std::atomic<bool> taken{false};
};

// A request carried out on the main Tcl thread. Its shape says what it asks:
// `script` evaluates, `words` (or `packed`) calls one command with those
// words, never parsed, `output` writes (only when EventMgr::output is full; other output
// never waits), `variable` reads (or, with `value`, writes) a global
// variable, `action` runs a function of the requester's; none of them is a
// no-op.
struct alignas(cache_line) TclEvent {
    TclEvent() = default;
    TclEvent(const TclEvent&) = delete;
    TclEvent& operator=(const TclEvent&) = delete;

    const char* script = nullptr;   // not owned
    const char* variable = nullptr; // not owned
    // The requester's inbox, where the requests made while this one is
    // carried out go. Set by EventMgr::spin.
    PythonEventQueue* inbox = nullptr;
    // Unshared objects, one reference each, which pass to the Tcl thread
    // with the request: it gives them back itself, since Tcl may keep them
    // (`set x` stores its word). The array is the requester's.
    Tcl_Obj* const* words = nullptr;
    SmartTclObj result;             // a detached copy of the Tcl result
    // A short result travels here instead of in `result`: the requester
    // then reads one line of the record (see Scalar).
    tcl_convert::Scalar scalar;
    int word_count = 0;
    bool too_deep = false;          // the result was nested too deeply to copy
    // Failures of the bridge itself, flagged without allocating: Python gets
    // MemoryError, or TclError once the interpreter has been deleted.
    bool no_memory = false;
    bool interp_deleted = false;
    std::atomic<bool> done{false};
    // The fields of rarer requests come after the first line.
    const char* output = nullptr;   // not owned; lives as long as the call
    bool to_stderr = false;         // output requests only, which are rare
    SmartTclObj value;              // tcl.set's value to assign, unshared
    // Words that crossed packed (the requester's), in place of `words`.
    const tcl_convert::PackedWords* packed = nullptr;
    std::string error;              // non-empty exactly when the request failed
    std::vector<std::string> error_code; // the failure's -errorcode, word by word
    std::string error_info;              // and its -errorinfo
    // Runs on the Tcl thread with the interpreter and the record; it reports
    // through the outcome fields (TclEventQueue::storeFailure for a failure).
    void (*action)(Tcl_Interp* interp, TclEvent* ev) = nullptr;
    void* context = nullptr; // the action's, not owned
    // The action uses only the standard channels: once the interpreter is
    // deleted it still runs, given a null interpreter, instead of failing.
    bool outlives_interp = false;
    // A large result lent instead of copied (Lending.h): the Tcl thread's own
    // object, not owned. The requester converts it, then sets `*given_back`
    // (release), a flag of the Tcl thread's, which runs nothing until then.
    // Both null when the result is a copy (or there is none).
    Tcl_Obj* lent = nullptr;
    std::atomic<bool>* given_back = nullptr;
};

// One thread's own wake-up. A thread whose watch has run out parks on its
// parker; whoever makes the change it waits for unparks that one thread, and
// when it is not asleep pays one look at a flag that only the sleeper writes. No other waiter is roused: a wake-up that reaches threads
// with nothing to do costs the machine their switches.
class alignas(cache_line) Parker {
public:
    using Clock = std::chrono::steady_clock;
    using Duration = std::chrono::nanoseconds;

    Parker();
    ~Parker();
    Parker(const Parker&) = delete;
    Parker& operator=(const Parker&) = delete;

    // Owner thread: sleeps until unpark(), `bound`, or ready(). The flag is
    // raised before ready() is looked at, and an unpark() looks at the flag
    // after its change; flag and state are sequentially consistent atomics
    // (ready() loads them so, wakers store them so), so one of the two sees
    // the other and no wake-up is lost.
    template <typename Ready>
    void park(Duration bound, Ready ready) {
        asleep_.store(true);
        if (!ready()) {
            std::unique_lock<std::mutex> lock(mutex_);
            cond_.wait_for(lock, bound, [&] { return woken_ || ready(); });
            if (woken_) learnWakeUp(Clock::now() - woken_at_);
            woken_ = false;
        }
        asleep_.store(false, std::memory_order_relaxed);
        noteCore(); // the scheduler may have woken it on another core
    }
    // Any thread, once the change is published by a sequentially consistent
    // store (a record's `done`, a queue's count). A parker outlives every
    // thread that may unpark it (see PythonEventQueue::own), so a late
    // unpark at worst wakes its next owner once for nothing.
    void unpark() {
        if (asleep_.load()) wake();
    }
    // Unparks every parker there is: for the rare changes that concern all
    // waiters (shutdown, a deleted interpreter), see Notifier::notifyAll.
    static void unparkAll();

    // Owner thread: how long to watch before parking. A park costs the time
    // from an unpark to running again, and a watch that lasts as long as
    // that catches the answer of a partner that had to be woken itself, so
    // the two threads of a loop of calls stay awake together. Watching any
    // longer never pays. The cost is measured at every wake-up: tens of
    // microseconds on an idle machine, whose cores doze, a few on a busy one,
    // where a long watch would mostly keep other threads off the core.
    // (Python threads watch holding the interpreter lock, so one at a time.)
    Duration watchBound() const { return wake_up_cost_; }
    // Owner thread: publishes the core it runs on, for its partners' watches;
    // written only when it changed, so that the line stays shared.
    void noteCore();
    // Owner thread: whether `partner`'s thread is awake and was last seen on
    // this core, where it cannot answer for as long as this thread keeps the
    // core. (A partner asleep is left out: woken, the scheduler moves it to a
    // core that is idle, and one that this thread keeps busy is not.)
    bool sharesCoreWith(const Parker* partner) const;

    static constexpr Duration min_watch{2000};
    static constexpr Duration max_watch{40000};

private:
    void wake();
    // Moves the watch bound a quarter of the way to the wake-up just seen.
    void learnWakeUp(Clock::duration wake_up);

    std::atomic<bool> asleep_{false};
    std::atomic<int> core_{-1};
    std::mutex mutex_;
    std::condition_variable cond_;
    bool woken_ = false;            // guarded by mutex_
    Clock::time_point woken_at_{};  // guarded by mutex_; when woken_ was set
    Duration wake_up_cost_ = max_watch; // owner thread only
};

// The wake-up for rare changes that any waiter may care about: start-up,
// shutdown, a deleted interpreter, a thread that ended. Threads that have a
// parker wait on it; the few waits that have none (stopping the thread, an
// exit from another Tcl thread) sleep on the notifier's own condition.
class Notifier {
public:
    using Clock = std::chrono::steady_clock;

    // Read before looking at the state you are about to wait for.
    std::uint64_t generation() const { return generation_.load(); }
    // Wakes every waiter, parked or not; call after the change is published.
    void notifyAll();
    // Returns once a notification newer than `seen` has come, or `bound` has
    // passed. It first watches the generation for up to `spin_bound` without
    // sleeping: in a loop of calls the answer usually comes within
    // microseconds, and a sleep and wake-up would cost several times that.
    void waitChange(std::uint64_t seen, std::chrono::microseconds bound) {
        waitChange(seen, bound, [] { return false; });
    }
    // The same, but the watch also ends as soon as `ready()` is true: the
    // waiter watches the very thing it waits for (a record's `done`, its own
    // queue). `ready` must be cheap and take no lock.
    template <typename Ready>
    void waitChange(std::uint64_t seen, std::chrono::microseconds bound, Ready ready) {
        const Parker::Duration limit = std::min<Parker::Duration>(bound, spin_bound);
        if (!watch(seen, ready, limit) && bound > spin_bound) sleep(seen, bound);
    }
    // The same for a thread with a parker of its own, waiting for an answer
    // from `partner`'s thread (null when from any): it watches for as long
    // as the parker allows, then sleeps there, and only a change meant for
    // it, or a notifyAll, wakes it.
    template <typename Ready>
    void waitChange(Parker& parker, const Parker* partner, std::uint64_t seen,
                    std::chrono::microseconds bound, Ready ready) {
        if (!watchFor(parker, partner, seen, bound, ready)) park(parker, seen, bound, ready);
    }
    // Its two halves, for a waiter that must do something between them.
    // The watch: whether ready() or a notification came within the bound
    // that the parker allows. It ends early, to park, once the partner shares
    // this core: a busy machine, where the partner can answer only on this
    // core, and a park and wake-up of each is the least a crossing can cost.
    template <typename Ready>
    bool watchFor(Parker& parker, const Parker* partner, std::uint64_t seen,
                  std::chrono::microseconds bound, Ready ready) {
        parker.noteCore();
        const auto until = Clock::now() + std::min<Parker::Duration>(parker.watchBound(), bound);
        for (unsigned round = 1; generation_.load() == seen && !ready(); ++round) {
            if (round % 8 == 0 && (Clock::now() >= until || parker.sharesCoreWith(partner)))
                return false;
            cpuRelax();
        }
        return true;
    }
    // The sleep, until ready(), a notification, or `bound`.
    template <typename Ready>
    void park(Parker& parker, std::uint64_t seen, std::chrono::microseconds bound, Ready ready) {
        parker.park(bound, [&] { return generation_.load() != seen || ready(); });
    }

    static constexpr std::chrono::microseconds spin_bound{40};
    // Waiters asleep on the condition variable right now.
    int sleepers() const { return sleepers_.load(); }

    std::condition_variable cond;
    std::mutex mutex;

private:
    // Watches without sleeping until ready() or a notification; false when
    // `limit` ran out first. Clock reads are cheap but not free: one every
    // few rounds.
    template <typename Ready>
    bool watch(std::uint64_t seen, Ready ready, Parker::Duration limit) {
        const auto until = Clock::now() + limit;
        for (unsigned round = 1; generation_.load() == seen && !ready(); ++round) {
            if (round % 8 == 0 && Clock::now() >= until) return false;
            cpuRelax();
        }
        return true;
    }
    void sleep(std::uint64_t seen, std::chrono::microseconds bound);
    // Tells the core that this is a spin: it yields pipeline resources to a
    // hyper-thread sibling and saves power, without leaving the thread.
    static void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }

    // A notifier bumps the generation, then looks at `sleepers_`; a waiter
    // counts itself in `sleepers_` (under `mutex`), then looks at the
    // generation. Both are sequentially consistent, so at least one of the
    // two sees the other's write: either the waiter does not sleep, or the
    // notifier takes the mutex and wakes it. The line is written only on
    // rare changes, so watching it costs a waiter no traffic between cores.
    alignas(cache_line) std::atomic<std::uint64_t> generation_{0};
    std::atomic<int> sleepers_{0};
};

// A first-in first-out queue of bare pointers. The first few entries sit in
// the same cache line as the lock, so that handing one request over moves
// one line between the cores; a longer queue (many Python threads calling at
// once) goes on in a deque behind them. The odd name is kept as written.
template <typename T>
class alignas(cache_line) _LockedQueueT {
public:
    // Null when empty; an empty queue is seen without taking the lock, which
    // would take the line from a thread about to push.
    T* pop() {
        if (looksEmpty()) return nullptr;
        std::lock_guard<std::mutex> lock(mutex);
        if (nearCount() == 0) return nullptr;
        T* front = near_[0];
        takeNear(0);
        return front;
    }
    bool empty() {
        std::lock_guard<std::mutex> lock(mutex);
        return nearCount() == 0;
    }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return static_cast<std::size_t>(nearCount()) + far_.size();
    }
    // Without the lock, for a waiter's watch; exact only once the lock has
    // been taken, which pop() does. Sequentially consistent, as the store
    // of a push, for a parked owner (see Parker::park).
    bool looksEmpty() const { return near_count_.load() == 0; }
    // Takes `ev` out if it is still queued; true when it was.
    bool remove(T* ev) {
        std::lock_guard<std::mutex> lock(mutex);
        for (int i = 0; i < nearCount(); ++i) {
            if (near_[i] == ev) {
                takeNear(i);
                return true;
            }
        }
        for (auto it = far_.begin(); it != far_.end(); ++it) {
            if (*it == ev) {
                far_.erase(it);
                return true;
            }
        }
        return false;
    }

    // No entry is appended from now on; those already in stay.
    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        closed_ = true;
    }

protected:
    // False, and `ev` not queued, once the queue is closed.
    bool append(T* ev) {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed_) return false;
        const int count = nearCount();
        if (count < near_size && far_.empty()) {
            near_[count] = ev;
            near_count_.store(count + 1);
        } else {
            far_.push_back(ev);
        }
        return true;
    }

    std::mutex mutex;

private:
    // Closes the gap at `i` and moves the oldest of the rest forward: entries
    // wait in `far_` only while `near_` is full.
    void takeNear(int i) {
        const int count = nearCount();
        for (; i + 1 < count; ++i) near_[i] = near_[i + 1];
        if (far_.empty()) {
            near_count_.store(count - 1, std::memory_order_release);
        } else {
            near_[count - 1] = far_.front();
            far_.pop_front();
        }
    }
    int nearCount() const { return near_count_.load(std::memory_order_relaxed); }

    static constexpr int near_size = 2;
    // Written under mutex, as is everything below; read without it only by
    // looksEmpty. Entries wait in `far_` only while `near_` is full, so no
    // entry in `near_` means an empty queue.
    std::atomic<int> near_count_{0};
    bool closed_ = false;
    T* near_[near_size] = {};
    std::deque<T*> far_;
};

// A Python thread's inbox: the requests for Python that it alone carries out,
// with the interpreter lock held. A push wakes that thread alone.
class PythonEventQueue : public _LockedQueueT<PyEvent> {
public:
    // The calling Python thread's inbox: the one it was given (useAsOwn), or
    // one handed to it at its first call into Tcl and taken back when the
    // thread ends, which it cannot do while the Tcl thread carries its
    // request. Such inboxes are never freed but handed out again: the Tcl
    // thread may still be unparking one whose thread has just seen its answer.
    static PythonEventQueue& own();
    // The calling thread's inbox is this one from now on.
    void useAsOwn();
    // Tcl thread: queue and wake the Python side; false when the inbox is
    // closed, its thread gone.
    bool push(PyEvent* ev);
    // Carries out one request completely: work, outcome, done, notify.
    static void serviceEvent(PyEvent* ev);
    // Lock held for the whole call.
    void serviceAllEvents();
    // The inbox's own thread; lock held on entry and on return, released
    // while it sleeps. Returns when `ev` is done, or once it has been taken back
    // from the queue: at shutdown (left not done) or when the interpreter has
    // been deleted (refused). A request the Tcl thread has taken is waited for.
    void waitFor(TclEvent* ev);

    Parker owner; // the inbox's thread, asleep while it waits
};

// Requests for Tcl; serviced only on the main Tcl thread.
class TclEventQueue : public _LockedQueueT<TclEvent> {
public:
    // Python thread: queue, make sure the Tcl event loop will drain, wake.
    void push(TclEvent* ev);
    // Any thread: makes sure the Tcl thread looks at its queues, whether it
    // waits for Python (a notification) or sits in its event loop (an event).
    static void wake();
    // Writes the output waiting in EventMgr::output now; whether there was any.
    static bool drainOutput();
    // Writes waiting output first, so that a thread's print is never
    // overtaken by its next request.
    static void serviceEvent(TclEvent* ev);
    // Records the interpreter's failure `code` (its result, -errorcode and
    // -errorinfo) as the outcome of `ev`. Tcl thread.
    static void storeFailure(Tcl_Interp* interp, TclEvent* ev, int code);
    // Writes the output and carries out the requests that wait now. What
    // comes meanwhile gets a new wake(), so that a thread that never stops
    // printing cannot keep the Tcl thread here and its event loop starved.
    void serviceAllEvents();
    // Returns once `ev` is done, carrying out Tcl requests meanwhile;
    // `partner` is the parker of the inbox that `ev` went to.
    void waitFor(PyEvent* ev, const Parker* partner);
    // The same, but gives up at `deadline`; whether `ev` is done.
    bool waitFor(PyEvent* ev, const Parker* partner,
                 std::chrono::steady_clock::time_point deadline);

    Parker owner; // the main Tcl thread, asleep while it waits
};

// One TclEvent that the Tcl thread is carrying out now, and the one it
// carries out further out; a frame of TclEventQueue::serviceEvent each.
struct Carrying {
    TclEvent* ev;
    PythonEventQueue* inbox; // the requester's; null once released
    Carrying* outer;
    bool released = false;   // finished early: `ev` must not be touched
    SmartTclObj lent;        // the result lent to the requester, until given back
    std::atomic<bool> given_back{false};
};

class EventMgr {
public:
    // Tcl thread: where a request for Python made now goes: the inbox of
    // the TclEvent being carried out, else the default one.
    PythonEventQueue& inbox() {
        return carrying && carrying->inbox ? *carrying->inbox : python_queue;
    }
    // Tcl thread: whether a request made now is taken up at once, so that
    // the Tcl thread may lend it a value and wait serving nothing meanwhile:
    // the requester of the TclEvent carried out now waits in its inbox, and
    // the bridge's own thread is idle while no call into Python is open.
    bool mayLend() const { return carrying ? carrying->inbox != nullptr : calls.depth() == 0; }
    // Tcl thread, exiting from inside requests it carries: finishes them all
    // (as abandoned), so that their requesters may go on and end.
    void releaseCarried();
    // Tcl thread: the whole call into Python; returns the Tcl code and sets
    // the interpreter result. `spin` is kept as written: it waits in waitFor.
    int spin(PyEvent* ev);
    static int postProcess(PyEvent* ev);
    // Python thread, lock held: the whole call into Tcl; a new reference, or
    // null with an exception set.
    PyObject* spin(TclEvent* ev);
    static PyObject* postProcess(TclEvent* ev);

    PythonEventQueue python_queue;
    TclEventQueue tcl_queue;
    OutputQueue output; // written by Python threads, drained by the Tcl thread
    RunningCalls calls; // which thread runs each of the Tcl thread's calls
    Carrying* carrying = nullptr; // Tcl thread only; innermost first
};

namespace tcl_c_api {
// Makes sure one Tcl event is pending on the main Tcl thread to drain
// tcl_queue; at most one is pending at any time.
void addEvent();
int tclEventQueueProc(Tcl_Event* ev, int flags);
} // namespace tcl_c_api

} // namespace pytarn::event
