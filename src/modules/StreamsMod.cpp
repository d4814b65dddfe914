// The built-in module _pytarn_streams: sys.stdout and sys.stderr as text streams
// (io.TextIOBase) over the host's Tcl channels. Python threads, with the
// interpreter lock held; the channel work runs on the main Tcl thread.
#include "StreamsMod.h"

#include "convert/PyErrors.h"

#include "ForkedOutput.h"
#include "TclMod.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace pytarn::streams {

namespace {

// The classes behind sys.stdout and sys.stderr. `write` is the built-in
// itself, kept on the instance: print then calls it with no Python frame
// between. Text goes to Tcl as text; `buffer` takes bytes, which reach the
// same channel in order with the text (raw when they are not UTF-8).
const char* const stream_class =
    "import io as _io, os as _os, codecs as _codecs\n"
    "class TclBuffer(_io.BufferedIOBase):\n"
    "    '''Bytes written to the Tcl channel of the text stream above it.'''\n"
    "    mode = 'wb'\n"
    "    def __init__(self, text):\n"
    "        self._text = text\n"
    "    name = property(lambda self: self._text.name)\n"
    "    def writable(self):\n"
    "        return True\n"
    "    def write(self, data):\n"
    "        return _write_bytes(self._text._channel, data)\n"
    "    def flush(self):\n"
    "        self._text.flush()\n"
    "    def fileno(self):\n"
    "        return self._text.fileno()\n"
    "    def isatty(self):\n"
    "        return self._text.isatty()\n"
    "class TclStream(_io.TextIOBase):\n"
    "    '''Text written to one of the host's Tcl channels, stdout or stderr.'''\n"
    "    encoding = 'utf-8'\n"
    "    errors = 'strict'\n"
    "    mode = 'w'\n"
    "    line_buffering = False\n"
    "    write_through = False\n"
    "    def __init__(self, channel, write):\n"
    "        self._channel = channel\n"
    "        self._write = self.write = write\n"
    "        self.buffer = TclBuffer(self)\n"
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
    "    def _careful_write(self, text):\n"
    "        if not isinstance(text, str):\n"
    "            return self._write(text)\n"
    "        if self.errors == 'strict':\n"
    "            self._write(text)\n"
    "        else:\n"
    "            self.buffer.write(text.encode('utf-8', self.errors))\n"
    "        if self.line_buffering and ('\\n' in text or '\\r' in text):\n"
    "            self.flush()\n"
    "        return len(text)\n"
    "    def reconfigure(self, *, encoding=None, errors=None, newline=None,\n"
    "                    line_buffering=None, write_through=None):\n"
    "        # Tcl's channel turns the text into bytes, by its own -encoding.\n"
    "        if encoding is not None and _codecs.lookup(encoding).name != 'utf-8':\n"
    "            raise ValueError('a Tcl channel takes UTF-8 text, not %s' % encoding)\n"
    "        if newline not in (None, '', '\\n'):\n"
    "            raise ValueError('a Tcl channel translates line ends itself')\n"
    "        self.flush()\n"
    "        if errors is not None:\n"
    "            _codecs.lookup_error(errors)\n"
    "            self.errors = errors\n"
    "        if line_buffering is not None:\n"
    "            self.line_buffering = bool(line_buffering)\n"
    "        if write_through is not None:\n"
    "            self.write_through = bool(write_through)\n"
    "        plain = self.errors == 'strict' and not self.line_buffering\n"
    "        self.write = self._write if plain else self._careful_write\n"
    "    def detach(self):\n"
    "        self.flush()\n"
    "        buffer, self.buffer = self.buffer, None\n"
    "        return buffer\n"
    "    def __repr__(self):\n"
    "        return '<pytarn stream %s>' % self.name\n";

// What the Tcl thread does for flush(), fileno() and bytes of one channel.
struct ChannelWork {
    const char* name = nullptr;  // "stdout" or "stderr"
    const char* bytes = nullptr; // written raw, before the flush, when set
    std::size_t length = 0;
    bool want_descriptor = false;
    int descriptor = -1; // out
};

// Tcl thread. The channel is looked up by name, as puts finds it, and flushed
// first: what Python printed before is out before anyone else writes to the
// descriptor (a child process, faulthandler). With the interpreter gone
// (null), the thread's standard channels, which outlive it.
void channelWork(Tcl_Interp* interp, event::TclEvent* ev) {
    auto* work = static_cast<ChannelWork*>(ev->context);
    const bool to_stderr = std::strcmp(work->name, "stderr") == 0;
    Tcl_InterpState saved = interp ? Tcl_SaveInterpState(interp, TCL_OK) : nullptr;
    Tcl_Channel channel = interp ? Tcl_GetChannel(interp, work->name, nullptr)
                                 : Tcl_GetStdChannel(to_stderr ? TCL_STDERR : TCL_STDOUT);
    if (saved) Tcl_RestoreInterpState(interp, saved);
    const char* failed = nullptr;
    if (!channel) {
        if (work->bytes) failed = "can not find channel named \"%s\"";
    } else if (work->bytes &&
               Tcl_Write(channel, work->bytes, static_cast<int>(work->length)) < 0) {
        failed = "error writing \"%s\": %s";
    } else if (Tcl_Flush(channel) != TCL_OK) {
        failed = "error flushing \"%s\": %s";
    }
    if (failed) {
        const int number = channel ? Tcl_GetErrno() : EBADF;
        char message[200];
        std::snprintf(message, sizeof message, failed, work->name, Tcl_ErrnoMsg(number));
        event_mgr->output.fail(to_stderr, number, message);
    }
    ClientData handle = nullptr;
    if (channel && work->want_descriptor &&
        Tcl_GetChannelHandle(channel, TCL_WRITABLE, &handle) == TCL_OK)
        work->descriptor = static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
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

// Returns the descriptor, -1 when the channel has none (or Tcl is gone), -2
// with an error set.
int runChannelWork(ChannelWork* work) {
    const bool to_stderr = std::strcmp(work->name, "stderr") == 0;
    if (python_thread.forked.load()) {
        // A forked child writes straight to the host's descriptors.
        if (work->bytes) python_api::forked::write(to_stderr, work->bytes, work->length);
        python_api::forked::flush();
        return to_stderr ? 2 : 1;
    }
    event::TclEvent request(event::TclEvent::Asks::act);
    request.action = channelWork;
    request.context = work;
    request.outlives_interp = true;
    SmartPyObj result(python_api::cross(&request));
    return result ? work->descriptor : -2;
}

PyObject* write(PyObject* text, bool to_stderr) {
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "write() argument must be str, not %.100s",
                     Py_TYPE(text)->tp_name);
        return nullptr;
    }
    std::size_t length = 0;
    const char* utf8 = python_api::outputText(text, &length);
    if (!utf8 || !python_api::output(to_stderr, utf8, length, true)) return nullptr;
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
    ChannelWork work;
    work.name = channelName(channel);
    if (!work.name || runChannelWork(&work) == -2) return nullptr;
    if (python_api::raisedWriteFailure(std::strcmp(work.name, "stderr") == 0)) return nullptr;
    Py_RETURN_NONE;
}

// Bytes that are UTF-8 go the text's way (through puts, queued); any other
// bytes are written raw, after the text queued before them.
PyObject* bytesWritten(PyObject* channel, PyObject* data) {
    ChannelWork work;
    work.name = channelName(channel);
    Py_buffer view;
    if (!work.name || PyObject_GetBuffer(data, &view, PyBUF_SIMPLE) != 0) return nullptr;
    const std::unique_ptr<Py_buffer, void (*)(Py_buffer*)> release(&view, PyBuffer_Release);
    work.bytes = static_cast<const char*>(view.buf);
    work.length = static_cast<std::size_t>(view.len);
    const bool to_stderr = std::strcmp(work.name, "stderr") == 0;
    if (view.len > INT_MAX) { // Tcl counts in int
        PyErr_SetString(PyExc_OverflowError, "too many bytes for one write");
        return nullptr;
    }
    SmartPyObj text;
    if (!std::memchr(work.bytes, '\0', work.length))
        text = PyUnicode_DecodeUTF8(work.bytes, view.len, nullptr);
    PyErr_Clear();
    SmartPyObj wrote;
    if (text) {
        wrote = write(text.get(), to_stderr);
        if (wrote) wrote = PyLong_FromSsize_t(view.len);
    } else if (!python_api::raisedWriteFailure(to_stderr) && runChannelWork(&work) != -2 &&
               !python_api::raisedWriteFailure(to_stderr)) {
        wrote = PyLong_FromSsize_t(view.len);
    }
    return wrote.release();
}

PyObject* writeBytes(PyObject*, PyObject* const* args, Py_ssize_t count) {
    if (count != 2) {
        PyErr_SetString(PyExc_TypeError, "_write_bytes() takes a channel and bytes");
        return nullptr;
    }
    return pythonGuard([args] { return bytesWritten(args[0], args[1]); });
}

PyObject* flush(PyObject*, PyObject* channel) {
    return pythonGuard([channel] { return flushChannel(channel); });
}

PyObject* channelDescriptor(PyObject* channel) {
    ChannelWork work;
    work.name = channelName(channel);
    work.want_descriptor = true;
    const char* name = work.name;
    if (!name) return nullptr;
    const int descriptor = runChannelWork(&work);
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
    {"_write_bytes", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(writeBytes)),
     METH_FASTCALL, "Writes bytes to the Tcl channel; returns their length."},
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
