#include "OutputQueue.h"

#include <new>

namespace pytarn::event {

OutputQueue::Appended OutputQueue::append(bool to_stderr, const char* text,
                                          std::size_t length, bool bounded) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (bounded && bytes_ >= limit) return Appended::full;
    if (pieces_.empty() || pieces_.back().to_stderr != to_stderr ||
        pieces_.back().text.size() >= piece_size) {
        pieces_.emplace_back();
        pieces_.back().to_stderr = to_stderr;
    }
    pieces_.back().text.append(text, length);
    const std::size_t before = bytes_;
    bytes_ += length;
    // Written only under mutex_: a plain look is enough, and cheaper than an
    // exchange on every write.
    if (!pending_.load(std::memory_order_relaxed)) {
        pending_.store(true);
        since_ = std::chrono::steady_clock::now();
        return Appended::first;
    }
    return before < piece_size && bytes_ >= piece_size ? Appended::filled : Appended::queued;
}

std::chrono::microseconds OutputQueue::dueIn() {
    using std::chrono::microseconds;
    std::lock_guard<std::mutex> lock(mutex_);
    if (pieces_.empty() || bytes_ >= piece_size) return microseconds{0};
    const auto waited = std::chrono::duration_cast<microseconds>(
        std::chrono::steady_clock::now() - since_);
    return waited >= delay ? microseconds{0} : delay - waited;
}

std::size_t OutputQueue::pieces() {
    std::lock_guard<std::mutex> lock(mutex_);
    return pieces_.size();
}

bool OutputQueue::take(Piece* piece) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (pieces_.empty()) return false;
    *piece = std::move(pieces_.front());
    pieces_.pop_front();
    bytes_ -= piece->text.size();
    pending_.store(!pieces_.empty());
    return true;
}

void OutputQueue::fail(bool to_stderr, int number, const char* message) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failed_[to_stderr].load()) return;
    failures_[to_stderr].number = number;
    try {
        failures_[to_stderr].message = message;
    } catch (const std::bad_alloc&) { // the errno alone still tells what failed
        failures_[to_stderr].message.clear();
    }
    failed_[to_stderr].store(true);
}

bool OutputQueue::takeFailure(bool to_stderr, Failure* failure) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!failed_[to_stderr].load()) return false;
    *failure = std::move(failures_[to_stderr]);
    failed_[to_stderr].store(false);
    return true;
}

} // namespace pytarn::event
