// Value conversion between Tcl objects and Python objects.
//
// Every function runs with the Python interpreter lock held. Tcl objects
// given to fromTcl must not be touched by another thread during the call;
// objects returned by toTcl are new (reference count 0) and unshared.
#pragma once

#include "SmartObj.h"

// Tcl's leading-zero octal form: "017" yes; "0", "08", "0o17", "-017" no.
bool isTclOctal(const char* text);
// A plain decimal fraction: digits and exactly one point, at least one digit.
bool isTclFloat(const char* text);

namespace tcl_convert {

using pytarn::SmartPyObj;

// Containers nested deeper than this fail with RecursionError instead of
// exhausting the stack (a self-containing value would recurse for ever).
constexpr int max_depth = 1000;
// The messages of the ValueError for a value that did not convert and of the
// RecursionError for one nested deeper than max_depth.
constexpr const char* not_converted_message = "Could not convert tcl value to python value";
constexpr const char* too_deep_message = "value nested too deeply to convert";

// Tcl's registered list and dict types: the internal form that decides how a
// Tcl value converts.
const Tcl_ObjType* listType();
const Tcl_ObjType* dictType();
// True for an integer that Tcl computed and has not yet turned into text: its
// text would be the plain decimal digits of `number`. Never gives it a text.
bool pureInteger(Tcl_Obj* value, Tcl_WideInt* number);

// Python to Tcl: lists and tuples become lists, dicts become dicts, the rest
// its str() text. Failures leave the Python error set and yield empty parts.
Tcl_Obj* toTcl(SmartPyObj value);
Tcl_Obj* toTclList(SmartPyObj value);
Tcl_Obj* toTclDict(SmartPyObj value);
Tcl_Obj* toTclStr(SmartPyObj value);
Tcl_Obj* toTcl(const char* text);

// Python's UTF-8 text in the form Tcl 8.6 keeps text in: characters beyond
// U+FFFF as surrogate pairs of three bytes each. Python's four-byte form
// overruns buffers in some of Tcl's string commands (string toupper), so
// every text handed to Tcl goes through here. Any thread; no Python lock.
class TclText {
public:
    explicit TclText(const char* utf8);
    ~TclText();
    TclText(const TclText&) = delete;
    TclText& operator=(const TclText&) = delete;
    // The text itself, or a recoded copy that lives as long as this object.
    const char* get() const { return text_; }

private:
    const char* text_;
    bool recoded_ = false;
    Tcl_DString copy_;
};

// The Python str of Tcl's text: surrogate pairs are joined back into one
// character; NUL (0xC0 0x80, or a raw byte in a malformed object), lone
// surrogates and other bytes that are not UTF-8 give an empty handle and
// leave no error set.
SmartPyObj fromTclText(const char* text, int length);

// Tcl to Python: decided by the internal form (list, dict), then by the text
// (int, Tcl octal, plain fraction, str; decimal digits past Python's limit for
// int() give the str). An empty handle means the value could not be
// converted; a RecursionError is left set when it was too deep, and an error
// that surfaced meanwhile (KeyboardInterrupt, MemoryError) stays set.
SmartPyObj fromTcl(Tcl_Obj* value);
// fromTcl for a value that is neither a list nor a dict, given by its text
// (NUL-terminated at `length`): what fromTcl gives for a string of that text.
SmartPyObj fromTclPlainText(const char* text, int length);
SmartPyObj fromTclList(Tcl_Obj* value);
SmartPyObj fromTclDict(Tcl_Obj* value);

// A copy of `value` that shares no object with it, so that it can be handed
// to another thread while Tcl goes on using the original. Lists and dicts are
// copied element by element (they decide the conversion); an integer without
// text stays one; everything else becomes a plain string. Runs on the Tcl
// thread; needs no Python lock.
// Null when nesting exceeds max_depth.
Tcl_Obj* detachedCopy(Tcl_Obj* value);

} // namespace tcl_convert
