// The built-in module _pytarn_streams: sys.stdout and sys.stderr as text streams
// (io.TextIOBase) over the host's Tcl channels. Python threads, with the
// interpreter lock held; the channel work runs on the main Tcl thread.
#include "StreamsMod.h"

#include "convert/PyErrors.h"

#include "ForkedOutput.h"
#include "TclMod.h"

#include <cstdint>
#include <cstring>

namespace pytarn::streams {

namespace {

// The class behind sys.stdout and sys.stderr. `write` is the built-in itself,
// kept on the instance: print then calls it with no Python frame between.
const char* const stream_class =
    "import io as _io, os as _os\n"
    "class TclStream(_io.TextIOBase):\n"
    "    '''Text written to one of the host's Tcl channels, stdout or stderr.'''\n"
    "    encoding = 'utf-8'\n"
    "    errors = 'strict'\n"
    "    mode = 'w'\n"
    "    def __init__(self, channel, write):\n"
    "        self._channel = channel\n"
    "        self.write = write\n"
    "    @property\n"
    "    def name(self):\n"
    "        return '<%s>' % self._channel\n"
    "    def writable(self):\n"
    "        return True\n"
    "    def flush(self):\n"
    "        _flush(self._channel)\n"
    "    def fileno(self):\n"
    "        return _fileno(self._channel)\n"
    "    def isatty(self):\n"
    "        try:\n"
    "            return _os.isatty(self.fileno())\n"
    "        except (_io.UnsupportedOperation, OSError):\n"
    "            return False\n"
    "    def __repr__(self):\n"
    "        return '<pytarn stream %s>' % self.name\n";

// What the Tcl thread does for flush() and fileno() of one channel.
struct ChannelWork {
    const char* name = nullptr; // "stdout" or "stderr"
    bool want_descriptor = false;
    int descriptor = -1; // out
};

// Tcl thread. The channel is looked up by name, as puts finds it, and flushed
// first: what Python printed before is out before anyone else writes to the
// descriptor (a child process, faulthandler).
void channelWork(Tcl_Interp* interp, event::TclEvent* ev) {
    auto* work = static_cast<ChannelWork*>(ev->context);
    Tcl_InterpState saved = Tcl_SaveInterpState(interp, TCL_OK);
    Tcl_Channel channel = Tcl_GetChannel(interp, work->name, nullptr);
    if (channel) {
        Tcl_Flush(channel);
        ClientData handle = nullptr;
        if (work->want_descriptor &&
            Tcl_GetChannelHandle(channel, TCL_WRITABLE, &handle) == TCL_OK)
            work->descriptor = static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
    }
    Tcl_RestoreInterpState(interp, saved);
}

// Parses the channel argument: "stdout" or "stderr".
const char* channelName(PyObject* arg) {
    const char* name = PyUnicode_Check(arg) ? PyUnicode_AsUTF8(arg) : nullptr;
    if (name && (std::strcmp(name, "stdout") == 0 || std::strcmp(name, "stderr") == 0))
        return name;
    PyErr_Clear();
    PyErr_SetString(PyExc_ValueError, "channel must be 'stdout' or 'stderr'");
    return nullptr;
}

// Returns the descriptor, or -1 when the channel has none (or Tcl is gone).
int runChannelWork(const char* name, bool want_descriptor) {
    if (python_thread.forked.load()) {
        // A forked child writes straight to the host's descriptors.
        python_api::forked::flush();
        return std::strcmp(name, "stderr") == 0 ? 2 : 1;
    }
    ChannelWork work;
    work.name = name;
    work.want_descriptor = want_descriptor;
    event::TclEvent request;
    request.action = channelWork;
    request.context = &work;
    SmartPyObj result(python_api::cross(&request));
    return result ? work.descriptor : -2;
}

PyObject* write(PyObject* text, bool to_stderr) {
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "write() argument must be str, not %.100s",
                     Py_TYPE(text)->tp_name);
        return nullptr;
    }
    Py_ssize_t length = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text, &length);
    if (!utf8) return nullptr;
    // Tcl's channels take C strings here; a NUL would cut the text short.
    if (std::strlen(utf8) != static_cast<std::size_t>(length)) {
        PyErr_SetString(PyExc_ValueError, "embedded null character");
        return nullptr;
    }
    if (!python_api::output(to_stderr, utf8, static_cast<std::size_t>(length)))
        return nullptr;
    return PyLong_FromSsize_t(PyUnicode_GET_LENGTH(text));
}

// The module's functions run under pythonGuard: an allocation that fails (a
// huge text) becomes MemoryError.
PyObject* writeStdout(PyObject*, PyObject* text) {
    return pythonGuard([text] { return write(text, false); });
}

PyObject* writeStderr(PyObject*, PyObject* text) {
    return pythonGuard([text] { return write(text, true); });
}

PyObject* flushChannel(PyObject* channel) {
    const char* name = channelName(channel);
    if (!name || runChannelWork(name, false) == -2) return nullptr;
    Py_RETURN_NONE;
}

PyObject* flush(PyObject*, PyObject* channel) {
    return pythonGuard([channel] { return flushChannel(channel); });
}

PyObject* channelDescriptor(PyObject* channel) {
    const char* name = channelName(channel);
    if (!name) return nullptr;
    const int descriptor = runChannelWork(name, true);
    if (descriptor == -2) return nullptr;
    if (descriptor < 0) {
        SmartPyObj io(PyImport_ImportModule("io"));
        SmartPyObj unsupported(io ? PyObject_GetAttrString(io.get(), "UnsupportedOperation")
                                  : nullptr);
        if (!unsupported) return nullptr;
        PyErr_Format(unsupported.get(), "Tcl channel %s has no file descriptor", name);
        return nullptr;
    }
    return PyLong_FromLong(descriptor);
}

PyObject* fileno(PyObject*, PyObject* channel) {
    return pythonGuard([channel] { return channelDescriptor(channel); });
}

PyMethodDef methods[] = {
    {"stdout_write", writeStdout, METH_O, "Writes text to Tcl's stdout; returns its length."},
    {"stderr_write", writeStderr, METH_O, "Writes text to Tcl's stderr; returns its length."},
    {"_flush", flush, METH_O, "Waits until Tcl has written the channel's text, then flushes it."},
    {"_fileno", fileno, METH_O, "The descriptor under the Tcl channel, flushed first."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "_pytarn_streams",
    "Python's environment in the pytarn bridge: streams over Tcl's channels.",
    -1,
    methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// A new reference to a TclStream over `channel`, or null with an error set.
PyObject* makeStream(PyObject* streamClass, PyObject* module, const char* channel,
                     const char* writer) {
    SmartPyObj write(PyObject_GetAttrString(module, writer));
    if (!write) return nullptr;
    return PyObject_CallFunction(streamClass, "sO", channel, write.get());
}

} // namespace

PyObject* initModule() { return PyModule_Create(&definition); }

bool install() {
    SmartPyObj module(PyImport_ImportModule("_pytarn_streams"));
    if (!module) return false;
    PyObject* dict = PyModule_GetDict(module.get()); // borrowed
    SmartPyObj ran(PyRun_String(stream_class, Py_file_input, dict, dict));
    if (!ran) return false;
    PyObject* streamClass = PyDict_GetItemString(dict, "TclStream"); // borrowed
    if (!streamClass) return false;
    SmartPyObj out(makeStream(streamClass, module.get(), "stdout", "stdout_write"));
    SmartPyObj err(out ? makeStream(streamClass, module.get(), "stderr", "stderr_write")
                       : nullptr);
    return err && PySys_SetObject("stdout", out.get()) == 0 &&
           PySys_SetObject("stderr", err.get()) == 0;
}

} // namespace pytarn::streams
