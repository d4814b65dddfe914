// Which Python thread carries out each level of the Tcl thread's nested calls
// into Python, so that an interrupt (Ctrl-C, ::pytarn::interrupt) reaches the
// innermost call, the one the Tcl thread waits for, on whichever thread runs it.
//
// - The main Tcl thread opens a call (enter) before it queues the request and
//   closes it (leave) once the request is done. Calls nest strictly there.
// - The Python thread that carries the request out marks it (begin, end) with
//   the interpreter lock held.
// - markInnermost() is async-signal-safe: lock-free atomic loads and stores
//   only. Everything else that reads the Python side's marks does so with the
//   interpreter lock held, so it sees a call either running or not.
// - An interrupt is never lost to a call that ends before it is delivered
//   (the delivery waits for the interpreter lock, which a busy machine may
//   give it late): end() takes a mark that is still there and the call fails
//   with it, and a mark set after the end is refused (markInnermost false).
// Every call has a number of its own whose low bits are its level, so a mark
// left for a call that has ended never touches a later one.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace pytarn::event {

class RunningCalls {
public:
    // Main Tcl thread: a call into Python begins; returns its number.
    std::uint64_t enter();
    // Main Tcl thread: the innermost call has ended.
    void leave();
    // Main Tcl thread: how many calls are open.
    int depth() const { return depth_.load(std::memory_order_relaxed); }

    // Python thread, lock held: it starts carrying out call `number`. True
    // when an interrupt came for it while it waited in the queue.
    bool begin(std::uint64_t number);
    // Python thread, lock held: call `number` is finished. True when an
    // interrupt asked for it has not been delivered: the call raises it now.
    bool end(std::uint64_t number);

    // Any thread, signal handlers too: asks for the innermost call to be
    // interrupted. False when no call into Python is in progress, or the
    // innermost one has finished already.
    bool markInnermost();

    // Where an interrupt asked for by markInnermost must go; lock held.
    struct Target {
        enum Kind { none, queued, running } kind = none;
        unsigned long ident = 0; // Python's identity of the running thread
        pthread_t thread{};
        std::uint64_t number = 0; // the call's
    };
    // Takes the mark; a call that is queued but not yet started is marked so
    // that begin() reports it.
    Target takeMark();
    // Lock held: whether the running call of `target` still runs (its thread
    // is then alive and inside it).
    bool stillRunning(const Target& target) const;

    static constexpr int levels = 128;

private:
    static int levelOf(std::uint64_t number) { return static_cast<int>(number % levels); }

    struct alignas(64) Runner {
        std::atomic<std::uint64_t> number{0}; // 0: nothing runs at this level
        std::atomic<std::uint64_t> ended{0};  // the last call here that ended
        std::atomic<unsigned long> ident{0};
        std::atomic<pthread_t> thread{};
    };

    // The Tcl thread's side: the depth, and the call open at each level.
    alignas(64) std::atomic<int> depth_{0};
    std::uint64_t count_ = 0; // Tcl thread only
    std::atomic<std::uint64_t> open_[levels] = {};
    // The Python side's marks, and the interrupt requests.
    Runner runners_[levels];
    alignas(64) std::atomic<std::uint64_t> requested_{0};
    std::atomic<std::uint64_t> before_start_{0};
};

} // namespace pytarn::event
