// The Python threads' half of the transport: carrying out requests from Tcl
// and waiting for their own requests to Tcl. See Event.h for the model.
#include "State.h"
#include "convert/Lending.h"
#include "convert/TclConvert.h"

#include <utility>

namespace pytarn::event {

namespace {
constexpr std::chrono::seconds wait_bound{1};

thread_local PythonEventQueue* own_inbox = nullptr;

// Inboxes whose threads have ended, to be handed out again.
struct Spare {
    std::mutex mutex;
    std::vector<PythonEventQueue*> inboxes; // guarded by mutex
};
Spare& spare() {
    static Spare* const made = new Spare; // outlives every thread's lease
    return *made;
}

// The inbox handed to the thread, taken back when the thread ends.
struct Lease {
    Lease() = default;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() {
        if (!inbox) return;
        if (own_inbox == inbox) own_inbox = nullptr;
        Spare& all = spare();
        std::lock_guard<std::mutex> lock(all.mutex);
        all.inboxes.push_back(inbox);
    }
    PythonEventQueue* inbox = nullptr;
};

// Once the interpreter is deleted only output and work on the standard
// channels (which outlive it) are still carried out; everything else fails.
bool refused(const TclEvent* ev) {
    return python_thread.interp_deleted.load() && ev->asks != TclEvent::Asks::write &&
           !ev->outlives_interp;
}

// A request that the Tcl thread will never carry out is finished here, on
// the requester's own thread: what it carries is the caller's again.
void finishRefused(TclEvent* ev) {
    ev->interp_deleted = true;
    ev->done.store(true);
}

// Gives a lent result back to the Tcl thread, which waits for it, on every
// path; the flag is the Tcl thread's and is never touched after the store.
class GiveBack {
public:
    explicit GiveBack(TclEvent* ev) : flag_(ev->given_back) {}
    ~GiveBack() {
        flag_->store(true); // sequentially consistent, for the parked Tcl thread
        event_mgr->tcl_queue.owner.unpark();
    }
    GiveBack(const GiveBack&) = delete;
    GiveBack& operator=(const GiveBack&) = delete;

private:
    std::atomic<bool>* flag_;
};

// A result that the Tcl thread lent: converted before any Python code can
// run here (a signal handler, a finalizer may call Tcl, which waits), then
// given back. An interrupt that came meanwhile is raised after.
PyObject* takeLent(TclEvent* ev) {
    SmartPyObj value;
    {
        tcl_convert::NoPythonCode quiet; // ends last: its kept errors are Python code
        GiveBack back(ev);
        value = tcl_convert::fromTcl(ev->lent);
    }
    if (!value) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ValueError, tcl_convert::not_converted_message);
        return nullptr;
    }
    if (PyErr_CheckSignals() != 0) return nullptr;
    return value.release();
}
} // namespace

PythonEventQueue& PythonEventQueue::own() {
    if (own_inbox) return *own_inbox;
    static thread_local Lease lease;
    if (!lease.inbox) {
        Spare& all = spare();
        std::lock_guard<std::mutex> lock(all.mutex);
        if (all.inboxes.empty()) {
            lease.inbox = new PythonEventQueue; // never freed, see Event.h
        } else {
            lease.inbox = all.inboxes.back();
            all.inboxes.pop_back();
        }
    }
    own_inbox = lease.inbox;
    return *own_inbox;
}

void PythonEventQueue::useAsOwn() { own_inbox = this; }

bool PythonEventQueue::push(PyEvent* ev) {
    if (!append(ev)) return false;
    owner.unpark();
    return true;
}

void PythonEventQueue::serviceAllEvents() {
    while (PyEvent* ev = pop()) serviceEvent(ev);
}

// The Tcl thread never waits for the interpreter lock: the watch keeps it
// only while the answer may still come within the watch (see LockedWatch).
void PythonEventQueue::waitFor(TclEvent* ev) {
    auto ready = [&] { return ev->done.load() || !looksEmpty(); };
    LockedWatch watch;
    for (;;) {
        std::uint64_t seen = notifier->generation();
        if (ev->done.load()) break;
        // Shutdown, or the interpreter deleted, while the request still
        // waits in the queue: taken out here, it is never carried out. One
        // the Tcl thread has taken, it completes: this thread waits for it,
        // carrying out what is routed here meanwhile.
        const bool alive = python_alive->load();
        if ((!alive || refused(ev)) && event_mgr->tcl_queue.remove(ev)) {
            if (alive) finishRefused(ev); // else left not done: abandoned
            break;
        }
        if (PyEvent* request = pop()) {
            watch.hold();
            serviceEvent(request);
            continue;
        }
        watch.wait(*notifier, owner, &event_mgr->tcl_queue.owner, seen, wait_bound, ready);
    }
}

PyObject* EventMgr::spin(TclEvent* ev) {
    if (!python_alive->load()) Py_RETURN_NONE; // shutting down: Tcl takes no more
    if (refused(ev)) {
        finishRefused(ev); // never sent
        return postProcess(ev);
    }
    PythonEventQueue& inbox = PythonEventQueue::own();
    ev->inbox = &inbox;
    tcl_queue.push(ev);
    inbox.waitFor(ev);
    if (!ev->done.load()) Py_RETURN_NONE;
    if (ev->given_back) return takeLent(ev);
    // An interrupt that came while Tcl worked is raised here, before the
    // conversion, whose failed attempts would otherwise swallow it.
    if (PyErr_CheckSignals() != 0) return nullptr;
    return postProcess(ev);
}

PyObject* EventMgr::postProcess(TclEvent* ev) {
    if (ev->no_memory) return PyErr_NoMemory();
    if (ev->interp_deleted) {
        ev->error = "the Tcl interpreter of the bridge has been deleted";
        ev->error_code = {"PYTARN", "DELETED"};
    }
    if (!ev->error.empty()) {
        PyObject* type = python_state.tcl_error ? python_state.tcl_error.get()
                                                : PyExc_RuntimeError;
        // Tcl text may hold bytes Python's UTF-8 rejects (0xC0 0x80 for NUL).
        const int length = static_cast<int>(ev->error.size());
        SmartPyObj message = tcl_convert::fromTclText(ev->error.data(), length);
        if (!message) message = PyUnicode_DecodeUTF8(ev->error.data(), length, "replace");
        if (!message) return nullptr;
        // The instance carries Tcl's -errorcode words as the tuple `errorcode`.
        SmartPyObj error(PyObject_CallOneArg(type, message.get()));
        SmartPyObj code(PyTuple_New(static_cast<Py_ssize_t>(ev->error_code.size())));
        for (std::size_t i = 0; code && i < ev->error_code.size(); ++i) {
            const std::string& word = ev->error_code[i];
            PyObject* text = PyUnicode_DecodeUTF8(
                word.data(), static_cast<Py_ssize_t>(word.size()), "replace");
            if (!text) {
                code.reset();
            } else {
                PyTuple_SET_ITEM(code.get(), static_cast<Py_ssize_t>(i), text);
            }
        }
        // And Tcl's own -errorinfo (its stack trace) as `errorinfo`, and the
        // message again as `result`, the interpreter result of the failure.
        SmartPyObj info(PyUnicode_DecodeUTF8(
            ev->error_info.data(), static_cast<Py_ssize_t>(ev->error_info.size()), "replace"));
        if (!error || !code || !info ||
            PyObject_SetAttrString(error.get(), "errorcode", code.get()) != 0 ||
            PyObject_SetAttrString(error.get(), "errorinfo", info.get()) != 0 ||
            PyObject_SetAttrString(error.get(), "result", message.get()) != 0)
            return nullptr;
        PyErr_SetObject(type, error.get());
        return nullptr;
    }
    if (ev->too_deep) {
        PyErr_SetString(PyExc_RecursionError, tcl_convert::too_deep_message);
        return nullptr;
    }
    SmartPyObj value;
    if (ev->scalar.kind != tcl_convert::Scalar::Kind::none) {
        value = tcl_convert::fromScalar(ev->scalar);
    } else if (ev->result) {
        value = tcl_convert::fromTcl(ev->result.get());
    } else {
        Py_RETURN_NONE;
    }
    if (!value && !PyErr_Occurred())
        PyErr_SetString(PyExc_ValueError, tcl_convert::not_converted_message);
    return value.release();
}

} // namespace pytarn::event
