// What no Tcl script can drive one step at a time: request queues, notifier, output queue,
// a request's window for interrupts, the work functions' contract, calls during shutdown.
#include "TestEnv.h"

#include "core/Bridge.h" // the work functions, and the state and queues below them
#include "pytarn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <string>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <vector>

using namespace pytarn::event;
using pytarn_test::pendingError;
using pytarn_test::py;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds long_bound{30}; // reaching it can only mean a lost wake-up

namespace {

// Pops the queue until it gives nothing, in the order it gives.
std::vector<PyEvent*> drain(PythonEventQueue& queue) {
    std::vector<PyEvent*> popped;
    while (PyEvent* ev = queue.pop())
        popped.push_back(ev);
    return popped;
}

} // namespace

TEST(LockedQueue, KeepsOrderWhateverItsLengthAndWhicheverEntryIsRemoved) {
    PythonEventQueue queue;
    std::deque<PyEvent> items;
    for (int i = 0; i < 12; ++i)
        items.emplace_back(nullptr);
    for (std::size_t length = 1; length <= items.size(); ++length) {
        for (std::size_t gone = 0; gone < length; ++gone) {
            SCOPED_TRACE("length " + std::to_string(length) + ", removed " + std::to_string(gone));
            std::vector<PyEvent*> kept;
            for (std::size_t i = 0; i < length; ++i) {
                queue.push(&items[i]);
                if (i != gone) kept.push_back(&items[i]);
            }
            const bool removed = queue.remove(&items[gone]);
            const bool removedAgain = queue.remove(&items[gone]);
            EXPECT_TRUE(removed);
            EXPECT_FALSE(removedAgain);
            EXPECT_EQ(queue.size(), length - 1);
            const std::vector<PyEvent*> popped = drain(queue);
            EXPECT_EQ(popped, kept);
            EXPECT_TRUE(queue.empty());
            EXPECT_TRUE(queue.looksEmpty());
        }
    }
    // Appending while partly drained keeps the order too.
    for (int i = 0; i < 5; ++i)
        queue.push(&items[i]);
    PyEvent* const head = queue.pop();
    EXPECT_EQ(head, &items[0]);
    for (int i = 5; i < 8; ++i)
        queue.push(&items[i]);
    const std::vector<PyEvent*> rest = drain(queue);
    EXPECT_EQ(rest, (std::vector<PyEvent*>{&items[1], &items[2], &items[3], &items[4], &items[5],
                                           &items[6], &items[7]}));
    // Closed, it keeps what it had and takes nothing more.
    queue.push(&items[0]);
    queue.close();
    const bool pushedAfterClose = queue.push(&items[1]);
    EXPECT_FALSE(pushedAfterClose);
    EXPECT_EQ(drain(queue), std::vector<PyEvent*>{&items[0]});
}

// Pushers race each other, the taker and their own removals: every entry comes out once,
// unless its pusher took it back first, and each pusher's entries in the order it pushed.
TEST(LockedQueue, ManyPushersLoseNothingAndKeepEachOnesOrder) {
    constexpr int pushers = 4;
    constexpr int each = 10000;
    PythonEventQueue queue;
    std::deque<PyEvent> items;
    std::unordered_map<PyEvent*, int> index;
    for (int i = 0; i < pushers * each; ++i)
        index[&items.emplace_back(nullptr)] = i;
    std::atomic<int> taken_back{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < pushers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < each; ++i) {
                PyEvent* ev = &items[static_cast<std::size_t>(p * each + i)];
                queue.push(ev);
                if (i % 7 == 0 && queue.remove(ev)) ++taken_back;
            }
        });
    }
    std::vector<int> last(pushers, -1);
    int popped = 0;
    bool inOrder = true;
    const auto until = Clock::now() + long_bound;
    while (popped + taken_back.load() < pushers * each && Clock::now() < until) {
        PyEvent* ev = queue.pop();
        if (!ev) continue;
        const int at = index.at(ev);
        inOrder = inOrder && at % each > last[at / each];
        last[at / each] = at % each;
        ++popped;
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(popped + taken_back.load(), pushers * each);
    EXPECT_TRUE(queue.empty());
}

TEST(Notifier, WakesEveryWaiterNotifiedBeforeOrDuringItsWait) {
    Notifier notifier;
    const auto seen = notifier.generation();
    // Unchanged, a wait lasts its bound.
    const auto start = Clock::now();
    notifier.waitChange(seen, std::chrono::milliseconds{50});
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds{50});
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { notifier.waitChange(seen, long_bound); });
    // A parked waiter too: its flag is up once its check has run.
    Parker parker;
    std::atomic<bool> parked{false};
    auto raiseAndWait = [&] {
        parked.store(true);
        return false;
    };
    waiters.emplace_back(
        [&] { notifier.waitChange(parker, nullptr, seen, long_bound, raiseAndWait); });
    while (notifier.sleepers() < 4 || !parked.load()) std::this_thread::yield();
    notifier.notifyAll();
    for (auto& waiter : waiters) waiter.join();
    notifier.waitChange(seen, long_bound); // notified before it began: returns at once
    notifier.waitChange(notifier.generation(), long_bound, [] { return true; }); // or ready
    EXPECT_LT(Clock::now() - start, long_bound / 2);
}

// Two threads hand a turn back and forth, each unparking the other alone, as a request and
// its answer do: a lost wake-up lets a wait run to its whole bound, however busy the machine.
// Quick turns are caught while the waiter watches; one in ten comes late and finds it parked.
TEST(Parker, HandOffsLoseNoWakeUp) {
    constexpr int rounds = 20000;
    Notifier notifier;
    Parker parkers[2];
    std::atomic<int> turn{0};
    std::atomic<int> lost{0};
    auto play = [&](int me) {
        const auto mine = [&](int i) { return turn.load() == i; };
        for (int i = me; i < rounds; i += 2) {
            while (!mine(i)) {
                const auto asleep = Clock::now();
                notifier.waitChange(parkers[me], &parkers[1 - me], notifier.generation(),
                                    long_bound,
                                    [&] { return mine(i); });
                lost += Clock::now() - asleep >= long_bound;
            }
            const auto work = i % 20 < 2 ? Notifier::spin_bound * 2 : std::chrono::microseconds{};
            for (const auto until = Clock::now() + work; Clock::now() < until;) {}
            turn.store(i + 1);
            parkers[1 - me].unpark();
        }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
    EXPECT_EQ(turn.load(), rounds);
    EXPECT_EQ(lost.load(), 0);
}

// An interrupt landing between a request's end and the Tcl thread's return reaches nothing.
TEST(PyEventService, AnEndedRequestIsNoLongerInterrupted) {
    RunningCalls& calls = pytarn::event_mgr->calls;
    PyEvent ev([](PyObject*) { return py("None").release(); });
    ev.call = calls.enter();
    PythonEventQueue::serviceEvent(&ev);
    const bool marked = calls.markInnermost();
    const RunningCalls::Target target = calls.takeMark();
    EXPECT_FALSE(marked);
    EXPECT_NE(target.kind, RunningCalls::Target::running);
    calls.leave();
}

// The Tcl thread waits for a lent argument until it is taken: a request interrupted before
// it starts, which never converts it, says so too.
TEST(PyEventService, ALentArgumentIsTakenWhenInterruptedBeforeItStarts) {
    RunningCalls& calls = pytarn::event_mgr->calls;
    pytarn::SmartTclObj value(Tcl_NewStringObj("42", -1));
    PyEvent ev([](PyObject*) { return py("None").release(); });
    ev.has_argument = true;
    ev.lends = true;
    ev.argument = value.get();
    ev.call = calls.enter();
    calls.markInnermost();
    calls.takeMark();
    PythonEventQueue::serviceEvent(&ev);
    calls.leave();
    EXPECT_TRUE(ev.taken.load());
    EXPECT_EQ(ev.status, TCL_ERROR);
}

// Calls nested deeper than the table's levels share its last slot: an interrupt asked for
// there still finds the innermost call, queued or running.
TEST(RunningCalls, PastTheDeepestLevelTheInnermostCallIsInterrupted) {
    RunningCalls calls;
    std::uint64_t innermost = 0;
    for (int level = 0; level < RunningCalls::levels + 2; ++level)
        innermost = calls.enter();
    const bool marked = calls.markInnermost();
    const RunningCalls::Target target = calls.takeMark();
    const bool interruptedAtStart = calls.begin(innermost);
    EXPECT_TRUE(marked);
    EXPECT_EQ(target.kind, RunningCalls::Target::queued);
    EXPECT_TRUE(interruptedAtStart);
}

// A host that asks from an interpreter other than the bridge's is refused with a reason.
TEST(VirtualEnv, RefusedOutsideTheBridgesInterpreter) {
    Tcl_Interp* other = Tcl_CreateInterp();
    ASSERT_EQ(setenv("VIRTUAL_ENV", "/nonexistent", 1), 0);
    const int code = Pytarn_UseVirtualEnv(other);
    unsetenv("VIRTUAL_ENV");
    EXPECT_EQ(code, TCL_ERROR);
    EXPECT_STREQ(Tcl_GetStringResult(other), "pytarn: a virtual environment needs the bridge "
                                             "loaded into this interpreter, on its thread");
    Tcl_DeleteInterp(other);
}

// The exit's bounded wait tells a finished request from one that it must interrupt.
TEST(TclEventQueue, ABoundedWaitSaysWhetherTheRequestIsDone) {
    PyEvent finished(nullptr), running(nullptr);
    finished.done.store(true);
    TclEventQueue& queue = pytarn::event_mgr->tcl_queue;
    const bool finishedDone = queue.waitFor(&finished, nullptr, Clock::now() + long_bound);
    const bool runningDone = queue.waitFor(&running, nullptr, Clock::now());
    EXPECT_TRUE(finishedDone);
    EXPECT_FALSE(runningDone);
}

// Null exactly when an error is set, or a request would report a failed assignment as done.
TEST(WorkFunctions, SetFailsWithNullAndItsErrorSet) {
    pytarn::PythonState& state = pytarn::python_state;
    state.main_dict = py("{'__builtins__': __builtins__}");
    for (auto [target, swap, error] : {std::tuple{"answer", "lambda: 0", ""},
             {"1", "lambda: 0", "SyntaxError"}, {"a.b", "lambda: 0", "NameError"},
             {"answer", "object()", "AttributeError"}}) { // the value cannot be handed over
        state.tcl = py(swap);
        PyDict_SetItemString(state.main_dict.get(), "__tcl", state.tcl.get());
        pytarn::SmartPyObj value(PyLong_FromLong(42));
        pytarn::SmartPyObj returned(pytarn::python::set(target, value.get()));
        EXPECT_EQ(pendingError(), error) << target;
        EXPECT_EQ(!returned, *error != '\0') << target;
        PyErr_Clear();
    }
    EXPECT_EQ(PyLong_AsLong(PyDict_GetItemString(state.main_dict.get(), "answer")), 42);
    state.tcl.reset();
    state.main_dict.reset();
}

// Once shutdown has begun neither side takes requests: a call must end at once
// instead of queueing a request that nobody carries out.
TEST(EventMgrSpin, EndsAtOnceOnceShutdownHasBegun) {
    Tcl_Interp* interp = Tcl_CreateInterp();
    pytarn::tcl_interp = interp;
    pytarn::python_thread.ready.store(true);
    pytarn::python_thread.alive.store(false);
    bool ran = false;
    PyEvent request([&ran](PyObject*) -> PyObject* {
        ran = true;
        return nullptr;
    });
    const int code = pytarn::event_mgr->spin(&request);
    EXPECT_EQ(code, TCL_ERROR);
    EXPECT_STREQ(Tcl_GetStringResult(interp), "Python interpreter is not running");
    EXPECT_TRUE(pytarn::event_mgr->python_queue.empty());
    EXPECT_FALSE(ran);
    // Python's calls into Tcl return None at once, so that its code can end.
    TclEvent script(TclEvent::Asks::eval);
    script.setText("set x 1");
    const pytarn::SmartPyObj result(pytarn::event_mgr->spin(&script));
    EXPECT_EQ(result.get(), Py_None);
    EXPECT_TRUE(pytarn::event_mgr->tcl_queue.empty());
    pytarn::python_thread.alive.store(true);
    pytarn::python_thread.ready.store(false);
    pytarn::tcl_interp = nullptr;
    Tcl_DeleteInterp(interp);
}

TEST(OutputQueue, JoinsWritesToOneChannelAndRefusesPastItsLimit) {
    OutputQueue output;
    using A = OutputQueue::Appended;
    OutputQueue::Piece piece;
    auto append = [&](bool to_stderr, const std::string& text) {
        return output.append(to_stderr, text.data(), text.size());
    };
    EXPECT_FALSE(output.pending());
    const std::vector<A> appended{append(false, "a"), append(false, "bc"), append(true, "err"),
                                  append(false, "")};
    EXPECT_EQ(appended, (std::vector<A>{A::first, A::queued, A::queued, A::queued}));
    EXPECT_TRUE(output.pending());
    std::string pieces;
    while (output.take(&piece)) pieces += (piece.to_stderr ? "|E:" : "|O:") + piece.text;
    EXPECT_EQ(pieces, "|O:abc|E:err|O:");
    EXPECT_FALSE(output.pending());
    // Emptied: the next write must wake the Tcl thread again, once a piece fills.
    const std::string line(1000, 'x');
    const A firstLine = append(false, line);
    EXPECT_EQ(firstLine, A::first);
    EXPECT_GT(output.dueIn().count(), 0);
    EXPECT_LE(output.dueIn(), OutputQueue::delay);
    std::size_t written = line.size();
    int filled = 0;
    for (A result = append(false, line); result != A::full; result = append(false, line)) {
        written += line.size();
        filled += result == A::filled;
    }
    EXPECT_EQ(filled, 1);
    EXPECT_EQ(output.dueIn().count(), 0);
    EXPECT_GE(written, OutputQueue::limit);
    EXPECT_LT(written, OutputQueue::limit + line.size());
    // Nothing refused was kept, nothing kept is lost, and taking makes room.
    ASSERT_TRUE(output.take(&piece));
    std::size_t taken = piece.text.size();
    const A afterTaking = append(false, "y");
    EXPECT_NE(afterTaking, A::full);
    while (output.take(&piece)) taken += piece.text.size();
    EXPECT_EQ(taken, written + 1);
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
