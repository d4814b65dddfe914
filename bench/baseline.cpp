// The benchmark suite's in-thread baselines and timers, as a Tcl extension that
// bench scripts load into pytarnsh (`load libbaseline.so Baseline`).
//
// ::baseline::eval/exec/get/set/call do what the ::python:: commands and
// ::pytarn::call do, but on the calling Tcl thread with the interpreter lock
// held, so that their cost is the bridge's minus the thread hand-off. The
// Python module `benchtools` offers the same for the other direction
// (tcl_eval/call/get/set, Tcl thread only) and a per-call timer for Python
// callables. ::bench::time and ::bench::cpu are the Tcl-side timer and the
// process's CPU clock; they need no Python, so a plain tclsh can load the
// extension for them.
//
// The bridge's converters are compiled into libpytarn with hidden visibility,
// and linking a second copy here would duplicate the bridge's globals; the
// small conversions below follow the same rules for the values benchmarked.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <tcl.h>

#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

Tcl_Interp* host_interp = nullptr;
Tcl_ThreadId host_thread = nullptr;
PyObject* main_dict = nullptr; // borrowed: __main__ lives as long as the interpreter

constexpr int max_depth = 1000;

const Tcl_ObjType* listType() {
    static const Tcl_ObjType* type = Tcl_GetObjType("list");
    return type;
}

const Tcl_ObjType* dictType() {
    static const Tcl_ObjType* type = Tcl_GetObjType("dict");
    return type;
}

void discard(Tcl_Obj* obj) {
    Tcl_IncrRefCount(obj);
    Tcl_DecrRefCount(obj);
}

bool tooDeep(int depth) {
    if (depth <= max_depth) return false;
    PyErr_SetString(PyExc_RecursionError, "value nested too deeply to convert");
    return true;
}

// Python to Tcl: lists and tuples become lists, dicts dicts, the rest str().
// Null with a Python error set on failure.
Tcl_Obj* toTcl(PyObject* value, int depth);

Tcl_Obj* toTclText(PyObject* value) {
    PyObject* str = PyUnicode_Check(value) ? Py_NewRef(value) : PyObject_Str(value);
    if (!str) return nullptr;
    Py_ssize_t length = 0;
    const char* text = PyUnicode_AsUTF8AndSize(str, &length);
    Tcl_Obj* result = text ? Tcl_NewStringObj(text, static_cast<int>(length)) : nullptr;
    Py_DECREF(str);
    return result;
}

Tcl_Obj* toTclList(PyObject* sequence, int depth) {
    const Py_ssize_t count = PySequence_Fast_GET_SIZE(sequence);
    PyObject** items = PySequence_Fast_ITEMS(sequence);
    std::vector<Tcl_Obj*> elements;
    elements.reserve(static_cast<size_t>(count));
    for (Py_ssize_t i = 0; i < count; ++i) {
        Tcl_Obj* element = toTcl(items[i], depth + 1);
        if (!element) {
            for (Tcl_Obj* done : elements) discard(done);
            return nullptr;
        }
        elements.push_back(element);
    }
    return Tcl_NewListObj(static_cast<int>(count), elements.data());
}

Tcl_Obj* toTclDict(PyObject* dict, int depth) {
    Tcl_Obj* result = Tcl_NewDictObj();
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(dict, &position, &key, &value)) {
        Tcl_Obj* tclKey = toTcl(key, depth + 1);
        Tcl_Obj* tclValue = tclKey ? toTcl(value, depth + 1) : nullptr;
        if (!tclValue) {
            if (tclKey) discard(tclKey);
            discard(result);
            return nullptr;
        }
        Tcl_DictObjPut(nullptr, result, tclKey, tclValue);
    }
    return result;
}

Tcl_Obj* toTcl(PyObject* value, int depth) {
    if (PyList_Check(value) || PyTuple_Check(value)) {
        if (tooDeep(depth)) return nullptr;
        return toTclList(value, depth);
    }
    if (PyDict_Check(value)) {
        if (tooDeep(depth)) return nullptr;
        return toTclDict(value, depth);
    }
    return toTclText(value);
}

// Optional sign, then decimal digits only: what the bridge turns into an int
// (its octal and fraction forms do not occur in the benchmarks).
bool isDecimal(const char* text, int length) {
    int start = length > 0 && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (start == length || length > 18) return false;
    for (int i = start; i < length; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

// Tcl to Python: lists and dicts by internal form, then int or str by text.
PyObject* fromTcl(Tcl_Obj* value, int depth) {
    if (value->typePtr == listType()) {
        if (tooDeep(depth)) return nullptr;
        int count = 0;
        Tcl_Obj** elements = nullptr;
        Tcl_ListObjGetElements(nullptr, value, &count, &elements);
        PyObject* list = PyList_New(count);
        for (int i = 0; list && i < count; ++i) {
            PyObject* item = fromTcl(elements[i], depth + 1);
            if (!item) Py_CLEAR(list);
            else PyList_SET_ITEM(list, i, item);
        }
        return list;
    }
    if (value->typePtr == dictType()) {
        if (tooDeep(depth)) return nullptr;
        PyObject* dict = PyDict_New();
        Tcl_DictSearch search;
        Tcl_Obj* key = nullptr;
        Tcl_Obj* item = nullptr;
        int done = 0;
        Tcl_DictObjFirst(nullptr, value, &search, &key, &item, &done);
        for (; dict && !done; Tcl_DictObjNext(&search, &key, &item, &done)) {
            int length = 0;
            const char* text = Tcl_GetStringFromObj(key, &length);
            PyObject* pyKey = PyUnicode_DecodeUTF8(text, length, "replace");
            PyObject* pyItem = pyKey ? fromTcl(item, depth + 1) : nullptr;
            if (!pyItem || PyDict_SetItem(dict, pyKey, pyItem) != 0) Py_CLEAR(dict);
            Py_XDECREF(pyKey);
            Py_XDECREF(pyItem);
        }
        Tcl_DictObjDone(&search);
        return dict;
    }
    int length = 0;
    const char* text = Tcl_GetStringFromObj(value, &length);
    if (isDecimal(text, length)) return PyLong_FromString(text, nullptr, 10);
    return PyUnicode_DecodeUTF8(text, length, "replace");
}

// Moves the pending Python error into the Tcl result as "Type: text".
int pythonErrorToTcl(Tcl_Interp* interp) {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    std::string message = type ? reinterpret_cast<PyTypeObject*>(type)->tp_name : "Error";
    PyObject* text = value ? PyObject_Str(value) : nullptr;
    const char* utf8 = text ? PyUnicode_AsUTF8(text) : nullptr;
    message += std::string(": ") + (utf8 ? utf8 : "");
    Py_XDECREF(text);
    Py_XDECREF(type);
    Py_XDECREF(value);
    Py_XDECREF(traceback);
    PyErr_Clear();
    Tcl_SetObjResult(interp, Tcl_NewStringObj(message.c_str(), -1));
    return TCL_ERROR;
}

// Sets the Tcl result from a Python result (new reference, or null on error).
int finish(Tcl_Interp* interp, PyObject* result) {
    if (!result) return pythonErrorToTcl(interp);
    int status = TCL_OK;
    if (result == Py_None) {
        Tcl_ResetResult(interp);
    } else if (Tcl_Obj* converted = toTcl(result, 1)) {
        Tcl_SetObjResult(interp, converted);
    } else {
        status = pythonErrorToTcl(interp);
    }
    Py_DECREF(result);
    return status;
}

// The words after the command name joined by single blanks, as the bridge does.
std::string joinWords(int argc, const char** argv) {
    std::string code;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) code += ' ';
        code += argv[i];
    }
    return code;
}

int runPython(Tcl_Interp* interp, int argc, const char** argv, int start) {
    if (argc <= 1) return TCL_OK;
    std::string code = joinWords(argc, argv);
    PyGILState_STATE gil = PyGILState_Ensure();
    int status = finish(interp, PyRun_StringFlags(code.c_str(), start, main_dict, main_dict,
                                                  nullptr));
    PyGILState_Release(gil);
    return status;
}

int evalCmd(void*, Tcl_Interp* interp, int argc, const char** argv) {
    return runPython(interp, argc, argv, Py_eval_input);
}

int execCmd(void*, Tcl_Interp* interp, int argc, const char** argv) {
    return runPython(interp, argc, argv, Py_file_input);
}

// ::baseline::get EXPRESSION: the value of a Python expression, converted.
int getCmd(void*, Tcl_Interp* interp, int argc, const char** argv) {
    if (argc != 2) {
        Tcl_SetResult(interp, const_cast<char*>("Invalid Parameters"), TCL_STATIC);
        return TCL_ERROR;
    }
    return runPython(interp, argc, argv, Py_eval_input);
}

// ::baseline::set NAME VALUE: a plain name of __main__ (the bridge also takes
// attribute and item targets, which it compiles; the benchmarks use names).
int setCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) {
        Tcl_WrongNumArgs(interp, 1, objv, "name value");
        return TCL_ERROR;
    }
    PyGILState_STATE gil = PyGILState_Ensure();
    PyObject* value = fromTcl(objv[2], 1);
    int status = TCL_OK;
    if (!value || PyDict_SetItemString(main_dict, Tcl_GetString(objv[1]), value) != 0) {
        status = pythonErrorToTcl(interp);
    } else {
        Tcl_ResetResult(interp);
    }
    Py_XDECREF(value);
    PyGILState_Release(gil);
    return status;
}

// Nanoseconds since an arbitrary start, from the monotonic clock.
std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

bool writeSamples(const char* path, const std::vector<std::int64_t>& samples) {
    FILE* file = std::fopen(path, "wb");
    if (!file) return false;
    bool written = std::fwrite(samples.data(), sizeof(std::int64_t), samples.size(), file) ==
                   samples.size();
    return std::fclose(file) == 0 && written;
}

// ::bench::time COUNT SCRIPT ?SAMPLES?: evaluates SCRIPT (compiled once) COUNT
// times in the caller's frame and returns the mean in nanoseconds. With
// SAMPLES, each call is timed alone and the durations are written there as
// native 64-bit integers; without it only the whole loop is timed.
int timeCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int count = 0;
    if (objc < 3 || objc > 4) {
        Tcl_WrongNumArgs(interp, 1, objv, "count script ?samples?");
        return TCL_ERROR;
    }
    if (Tcl_GetIntFromObj(interp, objv[1], &count) != TCL_OK) return TCL_ERROR;
    Tcl_Obj* script = objv[2];
    Tcl_IncrRefCount(script); // the script may replace the variable it came from
    std::vector<std::int64_t> samples;
    if (objc == 4) samples.reserve(static_cast<size_t>(count));
    int status = TCL_OK;
    const std::int64_t start = now();
    for (int i = 0; i < count && status == TCL_OK; ++i) {
        const std::int64_t before = objc == 4 ? now() : 0;
        status = Tcl_EvalObjEx(interp, script, 0);
        if (objc == 4) samples.push_back(now() - before);
    }
    const std::int64_t total = now() - start;
    Tcl_DecrRefCount(script);
    if (status != TCL_OK) return status;
    if (objc == 4 && !writeSamples(Tcl_GetString(objv[3]), samples)) {
        Tcl_SetObjResult(interp, Tcl_ObjPrintf("cannot write \"%s\": %s",
                                               Tcl_GetString(objv[3]), std::strerror(errno)));
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, Tcl_NewDoubleObj(count > 0 ? double(total) / count : 0.0));
    return TCL_OK;
}

// ::bench::cpu: user plus system CPU time of the whole process, in microseconds.
int cpuCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 1) {
        Tcl_WrongNumArgs(interp, 1, objv, "");
        return TCL_ERROR;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    Tcl_WideInt micros = (Tcl_WideInt(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec) * 1000000 +
                         usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
    Tcl_SetObjResult(interp, Tcl_NewWideIntObj(micros));
    return TCL_OK;
}

// benchtools.time_calls(fn, args, count, samples=None): calls fn(*args) COUNT
// times and returns the mean in nanoseconds; with SAMPLES, as ::bench::time.
PyObject* timeCalls(PyObject*, PyObject* args) {
    PyObject* function = nullptr;
    PyObject* arguments = nullptr;
    Py_ssize_t count = 0;
    const char* path = nullptr;
    if (!PyArg_ParseTuple(args, "OO!n|z", &function, &PyTuple_Type, &arguments, &count, &path))
        return nullptr;
    std::vector<std::int64_t> samples;
    if (path) samples.reserve(static_cast<size_t>(count));
    const std::int64_t start = now();
    for (Py_ssize_t i = 0; i < count; ++i) {
        const std::int64_t before = path ? now() : 0;
        PyObject* result = PyObject_Call(function, arguments, nullptr);
        if (path) samples.push_back(now() - before);
        if (!result) return nullptr;
        Py_DECREF(result);
    }
    const std::int64_t total = now() - start;
    if (path && !writeSamples(path, samples))
        return PyErr_SetFromErrnoWithFilename(PyExc_OSError, path);
    return PyFloat_FromDouble(count > 0 ? double(total) / double(count) : 0.0);
}

// The in-thread Tcl access below is legal only on the thread that owns the
// interpreter; called from the bridge's threads it raises instead.
bool onTclThread() {
    if (Tcl_GetCurrentThread() == host_thread) return true;
    PyErr_SetString(PyExc_RuntimeError, "benchtools.tcl_* run only on the Tcl thread");
    return false;
}

PyObject* tclFailure() {
    PyErr_SetString(PyExc_RuntimeError, Tcl_GetStringResult(host_interp));
    return nullptr;
}

PyObject* tclEval(PyObject*, PyObject* args) {
    const char* script = nullptr;
    if (!PyArg_ParseTuple(args, "s", &script) || !onTclThread()) return nullptr;
    if (Tcl_EvalEx(host_interp, script, -1, TCL_EVAL_GLOBAL) != TCL_OK) return tclFailure();
    return fromTcl(Tcl_GetObjResult(host_interp), 1);
}

PyObject* tclGet(PyObject*, PyObject* args) {
    const char* name = nullptr;
    if (!PyArg_ParseTuple(args, "s", &name) || !onTclThread()) return nullptr;
    Tcl_Obj* value =
        Tcl_GetVar2Ex(host_interp, name, nullptr, TCL_GLOBAL_ONLY | TCL_LEAVE_ERR_MSG);
    return value ? fromTcl(value, 1) : tclFailure();
}

// tcl_call(word, ...): the words converted to Tcl and run as one command,
// without parsing, as tcl.call does.
PyObject* tclCall(PyObject*, PyObject* args) {
    if (!onTclThread()) return nullptr;
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    std::vector<Tcl_Obj*> words;
    words.reserve(static_cast<size_t>(count));
    for (Py_ssize_t i = 0; i < count; ++i) {
        Tcl_Obj* word = toTcl(PyTuple_GET_ITEM(args, i), 1);
        if (!word) break;
        Tcl_IncrRefCount(word);
        words.push_back(word);
    }
    PyObject* result = nullptr;
    if (words.size() == static_cast<size_t>(count)) {
        if (Tcl_EvalObjv(host_interp, static_cast<int>(count), words.data(),
                         TCL_EVAL_GLOBAL) == TCL_OK) {
            result = fromTcl(Tcl_GetObjResult(host_interp), 1);
        } else {
            tclFailure();
        }
    }
    for (Tcl_Obj* word : words) Tcl_DecrRefCount(word);
    return result;
}

PyObject* tclSet(PyObject*, PyObject* args) {
    const char* name = nullptr;
    PyObject* value = nullptr;
    if (!PyArg_ParseTuple(args, "sO", &name, &value) || !onTclThread()) return nullptr;
    Tcl_Obj* converted = toTcl(value, 1);
    if (!converted) return nullptr;
    if (!Tcl_SetVar2Ex(host_interp, name, nullptr, converted,
                       TCL_GLOBAL_ONLY | TCL_LEAVE_ERR_MSG))
        return tclFailure();
    Py_RETURN_NONE;
}

// Calls FUNCTION with the words, converted as the bridge converts them, and
// sets the Tcl result from its result likewise. The caller holds the GIL.
int callWithWords(Tcl_Interp* interp, PyObject* function, int objc, Tcl_Obj* const objv[]) {
    constexpr int most = 8;
    PyObject* arguments[most];
    int count = 0;
    int status = TCL_OK;
    if (objc > most) {
        PyErr_SetString(PyExc_TypeError, "too many words for the baseline");
    } else {
        for (; count < objc; ++count) {
            arguments[count] = fromTcl(objv[count], 1);
            if (!arguments[count]) break;
        }
    }
    if (count == objc) {
        status = finish(interp, PyObject_Vectorcall(function, arguments,
                                                    static_cast<size_t>(count), nullptr));
    } else {
        status = pythonErrorToTcl(interp);
    }
    for (int i = 0; i < count; ++i) Py_DECREF(arguments[i]);
    return status;
}

// A Tcl command calling a Python callable on the Tcl thread: the same-thread
// form of the bridge's Python-backed commands.
int callableCmd(void* data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    PyGILState_STATE gil = PyGILState_Ensure();
    int status = callWithWords(interp, static_cast<PyObject*>(data), objc - 1, objv + 1);
    PyGILState_Release(gil);
    return status;
}

// The callable a dotted path names: its first name from __main__ or the
// built-ins, the rest attributes. New reference, or null with an error set.
PyObject* lookUpPath(const char* path) {
    const char* dot = std::strchr(path, '.');
    std::string first(path, dot ? static_cast<size_t>(dot - path) : std::strlen(path));
    PyObject* found = PyDict_GetItemString(main_dict, first.c_str());
    if (!found) found = PyDict_GetItemString(PyEval_GetBuiltins(), first.c_str());
    if (!found) {
        PyErr_Format(PyExc_NameError, "name '%s' is not defined", first.c_str());
        return nullptr;
    }
    PyObject* target = Py_NewRef(found);
    while (target && dot) {
        const char* next = std::strchr(dot + 1, '.');
        std::string name(dot + 1, next ? static_cast<size_t>(next - dot - 1)
                                       : std::strlen(dot + 1));
        Py_SETREF(target, PyObject_GetAttrString(target, name.c_str()));
        dot = next;
    }
    return target;
}

// ::baseline::call PATH ?WORD ...?: what ::pytarn::call does, on the calling
// thread: the path looked up each call, the words converted, the call made.
int callCmd(void*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 2) {
        Tcl_WrongNumArgs(interp, 1, objv, "callable ?arg ...?");
        return TCL_ERROR;
    }
    PyGILState_STATE gil = PyGILState_Ensure();
    PyObject* target = lookUpPath(Tcl_GetString(objv[1]));
    int status = target ? callWithWords(interp, target, objc - 2, objv + 2)
                        : pythonErrorToTcl(interp);
    Py_XDECREF(target);
    PyGILState_Release(gil);
    return status;
}

void releaseCallable(void* data) {
    PyGILState_STATE gil = PyGILState_Ensure();
    Py_DECREF(static_cast<PyObject*>(data));
    PyGILState_Release(gil);
}

// benchtools.createcommand(name, fn): on the Tcl thread only.
PyObject* createCommand(PyObject*, PyObject* args) {
    const char* name = nullptr;
    PyObject* function = nullptr;
    if (!PyArg_ParseTuple(args, "sO", &name, &function) || !onTclThread()) return nullptr;
    Tcl_CreateObjCommand(host_interp, name, callableCmd, Py_NewRef(function), releaseCallable);
    Py_RETURN_NONE;
}

PyMethodDef benchtools_methods[] = {
    {"createcommand", createCommand, METH_VARARGS,
     "a Tcl command calling fn on the Tcl thread (Tcl thread only)"},
    {"time_calls", timeCalls, METH_VARARGS, "time_calls(fn, args, count, samples=None)"},
    {"tcl_eval", tclEval, METH_VARARGS, "Tcl_EvalEx on the Tcl thread"},
    {"tcl_call", tclCall, METH_VARARGS, "Tcl_EvalObjv of the words on the Tcl thread"},
    {"tcl_get", tclGet, METH_VARARGS, "a global Tcl variable, read on the Tcl thread"},
    {"tcl_set", tclSet, METH_VARARGS, "a global Tcl variable, set on the Tcl thread"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef benchtools_module = {
    PyModuleDef_HEAD_INIT, "benchtools", "pytarn benchmark helpers", -1, benchtools_methods,
    nullptr, nullptr, nullptr, nullptr,
};

// Registers `benchtools` and finds __main__. The lock taken here is never
// given back through PyGILState_Release: that keeps this thread's Python
// thread state alive, so that each command's Ensure/Release only takes and
// drops the lock instead of creating and destroying a thread state.
bool startPython(Tcl_Interp* interp) {
    PyGILState_Ensure();
    PyObject* module = PyModule_Create(&benchtools_module);
    bool ok = module && PyDict_SetItemString(PyImport_GetModuleDict(), "benchtools", module) == 0;
    Py_XDECREF(module);
    PyObject* main = ok ? PyImport_AddModule("__main__") : nullptr;
    main_dict = main ? PyModule_GetDict(main) : nullptr;
    int status = main_dict ? TCL_OK : pythonErrorToTcl(interp);
    PyEval_SaveThread();
    return status == TCL_OK;
}

} // namespace

extern "C" int Baseline_Init(Tcl_Interp* interp) {
    if (!Tcl_InitStubs(interp, "8.6", 0)) return TCL_ERROR;
    host_interp = interp;
    host_thread = Tcl_GetCurrentThread();
    Tcl_CreateObjCommand(interp, "::bench::time", timeCmd, nullptr, nullptr);
    Tcl_CreateObjCommand(interp, "::bench::cpu", cpuCmd, nullptr, nullptr);
    if (Py_IsInitialized()) {
        if (!startPython(interp)) return TCL_ERROR;
        Tcl_CreateCommand(interp, "::baseline::eval", evalCmd, nullptr, nullptr);
        Tcl_CreateCommand(interp, "::baseline::exec", execCmd, nullptr, nullptr);
        Tcl_CreateCommand(interp, "::baseline::get", getCmd, nullptr, nullptr);
        Tcl_CreateObjCommand(interp, "::baseline::set", setCmd, nullptr, nullptr);
        Tcl_CreateObjCommand(interp, "::baseline::call", callCmd, nullptr, nullptr);
    }
    return Tcl_PkgProvide(interp, "baseline", "1.0");
}
