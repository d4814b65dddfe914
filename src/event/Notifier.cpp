#include "Event.h"

namespace pytarn::event {

void Notifier::notifyAll() {
    std::lock_guard<std::mutex> lock(mutex);
    generation_.fetch_add(1);
    cond.notify_all();
}

void Notifier::waitChange(std::uint64_t seen, std::chrono::microseconds bound) {
    std::unique_lock<std::mutex> lock(mutex);
    cond.wait_for(lock, bound, [&] { return generation_.load() != seen; });
}

} // namespace pytarn::event
