// Small values that cross between the threads inside a request record
// instead of as Tcl objects. An object made on one thread and read and freed
// on the other costs its own cache lines and its allocator's passed between
// the cores, which is more than the rest of a short call.
#pragma once

#include "TclConvert.h"

#include <cstddef>
#include <cstring>

namespace tcl_convert {

// One value: an integer, or a short text. Sixteen bytes and no alignment, so
// that it fits in a record's request or answer line beside the fields a call
// uses.
struct Scalar {
    static constexpr int capacity = 13; // bytes of text; a NUL follows them
    enum class Kind : unsigned char { none, integer, text };
    Kind kind = Kind::none;
    unsigned char length = 0;  // of the text
    char text[capacity + 1];   // or the integer's bytes

    Tcl_WideInt integer() const {
        Tcl_WideInt number = 0;
        std::memcpy(&number, text, sizeof number);
        return number;
    }
    void setInteger(Tcl_WideInt number) {
        std::memcpy(text, &number, sizeof number);
        kind = Kind::integer;
    }
    // `length` bytes, at most `capacity`.
    void setText(const char* bytes, std::size_t length) {
        std::memcpy(text, bytes, length);
        text[length] = '\0';
        this->length = static_cast<unsigned char>(length);
        kind = Kind::text;
    }
};
static_assert(sizeof(Scalar) == 16, "a scalar is meant to share a record's line");
// Tcl side, no Python: fills `out` when `value` is a scalar as fromTcl reads
// it (neither a list nor a dict, and short), with what fromTcl reads.
bool toScalar(Tcl_Obj* value, Scalar* out);
// Python side: fromTcl of the value that made `scalar`.
SmartPyObj fromScalar(const Scalar& scalar);
// Python side: what toTcl makes of `value` when that is a plain integer (an
// exact int that fits 64 bits: `*integer`) or a plain text of at most
// `limit` bytes (an exact str: `*text` and `*length`, up to its first NUL, as
// toTcl keeps it); Kind::none for anything else. Leaves no error set.
Scalar::Kind plainValue(PyObject* value, std::size_t limit, Tcl_WideInt* integer,
                        const char** text, std::size_t* length);
// Python side: fills `out` when `value` is a plain value that fits a Scalar.
bool toScalar(PyObject* value, Scalar* out);
// Tcl side: toTcl of the value that made `scalar`.
Tcl_Obj* toTcl(const Scalar& scalar);

// The words of one Tcl command, packed by the Python thread into one buffer
// that the Tcl thread reads in a line or two and turns into objects of its
// own. Only words that are scalars pack; None is the empty word.
class PackedWords {
public:
    static constexpr int max_words = 16;
    // Python side: false, and nothing packed, unless every word packs.
    bool pack(PyObject* const* words, int count);
    // Tcl side: the words as new objects, one reference each, in
    // `out[0 .. count())`.
    void unpack(Tcl_Obj** out) const;
    int count() const { return count_; }

private:
    static constexpr std::size_t capacity = 248;
    int count_ = 0;
    unsigned char bytes_[capacity];
};

// The words of a call into Python, packed by the Tcl thread into a buffer
// that shares a cache line with the request that carries them, so that the
// Python thread reads them with it. Only words that are scalars (see
// toScalar) pack.
class ShortWords {
public:
    // Tcl side: false, and nothing packed, unless every word packs.
    bool pack(Tcl_Obj* const* words, int count);
    bool packed() const { return packed_; }
    int count() const { return count_; }
    // Python side: fromTcl of the word at `*at` (0 for the first), which then
    // moves on to the next one: the words are read in order.
    SmartPyObj value(std::size_t* at) const;

private:
    static constexpr std::size_t capacity = 54;
    unsigned char count_ = 0;
    bool packed_ = false;
    unsigned char bytes_[capacity];
};
static_assert(sizeof(ShortWords) == 56, "short words leave a pointer's room in their line");

} // namespace tcl_convert
