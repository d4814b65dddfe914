// The Tcl thread's half of the transport: carrying out requests from Python
// and waiting for its own requests to Python. See Event.h for the model.
#include "State.h"
#include "convert/TclConvert.h"

namespace pytarn::event {

namespace {

constexpr std::chrono::seconds wait_bound{1};

// Compiled once, kept for the life of the process (never released: Tcl may
// be finalised before static destruction). The text to print reaches puts
// only as a variable's value, never as script.
Tcl_Obj* keptScript(const char* text) {
    Tcl_Obj* script = Tcl_NewStringObj(text, -1);
    Tcl_IncrRefCount(script);
    return script;
}

Tcl_Obj* outputScript(bool to_stderr) {
    static Tcl_Obj* const out = keptScript("puts -nonewline $::python::__buff");
    static Tcl_Obj* const err = keptScript("puts -nonewline stderr $::python::__buff");
    return to_stderr ? err : out;
}

// Through puts, so that a host that redefines puts (a console window) gets
// Python's output too. A trace on ::python::__buff sees each piece once.
void writeOutput(bool to_stderr, const char* text) {
    Tcl_SetVar(tcl_interp, "::python::__buff", tcl_convert::TclText(text).get(),
               TCL_GLOBAL_ONLY);
    Tcl_EvalObjEx(tcl_interp, outputScript(to_stderr), 0);
}

void complete(TclEvent* ev) {
    ev->done.store(true);
    notifier->notifyAll(); // `ev` may be gone from here on
}

// Hands the requester a copy that Tcl will never touch again.
void storeResult(TclEvent* ev, Tcl_Obj* value) {
    ev->result = tcl_convert::detachedCopy(value);
    ev->too_deep = !ev->result;
}

// The -errorcode of the failure just reported, as plain text words: Python
// sees them as TclError.errorcode.
void storeErrorCode(TclEvent* ev, int code) {
    Tcl_Obj* options = Tcl_GetReturnOptions(tcl_interp, code);
    Tcl_IncrRefCount(options);
    Tcl_Obj* errorCode = nullptr;
    Tcl_Obj* key = Tcl_NewStringObj("-errorcode", -1);
    Tcl_IncrRefCount(key);
    int count = 0;
    Tcl_Obj** words = nullptr;
    if (Tcl_DictObjGet(nullptr, options, key, &errorCode) == TCL_OK && errorCode &&
        Tcl_ListObjGetElements(nullptr, errorCode, &count, &words) == TCL_OK) {
        for (int i = 0; i < count; ++i) {
            int length = 0;
            const char* text = Tcl_GetStringFromObj(words[i], &length);
            ev->error_code.emplace_back(text, static_cast<std::size_t>(length));
        }
    }
    Tcl_DecrRefCount(key);
    Tcl_DecrRefCount(options);
}

} // namespace

void TclEventQueue::push(TclEvent* ev) {
    append(ev);
    wake();
}

void TclEventQueue::wake() {
    tcl_c_api::addEvent();
    notifier->notifyAll();
}

bool TclEventQueue::drainOutput() {
    if (!event_mgr->output.pending()) return false;
    // What waits now, not what threads go on printing meanwhile: a slow
    // channel must not keep the Tcl thread here for ever.
    std::size_t count = event_mgr->output.pieces();
    OutputQueue::Piece piece;
    bool wrote = false;
    for (; count > 0 && event_mgr->output.take(&piece); --count) {
        writeOutput(piece.to_stderr, piece.text.c_str());
        wrote = true;
    }
    return wrote;
}

void TclEventQueue::serviceEvent(TclEvent* ev) {
    // Once shutdown has begun a requester may have abandoned its record, and
    // a script run here may itself begin shutdown: test before every touch.
    if (!python_alive->load()) return;
    drainOutput();
    if (!python_alive->load()) return;
    if (ev->script) {
        int code = Tcl_EvalEx(tcl_interp, tcl_convert::TclText(ev->script).get(), -1,
                              TCL_EVAL_GLOBAL);
        if (!python_alive->load()) return;
        Tcl_Obj* result = Tcl_GetObjResult(tcl_interp);
        if (code != TCL_OK) {
            ev->error = Tcl_GetString(result);
            storeErrorCode(ev, code);
        }
        if (ev->error.empty()) storeResult(ev, result);
    } else if (ev->output) {
        writeOutput(ev->to_stderr, ev->output);
        if (!python_alive->load()) return;
    } else if (ev->work) {
        ev->work(ev->work_data);
        if (!python_alive->load()) return;
    } else if (ev->variable && ev->value) {
        Tcl_SetVar2Ex(tcl_interp, tcl_convert::TclText(ev->variable).get(), nullptr,
                      ev->value.get(), TCL_GLOBAL_ONLY);
        ev->value = nullptr; // the variable's reference is Tcl's alone
    } else if (ev->variable) {
        Tcl_Obj* value = Tcl_GetVar2Ex(tcl_interp, tcl_convert::TclText(ev->variable).get(),
                                       nullptr, TCL_GLOBAL_ONLY | TCL_LEAVE_ERR_MSG);
        if (value) {
            storeResult(ev, value);
        } else {
            ev->error = Tcl_GetStringResult(tcl_interp);
            storeErrorCode(ev, TCL_ERROR);
        }
    }
    complete(ev);
}

void TclEventQueue::serviceAllEvents() {
    drainOutput();
    for (std::size_t waiting = size(); waiting > 0; --waiting) {
        TclEvent* ev = pop();
        if (!ev) break;
        serviceEvent(ev);
    }
    if (!empty() || event_mgr->output.pending()) wake();
}

void TclEventQueue::waitFor(PyEvent* ev) {
    waitFor(ev, std::chrono::steady_clock::time_point::max());
}

bool TclEventQueue::waitFor(PyEvent* ev, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        std::uint64_t seen = notifier->generation();
        if (ev->done.load()) {
            // What the request printed comes before whatever the caller does next.
            drainOutput();
            return true;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        if (TclEvent* request = pop()) {
            serviceEvent(request);
            continue;
        }
        std::chrono::microseconds bound = wait_bound;
        if (deadline != std::chrono::steady_clock::time_point::max())
            bound = std::min(bound, std::chrono::duration_cast<std::chrono::microseconds>(
                                        deadline - now) + std::chrono::microseconds{1});
        if (event_mgr->output.pending()) {
            bound = std::min(bound, event_mgr->output.dueIn());
            if (bound.count() == 0) {
                drainOutput();
                continue;
            }
        }
        notifier->waitChange(seen, bound, [&] { return ev->done.load() || !looksEmpty(); });
    }
}

int EventMgr::spin(PyEvent* ev) {
    if (!pythonRunning()) {
        Tcl_SetResult(tcl_interp, const_cast<char*>("Python interpreter is not running"),
                      TCL_STATIC);
        Tcl_SetErrorCode(tcl_interp, "PYTARN", "NOTRUNNING", nullptr);
        return TCL_ERROR;
    }
    ev->call = calls.enter();
    python_queue.push(ev);
    tcl_queue.waitFor(ev);
    calls.leave();
    return postProcess(ev);
}

int EventMgr::postProcess(PyEvent* ev) {
    if (ev->exit_requested) Tcl_Exit(ev->exit_code);
    if (ev->result) {
        Tcl_SetObjResult(tcl_interp, ev->result.get());
    } else {
        Tcl_ResetResult(tcl_interp);
    }
    // Scripts dispatch on the exception type: trap {PYTHON ZeroDivisionError}.
    if (ev->status == TCL_ERROR && !ev->error_type.empty()) {
        Tcl_Obj* words[] = {Tcl_NewStringObj("PYTHON", -1),
                            Tcl_NewStringObj(ev->error_type.data(),
                                             static_cast<int>(ev->error_type.size()))};
        Tcl_SetObjErrorCode(tcl_interp, Tcl_NewListObj(2, words));
    }
    return ev->status;
}

namespace tcl_c_api {

namespace {
std::mutex event_queue_mutex;
bool event_exists = false; // guarded by event_queue_mutex
} // namespace

void addEvent() {
    std::lock_guard<std::mutex> lock(event_queue_mutex);
    if (event_exists) return;
    event_exists = true;
    auto* event = reinterpret_cast<Tcl_Event*>(Tcl_Alloc(sizeof(Tcl_Event)));
    event->proc = tclEventQueueProc;
    event->nextPtr = nullptr;
    Tcl_ThreadQueueEvent(main_tcl_thread, event, TCL_QUEUE_TAIL);
    Tcl_ThreadAlert(main_tcl_thread);
}

int tclEventQueueProc(Tcl_Event*, int) {
    // Cleared before the drain: a request pushed during it posts a new event
    // (at worst one that finds the queue empty) instead of waiting on a lock
    // that the drain would hold while it runs scripts that call Python.
    {
        std::lock_guard<std::mutex> lock(event_queue_mutex);
        event_exists = false;
    }
    event_mgr->tcl_queue.serviceAllEvents();
    return 1;
}

} // namespace tcl_c_api

} // namespace pytarn::event
