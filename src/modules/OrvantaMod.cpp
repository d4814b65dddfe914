// The built-in module Orvanta: byte copies out of and into the host's
// buffers. The host's three buffer functions are found in the process when the
// bridge loads (on the main Tcl thread, before the Python thread exists), so
// the Python thread reads the pointers without synchronisation. Both module
// functions run on the Python thread with the interpreter lock held and call
// the host directly; the host guards its own store.
#include "OrvantaMod.h"

#include "convert/PyErrors.h"

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <pytarn.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

namespace pytarn::buffer {

namespace {

// Layout twins of the host's BufferKey and TCLBufferCmds::BufferPair.
struct HostKey {
    std::int32_t first;
    std::int32_t second;
};
struct HostPair {
    const char* data;
    std::uint64_t size;
};
static_assert(sizeof(HostKey) == 8 && sizeof(HostPair) == 16 && offsetof(HostPair, size) == 8);

using GetIndexFn = int (*)(std::string, HostKey&);
using GetBytesFn = const char* (*)(HostPair&, HostKey, unsigned long, unsigned long);
using SetBytesFn = const char* (*)(HostPair&, HostKey, unsigned long, unsigned long,
                                   unsigned long);

// All three, or none when the host lacks its buffer library.
struct HostLibrary {
    GetIndexFn get_index = nullptr;
    GetBytesFn get_bytes = nullptr;
    SetBytesFn set_bytes = nullptr;
} host;

constexpr const char* get_help = "**************************************************\n"
                                 "Command Name: buff get bytes\n\n"
                                 "Description: Retrieve the contents of a buffer as a byte "
                                 "array object.\n\n"
                                 "Parm Order: buffer_index ?offset? ?length?\n\n";
constexpr const char* set_help = "**************************************************\n"
                                 "Command Name: buff set bytes\n\n"
                                 "Description: Takes a byte array object and sets the contest "
                                 "of a buffer.\n\n"
                                 "Parm Order: buffer_index bytearray ?offset_from? ?offset_to? "
                                 "?length?\n\n";

bool isHelp(PyObject* buffer) {
    return PyUnicode_Check(buffer) && PyUnicode_CompareWithASCIIString(buffer, "-help") == 0;
}

// False with an Exception set when the host has no buffer library. Checked
// where the host would first be called, after the arguments have been parsed.
bool hostAvailable() {
    if (host.get_index) return true;
    PyErr_SetString(PyExc_Exception, "host buffer library not available");
    return false;
}

// A buffer argument as a key: a str is looked up by name, an int is the buffer
// number (its low 32 bits). False with a Python error set; a value that
// cannot be converted never reaches the host.
bool resolveKey(PyObject* buffer, HostKey& key) {
    key = HostKey{0, 0};
    if (PyType_HasFeature(Py_TYPE(buffer), Py_TPFLAGS_UNICODE_SUBCLASS)) {
        const char* text = PyUnicode_AsUTF8(buffer);
        if (!text) return false;
        int status = -1;
        try {
            status = host.get_index(std::string(text), key);
        } catch (const std::bad_alloc&) {
            PyErr_NoMemory();
            return false;
        }
        if (status != 0) {
            PyErr_SetString(PyExc_Exception, "Invalid buffer");
            return false;
        }
        return true;
    }
    if (PyType_HasFeature(Py_TYPE(buffer), Py_TPFLAGS_LONG_SUBCLASS)) {
        const long number = PyLong_AsLong(buffer);
        if (number == -1 && PyErr_Occurred()) return false;
        key.second = static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
        return true;
    }
    PyErr_SetString(PyExc_TypeError, "Invalid buffer type. Expecting Str or integer.");
    return false;
}

PyObject* getBytes(PyObject*, PyObject* args) {
    PyObject* buffer = nullptr;
    Py_ssize_t offset = 0;
    Py_ssize_t length = 0;
    if (!PyArg_ParseTuple(args, "O|nn:buff get bytes", &buffer, &offset, &length)) return nullptr;
    if (isHelp(buffer)) return PyUnicode_FromString(get_help);
    HostKey key;
    if (!hostAvailable() || !resolveKey(buffer, key)) return nullptr;
    // Negative values reach the host as huge unsigned ones, which it refuses.
    HostPair pair{nullptr, 0};
    if (const char* message = host.get_bytes(pair, key, static_cast<unsigned long>(offset),
                                             static_cast<unsigned long>(length))) {
        PyErr_SetString(PyExc_Exception, message);
        return nullptr;
    }
    if (!pair.data || pair.size == 0) Py_RETURN_NONE;
    if (pair.size > static_cast<std::uint64_t>(PY_SSIZE_T_MAX)) return PyErr_NoMemory();
    return PyByteArray_FromStringAndSize(pair.data, static_cast<Py_ssize_t>(pair.size));
}

PyObject* setBytes(PyObject*, PyObject* args) {
    PyObject* buffer = nullptr;
    PyObject* data = nullptr;
    Py_ssize_t offset_from = 0;
    Py_ssize_t offset_to = 0;
    Py_ssize_t length = 0;
    // The help needs only the buffer argument, so it is looked for before the
    // data becomes required.
    if (PyArg_ParseTuple(args, "O|Onnn:buff set bytes", &buffer, &data, &offset_from,
                         &offset_to, &length)) {
        if (isHelp(buffer)) return PyUnicode_FromString(set_help);
    } else {
        PyErr_Clear();
    }
    if (!PyArg_ParseTuple(args, "OO|nnn:buff set bytes", &buffer, &data, &offset_from,
                          &offset_to, &length))
        return nullptr;
    if (Py_TYPE(data) != &PyByteArray_Type &&
        !PyType_IsSubtype(Py_TYPE(data), &PyByteArray_Type)) {
        PyErr_SetString(PyExc_TypeError, "invalid bytes object");
        return nullptr;
    }
    HostKey key;
    if (!hostAvailable() || !resolveKey(buffer, key)) return nullptr;
    HostPair pair{PyByteArray_AsString(data), static_cast<std::uint64_t>(PyByteArray_Size(data))};
    if (const char* message = host.set_bytes(pair, key, static_cast<unsigned long>(offset_from),
                                             static_cast<unsigned long>(offset_to),
                                             static_cast<unsigned long>(length))) {
        PyErr_SetString(PyExc_Exception, message);
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyMethodDef orvanta_methods[] = {
    {"__buffGetBytes", guardedMethod<getBytes>, METH_VARARGS, nullptr},
    {"__buffSetBytes", guardedMethod<setBytes>, METH_VARARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef orvanta_definition = {
    PyModuleDef_HEAD_INIT,
    "Orvanta",
    "A module to contain all the base Orvanta functions.",
    0,
    orvanta_methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

void findHostLibrary() {
    // TCLBufferCmds::getBufferIndex(std::string, BufferKey&), getBytes(BufferPair&,
    // BufferKey, unsigned long, unsigned long) and setBytes(BufferPair&, BufferKey,
    // unsigned long, unsigned long, unsigned long), std::string being the C++11 ABI's.
    constexpr const char* get_index_name =
        "_ZN13TCLBufferCmds14getBufferIndexENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEER9"
        "BufferKey";
    constexpr const char* get_bytes_name =
        "_ZN13TCLBufferCmds8getBytesERNS_10BufferPairE9BufferKeymm";
    constexpr const char* set_bytes_name =
        "_ZN13TCLBufferCmds8setBytesERNS_10BufferPairE9BufferKeymmm";
    auto get_index = reinterpret_cast<GetIndexFn>(dlsym(RTLD_DEFAULT, get_index_name));
    auto get_bytes = reinterpret_cast<GetBytesFn>(dlsym(RTLD_DEFAULT, get_bytes_name));
    auto set_bytes = reinterpret_cast<SetBytesFn>(dlsym(RTLD_DEFAULT, set_bytes_name));
    if (get_index && get_bytes && set_bytes) host = HostLibrary{get_index, get_bytes, set_bytes};
}

} // namespace pytarn::buffer

// The API version 1013 and the message are kept as written.
extern "C" PyObject* PyInit_Orvanta(void) {
    PyObject* module = PyModule_Create2(&pytarn::buffer::orvanta_definition, 1013);
    if (!module) std::printf("failed to init the Orvanta module\n");
    return module;
}
