#include "TclConvert.h"

#include "PyErrors.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

using pytarn::printPythonError;
using pytarn::SmartPyObj;
using pytarn::SmartTclObj;

namespace {

bool isStr(PyObject* obj) {
    return PyType_HasFeature(Py_TYPE(obj), Py_TPFLAGS_UNICODE_SUBCLASS);
}

// UTF-8 text of a str up to its first NUL; empty (error left set) on failure.
std::string utf8Text(PyObject* str) {
    const char* text = PyUnicode_AsUTF8(str);
    return text ? std::string(text) : std::string();
}

// Depth of the conversion under way on this thread. Conversions nest only
// through themselves (and through __str__/items() code they call, which may
// convert again: that counts too, which is what a self-referencing value needs).
thread_local int depth = 0;

class DepthGuard {
public:
    DepthGuard() { ++depth; }
    ~DepthGuard() { --depth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;
    // Sets RecursionError (unless an error is already pending) when too deep.
    bool tooDeep() const {
        if (depth <= tcl_convert::max_depth) return false;
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_RecursionError, tcl_convert::too_deep_message);
        return true;
    }
};

// Clears a pending ValueError; false, leaving it set, for any other error.
bool clearValueError() {
    if (!PyErr_ExceptionMatches(PyExc_ValueError)) return false;
    PyErr_Clear();
    return true;
}

bool recursionPending() {
    return PyErr_Occurred() && PyErr_ExceptionMatches(PyExc_RecursionError);
}

Tcl_Encoding utf8Encoding() {
    static const Tcl_Encoding encoding = Tcl_GetEncoding(nullptr, "utf-8"); // kept for good
    return encoding;
}

} // namespace

std::string SmartPyObj::stdstr() const {
    if (!obj_) return {};
    if (isStr(obj_)) return utf8Text(obj_);
    SmartPyObj str(PyObject_Str(obj_));
    if (!str || !isStr(str.get())) return {};
    return utf8Text(str.get());
}

// Whether Python's int() could read `text`: after blanks and a sign, a
// digit (the start of every literal it takes).
bool startsAsNumber(const char* text) {
    while (Py_ISSPACE(*text)) ++text;
    if (*text == '+' || *text == '-') ++text;
    return *text >= '0' && *text <= '9';
}

bool isTclOctal(const char* text) {
    if (!text || text[0] != '0') return false;
    bool nonZero = false;
    for (const char* p = text; *p; ++p) {
        if (*p < '0' || *p > '7') return false;
        nonZero = nonZero || *p != '0';
    }
    return nonZero;
}

bool isTclFloat(const char* text) {
    if (!text) return false;
    int points = 0;
    int digits = 0;
    for (const char* p = text; *p; ++p) {
        if (*p == '.') {
            ++points;
        } else if (*p >= '0' && *p <= '9') {
            ++digits;
        } else {
            return false;
        }
    }
    return points == 1 && digits > 0;
}

namespace tcl_convert {

const Tcl_ObjType* listType() {
    static const Tcl_ObjType* const type = Tcl_GetObjType("list");
    return type;
}

const Tcl_ObjType* dictType() {
    static const Tcl_ObjType* const type = Tcl_GetObjType("dict");
    return type;
}

bool pureInteger(Tcl_Obj* value, Tcl_WideInt* number) {
    static const Tcl_ObjType* const type = Tcl_GetObjType("int");
    return type && value->typePtr == type && !value->bytes &&
           Tcl_GetWideIntFromObj(nullptr, value, number) == TCL_OK;
}

TclText::TclText(const char* utf8) : text_(utf8) {
    // Only four-byte sequences differ, and their lead bytes are 0xF0 and up.
    const char* p = utf8;
    while (*p && static_cast<unsigned char>(*p) < 0xF0) ++p;
    if (!*p || !utf8Encoding()) return;
    Tcl_ExternalToUtfDString(utf8Encoding(), utf8, -1, &copy_);
    recoded_ = true;
    text_ = Tcl_DStringValue(&copy_);
}

TclText::~TclText() {
    if (recoded_) Tcl_DStringFree(&copy_);
}

SmartPyObj fromTclText(const char* text, int length) {
    // A raw NUL byte only comes from a malformed object; Tcl's NUL is 0xC0 0x80.
    // It is looked for in the decoded copy, which this thread has just
    // written: a second pass over Tcl's text may fetch it all again from
    // another core's cache.
    SmartPyObj str(PyUnicode_DecodeUTF8(text, length, nullptr));
    if (str) {
        const Py_ssize_t length_read = PyUnicode_GET_LENGTH(str.get());
        if (PyUnicode_FindChar(str.get(), 0, 0, length_read, 1) == -1) return str;
        PyErr_Clear();
        return SmartPyObj();
    }
    PyErr_Clear();
    if (std::memchr(text, '\0', static_cast<size_t>(length))) return SmartPyObj();
    // Surrogates read one by one, then joined through UTF-16, where a pair
    // becomes one character and a lone half fails.
    SmartPyObj halves(PyUnicode_DecodeUTF8(text, length, "surrogatepass"));
    SmartPyObj utf16(halves ? PyUnicode_AsEncodedString(halves.get(), "utf-16-le", "surrogatepass")
                            : nullptr);
    if (utf16) {
        int littleEndian = -1;
        str = PyUnicode_DecodeUTF16(PyBytes_AS_STRING(utf16.get()), PyBytes_GET_SIZE(utf16.get()),
                                    nullptr, &littleEndian);
    }
    PyErr_Clear();
    return str;
}

namespace {

// A plain int that fits 64 bits becomes Tcl's own integer, whose text is the
// same decimal digits as its str(), without a Python str in between. (Not
// bool: a subclass whose str() is True or False.) Null for anything else.
inline Tcl_Obj* plainInteger(PyObject* value) {
    if (!PyLong_CheckExact(value)) return nullptr;
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow || (number == -1 && PyErr_Occurred())) {
        PyErr_Clear();
        return nullptr;
    }
    return Tcl_NewWideIntObj(static_cast<Tcl_WideInt>(number));
}

} // namespace

Tcl_Obj* toTcl(SmartPyObj value) {
    if (!value) return toTcl("");
    unsigned long flags = PyType_GetFlags(Py_TYPE(value.get()));
    if (flags & (Py_TPFLAGS_LIST_SUBCLASS | Py_TPFLAGS_TUPLE_SUBCLASS))
        return toTclList(std::move(value));
    if (flags & Py_TPFLAGS_DICT_SUBCLASS) return toTclDict(std::move(value));
    return toTclStr(std::move(value));
}

Tcl_Obj* toTclList(SmartPyObj value) {
    DepthGuard guard;
    if (!value || guard.tooDeep()) return Tcl_NewListObj(0, nullptr);
    PyObject* sequence = value.get();
    Py_ssize_t n = PyObject_Size(sequence);
    // A subclass's __len__ may claim more than it holds, and its __getitem__
    // invent items without end: the items held bound the count, as in list().
    if (PyList_Check(sequence)) n = std::min(n, PyList_GET_SIZE(sequence));
    if (PyTuple_Check(sequence)) n = std::min(n, PyTuple_GET_SIZE(sequence));
    if (n < 1) return Tcl_NewListObj(0, nullptr);
    // Elements are gathered first and the list made in one call: appending
    // one by one regrows Tcl's element array.
    std::vector<Tcl_Obj*> elements;
    try {
        elements.reserve(static_cast<std::size_t>(n));
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return Tcl_NewListObj(0, nullptr);
    }
    const bool exactList = PyList_CheckExact(sequence);
    const bool exactTuple = PyTuple_CheckExact(sequence);
    // A sequence may shrink while its items are converted (its own code runs
    // in __str__ of an item); stop at the first missing item.
    for (Py_ssize_t i = 0; i < n; ++i) {
        SmartPyObj item;
        if (exactTuple || exactList) {
            if (exactList && i >= PyList_GET_SIZE(sequence)) break;
            PyObject* held = exactTuple ? PyTuple_GET_ITEM(sequence, i)
                                        : PyList_GET_ITEM(sequence, i);
            // Integers, the commonest items of large lists, without the
            // general path's reference counting and type tests.
            if (Tcl_Obj* number = plainInteger(held)) {
                elements.push_back(number);
                continue;
            }
            item = SmartPyObj::borrow(held);
        } else {
            if (!PySequence_Check(sequence)) break;
            item = PySequence_GetItem(sequence, i);
            if (!item) {
                if (PyErr_ExceptionMatches(PyExc_IndexError)) PyErr_Clear();
                break;
            }
        }
        elements.push_back(toTcl(std::move(item)));
        // The first failed item fails the whole value: converting on would
        // run more Python code with an error pending.
        if (PyErr_Occurred()) break;
    }
    return Tcl_NewListObj(static_cast<int>(elements.size()), elements.data());
}

Tcl_Obj* toTclDict(SmartPyObj value) {
    Tcl_Obj* dict = Tcl_NewDictObj();
    DepthGuard guard;
    if (!value || guard.tooDeep()) return dict;
    SmartPyObj items(PyMapping_Items(value.get()));
    if (!items) return dict;
    Py_ssize_t n = PyObject_Size(items.get());
    for (Py_ssize_t i = 0; i < n; ++i) {
        if (!PySequence_Check(items.get())) break;
        SmartPyObj pair(PySequence_GetItem(items.get(), i));
        if (!pair || !PySequence_Check(pair.get())) break;
        SmartPyObj key(PySequence_GetItem(pair.get(), 0));
        SmartPyObj val(PySequence_GetItem(pair.get(), 1));
        if (!key || !val) break;
        // Both are converted before either is stored, so a failed key
        // conversion cannot leave the value's object unowned.
        SmartTclObj tclValue(toTcl(std::move(val)));
        SmartTclObj tclKey(toTcl(std::move(key)));
        Tcl_DictObjPut(nullptr, dict, tclKey.get(), tclValue.get());
        if (PyErr_Occurred()) break;
    }
    return dict;
}

Tcl_Obj* toTclStr(SmartPyObj value) {
    if (!value) return toTcl("");
    if (Tcl_Obj* number = plainInteger(value.get())) return number;
    // Text straight from the str's UTF-8 cache: no copy on the way to Tcl.
    PyObject* str = value.get();
    SmartPyObj converted;
    if (!isStr(str)) {
        converted = PyObject_Str(str);
        str = converted && isStr(converted.get()) ? converted.get() : nullptr;
    }
    const char* text = str ? PyUnicode_AsUTF8(str) : nullptr;
    if (!text) return toTcl("");
    // Only text beyond U+FFFF needs TclText's scan and recoding.
    return PyUnicode_MAX_CHAR_VALUE(str) > 0xFFFF ? toTcl(text) : Tcl_NewStringObj(text, -1);
}

Tcl_Obj* toTcl(const char* text) { return Tcl_NewStringObj(TclText(text).get(), -1); }

SmartPyObj fromTcl(Tcl_Obj* value) {
    if (value->typePtr && value->typePtr == listType()) return fromTclList(value);
    if (value->typePtr && value->typePtr == dictType()) return fromTclDict(value);
    Tcl_WideInt integer = 0;
    if (pureInteger(value, &integer)) return SmartPyObj(PyLong_FromLongLong(integer));
    int length = 0;
    const char* text = Tcl_GetStringFromObj(value, &length);
    return fromTclPlainText(text, length);
}

SmartPyObj fromTclPlainText(const char* text, int length) {
    // Python reads the text up to a NUL; Tcl keeps NUL as 0xC0 0x80, so a
    // genuine NUL byte can only come from a malformed object, which
    // converts to nothing. Only text that starts as a number is parsed as
    // one: Python's parser measures the whole text to report a failure, a
    // pass over what may be megabytes.
    SmartPyObj number;
    if (startsAsNumber(text)) {
        number = PyLong_FromString(text, nullptr, 0);
        // Not an int, or decimal digits past Python's limit: either way the
        // text goes on down the list. Only that ValueError is dropped: a
        // pending KeyboardInterrupt or MemoryError that surfaced meanwhile
        // stays raised.
        if (!number && !clearValueError()) return SmartPyObj();
        if (!number && isTclOctal(text)) {
            number = PyLong_FromString(text, nullptr, 8);
            if (!number && !clearValueError()) return SmartPyObj();
        }
        if (number) {
            if (std::memchr(text, '\0', static_cast<size_t>(length))) return SmartPyObj();
            return number;
        }
    }
    SmartPyObj str = fromTclText(text, length);
    if (!str) return str;
    if (isTclFloat(text)) {
        number = PyFloat_FromString(str.get());
        if (number) return number;
        if (!clearValueError()) return SmartPyObj();
    }
    return str;
}

SmartPyObj fromTclList(Tcl_Obj* value) {
    DepthGuard guard;
    if (guard.tooDeep()) return SmartPyObj();
    int count = 0;
    Tcl_Obj** elements = nullptr;
    Tcl_ListObjGetElements(nullptr, value, &count, &elements);
    SmartPyObj list(PyList_New(count));
    if (!list) {
        printPythonError();
        return SmartPyObj::none();
    }
    for (int i = 0; i < count; ++i) {
        SmartPyObj item = fromTcl(elements[i]);
        if (!item && recursionPending()) return SmartPyObj();
        if (!item) {
            if (!PyErr_Occurred())
                PyErr_SetString(PyExc_ValueError, not_converted_message);
            printPythonError();
            // What was converted so far; the empty slots go.
            PyList_SetSlice(list.get(), i, count, nullptr);
            return list;
        }
        PyList_SET_ITEM(list.get(), i, item.release());
    }
    return list;
}

SmartPyObj fromTclDict(Tcl_Obj* value) {
    DepthGuard guard;
    if (guard.tooDeep()) return SmartPyObj();
    SmartPyObj dict(PyDict_New());
    if (!dict) {
        printPythonError();
        return SmartPyObj::none();
    }
    Tcl_DictSearch search;
    Tcl_Obj* key = nullptr;
    Tcl_Obj* val = nullptr;
    int done = 0;
    bool failed = Tcl_DictObjFirst(nullptr, value, &search, &key, &val, &done) != TCL_OK;
    for (; !failed && !done; Tcl_DictObjNext(&search, &key, &val, &done)) {
        SmartPyObj item = fromTcl(val);
        if (!item && recursionPending()) {
            Tcl_DictObjDone(&search);
            return SmartPyObj();
        }
        int keyLength = 0;
        const char* keyText = Tcl_GetStringFromObj(key, &keyLength);
        SmartPyObj pyKey = fromTclText(keyText, keyLength);
        failed = !item || !pyKey || PyDict_SetItem(dict.get(), pyKey.get(), item.get()) != 0;
    }
    Tcl_DictObjDone(&search);
    if (failed) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_ValueError, not_converted_message);
        printPythonError();
    }
    return dict;
}

} // namespace tcl_convert
