// Tcl commands backed by Python callables (tcl.createcommand and
// ::pytarn::createFunction), and calls of a Python callable with Tcl words
// as its arguments (::pytarn::call).
#pragma once

#include "SmallArray.h"
#include "event/State.h"

#include <string>

namespace pytarn {

// What a command calls: a fixed callable, or one found afresh at every call
// (a dotted path from __main__, or a compiled expression evaluated there).
// The Python references are taken and given back on a Python thread; the
// record itself belongs to the Tcl command once it exists.
class PythonCommand {
public:
    // Python thread, lock held.
    static PythonCommand* forCallable(PyObject* callable);
    // Python thread, lock held: the record for createFunction's NAME and
    // EXPRESSION, or null with the Python error (syntax, missing name) set.
    static PythonCommand* forExpression(const char* name, const char* expression);

    // Tcl thread: makes (or replaces) the command `name` calling this
    // record, which Tcl owns from here on. False, with the interpreter's
    // error, when Tcl refuses the name.
    bool install(Tcl_Interp* interp, const char* name);

    // Python thread, lock held: gives back the Python references. The
    // destructor then needs no lock.
    void releasePython();

private:
    PythonCommand() = default;
    static int invoke(void* data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
    static void deleted(void* data);
    // Tcl thread: gives the record up once it is deleted and no call runs.
    void unhold();

    SmartPyObj callable_;                 // the fixed callable, or empty
    SmartPyObj code_;                     // an expression evaluated at each call, or empty
    SmartPyObj path_;                     // a tuple of names looked up at each call, or empty
    // On a line pair of their own: the Tcl thread writes them at every call,
    // and the Python thread reads the references above.
    alignas(event::line_pair) int running_ = 0; // calls in progress; Tcl thread only
    bool deleted_ = false;                // Tcl thread only
};

// Python thread, lock held: the callable named by the dotted path PATH
// (LENGTH bytes of Tcl text) from __main__, its first name possibly a
// built-in; a new reference, or null with ValueError (not a dotted name),
// NameError or AttributeError set.
PyObject* lookUpDotted(const char* path, int length);

// Tcl thread: the words of a call, for `request`. Short ones go packed into
// the request itself (its `short_words`), which the Python side reads with
// the rest of the request; others are kept here (the request's `long_words`),
// each a detached copy that the Python side may read while Tcl runs on. A
// word too deeply nested to copy is marked so.
class alignas(event::line_pair) CallWords {
public:
    CallWords(int count, Tcl_Obj* const words[], event::PyEvent* request);
    CallWords(const CallWords&) = delete;
    CallWords& operator=(const CallWords&) = delete;
    ~CallWords();
    // Python thread, lock held: calls `callable` with the words of `request`
    // converted to Python; a new reference, or null with an error set.
    static PyObject* callWith(const event::PyEvent& request, PyObject* callable);

private:
    // A word as the Python side reads it. Plain words travel as text packed
    // into one buffer and integers without text as numbers, so that the
    // Python thread reads a few cache lines in all rather than a fresh Tcl
    // object per word; lists and dicts travel as detached copies. Sixteen
    // bytes, so that a few words share a line with the array's count.
    struct Word {
        enum class Kind : unsigned char { text, integer, copy, too_deep };
        union {
            std::size_t offset = 0; // text: into text_, NUL-terminated
            Tcl_WideInt integer;
            Tcl_Obj* copy;          // a list or dict, one reference held
        };
        int length = 0; // of the text
        Kind kind = Kind::text;
    };
    // Python side: the word converted, or empty with an error set
    // (RecursionError for a word too deep to copy).
    SmartPyObj valueOf(const Word& word) const;

    SmallArray<Word, 6> words_;
    std::string text_;
};

} // namespace pytarn
