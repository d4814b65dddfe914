// The transport's pieces that no Tcl script can drive one step at a time: the request
// queues, the notifier, the output queue, and a call made once shutdown has begun.
#include "TestEnv.h"

#include "core/Bridge.h" // the work functions, for the assignment request
#include "event/State.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <utility>
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

TEST(LockedQueue, KeepsOrderWhateverItsLengthAndWhicheverEntryIsRemoved) {
    TestQueue<int> queue;
    std::vector<int> items(12);
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_FALSE(queue.remove(&items[0]));
    // Removing from the front, the middle and the back, at every length.
    for (std::size_t length = 1; length <= items.size(); ++length) {
        for (std::size_t gone = 0; gone < length; ++gone) {
            for (std::size_t i = 0; i < length; ++i) queue.append(&items[i]);
            EXPECT_FALSE(queue.empty());
            EXPECT_TRUE(queue.remove(&items[gone]));
            EXPECT_FALSE(queue.remove(&items[gone]));
            for (std::size_t i = 0; i < length; ++i) {
                if (i == gone) continue;
                EXPECT_EQ(queue.pop(), &items[i]) << length << " " << gone;
            }
            EXPECT_TRUE(queue.empty());
            EXPECT_EQ(queue.pop(), nullptr);
        }
    }
    // Appending while partly drained keeps the order too.
    for (int i = 0; i < 5; ++i) queue.append(&items[i]);
    EXPECT_EQ(queue.pop(), &items[0]);
    for (int i = 5; i < 8; ++i) queue.append(&items[i]);
    for (int i = 1; i < 8; ++i) EXPECT_EQ(queue.pop(), &items[i]);
}

TEST(LockedQueue, ConcurrentProducersLoseNothingAndKeepTheirOrder) {
    constexpr int producers = 4, each = 2000;
    TestQueue<const int> queue;
    std::vector<int> items(producers * each), last(producers, -1);
    for (size_t i = 0; i < items.size(); ++i) items[i] = static_cast<int>(i);
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i) queue.append(&items[p * each + i]);
        });
    size_t popped = 0;
    for (const auto end = Clock::now() + long_bound; popped < items.size() && Clock::now() < end;)
        if (const int* item = queue.pop()) {
            ++popped;
            EXPECT_GT(*item, std::exchange(last[*item / each], *item));
        }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(popped, items.size());
}

TEST(Notifier, WakesEveryWaiterWhetherWatchingOrAsleep) {
    Notifier notifier;
    const auto seen = notifier.generation();
    PythonEventQueue queue; // a push notifies the process's notifier
    PyEvent ev(nullptr);
    const auto processSeen = pytarn::notifier->generation();
    queue.push(&ev);
    EXPECT_NE(pytarn::notifier->generation(), processSeen);
    EXPECT_EQ(queue.pop(), &ev);
    // Unchanged, a wait lasts its bound.
    const auto start = Clock::now();
    notifier.waitChange(seen, std::chrono::milliseconds{50});
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds{50});
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { notifier.waitChange(seen, long_bound); });
    while (notifier.sleepers() < 4) std::this_thread::yield();
    notifier.notifyAll();
    for (auto& waiter : waiters) waiter.join();
    notifier.waitChange(seen, long_bound); // notified before it began: returns at once
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

// Two threads hand a turn back and forth, each waiting for the other's notification:
// a single lost wake-up costs a whole bound. Quick turns are caught while the waiter
// watches; turns that take longer (each player works a while first) find it asleep.
TEST(Notifier, HandOffsLoseNoWakeUp) {
    for (auto [rounds, work] : {std::pair{20000, std::chrono::microseconds{0}},
                                std::pair{2000, Notifier::spin_bound * 2}}) {
        Notifier notifier;
        std::atomic<int> turn{0};
        auto play = [&, rounds = rounds, work = work](int me) {
            for (int i = me; i < rounds; i += 2) {
                for (auto seen = notifier.generation(); turn.load() != i;
                     seen = notifier.generation())
                    notifier.waitChange(seen, long_bound);
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
}

TEST(PyEventService, FailuresBecomeTclErrorsAndLeaveNoPythonError) {
    const std::pair<const char*, const char*> cases[] = {
        {"int('x')", "ValueError: invalid literal for int() with base 10: 'x'"},
        {"type('B', (), {'__str__': lambda self: 1/0})()", "ZeroDivisionError: division by zero"},
        {"(lambda l: l.append(l) or l)([])", "RecursionError: value nested too deeply to convert"},
    };
    for (auto [expression, message] : cases) {
        PyEvent ev([expression = expression] { return pytarn_test::py(expression).release(); });
        const auto seen = pytarn::notifier->generation();
        PythonEventQueue::serviceEvent(&ev);
        EXPECT_TRUE(ev.done.load());
        EXPECT_NE(pytarn::notifier->generation(), seen);
        EXPECT_EQ(ev.status, TCL_ERROR) << expression;
        ASSERT_TRUE(ev.result) << expression;
        EXPECT_STREQ(Tcl_GetString(ev.result.get()), message);
        EXPECT_EQ(pytarn_test::pendingError(), "") << expression;
    }
}

// Once shutdown has begun neither side takes requests: a call must end at once
// instead of queueing a request that nobody carries out.
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

TEST(OutputQueue, JoinsWritesToOneChannelAndRefusesPastItsLimit) {
    OutputQueue output;
    using A = OutputQueue::Appended;
    EXPECT_FALSE(output.pending());
    for (auto [to_stderr, text, expected] : {std::tuple{false, "a", A::first},
             std::tuple{false, "bc", A::queued}, std::tuple{true, "err", A::queued},
             std::tuple{false, "", A::queued}})
        EXPECT_EQ(output.append(to_stderr, text, std::strlen(text)), expected) << text;
    EXPECT_TRUE(output.pending());
    OutputQueue::Piece piece;
    for (auto [to_stderr, text] : {std::pair{false, "abc"}, std::pair{true, "err"},
                                   std::pair{false, ""}}) {
        ASSERT_TRUE(output.take(&piece));
        EXPECT_EQ(piece.to_stderr, to_stderr);
        EXPECT_EQ(piece.text, text);
    }
    EXPECT_FALSE(output.pending());
    EXPECT_FALSE(output.take(&piece));
    // Emptied: the next write must wake the Tcl thread again, once a piece fills.
    const std::string line(1000, 'x');
    EXPECT_EQ(output.append(false, line.data(), line.size()), A::first);
    EXPECT_GT(output.dueIn().count(), 0);
    EXPECT_LE(output.dueIn(), OutputQueue::delay);
    std::size_t written = line.size();
    int filled = 0;
    for (A appended; (appended = output.append(false, line.data(), line.size())) != A::full;) {
        filled += appended == A::filled;
        written += line.size();
    }
    EXPECT_EQ(filled, 1);
    EXPECT_EQ(output.dueIn().count(), 0);
    EXPECT_GE(written, OutputQueue::limit);
    EXPECT_LT(written, OutputQueue::limit + line.size());
    // Nothing refused was kept, nothing kept is lost, and taking makes room.
    std::size_t taken = 0;
    ASSERT_TRUE(output.take(&piece));
    taken += piece.text.size();
    EXPECT_NE(output.append(false, "y", 1), A::full);
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
