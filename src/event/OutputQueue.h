// Text that Python threads have written to sys.stdout or sys.stderr and the
// main Tcl thread has not yet put on its channels.
//
// A print does not wait for the Tcl thread: it appends here and goes on.
// The Tcl thread writes what is waiting before it carries out any other
// request, before it returns from a call into Python, from its event loop
// and at exit, so a thread's output keeps its order against everything
// else that thread asks of Tcl, and none is lost. While the Tcl thread waits
// for a call into Python it writes output that has waited for `delay` or
// filled a piece: a loop of prints then costs a few lock operations per
// line instead of a hand-off between threads per line.
#pragma once

#include "Lines.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

namespace pytarn::event {

class alignas(line_pair) OutputQueue { // a pair of its own, as the queues
public:
    // One stretch of writes to the same channel, written to Tcl at once.
    struct Piece {
        bool to_stderr = false;
        std::string text;
    };

    // A write that Tcl could not carry out, kept until its channel's next
    // write or flush reports it to Python.
    struct Failure {
        int number = 0; // errno, or 0 when the failure has none
        std::string message;
    };

    enum class Appended { full, queued, first, filled };

    // Any thread. `full` when `limit` bytes are already waiting (only when
    // `bounded`): the caller then writes through a request of its own and
    // waits, as a writer to a full pipe would. `first` when nothing was
    // waiting before, `filled` when this write made a piece's worth wait: the
    // caller must then make sure the Tcl thread will look.
    Appended append(bool to_stderr, const char* text, std::size_t length, bool bounded = true);
    // How long until what waits should be written: zero once it has waited
    // for `delay` or fills a piece.
    std::chrono::microseconds dueIn();
    // Takes the oldest piece out; false when none waits. One piece at a time:
    // writing one may call into Python, which may print and drain again.
    bool take(Piece* piece);
    // A cheap look, for waits that poll.
    bool pending() const { return pending_.load(); }
    // How many pieces wait now.
    std::size_t pieces();
    // Tcl thread: a write to the channel failed. The first failure is kept
    // until it is taken; the failed text is gone, as a buffered file's is.
    void fail(bool to_stderr, int number, const char* message);
    // Any thread: a cheap look whether a failure waits for the channel.
    bool failed(bool to_stderr) const { return failed_[to_stderr].load(); }
    // Takes the channel's failure out; false when none waits.
    bool takeFailure(bool to_stderr, Failure* failure);

    static constexpr std::size_t limit = std::size_t{1} << 20;
    static constexpr std::size_t piece_size = std::size_t{1} << 16;
    static constexpr std::chrono::microseconds delay{1000};

private:
    std::mutex mutex_;
    std::deque<Piece> pieces_; // guarded by mutex_
    std::size_t bytes_ = 0;    // guarded by mutex_
    std::chrono::steady_clock::time_point since_; // guarded; when it began to wait
    std::atomic<bool> pending_{false};
    Failure failures_[2];            // guarded; stdout, stderr
    std::atomic<bool> failed_[2] = {}; // written under mutex_
};

} // namespace pytarn::event
