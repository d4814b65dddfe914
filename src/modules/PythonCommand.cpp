// Tcl commands that call Python callables: one crossing per call, with the
// words as arguments and nothing compiled at call time.
#include "PythonCommand.h"

#include "convert/Guard.h"
#include "convert/TclConvert.h"

#include <cstring>
#include <new>
#include <string>

namespace pytarn {

namespace {

// A lambda without defaults evaluates to the same function every time: it
// is evaluated once. Other expressions may name something that changes, so
// they are evaluated at each call.
bool isPlainLambda(const char* expression, PyObject* value) {
    if (std::strncmp(expression, "lambda", 6) != 0) return false;
    const char next = expression[6];
    if (next != ' ' && next != ':' && next != '\t' && next != '\n') return false;
    return PyFunction_Check(value) && !PyFunction_GetDefaults(value) &&
           !PyFunction_GetKwDefaults(value) && !PyFunction_GetClosure(value);
}

// Whether a name of the path is a keyword (`None`, `True`): then it is an
// expression after all.
bool holdsKeyword(PyObject* names) {
    SmartPyObj module(PyImport_ImportModule("keyword"));
    SmartPyObj test(module ? PyObject_GetAttrString(module.get(), "iskeyword") : nullptr);
    bool found = false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(names); ++i) {
        PyObject* name = PyTuple_GET_ITEM(names, i);
        SmartPyObj answer(test ? PyObject_CallOneArg(test.get(), name) : nullptr);
        if (answer && PyObject_IsTrue(answer.get()) == 1) found = true;
    }
    PyErr_Clear();
    return found;
}

// The text of a Tcl word as Python's str, or null with ValueError set.
SmartPyObj pythonText(const char* text) {
    SmartPyObj str = tcl_convert::fromTclText(text, static_cast<int>(std::strlen(text)));
    if (!str && !PyErr_Occurred())
        PyErr_Format(PyExc_ValueError, "not a text Python can read: \"%s\"", text);
    return str;
}

// A new reference to the global `name` of __main__, else the built-in of
// that name; null with NameError set.
PyObject* lookUpName(PyObject* name) {
    PyObject* found = python_state.main_dict
                          ? PyDict_GetItemWithError(python_state.main_dict.get(), name)
                          : nullptr;
    if (!found && !PyErr_Occurred()) {
        PyObject* builtins = PyEval_GetBuiltins();
        found = builtins ? PyDict_GetItemWithError(builtins, name) : nullptr;
    }
    if (!found && !PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", name);
    return Py_XNewRef(found);
}

// The names of the path looked up last, as a tuple of interned strs: a loop
// that calls the same callable by name splits and decodes its path once. Only
// the names are kept, never what they name, so every call looks them up
// afresh. Python threads with the lock held; kept for good, since its
// objects may only be released with the lock.
struct LastPath {
    std::string path;
    SmartPyObj names;
};
LastPath& lastPath() {
    static auto* const last = new LastPath;
    return *last;
}

// A tuple of the interned names of the dotted path PATH (LENGTH bytes of Tcl
// text); empty, with ValueError set, when it is not one.
SmartPyObj splitPath(const char* path, int length) {
    const char* const end = path + length;
    SmartPyObj names(PyList_New(0));
    for (const char* start = path; names;) {
        const char* dot = static_cast<const char*>(std::memchr(start, '.', end - start));
        if (!dot) dot = end;
        SmartPyObj name = tcl_convert::fromTclText(start, static_cast<int>(dot - start));
        if (!name || !PyUnicode_IsIdentifier(name.get())) {
            if (!PyErr_Occurred())
                PyErr_Format(PyExc_ValueError, "not a dotted name: \"%s\"", path);
            return SmartPyObj();
        }
        PyObject* raw = name.release();
        PyUnicode_InternInPlace(&raw);
        name = SmartPyObj(raw);
        if (PyList_Append(names.get(), name.get()) != 0) return SmartPyObj();
        if (dot == end) return SmartPyObj(PyList_AsTuple(names.get()));
        start = dot + 1;
    }
    return SmartPyObj();
}

// What the non-empty tuple NAMES names from __main__ (its first name may also
// be a built-in); a new reference, or null with NameError or AttributeError
// set.
PyObject* lookUpPath(PyObject* names) {
    // Held by the caller: a lookup may run Python code that drops other
    // references to the names (the cache of lookUpDotted).
    SmartPyObj value(lookUpName(PyTuple_GET_ITEM(names, 0)));
    for (Py_ssize_t i = 1; value && i < PyTuple_GET_SIZE(names); ++i)
        value = PyObject_GetAttr(value.get(), PyTuple_GET_ITEM(names, i));
    return value.release();
}

} // namespace

PyObject* lookUpDotted(const char* path, int length) {
    LastPath& last = lastPath();
    SmartPyObj names;
    if (last.names && last.path.size() == static_cast<std::size_t>(length) &&
        std::memcmp(last.path.data(), path, static_cast<std::size_t>(length)) == 0) {
        names = last.names;
    } else {
        names = splitPath(path, length);
        if (!names) return nullptr;
        last.path.assign(path, static_cast<std::size_t>(length));
        last.names = names;
    }
    return lookUpPath(names.get());
}

PythonCommand* PythonCommand::forCallable(PyObject* callable) {
    auto* command = new (std::nothrow) PythonCommand;
    if (!command) {
        PyErr_NoMemory();
        return nullptr;
    }
    command->callable_ = SmartPyObj::borrow(callable);
    return command;
}

PythonCommand* PythonCommand::forExpression(const char* name, const char* expression) {
    SmartPyObj text = pythonText(expression);
    if (text) text = PyObject_CallMethod(text.get(), "strip", nullptr);
    const char* stripped = text ? PyUnicode_AsUTF8(text.get()) : nullptr;
    if (!stripped) return nullptr;
    SmartPyObj code;
    SmartPyObj path;
    SmartPyObj value;
    if (!*stripped) {
        // No expression: the global of the command's own name, not split.
        SmartPyObj key = pythonText(name);
        if (key) path = PyTuple_Pack(1, key.get());
        if (!path) return nullptr;
        value = lookUpPath(path.get());
    } else {
        // A plain dotted name is looked up at each call, not evaluated.
        path = splitPath(stripped, static_cast<int>(std::strlen(stripped)));
        if (path && holdsKeyword(path.get())) path.reset();
        if (!path) {
            PyErr_Clear();
            std::string file = "<function " + std::string(name) + ">";
            code = Py_CompileStringExFlags(stripped, file.c_str(), Py_eval_input, nullptr, -1);
            if (!code) return nullptr;
            PyObject* globals = python_state.main_dict.get();
            value = PyEval_EvalCode(code.get(), globals, globals);
        } else {
            value = lookUpPath(path.get());
        }
    }
    if (!value) return nullptr;
    if (!PyCallable_Check(value.get())) {
        PyErr_Format(PyExc_TypeError, "'%s' is not callable: it is %R", stripped, value.get());
        return nullptr;
    }
    auto* command = new (std::nothrow) PythonCommand;
    if (!command) {
        PyErr_NoMemory();
        return nullptr;
    }
    if (code && isPlainLambda(stripped, value.get())) {
        command->callable_ = std::move(value);
    } else if (code) {
        command->code_ = std::move(code);
    } else {
        command->path_ = std::move(path);
    }
    return command;
}

bool PythonCommand::install(Tcl_Interp* interp, const char* name) {
    if (!Tcl_CreateObjCommand(interp, name, invoke, this, deleted)) {
        Tcl_SetObjResult(interp, Tcl_ObjPrintf("cannot create command \"%s\"", name));
        return false;
    }
    return true;
}

void PythonCommand::releasePython() {
    callable_.reset();
    code_.reset();
    path_.reset();
}

int PythonCommand::invoke(void* data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    auto* command = static_cast<PythonCommand*>(data);
    // A call may delete its own command (or the interpreter); the record
    // stays until the last call in progress has returned.
    ++command->running_;
    const int code = tclGuard(interp, [&] {
        event::PyEvent request(nullptr);
        CallWords words(objc - 1, objv + 1, &request);
        request.func = [command, &request](PyObject*) -> PyObject* {
            SmartPyObj target;
            if (command->callable_) {
                target = command->callable_;
            } else if (command->code_) {
                PyObject* globals = python_state.main_dict.get();
                target = PyEval_EvalCode(command->code_.get(), globals, globals);
            } else {
                target = lookUpPath(command->path_.get());
            }
            return target ? CallWords::callWith(request, target.get()) : nullptr;
        };
        return event_mgr->spin(&request);
    });
    command->unhold();
    return code;
}

void PythonCommand::deleted(void* data) {
    auto* command = static_cast<PythonCommand*>(data);
    command->deleted_ = true;
    ++command->running_;
    command->unhold();
}

void PythonCommand::unhold() {
    if (--running_ > 0 || !deleted_) return;
    // The callable goes back to Python now, on a Python thread, so that its
    // release (and any __del__ it runs) happens when the command goes. Once
    // Python has stopped there is no thread to do it: it is left to the
    // process's end.
    Tcl_Interp* interp = tcl_interp;
    if (pythonRunning() && interp) {
        Tcl_InterpState saved = Tcl_SaveInterpState(interp, TCL_OK);
        event::PyEvent request([this](PyObject*) -> PyObject* {
            releasePython();
            Py_RETURN_NONE;
        });
        event_mgr->spin(&request);
        Tcl_RestoreInterpState(interp, saved);
    }
    (void)callable_.release();
    (void)code_.release();
    (void)path_.release();
    delete this;
}

namespace {

// Built-ins that read their caller's frame. Called straight from a request
// they find none (SystemError), or, in a request nested in Python code's
// call into Tcl, that code's frame. Only the exact type is looked at first:
// the call of an ordinary callable pays one comparison.
bool readsCallerFrame(PyObject* callable) {
    if (!PyCFunction_CheckExact(callable)) return false;
    const char* name = reinterpret_cast<PyCFunctionObject*>(callable)->m_ml->ml_name;
    bool reader = false;
    for (const char* known : {"eval", "exec", "vars", "locals", "globals", "dir"})
        reader = reader || std::strcmp(name, known) == 0;
    if (!reader) return false;
    PyObject* module = PyCFunction_GET_SELF(callable);
    PyObject* builtins = PyImport_AddModule("builtins"); // borrowed
    PyErr_Clear();
    return module && module == builtins;
}

// Calls `callable` from a frame of its own whose globals and locals are
// __main__'s namespace, as code at the top level of __main__ would. The
// frame runs "[None][0](*())" with its constants replaced: the callable
// for None, the arguments for the empty tuple. A new reference, or null
// with an error set.
PyObject* callAtTopLevel(PyObject* callable, PyObject* const* arguments, int count) {
    // Kept for the life of the process, as the other cached objects. The
    // interpreter lock guards it, not a static guard: compiling may run
    // Python code that lets another thread in here meanwhile.
    static PyObject* shape = nullptr;
    if (!shape) shape = Py_CompileString("[None][0](*())", "<string>", Py_eval_input);
    if (!shape) return nullptr;
    SmartPyObj constants(PyObject_GetAttrString(shape, "co_consts"));
    if (constants && PyTuple_GET_SIZE(constants.get()) != 3) // another compiler's shape
        return PyObject_Vectorcall(callable, arguments, static_cast<std::size_t>(count), nullptr);
    SmartPyObj words(PyTuple_New(count));
    if (!constants || !words) return nullptr;
    for (int i = 0; i < count; ++i) PyTuple_SET_ITEM(words.get(), i, Py_NewRef(arguments[i]));
    SmartPyObj replaced(
        PyTuple_Pack(3, callable, PyTuple_GET_ITEM(constants.get(), 1), words.get()));
    SmartPyObj replace(PyObject_GetAttrString(shape, "replace"));
    SmartPyObj options(replaced ? Py_BuildValue("{sO}", "co_consts", replaced.get()) : nullptr);
    SmartPyObj empty(PyTuple_New(0));
    if (!replace || !options || !empty) return nullptr;
    SmartPyObj code(PyObject_Call(replace.get(), empty.get(), options.get()));
    PyObject* namespace_ = python_state.main_dict.get();
    return code ? PyEval_EvalCode(code.get(), namespace_, namespace_) : nullptr;
}

} // namespace

CallWords::CallWords(int count, Tcl_Obj* const words[], event::PyEvent* request)
    : words_(request->short_words.pack(words, count) ? 0 : count) {
    if (!words_.data()) throw std::bad_alloc(); // the command's guard reports it
    if (!request->short_words.packed()) request->long_words = this;
    for (int i = 0; i < words_.size(); ++i) {
        Tcl_Obj* word = words[i];
        Word& out = words_[i];
        if (word->typePtr == tcl_convert::listType() || word->typePtr == tcl_convert::dictType()) {
            Tcl_Obj* copy = tcl_convert::detachedCopy(word);
            out.kind = copy ? Word::Kind::copy : Word::Kind::too_deep;
            if (copy) {
                out.copy = copy;
                Tcl_IncrRefCount(copy);
            }
        } else if (Tcl_WideInt integer = 0; tcl_convert::pureInteger(word, &integer)) {
            out.integer = integer;
            out.kind = Word::Kind::integer;
        } else {
            int length = 0;
            const char* text = Tcl_GetStringFromObj(word, &length);
            out.offset = text_.size();
            out.length = length;
            text_.append(text, static_cast<std::size_t>(length));
            text_.push_back('\0');
        }
    }
}

CallWords::~CallWords() {
    for (int i = 0; i < words_.size(); ++i)
        if (words_[i].kind == Word::Kind::copy) Tcl_DecrRefCount(words_[i].copy);
}

SmartPyObj CallWords::valueOf(const Word& word) const {
    switch (word.kind) {
    case Word::Kind::copy:
        return tcl_convert::fromTcl(word.copy);
    case Word::Kind::integer:
        return SmartPyObj(PyLong_FromLongLong(word.integer));
    case Word::Kind::text:
        return tcl_convert::fromTclPlainText(text_.data() + word.offset, word.length);
    case Word::Kind::too_deep:
        break;
    }
    PyErr_SetString(PyExc_RecursionError, tcl_convert::too_deep_message);
    return SmartPyObj();
}

PyObject* CallWords::callWith(const event::PyEvent& request, PyObject* callable) {
    const tcl_convert::ShortWords& packed = request.short_words;
    const auto* kept = static_cast<const CallWords*>(request.long_words);
    const int count = packed.packed() ? packed.count() : kept->words_.size();
    SmallArray<PyObject*, 8> arguments(count);
    if (!arguments.data()) return PyErr_NoMemory();
    int converted = 0;
    std::size_t at = 0; // into the packed words
    for (; converted < count; ++converted) {
        SmartPyObj value =
            packed.packed() ? packed.value(&at) : kept->valueOf(kept->words_[converted]);
        if (!value) {
            if (!PyErr_Occurred())
                PyErr_SetString(PyExc_ValueError, tcl_convert::not_converted_message);
            break;
        }
        arguments[converted] = value.release();
    }
    PyObject* result = nullptr;
    if (converted == count && readsCallerFrame(callable))
        result = callAtTopLevel(callable, arguments.data(), count);
    else if (converted == count)
        result = PyObject_Vectorcall(callable, arguments.data(), static_cast<std::size_t>(count),
                                     nullptr);
    for (int i = 0; i < converted; ++i) Py_DECREF(arguments[i]);
    return result;
}

} // namespace pytarn
