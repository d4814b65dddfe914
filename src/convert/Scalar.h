// Small values that cross between the threads inside a request record
// instead of as Tcl objects. An object made on one thread and read and freed
// on the other costs its own cache lines and its allocator's passed between
// the cores, which is more than the rest of a short call.
#pragma once

#include "TclConvert.h"

#include <cstddef>

namespace tcl_convert {

// One value: an integer, or a short text.
struct Scalar {
    static constexpr int capacity = 39; // bytes of text; a NUL follows them
    enum class Kind : unsigned char { none, integer, text };
    Kind kind = Kind::none;
    unsigned char length = 0; // of the text
    union {
        Tcl_WideInt integer;
        char text[capacity + 1];
    };
};
// Tcl side, no Python: fills `out` when `value` is a scalar as fromTcl reads
// it (neither a list nor a dict, and short), with what fromTcl reads.
bool toScalar(Tcl_Obj* value, Scalar* out);
// Python side: fromTcl of the value that made `scalar`.
SmartPyObj fromScalar(const Scalar& scalar);
// Python side: fills `out` when `value` is an exact int or str that toTcl
// turns into a plain integer or a short text; leaves no error set.
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
    std::size_t used_ = 0;
    unsigned char bytes_[capacity];
};

} // namespace tcl_convert
