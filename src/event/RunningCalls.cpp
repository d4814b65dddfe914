#include "RunningCalls.h"

#include <Python.h>

#include <algorithm>

namespace pytarn::event {

static_assert(std::atomic<std::uint64_t>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free,
              "markInnermost runs in signal handlers");

std::uint64_t RunningCalls::enter() {
    // Deeper levels than the table holds share its last slot: an interrupt
    // then reaches the deepest call that the table still tells apart.
    const int level = std::min(depth_.load() + 1, levels - 1);
    const std::uint64_t number = ++count_ * levels + static_cast<std::uint64_t>(level);
    open_[level].store(number);
    depth_.fetch_add(1);
    return number;
}

void RunningCalls::leave() { depth_.fetch_sub(1); }

bool RunningCalls::begin(std::uint64_t number) {
    if (number == 0) return false; // not a call of the Tcl thread's
    Runner& runner = runners_[levelOf(number)];
    runner.ident.store(PyThread_get_thread_ident(), std::memory_order_relaxed);
    runner.thread.store(pthread_self(), std::memory_order_relaxed);
    runner.number.store(number, std::memory_order_relaxed);
    if (before_start_.load(std::memory_order_relaxed) != number) return false;
    before_start_.store(0);
    return true;
}

bool RunningCalls::end(std::uint64_t number) {
    if (number == 0) return false;
    Runner& runner = runners_[levelOf(number)];
    if (runner.number.load(std::memory_order_relaxed) == number)
        runner.number.store(0, std::memory_order_relaxed);
    // Ended first, then the mark looked at; markInnermost stores the mark,
    // then looks whether the call has ended: one of the two sees the other.
    runner.ended.store(number);
    // A load first: the common case writes no line that others read.
    std::uint64_t marked = number;
    return requested_.load() == number && requested_.compare_exchange_strong(marked, 0);
}

bool RunningCalls::markInnermost() {
    const int depth = depth_.load();
    if (depth <= 0) return false;
    const std::uint64_t number = open_[std::min(depth, levels - 1)].load();
    const std::atomic<std::uint64_t>& ended = runners_[levelOf(number)].ended;
    if (ended.load() == number) return false;
    requested_.store(number);
    if (ended.load() != number) return true;
    // Ended meanwhile: taken back, unless end() took it first and raised it.
    std::uint64_t marked = number;
    return !requested_.compare_exchange_strong(marked, 0);
}

RunningCalls::Target RunningCalls::takeMark() {
    Target target;
    const std::uint64_t number = requested_.exchange(0);
    if (number == 0) return target;
    const int level = levelOf(number);
    const Runner& runner = runners_[level];
    if (runner.number.load() == number) {
        target.kind = Target::running;
        target.ident = runner.ident.load();
        target.thread = runner.thread.load();
        target.number = number;
    } else if (open_[level].load() == number && depth_.load() >= level) {
        // Queued, or ended and not yet closed by the Tcl thread: a mark that
        // begin() will never see then does no harm.
        before_start_.store(number);
        target.kind = Target::queued;
    }
    return target;
}

bool RunningCalls::stillRunning(const Target& target) const {
    return target.kind == Target::running &&
           runners_[levelOf(target.number)].number.load() == target.number;
}

} // namespace pytarn::event
