// The Tcl thread's half of the transport: carrying out requests from Python
// and waiting for its own requests to Python. See Event.h for the model.
#include "State.h"
#include "convert/Guard.h"
#include "convert/Lending.h"
#include "convert/TclConvert.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace pytarn::event {

namespace {

constexpr std::chrono::seconds wait_bound{1};

// Kept for the life of the process (never released: Tcl may be finalised
// before static destruction).
Tcl_Obj* keptWord(const char* text) {
    Tcl_Obj* word = Tcl_NewStringObj(text, -1);
    Tcl_IncrRefCount(word);
    return word;
}

// True while the Tcl thread sets ::python::__buff. Tcl runs no trace of a
// variable inside that variable's own trace, so output that a trace's call
// into Python makes is held back until the write in progress is done:
// written meanwhile, the trace would never see it. `held_back` tells the
// drain that runs to look again. Tcl thread only.
bool setting_buff = false;
bool held_back = false;

// Tcl names errno values (POSIX EPIPE ...) but offers no way back.
int errnoNamed(const char* name) {
    const int saved = Tcl_GetErrno();
    int number = 256;
    while (--number > 0) {
        Tcl_SetErrno(number);
        if (std::strcmp(Tcl_ErrnoId(), name) == 0) break;
    }
    Tcl_SetErrno(saved);
    return number;
}

// Keeps the failed write's error for Python, which sees OSError (with the
// errno that Tcl reported, EBADF for a channel that is gone).
void writeFailed(Tcl_Interp* interp, bool to_stderr, int code) {
    Tcl_Obj* options = Tcl_GetReturnOptions(interp, code);
    Tcl_IncrRefCount(options);
    Tcl_Obj* key = Tcl_NewStringObj("-errorcode", -1);
    Tcl_IncrRefCount(key);
    Tcl_Obj* errorCode = nullptr;
    int count = 0;
    Tcl_Obj** words = nullptr;
    if (Tcl_DictObjGet(nullptr, options, key, &errorCode) != TCL_OK || !errorCode ||
        Tcl_ListObjGetElements(nullptr, errorCode, &count, &words) != TCL_OK)
        count = 0;
    int number = 0;
    if (count >= 2 && std::strcmp(Tcl_GetString(words[0]), "POSIX") == 0)
        number = errnoNamed(Tcl_GetString(words[1]));
    if (count >= 3 && std::strcmp(Tcl_GetString(words[1]), "LOOKUP") == 0 &&
        std::strcmp(Tcl_GetString(words[2]), "CHANNEL") == 0)
        number = EBADF;
    event_mgr->output.fail(to_stderr, number, Tcl_GetString(Tcl_GetObjResult(interp)));
    Tcl_DecrRefCount(key);
    Tcl_DecrRefCount(options);
    Tcl_ResetResult(interp);
}

// Once the interpreter is deleted (or being deleted), straight to the
// thread's standard channels, which outlive it.
void writeStandard(bool to_stderr, const char* text) {
    const char* name = to_stderr ? "stderr" : "stdout";
    Tcl_Channel channel = Tcl_GetStdChannel(to_stderr ? TCL_STDERR : TCL_STDOUT);
    if (!channel) return;
    if (Tcl_WriteChars(channel, tcl_convert::TclText(text).get(), -1) >= 0) return;
    const int number = Tcl_GetErrno();
    char message[200];
    std::snprintf(message, sizeof message, "error writing \"%s\": %s", name,
                  Tcl_ErrnoMsg(number));
    event_mgr->output.fail(to_stderr, number, message);
}

// Through puts, so that a host that redefines puts (a console window) gets
// Python's output too. The piece reaches puts as a value, never as script,
// nor read back from ::python::__buff, which a trace may have set again.
void writeOutput(bool to_stderr, const char* text) {
    Tcl_Interp* interp = tcl_interp;
    if (!interp || Tcl_InterpDeleted(interp)) {
        writeStandard(to_stderr, text);
        return;
    }
    static Tcl_Obj* const puts = keptWord("puts");
    static Tcl_Obj* const nonewline = keptWord("-nonewline");
    static Tcl_Obj* const standardError = keptWord("stderr");
    Tcl_Preserve(interp); // puts may be a host's procedure that deletes it
    Tcl_Obj* piece = Tcl_NewStringObj(tcl_convert::TclText(text).get(), -1);
    Tcl_IncrRefCount(piece);
    setting_buff = true;
    if (!Tcl_SetVar2Ex(interp, "::python::__buff", nullptr, piece, TCL_GLOBAL_ONLY) &&
        !Tcl_FindNamespace(interp, "::python", nullptr, TCL_GLOBAL_ONLY)) {
        // A script deleted the namespace: the variable is made again rather
        // than the output lost.
        Tcl_CreateNamespace(interp, "::python", nullptr, nullptr);
        Tcl_SetVar2Ex(interp, "::python::__buff", nullptr, piece, TCL_GLOBAL_ONLY);
    }
    setting_buff = false;
    Tcl_Obj* words[] = {puts, nonewline, to_stderr ? standardError : piece, piece};
    const int code = Tcl_EvalObjv(interp, to_stderr ? 4 : 3, words, 0);
    if (code != TCL_OK && !Tcl_InterpDeleted(interp)) writeFailed(interp, to_stderr, code);
    Tcl_DecrRefCount(piece);
    Tcl_Release(interp);
}

void complete(TclEvent* ev) {
    PythonEventQueue* requester = ev->inbox;
    ev->done.store(true); // `ev` may be gone from here on
    if (requester) {
        requester->owner.unpark();
    } else {
        notifier->notifyAll(); // a request of the bridge's own, waited for without an inbox
    }
}

// Hands the requester a short result inside the record, a copy that Tcl
// will never touch again, or for a large value the value itself, lent until
// the requester gives it back.
void storeResult(Carrying& here, Tcl_Obj* value) {
    TclEvent* ev = here.ev;
    if (tcl_convert::toScalar(value, &here.scalar)) return;
    if (tcl_convert::worthLending(value)) {
        here.lent = value;
        ev->lent = value;
        ev->given_back = &here.given_back;
        return;
    }
    ev->result = tcl_convert::detachedCopy(value);
    ev->too_deep = !ev->result;
}

// The outcome of a script or command that returned `code`. A code other
// than TCL_OK with an empty message (a bare `break`) counts as success, as it
// always has; the failure fields are read only after a failure.
void storeOutcome(Tcl_Interp* interp, Carrying& here, int code) {
    if (code != TCL_OK) TclEventQueue::storeFailure(interp, here.ev, code);
    if (code == TCL_OK || here.ev->error.empty()) storeResult(here, Tcl_GetObjResult(interp));
}

// A lent result goes as a copy after all (`copy`), or not at all.
void unlend(Carrying& here, bool copy) {
    TclEvent* ev = here.ev;
    if (copy && here.lent) {
        ev->result = tcl_convert::detachedCopy(here.lent.get());
        ev->too_deep = !ev->result;
    }
    ev->lent = nullptr;
    ev->given_back = nullptr;
    here.lent = nullptr;
}

// The Tcl thread waits, carrying out nothing meanwhile, until ready(): a
// flag that `partner`'s thread sets.
template <typename Ready>
void waitOnly(const Parker* partner, Ready ready) {
    for (;;) {
        std::uint64_t seen = notifier->generation();
        if (ready()) return;
        notifier->waitChange(event_mgr->tcl_queue.owner, partner, seen, wait_bound, ready);
    }
}

// Once the requester has the lent result's conversion, the reference goes.
void waitGivenBack(Carrying& here) {
    waitOnly(here.inbox ? &here.inbox->owner : nullptr,
             [&here] { return here.given_back.load(); });
    here.lent = nullptr;
}

// One entry of the return options; null when it is not there.
Tcl_Obj* optionEntry(Tcl_Obj* options, const char* name) {
    Tcl_Obj* key = Tcl_NewStringObj(name, -1);
    Tcl_IncrRefCount(key);
    Tcl_Obj* entry = nullptr;
    if (Tcl_DictObjGet(nullptr, options, key, &entry) != TCL_OK) entry = nullptr;
    Tcl_DecrRefCount(key);
    return entry;
}

// A request that lent the Tcl thread's own object (Lending.h): until it is
// taken, this thread touches no Tcl object, so it carries out no request and
// writes no output; it only waits. Every path on the Python side sets it.
void waitTaken(PyEvent* ev, const Parker* partner) {
    waitOnly(partner, [ev] { return ev->taken.load(); });
}

// Gives every word back: the requester handed its references over.
void releaseWords(TclEvent* ev) {
    for (int i = 0; i < ev->word_count; ++i) Tcl_DecrRefCount(ev->words[i]);
}

} // namespace

void TclEventQueue::push(TclEvent* ev) {
    (void)append(ev); // never closed
    wake();
}

void TclEventQueue::wake() {
    tcl_c_api::addEvent();
    event_mgr->tcl_queue.owner.unpark();
}

bool TclEventQueue::drainOutput() {
    if (setting_buff) {
        held_back = true;
        return false;
    }
    held_back = false;
    if (!event_mgr->output.pending()) return false;
    // What waits now, not what threads go on printing meanwhile: a slow
    // channel must not keep the Tcl thread here for ever.
    std::size_t count = event_mgr->output.pieces();
    OutputQueue::Piece piece;
    bool wrote = false;
    while (count > 0 && event_mgr->output.take(&piece)) {
        --count;
        writeOutput(piece.to_stderr, piece.text.c_str());
        wrote = true;
        if (held_back) { // what a trace's call printed comes next
            held_back = false;
            count = event_mgr->output.pieces();
        }
    }
    return wrote;
}

// The failure just reported, as plain text: Python sees the -errorcode
// words as TclError.errorcode and the -errorinfo as TclError.errorinfo.
void TclEventQueue::storeFailure(Tcl_Interp* interp, TclEvent* ev, int code) {
    // From the result object: Tcl_GetStringResult would copy it once more.
    ev->error = Tcl_GetString(Tcl_GetObjResult(interp));
    Tcl_Obj* options = Tcl_GetReturnOptions(interp, code);
    Tcl_IncrRefCount(options);
    int count = 0;
    Tcl_Obj** words = nullptr;
    Tcl_Obj* errorCode = optionEntry(options, "-errorcode");
    if (errorCode && Tcl_ListObjGetElements(nullptr, errorCode, &count, &words) == TCL_OK) {
        for (int i = 0; i < count; ++i) {
            int length = 0;
            const char* text = Tcl_GetStringFromObj(words[i], &length);
            ev->error_code.emplace_back(text, static_cast<std::size_t>(length));
        }
    }
    if (Tcl_Obj* info = optionEntry(options, "-errorinfo")) {
        int length = 0;
        const char* text = Tcl_GetStringFromObj(info, &length);
        ev->error_info.assign(text, static_cast<std::size_t>(length));
    }
    Tcl_DecrRefCount(options);
}

namespace {

// A call whose words come packed: the Tcl thread makes their objects itself.
bool callPacked(Tcl_Interp* interp, Carrying& here) {
    TclEvent* ev = here.ev;
    Tcl_Obj* words[tcl_convert::PackedWords::max_words];
    const int count = ev->packed->count();
    ev->packed->unpack(words);
    int code = Tcl_EvalObjv(interp, count, words, TCL_EVAL_GLOBAL);
    if (!here.released) storeOutcome(interp, here, code);
    for (int i = 0; i < count; ++i) Tcl_DecrRefCount(words[i]);
    return !here.released;
}

// A call whose words are objects: they go to the command as they are, no
// substitution, no parsing.
bool callWords(Tcl_Interp* interp, Carrying& here) {
    TclEvent* ev = here.ev;
    int code = Tcl_EvalObjv(interp, ev->word_count, const_cast<Tcl_Obj**>(ev->words),
                            TCL_EVAL_GLOBAL);
    if (here.released) return false; // the words are left to the process's end
    storeOutcome(interp, here, code);
    releaseWords(ev);
    return true;
}

// Carries out a request that needs the interpreter, which the caller keeps
// preserved. False when the record was released meanwhile (an exit from
// inside it): it is no longer ours to touch.
bool carryOut(Tcl_Interp* interp, Carrying& here) {
    TclEvent* ev = here.ev;
    using Asks = TclEvent::Asks;
    switch (ev->asks) {
    case Asks::eval: {
        int code = Tcl_EvalEx(interp, tcl_convert::TclText(ev->text).get(), -1, TCL_EVAL_GLOBAL);
        if (here.released) return false;
        storeOutcome(interp, here, code);
        return true;
    }
    case Asks::call:
        return ev->packed ? callPacked(interp, here) : callWords(interp, here);
    case Asks::get: {
        Tcl_Obj* value = Tcl_GetVar2Ex(interp, tcl_convert::TclText(ev->text).get(), nullptr,
                                       TCL_GLOBAL_ONLY | TCL_LEAVE_ERR_MSG);
        if (value) {
            storeResult(here, value);
        } else {
            TclEventQueue::storeFailure(interp, ev, TCL_ERROR);
        }
        return true;
    }
    case Asks::set: {
        const bool short_value = ev->short_value.kind != tcl_convert::Scalar::Kind::none;
        SmartTclObj value(short_value ? tcl_convert::toTcl(ev->short_value) : ev->value.get());
        if (!short_value) ev->value = nullptr; // the variable's reference is Tcl's alone
        Tcl_SetVar2Ex(interp, tcl_convert::TclText(ev->text).get(), nullptr, value.get(),
                      TCL_GLOBAL_ONLY);
        return true;
    }
    case Asks::act:
        ev->action(interp, ev);
        return !here.released;
    case Asks::write:
        break; // carried out without the interpreter
    }
    return true;
}

// An allocation that failed half way leaves no partial outcome behind.
// False, as carryOut, when the record is no longer ours.
bool failedInternally(Carrying& here) {
    if (here.released) return false;
    TclEvent* ev = here.ev;
    unlend(here, false);
    ev->error.clear();
    ev->error_code.clear();
    ev->error_info.clear();
    ev->result = nullptr;
    here.scalar.kind = tcl_convert::Scalar::Kind::none;
    ev->no_memory = true;
    return true;
}

void carry(Carrying& here) {
    TclEvent* ev = here.ev;
    // Taken, the record is completed whatever happens: its requester waits.
    // Only an exit from inside it (the output's puts may exit) releases it.
    TclEventQueue::drainOutput();
    if (here.released) return;
    if (ev->asks == TclEvent::Asks::write) {
        if (setting_buff) { // after the write in progress, as the queue's
            event_mgr->output.append(ev->to_stderr, ev->output, std::strlen(ev->output), false);
            held_back = true;
        } else {
            writeOutput(ev->to_stderr, ev->output);
            if (held_back) TclEventQueue::drainOutput();
        }
        if (!here.released) complete(ev);
        return;
    }
    Tcl_Interp* interp = tcl_interp;
    if (interp && Tcl_InterpDeleted(interp)) interp = nullptr; // deleted within this call
    if (!interp && ev->asks == TclEvent::Asks::act && ev->outlives_interp) {
        ev->action(nullptr, ev);
        if (!here.released) complete(ev);
        return;
    }
    if (!interp || !python_alive->load()) {
        // Deleted, or shutting down: refused, as the requester itself does
        // with a request it takes back.
        if (ev->asks == TclEvent::Asks::call && !ev->packed) releaseWords(ev);
        ev->interp_deleted = !interp;
        complete(ev);
        return;
    }
    // A script may delete the interpreter (through a parent's alias); it is
    // freed, and interpDeleted runs, only at the release. Inside a call into
    // Python that call holds it already (a preserve takes a global lock).
    const bool preserve = interp != event_mgr->preserved;
    if (preserve) Tcl_Preserve(interp);
    const bool carried = withoutExceptions([&] { return carryOut(interp, here); },
                                           [&here](bool) { return failedInternally(here); });
    // The release of a deleted interpreter runs its deletion callbacks.
    if (here.lent && Tcl_InterpDeleted(interp)) unlend(here, true);
    if (preserve) Tcl_Release(interp);
    if (!carried || here.released) return;
    ev->scalar = here.scalar; // the answer's line written in one go, see Event.h
    complete(ev);
    if (here.lent) waitGivenBack(here);
}

} // namespace

// Whatever it does, including a request for Python that goes to `ev`'s
// requester, happens with `ev` innermost in EventMgr::carrying.
void TclEventQueue::serviceEvent(TclEvent* ev) {
    Carrying here{ev, ev->inbox, event_mgr->carrying, false, {}, {false}, {}};
    event_mgr->carrying = &here;
    carry(here);
    event_mgr->carrying = here.outer;
}

void TclEventQueue::serviceAllEvents() {
    drainOutput();
    for (std::size_t waiting = size(); waiting > 0; --waiting) {
        TclEvent* ev = pop();
        if (!ev) break;
        serviceEvent(ev);
    }
    if (!empty() || (!setting_buff && event_mgr->output.pending())) wake();
}

void TclEventQueue::waitFor(PyEvent* ev, const Parker* partner) {
    waitFor(ev, partner, std::chrono::steady_clock::time_point::max());
}

bool TclEventQueue::waitFor(PyEvent* ev, const Parker* partner,
                            std::chrono::steady_clock::time_point deadline) {
    if (ev->lends) waitTaken(ev, partner);
    for (;;) {
        std::uint64_t seen = notifier->generation();
        if (ev->done.load()) {
            // What the request printed comes before whatever the caller does next.
            drainOutput();
            return true;
        }
        // Only a bounded wait reads the clock, which costs tens of
        // nanoseconds at every request carried out meanwhile.
        const bool bounded = deadline != std::chrono::steady_clock::time_point::max();
        const auto now = bounded ? std::chrono::steady_clock::now() : deadline;
        if (bounded && now >= deadline) return false;
        if (TclEvent* request = pop()) {
            serviceEvent(request);
            continue;
        }
        std::chrono::microseconds bound = wait_bound;
        if (bounded)
            bound = std::min(bound, std::chrono::duration_cast<std::chrono::microseconds>(
                                        deadline - now) + std::chrono::microseconds{1});
        if (!setting_buff && event_mgr->output.pending()) {
            bound = std::min(bound, event_mgr->output.dueIn());
            if (bound.count() == 0) {
                drainOutput();
                continue;
            }
        }
        notifier->waitChange(owner, partner, seen, bound,
                             [&] { return ev->done.load() || !looksEmpty(); });
    }
}

int EventMgr::spin(PyEvent* ev) {
    Tcl_Interp* interp = tcl_interp;
    if (!interp) return TCL_ERROR; // deleted: nothing to report the outcome to
    PythonEventQueue& target = inbox();
    ev->call = calls.enter();
    if (!pythonRunning() || !target.push(ev)) {
        calls.leave();
        Tcl_SetResult(interp, const_cast<char*>("Python interpreter is not running"),
                      TCL_STATIC);
        Tcl_SetErrorCode(interp, "PYTARN", "NOTRUNNING", nullptr);
        return TCL_ERROR;
    }
    // Python may have the interpreter deleted meanwhile; it stays usable
    // until the release, where interpDeleted runs.
    Tcl_Preserve(interp);
    Tcl_Interp* const outer = std::exchange(preserved, interp);
    tcl_queue.waitFor(ev, &target.owner);
    calls.leave();
    preserved = outer;
    const int code = postProcess(ev);
    Tcl_Release(interp);
    return code;
}

void EventMgr::releaseCarried() {
    for (Carrying* here = carrying; here; here = here->outer) {
        if (here->released) continue;
        here->released = true;
        here->inbox = nullptr;
        complete(here->ev);
    }
}

int EventMgr::postProcess(PyEvent* ev) {
    if (ev->exit_requested) Tcl_Exit(ev->exit_code);
    if (ev->result) {
        Tcl_SetObjResult(tcl_interp, ev->result.get());
    } else if (ev->scalar.kind != tcl_convert::Scalar::Kind::none) {
        Tcl_SetObjResult(tcl_interp, tcl_convert::toTcl(ev->scalar));
    } else {
        Tcl_ResetResult(tcl_interp);
    }
    // A failed Tcl call that Python left uncaught keeps its own -errorcode,
    // so that a script's trap sees through the round trip.
    if (ev->status == TCL_ERROR && !ev->error_code.empty()) {
        Tcl_Obj* words = Tcl_NewListObj(0, nullptr);
        for (const std::string& word : ev->error_code)
            Tcl_ListObjAppendElement(nullptr, words,
                                     Tcl_NewStringObj(word.data(), static_cast<int>(word.size())));
        Tcl_SetObjErrorCode(tcl_interp, words);
        return ev->status;
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
// Written under event_queue_mutex. Read first without it: while the Tcl
// thread waits for Python, the event stays pending and every request finds
// it so. A push looks after queueing (both sequentially consistent), and the
// event's procedure clears it before it drains, so a request that sees it
// set is drained by that event.
std::atomic<bool> event_exists{false};
} // namespace

void addEvent() {
    if (event_exists.load()) return;
    std::lock_guard<std::mutex> lock(event_queue_mutex);
    if (event_exists.load(std::memory_order_relaxed)) return;
    event_exists.store(true);
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
        event_exists.store(false);
    }
    // Every request is carried out under a guard of its own; this one only
    // keeps the event loop's frames clear of what the queue itself may throw.
    withoutExceptions([] { event_mgr->tcl_queue.serviceAllEvents(); }, [](bool) {});
    return 1;
}

} // namespace tcl_c_api

} // namespace pytarn::event
