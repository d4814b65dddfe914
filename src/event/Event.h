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
#include "Lines.h"
#include "OutputQueue.h"
#include "RunningCalls.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace pytarn::event {

// A record is two cache lines and the rest: the request, which the
// answering side reads, and the answer, which the requester watches while it
// waits and the answering side writes in one go, `done` last. Kept apart, in
// different line pairs, the two sides never look at the same line at once: a
// line that one core reads again while the other watches it is passed back
// and forth at every look, and one that is written while watched, at every
// write. The details of rarer requests and failures fill the rest of each
// pair; the answering side writes no line that the request does not use,
// since each such line crosses too.

class PythonEventQueue;

// A request carried out on a Python thread with the interpreter lock held.
struct alignas(line_pair) PyEvent {
    // The work gets the request's argument converted (null when it has
    // none) and returns a new reference, or null with an error set.
    using Work = std::function<PyObject*(PyObject* argument)>;
    explicit PyEvent(Work work) : func(std::move(work)) {}
    PyEvent(const PyEvent&) = delete;
    PyEvent& operator=(const PyEvent&) = delete;

    // The request, which the Python side reads while the Tcl thread waits.
    Work func;
    std::uint64_t call = 0; // its number among the Tcl thread's calls (RunningCalls)
    // A short argument, which travels here instead of in `argument` (see
    // Scalar); kind none when there is none or it is in `argument`.
    tcl_convert::Scalar argument_scalar;
    // The request carries an argument: `argument_scalar`, or `argument`.
    bool has_argument = false;
    // The argument is the Tcl thread's own object, lent (Lending.h): the Tcl
    // thread runs nothing until `taken`.
    bool lends = false;
    // A call's words: packed, when they are short, else the work's own
    // record of them (not owned). In the line next to the request's, which
    // comes with it (see CallWords).
    alignas(cache_line) tcl_convert::ShortWords short_words;
    const void* long_words = nullptr;

    // The answer, which the Tcl thread watches while it waits.
    alignas(line_pair) std::atomic<bool> done{false};
    int status = TCL_OK;
    // Set when the request raised SystemExit and the host must exit; the
    // Tcl thread then exits through Tcl so that exit handlers and channel
    // flushing run there.
    bool exit_requested = false;
    tcl_convert::Scalar scalar; // a short result (see Scalar), else kind none
    SmartTclObj result;         // a longer one; destroyed before func

    // The rest, for rarer requests and failures.
    int exit_code = 0;
    // The failing exception's type name, which becomes the Tcl error code
    // "PYTHON <name>"; empty when the request did not fail in Python.
    std::string error_type;
    // A TclError that came back uncaught from a failed Tcl call: its own
    // -errorcode words, which Tcl then sees instead of "PYTHON TclError".
    std::vector<std::string> error_code;
    // A value for the work, converted on the Python thread before the work
    // runs; null means nested too deeply (a copy that failed). Not owned.
    Tcl_Obj* argument = nullptr;
    // Set (release) once a lent argument will not be touched again: after
    // its conversion, or on any path that skips it. Every path sets it.
    std::atomic<bool> taken{false};
};

// A request carried out on the main Tcl thread. For the plain requests
// (eval, call with packed words, get, set of a short value) the Tcl thread
// reads the request's line and writes the answer's alone.
struct alignas(line_pair) TclEvent {
    enum class Asks : unsigned char {
        eval,  // evaluates the script `text`
        call,  // calls one command with `packed`, or `words`, never parsed
        get,   // reads the global variable named `text`
        set,   // assigns it `short_value`, or `value` when that is set
        write, // writes `output`: only when EventMgr::output is full, other output never waits
        act,   // runs `action`
    };
    explicit TclEvent(Asks what) : asks(what) {}
    TclEvent(const TclEvent&) = delete;
    TclEvent& operator=(const TclEvent&) = delete;

    // The script or variable name, kept in the record itself when it is
    // short: the requester's text may share a line it writes at every call
    // (a Python string's reference count).
    void setText(const char* given) {
        const std::size_t length = std::strlen(given);
        if (length >= sizeof inline_text) {
            text = given;
            return;
        }
        std::memcpy(inline_text, given, length + 1);
        text = inline_text;
    }

    // The request, which the Tcl thread reads while the requester waits.
    // The requester's inbox, where the requests made while this one is
    // carried out go. Set by EventMgr::spin.
    PythonEventQueue* inbox = nullptr;
    const char* text = nullptr; // not owned, or inline_text
    // Words that crossed packed (the requester's), for a call.
    const tcl_convert::PackedWords* packed = nullptr;
    tcl_convert::Scalar short_value; // set's value when short (see Scalar)
    char inline_text[16];
    const Asks asks;

    // The answer, which the requester watches while it waits.
    alignas(line_pair) std::atomic<bool> done{false};
    bool too_deep = false; // the result was nested too deeply to copy
    // Failures of the bridge itself, flagged without allocating: Python gets
    // MemoryError, or TclError once the interpreter has been deleted.
    bool no_memory = false;
    bool interp_deleted = false;
    tcl_convert::Scalar scalar; // a short result (see Scalar), else kind none
    SmartTclObj result;         // a detached copy of a longer one

    // The rest, for rarer requests and failures.
    // Unshared objects, one reference each, which pass to the Tcl thread
    // with the request: it gives them back itself, since Tcl may keep them
    // (`set x` stores its word). The array is the requester's.
    Tcl_Obj* const* words = nullptr;
    int word_count = 0;
    bool to_stderr = false;         // write requests only
    const char* output = nullptr;   // not owned; lives as long as the call
    SmartTclObj value;              // set's value when not short, unshared
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
// when it is not asleep pays one look at a flag that only the sleeper writes.
// No other waiter is roused: a wake-up that reaches threads with nothing to
// do costs the machine their switches.
class alignas(line_pair) Parker {
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
            cond_.wait_for(lock, bound, [&] { return woken() || ready(); });
            if (woken()) learnWakeUp(Clock::now() - woken_at_);
            woken_.store(false, std::memory_order_relaxed);
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
    // Owner thread: whether `partner`'s thread was last seen on this core and
    // is awake, or woken and waiting for a core: it runs there, and cannot
    // answer for as long as this thread keeps the core. (A partner asleep and
    // not yet woken is left out: woken, the scheduler may put it on a core
    // that is idle, and one that this thread keeps busy is not.)
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
    bool woken() const { return woken_.load(std::memory_order_relaxed); }

    // Written under mutex_; read without it by partners (sharesCoreWith).
    std::atomic<bool> woken_{false};
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
        // Most answers come within the first rounds: the clock is read only
        // once the watch goes on past them.
        Clock::time_point until{};
        for (unsigned round = 1; generation_.load() == seen && !ready(); ++round) {
            if (round % 8 == 0) {
                const auto now = Clock::now();
                if (round == 8)
                    until = now + std::min<Parker::Duration>(parker.watchBound(), bound);
                if (now >= until || parker.sharesCoreWith(partner)) return false;
            }
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
    alignas(line_pair) std::atomic<std::uint64_t> generation_{0};
    std::atomic<int> sleepers_{0};
};

// A Python thread's wait: it watches holding the interpreter lock and gives
// the lock away only just before it sleeps. Given away at once, the lock
// would go to another Python thread, and taking it back would cost this one
// a wake-up of its own; so a thread that calls Tcl in a loop keeps running
// among many that do the same. The lock is held again when a request must be
// carried out (hold) and when the wait ends.
class LockedWatch {
public:
    LockedWatch() = default;
    LockedWatch(const LockedWatch&) = delete;
    LockedWatch& operator=(const LockedWatch&) = delete;
    ~LockedWatch() { hold(); }

    void hold() {
        if (state_) PyEval_RestoreThread(std::exchange(state_, nullptr));
    }
    // One round of the wait: a watch with the lock held, or, once one has run
    // out, a sleep without it (after a last look at ready()).
    template <typename Ready>
    void wait(Notifier& notifier, Parker& parker, const Parker* partner, std::uint64_t seen,
              std::chrono::microseconds bound, Ready ready) {
        if (state_) {
            notifier.park(parker, seen, bound, ready);
        } else if (!notifier.watchFor(parker, partner, seen, bound, ready)) {
            state_ = PyEval_SaveThread();
        }
    }

private:
    PyThreadState* state_ = nullptr; // set while the lock is given away
};

// A first-in first-out queue of bare pointers. A request pushed onto an
// empty queue goes into a slot that one compare-and-swap fills and one
// exchange empties: the thread that watches the queue reads the line while
// the pusher writes it, and each further write (a lock, a count, an unlock)
// would pass the line back and forth once more. While the slot is taken, the
// rest waits in a list under the lock, the first entry in the same cache
// line, so a longer queue (many Python threads calling at once) costs a line
// or two more. The odd name is kept as written.
template <typename T>
class alignas(line_pair) _LockedQueueT {
public:
    // Null when empty; an empty queue is seen without a write.
    T* pop() {
        if (slot_.load() != nullptr) {
            if (T* taken = slot_.exchange(nullptr)) return taken;
        }
        if (!listed_.load()) return nullptr;
        std::lock_guard<std::mutex> lock(mutex);
        // The slot again, now that no push can reach the list: what a pusher
        // put there came before its entries in the list, and may have come
        // after the first look (the list emptied and filled again meanwhile).
        if (T* taken = slot_.exchange(nullptr)) return taken;
        if (!listed_.load(std::memory_order_relaxed)) return nullptr;
        T* front = first_;
        takeFirst();
        return front;
    }
    bool empty() { return size() == 0; }
    std::size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return (slot_.load() ? 1u : 0u) + (listed_.load(std::memory_order_relaxed) ? 1u : 0u) +
               far_.size();
    }
    // Without the lock, for a waiter's watch. Sequentially consistent, as the
    // stores of a push, for a parked owner (see Parker::park).
    bool looksEmpty() const { return slot_.load() == nullptr && !listed_.load(); }
    // Takes `ev` out if it is still queued; true when it was.
    bool remove(T* ev) {
        T* expected = ev;
        if (slot_.compare_exchange_strong(expected, nullptr)) return true;
        std::lock_guard<std::mutex> lock(mutex);
        if (listed_.load(std::memory_order_relaxed) && first_ == ev) {
            takeFirst();
            return true;
        }
        for (auto it = far_.begin(); it != far_.end(); ++it) {
            if (*it == ev) {
                far_.erase(it);
                return true;
            }
        }
        return false;
    }

    // No entry is queued from now on; those already in stay. The closer
    // looks at the queue after this, and a push into the slot looks at
    // `closed_` after it, so one of the two sees the other (see append).
    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        closed_.store(true);
    }

protected:
    // False, and `ev` not queued, once the queue is closed. The slot takes
    // `ev` only when nothing else waits, so the order stays first in, first
    // out for each pusher; a pusher that raced another past the list may
    // overtake an entry there, at most once for each pusher.
    bool append(T* ev) {
        T* empty = nullptr;
        if (!listed_.load() && slot_.compare_exchange_strong(empty, ev)) {
            if (!closed_.load()) return true;
            T* expected = ev; // closed meanwhile: taken back, unless taken already
            return !slot_.compare_exchange_strong(expected, nullptr);
        }
        std::lock_guard<std::mutex> lock(mutex);
        if (closed_.load(std::memory_order_relaxed)) return false;
        if (listed_.load(std::memory_order_relaxed)) {
            far_.push_back(ev);
        } else {
            first_ = ev;
            listed_.store(true);
        }
        return true;
    }

    std::mutex mutex;

private:
    // The next of the list moves into `first_`, or the list is empty.
    void takeFirst() {
        if (far_.empty()) {
            listed_.store(false);
        } else {
            first_ = far_.front();
            far_.pop_front();
        }
    }

    std::atomic<T*> slot_{nullptr};
    // Written under mutex, as is everything below; read without it by pop,
    // looksEmpty and append. The list's first entry is in `first_` whenever
    // it has one, so `listed_` false means an empty list.
    std::atomic<bool> listed_{false};
    std::atomic<bool> closed_{false};
    T* first_ = nullptr;
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
    tcl_convert::Scalar scalar; // a short result, until the record is completed
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
    // The interpreter that the innermost call into Python holds preserved,
    // so that what it carries out meanwhile need not; Tcl thread only.
    Tcl_Interp* preserved = nullptr;
};

namespace tcl_c_api {
// Makes sure one Tcl event is pending on the main Tcl thread to drain
// tcl_queue; at most one is pending at any time.
void addEvent();
int tclEventQueueProc(Tcl_Event* ev, int flags);
} // namespace tcl_c_api

} // namespace pytarn::event
