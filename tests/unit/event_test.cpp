#include "TestEnv.h"

#include "core/Bridge.h" // the work functions, for the assignment request
#include "event/State.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace pytarn::event;
using pytarn_test::pendingError;
using pytarn_test::py;
using Clock = std::chrono::steady_clock;

namespace {

// Long enough that reaching it can only mean a lost wake-up.
constexpr std::chrono::seconds long_bound{30};

template <typename T>
struct TestQueue : _LockedQueueT<T> {
    using _LockedQueueT<T>::append;
};

} // namespace

TEST(LockedQueue, PopsInArrivalOrder) {
    TestQueue<int> queue;
    int a = 0, b = 0, c = 0;
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.pop(), nullptr);
    for (int* item : {&a, &b, &c}) queue.append(item);
    EXPECT_FALSE(queue.empty());
    EXPECT_EQ(queue.pop(), &a);
    EXPECT_EQ(queue.pop(), &b);
    EXPECT_EQ(queue.pop(), &c);
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_TRUE(queue.empty());
}

TEST(LockedQueue, RemoveTakesOutOnlyAQueuedEntry) {
    TestQueue<int> queue;
    int a = 0, b = 0, c = 0;
    EXPECT_FALSE(queue.remove(&a));
    for (int* item : {&a, &b, &c}) queue.append(item);
    EXPECT_TRUE(queue.remove(&b));
    EXPECT_FALSE(queue.remove(&b));
    EXPECT_EQ(queue.pop(), &a);
    EXPECT_EQ(queue.pop(), &c);
    EXPECT_FALSE(queue.remove(&a));
}

TEST(LockedQueue, KeepsOrderWhateverItsLengthAndWhicheverEntryIsRemoved) {
    TestQueue<int> queue;
    std::vector<int> items(12);
    // Removing from the front, the middle and the back, at every length.
    for (std::size_t length = 1; length <= items.size(); ++length) {
        for (std::size_t gone = 0; gone < length; ++gone) {
            for (std::size_t i = 0; i < length; ++i) queue.append(&items[i]);
            EXPECT_TRUE(queue.remove(&items[gone]));
            for (std::size_t i = 0; i < length; ++i) {
                if (i != gone) {
                    EXPECT_EQ(queue.pop(), &items[i]) << length << " " << gone;
                }
            }
            EXPECT_TRUE(queue.empty());
        }
    }
    // Appending while partly drained keeps the order too.
    for (int i = 0; i < 5; ++i) queue.append(&items[i]);
    EXPECT_EQ(queue.pop(), &items[0]);
    for (int i = 5; i < 8; ++i) queue.append(&items[i]);
    for (int i = 1; i < 8; ++i) EXPECT_EQ(queue.pop(), &items[i]);
    EXPECT_EQ(queue.pop(), nullptr);
}

TEST(LockedQueue, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
    constexpr int producers = 4, each = 2000;
    TestQueue<const int> queue;
    std::vector<int> items(producers * each);
    for (size_t i = 0; i < items.size(); ++i) items[i] = static_cast<int>(i);
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i) queue.append(&items[p * each + i]);
        });
    std::vector<int> last(producers, -1);
    size_t popped = 0;
    const auto deadline = Clock::now() + long_bound;
    while (popped < items.size() && Clock::now() < deadline) {
        const int* item = queue.pop();
        if (!item) continue;
        ++popped;
        EXPECT_GT(*item, last[*item / each]);
        last[*item / each] = *item;
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(popped, items.size());
    EXPECT_TRUE(queue.empty());
}

TEST(PythonEventQueue, PushWakesWaiters) {
    PythonEventQueue queue;
    PyEvent ev(nullptr);
    const auto seen = pytarn::notifier->generation();
    queue.push(&ev);
    EXPECT_NE(pytarn::notifier->generation(), seen);
    EXPECT_EQ(queue.pop(), &ev);
}

TEST(Notifier, NotificationBeforeTheWaitEndsItAtOnce) {
    Notifier notifier;
    const auto seen = notifier.generation();
    notifier.notifyAll();
    const auto start = Clock::now();
    notifier.waitChange(seen, long_bound);
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

TEST(Notifier, NotificationAfterTheWaitStartsEndsItForEveryWaiter) {
    Notifier notifier;
    const auto seen = notifier.generation();
    std::atomic<int> waiting{0}, woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            ++waiting;
            notifier.waitChange(seen, long_bound);
            ++woken;
        });
    while (waiting.load() < 4) std::this_thread::yield();
    EXPECT_EQ(woken.load(), 0);
    const auto start = Clock::now();
    notifier.notifyAll();
    for (auto& waiter : waiters) waiter.join();
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

TEST(Notifier, WaitersAlreadyAsleepAreWoken) {
    Notifier notifier;
    const auto seen = notifier.generation();
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { notifier.waitChange(seen, long_bound); });
    while (notifier.sleepers() < 4) std::this_thread::yield();
    const auto start = Clock::now();
    notifier.notifyAll();
    for (auto& waiter : waiters) waiter.join();
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

// Two threads hand a turn back and forth, each waiting for the other's
// notification: a single lost wake-up would cost a whole bound. Quick turns
// are caught while the waiter watches; turns that take longer than that
// (each player works a while first) find it asleep.
void handOffs(int rounds, std::chrono::microseconds work) {
    Notifier notifier;
    std::atomic<int> turn{0};
    auto play = [&](int me) {
        for (int i = me; i < rounds; i += 2) {
            for (;;) {
                const auto seen = notifier.generation();
                if (turn.load() == i) break;
                notifier.waitChange(seen, long_bound);
            }
            for (const auto until = Clock::now() + work; Clock::now() < until;) {
            }
            turn.store(i + 1);
            notifier.notifyAll();
        }
    };
    const auto start = Clock::now();
    std::thread other(play, 1);
    play(0);
    other.join();
    EXPECT_EQ(turn.load(), rounds);
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

TEST(Notifier, HandOffsLoseNoWakeUp) {
    handOffs(20000, std::chrono::microseconds{0});
    handOffs(2000, Notifier::spin_bound * 2);
}

TEST(Notifier, UnchangedGenerationWaitsOutItsBound) {
    Notifier notifier;
    const auto seen = notifier.generation();
    constexpr std::chrono::milliseconds bound{50};
    const auto start = Clock::now();
    notifier.waitChange(seen, bound);
    EXPECT_GE(Clock::now() - start, bound);
    EXPECT_EQ(notifier.generation(), seen);
}

TEST(PyEventService, FailuresBecomeTclErrorsAndLeaveNoPythonError) {
    const std::pair<const char*, const char*> cases[] = {
        {"int('x')", "ValueError: invalid literal for int() with base 10: 'x'"},
        {"type('B', (), {'__str__': lambda self: 1/0})()", "ZeroDivisionError: division by zero"},
        {"(lambda l: l.append(l) or l)([])", "RecursionError: value nested too deeply to convert"},
    };
    for (auto [expression, message] : cases) {
        PyEvent ev([expression = expression] { return py(expression).release(); });
        const auto seen = pytarn::notifier->generation();
        PythonEventQueue::serviceEvent(&ev);
        EXPECT_TRUE(ev.done.load());
        EXPECT_NE(pytarn::notifier->generation(), seen);
        EXPECT_EQ(ev.status, TCL_ERROR) << expression;
        ASSERT_TRUE(ev.result) << expression;
        EXPECT_STREQ(Tcl_GetString(ev.result.get()), message);
        EXPECT_EQ(pendingError(), "") << expression;
    }
}

// Once shutdown has begun neither side takes requests any more: a call must
// end at once instead of queueing a request that nobody carries out.
TEST(EventMgrSpin, EndsAtOnceOnceShutdownHasBegun) {
    Tcl_Interp* interp = Tcl_CreateInterp();
    pytarn::tcl_interp = interp;
    pytarn::python_thread.ready.store(true);
    pytarn::python_thread.alive.store(false);
    bool ran = false;
    PyEvent request([&ran] {
        ran = true;
        return nullptr;
    });
    EXPECT_EQ(pytarn::event_mgr->spin(&request), TCL_ERROR);
    EXPECT_STREQ(Tcl_GetStringResult(interp), "Python interpreter is not running");
    EXPECT_TRUE(pytarn::event_mgr->python_queue.empty());
    EXPECT_FALSE(ran);
    // Python's calls into Tcl return None at once, so that its code can end.
    TclEvent script;
    script.script = "set x 1";
    pytarn::SmartPyObj none(pytarn::event_mgr->spin(&script));
    EXPECT_EQ(none.get(), Py_None);
    EXPECT_TRUE(pytarn::event_mgr->tcl_queue.empty());
    pytarn::python_thread.alive.store(true);
    pytarn::python_thread.ready.store(false);
    pytarn::tcl_interp = nullptr;
    Tcl_DeleteInterp(interp);
}

TEST(OutputQueue, KeepsOrderAndJoinsWritesToOneChannel) {
    OutputQueue output;
    EXPECT_FALSE(output.pending());
    EXPECT_EQ(output.append(false, "a", 1), OutputQueue::Appended::first);
    EXPECT_EQ(output.append(false, "bc", 2), OutputQueue::Appended::queued);
    EXPECT_EQ(output.append(true, "err", 3), OutputQueue::Appended::queued);
    EXPECT_EQ(output.append(false, "", 0), OutputQueue::Appended::queued);
    EXPECT_TRUE(output.pending());

    OutputQueue::Piece piece;
    ASSERT_TRUE(output.take(&piece));
    EXPECT_FALSE(piece.to_stderr);
    EXPECT_EQ(piece.text, "abc");
    ASSERT_TRUE(output.take(&piece));
    EXPECT_TRUE(piece.to_stderr);
    EXPECT_EQ(piece.text, "err");
    ASSERT_TRUE(output.take(&piece));
    EXPECT_EQ(piece.text, "");
    EXPECT_FALSE(output.pending());
    EXPECT_FALSE(output.take(&piece));
    // Emptied: the next write must wake the Tcl thread again.
    EXPECT_EQ(output.append(false, "x", 1), OutputQueue::Appended::first);
}

TEST(OutputQueue, IsDueWhenAPieceFillsAndRefusesPastItsLimit) {
    OutputQueue output;
    const std::string line(1000, 'x');
    EXPECT_EQ(output.append(false, line.data(), line.size()), OutputQueue::Appended::first);
    EXPECT_GT(output.dueIn().count(), 0);
    EXPECT_LE(output.dueIn(), OutputQueue::delay);
    std::size_t written = line.size();
    int filled = 0;
    for (;;) {
        OutputQueue::Appended appended = output.append(false, line.data(), line.size());
        if (appended == OutputQueue::Appended::full) break;
        if (appended == OutputQueue::Appended::filled) ++filled;
        written += line.size();
    }
    EXPECT_EQ(filled, 1); // the Tcl thread is woken once, not at every write
    EXPECT_EQ(output.dueIn().count(), 0);
    EXPECT_GE(written, OutputQueue::limit);
    EXPECT_LT(written, OutputQueue::limit + line.size());

    // Nothing refused was kept, nothing kept is lost, and taking makes room.
    OutputQueue::Piece piece;
    std::size_t taken = 0;
    ASSERT_TRUE(output.take(&piece));
    taken += piece.text.size();
    EXPECT_NE(output.append(false, "y", 1), OutputQueue::Appended::full);
    while (output.take(&piece)) taken += piece.text.size();
    EXPECT_EQ(taken, written + 1);
}

// The assignment request keeps its contract: null with the error set when it
// fails, whichever step failed, and None only when it succeeded.
TEST(WorkFunctions, SetFailsWithNullAndItsErrorSet) {
    pytarn::PythonState& state = pytarn::python_state;
    state.main_dict = py("{'__builtins__': __builtins__}");
    const struct {
        const char* target;
        const char* swap; // the object that carries the value across
        const char* error;
    } cases[] = {
        {"answer", "type('Swap', (), {})()", ""},
        {"1", "type('Swap', (), {})()", "SyntaxError"},
        {"missing.attr", "type('Swap', (), {})()", "NameError"},
        {"answer", "object()", "AttributeError"}, // the value cannot be handed over
    };
    for (const auto& c : cases) {
        state.tcl = py(c.swap);
        PyDict_SetItemString(state.main_dict.get(), "__tcl", state.tcl.get());
        pytarn::SmartTclObj value(Tcl_NewStringObj("42", -1));
        pytarn::SmartPyObj returned(pytarn::python::set(c.target, &value));
        EXPECT_EQ(pendingError(), c.error) << c.target;
        EXPECT_EQ(returned.get() == nullptr, *c.error != '\0') << c.target;
        PyErr_Clear();
    }
    EXPECT_EQ(PyLong_AsLong(PyDict_GetItemString(state.main_dict.get(), "answer")), 42);
    state.tcl.reset();
    state.main_dict.reset();
}

// The handles check their lock rule wherever assertions are kept, and the
// sanitizer builds keep them.
TEST(SmartPyObj, TouchedWithoutTheLockIsCaught) {
#if defined(NDEBUG) && (defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__))
    FAIL() << "a sanitizer build without assertions";
#elif defined(NDEBUG)
    GTEST_SKIP() << "assertions are off in this build";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    pytarn::SmartPyObj held = py("object()");
    EXPECT_DEATH(std::thread([&held] { pytarn::SmartPyObj copy(held); }).join(),
                 "PyGILState_Check");
#endif
}
