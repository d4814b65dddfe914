#include "Scalar.h"

#include <cstring>

namespace tcl_convert {

bool toScalar(Tcl_Obj* value, Scalar* out) {
    if (value->typePtr && (value->typePtr == listType() || value->typePtr == dictType()))
        return false;
    Tcl_WideInt integer = 0;
    if (pureInteger(value, &integer)) {
        out->setInteger(integer);
        return true;
    }
    int length = 0;
    const char* text = Tcl_GetStringFromObj(value, &length);
    if (length > Scalar::capacity) return false;
    out->setText(text, static_cast<std::size_t>(length));
    return true;
}

SmartPyObj fromScalar(const Scalar& scalar) {
    if (scalar.kind == Scalar::Kind::integer)
        return SmartPyObj(PyLong_FromLongLong(scalar.integer()));
    return fromTclPlainText(scalar.text, scalar.length);
}

Scalar::Kind plainValue(PyObject* value, std::size_t limit, Tcl_WideInt* integer,
                        const char** text, std::size_t* length) {
    if (PyLong_CheckExact(value)) {
        int overflow = 0;
        const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow || (number == -1 && PyErr_Occurred())) {
            PyErr_Clear();
            return Scalar::Kind::none;
        }
        *integer = static_cast<Tcl_WideInt>(number);
        return Scalar::Kind::integer;
    }
    // Text beyond U+FFFF is recoded for Tcl (see toTclStr): not plain.
    if (!PyUnicode_CheckExact(value) || PyUnicode_MAX_CHAR_VALUE(value) > 0xFFFF ||
        static_cast<std::size_t>(PyUnicode_GET_LENGTH(value)) > limit)
        return Scalar::Kind::none;
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(value, &size);
    if (!utf8 || static_cast<std::size_t>(size) > limit) {
        PyErr_Clear();
        return Scalar::Kind::none;
    }
    *text = utf8;
    *length = std::strlen(utf8); // as Tcl_NewStringObj(text, -1) in toTclStr
    return Scalar::Kind::text;
}

bool toScalar(PyObject* value, Scalar* out) {
    Tcl_WideInt integer = 0;
    const char* text = nullptr;
    std::size_t length = 0;
    switch (plainValue(value, Scalar::capacity, &integer, &text, &length)) {
    case Scalar::Kind::integer:
        out->setInteger(integer);
        return true;
    case Scalar::Kind::text:
        out->setText(text, length);
        return true;
    case Scalar::Kind::none:
        break;
    }
    return false;
}

Tcl_Obj* toTcl(const Scalar& scalar) {
    if (scalar.kind == Scalar::Kind::integer) return Tcl_NewWideIntObj(scalar.integer());
    return Tcl_NewStringObj(scalar.text, scalar.length);
}

namespace {
// A packed word: its kind, then eight bytes of integer, or a length byte
// and the text.
constexpr unsigned char packed_integer = 1;
constexpr unsigned char packed_text = 2;
} // namespace

bool PackedWords::pack(PyObject* const* words, int count) {
    if (count > max_words) return false;
    std::size_t used = 0;
    for (int i = 0; i < count; ++i) {
        Tcl_WideInt integer = 0;
        const char* text = "";
        std::size_t length = 0; // None is the empty word
        const Scalar::Kind kind = words[i] == Py_None
                                      ? Scalar::Kind::text
                                      : plainValue(words[i], 255, &integer, &text, &length);
        if (kind == Scalar::Kind::none) return false;
        const bool isInteger = kind == Scalar::Kind::integer;
        const std::size_t size = isInteger ? 1 + sizeof integer : 2 + length;
        if (used + size > capacity) return false;
        bytes_[used] = isInteger ? packed_integer : packed_text;
        if (isInteger) {
            std::memcpy(bytes_ + used + 1, &integer, sizeof integer);
        } else {
            bytes_[used + 1] = static_cast<unsigned char>(length);
            std::memcpy(bytes_ + used + 2, text, length);
        }
        used += size;
    }
    count_ = count;
    return true;
}

void PackedWords::unpack(Tcl_Obj** out) const {
    std::size_t at = 0;
    for (int i = 0; i < count_; ++i) {
        if (bytes_[at] == packed_integer) {
            Tcl_WideInt integer = 0;
            std::memcpy(&integer, bytes_ + at + 1, sizeof integer);
            out[i] = Tcl_NewWideIntObj(integer);
            at += 1 + sizeof integer;
        } else {
            const int length = bytes_[at + 1];
            out[i] = Tcl_NewStringObj(reinterpret_cast<const char*>(bytes_ + at + 2), length);
            at += 2 + static_cast<std::size_t>(length);
        }
        Tcl_IncrRefCount(out[i]);
    }
}

bool ShortWords::pack(Tcl_Obj* const* words, int count) {
    if (count > 255) return false;
    std::size_t used = 0;
    for (int i = 0; i < count; ++i) {
        Scalar word;
        if (!toScalar(words[i], &word)) return false;
        const bool isInteger = word.kind == Scalar::Kind::integer;
        // A text keeps its NUL: the Python side reads it in place.
        const std::size_t size = isInteger ? 1 + sizeof(Tcl_WideInt) : 3 + word.length;
        if (used + size > capacity) return false;
        bytes_[used] = isInteger ? packed_integer : packed_text;
        if (isInteger) {
            std::memcpy(bytes_ + used + 1, word.text, sizeof(Tcl_WideInt));
        } else {
            bytes_[used + 1] = word.length;
            std::memcpy(bytes_ + used + 2, word.text, word.length + 1u);
        }
        used += size;
    }
    count_ = static_cast<unsigned char>(count);
    packed_ = true;
    return true;
}

SmartPyObj ShortWords::value(std::size_t* at) const {
    const std::size_t here = *at;
    if (bytes_[here] == packed_integer) {
        Tcl_WideInt integer = 0;
        std::memcpy(&integer, bytes_ + here + 1, sizeof integer);
        *at = here + 1 + sizeof integer;
        return SmartPyObj(PyLong_FromLongLong(integer));
    }
    const int length = bytes_[here + 1];
    *at = here + 3 + static_cast<std::size_t>(length);
    return fromTclPlainText(reinterpret_cast<const char*>(bytes_ + here + 2), length);
}

} // namespace tcl_convert
