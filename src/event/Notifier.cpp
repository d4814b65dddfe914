#include "Event.h"

#include <algorithm>

#include <sched.h>

namespace pytarn::event {

namespace {
// Every parker there is, for unparkAll. Made on first use and never
// destroyed: parkers live in objects that outlive static destruction.
struct Registry {
    std::mutex mutex;
    std::vector<Parker*> parkers; // guarded by mutex
};
Registry& registry() {
    static Registry* const made = new Registry;
    return *made;
}
} // namespace

Parker::Parker() {
    Registry& all = registry();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.parkers.push_back(this);
}

Parker::~Parker() {
    Registry& all = registry();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.parkers.erase(std::find(all.parkers.begin(), all.parkers.end(), this));
}

void Parker::wake() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        woken_.store(true, std::memory_order_relaxed);
        woken_at_ = Clock::now();
    }
    cond_.notify_one();
}

void Parker::learnWakeUp(Clock::duration wake_up) {
    const Duration seen = std::clamp<Duration>(wake_up, min_watch, max_watch);
    wake_up_cost_ += (seen - wake_up_cost_) / 4;
}

void Parker::noteCore() {
    const int core = sched_getcpu();
    if (core != core_.load(std::memory_order_relaxed)) core_.store(core, std::memory_order_relaxed);
}

bool Parker::sharesCoreWith(const Parker* partner) const {
    if (!partner) return false;
    if (partner->asleep_.load(std::memory_order_relaxed) && !partner->woken()) return false;
    const int core = core_.load(std::memory_order_relaxed);
    return core >= 0 && sched_getcpu() == core &&
           partner->core_.load(std::memory_order_relaxed) == core;
}

void Parker::unparkAll() {
    Registry& all = registry();
    std::lock_guard<std::mutex> lock(all.mutex);
    for (Parker* parker : all.parkers) parker->unpark();
}

void Notifier::notifyAll() {
    generation_.fetch_add(1);
    Parker::unparkAll();
    if (sleepers_.load() == 0) return;
    std::lock_guard<std::mutex> lock(mutex);
    cond.notify_all();
}

void Notifier::sleep(std::uint64_t seen, std::chrono::microseconds bound) {
    std::unique_lock<std::mutex> lock(mutex);
    sleepers_.fetch_add(1);
    cond.wait_for(lock, bound - spin_bound, [&] { return generation_.load() != seen; });
    sleepers_.fetch_sub(1);
}

} // namespace pytarn::event
