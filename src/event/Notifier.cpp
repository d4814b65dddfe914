#include "Event.h"

namespace pytarn::event {

namespace {

// Tells the core that this is a spin: it yields pipeline resources to a
// hyper-thread sibling and saves power, without leaving the thread.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

} // namespace

void Notifier::notifyAll() {
    generation_.fetch_add(1);
    if (sleepers_.load() == 0) return;
    std::lock_guard<std::mutex> lock(mutex);
    cond.notify_all();
}

void Notifier::waitChange(std::uint64_t seen, std::chrono::microseconds bound) {
    using Clock = std::chrono::steady_clock;
    const auto spin_until = Clock::now() + std::min(bound, spin_bound);
    for (unsigned round = 1; generation_.load() == seen; ++round) {
        // Clock reads are cheap but not free: look every few rounds. No
        // sched_yield here: in a virtual machine it costs microseconds.
        if (round % 16 == 0 && Clock::now() >= spin_until) break;
        cpuRelax();
    }
    if (generation_.load() != seen || bound <= spin_bound) return;

    std::unique_lock<std::mutex> lock(mutex);
    sleepers_.fetch_add(1);
    cond.wait_for(lock, bound - spin_bound, [&] { return generation_.load() != seen; });
    sleepers_.fetch_sub(1);
}

} // namespace pytarn::event
