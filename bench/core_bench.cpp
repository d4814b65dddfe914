// C++-level costs inside the bridge, each beside a direct equivalent written
// here: the converters on 1,000,000 integers and the notifier's cross-thread
// hand-off. A process of its own, so it links the bridge's objects statically
// and drives them without the bridge's thread; its main thread holds the
// Python interpreter lock throughout.
#include "convert/TclConvert.h"
#include "event/Event.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

bool initBenchStubs(Tcl_Interp* interp); // core_stubs.cpp, compiled for stubs

namespace {

using pytarn::SmartPyObj;
using pytarn::SmartTclObj;

constexpr int list_size = 1000000;

Tcl_Obj* textObj(long value) {
    char text[24];
    int length = std::snprintf(text, sizeof text, "%ld", value);
    return Tcl_NewStringObj(text, length);
}

// Integers as plain strings: what the Python side receives in a detached copy.
Tcl_Obj* textList() {
    std::vector<Tcl_Obj*> items(list_size);
    for (int i = 0; i < list_size; ++i) items[i] = textObj(i);
    return Tcl_NewListObj(list_size, items.data());
}

// Integer objects without text, as `lappend $i` in a loop leaves them.
Tcl_Obj* intList() {
    std::vector<Tcl_Obj*> items(list_size);
    for (int i = 0; i < list_size; ++i) items[i] = Tcl_NewIntObj(i);
    return Tcl_NewListObj(list_size, items.data());
}

SmartPyObj pythonList() {
    SmartPyObj list(PyList_New(list_size));
    for (int i = 0; i < list_size; ++i) PyList_SET_ITEM(list.get(), i, PyLong_FromLong(i));
    return list;
}

void BM_fromTcl_list(benchmark::State& state) {
    SmartTclObj list(textList());
    for (auto _ : state) {
        SmartPyObj converted = tcl_convert::fromTcl(list.get());
        benchmark::DoNotOptimize(converted.get());
    }
}

// strtol and PyLong_FromLong into a list allocated at its final size.
void BM_direct_fromTcl_list(benchmark::State& state) {
    SmartTclObj list(textList());
    for (auto _ : state) {
        int count = 0;
        Tcl_Obj** elements = nullptr;
        Tcl_ListObjGetElements(nullptr, list.get(), &count, &elements);
        SmartPyObj converted(PyList_New(count));
        for (int i = 0; i < count; ++i) {
            long value = std::strtol(Tcl_GetString(elements[i]), nullptr, 10);
            PyList_SET_ITEM(converted.get(), i, PyLong_FromLong(value));
        }
        benchmark::DoNotOptimize(converted.get());
    }
}

void BM_toTcl_list(benchmark::State& state) {
    SmartPyObj list = pythonList();
    for (auto _ : state) {
        SmartTclObj converted(tcl_convert::toTcl(list));
        benchmark::DoNotOptimize(converted.get());
    }
}

// The same text elements, formatted with snprintf into one Tcl_NewListObj.
void BM_direct_toTcl_list(benchmark::State& state) {
    SmartPyObj list = pythonList();
    std::vector<Tcl_Obj*> items(list_size);
    for (auto _ : state) {
        for (int i = 0; i < list_size; ++i)
            items[i] = textObj(PyLong_AsLong(PyList_GET_ITEM(list.get(), i)));
        SmartTclObj converted(Tcl_NewListObj(list_size, items.data()));
        benchmark::DoNotOptimize(converted.get());
    }
}

// A fresh list each time: the copy has to make the integers' text.
void BM_detachedCopy_list(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        SmartTclObj list(intList());
        state.ResumeTiming();
        SmartTclObj copy(tcl_convert::detachedCopy(list.get()));
        benchmark::DoNotOptimize(copy.get());
    }
}

void BM_direct_copy_list(benchmark::State& state) {
    std::vector<Tcl_Obj*> items(list_size);
    for (auto _ : state) {
        state.PauseTiming();
        SmartTclObj list(intList());
        state.ResumeTiming();
        int count = 0;
        Tcl_Obj** elements = nullptr;
        Tcl_ListObjGetElements(nullptr, list.get(), &count, &elements);
        for (int i = 0; i < count; ++i) {
            int length = 0;
            const char* text = Tcl_GetStringFromObj(elements[i], &length);
            items[i] = Tcl_NewStringObj(text, length);
        }
        SmartTclObj copy(Tcl_NewListObj(count, items.data()));
        benchmark::DoNotOptimize(copy.get());
    }
}

// One round trip between two threads: hand the turn over, wait for it back,
// the bridge's way: each side watches, then parks on a parker of its own,
// and the other unparks it alone.
void BM_notifier_round_trip(benchmark::State& state) {
    pytarn::event::Notifier notifier;
    pytarn::event::Parker ours, theirs;
    std::atomic<int> turn{0}; // 1: the partner's, 0: ours, -1: partner stops
    auto waitWhile = [&](pytarn::event::Parker& self, pytarn::event::Parker& other, int value) {
        for (;;) {
            std::uint64_t seen = notifier.generation();
            int now = turn.load();
            if (now != value) return now;
            notifier.waitChange(self, &other, seen, std::chrono::seconds(1),
                                [&] { return turn.load() != value; });
        }
    };
    auto pass = [&](pytarn::event::Parker& other, int value) {
        turn.store(value);
        other.unpark();
    };
    std::thread partner([&] {
        while (waitWhile(theirs, ours, 0) == 1) pass(ours, 0);
    });
    for (auto _ : state) {
        pass(theirs, 1);
        waitWhile(ours, theirs, 1);
    }
    pass(theirs, -1);
    partner.join();
}

// The plainest blocking hand-off: one mutex, one condition variable per
// direction, the waker notifying one waiter after unlocking.
void BM_direct_condvar_round_trip(benchmark::State& state) {
    struct Direction {
        std::mutex mutex;
        std::condition_variable cond;
        int value = 0; // 1: go, -1: stop
    } there, back;
    auto signal = [](Direction& d, int value) {
        {
            std::lock_guard<std::mutex> lock(d.mutex);
            d.value = value;
        }
        d.cond.notify_one();
    };
    auto take = [](Direction& d) {
        std::unique_lock<std::mutex> lock(d.mutex);
        d.cond.wait(lock, [&] { return d.value != 0; });
        return std::exchange(d.value, 0);
    };
    std::thread partner([&] {
        while (take(there) == 1) signal(back, 1);
    });
    for (auto _ : state) {
        signal(there, 1);
        take(back);
    }
    signal(there, -1);
    partner.join();
}

// The floor under any hand-off between two threads on this machine: one
// cache line passed back and forth, both sides spinning on it, nothing else.
void BM_line_round_trip(benchmark::State& state) {
    std::atomic<int> turn{0}; // 1: the partner's, 0: ours, -1: partner stops
    auto waitWhile = [&](int value) {
        int now;
        while ((now = turn.load()) == value) {
        }
        return now;
    };
    std::thread partner([&] {
        while (waitWhile(0) == 1) turn.store(0);
    });
    for (auto _ : state) {
        turn.store(1);
        waitWhile(1);
    }
    turn.store(-1);
    partner.join();
}

BENCHMARK(BM_fromTcl_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_direct_fromTcl_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_toTcl_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_direct_toTcl_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_detachedCopy_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_direct_copy_list)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_notifier_round_trip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_direct_condvar_round_trip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_line_round_trip)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    Tcl_FindExecutable(argv[0]);
    Tcl_Interp* interp = Tcl_CreateInterp();
    if (!initBenchStubs(interp)) {
        std::fprintf(stderr, "core_bench: Tcl stubs unavailable\n");
        return 1;
    }
    Py_Initialize();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
