#include "Scalar.h"

#include <cstring>

namespace tcl_convert {

bool toScalar(Tcl_Obj* value, Scalar* out) {
    if (value->typePtr && (value->typePtr == listType() || value->typePtr == dictType()))
        return false;
    if (pureInteger(value, &out->integer)) {
        out->kind = Scalar::Kind::integer;
        return true;
    }
    int length = 0;
    const char* text = Tcl_GetStringFromObj(value, &length);
    if (length > Scalar::capacity) return false;
    std::memcpy(out->text, text, static_cast<std::size_t>(length));
    out->text[length] = '\0';
    out->length = static_cast<unsigned char>(length);
    out->kind = Scalar::Kind::text;
    return true;
}

SmartPyObj fromScalar(const Scalar& scalar) {
    if (scalar.kind == Scalar::Kind::integer)
        return SmartPyObj(PyLong_FromLongLong(scalar.integer));
    return fromTclPlainText(scalar.text, scalar.length);
}

bool toScalar(PyObject* value, Scalar* out) {
    if (PyLong_CheckExact(value)) {
        int overflow = 0;
        const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow || (number == -1 && PyErr_Occurred())) {
            PyErr_Clear();
            return false;
        }
        out->integer = static_cast<Tcl_WideInt>(number);
        out->kind = Scalar::Kind::integer;
        return true;
    }
    // Text beyond U+FFFF is recoded for Tcl (see toTclStr): not a scalar.
    if (!PyUnicode_CheckExact(value) || PyUnicode_MAX_CHAR_VALUE(value) > 0xFFFF ||
        PyUnicode_GET_LENGTH(value) > Scalar::capacity)
        return false;
    Py_ssize_t length = 0;
    const char* text = PyUnicode_AsUTF8AndSize(value, &length);
    if (!text || length > Scalar::capacity) {
        PyErr_Clear();
        return false;
    }
    // As Tcl_NewStringObj(text, -1) in toTclStr: up to the first NUL.
    const std::size_t kept = std::strlen(text);
    std::memcpy(out->text, text, kept + 1);
    out->length = static_cast<unsigned char>(kept);
    out->kind = Scalar::Kind::text;
    return true;
}

Tcl_Obj* toTcl(const Scalar& scalar) {
    if (scalar.kind == Scalar::Kind::integer) return Tcl_NewWideIntObj(scalar.integer);
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
        Scalar word;
        if (words[i] == Py_None) {
            word.kind = Scalar::Kind::text;
            word.length = 0;
        } else if (!toScalar(words[i], &word)) {
            return false;
        }
        const bool integer = word.kind == Scalar::Kind::integer;
        const std::size_t size = integer ? 1 + sizeof word.integer : 2 + word.length;
        if (used + size > capacity) return false;
        bytes_[used] = integer ? packed_integer : packed_text;
        if (integer) {
            std::memcpy(bytes_ + used + 1, &word.integer, sizeof word.integer);
        } else {
            bytes_[used + 1] = word.length;
            std::memcpy(bytes_ + used + 2, word.text, word.length);
        }
        used += size;
    }
    count_ = count;
    used_ = used;
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

} // namespace tcl_convert
