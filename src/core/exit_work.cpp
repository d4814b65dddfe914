// Python's exit work when the host exits: the atexit handlers run and files
// that Python code wrote but never closed are flushed, as python3 does when
// it finalises. The interpreter itself is never finalised, so nothing else of
// Python's finalisation happens. The work runs as a request on a Python
// thread while the Tcl thread, still in its exit handler, carries out the
// Tcl requests of the handlers (their output too) and waits within a bound.
#include "ExitWork.h"
#include "Bridge.h"
#include "Interrupts.h"

#include "convert/PyErrors.h"

#include <chrono>
#include <unistd.h>

namespace pytarn::exit_work {

namespace {

// How long the work may take before it is interrupted (KeyboardInterrupt in
// the handler that blocks), and how long it may go on after that.
constexpr std::chrono::milliseconds work_bound{500};
constexpr std::chrono::milliseconds interrupted_bound{250};

// Kept for the life of the process: a Python thread may still be writing to
// it after the Tcl thread has stopped waiting.
event::PyEvent* record = nullptr;

// Reports and clears the pending error, as Python does for errors it cannot
// raise anywhere ("Exception ignored in ...").
void reportIgnored(PyObject* where) {
    if (PyErr_Occurred()) PyErr_WriteUnraisable(where);
}

void runAtexitHandlers() {
    SmartPyObj atexit(PyImport_ImportModule("atexit"));
    // Each handler's own errors are reported by atexit itself.
    SmartPyObj ran(atexit ? PyObject_CallMethod(atexit.get(), "_run_exitfuncs", nullptr)
                          : nullptr);
    reportIgnored(atexit.get());
}

// Python would close these when their last reference went at finalisation;
// flushing them keeps their data without finalising anything.
void flushOpenFiles() {
    SmartPyObj gc(PyImport_ImportModule("gc"));
    SmartPyObj io(gc ? PyImport_ImportModule("io") : nullptr);
    SmartPyObj objects(io ? PyObject_CallMethod(gc.get(), "get_objects", nullptr) : nullptr);
    if (!objects || !PyList_Check(objects.get())) {
        reportIgnored(nullptr);
        return;
    }
    // Text layers first: their flush hands their text to the buffers below.
    for (const char* kind : {"TextIOWrapper", "BufferedRandom", "BufferedWriter"}) {
        SmartPyObj type(PyObject_GetAttrString(io.get(), kind));
        if (!type || !PyType_Check(type.get())) {
            reportIgnored(nullptr);
            continue;
        }
        auto* fileType = reinterpret_cast<PyTypeObject*>(type.get());
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(objects.get()); ++i) {
            PyObject* file = PyList_GET_ITEM(objects.get(), i); // borrowed
            if (!PyObject_TypeCheck(file, fileType)) continue;
            SmartPyObj closed(PyObject_GetAttrString(file, "closed"));
            if (closed && !PyObject_IsTrue(closed.get())) {
                SmartPyObj flushed(PyObject_CallMethod(file, "flush", nullptr));
            }
            reportIgnored(file);
        }
    }
}

PyObject* work(PyObject*) {
    SmartPyObj done(pythonGuard([] {
        runAtexitHandlers();
        flushOpenFiles();
        Py_RETURN_NONE;
    }));
    PyErr_Clear();
    Py_RETURN_NONE;
}

// Flushes sys.`name` when it is there; errors are reported.
void flushStream(const char* name) {
    PyObject* stream = PySys_GetObject(name); // borrowed
    if (stream && stream != Py_None) {
        SmartPyObj done(PyObject_CallMethod(stream, "flush", nullptr));
        reportIgnored(stream);
    }
    PyErr_Clear();
}

} // namespace

void endForkedChild() {
    int code = 0;
    if (PyErr_ExceptionMatches(PyExc_SystemExit)) {
        code = systemExitCode(takeError().value.get());
    } else if (PyErr_Occurred()) {
        printPythonError();
        code = 1;
    }
    // As python3 finalises: threads the child started, atexit, open files,
    // then the standard streams, which write straight to the descriptors.
    SmartPyObj threading(PyImport_ImportModule("threading"));
    SmartPyObj joined(threading ? PyObject_CallMethod(threading.get(), "_shutdown", nullptr)
                                : nullptr);
    PyErr_Clear(); // a thread that forked from a thread threading does not know
    runAtexitHandlers();
    flushOpenFiles();
    flushStream("stdout");
    flushStream("stderr");
    // Not exit(): the C and Tcl buffers copied from the host hold the host's
    // output, which the host writes itself.
    _exit(code);
}

void run() {
    if (record || !pythonRunning() || !tcl_interp || Tcl_GetCurrentThread() != main_tcl_thread)
        return;
    record = new event::PyEvent(work);
    event::EventMgr& events = *event_mgr;
    // Counted as a call of the Tcl thread, so that an interrupt reaches it.
    record->call = events.calls.enter();
    // On the thread of the request that the exit came from, if any.
    event::PythonEventQueue& inbox = events.inbox();
    if (!inbox.push(record)) {
        events.calls.leave();
        return;
    }
    using Clock = std::chrono::steady_clock;
    bool done = events.tcl_queue.waitFor(record, &inbox.owner, Clock::now() + work_bound);
    if (!done && interrupts::request())
        done = events.tcl_queue.waitFor(record, &inbox.owner,
                                        Clock::now() + interrupted_bound);
    // Not begun (every Python thread busy): it must not begin later.
    if (!done) inbox.remove(record);
    events.calls.leave();
}

} // namespace pytarn::exit_work
