// tcl.call, tcl.exists and tcl.unset: Tcl commands called with words, never
// with script text, so no value ever needs quoting.
#include "PytarnMod.h"

#include "event/State.h"
#include "convert/Scalar.h"
#include "ForkedOutput.h"
#include "SmallArray.h"

#include <climits>

namespace pytarn::python_api {

namespace {

// The word for one argument: None is the empty word, anything else converts
// as every value to Tcl does. One reference, held by the caller.
Tcl_Obj* wordOf(PyObject* value) {
    Tcl_Obj* word = value == Py_None ? Tcl_NewObj() : tcl_convert::toTcl(SmartPyObj::borrow(value));
    Tcl_IncrRefCount(word);
    return word;
}

void releaseWords(Tcl_Obj* const* words, int count) {
    for (int i = 0; i < count; ++i) Tcl_DecrRefCount(words[i]);
}

// No Tcl thread lives in a forked child: nothing is called there, as for eval.
PyObject* send(event::TclEvent* request) {
    if (python_thread.forked.load()) {
        forked::flush();
        Py_RETURN_NONE;
    }
    return event_mgr->spin(request);
}

PyObject* callWordsOf(PyObject* const* args, int count) {
    // Plain words cross packed: the Tcl thread makes their objects itself.
    tcl_convert::PackedWords packed;
    if (packed.pack(args, count)) {
        event::TclEvent request(event::TclEvent::Asks::call);
        request.packed = &packed;
        return send(&request);
    }
    SmallArray<Tcl_Obj*, 8> words(count);
    if (!words.data()) return PyErr_NoMemory();
    for (int i = 0; i < count; ++i) {
        words[i] = wordOf(args[i]);
        if (PyErr_Occurred()) { // a str() that raised, a value nested too deeply
            releaseWords(words.data(), i + 1);
            return nullptr;
        }
    }
    return callWords(words.data(), count);
}

} // namespace

PyObject* callWords(Tcl_Obj* const* words, int count) {
    if (python_thread.forked.load()) releaseWords(words, count); // never sent
    event::TclEvent request(event::TclEvent::Asks::call);
    request.words = words;
    request.word_count = count;
    return send(&request);
}

PyObject* call(PyObject*, PyObject* const* args, Py_ssize_t count) {
    if (count < 1) {
        PyErr_SetString(PyExc_TypeError, "call() needs the command's name");
        return nullptr;
    }
    if (count > INT_MAX) {
        PyErr_SetString(PyExc_OverflowError, "too many words for one Tcl command");
        return nullptr;
    }
    return callWordsOf(args, static_cast<int>(count));
}

namespace {

PyObject* variableCommand(const char* command, const char* option, PyObject* name) {
    if (!PyUnicode_Check(name)) {
        PyErr_Format(PyExc_TypeError, "a variable name must be str, not %.100s",
                     Py_TYPE(name)->tp_name);
        return nullptr;
    }
    SmartPyObj commandWord(PyUnicode_FromString(command));
    SmartPyObj optionWord(option ? PyUnicode_FromString(option) : nullptr);
    if (!commandWord || (option && !optionWord)) return nullptr;
    PyObject* args[] = {commandWord.get(), option ? optionWord.get() : name, name};
    return callWordsOf(args, option ? 3 : 2);
}

} // namespace

PyObject* exists(PyObject*, PyObject* name) {
    SmartPyObj answer(variableCommand("::info", "exists", name));
    if (!answer) return nullptr;
    if (answer.get() == Py_None) Py_RETURN_FALSE; // shutting down
    const int truth = PyObject_IsTrue(answer.get());
    if (truth < 0) return nullptr;
    return PyBool_FromLong(truth);
}

PyObject* unset(PyObject*, PyObject* name) {
    SmartPyObj result(variableCommand("::unset", nullptr, name));
    if (!result) return nullptr;
    Py_RETURN_NONE;
}

} // namespace pytarn::python_api
