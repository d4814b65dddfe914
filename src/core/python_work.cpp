// Work functions of the ::python:: requests; each runs on a Python thread
// with the interpreter lock held.
#include "Bridge.h"
#include "Dedent.h"

#include "convert/PyErrors.h"
#include "convert/TclConvert.h"

#include <climits>
#include <cstring>
#include <string>

namespace pytarn::python {

namespace {

// Scripts that loops send again and again are compiled once: the compiled
// code of short texts is kept by text, one table per mode. A full table is
// emptied rather than managed, which keeps the common case a dict lookup.
constexpr std::size_t cache_text_limit = 4096;
constexpr Py_ssize_t cache_entries = 512;

PyObject* compiled(const char* code, int start) {
    // Kept for the life of the process, and only touched with the lock held.
    static PyObject* caches[2] = {PyDict_New(), PyDict_New()};
    PyObject* cache = caches[start == Py_eval_input ? 0 : 1];
    const std::size_t length = std::strlen(code);
    // The text is Tcl's: characters beyond U+FFFF arrive as surrogate pairs,
    // which Python's own UTF-8 decoder refuses. Text that cannot be read so
    // (a NUL) is compiled as it stands and fails there.
    SmartPyObj source;
    if (length <= static_cast<std::size_t>(INT_MAX))
        source = tcl_convert::fromTclText(code, static_cast<int>(length));
    const char* utf8 = source ? PyUnicode_AsUTF8(source.get()) : nullptr;
    if (!utf8) {
        PyErr_Clear();
        source.reset();
        utf8 = code;
    }
    const bool cached = cache && source && length <= cache_text_limit;
    if (cached) {
        if (PyObject* hit = PyDict_GetItemWithError(cache, source.get())) // borrowed
            return Py_NewRef(hit);
        PyErr_Clear();
    }
    // Python indented as the Tcl body around it. Text that starts in its first
    // column is never indented as a whole, and is compiled as it stands.
    std::optional<std::string> flushLeft;
    if (*utf8 == ' ' || *utf8 == '\t' || *utf8 == '\n') {
        flushLeft = dedented(utf8);
        if (flushLeft) utf8 = flushLeft->c_str();
    }
    PyObject* result = Py_CompileStringExFlags(utf8, "<string>", start, nullptr, -1);
    if (result && cached) {
        if (PyDict_GET_SIZE(cache) >= cache_entries) PyDict_Clear(cache);
        if (PyDict_SetItem(cache, source.get(), result) != 0) PyErr_Clear();
    }
    return result;
}

PyObject* run(const char* code, int start) {
    PyObject* globals = python_state.main_dict.get();
    SmartPyObj compiledCode(compiled(code, start));
    if (!compiledCode) return nullptr;
    return PyEval_EvalCode(compiledCode.get(), globals, globals);
}

// Calls one of the helper module's cached functions with `text`; null with
// no error set when the module's attribute is not callable.
PyObject* callShell(const SmartPyObj& function, const char* text) {
    if (!function || !PyCallable_Check(function.get())) return nullptr;
    const std::size_t length = std::strlen(text);
    SmartPyObj argument;
    if (length <= static_cast<std::size_t>(INT_MAX))
        argument = tcl_convert::fromTclText(text, static_cast<int>(length));
    // Text that is not Tcl's readable form fails as Python's decoder says.
    if (!argument) return PyObject_CallFunction(function.get(), "s", text);
    return PyObject_CallOneArg(function.get(), argument.get());
}

// Whether `target` has the form of a name that the statement
// `target = value` binds as it stands: ASCII (Python folds other identifiers
// to their NFKC form), and not __debug__. Keywords are looked at apart.
bool asciiName(const char* target) {
    const auto letter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    };
    if (!letter(*target)) return false;
    for (const char* c = target + 1; *c; ++c)
        if (!letter(*c) && !(*c >= '0' && *c <= '9')) return false;
    return std::strcmp(target, "__debug__") != 0;
}

// Whether `name` is one of Python's keywords; true when that is not known.
bool keyword(PyObject* name) {
    // Kept for the life of the process; made and read with the lock held.
    static PyObject* const keywords = [] {
        SmartPyObj module(PyImport_ImportModule("keyword"));
        SmartPyObj list(module ? PyObject_GetAttrString(module.get(), "kwlist") : nullptr);
        PyObject* set = list ? PyFrozenSet_New(list.get()) : nullptr;
        PyErr_Clear();
        return set;
    }();
    const int found = keywords ? PySet_Contains(keywords, name) : -1;
    PyErr_Clear();
    return found != 0;
}

// A plain name is bound in __main__ directly, as the statement would bind
// it, without running one: true when it was. False with an error set when
// the store failed, false with none when `target` is not a plain name.
bool storedByName(const char* target, PyObject* value) {
    PyObject* globals = python_state.main_dict.get();
    if (!globals || !value) return false;
    // The last name bound is kept, with its text: a loop that sets the same
    // name makes no string and looks up no keyword. Kept for the life of the
    // process, as the other cached objects; lock held.
    static PyObject* last = nullptr;
    static char last_text[64] = "";
    if (!last || std::strcmp(target, last_text) != 0) {
        if (!asciiName(target)) return false;
        SmartPyObj name(PyUnicode_FromString(target));
        if (!name) return false;
        if (keyword(name.get())) return false;
        if (std::strlen(target) < sizeof last_text) {
            Py_XSETREF(last, Py_NewRef(name.get()));
            std::strcpy(last_text, target);
        }
        if (PyDict_SetItem(globals, name.get(), value) != 0) return false;
    } else if (PyDict_SetItem(globals, last, value) != 0) {
        return false;
    }
    // As the statement leaves it, whatever an earlier failed one left there.
    static PyObject* const swap = PyUnicode_InternFromString("__swap"); // kept, as above
    PyObject* tcl = python_state.tcl.get();
    if (!tcl || !swap) {
        PyErr_Clear(); // the key could not be made: the name is bound all the same
        return true;
    }
    return PyObject_SetAttr(tcl, swap, Py_None) == 0;
}

} // namespace

PyObject* eval(const char* code) { return run(code, Py_eval_input); }

PyObject* exec(const char* code) { return run(code, Py_file_input); }

bool execNoResult(const char* code) {
    SmartPyObj result(exec(code));
    return !result;
}

PyObject* check(const char* text) { return callShell(python_state.complete_expression, text); }

PyObject* tabComplete(const char* text) { return callShell(python_state.tab_complete, text); }

PyObject* get(const char* expression) {
    if (execNoResult(("__tcl.__swap = " + std::string(expression)).c_str())) return nullptr;
    SmartPyObj value;
    if (python_state.tcl) value = PyObject_GetAttrString(python_state.tcl.get(), "__swap");
    execNoResult("__tcl.__swap = None");
    return value.release();
}

PyObject* set(const char* target, PyObject* converted) {
    if (storedByName(target, converted)) Py_RETURN_NONE;
    if (PyErr_Occurred()) return nullptr;
    if (python_state.tcl &&
        PyObject_SetAttrString(python_state.tcl.get(), "__swap", converted) != 0)
        return nullptr;
    if (execNoResult((std::string(target) + " = __tcl.__swap\n__tcl.__swap = None\n").c_str()))
        return nullptr;
    Py_RETURN_NONE;
}

PyObject* createFunction(const char* first, const char* second) {
    const SmartPyObj& make = python_state.make_function;
    if (make && PyCallable_Check(make.get())) {
        SmartPyObj result(
            PyObject_CallFunction(make.get(), "ss", first, second ? second : ""));
    }
    printPythonError();
    Py_RETURN_NONE;
}

} // namespace pytarn::python
