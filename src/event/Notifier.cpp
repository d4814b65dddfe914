#include "Event.h"

namespace pytarn::event {

void Notifier::notifyAll() {
    generation_.fetch_add(1);
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
